#include "serverprocess.h"

#include <QImage>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int kProgramWaitMs = 60000;

quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

} // namespace

// keldabrowser against the real server: the screenshot mode on an empty
// archive, and its failures with their exit codes and messages.
class KeldaBrowserTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void program_data();
    void program();

private:
    ServerProcess m_server;
    QTemporaryDir m_scratch;
};

void KeldaBrowserTest::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    QVERIFY(m_scratch.isValid());
}

void KeldaBrowserTest::program_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<int>("pictures");
    QTest::addColumn<QString>("message"); // a part of stderr

    const QString host = QStringLiteral("127.0.0.1");
    const QString port = QString::number(m_server.port());
    const QString shots = m_scratch.filePath(QStringLiteral("shots"));
    QTest::newRow("empty archive") << QStringList{QStringLiteral("--host"),       host, QStringLiteral("--port"), port,
                                                  QStringLiteral("--screenshot"), shots}
                                   << 0 << 5 << QString();
    QTest::newRow("folder cannot be made")
        << QStringList{QStringLiteral("--host"),       host,
                       QStringLiteral("--port"),       port,
                       QStringLiteral("--screenshot"), QStringLiteral("/proc/kelda-shots")}
        << 5 << 0 << QStringLiteral("/proc/kelda-shots: cannot create the folder");
    QTest::newRow("no server") << QStringList{QStringLiteral("--host"),
                                              host,
                                              QStringLiteral("--port"),
                                              QString::number(closedPort()),
                                              QStringLiteral("--connect-timeout"),
                                              QStringLiteral("1"),
                                              QStringLiteral("--screenshot"),
                                              shots}
                               << 3 << 0 << QStringLiteral("cannot reach the archive server at 127.0.0.1:");
    QTest::newRow("window without a display")
        << QStringList{QStringLiteral("--port"), port} << 4 << 0 << QStringLiteral("no display to show the window on");
    QTest::newRow("bad port") << QStringList{QStringLiteral("--port"), QStringLiteral("http")} << 2 << 0
                              << QStringLiteral("--port needs a number from 1 to 65535");
    QTest::newRow("stray argument") << QStringList{QStringLiteral("--connect-timeout"), QStringLiteral("2"),
                                                   QStringLiteral("shots")}
                                    << 2 << 0 << QStringLiteral("unexpected argument \"shots\"");
}

void KeldaBrowserTest::program()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(int, pictures);
    QFETCH(QString, message);

    QProcess browser;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KELDA_CONFIG_FILE"), m_scratch.filePath(QStringLiteral("none.ini")));
    // The screenshot mode picks its platform itself; the window needs a display.
    for (const char *name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"})
        environment.remove(QLatin1String(name));
    browser.setProcessEnvironment(environment);
    browser.start(QStringLiteral(KELDABROWSER_BINARY), arguments);
    QVERIFY(browser.waitForFinished(kProgramWaitMs));
    const QString errors = QString::fromLocal8Bit(browser.readAllStandardError());
    QCOMPARE(browser.exitCode(), exitCode);
    QVERIFY2(message.isEmpty() || errors.contains(message), qPrintable(errors));

    const QStringList written =
        QString::fromLocal8Bit(browser.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QCOMPARE(written.size(), pictures);
    for (const QString &path : written) {
        const QImage picture(path);
        QVERIFY2(picture.width() >= 300 && picture.height() >= 150, qPrintable(path));
    }
}

QTEST_MAIN(KeldaBrowserTest)
#include "tst_keldabrowser.moc"
