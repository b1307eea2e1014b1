// Measures the blocking round trip of the client library against an
// in-process peer that answers every request the moment it arrives, and, in
// the same run, a raw ping-pong of the same request and reply bytes between
// two loopback sockets: the floor that the library's threads, queues and
// parsing add to. With --tls both run over TLS. Then blocking QueryFiles
// answers of 10,000 and 100,000 groups, beside a bare QXmlStreamReader pass
// over the same bytes, and how long the result takes once the last byte is
// in.

#include "benchtable.h"
#include "filequery.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "queryreply.h"
#include "replyparser.h"
#include "testcertificates.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QLocale>
#include <QTextStream>
#include <QThread>
#include <QTimer>
#include <QXmlStreamReader>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/ssl.h>

using namespace Kelda;
using Clock = std::chrono::steady_clock;

namespace {

const QString kGuid = QStringLiteral("0b7c6d3e-8a11-4c2f-9d3e-5f6a7b8c9d0e");

QByteArray Frame(const QByteArray &payload)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian<quint32>(quint32(payload.size()), bytes.data());
    return bytes + payload;
}

// The text between an element's start and end tag, found by plain search:
// the peer must cost as little as possible.
QByteArray Between(const QByteArray &document, const QByteArray &open, const QByteArray &close)
{
    const int begin = document.indexOf(open);
    if (begin < 0)
        return QByteArray();
    const int from = begin + open.size();
    const int end = document.indexOf(close, from);
    return end < 0 ? QByteArray() : document.mid(from, end - from);
}

QByteArray ReplyTo(const QByteArray &request, const QByteArray &basePath)
{
    const QByteArray requestId = Between(request, "<s:RequestId>", "</s:RequestId>");
    const QByteArray body = Between(request, "<s:Body><m:", " ");
    QByteArray children;
    if (body == "GetBasePath")
        children = "<m:Path>" + basePath + "</m:Path>";
    else
        children =
            "<m:Path>" + basePath + "/group/file.dat</m:Path><m:Error>0</m:Error><m:ErrorString></m:ErrorString>";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope xmlns:s=\"" + QByteArray(Ns::Envelope.data()) +
        "\"><s:Header><s:Version>1.0</s:Version><s:RequestId>" + requestId +
        "</s:RequestId></s:Header><s:Body><m:" + body + "Reply xmlns:m=\"" + QByteArray(Ns::Message.data()) + "\">" +
        children + "</m:" + body + "Reply></s:Body></s:Envelope>";
}

struct Figures
{
    std::vector<qint64> nanoseconds;
    int failures = 0;

    qint64 Percentile(double p) const
    {
        if (nanoseconds.empty())
            return 0;
        const size_t at = std::min(nanoseconds.size() - 1, size_t(p * double(nanoseconds.size())));
        return nanoseconds[at];
    }
    void Sort() { std::sort(nanoseconds.begin(), nanoseconds.end()); }
    double MeanNanoseconds() const
    {
        return nanoseconds.empty()
            ? 0
            : double(std::accumulate(nanoseconds.begin(), nanoseconds.end(), qint64(0))) / double(nanoseconds.size());
    }
};

Figures BlockingRoundTrips(KeldaClient &client, int calls)
{
    Figures figures;
    figures.nanoseconds.reserve(size_t(calls));
    for (int i = 0; i < calls; ++i) {
        const Clock::time_point start = Clock::now();
        const QString path = client.RequestFile(1, kGuid, LOCK_Read);
        figures.nanoseconds.push_back(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
        if (path.isEmpty())
            ++figures.failures;
    }
    figures.Sort();
    return figures;
}

// Asynchronous RequestFile with one request in flight: the next leaves when
// the previous one's signal has arrived. Returns requests per second.
double AsyncRequestsPerSecond(KeldaClient &client, int calls, int &failures)
{
    QEventLoop loop;
    int answered = 0;
    QString pending;
    const auto sendNext = [&] {
        pending = client.RequestFileAsync(1, kGuid, LOCK_Read);
        if (pending.isEmpty()) {
            failures += calls - answered;
            loop.quit();
        }
    };
    const QMetaObject::Connection connection =
        QObject::connect(&client, &KeldaClient::RequestFileSg, &loop,
                         [&](const QString &requestId, const QString &path, int error, const QString &) {
                             if (requestId != pending)
                                 return;
                             if (path.isEmpty() || error != 0)
                                 ++failures;
                             if (++answered == calls)
                                 loop.quit();
                             else
                                 sendNext();
                         });
    const Clock::time_point start = Clock::now();
    QTimer::singleShot(0, &loop, sendNext);
    // A lost reply must not hang the benchmark.
    QTimer::singleShot(120000, &loop, &QEventLoop::quit);
    loop.exec();
    QObject::disconnect(connection);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    failures += calls - answered;
    return answered / seconds;
}

// One end of a connection: a plain socket, or a TLS session on it.
struct Stream
{
    int fd = -1;
    SSL *tls = nullptr;

    ssize_t Write(const char *data, size_t size) const
    {
        return tls ? SSL_write(tls, data, int(size)) : ::write(fd, data, size);
    }
    ssize_t Read(char *data, size_t size) const
    {
        return tls ? SSL_read(tls, data, int(size)) : ::read(fd, data, size);
    }
    void Close()
    {
        if (tls) {
            SSL_shutdown(tls);
            SSL_free(tls);
            tls = nullptr;
        }
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
};

bool WriteAll(const Stream &stream, const QByteArray &bytes)
{
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t n = stream.Write(bytes.constData() + done, size_t(bytes.size() - done));
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

bool ReadExactly(const Stream &stream, QByteArray &buffer, int size)
{
    buffer.resize(size);
    int done = 0;
    while (done < size) {
        const ssize_t n = stream.Read(buffer.data() + done, size_t(size - done));
        if (n <= 0)
            return false;
        done += int(n);
    }
    return true;
}

// Reads one length-prefixed frame, as either end of the protocol must.
bool ReadFrame(const Stream &stream, QByteArray &buffer)
{
    if (!ReadExactly(stream, buffer, 4))
        return false;
    const quint32 length = qFromLittleEndian<quint32>(buffer.constData());
    return ReadExactly(stream, buffer, int(length));
}

// The TLS contexts of both ends when the run is over TLS: the server shows
// the test certificate, the raw client trusts its authority. Made with
// OpenSSL itself, so that the raw ping-pong is the floor of TLS on this
// machine, not of some wrapper.
class TlsContexts
{
public:
    ~TlsContexts()
    {
        SSL_CTX_free(m_server);
        SSL_CTX_free(m_client);
    }

    bool Load(const TestCertificates &certificates)
    {
        m_server = SSL_CTX_new(TLS_server_method());
        m_client = SSL_CTX_new(TLS_client_method());
        return m_server && m_client && SSL_CTX_set_min_proto_version(m_server, TLS1_2_VERSION) == 1 &&
            SSL_CTX_use_certificate_chain_file(m_server, certificates.serverCertificate().toLocal8Bit().constData()) ==
            1 &&
            SSL_CTX_use_PrivateKey_file(m_server, certificates.serverKey().toLocal8Bit().constData(),
                                        SSL_FILETYPE_PEM) == 1 &&
            SSL_CTX_load_verify_locations(m_client, certificates.authority().toLocal8Bit().constData(), nullptr) == 1;
    }

    // Wraps fd in a session and completes the handshake; false on failure.
    bool Accept(Stream &stream) const { return Handshake(stream, m_server, true); }
    bool Connect(Stream &stream) const { return Handshake(stream, m_client, false); }

private:
    static bool Handshake(Stream &stream, SSL_CTX *context, bool server)
    {
        stream.tls = SSL_new(context);
        if (!stream.tls || SSL_set_fd(stream.tls, stream.fd) != 1)
            return false;
        if (!server)
            SSL_set_verify(stream.tls, SSL_VERIFY_PEER, nullptr);
        return (server ? SSL_accept(stream.tls) : SSL_connect(stream.tls)) == 1;
    }

    SSL_CTX *m_server = nullptr;
    SSL_CTX *m_client = nullptr;
};

int Connected(int fd)
{
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// The answer to QueryFileGroups, written in pieces as a server writes rows
// while it reads them: at a pace in bytes per second, or at once.
class QueryAnswer
{
public:
    void Set(const QByteArray &document, double bytesPerSecond)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const QByteArray id = QueryReply::RequestId().toLatin1();
        const int at = document.indexOf(id);
        m_head = document.left(at);
        m_tail = document.mid(at + id.size());
        m_bytesPerSecond = bytesPerSecond;
    }

    // Writes the answer to the request with this id; false on a failed write.
    bool Write(const Stream &stream, const QByteArray &requestId)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        constexpr int Piece = 64 * 1024;
        QByteArray start(4, '\0');
        qToLittleEndian<quint32>(quint32(m_head.size() + requestId.size() + m_tail.size()), start.data());
        if (!WriteAll(stream, start + m_head + requestId))
            return false;
        const Clock::time_point begun = Clock::now();
        for (int done = 0; done < m_tail.size(); done += Piece) {
            const int size = std::min(Piece, m_tail.size() - done);
            const bool last = done + size == m_tail.size();
            // Taken before the write: the client may have read the piece, and
            // be done with it, before this thread runs again.
            if (last)
                m_lastByte.store(Clock::now().time_since_epoch().count());
            if (!WriteAll(stream, QByteArray::fromRawData(m_tail.constData() + done, size)))
                return false;
            if (m_bytesPerSecond > 0 && !last)
                std::this_thread::sleep_until(
                    begun + std::chrono::nanoseconds(qint64(double(done + size) * 1e9 / m_bytesPerSecond)));
        }
        return true;
    }

    // When the last piece of the last answer was written.
    Clock::time_point LastByte() const { return Clock::time_point(Clock::duration(m_lastByte.load())); }

private:
    std::mutex m_mutex;
    QByteArray m_head;
    QByteArray m_tail;
    double m_bytesPerSecond = 0;
    std::atomic<Clock::rep> m_lastByte{0};
};

// Answers on a thread of its own with blocking reads and writes, so that the
// reply leaves the moment the request is in: the peer adds nothing but the
// socket calls the raw ping-pong makes as well. Keeps the first RequestFile
// and its reply as the sample for the raw ping-pong.
class InstantPeer
{
public:
    InstantPeer(const QByteArray &basePath, const TlsContexts *tls)
        : m_basePath(basePath)
        , m_tls(tls)
    { }
    ~InstantPeer() { Stop(); }

    QueryAnswer &Query() { return m_query; }

    quint16 Listen()
    {
        m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
            ::listen(m_listener, 4) != 0 ||
            ::getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
            return 0;
        m_thread = QThread::create([this] { Serve(); });
        m_thread->start();
        return ntohs(address.sin_port);
    }

    void Stop()
    {
        if (!m_thread)
            return;
        ::shutdown(m_listener, SHUT_RDWR);
        m_thread->wait();
        delete m_thread;
        m_thread = nullptr;
        ::close(m_listener);
    }

    QByteArray SampleRequest() const { return m_sampleRequest; }
    QByteArray SampleReply() const { return m_sampleReply; }

private:
    // One connection at a time, until the listener is shut down.
    void Serve()
    {
        for (;;) {
            Stream connection;
            connection.fd = ::accept(m_listener, nullptr, nullptr);
            if (connection.fd < 0)
                return;
            Connected(connection.fd);
            if (m_tls && !m_tls->Accept(connection)) {
                connection.Close();
                continue;
            }
            QByteArray request;
            while (ReadFrame(connection, request)) {
                if (request.contains("<m:QueryFileGroups ")) {
                    if (!m_query.Write(connection, Between(request, "<s:RequestId>", "</s:RequestId>")))
                        break;
                    continue;
                }
                const QByteArray reply = ReplyTo(request, m_basePath);
                if (!WriteAll(connection, Frame(reply)))
                    break;
                if (m_sampleRequest.isEmpty() && request.contains("RequestFile")) {
                    m_sampleRequest = request;
                    m_sampleReply = reply;
                }
            }
            connection.Close();
        }
    }

    QByteArray m_basePath;
    const TlsContexts *m_tls;
    QueryAnswer m_query;
    int m_listener = -1;
    QThread *m_thread = nullptr;
    // Written by the peer's thread, read once it has ended.
    QByteArray m_sampleRequest;
    QByteArray m_sampleReply;
};

// The same bytes between two blocking loopback sockets, the answering end on
// a thread of its own as the peer above.
Figures RawPingPong(const QByteArray &request, const QByteArray &reply, int calls, const TlsContexts *tls)
{
    Figures figures;
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t addressSize = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr *>(&address), addressSize) != 0 ||
        ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &addressSize) != 0) {
        figures.failures = calls;
        return figures;
    }
    Stream client;
    client.fd = Connected(::socket(AF_INET, SOCK_STREAM, 0));
    if (::connect(client.fd, reinterpret_cast<sockaddr *>(&address), addressSize) != 0) {
        figures.failures = calls;
        return figures;
    }
    Stream server;
    server.fd = Connected(::accept(listener, nullptr, nullptr));
    const QByteArray requestFrame = Frame(request);
    const QByteArray replyFrame = Frame(reply);

    QThread *answerer = QThread::create([&server, replyFrame, calls, tls] {
        if (tls && !tls->Accept(server))
            return;
        QByteArray buffer;
        for (int i = 0; i < calls && ReadFrame(server, buffer); ++i) {
            if (!WriteAll(server, replyFrame))
                break;
        }
    });
    answerer->start();
    if (tls && !tls->Connect(client)) {
        figures.failures = calls;
        client.Close();
        answerer->wait();
        delete answerer;
        server.Close();
        ::close(listener);
        return figures;
    }
    figures.nanoseconds.reserve(size_t(calls));
    QByteArray buffer;
    for (int i = 0; i < calls; ++i) {
        const Clock::time_point start = Clock::now();
        const bool ok = WriteAll(client, requestFrame) && ReadFrame(client, buffer);
        figures.nanoseconds.push_back(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
        if (!ok) {
            figures.failures += calls - i;
            break;
        }
    }
    answerer->wait();
    delete answerer;
    client.Close();
    server.Close();
    ::close(listener);
    figures.Sort();
    return figures;
}

double Milliseconds(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

// One answer size: the blocking call from request to result, the part of it
// after the peer's last byte, at once and paced, beside a bare reader pass
// and the whole-message parse of the same bytes (best of the runs, ms).
struct QueryFigures
{
    int groups = 0;
    qint64 bytes = 0;
    double call = 1e300;
    double afterLastByte = 1e300;
    double pacedAfterLastByte = 1e300;
    double bare = 1e300;
    double wholeParse = 1e300;
    int failures = 0;
};

double BareReaderPass(const QByteArray &document)
{
    const Clock::time_point start = Clock::now();
    QXmlStreamReader reader(document);
    while (!reader.atEnd())
        reader.readNext();
    return Milliseconds(Clock::now() - start);
}

// Returns the call's time and sets the time after the last byte; counts a
// failure when the table is not the one sent.
double TimedQuery(KeldaClient &client, const QueryAnswer &answer, int groups, double *afterLastByte, int *failures)
{
    unsigned count = 0;
    const Clock::time_point start = Clock::now();
    const QStringList table = client.QueryFiles(FileQuery(), count);
    const Clock::time_point end = Clock::now();
    if (table.size() != int(count) * (groups + 1) || count == 0)
        ++*failures;
    *afterLastByte = Milliseconds(end - answer.LastByte());
    return Milliseconds(end - start);
}

QueryFigures MeasureQuery(KeldaClient &client, InstantPeer &peer, int groups, int runs, double pace)
{
    QueryFigures figures;
    figures.groups = groups;
    const QByteArray document = QueryReply::Make(groups, false);
    figures.bytes = document.size();
    for (int i = 0; i < runs; ++i) {
        double after = 0;
        peer.Query().Set(document, 0);
        figures.call = std::min(figures.call, TimedQuery(client, peer.Query(), groups, &after, &figures.failures));
        figures.afterLastByte = std::min(figures.afterLastByte, after);
        peer.Query().Set(document, pace);
        TimedQuery(client, peer.Query(), groups, &after, &figures.failures);
        figures.pacedAfterLastByte = std::min(figures.pacedAfterLastByte, after);
        figures.bare = std::min(figures.bare, BareReaderPass(document));
        const Clock::time_point start = Clock::now();
        const ParsedReply parsed = ParseReplyMessage(document);
        figures.wholeParse = std::min(figures.wholeParse, Milliseconds(Clock::now() - start));
    }
    return figures;
}

void ReportQueries(const std::vector<QueryFigures> &all, double pace)
{
    QTextStream out(stdout);
    out << "blocking QueryFiles against the peer, best of the runs; the peer writes 64 KiB pieces at once, or\n"
        << "paced at " << QString::number(pace / 1e6, 'f', 0)
        << " MB/s; \"after\": from the peer's last piece to the result\n";
    out << QStringLiteral("%1 %2 %3 %4 %5 %6 %7 %8\n")
               .arg(QStringLiteral("groups"), 8)
               .arg(QStringLiteral("MB"), 7)
               .arg(QStringLiteral("call ms"), 9)
               .arg(QStringLiteral("after ms"), 9)
               .arg(QStringLiteral("paced after ms"), 15)
               .arg(QStringLiteral("whole parse ms"), 15)
               .arg(QStringLiteral("bare ms"), 8)
               .arg(QStringLiteral("ratio"), 6);
    for (const QueryFigures &f : all) {
        out << QStringLiteral("%1 %2 %3 %4 %5 %6 %7 %8\n")
                   .arg(f.groups, 8)
                   .arg(double(f.bytes) / 1e6, 7, 'f', 1)
                   .arg(f.call, 9, 'f', 1)
                   .arg(f.afterLastByte, 9, 'f', 1)
                   .arg(f.pacedAfterLastByte, 15, 'f', 1)
                   .arg(f.wholeParse, 15, 'f', 1)
                   .arg(f.bare, 8, 'f', 1)
                   .arg(f.bare / f.call, 6, 'f', 2);
    }
    const QueryFigures &large = all.back();
    const QString groups = QLocale::c().toString(large.groups);
    BenchTable::Row(QStringLiteral("blocking QueryFiles %1 groups, MB/s").arg(groups),
                    BenchTable::Number(double(large.bytes) / 1e3 / large.call, 0),
                    BenchTable::Number(double(large.bytes) / 1e3 / large.bare, 0) + QStringLiteral(" bare reader"),
                    BenchTable::Number(large.bare / large.call, 2), QStringLiteral("ratio >= 0.6"));
    if (all.size() > 1) {
        const double growth = large.call / all.front().call;
        const double bareGrowth = large.bare / all.front().bare;
        BenchTable::Row(QStringLiteral("blocking QueryFiles growth %1 -> %2 groups")
                            .arg(QLocale::c().toString(all.front().groups), groups),
                        BenchTable::Number(growth, 2) + QLatin1Char('x'),
                        BenchTable::Number(bareGrowth, 2) + QStringLiteral("x bare reader"),
                        BenchTable::Number(growth / bareGrowth, 2), QStringLiteral("ratio <= 1.2"));
    }
    BenchTable::Row(QStringLiteral("QueryFiles %1 groups, ms after the last byte").arg(groups),
                    BenchTable::Number(large.afterLastByte, 1),
                    BenchTable::Number(large.wholeParse, 1) + QStringLiteral(" whole parse"),
                    BenchTable::Number(large.afterLastByte / large.wholeParse, 2), QStringLiteral("figure only"));
    BenchTable::Row(QStringLiteral("QueryFiles %1 groups at %2 MB/s, ms after the last byte")
                        .arg(groups)
                        .arg(pace / 1e6, 0, 'f', 0),
                    BenchTable::Number(large.pacedAfterLastByte, 1),
                    BenchTable::Number(large.wholeParse, 1) + QStringLiteral(" whole parse"),
                    BenchTable::Number(large.pacedAfterLastByte / large.wholeParse, 2), QStringLiteral("figure only"));
}

QString Micro(qint64 nanoseconds)
{
    return QString::number(double(nanoseconds) / 1000.0, 'f', 1);
}

QString Ratio(qint64 a, qint64 b)
{
    return b > 0 ? QString::number(double(a) / double(b), 'f', 2) : QStringLiteral("-");
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("bench_roundtrip"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Blocking round trips (RequestFile) of the client library against an in-process peer that answers at once,\n"
        "beside a raw ping-pong of the same bytes over two plain loopback sockets. Prints p50, p99 and max\n"
        "of both, their ratios and the number of failed calls; asynchronous requests per second with one in\n"
        "flight; the resident size of one connected client and its growth over 10,000 blocking calls.\n"
        "Then blocking QueryFiles answers of a tenth of --query-groups and of --query-groups groups (without\n"
        "--tls): the call, and the time from the peer's last byte to the result, written at once and paced,\n"
        "beside a bare QXmlStreamReader pass and a whole-message parse of the same bytes.\n"
        "Exit code 1 when a call failed."));
    parser.addHelpOption();
    const QCommandLineOption callsOption(QStringList{QStringLiteral("n"), QStringLiteral("calls")},
                                         QStringLiteral("Number of calls of each kind (default 20000)."),
                                         QStringLiteral("count"), QStringLiteral("20000"));
    const QCommandLineOption quickOption(QStringLiteral("quick"),
                                         QStringLiteral("A short run: 2000 calls of each kind."));
    const QCommandLineOption tlsOption(
        QStringLiteral("tls"),
        QStringLiteral("Everything over TLS (certificates made with the openssl tool): the library's client against "
                       "a TLS peer, beside a raw ping-pong of two OpenSSL sessions."));
    const QCommandLineOption queryGroupsOption(
        QStringLiteral("query-groups"),
        QStringLiteral("Groups in the largest QueryFiles answer (default 100000, --quick 10000; 0: none)."),
        QStringLiteral("count"));
    const QCommandLineOption paceOption(QStringLiteral("pace"),
                                        QStringLiteral("MB/s at which the paced answers are written (default 40)."),
                                        QStringLiteral("MB/s"), QStringLiteral("40"));
    parser.addOption(callsOption);
    parser.addOption(quickOption);
    parser.addOption(tlsOption);
    parser.addOption(queryGroupsOption);
    parser.addOption(paceOption);
    parser.process(app);
    bool ok = false;
    const int calls = parser.isSet(quickOption) ? 2000 : parser.value(callsOption).toInt(&ok);
    ok = ok || parser.isSet(quickOption);
    QTextStream out(stdout);
    QTextStream err(stderr);
    if (!ok || calls < 1) {
        err << "bench_roundtrip: --calls needs a positive number\n";
        return 64;
    }
    const int queryGroups = parser.isSet(queryGroupsOption) ? parser.value(queryGroupsOption).toInt(&ok)
                                                            : (parser.isSet(quickOption) ? 10000 : 100000);
    const double pace = ok ? parser.value(paceOption).toDouble(&ok) * 1e6 : 0;
    if (!ok || queryGroups < 0 || pace <= 0) {
        err << "bench_roundtrip: --query-groups needs a number >= 0, --pace a positive number\n";
        return 64;
    }

    const bool overTls = parser.isSet(tlsOption);
    TlsContexts contexts;
    TestCertificates *certificates = overTls ? TestCertificates::shared() : nullptr;
    if (overTls && (!certificates || !contexts.Load(*certificates))) {
        err << "bench_roundtrip: cannot set up TLS with the test certificates\n";
        return 1;
    }
    const TlsContexts *tls = overTls ? &contexts : nullptr;
    if (overTls)
        KeldaClient::SetTlsFiles(certificates->authority());
    // Table rows say whether they are of the TLS run.
    const QString over = overTls ? QStringLiteral(" over TLS") : QString();

    InstantPeer peer(QDir::tempPath().toUtf8(), tls);
    const quint16 port = peer.Listen();
    if (port == 0) {
        err << "bench_roundtrip: cannot listen on 127.0.0.1\n";
        return 1;
    }

    Figures blocking;
    double asyncPerSecond = 0;
    int asyncFailures = 0;
    qint64 clientResident = 0;
    qint64 callsGrowth = 0;
    constexpr int GrowthCalls = 10000;
    {
        const qint64 beforeClient = BenchTable::ResidentBytes();
        KeldaClient client(QStringLiteral("127.0.0.1"), port, QStringLiteral("bench"), QStringLiteral("bench"),
                           QStringLiteral("bench"));
        if (!client.WaitForConnected(10000)) {
            err << "bench_roundtrip: the client did not connect to the in-process peer\n";
            return 1;
        }
        clientResident = BenchTable::ResidentBytes() - beforeClient;
        BlockingRoundTrips(client, std::min(calls, 1000)); // warm-up
        blocking = BlockingRoundTrips(client, calls);
        asyncPerSecond = AsyncRequestsPerSecond(client, calls, asyncFailures);
        // Growth is judged after the warm-up and the first runs have
        // settled the allocator's pools.
        const qint64 beforeCalls = BenchTable::ResidentBytes();
        blocking.failures += BlockingRoundTrips(client, GrowthCalls).failures;
        callsGrowth = BenchTable::ResidentBytes() - beforeCalls;
    }
    std::vector<QueryFigures> queries;
    if (!overTls && queryGroups > 0) {
        KeldaClient client(QStringLiteral("127.0.0.1"), port, QStringLiteral("bench"), QStringLiteral("bench"),
                           QStringLiteral("bench"));
        if (!client.WaitForConnected(10000)) {
            err << "bench_roundtrip: the client did not connect to the in-process peer\n";
            return 1;
        }
        const int runs = parser.isSet(quickOption) ? 1 : 3;
        for (int groups : {queryGroups / 10, queryGroups})
            queries.push_back(MeasureQuery(client, peer, groups, runs, pace));
    }
    peer.Stop();
    const QByteArray request = peer.SampleRequest();
    const QByteArray reply = peer.SampleReply();
    const Figures raw = RawPingPong(request, reply, calls, tls);

    out << "calls: " << calls << " of each kind, request " << request.size() + 4 << " bytes, reply " << reply.size() + 4
        << " bytes\n";
    out << QStringLiteral("%1 %2 %3 %4 %5\n")
               .arg(QString(), -22)
               .arg(QStringLiteral("p50 us"), 10)
               .arg(QStringLiteral("p99 us"), 10)
               .arg(QStringLiteral("max us"), 10)
               .arg(QStringLiteral("failed"), 8);
    const auto row = [&out](const QString &name, const Figures &f) {
        out << QStringLiteral("%1 %2 %3 %4 %5\n")
                   .arg(name, -22)
                   .arg(Micro(f.Percentile(0.50)), 10)
                   .arg(Micro(f.Percentile(0.99)), 10)
                   .arg(Micro(f.nanoseconds.empty() ? 0 : f.nanoseconds.back()), 10)
                   .arg(f.failures, 8);
    };
    row(QStringLiteral("blocking RequestFile"), blocking);
    row(QStringLiteral("raw ping-pong"), raw);
    out << QStringLiteral("%1 %2 %3 %4\n")
               .arg(QStringLiteral("ratio"), -22)
               .arg(Ratio(blocking.Percentile(0.50), raw.Percentile(0.50)), 10)
               .arg(Ratio(blocking.Percentile(0.99), raw.Percentile(0.99)), 10)
               .arg(Ratio(blocking.nanoseconds.empty() ? 0 : blocking.nanoseconds.back(),
                          raw.nanoseconds.empty() ? 0 : raw.nanoseconds.back()),
                    10);
    out << (overTls ? "targets over TLS: p50 ratio <= 2.5, 0 failed\n"
                    : "targets: p50 ratio <= 3, p99 ratio <= 6, 0 failed\n");

    const double rawPerSecond = raw.MeanNanoseconds() > 0 ? 1e9 / raw.MeanNanoseconds() : 0;
    out << "asynchronous RequestFile, one in flight: " << QString::number(asyncPerSecond, 'f', 0)
        << " requests/s (raw ping-pong " << QString::number(rawPerSecond, 'f', 0) << "/s), " << asyncFailures
        << " failed\n";
    out << "resident size added by one connected client: " << BenchTable::MiB(clientResident) << '\n';
    out << "resident size growth over " << GrowthCalls << " blocking calls: " << BenchTable::MiB(callsGrowth) << '\n';

    BenchTable::Row(QStringLiteral("blocking RequestFile p50%1, us").arg(over), Micro(blocking.Percentile(0.50)),
                    Micro(raw.Percentile(0.50)) + QStringLiteral(" raw ping-pong"),
                    Ratio(blocking.Percentile(0.50), raw.Percentile(0.50)),
                    overTls ? QStringLiteral("ratio <= 2.5") : QStringLiteral("ratio <= 3"));
    BenchTable::Row(QStringLiteral("blocking RequestFile p99%1, us").arg(over), Micro(blocking.Percentile(0.99)),
                    Micro(raw.Percentile(0.99)) + QStringLiteral(" raw ping-pong"),
                    Ratio(blocking.Percentile(0.99), raw.Percentile(0.99)),
                    overTls ? QStringLiteral("figure only") : QStringLiteral("ratio <= 6"));
    int queryFailures = 0;
    for (const QueryFigures &figures : queries)
        queryFailures += figures.failures;
    if (overTls) {
        BenchTable::Row(QStringLiteral("failed calls over TLS"), QString::number(blocking.failures + asyncFailures),
                        QStringLiteral("-"), QStringLiteral("-"), QStringLiteral("0"));
        return blocking.failures == 0 && raw.failures == 0 && asyncFailures == 0 ? 0 : 1;
    }
    BenchTable::Row(QStringLiteral("async RequestFile, one in flight, req/s"), BenchTable::Number(asyncPerSecond, 0),
                    BenchTable::Number(rawPerSecond, 0) + QStringLiteral(" raw ping-pong"),
                    BenchTable::Number(rawPerSecond > 0 ? asyncPerSecond / rawPerSecond : 0, 2),
                    QStringLiteral("figure only"));
    BenchTable::Row(QStringLiteral("failed calls (blocking + async + QueryFiles)"),
                    QString::number(blocking.failures + asyncFailures + queryFailures), QStringLiteral("-"),
                    QStringLiteral("-"), QStringLiteral("0"));
    BenchTable::Row(QStringLiteral("memory, one connected client"), BenchTable::MiB(clientResident),
                    QStringLiteral("-"), QStringLiteral("-"), QStringLiteral("figure only"));
    BenchTable::Row(QStringLiteral("memory growth over 10,000 blocking calls"), BenchTable::MiB(callsGrowth),
                    QStringLiteral("-"), QStringLiteral("-"), QStringLiteral("no growth"));
    if (!queries.empty())
        ReportQueries(queries, pace);
    return blocking.failures == 0 && raw.failures == 0 && asyncFailures == 0 && queryFailures == 0 ? 0 : 1;
}
