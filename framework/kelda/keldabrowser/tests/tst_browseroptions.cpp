#include "browseroptions.h"

#include <QtTest>

using namespace KeldaBrowser;

// Command lines as users type them: defaults, overrides and every refusal.
class BrowserOptionsTest : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
};

void BrowserOptionsTest::parse_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("screenshotDir");
    QTest::addColumn<int>("timeoutMs");
    QTest::addColumn<bool>("help");
    QTest::addColumn<QString>("error"); // a part of the message

    // Arguments are split at blanks; "|" stands for an argument that is one blank.
    const auto add = [](const char *name, const char *arguments, const char *host, int port, const char *dir,
                        int timeoutMs, bool help, const char *error) {
        QStringList list = QString::fromLatin1(arguments).split(QLatin1Char(' '), Qt::SkipEmptyParts);
        list.replaceInStrings(QStringLiteral("|"), QStringLiteral(" "));
        QTest::newRow(name) << list << QString::fromLatin1(host) << port << QString::fromLatin1(dir) << timeoutMs
                            << help << QString::fromLatin1(error);
    };
    add("defaults", "", "archive", 6000, "", 5000, false, "");
    add("everything", "--host 10.0.0.2 --port 5300 --screenshot /tmp/s --connect-timeout 2", "10.0.0.2", 5300,
        "/tmp/s", 2000, false, "");
    add("help", "-h", "", 0, "", 0, true, "");
    add("port zero", "--port 0", "", 0, "", 0, false, "--port needs a number from 1 to 65535, not \"0\"");
    add("port not a number", "--port x1", "", 0, "", 0, false, "not \"x1\"");
    add("blank host", "--host |", "", 0, "", 0, false, "--host needs a host name or address");
    add("timeout zero", "--connect-timeout 0", "", 0, "", 0, false, "--connect-timeout needs a number of seconds");
    add("stray argument", "file.txt", "", 0, "", 0, false, "unexpected argument \"file.txt\"");
}

void BrowserOptionsTest::parse()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, host);
    QFETCH(int, port);
    QFETCH(QString, screenshotDir);
    QFETCH(int, timeoutMs);
    QFETCH(bool, help);
    QFETCH(QString, error);

    BrowserOptions defaults;
    defaults.host = QStringLiteral("archive");
    defaults.port = 6000;
    defaults.connectTimeoutMs = 5000;
    arguments.prepend(QStringLiteral("keldabrowser"));
    const ParsedArguments parsed = parseArguments(arguments, defaults);

    QCOMPARE(parsed.help, help);
    QVERIFY2(error.isEmpty() ? parsed.error.isEmpty() : parsed.error.contains(error), qPrintable(parsed.error));
    if (!error.isEmpty() || help)
        return;
    QCOMPARE(parsed.options.host, host);
    QCOMPARE(int(parsed.options.port), port);
    QCOMPARE(parsed.options.screenshotDir, screenshotDir);
    QCOMPARE(parsed.options.connectTimeoutMs, timeoutMs);
}

QTEST_GUILESS_MAIN(BrowserOptionsTest)
#include "tst_browseroptions.moc"
