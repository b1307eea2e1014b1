#include "archiveschema.h"

#include "archivedatabase.h"
#include "filetype.h"
#include "requestfailure.h"

#include <trace.h>

#include <QElapsedTimer>

#include <iterator>
#include <vector>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaserver/archiveschema";

// The columns of a group beside its key, alike in versions 1 and 2:
// version 2 changed only the key. History, never to be edited.
const QString kGroupsBesideKey =
    QStringLiteral(" name TEXT NOT NULL, name_key TEXT NOT NULL,"
                   " file_type INTEGER NOT NULL,"
                   " location_state INTEGER NOT NULL,"
                   " backup_time BIGINT, creation_time BIGINT, modification_time BIGINT, life_cycle BIGINT,"
                   " comment TEXT NOT NULL, comment_key TEXT NOT NULL,"
                   " creator TEXT NOT NULL, creator_key TEXT NOT NULL,"
                   " detail TEXT NOT NULL, detail_key TEXT NOT NULL,"
                   " team TEXT NOT NULL, team_key TEXT NOT NULL,"
                   " version TEXT NOT NULL, version_key TEXT NOT NULL,"
                   " reserved_storage BIGINT NOT NULL,"
                   " reference_counter INTEGER NOT NULL,"
                   " path TEXT NOT NULL,"
                   " tovin_id TEXT, record_id TEXT,"
                   " copy_progress DOUBLE PRECISION NOT NULL,"
                   " fixed_result_xml BYTEA NOT NULL");

// Version 1, as its build wrote it: history, never to be edited.
const QStringList kVersion1{
    QStringLiteral("CREATE TABLE IF NOT EXISTS file_groups ( guid VARCHAR(64) PRIMARY KEY,") + kGroupsBesideKey +
        QLatin1Char(')'),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_creation ON file_groups (creation_time, guid)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_modification ON file_groups (modification_time)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_life_cycle ON file_groups (life_cycle)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_backup ON file_groups (backup_time)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_type ON file_groups (file_type)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_location ON file_groups (location_state)"),
    QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_tovin ON file_groups (tovin_id, record_id)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS group_files ("
                   " guid VARCHAR(64) NOT NULL, file_id INTEGER NOT NULL, name TEXT NOT NULL,"
                   " PRIMARY KEY (guid, file_id))"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS group_locks ("
                   " guid VARCHAR(64) NOT NULL, holder TEXT NOT NULL, holder_key TEXT NOT NULL,"
                   " write_lock INTEGER NOT NULL, PRIMARY KEY (guid, holder))"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS group_references ("
                   " guid VARCHAR(64) NOT NULL, application TEXT NOT NULL, application_key TEXT NOT NULL,"
                   " ref_count INTEGER NOT NULL, PRIMARY KEY (guid, application))"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS known_users (name TEXT PRIMARY KEY)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS known_applications (name TEXT PRIMARY KEY)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS commit_marks (server_id TEXT PRIMARY KEY, token BIGINT NOT NULL)"),
    QStringLiteral("CREATE TABLE IF NOT EXISTS move_claims (guid VARCHAR(64) PRIMARY KEY, owner TEXT NOT NULL)"),
};

// Version 2 on SQLite: the tables with text criteria get an integer key
// that stays put (an implicit rowid may change on VACUUM), for their FTS5
// indexes to name rows by.
const QString kGroupsVersion2 = QStringLiteral("guid VARCHAR(64) NOT NULL UNIQUE,") + kGroupsBesideKey;
const QString kGroupsColumns = QStringLiteral(
    "guid, name, name_key, file_type, location_state, backup_time, creation_time, modification_time, life_cycle,"
    " comment, comment_key, creator, creator_key, detail, detail_key, team, team_key, version, version_key,"
    " reserved_storage, reference_counter, path, tovin_id, record_id, copy_progress, fixed_result_xml");
const QStringList kGroupsKeys{QStringLiteral("name_key"),   QStringLiteral("comment_key"),
                              QStringLiteral("detail_key"), QStringLiteral("creator_key"),
                              QStringLiteral("team_key"),   QStringLiteral("version_key")};
const QString kLocksVersion2 = QStringLiteral(
    "guid VARCHAR(64) NOT NULL, holder TEXT NOT NULL, holder_key TEXT NOT NULL, write_lock INTEGER NOT NULL,"
    " UNIQUE (guid, holder)");
const QString kReferencesVersion2 =
    QStringLiteral("guid VARCHAR(64) NOT NULL, application TEXT NOT NULL, application_key TEXT NOT NULL,"
                   " ref_count INTEGER NOT NULL, UNIQUE (guid, application)");

// Lock state criteria start from the few locked groups.
const QString kWriteLocksIndex =
    QStringLiteral("CREATE INDEX IF NOT EXISTS group_locks_write ON group_locks (write_lock, guid)");

// Version 3: what each file was when it was added, and what its latest
// reading found. Files of earlier versions have no digest yet: they are
// "unverified" until they are first read.
const QStringList kFileDigests{
    QStringLiteral("ALTER TABLE group_files ADD COLUMN size BIGINT"),
    QStringLiteral("ALTER TABLE group_files ADD COLUMN algorithm TEXT"),
    QStringLiteral("ALTER TABLE group_files ADD COLUMN digest TEXT"),
    QStringLiteral("ALTER TABLE group_files ADD COLUMN checked_at BIGINT"),
    QStringLiteral("ALTER TABLE group_files ADD COLUMN state TEXT NOT NULL DEFAULT 'unverified'"),
    // The background check takes the files read longest ago first.
    QStringLiteral("CREATE INDEX IF NOT EXISTS group_files_checked ON group_files (checked_at)"),
};

// The columns of files and locks, and (version 7, on SQLite) their tables
// kept in the b-tree of their key.
const QString kFilesColumns = QStringLiteral("guid, file_id, name, size, algorithm, digest, checked_at, state");
const QString kFilesByKey = QStringLiteral(
    "guid VARCHAR(64) NOT NULL, file_id INTEGER NOT NULL, name TEXT NOT NULL, size BIGINT, algorithm TEXT,"
    " digest TEXT, checked_at BIGINT, state TEXT NOT NULL DEFAULT 'unverified', PRIMARY KEY (guid, file_id)");
const QString kLocksColumns = QStringLiteral("guid, holder, holder_key, write_lock");
const QString kLocksByKey = QStringLiteral(
    "guid VARCHAR(64) NOT NULL, holder TEXT NOT NULL, holder_key TEXT NOT NULL, write_lock INTEGER NOT NULL,"
    " PRIMARY KEY (guid, holder)");

// The rows of the index of location states (version 8).
const QString kIndexedLocations = QStringLiteral("location_state <> %1").arg(int(LS_Local));

// SQLite's trigram indexes and what they index.
struct TextIndex
{
    QString table;
    const QString &index;
    QStringList columns;
    QString detail;
};

const std::vector<TextIndex> &textIndexes()
{
    // A whole group's keys in one index: a column filter picks the
    // criterion, and knowing only the columns a trigram occurs in (not
    // where) keeps it small; the exact test follows anyway.
    static const std::vector<TextIndex> indexes{
        {QStringLiteral("file_groups"), ArchiveSchema::GroupTextIndex, kGroupsKeys, QStringLiteral("column")},
        {QStringLiteral("group_locks"),
         ArchiveSchema::LockTextIndex,
         {QStringLiteral("holder_key")},
         QStringLiteral("none")},
        {QStringLiteral("group_references"),
         ArchiveSchema::ReferenceTextIndex,
         {QStringLiteral("application_key")},
         QStringLiteral("none")},
    };
    return indexes;
}

// From version 5 on SQLite: locks are few and held briefly, so a search
// reads them all, and an index of them cost every lock and release a write
// of its own.
const std::vector<TextIndex> &deferredTextIndexes()
{
    static const std::vector<TextIndex> indexes = [] {
        std::vector<TextIndex> kept;
        for (const TextIndex &index : textIndexes()) {
            if (&index.index != &ArchiveSchema::LockTextIndex)
                kept.push_back(index);
        }
        return kept;
    }();
    return indexes;
}

// "new.a, new.b" for a trigger's row values.
QString rowValues(const QStringList &columns, QLatin1String row)
{
    QStringList values;
    for (const QString &column : columns)
        values.append(row + QLatin1Char('.') + column);
    return values.join(QLatin1String(", "));
}

QString pendingTable(const TextIndex &index)
{
    return ArchiveSchema::pendingTextTable(index.index);
}

// Servers wait this long for another's upgrade of a large archive.
const QString kUpgradeLockTimeout = QStringLiteral("SET LOCAL lock_timeout = '30min'");

} // namespace

const QString ArchiveSchema::GroupTextIndex = QStringLiteral("file_groups_text");
const QString ArchiveSchema::LockTextIndex = QStringLiteral("group_locks_text");
const QString ArchiveSchema::ReferenceTextIndex = QStringLiteral("group_references_text");
const QString ArchiveSchema::AuditTable = QStringLiteral("audit_records");
const QString ArchiveSchema::IndexedDirectories = QStringLiteral("single_guid_directory IS NULL");

// Steps[v] brings version v to v + 1.
const ArchiveSchema::Step ArchiveSchema::Steps[] = {
    &ArchiveSchema::createVersion1,
    &ArchiveSchema::indexSearchCriteria,
    &ArchiveSchema::recordFileDigests,
    &ArchiveSchema::createAuditTrail,
    &ArchiveSchema::deferTextIndexUpdates,
    &ArchiveSchema::dropPerChangeIndexes,
    &ArchiveSchema::writeFewerPagesPerChange,
    &ArchiveSchema::indexMovedGroupsOnly,
    &ArchiveSchema::indexDirectoriesNamingOtherGuids,
};

ArchiveSchema::ArchiveSchema(ArchiveDatabase &database)
    : m_db(database)
{ }

void ArchiveSchema::run(const QString &sql)
{
    m_db.execute(sql, KE_DatabaseNotAvailable);
}

QString ArchiveSchema::pathColumn(bool postgres)
{
    // PostgreSQL would otherwise order by the database's language.
    return postgres ? QStringLiteral("path COLLATE \"C\"") : QStringLiteral("path");
}

void ArchiveSchema::update()
{
    m_db.begin();
    try {
        upgrade();
    } catch (const RequestFailure &) {
        m_db.rollback();
        throw;
    }
    if (!m_db.commit())
        throw RequestFailure{KE_DatabaseNotAvailable, m_db.errorString()};
}

void ArchiveSchema::upgrade()
{
    static_assert(std::size(Steps) == Version, "every schema version needs its step");
    if (m_db.isPostgres()) {
        run(kUpgradeLockTimeout);
        run(QStringLiteral("SELECT pg_advisory_xact_lock(%1, 0)").arg(ArchiveDatabase::AdvisoryClass));
    }
    run(QStringLiteral("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)"));
    const int found = storedVersion();
    if (found > Version) {
        m_tooNew = true;
        throw RequestFailure{KE_DatabaseNotAvailable,
                             QStringLiteral("The database %1 holds schema version %2, newer than version %3 that "
                                            "this keldaserver knows; run a keldaserver of the build that wrote it")
                                 .arg(m_db.location().displayName())
                                 .arg(found)
                                 .arg(Version)};
    }
    QElapsedTimer timer;
    timer.start();
    for (int version = found; version < Version; ++version) {
        (this->*Steps[version])();
        run(QStringLiteral("INSERT INTO schema_version (version) VALUES (%1)").arg(version + 1));
    }
    if (found > 0 && found < Version)
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Upgraded the database %1 from schema version %2 to %3 in %4 ms")
                            .arg(m_db.location().displayName())
                            .arg(found)
                            .arg(Version)
                            .arg(timer.elapsed()));
    if (m_db.isPostgres())
        ensureTrigramIndexes();
}

int ArchiveSchema::storedVersion()
{
    ResultRows &rows = m_db.run(QStringLiteral("SELECT MAX(version) FROM schema_version"), {}, KE_DatabaseNotAvailable);
    const int found = rows.next() ? int(rows.number(0)) : 0;
    rows.finish();
    return found;
}

void ArchiveSchema::createVersion1()
{
    for (const QString &statement : kVersion1)
        run(statement);
    run(QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_path ON file_groups (%1)")
            .arg(pathColumn(m_db.isPostgres())));
}

void ArchiveSchema::indexSearchCriteria()
{
    if (!m_db.isPostgres()) {
        QStringList groupIndexes = kVersion1.filter(QStringLiteral("ON file_groups"));
        groupIndexes.append(QStringLiteral("CREATE INDEX file_groups_path ON file_groups (path)"));
        rebuildWithRowIds(QStringLiteral("file_groups"), kGroupsVersion2, kGroupsColumns, groupIndexes);
        rebuildWithRowIds(QStringLiteral("group_locks"), kLocksVersion2, kLocksColumns, {});
        rebuildWithRowIds(QStringLiteral("group_references"), kReferencesVersion2,
                          QStringLiteral("guid, application, application_key, ref_count"), {});
        for (const TextIndex &index : textIndexes())
            createTextIndex(index.table, index.index, index.columns, index.detail);
    }
    run(kWriteLocksIndex);
}

void ArchiveSchema::recordFileDigests()
{
    for (const QString &statement : kFileDigests)
        run(statement);
}

void ArchiveSchema::createAuditTrail()
{
    // Only ever appended to, in the transaction of the change it records;
    // the id keeps the order records were written in.
    const QString id =
        m_db.isPostgres() ? QStringLiteral("BIGSERIAL PRIMARY KEY") : QStringLiteral("INTEGER PRIMARY KEY");
    run(QStringLiteral("CREATE TABLE %1 (id %2,"
                       " at_ms BIGINT NOT NULL, peer_address TEXT NOT NULL, certificate_user TEXT,"
                       " claimed_user TEXT NOT NULL, application TEXT NOT NULL, command TEXT NOT NULL,"
                       " guid TEXT NOT NULL, file_id BIGINT, result INTEGER NOT NULL)")
            .arg(AuditTable, id));
    run(QStringLiteral("CREATE INDEX %1_time ON %1 (at_ms)").arg(AuditTable));
}

void ArchiveSchema::deferTextIndexUpdates()
{
    // FTS5 writes what it holds of a transaction's changes at every
    // savepoint, and with triggers each statement is one: kept in step row
    // by row, every request wrote several small index segments, and merging
    // them was a large part of a change's cost. The triggers now note the
    // rows in a plain table, and the commit hands the notes to the index in
    // one statement (textIndexFlush).
    if (m_db.isPostgres())
        return;
    const QStringList events{QStringLiteral("insert"), QStringLiteral("delete"), QStringLiteral("update")};
    for (const QString &event : events)
        run(QStringLiteral("DROP TRIGGER %1_%2").arg(LockTextIndex, event));
    run(QStringLiteral("DROP TABLE %1").arg(LockTextIndex));
    for (const TextIndex &index : deferredTextIndexes()) {
        const QString pending = pendingTable(index);
        const QString names = index.columns.join(QLatin1String(", "));
        const QString insert = QStringLiteral("INSERT INTO %1 (remove, row_id, %2) VALUES (0, new.id, %3);")
                                   .arg(pending, names, rowValues(index.columns, QLatin1String("new")));
        const QString remove = QStringLiteral("INSERT INTO %1 (remove, row_id, %2) VALUES (1, old.id, %3);")
                                   .arg(pending, names, rowValues(index.columns, QLatin1String("old")));
        run(QStringLiteral("CREATE TABLE %1 (id INTEGER PRIMARY KEY, remove INTEGER NOT NULL,"
                           " row_id INTEGER NOT NULL, %2)")
                .arg(pending, names));
        for (const QString &event : events)
            run(QStringLiteral("DROP TRIGGER %1_%2").arg(index.index, event));
        createTriggers(index.index, index.table, names, insert, remove);
    }
}

void ArchiveSchema::dropPerChangeIndexes()
{
    // Each cost every change or lock a page write of its own. The audit
    // trail is read by an administrator now and then, from its start in
    // the order of its ids, as it already was for a group or a user; locks
    // are few and held briefly, so a lock state criterion reads them all.
    run(QStringLiteral("DROP INDEX IF EXISTS %1_time").arg(AuditTable));
    run(QStringLiteral("DROP INDEX IF EXISTS group_locks_write"));
}

void ArchiveSchema::writeFewerPagesPerChange()
{
    // Few groups are Tovin groups, and a group is backed up long after it
    // is created if ever: every new group wrote a page of each index for
    // its NULLs, which no criterion looks for. A range of backup times or
    // an equal Tovin id implies the column is set, so both engines still
    // use them.
    run(QStringLiteral("DROP INDEX file_groups_backup"));
    run(QStringLiteral("CREATE INDEX file_groups_backup ON file_groups (backup_time) WHERE backup_time IS NOT NULL"));
    run(QStringLiteral("DROP INDEX file_groups_tovin"));
    run(QStringLiteral(
        "CREATE INDEX file_groups_tovin ON file_groups (tovin_id, record_id) WHERE tovin_id IS NOT NULL"));
    if (m_db.isPostgres())
        return;
    // Files and locks are found by their key only: kept in the key's own
    // b-tree, a file added or a lock taken writes one page, not two.
    rebuildByKey(QStringLiteral("group_files"), kFilesByKey, kFilesColumns,
                 kFileDigests.filter(QStringLiteral("group_files_checked")));
    rebuildByKey(QStringLiteral("group_locks"), kLocksByKey, kLocksColumns, {});
}

void ArchiveSchema::indexMovedGroupsOnly()
{
    // Every new group wrote a page of this index for Local, a state that
    // holds nearly all recent groups: a search for it reads the table about
    // as fast. Searches for the other states still use the index.
    run(QStringLiteral("DROP INDEX file_groups_location"));
    run(QStringLiteral("CREATE INDEX file_groups_location ON file_groups (location_state) WHERE %1")
            .arg(kIndexedLocations));
}

void ArchiveSchema::indexDirectoriesNamingOtherGuids()
{
    // A directory that names no GUID but its own group's neither holds nor
    // lies in another such directory: the one below would name both GUIDs.
    // A new directory meets the rest through the GUIDs it names, so the
    // index of directories keeps only those that name other GUIDs too and
    // those from before this version. Every new group wrote a page of it,
    // at a random place.
    run(QStringLiteral("ALTER TABLE file_groups ADD COLUMN single_guid_directory INTEGER"));
    run(QStringLiteral("DROP INDEX file_groups_path"));
    run(QStringLiteral("CREATE INDEX file_groups_path ON file_groups (%1) WHERE %2")
            .arg(pathColumn(m_db.isPostgres()), IndexedDirectories));
}

QString ArchiveSchema::locationCriterion(const QString &qualifier, int locationState)
{
    QString criterion = qualifier + QStringLiteral("location_state = ?");
    if (locationState != LS_Local)
        criterion += QStringLiteral(" AND ") + qualifier + kIndexedLocations;
    return criterion;
}

int ArchiveSchema::deferredTextIndexCount()
{
    return int(deferredTextIndexes().size());
}

QString ArchiveSchema::pendingTextTable(const QString &index)
{
    return index + QStringLiteral("_pending");
}

const QString &ArchiveSchema::pendingTextCheck(bool all)
{
    const auto check = [](const QString &condition) {
        QStringList columns;
        for (const TextIndex &index : deferredTextIndexes())
            columns.append(condition.arg(pendingTable(index)));
        return QStringLiteral("SELECT ") + columns.join(QLatin1String(", "));
    };
    static const QString any = check(QStringLiteral("EXISTS (SELECT 1 FROM %1)"));
    // Every commit asks. Noted rows are only ever removed all together, so
    // their ids have no gaps and the span between the first and the last
    // counts them: two looks at the ends of the b-tree, where an OFFSET
    // walked over the rows.
    static const QString enough = check(QStringLiteral("(SELECT max(id) FROM %1) - (SELECT min(id) FROM %1) >= ") +
                                        QString::number(TextFlushRows - 1));
    return all ? any : enough;
}

const QStringList &ArchiveSchema::textIndexFlush(int index)
{
    static const std::vector<QStringList> flushes = [] {
        std::vector<QStringList> all;
        for (const TextIndex &index : deferredTextIndexes()) {
            const QString pending = pendingTable(index);
            const QString names = index.columns.join(QLatin1String(", "));
            // In the order the rows changed: a row removed and its id taken
            // again by a new one in the same transaction stays right.
            all.push_back({QStringLiteral("INSERT INTO %1 (%1, rowid, %2) SELECT CASE WHEN remove THEN 'delete' END,"
                                          " row_id, %2 FROM %3 ORDER BY id")
                               .arg(index.index, names, pending),
                           QStringLiteral("DELETE FROM %1").arg(pending)});
        }
        return all;
    }();
    return flushes.at(size_t(index));
}

void ArchiveSchema::rebuildWithRowIds(const QString &table, const QString &definition, const QString &columns,
                                      const QStringList &indexes)
{
    rebuildAs(table, QStringLiteral("(id INTEGER PRIMARY KEY, %1)").arg(definition), columns, indexes);
}

void ArchiveSchema::rebuildByKey(const QString &table, const QString &definition, const QString &columns,
                                 const QStringList &indexes)
{
    rebuildAs(table, QStringLiteral("(%1) WITHOUT ROWID").arg(definition), columns, indexes);
}

void ArchiveSchema::rebuildAs(const QString &table, const QString &shape, const QString &columns,
                              const QStringList &indexes)
{
    const QString old = table + QStringLiteral("_before");
    run(QStringLiteral("ALTER TABLE %1 RENAME TO %2").arg(table, old));
    run(QStringLiteral("CREATE TABLE %1 %2").arg(table, shape));
    // In creation order, so that a range of ids is a range of time.
    const QString order =
        table == QLatin1String("file_groups") ? QStringLiteral(" ORDER BY creation_time, guid") : QString();
    run(QStringLiteral("INSERT INTO %1 (%2) SELECT %2 FROM %3%4").arg(table, columns, old, order));
    run(QStringLiteral("DROP TABLE %1").arg(old));
    for (const QString &index : indexes)
        run(index);
}

void ArchiveSchema::createTextIndex(const QString &table, const QString &index, const QStringList &columns,
                                    const QString &detail)
{
    const QString names = columns.join(QLatin1String(", "));
    const QString insert = QStringLiteral("INSERT INTO %1 (rowid, %2) VALUES (new.id, %3);")
                               .arg(index, names, rowValues(columns, QLatin1String("new")));
    const QString remove = QStringLiteral("INSERT INTO %1 (%1, rowid, %2) VALUES ('delete', old.id, %3);")
                               .arg(index, names, rowValues(columns, QLatin1String("old")));
    run(QStringLiteral("CREATE VIRTUAL TABLE %1 USING fts5(%2, content='%3', content_rowid='id',"
                       " tokenize='trigram', detail='%4')")
            .arg(index, names, table, detail));
    // Kept in step by the statements that change the table, inside their
    // transaction.
    createTriggers(index, table, names, insert, remove);
    run(QStringLiteral("INSERT INTO %1 (%1) VALUES ('rebuild')").arg(index));
}

void ArchiveSchema::createTriggers(const QString &index, const QString &table, const QString &columns,
                                   const QString &insert, const QString &remove)
{
    run(QStringLiteral("CREATE TRIGGER %1_insert AFTER INSERT ON %2 BEGIN %3 END").arg(index, table, insert));
    run(QStringLiteral("CREATE TRIGGER %1_delete AFTER DELETE ON %2 BEGIN %3 END").arg(index, table, remove));
    run(QStringLiteral("CREATE TRIGGER %1_update AFTER UPDATE OF %2 ON %3 BEGIN %4 %5 END")
            .arg(index, columns, table, remove, insert));
}

void ArchiveSchema::ensureTrigramIndexes()
{
    // pg_trgm is a trusted extension: the database's owner may create it.
    const QString refusal = tryRun({
        QStringLiteral("CREATE EXTENSION IF NOT EXISTS pg_trgm"),
        QStringLiteral("CREATE INDEX IF NOT EXISTS %1 ON file_groups USING gin (%2)")
            .arg(GroupTextIndex, kGroupsKeys.join(QLatin1String(" gin_trgm_ops, ")) + QLatin1String(" gin_trgm_ops")),
        QStringLiteral("CREATE INDEX IF NOT EXISTS %1 ON group_locks USING gin (holder_key gin_trgm_ops)")
            .arg(LockTextIndex),
        QStringLiteral("CREATE INDEX IF NOT EXISTS %1 ON group_references USING gin (application_key gin_trgm_ops)")
            .arg(ReferenceTextIndex),
    });
    if (!refusal.isEmpty())
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Text criteria on %1 scan whole tables: no trigram index (%2)")
                            .arg(m_db.location().displayName(), refusal));
}

QString ArchiveSchema::tryRun(const QStringList &statements)
{
    run(QStringLiteral("SAVEPOINT schema_step"));
    try {
        for (const QString &statement : statements)
            run(statement);
    } catch (const RequestFailure &failure) {
        run(QStringLiteral("ROLLBACK TO SAVEPOINT schema_step"));
        run(QStringLiteral("RELEASE SAVEPOINT schema_step"));
        return failure.text;
    }
    run(QStringLiteral("RELEASE SAVEPOINT schema_step"));
    return QString();
}

} // namespace Kelda
