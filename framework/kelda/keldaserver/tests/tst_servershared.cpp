#include "archivestore.h"
#include "e2ehelpers.h"
#include "filequery.h"
#include "keldaclient.h"
#include "keldaxml.h"
#include "postgrescluster.h"
#include "rawclient.h"
#include "replyfields.h"
#include "serverprocess.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>

using namespace Kelda;
using namespace E2e;

// Two servers on one PostgreSQL database and one storage root serve one
// archive; a server that loses its database answers with errors and comes
// back with it.
class TestServerShared : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void locksAcrossServers_data();
    void locksAcrossServers();
    void simultaneousAddsGetConsecutiveIds_data();
    void simultaneousAddsGetConsecutiveIds();
    void groupOfOneServerHandledThroughTheOther();
    void converterHearsGroupsOfTheOtherServer();
    void moveClaimsFollowLiveServers();
    void databaseRestartLosesNoAnsweredChange();

private:
    QString createGroup(KeldaClient &client, const QString &name, FileType type, QString *directory);

    PostgresCluster *m_cluster = nullptr;
    QTemporaryDir m_root;
    std::unique_ptr<ServerProcess> m_first;
    std::unique_ptr<ServerProcess> m_second;
    std::unique_ptr<KeldaClient> m_alice; // on the first server
    std::unique_ptr<KeldaClient> m_bob; // on the second
};

void TestServerShared::initTestCase()
{
    if (PostgresCluster::binDirectory().isEmpty()) {
        if (PostgresCluster::required())
            QFAIL(qPrintable(PostgresCluster::missingText()));
        QSKIP(qPrintable(PostgresCluster::missingText()));
    }
    QString error;
    m_cluster = PostgresCluster::shared(&error);
    QVERIFY2(m_cluster, qPrintable(error));
    const QString url = ServerProcess::postgresUrl(m_root.path(), &error);
    QVERIFY2(!url.isEmpty(), qPrintable(error));
    // One over TCP, the other through the socket folder.
    const QString socketUrl = m_cluster->socketUrl(url.mid(url.lastIndexOf(QLatin1Char('/')) + 1));
    for (auto *server : {&m_first, &m_second}) {
        *server = std::make_unique<ServerProcess>(m_root.path());
        (*server)->setExtraArguments({QStringLiteral("--db"), server == &m_first ? url : socketUrl});
        QVERIFY2((*server)->start(), qPrintable((*server)->errorString()));
    }
    m_alice = connectClient(m_first->port(), QStringLiteral("alice"));
    m_bob = connectClient(m_second->port(), QStringLiteral("bob"));
    QVERIFY(m_alice->IsConnected());
    QVERIFY(m_bob->IsConnected());
}

QString TestServerShared::createGroup(KeldaClient &client, const QString &name, FileType type, QString *directory)
{
    return client.CreateFileGroup(QStringLiteral("1"), QDateTime(), QString(), QString(), type, 0, name, *directory);
}

void TestServerShared::locksAcrossServers_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("second");
    QTest::addColumn<int>("error");
    QTest::newRow("write, then read") << int(LOCK_Write) << int(LOCK_Read) << int(KE_FileGroupWriteLocked);
    QTest::newRow("write, then write") << int(LOCK_Write) << int(LOCK_Write) << int(KE_FileGroupWriteLocked);
    QTest::newRow("read, then write") << int(LOCK_Read) << int(LOCK_Write) << int(KE_FileGroupLocked);
    QTest::newRow("read, then read") << int(LOCK_Read) << int(LOCK_Read) << int(KE_NoError);
}

void TestServerShared::locksAcrossServers()
{
    QFETCH(int, first);
    QFETCH(int, second);
    QFETCH(int, error);
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Locked"), FT_Image, "x", &fileId);
    QVERIFY(!guid.isEmpty());
    QVERIFY(!m_alice->RequestFile(fileId, guid, LockState(first)).isEmpty());
    const QString path = m_bob->RequestFile(fileId, guid, LockState(second));
    QCOMPARE(int(m_bob->GetError()), error);
    QCOMPARE(path.isEmpty(), error != KE_NoError);

    // Released through one server, the group is free through the other.
    QCOMPARE(closeFile(*m_alice, fileId, guid), int(KE_NoError));
    QVERIFY(error != KE_NoError || closeFile(*m_bob, fileId, guid) == KE_NoError);
    QVERIFY(!m_bob->RequestFile(fileId, guid, LOCK_Write).isEmpty());
    QCOMPARE(closeFile(*m_bob, fileId, guid), int(KE_NoError));
}

void TestServerShared::simultaneousAddsGetConsecutiveIds_data()
{
    QTest::addColumn<int>("connections");
    QTest::addColumn<bool>("bothServers"); // else all to the first
    QTest::newRow("two servers") << 2 << true;
    // Connections of one server are served by several writing connections
    // to the database: their changes of one group meet as those of two
    // servers do.
    QTest::newRow("connections of one server") << 6 << false;
}

void TestServerShared::simultaneousAddsGetConsecutiveIds()
{
    QFETCH(int, connections);
    QFETCH(bool, bothServers);
    constexpr int Files = 24;
    QString directory;
    const QString guid = createGroup(*m_alice, QStringLiteral("Crowded"), FT_Image, &directory);
    QVERIFY(!guid.isEmpty());
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int c = 0; c < connections; ++c) {
        clients.push_back(std::make_unique<RawClient>());
        QVERIFY(clients.back()->connectTo((bothServers && c % 2 ? m_second : m_first)->port()));
    }
    for (int i = 0; i < Files; ++i)
        QVERIFY(writeFile(directory + QStringLiteral("f%1.bin").arg(i), QByteArray::number(i)));
    // Every connection receives its share at the same moment.
    for (int i = 0; i < Files; ++i) {
        const QString name = QStringLiteral("f%1.bin").arg(i);
        clients[size_t(i % connections)]->sendFrame(RawClient::request(Tag::AddFile, name,
                                                                       element(Tag::Guid, guid) +
                                                                           element(Tag::FileName, name) +
                                                                           element(Tag::FileId, QStringLiteral("0"))));
    }
    QList<uint> ids;
    for (int i = 0; i < Files; ++i)
        ids.append(ReplyFields::read(clients[size_t(i % connections)]->receive(Wait)).value(Tag::FileId).toUInt());
    std::sort(ids.begin(), ids.end());
    QList<uint> expected;
    for (int i = 1; i <= Files; ++i)
        expected.append(uint(i));
    QCOMPARE(ids, expected);
    QCOMPARE(clients.back()->ask(Tag::GetFileList, element(Tag::Guid, guid)).all(Tag::FileId).size(), Files);
}

void TestServerShared::groupOfOneServerHandledThroughTheOther()
{
    unsigned int fileId = 0;
    const QString name = QStringLiteral("Wandering %1").arg(QDateTime::currentMSecsSinceEpoch());
    const QString guid = createGroupWithFile(*m_alice, name, FT_AudioRecording, "a", &fileId);
    QVERIFY(!guid.isEmpty());

    FileQuery query;
    query.SetFileGroupSearchText(name);
    unsigned int columns = 0;
    const QStringList table = m_bob->QueryFiles(query, columns);
    QVERIFY2(table.contains(guid), qPrintable(table.join(QLatin1Char(','))));

    QVERIFY(!m_bob->RequestFile(fileId, guid, LOCK_Write).isEmpty());
    QSignalSpy aliceDeleted(m_alice.get(), &KeldaClient::deleteFileGroupSg);
    QCOMPARE(waitForRequest(aliceDeleted, m_alice->DeleteFileGroupAsync(guid)).value(1).toInt(),
             int(KE_FileGroupWriteLocked));

    QCOMPARE(closeFile(*m_bob, fileId, guid), int(KE_NoError));
    QSignalSpy bobDeleted(m_bob.get(), &KeldaClient::deleteFileGroupSg);
    QCOMPARE(waitForRequest(bobDeleted, m_bob->DeleteFileGroupAsync(guid)).value(1).toInt(), int(KE_NoError));

    QSignalSpy exists(m_alice.get(), &KeldaClient::checkFileGroupExistsSg);
    const QVariantList answer = waitForRequest(exists, m_alice->CheckFileGroupExists(guid));
    QCOMPARE(answer.value(1).toBool(), false);
    QCOMPARE(answer.value(2).toInt(), int(KE_NoError));
}

void TestServerShared::converterHearsGroupsOfTheOtherServer()
{
    RawClient converter;
    QVERIFY(converter.connectTo(m_second->port()));
    converter.sendFrame(RawClient::request(Tag::RegisterConverter, QStringLiteral("reg"),
                                           QStringLiteral("<m:ConverterId>video</m:ConverterId>"
                                                          "<m:FileType>%1</m:FileType>")
                                               .arg(int(FT_IfRecording))));
    QVERIFY(converter.receive().contains("<m:RegisterConverterReply"));

    QString directory;
    const QString guid = createGroup(*m_alice, QStringLiteral("For the converter"), FT_IfRecording, &directory);
    QVERIFY(!guid.isEmpty());
    const QByteArray notice = converter.receive(Wait);
    QVERIFY2(notice.contains("<m:ConvertFileGroup"), notice.constData());
    QVERIFY2(notice.contains(QStringLiteral("<m:Guid>%1</m:Guid>").arg(guid).toUtf8()), notice.constData());
}

void TestServerShared::moveClaimsFollowLiveServers()
{
    // A move is resumed by another server only once its claimer is gone.
    QString error;
    QTemporaryDir elsewhere;
    DatabaseLocation database;
    QVERIFY(DatabaseLocation::parse(ServerProcess::postgresUrl(elsewhere.path(), &error), &database, &error));
    const QString guid = QStringLiteral("6f1c3b0e-4d5a-4c2b-9a7e-1d2c3b4a5f60");
    auto first = std::make_unique<ArchiveStore>();
    first->setInstanceId(QStringLiteral("first"));
    first->setLocksGroups(true);
    QVERIFY2(first->open(database), qPrintable(first->errorString()));
    first->recordMoveClaim(guid);
    ArchiveStore second;
    second.setInstanceId(QStringLiteral("second"));
    second.setLocksGroups(true);
    QVERIFY2(second.open(database), qPrintable(second.errorString()));
    QVERIFY(!second.claimMove(guid));
    QVERIFY(first->claimMove(guid));
    first.reset();
    // The database ends the closed session on its own time.
    QTRY_VERIFY_WITH_TIMEOUT(second.claimMove(guid), Wait);
    ArchiveStore third;
    third.setInstanceId(QStringLiteral("third"));
    third.setLocksGroups(true);
    QVERIFY2(third.open(database), qPrintable(third.errorString()));
    QVERIFY(!third.claimMove(guid));
}

void TestServerShared::databaseRestartLosesNoAnsweredChange()
{
    m_second->stop();
    unsigned int fileId = 0;
    const QString guid = createGroupWithFile(*m_alice, QStringLiteral("Through a restart"), FT_Image, "r", &fileId);
    QVERIFY(!guid.isEmpty());
    QSignalSpy referenced(m_alice.get(), &KeldaClient::AddReferenceSg);
    const auto saved = [&referenced] {
        return int(std::count_if(referenced.cbegin(), referenced.cend(),
                                 [](const QVariantList &answer) { return answer.value(1).toInt() == KE_NoError; }));
    };

    // References under way while the database goes down.
    constexpr int Burst = 40;
    for (int i = 0; i < Burst; ++i)
        m_alice->AddReference(guid);
    QString error;
    QVERIFY2(m_cluster->stop(&error), qPrintable(error));
    QTRY_COMPARE_WITH_TIMEOUT(referenced.size(), Burst, 60000);

    // Without the database: an error for each request, the connection stays.
    QElapsedTimer answered;
    answered.start();
    m_alice->AddReference(guid);
    QTRY_COMPARE_WITH_TIMEOUT(referenced.size(), Burst + 1, 60000);
    QCOMPARE(referenced.last().value(1).toInt(), int(KE_DatabaseNotAvailable));
    QVERIFY(answered.elapsed() < 60000);
    QSignalSpy files(m_alice.get(), &KeldaClient::GetFileListSg);
    QCOMPARE(waitForRequest(files, m_alice->GetFileListAsync(guid)).value(2).toInt(), int(KE_DatabaseNotAvailable));
    QVERIFY(m_alice->IsConnected());

    QVERIFY2(m_cluster->start(&error), qPrintable(error));
    // Back within seconds: asked again until a change is saved.
    QDeadlineTimer back(30000);
    int before = 0;
    do {
        before = referenced.size();
        m_alice->AddReference(guid);
        QTRY_COMPARE_WITH_TIMEOUT(referenced.size(), before + 1, 60000);
    } while (referenced.last().value(1).toInt() != KE_NoError && !back.hasExpired());
    QCOMPARE(referenced.last().value(1).toInt(), int(KE_NoError));

    // The reader thread has its own connection and may come back later.
    QSignalSpy meta(m_alice.get(), &KeldaClient::QueryMetaDataSg);
    QVariantList answer;
    do {
        answer = waitForRequest(meta, m_alice->QueryMetaDataAsync(guid, QString()));
    } while (answer.value(2).toInt() != KE_NoError && !back.hasExpired());
    QCOMPARE(answer.value(2).toInt(), int(KE_NoError));
    QCOMPARE(answer.value(1).value<FileGroupData>().getReferenceCounter(), saved());

    // A restart while nobody asks costs no request: the stale connections
    // are replaced on first use.
    QVERIFY2(m_cluster->stop(&error), qPrintable(error));
    QVERIFY2(m_cluster->start(&error), qPrintable(error));
    m_alice->AddReference(guid);
    QTRY_COMPARE_WITH_TIMEOUT(referenced.size(), before + 2, 60000);
    QCOMPARE(referenced.last().value(1).toInt(), int(KE_NoError));
    QCOMPARE(waitForRequest(files, m_alice->GetFileListAsync(guid)).value(2).toInt(), int(KE_NoError));
}

QTEST_GUILESS_MAIN(TestServerShared)
#include "tst_servershared.moc"
