#include "trace.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>
#include <thread>
#include <vector>

namespace {

const char kSource[] = "framework/base/tests/tst_trace";

QStringList linesOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

// What the mask lets through, controls escaped, and the trace file moved
// away under writers on other threads, as log rotation does:
// KELDA_TRACE_FILE names a file in a folder of its own (set by CTest). The
// cases with a hook write nothing to the file.
class TraceTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void rotateUnderWriters_data();
    void rotateUnderWriters();
    void maskSelectsTraces_data();
    void maskSelectsTraces();
    void controlsAreEscaped_data();
    void controlsAreEscaped();
};

void TraceTest::initTestCase()
{
    const QString path = qEnvironmentVariable("KELDA_TRACE_FILE");
    QVERIFY(!path.isEmpty());
    // Before the handler first opens it.
    QVERIFY(QDir(QFileInfo(path).absolutePath()).removeRecursively());
    QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
}

void TraceTest::rotateUnderWriters_data()
{
    QTest::addColumn<int>("writers");
    QTest::addColumn<bool>("moveFolder"); // the name cannot be opened again
    QTest::newRow("one writer") << 1 << false;
    QTest::newRow("four writers") << 4 << false;
    QTest::newRow("folder gone") << 4 << true;
}

void TraceTest::rotateUnderWriters()
{
    QFETCH(int, writers);
    QFETCH(bool, moveFolder);
    const QString path = qEnvironmentVariable("KELDA_TRACE_FILE");
    const QString folder = QFileInfo(path).absolutePath();
    const QString movedFolder = folder + QStringLiteral(".1");
    const QString rotated =
        moveFolder ? movedFolder + QLatin1Char('/') + QFileInfo(path).fileName() : path + QStringLiteral(".1");
    constexpr int Lines = 2000;
    ErrorHandler &handler = *ErrorHandler::Instance();

    std::atomic<int> written{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([&handler, &written, w] {
            for (int i = 0; i < Lines; ++i) {
                handler.Write(QStringLiteral("writer %1 line %2").arg(w).arg(i), "tst_tracereopen", w);
                ++written;
            }
        });
    }
    while (written.load() < writers * Lines / 4)
        std::this_thread::yield();
    QVERIFY(moveFolder ? QDir().rename(folder, movedFolder) : QFile::rename(path, rotated));
    const bool reopened = handler.Reopen();
    handler.Write(QStringLiteral("after reopen"), "tst_tracereopen", 0);
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(reopened, !moveFolder);

    const QStringList before = linesOf(rotated);
    const QStringList after = moveFolder ? QStringList() : linesOf(path);
    QCOMPARE(after.filter(QStringLiteral("after reopen")).size(), moveFolder ? 0 : 1);
    QCOMPARE(before.filter(QStringLiteral("after reopen")).size(), moveFolder ? 1 : 0);
    // Every line whole, and every one written exactly once across both files.
    static const QRegularExpression shape(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} \\[[^\\]]+\\] tst_tracereopen:\\d+: "
                       "(writer \\d+ line \\d+|after reopen)$"));
    QSet<QString> seen;
    for (const QString &line : before + after) {
        const QRegularExpressionMatch match = shape.match(line);
        QVERIFY2(match.hasMatch(), qPrintable(line));
        QVERIFY2(!seen.contains(match.captured(1)), qPrintable(line));
        seen.insert(match.captured(1));
    }
    QCOMPARE(seen.size(), writers * Lines + 1);

    QFile::remove(rotated);
    QFile::remove(path);
    if (moveFolder)
        QVERIFY(QDir().rename(movedFolder, folder));
    QVERIFY(handler.Reopen());
}

void TraceTest::maskSelectsTraces_data()
{
    QTest::addColumn<quint32>("mask");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("failures only") << quint32(0x20) << QStringList{QStringLiteral("failure")};
    QTest::newRow("detail only") << quint32(0x40) << QStringList{QStringLiteral("detail")};
    QTest::newRow("both") << quint32(0x60) << QStringList{QStringLiteral("failure"), QStringLiteral("detail")};
    QTest::newRow("unrelated bits") << quint32(0x9f) << QStringList();
}

void TraceTest::maskSelectsTraces()
{
    QFETCH(quint32, mask);
    QFETCH(QStringList, expected);
    QStringList traces;
    ErrorHandler::Instance()->SetTraceHook([&traces](const QString &text, const char *, int) { traces << text; });
    int formatted = 0;
    auto format = [&formatted](const char *text) {
        ++formatted;
        return QString::fromLatin1(text);
    };

    ErrorHandler::Instance()->SetLevel(mask);
    Q_TRACE_FAILURE(kSource, format("failure"));
    Q_TRACE_DETAIL(kSource, format("detail"));
    Q_ASSERT_REPORT(1 + 1 == 2, kSource);
    Q_ASSERT_REPORT(1 + 1 == 3, kSource);
    ErrorHandler::Instance()->SetTraceHook({});
    QCOMPARE(formatted, expected.size());
    // A failed assertion marks a bug: it is reported whatever the mask.
    expected << QStringLiteral("ASSERT failed: 1 + 1 == 3");
    QCOMPARE(traces, expected);
}

void TraceTest::controlsAreEscaped_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("written");
    QTest::newRow("plain") << QStringLiteral("C:\\data x") << QStringLiteral("C:\\data x");
    QTest::newRow("forged line") << QStringLiteral("a.bin\n2026-01-01 00:00:00.000 [x] y:1: fake")
                                 << QStringLiteral("a.bin\\n2026-01-01 00:00:00.000 [x] y:1: fake");
    QTest::newRow("terminal escape") << QStringLiteral("\x1b[2J\r") << QStringLiteral("\\u001b[2J\\r");
    QTest::newRow("line separator") << QString(QChar(0x2028)) << QStringLiteral("\\u2028");
    QTest::newRow("umlaut kept") << QStringLiteral("M\u00fcller") << QStringLiteral("M\u00fcller");
}

void TraceTest::controlsAreEscaped()
{
    QFETCH(QString, text);
    QFETCH(QString, written);
    QCOMPARE(ErrorHandler::EscapeControls(text), written);
}

QTEST_GUILESS_MAIN(TraceTest)
#include "tst_trace.moc"
