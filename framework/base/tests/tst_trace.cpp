#include "trace.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {
const char kSource[] = "framework/base/tests/tst_trace";

struct Captured
{
    QString text;
    QString source;
    int line = 0;
};
} // namespace

class TraceTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void maskSelectsTraces_data();
    void maskSelectsTraces();
    void textNotFormattedWhenBitIsOff();
    void assertReportsWithoutAborting();
    void levelFromText_data();
    void levelFromText();

private:
    QList<Captured> m_captured;
    quint32 m_savedLevel = 0;
};

void TraceTest::init()
{
    m_captured.clear();
    m_savedLevel = ErrorHandler::Instance()->GetLevel();
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *source, int line) {
        m_captured.append({text, QString::fromUtf8(source), line});
    });
}

void TraceTest::cleanup()
{
    ErrorHandler::Instance()->SetTraceHook({});
    ErrorHandler::Instance()->SetLevel(m_savedLevel);
}

void TraceTest::maskSelectsTraces_data()
{
    QTest::addColumn<quint32>("mask");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("failures only") << quint32(0x20) << QStringList{QStringLiteral("failure")};
    QTest::newRow("detail only") << quint32(0x40) << QStringList{QStringLiteral("detail")};
    QTest::newRow("both") << quint32(0x60) << QStringList{QStringLiteral("failure"), QStringLiteral("detail")};
    QTest::newRow("none") << quint32(0) << QStringList{};
    QTest::newRow("unrelated bits") << quint32(0x9f) << QStringList{};
}

void TraceTest::maskSelectsTraces()
{
    QFETCH(quint32, mask);
    QFETCH(QStringList, expected);

    ErrorHandler::Instance()->SetLevel(mask);
    Q_TRACE_FAILURE(kSource, QStringLiteral("failure"));
    Q_TRACE_DETAIL(kSource, QStringLiteral("detail"));

    QStringList texts;
    for (const Captured &c : qAsConst(m_captured)) {
        texts << c.text;
        QCOMPARE(c.source, QString::fromLatin1(kSource));
        QVERIFY(c.line > 0);
    }
    QCOMPARE(texts, expected);
}

void TraceTest::textNotFormattedWhenBitIsOff()
{
    int evaluations = 0;
    auto text = [&evaluations] {
        ++evaluations;
        return QStringLiteral("expensive");
    };
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure);
    Q_TRACE_DETAIL(kSource, text());
    QCOMPARE(evaluations, 0);
    Q_TRACE_FAILURE(kSource, text());
    QCOMPARE(evaluations, 1);
    QCOMPARE(m_captured.size(), 1);
}

void TraceTest::assertReportsWithoutAborting()
{
    ErrorHandler::Instance()->SetLevel(0);
    Q_ASSERT_REPORT(1 + 1 == 3, kSource);
    Q_ASSERT_REPORT(1 + 1 == 2, kSource);
    QCOMPARE(m_captured.size(), 1);
    QCOMPARE(m_captured.first().text, QStringLiteral("ASSERT failed: 1 + 1 == 3"));
}

void TraceTest::levelFromText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<quint32>("expected");

    QTest::newRow("empty keeps default") << QString() << quint32(0x20);
    QTest::newRow("hex") << QStringLiteral("0x60") << quint32(0x60);
    QTest::newRow("decimal") << QStringLiteral("64") << quint32(64);
    QTest::newRow("blank padded") << QStringLiteral(" 0x40 ") << quint32(0x40);
    QTest::newRow("garbage keeps default") << QStringLiteral("loud") << quint32(0x20);
}

void TraceTest::levelFromText()
{
    QFETCH(QString, text);
    QFETCH(quint32, expected);
    QCOMPARE(ErrorHandler::LevelFromText(text, 0x20), expected);
}

QTEST_GUILESS_MAIN(TraceTest)
#include "tst_trace.moc"
