#include "clientconfig.h"

#include "errorhandler.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using Kelda::KeldaClient;

namespace {
const char kConfigSource[] = "framework/kelda/keldaclient/src/clientconfig";
}

class TestClientConfig : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void staticsShareOneConfiguration();
    void readsStore_data();
    void readsStore();

private:
    void writeIni(const QByteArray &content);
    QVariant storedCompressionRate() const;

    QTemporaryDir m_dir;
    QString m_iniPath;
    const quint32 m_traceLevel = ErrorHandler::Instance()->GetLevel();
};

void TestClientConfig::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_iniPath = m_dir.filePath(QStringLiteral("kelda.ini"));
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(m_iniPath));
}

void TestClientConfig::cleanup()
{
    ErrorHandler::Instance()->SetTraceHook({});
    ErrorHandler::Instance()->SetLevel(m_traceLevel);
}

void TestClientConfig::writeIni(const QByteArray &content)
{
    QFile ini(m_iniPath);
    QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ini.write(content);
}

QVariant TestClientConfig::storedCompressionRate() const
{
    return QSettings(m_iniPath, QSettings::IniFormat).value(QStringLiteral("KELDA/CompressionRate"));
}

// Runs first: the function-local copies exist once per process.
void TestClientConfig::staticsShareOneConfiguration()
{
    QVERIFY(!KeldaClient::s_config.load());
    writeIni("[KELDA]\nServerHost=first\nCompressionRate=7\n");
    QVERIFY(KeldaClient::IsKeldaAvailable());
    KeldaClient::ClientConfig *const first = KeldaClient::s_config.load();
    QVERIFY(first);
    QCOMPARE(first->GetServerHost(), QStringLiteral("first"));

    // Another reader builds its own copy from the changed store, yet answers
    // from the shared one.
    writeIni("[KELDA]\nCompressionRate=3\n");
    QCOMPARE(KeldaClient::GetCompressionRate(), 7);
    QCOMPARE(KeldaClient::s_config.load(), first);

    // A client installs its copy for every reader, overrides included.
    KeldaClient::ClientConfig clientCopy;
    clientCopy.SetAvailable(true);
    KeldaClient::s_config.store(&clientCopy);
    QCOMPARE(KeldaClient::GetCompressionRate(), 3);
    QVERIFY(KeldaClient::IsKeldaAvailable());
    KeldaClient::s_config.store(first);
}

void TestClientConfig::readsStore_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("available");
    QTest::addColumn<bool>("useUtc");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("storedRate");
    QTest::addColumn<QStringList>("failureTraces");

    const QString localhost = QStringLiteral("localhost");
    QTest::newRow("no group") << QByteArray() << localhost << 5223 << false << false << -1 << -1 << QStringList();
    QTest::newRow("all keys") << QByteArray("[KELDA]\nServerHost=archive\nXmlPort=6000\nUseUtc=true\nCompressionRate=9\n")
                              << QStringLiteral("archive") << 6000 << true << true << 9 << 9 << QStringList();
    QTest::newRow("host only") << QByteArray("[KELDA]\nServerHost=archive\n") << QStringLiteral("archive") << 5223
                               << true << false << -1 << -1 << QStringList();
    QTest::newRow("stored zero rate") << QByteArray("[KELDA]\nCompressionRate=0\n") << localhost << 5223 << false
                                      << false << -1 << -1 << QStringList();
    QTest::newRow("port out of range")
        << QByteArray("[KELDA]\nServerHost=archive\nXmlPort=70000\n") << QStringLiteral("archive") << 5223 << true
        << false << -1 << -1
        << QStringList{QStringLiteral("ClientConfig::ClientConfig: XmlPort 70000 is not a TCP port, using 5223")};
}

void TestClientConfig::readsStore()
{
    QFETCH(QByteArray, ini);
    QFETCH(QString, host);
    QFETCH(int, port);
    QFETCH(bool, available);
    QFETCH(bool, useUtc);
    QFETCH(int, rate);
    QFETCH(int, storedRate);
    QFETCH(QStringList, failureTraces);

    writeIni(ini);
    QStringList traces;
    ErrorHandler::Instance()->SetTraceHook([&traces](const QString &text, const char *source, int) {
        if (qstrcmp(source, kConfigSource) == 0)
            traces << text;
    });
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure | ErrorHandler::Detail);
    {
        const KeldaClient::ClientConfig config;
        QCOMPARE(config.GetServerHost(), host);
        QCOMPARE(int(config.GetXmlPort()), port);
        QCOMPARE(config.IsAvailable(), available);
        QCOMPARE(config.IsUseUtc(), useUtc);
        QCOMPARE(config.GetCompressionRate(), rate);
        QCOMPARE(storedCompressionRate().toInt(), storedRate);
    }

    const QStringList expected = QStringList{QStringLiteral("ClientConfig::ClientConfig: Start ")} + failureTraces
                                 + QStringList{QStringLiteral("ClientConfig::ClientConfig: End"),
                                               QStringLiteral("ClientConfig::~ClientConfig: Destroyed")};
    QCOMPARE(traces, expected);
}

QTEST_GUILESS_MAIN(TestClientConfig)
#include "tst_clientconfig.moc"
