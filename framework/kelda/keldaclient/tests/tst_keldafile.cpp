#include "keldaclient.h"
#include "keldafile.h"
#include "scriptedpeer.h"
#include "trace.h"
#include "transporttimings.h"

#include <QScopeGuard>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace Kelda;

namespace {

const int kSignalWaitMs = 10000;
// Short, so that a reply held back ends the blocking call quickly.
const unsigned int kReplyTimeLimitMs = 200;
const int kReconnectIntervalMs = 100;

} // namespace

// KeldaFile's create-new constructor against a scripted peer that lets the
// creation of the group fail.
class KeldaFileTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void failedCreationSendsNothingMore_data();
    void failedCreationSendsNothingMore();
};

void KeldaFileTest::initTestCase()
{
    TransportTimings::SetReplyTimeLimitMs(kReplyTimeLimitMs);
    TransportTimings::SetReconnectIntervalMs(kReconnectIntervalMs);
    ErrorHandler::Instance()->SetLevel(0);
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

    QTemporaryDir dir;
    ScriptedPeer peer;
    peer.setBasePath(dir.path());
    // The client sends nothing else while a reply is outstanding, so the late
    // reply is held back only until the file is gone.
    auto lateReply = std::make_shared<QSemaphore>();
    const auto releaseLateReply = qScopeGuard([lateReply] { lateReply->release(); });
    const QString command = QStringLiteral("CreateFileGroup");
    if (failure == QLatin1String("late")) {
        peer.setAnswer(command, [lateReply](const ScriptedPeer::Request &request) {
            lateReply->tryAcquire(1, kSignalWaitMs);
            return ScriptedPeer::replyDocument(request.requestId, QStringLiteral("CreateFileGroupReply"),
                                               QStringLiteral("<m:Error>0</m:Error>"));
        });
    } else if (failure == QLatin1String("disconnect")) {
        peer.setDisconnectOn(command);
    } else {
        peer.setReplyChildren(command, failure);
    }
    const QString source = dir.filePath(QStringLiteral("scan.bin"));
    QFile file(source);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("bytes") == 5);
    file.close();
    KeldaClient client(QStringLiteral("127.0.0.1"), peer.port(), QStringLiteral("app"), QStringLiteral("user"),
                       QString());
    QVERIFY(client.WaitForConnected(kSignalWaitMs));

    unsigned int days = 1;
    auto stored = std::make_unique<KeldaFile>(&client, source, QStringLiteral("1"), days, QString(), QString(),
                                              FT_ScanRecording, 0);
    QCOMPARE(int(stored->GetError()), error);
    QCOMPARE(stored->GetGuid(), QString());
    QCOMPARE(stored->GetFileId(), 0u);
    stored.reset();
    lateReply->release();

    // Requests leave one at a time, in order: once the peer has this one, it
    // has everything sent before.
    QVERIFY(client.WaitForConnected(kSignalWaitMs));
    client.GetUserListAsync();
    QTRY_COMPARE_WITH_TIMEOUT(peer.requests(QStringLiteral("GetUserList")).size(), 1, kSignalWaitMs);
    QCOMPARE(peer.requests(command).size(), 1);
    QCOMPARE(peer.requests(QStringLiteral("AddFile")).size(), 0);
    QCOMPARE(peer.requests(QStringLiteral("MoveToNas")).size(), 0);
}

QTEST_GUILESS_MAIN(KeldaFileTest)
#include "tst_keldafile.moc"
