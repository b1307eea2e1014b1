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

// Groups whose all-groups answer is three times what a spool keeps in
// memory.
constexpr int kGroups = 48;
constexpr int kCommentLength = 64 * 1024;

// An archive whose queries are answered by one engine that builds every
// reply whole and by one that spools them.
class Archive
{
public:
    explicit Archive(const DatabaseLocation &database)
        : m_layout(m_base.path(), m_base.filePath(QStringLiteral("nas")), m_base.filePath(QStringLiteral("exchange")))
        , m_whole(m_store, m_layout)
        , m_spooling(m_store, m_layout)
    {
        m_store.setInstanceId(QStringLiteral("tests"));
        m_opened = m_store.open(database);
    }

    bool isOpen() const { return m_opened; }
    ArchiveStore &store() { return m_store; }

    bool fill()
    {
        m_store.begin();
        for (int i = 0; i < kGroups; ++i) {
            const Fields fields{{Tag::Guid, {QUuid::createUuid().toString(QUuid::WithoutBraces)}},
                                {Tag::FileGroupName, {QStringLiteral("group %1").arg(i)}},
                                {Tag::FileType, {QString::number(FT_Image)}},
                                {Tag::Comment, {QString(kCommentLength, QLatin1Char('a' + i % 26))}}};
            RequestOutcome outcome;
            if (!m_whole.handle(request(Tag::CreateFileGroup, fields), RequestOrigin(), outcome))
                return false;
        }
        return m_store.commit();
    }

    void spoolInto(const QString &folder, qint64 maxBytes, qint64 maxAnswer)
    {
        m_folder = std::make_shared<SpoolFolder>(maxBytes, maxAnswer);
        QString error;
        QVERIFY2(m_folder->open(folder, &error), qPrintable(error));
        m_spooling.setSpoolFolder(m_folder);
    }
    const SpoolFolder &folder() const { return *m_folder; }

    RequestOutcome query(bool spooling, const QString &name)
    {
        RequestOutcome outcome;
        (spooling ? m_spooling : m_whole)
            .handle(request(Tag::QueryFileGroups, {{Tag::FileGroupNameSearchText, {name}}}), RequestOrigin(), outcome);
        return outcome;
    }

private:
    using Fields = QHash<QString, QStringList>;

    static Request request(const QString &command, const Fields &fields)
    {
        Request request;
        request.command = command;
        request.requestId = QStringLiteral("spooled");
        request.fields = fields;
        return request;
    }

    QTemporaryDir m_base;
    StorageLayout m_layout;
    ArchiveStore m_store;
    ArchiveEngine m_whole;
    ArchiveEngine m_spooling;
    std::shared_ptr<SpoolFolder> m_folder;
    bool m_opened = false;
};

QByteArray readAll(AnswerSpool &spool)
{
    QByteArray all;
    while (spool.remaining() > 0) {
        const QByteArray piece = spool.read(100 * 1000);
        if (piece.isEmpty())
            break;
        all += piece;
    }
    return all;
}

} // namespace

// Query answers written to a spool as their rows are read, in process
// against real stores: the same bytes as a reply built whole, and the
// limits of one answer and of the folder.
class TestAnswerSpool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void sameBytes_data();
    void sameBytes();
    void limits_data();
    void limits();

private:
    Archive *archive(const QString &backend);

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
        QVERIFY2(archive.second->isOpen(), qPrintable(archive.second->store().errorString()));
        QVERIFY(archive.second->fill());
    }
}

Archive *TestAnswerSpool::archive(const QString &backend)
{
    const auto found = m_archives.find(backend);
    return found == m_archives.end() ? nullptr : found->second.get();
}

void TestAnswerSpool::sameBytes_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("groups");
    QTest::addColumn<bool>("onDisk");
    for (const QString &backend : {QStringLiteral("sqlite"), QStringLiteral("postgresql")}) {
        QTest::addRow("%s: all groups, on disk", qPrintable(backend)) << backend << QString() << kGroups << true;
        QTest::addRow("%s: one group, in memory", qPrintable(backend))
            << backend << QStringLiteral("group 17") << 1 << false;
        QTest::addRow("%s: none", qPrintable(backend)) << backend << QStringLiteral("nothing") << 0 << false;
    }
}

void TestAnswerSpool::sameBytes()
{
    QFETCH(QString, backend);
    QFETCH(QString, name);
    QFETCH(int, groups);
    QFETCH(bool, onDisk);
    Archive *const queried = archive(backend);
    if (!queried)
        QSKIP(qPrintable(m_postgresMissing));
    QTemporaryDir spool;
    queried->spoolInto(spool.path(), qint64(1) << 30, qint64(1) << 30);
    const RequestOutcome whole = queried->query(false, name);
    RequestOutcome spooled = queried->query(true, name);
    QCOMPARE(bool(spooled.spool), onDisk);
    const QByteArray bytes = onDisk ? readAll(*spooled.spool) : spooled.reply;
    QCOMPARE(bytes, whole.reply);
    const ReplyFields fields = ReplyFields::read(bytes);
    QCOMPARE(fields.error, int(KE_NoError));
    QCOMPARE(fields.all(Tag::FileGroupName).size(), groups);
    spooled = RequestOutcome();
    QCOMPARE(queried->folder().used(), qint64(0));
}

void TestAnswerSpool::limits_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<qint64>("maxBytes");
    QTest::addColumn<qint64>("maxAnswer");
    QTest::addColumn<QString>("why");
    const qint64 large = qint64(1) << 30;
    const qint64 answer = qint64(kGroups) * kCommentLength;
    for (const QString &backend : {QStringLiteral("sqlite"), QStringLiteral("postgresql")}) {
        QTest::addRow("%s: answer too large", qPrintable(backend))
            << backend << large << answer / 2 << QStringLiteral("--max-answer");
        QTest::addRow("%s: no room in the folder", qPrintable(backend))
            << backend << answer / 2 << large << QStringLiteral("--max-spool");
    }
}

void TestAnswerSpool::limits()
{
    QFETCH(QString, backend);
    QFETCH(qint64, maxBytes);
    QFETCH(qint64, maxAnswer);
    QFETCH(QString, why);
    Archive *const queried = archive(backend);
    if (!queried)
        QSKIP(qPrintable(m_postgresMissing));
    QTemporaryDir spool;
    queried->spoolInto(spool.path(), maxBytes, maxAnswer);
    const RequestOutcome refused = queried->query(true, QString());
    QVERIFY(!refused.spool);
    const ReplyFields fields = ReplyFields::read(refused.reply);
    QCOMPARE(fields.error, int(KE_QueryFilesFailed));
    QVERIFY2(fields.value(Tag::ErrorString).contains(why), qPrintable(fields.value(Tag::ErrorString)));
    QCOMPARE(queried->folder().used(), qint64(0));
    // The search given up halfway leaves its connection ready for the next.
    QCOMPARE(ReplyFields::read(queried->query(true, QStringLiteral("group 17")).reply).all(Tag::FileGroupName).size(),
             1);
}

QTEST_GUILESS_MAIN(TestAnswerSpool)
#include "tst_answerspool.moc"
