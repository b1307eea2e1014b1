#include "e2ehelpers.h"
#include "filequery.h"
#include "keldaclient.h"
#include "serverprocess.h"

#include <QtTest>

using namespace Kelda;
using namespace E2e;

// File group queries by every criterion, through the real client library
// against a server process that holds three known groups.
class TestServerQueries : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void criterion_data();
    void criterion();
    void shownCreationTimeFindsItsGroup();
    void asynchronousQuery();
    void refusesUnknownStates();

private:
    enum Criterion {
        Name,
        Comment,
        Detail,
        Version,
        Creator,
        Team,
        Types,
        Location,
        Lock,
        LockUser,
        Application,
        LifeCycleMin,
        LifeCycleMax,
        CreationMin,
        CreationMax,
        BackupMin,
        ModificationMax
    };

    QString create(KeldaClient &client, const QString &version, const QDateTime &lifeCycle, const QString &detail,
                   const QString &comment, FileType type, const QString &name, unsigned int *fileId);
    static QStringList names(const QStringList &table);

    ServerProcess m_server;
    std::unique_ptr<KeldaClient> m_alice;
    std::unique_ptr<KeldaClient> m_bob;
    std::unique_ptr<KeldaClient> m_viewer;
    QDateTime m_start;
};

QString TestServerQueries::create(KeldaClient &client, const QString &version, const QDateTime &lifeCycle,
                                  const QString &detail, const QString &comment, FileType type, const QString &name,
                                  unsigned int *fileId)
{
    QString directory;
    const QString guid = client.CreateFileGroup(version, lifeCycle, detail, comment, type, 0, name, directory);
    if (guid.isEmpty() || !writeFile(directory + QStringLiteral("f.bin"), "f"))
        return QString();
    *fileId = client.AddFile(directory + QStringLiteral("f.bin"), guid);
    return guid;
}

QStringList TestServerQueries::names(const QStringList &table)
{
    QStringList result;
    for (int i = 16; i < table.size(); i += 16)
        result.append(table.at(i));
    result.sort(Qt::CaseInsensitive);
    return result;
}

void TestServerQueries::initTestCase()
{
    m_start = QDateTime::currentDateTime().addSecs(-1);
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_alice = connectClient(m_server.port(), QStringLiteral("alice"), QStringLiteral("editor"), QStringLiteral("red"));
    m_bob = connectClient(m_server.port(), QStringLiteral("bob"), QStringLiteral("editor"), QStringLiteral("blue"));
    m_viewer = connectClient(m_server.port(), QStringLiteral("vic"), QStringLiteral("viewer"), QStringLiteral("red"));
    QVERIFY(m_alice->IsConnected() && m_bob->IsConnected() && m_viewer->IsConnected());

    const QDateTime now = QDateTime::currentDateTime();
    unsigned int alphaFile = 0;
    unsigned int betaFile = 0;
    unsigned int gammaFile = 0;
    const QString alpha =
        create(*m_alice, QStringLiteral("v1.0"), now.addDays(1), QStringLiteral("one"), QStringLiteral("First COMMENT"),
               FT_AudioRecording, QStringLiteral("Alpha Report"), &alphaFile);
    const QString beta = create(*m_bob, QStringLiteral("v2.0"), now.addYears(5), QStringLiteral("two"), QString(),
                                FT_Image, QStringLiteral("beta"), &betaFile);
    const QString gamma = create(*m_alice, QStringLiteral("v1.5"), QDateTime(), QStringLiteral("three"),
                                 QStringLiteral("third"), FT_Image, QStringLiteral("Gamma 100%_done"), &gammaFile);
    QVERIFY(!alpha.isEmpty() && !beta.isEmpty() && !gamma.isEmpty());

    QVERIFY(!m_alice->RequestFile(alphaFile, alpha, LOCK_Read).isEmpty());
    QVERIFY(!m_bob->RequestFile(betaFile, beta, LOCK_Write).isEmpty());
    QSignalSpy referenced(m_viewer.get(), &KeldaClient::AddReferenceSg);
    m_viewer->AddReference(beta);
    QVERIFY(referenced.wait(Wait));
    m_alice->MoveToNasSync(gamma);
    QSignalSpy progress(m_alice.get(), &KeldaClient::queryLocationStateProgressSg);
    QTRY_COMPARE_WITH_TIMEOUT(waitForRequest(progress, m_alice->QueryLocationStateProgress(gamma)).value(1).toInt(),
                              int(LS_Central), Wait);
}

void TestServerQueries::criterion_data()
{
    QTest::addColumn<int>("criterion");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QStringList>("expected");
    const QString alpha = QStringLiteral("Alpha Report");
    const QString beta = QStringLiteral("beta");
    const QString gamma = QStringLiteral("Gamma 100%_done");
    const QDateTime now = QDateTime::currentDateTime();

    QTest::newRow("name, other case") << int(Name) << QVariant(QStringLiteral("ALPHA")) << QStringList{alpha};
    QTest::newRow("name, LIKE wildcards taken literally")
        << int(Name) << QVariant(QStringLiteral("0%_d")) << QStringList{gamma};
    QTest::newRow("name, underscore no wildcard") << int(Name) << QVariant(QStringLiteral("P_A")) << QStringList{};
    QTest::newRow("comment") << int(Comment) << QVariant(QStringLiteral("comment")) << QStringList{alpha};
    QTest::newRow("detail") << int(Detail) << QVariant(QStringLiteral("TW")) << QStringList{beta};
    QTest::newRow("version") << int(Version) << QVariant(QStringLiteral("v1.")) << QStringList{alpha, gamma};
    QTest::newRow("creator") << int(Creator) << QVariant(QStringLiteral("Bob")) << QStringList{beta};
    QTest::newRow("team") << int(Team) << QVariant(QStringLiteral("red")) << QStringList{alpha, gamma};
    QTest::newRow("one type") << int(Types) << QVariant(QVariantList{int(FT_Image)}) << QStringList{beta, gamma};
    QTest::newRow("two types") << int(Types) << QVariant(QVariantList{int(FT_AudioRecording), int(FT_Image)})
                               << QStringList{alpha, beta, gamma};
    QTest::newRow("unused type") << int(Types) << QVariant(QVariantList{int(FT_RAD)}) << QStringList{};
    QTest::newRow("central") << int(Location) << QVariant(int(LS_Central)) << QStringList{gamma};
    QTest::newRow("local") << int(Location) << QVariant(int(LS_Local)) << QStringList{alpha, beta};
    QTest::newRow("unlocked") << int(Lock) << QVariant(int(LOCK_Free)) << QStringList{gamma};
    QTest::newRow("read locked") << int(Lock) << QVariant(int(LOCK_Read)) << QStringList{alpha};
    QTest::newRow("write locked") << int(Lock) << QVariant(int(LOCK_Write)) << QStringList{beta};
    QTest::newRow("lock user") << int(LockUser) << QVariant(QStringLiteral("|alice")) << QStringList{alpha};
    QTest::newRow("referencing application")
        << int(Application) << QVariant(QStringLiteral("VIEW")) << QStringList{beta};
    QTest::newRow("life cycle from") << int(LifeCycleMin) << QVariant(now.addYears(1)) << QStringList{beta};
    // 02:30 UTC on that day is an hour the zone of this test skips.
    QTest::newRow("life cycle from a skipped local hour")
        << int(LifeCycleMin) << QVariant(QDateTime(QDate(2024, 3, 31), QTime(2, 30), Qt::UTC))
        << QStringList{alpha, beta};
    QTest::newRow("life cycle until, unset excluded")
        << int(LifeCycleMax) << QVariant(now.addDays(2)) << QStringList{alpha};
    QTest::newRow("created since start") << int(CreationMin) << QVariant(m_start) << QStringList{alpha, beta, gamma};
    QTest::newRow("created before start") << int(CreationMax) << QVariant(m_start) << QStringList{};
    QTest::newRow("backed up, never") << int(BackupMin) << QVariant(m_start) << QStringList{};
    QTest::newRow("modified before start") << int(ModificationMax) << QVariant(m_start) << QStringList{};
}

void TestServerQueries::criterion()
{
    QFETCH(int, criterion);
    QFETCH(QVariant, value);
    QFETCH(QStringList, expected);
    FileQuery query;
    switch (Criterion(criterion)) {
    case Name:
        query.SetFileGroupSearchText(value.toString());
        break;
    case Comment:
        query.SetCommentSearchText(value.toString());
        break;
    case Detail:
        query.SetDetailSearchText(value.toString());
        break;
    case Version:
        query.SetVersionSearchText(value.toString());
        break;
    case Creator:
        query.SetCreatorSearchText(value.toString());
        break;
    case Team:
        query.SetTeamMembershipSearchText(value.toString());
        break;
    case Types:
        for (const QVariant &type : value.toList())
            query.AddFileType(FileType(type.toInt()));
        break;
    case Location:
        query.SetLocationState(LocationState(value.toInt()));
        break;
    case Lock:
        query.SetLockState(LockState(value.toInt()));
        break;
    case LockUser:
        query.SetLockUser(value.toString());
        break;
    case Application:
        query.SetReferencingApplication(value.toString());
        break;
    case LifeCycleMin:
        query.SetLifeCycleTimeMin(value.toDateTime());
        break;
    case LifeCycleMax:
        query.SetLifeCycleTimeMax(value.toDateTime());
        break;
    case CreationMin:
        query.SetCreationTimeMin(value.toDateTime());
        break;
    case CreationMax:
        query.SetCreationTimeMax(value.toDateTime());
        break;
    case BackupMin:
        query.SetBackupTimeMin(value.toDateTime());
        break;
    case ModificationMax:
        query.SetModificationTimeMax(value.toDateTime());
        break;
    }
    unsigned int columns = 0;
    const QStringList table = m_viewer->QueryFiles(query, columns);
    QCOMPARE(int(m_viewer->GetError()), int(KE_NoError));
    QCOMPARE(columns, 16u);
    QCOMPARE(names(table), expected);
}

void TestServerQueries::shownCreationTimeFindsItsGroup()
{
    FileQuery byName;
    byName.SetFileGroupSearchText(QStringLiteral("beta"));
    unsigned int columns = 0;
    const QStringList table = m_viewer->QueryFiles(byName, columns);
    QCOMPARE(table.size(), 32);
    // What the user sees, typed back in as a window of one second.
    const QDateTime shown = QDateTime::fromString(table.at(16 + 4), QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    QVERIFY(shown.isValid());
    FileQuery window;
    window.SetCreationTimeMin(shown);
    window.SetCreationTimeMax(shown);
    window.SetCreatorSearchText(QStringLiteral("bob"));
    QCOMPARE(names(m_viewer->QueryFiles(window, columns)), QStringList{QStringLiteral("beta")});
}

void TestServerQueries::asynchronousQuery()
{
    FileQuery query;
    query.SetLockState(LOCK_Write);
    unsigned int columns = 0;
    QSignalSpy answered(m_viewer.get(), &KeldaClient::queryFileGroupsSg);
    const QVariantList answer = waitForRequest(answered, m_viewer->QueryFilesAsync(query, columns));
    QCOMPARE(answer.value(2).toInt(), 16);
    QCOMPARE(answer.value(3).toInt(), int(KE_NoError));
    QCOMPARE(names(answer.value(1).toStringList()), QStringList{QStringLiteral("beta")});
}

void TestServerQueries::refusesUnknownStates()
{
    FileQuery query;
    query.SetLockState(LockState(9));
    unsigned int columns = 0;
    QCOMPARE(m_viewer->QueryFiles(query, columns).size(), 16);
    QCOMPARE(int(m_viewer->GetError()), int(KE_QueryFilesFailed));
}

QTEST_GUILESS_MAIN(TestServerQueries)
#include "tst_serverqueries.moc"
