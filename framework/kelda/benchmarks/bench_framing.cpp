// Times the stream framer on input that arrives in one read: length-prefixed
// messages of 1 KB, 1 MB and 64 MB, and plain XML documents of 1 MB and
// 10 MB, beside memcpy of the same bytes. Each case runs again at twice the
// message size; the time ratio is about 2 when framing is linear.

#include "benchtable.h"
#include "xmlseparator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QIODevice>
#include <QTextStream>
#include <QtEndian>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace {

// A sequential device holding the whole input, handed out in one read.
class InputDevice : public QIODevice
{
public:
    InputDevice() { open(QIODevice::ReadOnly); }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return m_input.size() - m_position + QIODevice::bytesAvailable(); }
    void deliver(const QByteArray &input)
    {
        m_input = input;
        m_position = 0;
        emit readyRead();
    }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const qint64 n = qMin(maxSize, qint64(m_input.size()) - m_position);
        std::memcpy(data, m_input.constData() + m_position, size_t(n));
        m_position += n;
        return n;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_input;
    qint64 m_position = 0;
};

QByteArray LengthPrefixed(int size, int count)
{
    const QByteArray payload(size, 'x');
    QByteArray frame(4, '\0');
    qToLittleEndian<quint32>(quint32(size), frame.data());
    frame += payload;
    QByteArray stream;
    stream.reserve(frame.size() * count);
    for (int i = 0; i < count; ++i)
        stream += frame;
    return stream;
}

// One document of about size bytes, shaped like a query reply.
QByteArray PlainDocument(int size)
{
    QByteArray document = "<?xml version=\"1.0\"?><r xmlns:m=\"http://kelda.archive/8SP/KELDA\">";
    const QByteArray element = "<m:Comment>remarks on the recording, 433.92 MHz</m:Comment>";
    document.reserve(size + element.size() + 16);
    while (document.size() < size - 4)
        document += element;
    document += "</r>";
    return document;
}

// Milliseconds until the framer has delivered count messages from input.
double FrameMs(qint32 mode, const QByteArray &input, int count)
{
    InputDevice device;
    XmlSeparator framer(&device, mode);
    int received = 0;
    bool failed = false;
    QObject::connect(&framer, &XmlSeparator::xmlReceived, [&received](const QByteArray &) { ++received; });
    QObject::connect(&framer, &XmlSeparator::errorOccured, [&failed](const QString &) { failed = true; });
    QObject::connect(&framer, &XmlSeparator::frameTooLarge, [&failed](quint64) { failed = true; });
    QElapsedTimer timer;
    timer.start();
    device.deliver(input);
    while (received < count && !failed)
        QCoreApplication::processEvents();
    const double ms = timer.nsecsElapsed() / 1e6;
    if (failed) {
        QTextStream(stderr) << "bench_framing: the framer refused the input\n";
        std::exit(1);
    }
    return ms;
}

double MemcpyMs(const QByteArray &input)
{
    std::vector<char> target(size_t(input.size()), '\0');
    QElapsedTimer timer;
    timer.start();
    std::memcpy(target.data(), input.constData(), size_t(input.size()));
    const double ms = timer.nsecsElapsed() / 1e6;
    if (target[size_t(input.size() / 2)] != input.at(input.size() / 2))
        return -1;
    return ms;
}

struct Case
{
    const char *name;
    qint32 mode;
    int size;
    int count;
};

// The same copy into memory not touched before, as every message the framer
// hands out is: the kernel maps and clears each page on its first write.
double FreshMemcpyMs(const QByteArray &input)
{
    QElapsedTimer timer;
    timer.start();
    std::unique_ptr<char[]> target(new char[size_t(input.size())]);
    std::memcpy(target.get(), input.constData(), size_t(input.size()));
    const double ms = timer.nsecsElapsed() / 1e6;
    if (target[size_t(input.size() / 2)] != input.at(input.size() / 2))
        return -1;
    return ms;
}

QByteArray Input(const Case &c, int size)
{
    return c.mode == XmlSeparator::PlainXmlMode ? PlainDocument(size) : LengthPrefixed(size, c.count);
}

double Best(int runs, const std::function<double()> &measure)
{
    double best = 1e300;
    for (int i = 0; i < runs; ++i)
        best = std::min(best, measure());
    return best;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Frames input that arrives in one read: length-prefixed messages of 1 KB, 1 MB and 64 MB, plain XML\n"
        "documents of 1 MB and 10 MB. Prints MB/s beside memcpy of the same bytes (into memory used before,\n"
        "and into fresh memory as a received message needs), and the time ratio when the message size\n"
        "doubles (about 2 when linear)."));
    parser.addHelpOption();
    const QCommandLineOption quickOption(QStringLiteral("quick"),
                                         QStringLiteral("A short run: fewer repetitions, 16 MB instead of 64 MB."));
    parser.addOption(quickOption);
    parser.process(app);
    const bool quick = parser.isSet(quickOption);
    const int runs = quick ? 1 : 3;
    constexpr int MiB = 1024 * 1024;

    const Case cases[] = {
        {"length-prefixed 1 KB", XmlSeparator::LittleEndianMode, 1024, quick ? 4096 : 16384},
        {"length-prefixed 1 MB", XmlSeparator::LittleEndianMode, MiB, quick ? 8 : 32},
        {quick ? "length-prefixed 16 MB" : "length-prefixed 64 MB", XmlSeparator::LittleEndianMode,
         quick ? 16 * MiB : 64 * MiB, 1},
        {"plain XML 1 MB", XmlSeparator::PlainXmlMode, MiB, 1},
        {"plain XML 10 MB", XmlSeparator::PlainXmlMode, 10 * MiB, 1},
    };

    QTextStream out(stdout);
    out << QStringLiteral("%1 %2 %3 %4 %5 %6\n")
               .arg(QString(), -24)
               .arg(QStringLiteral("MB/s"), 10)
               .arg(QStringLiteral("memcpy MB/s"), 12)
               .arg(QStringLiteral("ratio"), 8)
               .arg(QStringLiteral("fresh memcpy"), 13)
               .arg(QStringLiteral("x2 time"), 8);
    for (const Case &c : cases) {
        const QByteArray input = Input(c, c.size);
        const QByteArray doubled = Input(c, c.size * 2);
        const double framed = Best(runs, [&] { return FrameMs(c.mode, input, c.count); });
        const double framedDoubled = Best(runs, [&] { return FrameMs(c.mode, doubled, c.count); });
        const double copied = Best(runs, [&] { return MemcpyMs(input); });
        const double copiedFresh = Best(runs, [&] { return FreshMemcpyMs(input); });
        const double freshMbPerS = input.size() / 1e6 / (copiedFresh / 1e3);
        const double mbPerS = input.size() / 1e6 / (framed / 1e3);
        const double memcpyMbPerS = input.size() / 1e6 / (copied / 1e3);
        const double growth = framedDoubled / framed;
        out << QStringLiteral("%1 %2 %3 %4 %5 %6\n")
                   .arg(QLatin1String(c.name), -24)
                   .arg(mbPerS, 10, 'f', 0)
                   .arg(memcpyMbPerS, 12, 'f', 0)
                   .arg(mbPerS / memcpyMbPerS, 8, 'f', 3)
                   .arg(freshMbPerS, 13, 'f', 0)
                   .arg(growth, 8, 'f', 2);
        BenchTable::Row(QStringLiteral("framing %1, MB/s").arg(QLatin1String(c.name)), BenchTable::Number(mbPerS, 0),
                        BenchTable::Number(memcpyMbPerS, 0) + QStringLiteral(" memcpy"),
                        BenchTable::Number(mbPerS / memcpyMbPerS, 3), QStringLiteral("figure only"));
        BenchTable::Row(QStringLiteral("framing %1, MB/s against fresh memory").arg(QLatin1String(c.name)),
                        BenchTable::Number(mbPerS, 0), BenchTable::Number(freshMbPerS, 0) + QStringLiteral(" memcpy"),
                        BenchTable::Number(mbPerS / freshMbPerS, 3), QStringLiteral("figure only"));
        BenchTable::Row(QStringLiteral("framing %1, time x2 size").arg(QLatin1String(c.name)),
                        BenchTable::Number(growth, 2), QStringLiteral("2 (linear)"), BenchTable::Number(growth / 2, 2),
                        QStringLiteral("about 2"));
    }
    return 0;
}
