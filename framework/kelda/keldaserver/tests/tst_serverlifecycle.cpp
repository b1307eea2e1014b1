#include "e2ehelpers.h"
#include "filequery.h"
#include "keldaclient.h"
#include "serverprocess.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

using namespace Kelda;
using namespace E2e;

// Groups, files, locks and references through the real client library
// against a real server process, in blocking and asynchronous form; every
// answered change survives a restart, also when the server is killed right
// after answering.
class TestServerLifecycle : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void blockingLifecycle();
    void asynchronousLifecycle();
    void unknownGroup_data();
    void unknownGroup();
    void lockContention();
    void locksOutliveTheConnection();
    void references();
    void tovinGroups();
    void moveToNetworkStorage();
    void exportThenImportIntoFreshServer();
    void keepsAnsweredChanges_data();
    void keepsAnsweredChanges();
    void refusesSecondServerOnSamePort();

private:
    ServerProcess m_server;
    std::unique_ptr<KeldaClient> m_alice;
    std::unique_ptr<KeldaClient> m_bob;
};

void TestServerLifecycle::initTestCase()
{
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_alice = connectClient(m_server.port(), QStringLiteral("alice"));
    m_bob = connectClient(m_server.port(), QStringLiteral("bob"));
    QVERIFY(m_alice->IsConnected());
    QVERIFY(m_bob->IsConnected());
    QCOMPARE(QDir(m_alice->getBasePath()).canonicalPath(), QDir(m_server.basePath()).canonicalPath());
}

void TestServerLifecycle::blockingLifecycle()
{
    KeldaClient &client = *m_alice;
    QString directory;
    const QString guid =
        client.CreateFileGroup(QStringLiteral("2.1"), QDateTime(), QStringLiteral("detail"), QStringLiteral("comment"),
                               FT_AudioRecording, 0, QStringLiteral("Recording"), directory);
    QVERIFY2(!guid.isEmpty(), qPrintable(client.GetErrorString()));
    QVERIFY(QFileInfo(directory).isDir());

    QVERIFY(writeFile(directory + QStringLiteral("one.wav"), "first"));
    QVERIFY(writeFile(directory + QStringLiteral("two.wav"), "second"));
    QCOMPARE(client.AddFile(directory + QStringLiteral("one.wav"), guid), 1u);
    QCOMPARE(client.AddFile(directory + QStringLiteral("two.wav"), guid), 2u);
    QCOMPARE(client.AddFile(directory + QStringLiteral("two.wav"), guid), 0u);
    QCOMPARE(int(client.GetError()), int(KE_AddFileFailed));
    QCOMPARE(client.AddFile(directory + QStringLiteral("missing.wav"), guid), 0u);
    QCOMPARE(int(client.GetError()), int(KE_OpenFileFailed));
    QCOMPARE(client.GetFileList(guid),
             (QStringList{QStringLiteral("1"), QStringLiteral("one.wav"), QStringLiteral("2"),
                          QStringLiteral("two.wav")}));

    const QString path = client.RequestFile(2, guid, LOCK_Write);
    QCOMPARE(readFile(path), QByteArray("second"));
    QVERIFY(writeFile(path, "rewritten"));
    QCOMPARE(closeFile(client, 2, guid), int(KE_NoError));
    QCOMPARE(readFile(m_bob->RequestFile(2, guid, LOCK_Read)), QByteArray("rewritten"));
    QCOMPARE(closeFile(*m_bob, 2, guid), int(KE_NoError));

    QSignalSpy deleted(&client, &KeldaClient::DeleteFileNameSg);
    QCOMPARE(waitForRequest(deleted, client.DeleteFileName(1, guid)).value(1).toInt(), int(KE_NoError));
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(directory + QStringLiteral("one.wav")), Wait);
    QCOMPARE(client.GetFileList(guid), (QStringList{QStringLiteral("2"), QStringLiteral("two.wav")}));

    QSignalSpy groupDeleted(&client, &KeldaClient::deleteFileGroupSg);
    QCOMPARE(waitForRequest(groupDeleted, client.DeleteFileGroupAsync(guid)).value(1).toInt(), int(KE_NoError));
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(directory), Wait);
    QSignalSpy exists(&client, &KeldaClient::checkFileGroupExistsSg);
    const QVariantList answer = waitForRequest(exists, client.CheckFileGroupExists(guid));
    QCOMPARE(answer.value(1).toBool(), false);
    QCOMPARE(answer.value(2).toInt(), int(KE_NoError));
}

void TestServerLifecycle::asynchronousLifecycle()
{
    KeldaClient &client = *m_bob;
    QSignalSpy created(&client, &KeldaClient::CreateFileGroupSg);
    QString directory;
    const QString guid =
        client.CreateFileGroupAsync(QStringLiteral("1"), QDateTime::currentDateTime().addDays(30), QStringLiteral("d"),
                                    QStringLiteral("c"), FT_Image, 5, QStringLiteral("Pictures"), directory);
    QCOMPARE(waitForRequest(created, guid).value(1).toString(), directory);
    QVERIFY(writeFile(directory + QStringLiteral("a.png"), "png"));

    QSignalSpy added(&client, &KeldaClient::AddFileSg);
    QCOMPARE(waitForRequest(added, client.AddFileAsync(directory + QStringLiteral("a.png"), guid, 7)).value(1).toUInt(),
             7u);

    QSignalSpy requested(&client, &KeldaClient::RequestFileSg);
    const QVariantList file = waitForRequest(requested, client.RequestFileAsync(7, guid, LOCK_Read));
    QCOMPARE(file.value(2).toInt(), int(KE_NoError));
    QCOMPARE(readFile(file.value(1).toString()), QByteArray("png"));
    QCOMPARE(closeFile(client, 7, guid), int(KE_NoError));

    QSignalSpy metaData(&client, &KeldaClient::QueryMetaDataSg);
    const QVariantList meta = waitForRequest(metaData, client.QueryMetaDataAsync(guid, QStringLiteral("viewer")));
    QCOMPARE(meta.value(2).toInt(), int(KE_NoError));
    const FileGroupData record = meta.value(1).value<FileGroupData>();
    QCOMPARE(record.getGuid(), guid);
    QCOMPARE(record.getFileGroupName(), QStringLiteral("Pictures"));
    QCOMPARE(record.getCreator(), QStringLiteral("bob"));
    QCOMPARE(record.getTeamMembership(), QStringLiteral("team"));
    QCOMPARE(record.getLocationState(), LS_Local);
    QCOMPARE(record.getFileType(), FT_Image);
    QCOMPARE(record.getReservedStorage(), 5);
    QVERIFY(record.getCreationTime().isValid());
    QCOMPARE(record.getFileList(), (FileGroupData::FileList{{QStringLiteral("a.png"), 7}}));

    QSignalSpy users(&client, &KeldaClient::GetUserListSg);
    QVERIFY(waitForRequest(users, client.GetUserListAsync()).value(1).toStringList().contains(QStringLiteral("bob")));

    QSignalSpy deleted(&client, &KeldaClient::deleteFileGroupSg);
    QCOMPARE(waitForRequest(deleted, client.DeleteFileGroupAsync(guid)).value(1).toInt(), int(KE_NoError));
}

void TestServerLifecycle::unknownGroup_data()
{
    QTest::addColumn<QString>("guid");
    QTest::newRow("empty") << QString();
    QTest::newRow("unknown") << KeldaClient::CreateGuid();
    QTest::newRow("garbage") << QStringLiteral("../../etc");
}

void TestServerLifecycle::unknownGroup()
{
    QFETCH(QString, guid);
    KeldaClient &client = *m_alice;
    QCOMPARE(client.RequestFile(1, guid, LOCK_Read), QString());
    QCOMPARE(int(client.GetError()), int(KE_GuidNotFound));
    QCOMPARE(client.AddFile(QStringLiteral("/tmp/x"), guid), 0u);
    QCOMPARE(int(client.GetError()), int(KE_GuidNotFound));
    QCOMPARE(client.GetFileList(guid), QStringList());
    QCOMPARE(int(client.GetError()), int(KE_GuidNotFound));

    QSignalSpy deleted(&client, &KeldaClient::deleteFileGroupSg);
    QCOMPARE(waitForRequest(deleted, client.DeleteFileGroupAsync(guid)).value(1).toInt(), int(KE_GuidNotFound));
    QSignalSpy meta(&client, &KeldaClient::QueryMetaDataSg);
    QCOMPARE(waitForRequest(meta, client.QueryMetaDataAsync(guid, QString())).value(2).toInt(), int(KE_GuidNotFound));
    QSignalSpy moved(&client, &KeldaClient::MoveToNasSg);
    QCOMPARE(waitForRequest(moved, client.MoveToNas(guid)).value(1).toInt(), int(KE_GuidNotFound));
    QSignalSpy progress(&client, &KeldaClient::queryLocationStateProgressSg);
    const QVariantList state = waitForRequest(progress, client.QueryLocationStateProgress(guid));
    QCOMPARE(state.value(1).toInt(), int(LS_UnknownFileGroup));
    QCOMPARE(state.value(3).toInt(), int(KE_GuidNotFound));
}

// The rules are tst_archiveengine's; here two clients hold apart and one
// client's requests hold together.
void TestServerLifecycle::lockContention()
{
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Contended"), FT_Image, "v1", &fileId);
    QVERIFY(!guid.isEmpty());

    QVERIFY(!m_alice->RequestFile(fileId, guid, LOCK_Write).isEmpty());
    QVERIFY(m_bob->RequestFile(fileId, guid, LOCK_Read).isEmpty());
    QCOMPARE(int(m_bob->GetError()), int(KE_FileGroupWriteLocked));
    QVERIFY(!m_alice->RequestFile(fileId, guid, LOCK_Read).isEmpty());
    QSignalSpy deleted(m_bob.get(), &KeldaClient::deleteFileGroupSg);
    QCOMPARE(waitForRequest(deleted, m_bob->DeleteFileGroupAsync(guid)).value(1).toInt(), int(KE_FileGroupWriteLocked));
    QCOMPARE(closeFile(*m_alice, fileId, guid), int(KE_NoError));
    QVERIFY(!m_bob->RequestFile(fileId, guid, LOCK_Read).isEmpty());
    QVERIFY(m_alice->RequestFile(fileId, guid, LOCK_Write).isEmpty());
    QCOMPARE(int(m_alice->GetError()), int(KE_FileGroupLocked));
    QCOMPARE(closeFile(*m_bob, fileId, guid), int(KE_NoError));
}

void TestServerLifecycle::locksOutliveTheConnection()
{
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Held"), FT_Image, "x", &fileId);
    QVERIFY(!guid.isEmpty());
    auto carol = connectClient(m_server.port(), QStringLiteral("carol"));
    QVERIFY(!carol->RequestFile(fileId, guid, LOCK_Write).isEmpty());
    carol.reset();

    QVERIFY(m_bob->RequestFile(fileId, guid, LOCK_Read).isEmpty());
    QCOMPARE(int(m_bob->GetError()), int(KE_FileGroupWriteLocked));
    carol = connectClient(m_server.port(), QStringLiteral("carol"));
    QCOMPARE(closeFile(*carol, fileId, guid), int(KE_NoError));
    QVERIFY(!m_bob->RequestFile(fileId, guid, LOCK_Read).isEmpty());
}

void TestServerLifecycle::references()
{
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Referenced"), FT_Image, "x", &fileId);
    auto viewer = connectClient(m_server.port(), QStringLiteral("dave"), QStringLiteral("viewer"));
    QSignalSpy added(viewer.get(), &KeldaClient::AddReferenceSg);
    QSignalSpy removedAll(viewer.get(), &KeldaClient::RemoveAllReferenceSg);
    QSignalSpy meta(viewer.get(), &KeldaClient::QueryMetaDataSg);
    const auto counter = [&] {
        return waitForRequest(meta, viewer->QueryMetaDataAsync(guid, QString()))
            .value(1)
            .value<FileGroupData>()
            .getReferenceCounter();
    };
    QSignalSpy aliceAdded(m_alice.get(), &KeldaClient::AddReferenceSg);
    viewer->AddReference(guid);
    viewer->AddReference(guid);
    m_alice->AddReference(guid);
    QTRY_COMPARE_WITH_TIMEOUT(added.size(), 2, Wait);
    QTRY_COMPARE_WITH_TIMEOUT(aliceAdded.size(), 1, Wait);
    QCOMPARE(counter(), 3);
    QVERIFY(m_alice->GetApplicationList().contains(QStringLiteral("viewer")));
    viewer->RemoveAllReferences(guid);
    QVERIFY(removedAll.wait(Wait));
    QCOMPARE(counter(), 1);
}

void TestServerLifecycle::tovinGroups()
{
    KeldaClient &client = *m_alice;
    QSignalSpy created(&client, &KeldaClient::CreateTovinFileGroupSg);
    QString directory;
    const QString guid =
        client.CreateTovinFileGroupAsync(QStringLiteral("tovin-7"), QStringLiteral("rec-42"), QStringLiteral("1"),
                                         QString(), QString(), FT_Tovin_IqRecording, directory);
    // The answer carries the request id, not the GUID the call returned.
    QVERIFY(created.wait(Wait));
    QCOMPARE(created.first().value(1).toString(), guid);
    QCOMPARE(created.first().value(2).toInt(), int(KE_NoError));
    QSignalSpy found(&client, &KeldaClient::getTovinFilegroupGuidSg);
    QCOMPARE(waitForRequest(found,
                            client.GetTovinFilegroupGuidAsync(QStringLiteral("tovin-7"), QStringLiteral("rec-42")))
                 .value(1)
                 .toString(),
             guid);
    QCOMPARE(waitForRequest(found,
                            client.GetTovinFilegroupGuidAsync(QStringLiteral("tovin-7"), QStringLiteral("rec-1")))
                 .value(2)
                 .toInt(),
             int(KE_GuidNotFound));
}

void TestServerLifecycle::moveToNetworkStorage()
{
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Moving"), FT_Image, "payload", &fileId);
    QVERIFY(!guid.isEmpty());
    m_alice->MoveToNasSync(guid);
    QCOMPARE(int(m_alice->GetError()), int(KE_NoError));
    QSignalSpy progress(m_alice.get(), &KeldaClient::queryLocationStateProgressSg);
    QTRY_COMPARE_WITH_TIMEOUT(waitForRequest(progress, m_alice->QueryLocationStateProgress(guid)).value(1).toInt(),
                              int(LS_Central), Wait);
    const QString path = m_alice->RequestFile(fileId, guid, LOCK_Read);
    QVERIFY2(path.startsWith(QDir::toNativeSeparators(m_server.basePath() + QStringLiteral("/nas/"))),
             qPrintable(path));
    QCOMPARE(readFile(path), QByteArray("payload"));
    m_alice->CloseFile(fileId, guid);
    QSignalSpy moved(m_alice.get(), &KeldaClient::MoveToNasSg);
    QCOMPARE(waitForRequest(moved, m_alice->MoveToNas(guid)).value(1).toInt(), int(KE_InvalidLocationStateForCommand));
}

void TestServerLifecycle::exportThenImportIntoFreshServer()
{
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Exported"), FT_ScanRecording, "scan", &fileId,
                                             QStringLiteral("travels"));
    QVERIFY(!guid.isEmpty());
    // The two servers share one exchange folder; the archive is named below it.
    const QString exchange = m_server.basePath() + QStringLiteral("/exchange");
    const QString archive = QStringLiteral("travelling");
    QSignalSpy exported(m_alice.get(), &KeldaClient::exportArchiveSg);
    QCOMPARE(waitForRequest(exported, m_alice->ExportArchiveAsync({guid}, archive)).value(1).toInt(), int(KE_NoError));
    QVERIFY(QFileInfo::exists(QStringLiteral("%1/%2/Exported_%3.fgdesc").arg(exchange, archive, guid)));

    ServerProcess fresh;
    fresh.setExtraArguments({QStringLiteral("--exchange-path"), exchange});
    QVERIFY2(fresh.start(), qPrintable(fresh.errorString()));
    auto client = connectClient(fresh.port(), QStringLiteral("erin"));
    QSignalSpy imported(client.get(), &KeldaClient::importArchiveSg);
    QCOMPARE(waitForRequest(imported, client->ImportArchiveAsync({archive})).value(1).toInt(), int(KE_NoError));
    QSignalSpy meta(client.get(), &KeldaClient::QueryMetaDataSg);
    const FileGroupData record =
        waitForRequest(meta, client->QueryMetaDataAsync(guid, QString())).value(1).value<FileGroupData>();
    QCOMPARE(record.getFileGroupName(), QStringLiteral("Exported"));
    QCOMPARE(record.getComment(), QStringLiteral("travels"));
    QCOMPARE(record.getCreator(), QStringLiteral("alice"));
    QCOMPARE(record.getFileType(), FT_ScanRecording);
    QCOMPARE(readFile(client->RequestFile(fileId, guid, LOCK_Read)), QByteArray("scan"));
    // A second import finds the group there already.
    QCOMPARE(waitForRequest(imported, client->ImportArchiveAsync({archive})).value(1).toInt(),
             int(KE_ImportArchiveFailed));
}

void TestServerLifecycle::keepsAnsweredChanges_data()
{
    QTest::addColumn<bool>("kill");
    QTest::newRow("SIGTERM") << false;
    QTest::newRow("SIGKILL") << true;
}

void TestServerLifecycle::keepsAnsweredChanges()
{
    QFETCH(bool, kill);
    QTemporaryDir base;
    ServerProcess server(base.path());
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto alice = connectClient(server.port(), QStringLiteral("alice"), QStringLiteral("editor"));
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*alice, QStringLiteral("Durable"), FT_Image, "kept", &fileId);
    QVERIFY(!guid.isEmpty());
    QVERIFY(!alice->RequestFile(fileId, guid, LOCK_Write).isEmpty());

    // A burst of changes; the server goes down as soon as the last is answered.
    constexpr int References = 50;
    QSignalSpy referenced(alice.get(), &KeldaClient::AddReferenceSg);
    for (int i = 0; i < References; ++i)
        alice->AddReference(guid);
    QTRY_COMPARE_WITH_TIMEOUT(referenced.size(), References, Wait);
    if (kill) {
        server.kill();
    } else {
        server.stop();
        QCOMPARE(server.exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.exitCode(), 0);
    }
    alice.reset();

    QVERIFY2(server.start(), qPrintable(server.errorString()));
    auto bob = connectClient(server.port(), QStringLiteral("bob"));
    QCOMPARE(bob->GetFileList(guid), (QStringList{QString::number(fileId), QStringLiteral("data.bin")}));
    QVERIFY(bob->RequestFile(fileId, guid, LOCK_Read).isEmpty());
    QCOMPARE(int(bob->GetError()), int(KE_FileGroupWriteLocked));
    QSignalSpy meta(bob.get(), &KeldaClient::QueryMetaDataSg);
    const FileGroupData record =
        waitForRequest(meta, bob->QueryMetaDataAsync(guid, QString())).value(1).value<FileGroupData>();
    QCOMPARE(record.getReferenceCounter(), References);
    QCOMPARE(record.getFileGroupName(), QStringLiteral("Durable"));
}

void TestServerLifecycle::refusesSecondServerOnSamePort()
{
    ServerProcess first;
    QVERIFY2(first.start(), qPrintable(first.errorString()));
    ServerProcess second;
    second.setExtraArguments({QStringLiteral("--listen"), QStringLiteral("127.0.0.1:%1").arg(first.port())});
    QVERIFY(!second.start());
    QCOMPARE(second.exitCode(), 69);
}

QTEST_GUILESS_MAIN(TestServerLifecycle)
#include "tst_serverlifecycle.moc"
