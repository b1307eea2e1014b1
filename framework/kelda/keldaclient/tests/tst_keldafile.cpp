#include "keldaclient.h"
#include "keldafile.h"
#include "scriptedpeer.h"
#include "trace.h"
#include "transporttimings.h"

#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const int kSignalWaitMs = 10000;
// Short, so that a silent peer ends the blocking call quickly.
const unsigned int kReplyTimeLimitMs = 200;
const int kReconnectIntervalMs = 100;

} // namespace

// KeldaFile's create-new constructor against a scripted peer, where the
// creation of the group can fail in every way a server can let it fail.
class KeldaFileTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void failedCreationSendsNothingMore_data();
    void failedCreationSendsNothingMore();

private:
    QTemporaryDir m_dir;
    std::unique_ptr<ScriptedPeer> m_peer;
    std::unique_ptr<KeldaClient> m_client;
    // Holds back the peer's late reply; the client sends nothing else
    // while a reply is outstanding.
    std::shared_ptr<QSemaphore> m_lateReply;
};

void KeldaFileTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    TransportTimings::SetReplyTimeLimitMs(kReplyTimeLimitMs);
    TransportTimings::SetReconnectIntervalMs(kReconnectIntervalMs);
    ErrorHandler::Instance()->SetLevel(0);
}

void KeldaFileTest::init()
{
    m_lateReply = std::make_shared<QSemaphore>();
    m_peer = std::make_unique<ScriptedPeer>();
    m_peer->setBasePath(m_dir.path());
    m_client = std::make_unique<KeldaClient>(QStringLiteral("127.0.0.1"), m_peer->port(), QStringLiteral("app"),
                                             QStringLiteral("user"), QString());
    QSignalSpy connected(m_client.get(), &KeldaClient::connected);
    QVERIFY(connected.wait(kSignalWaitMs));
}

void KeldaFileTest::cleanup()
{
    m_lateReply->release();
    m_client.reset();
    m_peer.reset();
}

void KeldaFileTest::failedCreationSendsNothingMore_data()
{
    QTest::addColumn<QString>("failure");
    QTest::addColumn<int>("error");

    QTest::newRow("reply came too late") << QStringLiteral("late") << int(KE_ReplyTimeout);
    QTest::newRow("connection lost") << QStringLiteral("disconnect") << int(KE_ReplyTimeout);
    QTest::newRow("refused") << QStringLiteral("<m:Error>36</m:Error>") << 36;
}

// Without a group there is nothing to add a file to and nothing to move.
void KeldaFileTest::failedCreationSendsNothingMore()
{
    QFETCH(QString, failure);
    QFETCH(int, error);

    const QString command = QStringLiteral("CreateFileGroup");
    if (failure == QLatin1String("late")) {
        m_peer->setAnswer(command, [late = m_lateReply](const ScriptedPeer::Request &request) {
            late->tryAcquire(1, kSignalWaitMs);
            return ScriptedPeer::replyDocument(request.requestId, QStringLiteral("CreateFileGroupReply"),
                                               QStringLiteral("<m:Error>0</m:Error>"));
        });
    } else if (failure == QLatin1String("disconnect")) {
        m_peer->setDisconnectOn(command);
    } else {
        m_peer->setReplyChildren(command, failure);
    }

    const QString source = m_dir.filePath(QStringLiteral("scan.bin"));
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("bytes");
    file.close();

    unsigned int days = 1;
    auto stored = std::make_unique<KeldaFile>(m_client.get(), source, QStringLiteral("1"), days, QString(),
                                              QString(), FT_ScanRecording, 0);
    QCOMPARE(int(stored->GetError()), error);
    QCOMPARE(stored->GetGuid(), QString());
    QCOMPARE(stored->GetFileId(), 0u);
    stored.reset();
    m_lateReply->release();

    // Requests leave one at a time, in order: once the peer has this one, it
    // has everything sent before.
    if (!m_client->IsConnected()) {
        QSignalSpy connected(m_client.get(), &KeldaClient::connected);
        QVERIFY(connected.wait(kSignalWaitMs));
    }
    m_client->GetUserListAsync();
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->requests(QStringLiteral("GetUserList")).size(), 1, kSignalWaitMs);
    QCOMPARE(m_peer->requests(command).size(), 1);
    QCOMPARE(m_peer->requests(QStringLiteral("AddFile")).size(), 0);
    QCOMPARE(m_peer->requests(QStringLiteral("MoveToNas")).size(), 0);
}

QTEST_GUILESS_MAIN(KeldaFileTest)
#include "tst_keldafile.moc"
