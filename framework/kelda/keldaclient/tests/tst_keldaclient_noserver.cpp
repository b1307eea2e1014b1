#include "filequery.h"
#include "keldaclient.h"
#include "scriptedpeer.h"
#include "trace.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

using namespace Kelda;

namespace {

const int kSignalWaitMs = 10000;

} // namespace

// A process whose configuration names no server: the client never starts a
// sender, and every operation fails at once without sending anything. The
// configuration is process-wide, hence a test program of its own.
class NoServerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void operationsFailAtOnce();
    void stateOfAClientThatNeverStarted();
    // Last: an explicit server makes the configuration available for good.
    void onlyTheExplicitClientConnects();

private:
    QTemporaryDir m_dir;
    ScriptedPeer *m_peer = nullptr;
    QStringList m_traces;
};

void NoServerTest::initTestCase()
{
    m_peer = new ScriptedPeer;
    // The port is configured, the host is not: that is no server.
    const QString ini = m_dir.filePath(QStringLiteral("kelda.ini"));
    QFile file(ini);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QStringLiteral("[KELDA]\nXmlPort=%1\n").arg(m_peer->port()).toUtf8());
    file.close();
    qputenv("KELDA_CONFIG_FILE", QFile::encodeName(ini));
    ErrorHandler::Instance()->SetLevel(ErrorHandler::Failure | ErrorHandler::Detail);
    ErrorHandler::Instance()->SetTraceHook([this](const QString &text, const char *, int) { m_traces.append(text); });
}

void NoServerTest::cleanupTestCase()
{
    ErrorHandler::Instance()->SetTraceHook({});
    delete m_peer;
}

void NoServerTest::operationsFailAtOnce()
{
    KeldaClient client;
    const QString guid = KeldaClient::CreateGuid();
    QString localPath;
    unsigned int count = 0;

    m_traces.clear();
    QCOMPARE(client.RequestFile(1, guid, LOCK_Read), QString());
    QCOMPARE(client.RequestFileAsync(1, guid, LOCK_Read), QString());
    QCOMPARE(client.AddFile(QStringLiteral("/tmp/a.bin"), guid), 0u);
    QCOMPARE(client.GetUserList(), QStringList());
    QCOMPARE(client.GetApplicationListAsync(), QString());
    QCOMPARE(client.QueryFiles(FileQuery(), count), QStringList());
    QCOMPARE(client.CreateFileGroup(QString(), QDateTime(), QString(), QString(), FT_Image, 0, QStringLiteral("g"),
                                    localPath),
             QString());
    QCOMPARE(client.MoveToNas(guid), QString());
    client.CloseFile(1, guid);
    QVERIFY(!client.IsValidURL(KeldaUrl(QStringLiteral("file:///tmp/x"))));

    QVERIFY(m_traces.contains(QStringLiteral("KeldaClient::RequestFile: no kelda available")));
    QVERIFY(m_traces.contains(QStringLiteral("KeldaClient::RequestFileAsync: no kelda available")));
    QVERIFY(m_traces.contains(QStringLiteral("KeldaClient::CreateFileGroupHelper: no kelda available")));
    QVERIFY(!m_traces.contains(QStringLiteral("KeldaClient::RequestFile: Start (1, %1)").arg(guid)));
}

void NoServerTest::stateOfAClientThatNeverStarted()
{
    KeldaClient client(QString(), 0);
    QVERIFY(!KeldaClient::IsKeldaAvailable());
    QVERIFY(!client.IsConnected());
    QCOMPARE(client.GetHost(), QString());
    QCOMPARE(client.GetPort(), quint16(0));
    QCOMPARE(client.GetError(), KE_NoError);
    QCOMPARE(client.GetErrorString(), QStringLiteral("No error"));
    QCOMPARE(KeldaClient::GetCompressionRate(), -1);
    // Nothing to wait for: no event loop runs, so a zero timer stays pending.
    QTimer zero;
    zero.setSingleShot(true);
    zero.start(0);
    QVERIFY(!client.WaitForConnected(kSignalWaitMs));
    QVERIFY(zero.isActive());
}

void NoServerTest::onlyTheExplicitClientConnects()
{
    KeldaClient idle;
    KeldaClient explicitServer(QStringLiteral("127.0.0.1"), m_peer->port(), QStringLiteral("app"),
                               QStringLiteral("user"), QString());
    QSignalSpy connected(&explicitServer, &KeldaClient::connected);
    QVERIFY(connected.wait(kSignalWaitMs));
    QCOMPARE(m_peer->connectionCount(), 1);
    QVERIFY(!idle.IsConnected());
    QVERIFY(!idle.WaitForConnected(kSignalWaitMs));
}

QTEST_GUILESS_MAIN(NoServerTest)
#include "tst_keldaclient_noserver.moc"
