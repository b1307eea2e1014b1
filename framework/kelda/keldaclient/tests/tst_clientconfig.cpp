#include "clientconfig.h"
#include "configuredserver.h"
#include "keldaclient.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using Kelda::ClientConfig;
using Kelda::KeldaClient;

class TestClientConfig : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void staticsShareOneConfiguration();
    void readsStore_data();
    void readsStore();

private:
    void writeIni(const QByteArray &content);

    QTemporaryDir m_dir;
    const QString m_iniPath = m_dir.filePath(QStringLiteral("kelda.ini"));
};

void TestClientConfig::writeIni(const QByteArray &content)
{
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(m_iniPath));
    QFile ini(m_iniPath);
    QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ini.write(content);
}

// Runs first: the function-local copies exist once per process.
void TestClientConfig::staticsShareOneConfiguration()
{
    QVERIFY(!ClientConfig::s_shared.load());
    writeIni("[KELDA]\nServerHost=first\nCompressionRate=7\n");
    QVERIFY(KeldaClient::IsKeldaAvailable());
    ClientConfig *const first = ClientConfig::s_shared.load();

    // Another reader builds its own copy from the changed store, yet answers from the shared one.
    writeIni("[KELDA]\nCompressionRate=3\n");
    QCOMPARE(KeldaClient::GetCompressionRate(), 7);
    QCOMPARE(ClientConfig::s_shared.load(), first);

    // A client installs its copy for every reader, overrides included.
    ClientConfig clientCopy;
    clientCopy.SetAvailable(true);
    ClientConfig::s_shared.store(&clientCopy);
    QCOMPARE(KeldaClient::GetCompressionRate(), 3);
    QVERIFY(KeldaClient::IsKeldaAvailable());
    ClientConfig::s_shared.store(first);
}

void TestClientConfig::readsStore_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QString>("expected");

    QTest::newRow("all keys") << QByteArray("[KELDA]\nServerHost=srv\nXmlPort=6000\nUseUtc=true\nCompressionRate=9\n")
                              << QStringLiteral("srv:6000 available=1 utc=1 rate=9 stored=9 frame=1073741824");
    QTest::newRow("frame size lowered") << QByteArray("[KELDA]\nMaxFrameSize=4096\n")
                                        << QStringLiteral(
                                               "localhost:5223 available=0 utc=0 rate=-1 stored=-1 frame=4096");
    QTest::newRow("frame size beyond a byte array")
        << QByteArray("[KELDA]\nMaxFrameSize=2147483647\n")
        << QStringLiteral("localhost:5223 available=0 utc=0 rate=-1 stored=-1 frame=2147479551");
    QTest::newRow("frame size not positive")
        << QByteArray("[KELDA]\nMaxFrameSize=-5\n")
        << QStringLiteral("localhost:5223 available=0 utc=0 rate=-1 stored=-1 frame=1073741824");
    QTest::newRow("defaults, stored zero rate")
        << QByteArray("[KELDA]\nCompressionRate=0\n")
        << QStringLiteral("localhost:5223 available=0 utc=0 rate=-1 stored=-1 frame=1073741824");
    QTest::newRow("port out of range") << QByteArray("[KELDA]\nServerHost=archive\nXmlPort=70000\n")
                                       << QStringLiteral(
                                              "archive:5223 available=1 utc=0 rate=-1 stored=-1 frame=1073741824");
}

void TestClientConfig::readsStore()
{
    QFETCH(QByteArray, ini);
    QFETCH(QString, expected);

    writeIni(ini);
    const ClientConfig config;
    const QVariant stored = QSettings(m_iniPath, QSettings::IniFormat).value(QStringLiteral("KELDA/CompressionRate"));
    QCOMPARE(QStringLiteral("%1:%2 available=%3 utc=%4 rate=%5 stored=%6 frame=%7")
                 .arg(config.GetServerHost())
                 .arg(config.GetXmlPort())
                 .arg(config.IsAvailable())
                 .arg(config.IsUseUtc())
                 .arg(config.GetCompressionRate())
                 .arg(stored.toString())
                 .arg(config.GetMaxFrameSize()),
             expected);
    // The programs offer the server that a client would use.
    const Kelda::ConfiguredServer server = Kelda::ConfiguredServer::Read();
    QCOMPARE(server.host, config.GetServerHost());
    QCOMPARE(server.port, config.GetXmlPort());
}

QTEST_GUILESS_MAIN(TestClientConfig)
#include "tst_clientconfig.moc"
