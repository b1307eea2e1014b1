#include "archiveschema.h"
#include "databaselocation.h"
#include "e2ehelpers.h"
#include "filetype.h"
#include "keldaerror.h"
#include "keldaxml.h"
#include "rawclient.h"
#include "replyfields.h"
#include "serverprocess.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

using namespace Kelda;
using E2e::element;

namespace {

// Made by keldaserver at schema version 1, before version 2 existed:
// groups with files (one deleted in between), read and write locks,
// references of several applications, a Tovin group and one moved to
// network storage, with texts beyond ASCII and quotes.
const QString kVersion1Archive = QStringLiteral(KELDA_TEST_DATA "/archive_v1.sqlite");
const QString kVersion1Postgres = QStringLiteral(KELDA_TEST_DATA "/schema_v1_postgres.sql");
const QStringList kTables{QStringLiteral("file_groups"),   QStringLiteral("group_files"),
                          QStringLiteral("group_locks"),   QStringLiteral("group_references"),
                          QStringLiteral("known_users"),   QStringLiteral("known_applications"),
                          QStringLiteral("schema_version")};

struct OldGroup
{
    QString guid, name, comment, creator, detail, team, version, tovinId, recordId;
    int type = 0, location = 0, references = 0;
    qint64 creation = 0;
    QStringList fileIds, fileNames;
};

struct OldLock
{
    QString guid, holder;
    bool write = false;
};

struct OldReference
{
    QString guid, application;
    int count = 0;
};

QString localText(qint64 utcMs)
{
    return QDateTime::fromMSecsSinceEpoch(utcMs).toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
}

// A connection of the test's own to the archive's database.
class Direct
{
public:
    explicit Direct(const DatabaseLocation &location)
        : m_name(QStringLiteral("direct-%1").arg(++s_count))
    {
        m_db = QSqlDatabase::addDatabase(location.isPostgres() ? QStringLiteral("QPSQL") : QStringLiteral("QSQLITE"),
                                         m_name);
        m_db.setDatabaseName(location.isPostgres() ? location.name : location.file);
        m_db.setHostName(location.host);
        m_db.setPort(location.port);
        m_db.setUserName(location.user);
        m_db.setPassword(location.password);
        m_db.open();
    }
    ~Direct()
    {
        m_db.close();
        m_db = QSqlDatabase();
        QSqlDatabase::removeDatabase(m_name);
    }

    QSqlDatabase &db() { return m_db; }

    QString exec(const QString &sql)
    {
        QSqlQuery query(m_db);
        return query.exec(sql) ? QString() : sql + QStringLiteral(": ") + query.lastError().text();
    }

    QList<int> versions()
    {
        QSqlQuery query(m_db);
        QList<int> found;
        if (query.exec(QStringLiteral("SELECT version FROM schema_version ORDER BY version"))) {
            while (query.next())
                found.append(query.value(0).toInt());
        }
        return found;
    }

private:
    static int s_count;
    QString m_name;
    QSqlDatabase m_db;
};

int Direct::s_count = 0;

QStringList repeated(int count, const QString &text)
{
    QStringList list;
    for (int i = 0; i < count; ++i)
        list.append(text);
    return list;
}

// Every version an upgrade from version 1 records.
QList<int> versionsFromFirst()
{
    QList<int> versions;
    for (int version = 1; version <= ArchiveSchema::Version; ++version)
        versions.append(version);
    return versions;
}

} // namespace

// A version-1 archive is upgraded in place when the server starts on it,
// on SQLite and on PostgreSQL, and keeps every group, its files, locks and
// references, and the answers of every kind of query.
class TestServerMigration : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void groupsAndFilesSurvive();
    void queriesAnswerAsBefore_data();
    void queriesAnswerAsBefore();
    void locksAndReferencesSurvive();
    void newGroupsAreFound();
    void serversStartingTogetherUpgradeOnce();
    void refusesNewerSchema();
    void auditTrailAdded();

private:
    QString placeVersion1(const QString &basePath, DatabaseLocation *location);
    QString copyRows(Direct &from, Direct &to);
    ReplyFields ask(const QString &command, const QList<QPair<QLatin1String, QString>> &children);
    QStringList found(const QString &criteria);
    QStringList matching(const std::function<bool(const OldGroup &)> &test) const;

    QTemporaryDir m_folder;
    std::vector<OldGroup> m_groups;
    std::vector<OldLock> m_locks;
    std::vector<OldReference> m_references;
    std::unique_ptr<ServerProcess> m_server;
    DatabaseLocation m_database;
    RawClient m_client;
};

void TestServerMigration::initTestCase()
{
    // The archive as version 1 left it, read straight from its tables.
    DatabaseLocation old;
    old.file = m_folder.filePath(QStringLiteral("read.sqlite"));
    QVERIFY(QFile::copy(kVersion1Archive, old.file));
    Direct reading(old);
    QSqlQuery rows(reading.db());
    QVERIFY(rows.exec(QStringLiteral("SELECT guid, name, comment, creator, detail, team, version, tovin_id, record_id,"
                                     " file_type, location_state, reference_counter, creation_time FROM file_groups")));
    while (rows.next()) {
        OldGroup group;
        group.guid = rows.value(0).toString();
        group.name = rows.value(1).toString();
        group.comment = rows.value(2).toString();
        group.creator = rows.value(3).toString();
        group.detail = rows.value(4).toString();
        group.team = rows.value(5).toString();
        group.version = rows.value(6).toString();
        group.tovinId = rows.value(7).toString();
        group.recordId = rows.value(8).toString();
        group.type = rows.value(9).toInt();
        group.location = rows.value(10).toInt();
        group.references = rows.value(11).toInt();
        group.creation = rows.value(12).toLongLong();
        QSqlQuery files(reading.db());
        QVERIFY(files.exec(QStringLiteral("SELECT file_id, name FROM group_files WHERE guid = '%1' ORDER BY file_id")
                               .arg(group.guid)));
        while (files.next()) {
            group.fileIds.append(files.value(0).toString());
            group.fileNames.append(files.value(1).toString());
        }
        m_groups.push_back(group);
    }
    QVERIFY(rows.exec(QStringLiteral("SELECT guid, holder, write_lock FROM group_locks")));
    while (rows.next())
        m_locks.push_back({rows.value(0).toString(), rows.value(1).toString(), rows.value(2).toInt() != 0});
    QVERIFY(rows.exec(QStringLiteral("SELECT guid, application, ref_count FROM group_references")));
    while (rows.next())
        m_references.push_back({rows.value(0).toString(), rows.value(1).toString(), rows.value(2).toInt()});
    QVERIFY(m_groups.size() > 5 && m_locks.size() > 2 && m_references.size() > 2);
    rows.finish();

    m_server = std::make_unique<ServerProcess>(m_folder.filePath(QStringLiteral("archive")));
    // The archive's files are not on this machine: the background check
    // would find them missing before they are looked at.
    m_server->setExtraArguments({QStringLiteral("--verify-interval"), QStringLiteral("0")});
    const QString error = placeVersion1(m_server->basePath(), &m_database);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
    QVERIFY(m_client.connectTo(m_server->port()));
    Direct after(m_database);
    QCOMPARE(after.versions(), versionsFromFirst());
}

QString TestServerMigration::copyRows(Direct &from, Direct &to)
{
    for (const QString &table : kTables) {
        QSqlQuery rows(from.db());
        if (!rows.exec(QStringLiteral("SELECT * FROM ") + table))
            return rows.lastError().text();
        QSqlQuery insert(to.db());
        while (rows.next()) {
            const QSqlRecord record = rows.record();
            QStringList names;
            QStringList marks;
            for (int i = 0; i < record.count(); ++i) {
                names.append(record.fieldName(i));
                marks.append(QStringLiteral("?"));
            }
            insert.prepare(QStringLiteral("INSERT INTO %1 (%2) VALUES (%3)")
                               .arg(table, names.join(QLatin1Char(',')), marks.join(QLatin1Char(','))));
            for (int i = 0; i < record.count(); ++i)
                insert.addBindValue(record.value(i));
            if (!insert.exec())
                return table + QStringLiteral(": ") + insert.lastError().text();
        }
    }
    return QString();
}

QString TestServerMigration::placeVersion1(const QString &basePath, DatabaseLocation *location)
{
    QDir().mkpath(basePath);
    location->file = QDir(basePath).filePath(QStringLiteral("keldaserver.sqlite"));
    if (!ServerProcess::usesPostgres())
        return QFile::copy(kVersion1Archive, location->file) ? QString() : QStringLiteral("cannot copy the archive");
    // PostgreSQL: version 1's statements, then the rows of the same archive.
    QString error;
    if (!DatabaseLocation::parse(ServerProcess::postgresUrl(basePath, &error), location, &error))
        return error;
    QFile statements(kVersion1Postgres);
    if (!statements.open(QIODevice::ReadOnly))
        return statements.errorString();
    Direct target(*location);
    for (const QByteArray &line : statements.readAll().split('\n')) {
        if (!line.isEmpty() && !line.startsWith("--") && !(error = target.exec(QString::fromUtf8(line))).isEmpty())
            return error;
    }
    DatabaseLocation source;
    source.file = m_folder.filePath(QStringLiteral("source-%1.sqlite").arg(QDateTime::currentMSecsSinceEpoch()));
    if (!QFile::copy(kVersion1Archive, source.file))
        return QStringLiteral("cannot copy the archive");
    Direct from(source);
    return copyRows(from, target);
}

ReplyFields TestServerMigration::ask(const QString &command, const QList<QPair<QLatin1String, QString>> &children)
{
    QString xml;
    for (const auto &child : children)
        xml += element(child.first, child.second);
    return m_client.ask(command, xml);
}

QStringList TestServerMigration::found(const QString &criteria)
{
    const ReplyFields reply = m_client.ask(Tag::QueryFileGroups, criteria);
    QStringList guids = reply.all(Tag::Guid);
    guids.sort();
    return reply.error == KE_NoError ? guids : QStringList{QStringLiteral("error %1").arg(reply.error)};
}

QStringList TestServerMigration::matching(const std::function<bool(const OldGroup &)> &test) const
{
    QStringList guids;
    for (const OldGroup &group : m_groups) {
        if (test(group))
            guids.append(group.guid);
    }
    guids.sort();
    return guids;
}

void TestServerMigration::groupsAndFilesSurvive()
{
    for (const OldGroup &group : m_groups) {
        const ReplyFields meta = ask(Tag::QueryMetaData, {{Tag::Guid, group.guid}});
        QCOMPARE(meta.error, int(KE_NoError));
        const std::pair<QLatin1String, QString> expected[] = {{Tag::FileGroupName, group.name},
                                                              {Tag::Comment, group.comment},
                                                              {Tag::Creator, group.creator},
                                                              {Tag::Detail, group.detail},
                                                              {Tag::TeamMembership, group.team},
                                                              {Tag::Version, group.version},
                                                              {Tag::FileType, QString::number(group.type)},
                                                              {Tag::LocationState, QString::number(group.location)},
                                                              {Tag::ReferenceCounter,
                                                               QString::number(group.references)},
                                                              {Tag::CreationTime, localText(group.creation)}};
        for (const auto &field : expected)
            QCOMPARE(meta.value(field.first), field.second);
        const ReplyFields files = ask(Tag::GetFileList, {{Tag::Guid, group.guid}});
        QCOMPARE(files.all(Tag::FileId), group.fileIds);
        QCOMPARE(files.all(Tag::FileName), group.fileNames);
        // No digest yet: each file awaits its first check.
        const ReplyFields checks = ask(Tag::GetFileChecksums, {{Tag::Guid, group.guid}});
        QCOMPARE(checks.error, int(KE_NoError));
        QCOMPARE(checks.all(Tag::FileId), group.fileIds);
        QCOMPARE(checks.all(Tag::State), repeated(group.fileIds.size(), QStringLiteral("unverified")));
        QVERIFY(checks.all(Tag::Digest).join(QString()).isEmpty());
        if (!group.tovinId.isEmpty())
            QCOMPARE(ask(Tag::GetTovinFilegroupGuid, {{Tag::Guid, group.tovinId}, {Tag::FileId, group.recordId}})
                         .value(Tag::Guid),
                     group.guid);
    }
}

void TestServerMigration::queriesAnswerAsBefore_data()
{
    // Each criterion with what version 1's rows say it must find.
    QTest::addColumn<QString>("criteria");
    QTest::addColumn<QStringList>("expected");
    const auto contains = [](const QString &text, const QString &part) {
        return text.toCaseFolded().contains(part.toCaseFolded());
    };
    for (const OldGroup &group : m_groups) {
        for (const QString &part : {group.name.mid(1, 5).toUpper(), group.name.left(2)}) {
            QTest::addRow("name %s", qPrintable(part))
                << element(Tag::FileGroupNameSearchText, part)
                << matching([&](const OldGroup &g) { return contains(g.name, part); });
        }
        if (!group.comment.isEmpty())
            QTest::addRow("comment of %s", qPrintable(group.name))
                << element(Tag::CommentSearchText, group.comment.right(4))
                << matching([&](const OldGroup &g) { return contains(g.comment, group.comment.right(4)); });
        QTest::addRow("type of %s", qPrintable(group.name))
            << QStringLiteral("<m:FileTypeList>%1</m:FileTypeList>")
                   .arg(element(Tag::FileType, QString::number(group.type)))
            << matching([&](const OldGroup &g) { return g.type == group.type; });
    }
    for (const OldLock &lock : m_locks) {
        const QString user = lock.holder.section(QLatin1Char('|'), 2).toUpper();
        QTest::addRow("lock user %s", qPrintable(user))
            << element(Tag::LockUser, user) << matching([&](const OldGroup &g) {
                   return std::any_of(m_locks.begin(), m_locks.end(),
                                      [&](const OldLock &l) { return l.guid == g.guid && contains(l.holder, user); });
               });
    }
    for (const OldReference &reference : m_references) {
        const QString part = reference.application.mid(1, 4);
        QTest::addRow("referenced by %s", qPrintable(part))
            << element(Tag::ReferencingApplication, part) << matching([&](const OldGroup &g) {
                   return std::any_of(m_references.begin(), m_references.end(), [&](const OldReference &r) {
                       return r.guid == g.guid && contains(r.application, part);
                   });
               });
    }
    const auto locked = [this](const OldGroup &g, bool write) {
        return std::any_of(m_locks.begin(), m_locks.end(),
                           [&](const OldLock &l) { return l.guid == g.guid && l.write == write; });
    };
    QTest::newRow("write locked") << element(Tag::LockState, QString::number(LOCK_Write))
                                  << matching([&](const OldGroup &g) { return locked(g, true); });
    QTest::newRow("read locked") << element(Tag::LockState, QString::number(LOCK_Read))
                                 << matching([&](const OldGroup &g) { return locked(g, false) && !locked(g, true); });
    QTest::newRow("central") << element(Tag::LocationState, QString::number(LS_Central))
                             << matching([](const OldGroup &g) { return g.location == LS_Central; });
}

void TestServerMigration::queriesAnswerAsBefore()
{
    QFETCH(QString, criteria);
    QFETCH(QStringList, expected);
    QCOMPARE(found(criteria), expected);
}

void TestServerMigration::locksAndReferencesSurvive()
{
    for (const OldLock &lock : m_locks) {
        const bool written = std::any_of(m_locks.begin(), m_locks.end(),
                                         [&](const OldLock &l) { return l.guid == lock.guid && l.write; });
        QCOMPARE(ask(Tag::DeleteFileGroup, {{Tag::Guid, lock.guid}}).error,
                 int(written ? KE_FileGroupWriteLocked : KE_FileGroupLocked));
    }
    for (const OldLock &lock : m_locks) {
        QCOMPARE(ask(Tag::CloseFile, {{Tag::Guid, lock.guid}, {Tag::UserName, lock.holder}}).error, int(KE_NoError));
        QCOMPARE(ask(Tag::CloseFile, {{Tag::Guid, lock.guid}, {Tag::UserName, lock.holder}}).error,
                 int(KE_DeleteLockFailed));
    }
    QCOMPARE(found(element(Tag::LockState, QString::number(LOCK_Free))),
             matching([](const OldGroup &) { return true; }));
    for (const OldReference &reference : m_references) {
        const QList<QPair<QLatin1String, QString>> fields{{Tag::Guid, reference.guid},
                                                          {Tag::Application, reference.application}};
        for (int i = 0; i < reference.count; ++i)
            QCOMPARE(ask(Tag::RemoveReference, fields).error, int(KE_NoError));
        QCOMPARE(ask(Tag::RemoveReference, fields).error, int(KE_DeleteReferenceFailed));
    }
}

void TestServerMigration::newGroupsAreFound()
{
    const QString guid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    QCOMPARE(ask(Tag::CreateFileGroup,
                 {{Tag::Guid, guid},
                  {Tag::FileGroupName, QStringLiteral("Nach dem Umzug")},
                  {Tag::FileType, QString::number(FT_Image)}})
                 .error,
             int(KE_NoError));
    QCOMPARE(found(element(Tag::FileGroupNameSearchText, QStringLiteral("DEM UMZ"))), QStringList{guid});
}

void TestServerMigration::serversStartingTogetherUpgradeOnce()
{
    if (!ServerProcess::usesPostgres())
        QSKIP("One SQLite file has one server");
    const QString base = m_folder.filePath(QStringLiteral("together"));
    DatabaseLocation location;
    const QString error = placeVersion1(base, &location);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    ServerProcess first(base);
    ServerProcess second(base);
    QVERIFY2(first.launch() && second.launch(), qPrintable(first.errorString() + second.errorString()));
    QVERIFY2(first.waitUntilReady(), qPrintable(first.errorString()));
    QVERIFY2(second.waitUntilReady(), qPrintable(second.errorString()));
    Direct after(location);
    QCOMPARE(after.versions(), versionsFromFirst());
}

void TestServerMigration::refusesNewerSchema()
{
    const QString base = m_folder.filePath(QStringLiteral("newer"));
    DatabaseLocation location;
    const QString error = placeVersion1(base, &location);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    {
        Direct newer(location);
        QCOMPARE(newer.exec(QStringLiteral("INSERT INTO schema_version (version) VALUES (%1)")
                                .arg(ArchiveSchema::Version + 1)),
                 QString());
    }
    ServerProcess server(base);
    QVERIFY(!server.start());
    server.stop();
    QCOMPARE(server.exitCode(), 70);
    Direct after(location);
    QCOMPARE(after.versions(), (QList<int>{1, ArchiveSchema::Version + 1}));
}

void TestServerMigration::auditTrailAdded()
{
    // Reading the trail of an archive from before it upgrades nothing.
    const QString untouched = m_folder.filePath(QStringLiteral("untouched"));
    DatabaseLocation old;
    const QString error = placeVersion1(untouched, &old);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QJsonArray records;
    QCOMPARE(E2e::audit(untouched, {}, &records), 70);
    QCOMPARE(Direct(old).versions(), QList<int>{1});

    // The upgraded one records changes from then on.
    const QString guid = m_groups.front().guid;
    const QString application = QStringLiteral("auditor");
    QCOMPARE(ask(Tag::AddReference, {{Tag::Guid, guid}, {Tag::Application, application}}).error, int(KE_NoError));
    QCOMPARE(E2e::audit(m_server->basePath(), {}, &records), 0);
    int recorded = 0;
    for (const QJsonValue &value : qAsConst(records)) {
        const QJsonObject record = value.toObject();
        if (record.value(QStringLiteral("application")).toString() != application)
            continue;
        ++recorded;
        QCOMPARE(record.value(QStringLiteral("command")).toString(), QString(Tag::AddReference));
        QCOMPARE(record.value(QStringLiteral("guid")).toString(), guid);
        QCOMPARE(record.value(QStringLiteral("result")).toInt(), int(KE_NoError));
    }
    QCOMPARE(recorded, 1);
}

QTEST_GUILESS_MAIN(TestServerMigration)
#include "tst_servermigration.moc"
