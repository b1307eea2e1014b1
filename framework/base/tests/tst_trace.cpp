#include "trace.h"

#include <QtTest>

namespace {
const char kSource[] = "framework/base/tests/tst_trace";
}

class TraceTest : public QObject
{
    Q_OBJECT

private slots:
    void maskSelectsTraces_data();
    void maskSelectsTraces();
    void controlsAreEscaped_data();
    void controlsAreEscaped();
};

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
