#include "answerspool.h"
#include "archiveengine.h"
#include "keldaxml.h"
#include "postgrescluster.h"
#include "replyfields.h"
#include "spoolfolder.h"

#include <QTemporaryDir>
#include <QtTest>

#include <map>
#include <memory>

using namespace Kelda;

namespace {

// The answer of all groups is three times what a spool keeps in memory.
constexpr int kGroups = 48;
constexpr int kCommentLength = 64 * 1024;
constexpr qint64 kAnswer = qint64(kGroups) * kCommentLength;
constexpr qint64 kRoomy = qint64(1) << 30;

Request request(const QString &command, const QHash<QString, QStringList> &fields)
{
    Request request;
    request.command = command;
    request.requestId = QStringLiteral("spooled");
    request.fields = fields;
    return request;
}

Request query(const QString &name)
{
    return request(Tag::QueryFileGroups, {{Tag::FileGroupNameSearchText, {name}}});
}

// A store of kGroups groups with long comments below a folder of its own.
struct Archive
{
    explicit Archive(const DatabaseLocation &database)
        : layout(base.path(), base.filePath(QStringLiteral("nas")), base.filePath(QStringLiteral("exchange")))
    {
        store.setInstanceId(QStringLiteral("tests"));
        opened = store.open(database);
    }

    QTemporaryDir base;
    StorageLayout layout;
    ArchiveStore store;
    bool opened = false;
};

} // namespace

// Query answers written to a spool as their rows are read, in process
// against real stores: the bytes of a reply built whole, and the limits of
// one answer and of the folder, after which the store answers on.
class TestAnswerSpool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void answer_data();
    void answer();

private:
    QTemporaryDir m_folder;
    std::map<QString, std::unique_ptr<Archive>> m_archives;
    QString m_postgresMissing;
};

void TestAnswerSpool::initTestCase()
{
    DatabaseLocation sqlite;
    sqlite.file = m_folder.filePath(QStringLiteral("spool.sqlite"));
    m_archives[QStringLiteral("sqlite")] = std::make_unique<Archive>(sqlite);
    QString error;
    PostgresCluster *cluster = PostgresCluster::binDirectory().isEmpty() ? nullptr : PostgresCluster::shared(&error);
    DatabaseLocation postgres;
    if (cluster && cluster->createDatabase(QStringLiteral("spool"), &error) &&
        DatabaseLocation::parse(cluster->url(QStringLiteral("spool")), &postgres, &error))
        m_archives[QStringLiteral("postgresql")] = std::make_unique<Archive>(postgres);
    else
        m_postgresMissing = cluster ? error : PostgresCluster::missingText();
    if (!m_postgresMissing.isEmpty() && PostgresCluster::required())
        QFAIL(qPrintable(m_postgresMissing));
    for (auto &archive : m_archives) {
        QVERIFY2(archive.second->opened, qPrintable(archive.second->store.errorString()));
        ArchiveEngine engine(archive.second->store, archive.second->layout);
        archive.second->store.begin();
        for (int i = 0; i < kGroups; ++i) {
            RequestOutcome created;
            QVERIFY(engine.handle(request(Tag::CreateFileGroup,
                                          {{Tag::Guid, {QUuid::createUuid().toString(QUuid::WithoutBraces)}},
                                           {Tag::FileGroupName, {QStringLiteral("group %1").arg(i)}},
                                           {Tag::FileType, {QString::number(FT_Image)}},
                                           {Tag::Comment, {QString(kCommentLength, QLatin1Char('a' + i % 26))}}}),
                                  RequestOrigin(), created));
        }
        QVERIFY(archive.second->store.commit());
    }
}

void TestAnswerSpool::answer_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QString>("name");
    QTest::addColumn<qint64>("maxBytes");
    QTest::addColumn<qint64>("maxAnswer");
    QTest::addColumn<int>("groups"); // -1: refused with code 19
    QTest::addColumn<QString>("why");
    for (const QString &backend : {QStringLiteral("sqlite"), QStringLiteral("postgresql")}) {
        const QByteArray name = backend.toLatin1();
        const char *const at = name.constData();
        QTest::addRow("%s: all groups, on disk", at)
            << backend << QString() << kRoomy << kRoomy << kGroups << QString();
        QTest::addRow("%s: one group, in memory", at)
            << backend << QStringLiteral("group 17") << kRoomy << kRoomy << 1 << QString();
        QTest::addRow("%s: answer too large", at)
            << backend << QString() << kRoomy << kAnswer / 2 << -1 << QStringLiteral("--max-answer");
        QTest::addRow("%s: no room in the folder", at)
            << backend << QString() << kAnswer / 2 << kRoomy << -1 << QStringLiteral("--max-spool");
    }
}

void TestAnswerSpool::answer()
{
    QFETCH(QString, backend);
    QFETCH(QString, name);
    QFETCH(qint64, maxBytes);
    QFETCH(qint64, maxAnswer);
    QFETCH(int, groups);
    QFETCH(QString, why);
    const auto archive = m_archives.find(backend);
    if (archive == m_archives.end())
        QSKIP(qPrintable(m_postgresMissing));
    ArchiveStore &store = archive->second->store;
    const StorageLayout &layout = archive->second->layout;
    QTemporaryDir spool;
    auto folder = std::make_shared<SpoolFolder>(maxBytes, maxAnswer);
    QString error;
    QVERIFY2(folder->open(spool.path(), &error), qPrintable(error));
    ArchiveEngine whole(store, layout);
    ArchiveEngine spooling(store, layout);
    spooling.setSpoolFolder(folder);

    RequestOutcome built;
    whole.handle(query(name), RequestOrigin(), built);
    RequestOutcome spooled;
    spooling.handle(query(name), RequestOrigin(), spooled);
    const QByteArray bytes = spooled.spool ? spooled.spool->read(spooled.spool->size()) : spooled.reply;
    const ReplyFields fields = ReplyFields::read(bytes);
    if (groups < 0) {
        QVERIFY(!spooled.spool);
        QCOMPARE(fields.error, int(KE_QueryFilesFailed));
        QVERIFY2(fields.value(Tag::ErrorString).contains(why), qPrintable(fields.value(Tag::ErrorString)));
        // The search given up halfway leaves its connection to the next.
        RequestOutcome next;
        spooling.handle(query(QStringLiteral("group 17")), RequestOrigin(), next);
        QCOMPARE(ReplyFields::read(next.reply).all(Tag::FileGroupName).size(), 1);
    } else {
        QCOMPARE(bool(spooled.spool), groups == kGroups);
        QCOMPARE(bytes, built.reply);
        QCOMPARE(fields.all(Tag::FileGroupName).size(), groups);
    }
    spooled = RequestOutcome();
    QCOMPARE(folder->used(), qint64(0));
}

QTEST_GUILESS_MAIN(TestAnswerSpool)
#include "tst_answerspool.moc"
