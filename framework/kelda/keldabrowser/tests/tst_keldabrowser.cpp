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
    QTest::addColumn<QString>("command"); // HOST, PORT, CLOSED and SHOTS stand for their values
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<int>("pictures");
    QTest::addColumn<QString>("message"); // a part of stderr

    QTest::newRow("empty archive") << "--host HOST --port PORT --screenshot SHOTS" << 0 << 5 << QString();
    QTest::newRow("folder cannot be made") << "--host HOST --port PORT --screenshot /proc/kelda-shots" << 5 << 0
                                           << QStringLiteral("/proc/kelda-shots: cannot create the folder");
    QTest::newRow("no server") << "--host HOST --port CLOSED --connect-timeout 1 --screenshot SHOTS" << 3 << 0
                               << QStringLiteral("cannot reach the archive server at 127.0.0.1:");
    QTest::newRow("window without a display")
        << "--port PORT" << 4 << 0 << QStringLiteral("no display to show the window on");
    QTest::newRow("bad port") << "--port http" << 2 << 0 << QStringLiteral("--port needs a number from 1 to 65535");
    QTest::newRow("stray argument") << "--connect-timeout 2 shots" << 2 << 0
                                    << QStringLiteral("unexpected argument \"shots\"");
}

void KeldaBrowserTest::program()
{
    QFETCH(QString, command);
    QFETCH(int, exitCode);
    QFETCH(int, pictures);
    QFETCH(QString, message);
    const QHash<QString, QString> values{{QStringLiteral("HOST"), QStringLiteral("127.0.0.1")},
                                         {QStringLiteral("PORT"), QString::number(m_server.port())},
                                         {QStringLiteral("CLOSED"), QString::number(closedPort())},
                                         {QStringLiteral("SHOTS"), m_scratch.filePath(QStringLiteral("shots"))}};
    QStringList arguments = command.split(QLatin1Char(' '));
    for (QString &word : arguments)
        word = values.value(word, word);

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
