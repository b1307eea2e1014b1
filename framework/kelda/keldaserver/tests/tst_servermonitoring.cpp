#include "e2ehelpers.h"
#include "keldaclient.h"
#include "postgrescluster.h"
#include "serverprocess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using namespace Kelda;
using namespace E2e;

namespace {

struct HttpAnswer
{
    int status = 0;
    QByteArray body;
};

// Sends raw bytes to the monitoring port and reads until the server closes.
HttpAnswer exchange(quint16 port, const QByteArray &request)
{
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!socket.waitForConnected(Wait))
        return {};
    socket.write(request);
    QByteArray received;
    QDeadlineTimer deadline(Wait);
    while (socket.state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
        socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
        received += socket.readAll();
    }
    received += socket.readAll();
    HttpAnswer answer;
    const int headEnd = received.indexOf("\r\n\r\n");
    const QList<QByteArray> statusLine = received.left(received.indexOf("\r\n")).split(' ');
    if (headEnd < 0 || statusLine.size() < 2)
        return answer;
    answer.status = statusLine.at(1).toInt();
    answer.body = received.mid(headEnd + 4);
    return answer;
}

HttpAnswer get(quint16 port, const QByteArray &path)
{
    return exchange(port, "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
}

// The value of one sample of the text format; -1 when it is absent.
double sample(const QByteArray &text, const QByteArray &series)
{
    for (const QByteArray &line : text.split('\n')) {
        if (line.startsWith(series + ' '))
            return line.mid(series.size() + 1).toDouble();
    }
    return -1;
}

double sumOf(const QByteArray &text, const QByteArray &prefix)
{
    double sum = 0;
    for (const QByteArray &line : text.split('\n')) {
        if (line.startsWith(prefix))
            sum += line.mid(line.lastIndexOf(' ') + 1).toDouble();
    }
    return sum;
}

} // namespace

// The monitoring port of the real program: numbers that move with the
// clients' requests, health that follows the database, and nothing served
// beyond the two paths. And SIGHUP as log rotation sends it: the trace file
// is opened again under its name, and the server goes on serving.
class TestServerMonitoring : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void numbersMoveWithRequests();
    void answersOnlyWhatItServes_data();
    void answersOnlyWhatItServes();
    void healthFollowsTheDatabase();
    void busyMetricsPortEndsTheStart();
    void hangupReopensTraceFile_data();
    void hangupReopensTraceFile();

private:
    // Connects and returns the trace line the server writes for it.
    static QByteArray connectRaw(QTcpSocket *socket, quint16 port);

    ServerProcess m_server;
};

void TestServerMonitoring::initTestCase()
{
    m_server.setExtraArguments({QStringLiteral("--metrics"), QStringLiteral("127.0.0.1:0")});
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    QVERIFY(m_server.metricsPort() != 0);
}

void TestServerMonitoring::numbersMoveWithRequests()
{
    const QByteArray created = "kelda_requests_total{command=\"CreateFileGroup\",code=\"0\"}";
    const QByteArray added = "kelda_requests_total{command=\"AddFile\",code=\"0\"}";
    const QByteArray latencyCount = "kelda_request_duration_seconds_count{command=\"AddFile\"}";
    const HttpAnswer before = get(m_server.metricsPort(), "/metrics");
    QCOMPARE(before.status, 200);
    const double createdBefore = qMax(0.0, sample(before.body, created));
    const double addedBefore = qMax(0.0, sample(before.body, added));
    const double latencyBefore = qMax(0.0, sample(before.body, latencyCount));

    auto client = connectClient(m_server.port(), QStringLiteral("alice"));
    QVERIFY(client->IsConnected());
    unsigned int fileId = 0;
    for (int i = 0; i < 3; ++i)
        QVERIFY(
            !createGroupWithFile(*client, QStringLiteral("Scraped %1").arg(i), FT_Image, "data", &fileId).isEmpty());
    // A file id no group has: answered with an error code of its own.
    QVERIFY(client->RequestFile(999, KeldaClient::CreateGuid(), LOCK_Read).isEmpty());

    const HttpAnswer after = get(m_server.metricsPort(), "/metrics");
    QCOMPARE(after.status, 200);
    QCOMPARE(sample(after.body, created), createdBefore + 3);
    QCOMPARE(sample(after.body, added), addedBefore + 3);
    QCOMPARE(sample(after.body, latencyCount), latencyBefore + 3);
    QCOMPARE(sample(after.body, "kelda_request_duration_seconds_bucket{command=\"AddFile\",le=\"+Inf\"}"),
             latencyBefore + 3);
    QVERIFY(sumOf(after.body, "kelda_requests_total{command=\"RequestFile\",code=\"") >= 1);
    QVERIFY(sample(after.body, "kelda_requests_total{command=\"RequestFile\",code=\"0\"}") < 1);
    QVERIFY(sample(after.body, "kelda_connections") >= 1);
    QCOMPARE(sample(after.body, "kelda_database_up"), 1.0);
    QVERIFY(sample(after.body, "kelda_storage_free_bytes{folder=\"base\"}") > 0);

    client.reset();
    QTRY_COMPARE_WITH_TIMEOUT(sample(get(m_server.metricsPort(), "/metrics").body, "kelda_connections"), 0.0, Wait);
}

void TestServerMonitoring::answersOnlyWhatItServes_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("status");
    QTest::newRow("health") << QByteArray("GET /healthz HTTP/1.1\r\n\r\n") << 200;
    QTest::newRow("delete") << QByteArray("DELETE /healthz HTTP/1.0\r\n\r\n") << 405;
    QTest::newRow("unknown path") << QByteArray("GET /admin HTTP/1.1\r\n\r\n") << 404;
    QTest::newRow("path above") << QByteArray("GET /metrics/../etc HTTP/1.1\r\n\r\n") << 404;
    QTest::newRow("oversized") << "GET /metrics HTTP/1.1\r\nX-Fill: " + QByteArray(8192, 'x') + "\r\n\r\n" << 431;
}

void TestServerMonitoring::answersOnlyWhatItServes()
{
    QFETCH(QByteArray, request);
    QFETCH(int, status);
    QCOMPARE(exchange(m_server.metricsPort(), request).status, status);
    // Whatever came before, the next scrape is served.
    QCOMPARE(get(m_server.metricsPort(), "/metrics").status, 200);
}

void TestServerMonitoring::healthFollowsTheDatabase()
{
    if (PostgresCluster::binDirectory().isEmpty())
        QSKIP(qPrintable(PostgresCluster::missingText()));
    PostgresCluster cluster;
    QString error;
    QVERIFY2(cluster.start(&error), qPrintable(error));
    QVERIFY2(cluster.createDatabase(QStringLiteral("monitored"), &error), qPrintable(error));
    ServerProcess server;
    server.setExtraArguments({QStringLiteral("--db"), cluster.url(QStringLiteral("monitored")),
                              QStringLiteral("--metrics"), QStringLiteral("127.0.0.1:0")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    QCOMPARE(get(server.metricsPort(), "/healthz").status, 200);

    QVERIFY2(cluster.stop(&error), qPrintable(error));
    QTRY_COMPARE_WITH_TIMEOUT(get(server.metricsPort(), "/healthz").status, 503, Wait);
    const QByteArray metrics = get(server.metricsPort(), "/metrics").body;
    QCOMPARE(sample(metrics, "kelda_database_up"), 0.0);
    QVERIFY(sample(metrics, "kelda_database_errors_total") >= 1);

    QVERIFY2(cluster.start(&error), qPrintable(error));
    QTRY_COMPARE_WITH_TIMEOUT(get(server.metricsPort(), "/healthz").status, 200, Wait);
    QVERIFY(sample(get(server.metricsPort(), "/metrics").body, "kelda_database_reconnects_total") >= 1);
}

void TestServerMonitoring::busyMetricsPortEndsTheStart()
{
    QTcpServer taken;
    QVERIFY(taken.listen(QHostAddress::LocalHost));
    ServerProcess server;
    server.setExtraArguments({QStringLiteral("--metrics"), QStringLiteral("127.0.0.1:%1").arg(taken.serverPort())});
    QVERIFY(!server.start());
    QTRY_VERIFY_WITH_TIMEOUT(!server.isRunning(), Wait);
    QCOMPARE(server.exitCode(), 69);
}

QByteArray TestServerMonitoring::connectRaw(QTcpSocket *socket, quint16 port)
{
    socket->connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!socket->waitForConnected(Wait))
        return QByteArray();
    return QStringLiteral("Client 127.0.0.1:%1 connected").arg(socket->localPort()).toUtf8();
}

void TestServerMonitoring::hangupReopensTraceFile_data()
{
    QTest::addColumn<QString>("rotation");
    QTest::addColumn<bool>("newFile"); // later traces in a new file at the old name
    QTest::newRow("file renamed") << QStringLiteral("rename") << true;
    QTest::newRow("file deleted") << QStringLiteral("delete") << true;
    // The name cannot be opened again: traces stay in the file they went to.
    QTest::newRow("folder renamed") << QStringLiteral("rename folder") << false;
    QTest::newRow("no trace file") << QString() << false;
}

void TestServerMonitoring::hangupReopensTraceFile()
{
    QFETCH(QString, rotation);
    QFETCH(bool, newFile);
    const auto unsetTraceFile = qScopeGuard([] { qputenv("KELDA_TRACE_FILE", QByteArray()); });
    QTemporaryDir scratch;
    const QString logs = scratch.filePath(QStringLiteral("logs"));
    const QString trace = logs + QStringLiteral("/trace.log");
    const QString rotated = rotation == QLatin1String("rename folder")
        ? scratch.filePath(QStringLiteral("logs.1/trace.log"))
        : trace + QStringLiteral(".1");
    QVERIFY(QDir().mkpath(logs));
    if (!rotation.isEmpty())
        qputenv("KELDA_TRACE_FILE", QFile::encodeName(trace));
    ServerProcess server;
    server.setExtraArguments({QStringLiteral("--trace-mask"), QStringLiteral("0x60")});
    QVERIFY2(server.start(), qPrintable(server.errorString()));

    QTcpSocket before;
    const QByteArray beforeLine = connectRaw(&before, server.port());
    QVERIFY(!beforeLine.isEmpty());
    if (!rotation.isEmpty())
        QTRY_VERIFY_WITH_TIMEOUT(readFile(trace).contains(beforeLine), Wait);

    if (rotation == QLatin1String("rename"))
        QVERIFY(QFile::rename(trace, rotated));
    else if (rotation == QLatin1String("delete"))
        QVERIFY(QFile::remove(trace));
    else if (rotation == QLatin1String("rename folder"))
        QVERIFY(QDir().rename(logs, scratch.filePath(QStringLiteral("logs.1"))));
    QCOMPARE(::kill(pid_t(server.processId()), SIGHUP), 0);
    if (newFile)
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(trace), Wait);

    QTcpSocket after;
    const QByteArray afterLine = connectRaw(&after, server.port());
    QVERIFY(!afterLine.isEmpty());
    if (newFile) {
        QTRY_VERIFY_WITH_TIMEOUT(readFile(trace).contains(afterLine), Wait);
        QVERIFY(!readFile(trace).contains(beforeLine));
        if (rotation == QLatin1String("rename"))
            QVERIFY(!readFile(rotated).contains(afterLine));
    } else if (!rotation.isEmpty()) {
        QTRY_VERIFY_WITH_TIMEOUT(readFile(rotated).contains(afterLine), Wait);
        QVERIFY(!QFile::exists(trace));
    }

    // SIGHUP did not end it, and SIGTERM still ends it cleanly.
    QVERIFY(server.isRunning());
    server.stop();
    QCOMPARE(server.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestServerMonitoring)
#include "tst_servermonitoring.moc"
