#include "archivestore.h"

#include "groupannouncement.h"
#include "requestfailure.h"

#include <QDateTime>
#include <QSqlError>

#include <atomic>

namespace Kelda {

namespace {

const QStringList kSchema{
    QStringLiteral("CREATE TABLE IF NOT EXISTS file_groups ("
                   " guid VARCHAR(64) PRIMARY KEY,"
                   " name TEXT NOT NULL, name_key TEXT NOT NULL,"
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
                   " fixed_result_xml BYTEA NOT NULL)"),
    // Also the order of every search result, so results need no sorting.
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

// First key of every advisory lock the servers take ("KELD").
constexpr int kAdvisoryClass = 0x4B454C44;

// In GroupRow::Column order.
const QString kGroupColumns = QStringLiteral(
    "g.guid, g.name, g.file_type, g.location_state, g.backup_time, g.creation_time, g.modification_time,"
    " g.life_cycle, g.comment, g.creator, g.detail, g.team, g.version, g.reserved_storage, g.reference_counter,"
    " g.path, g.tovin_id, g.record_id, g.copy_progress");
// In SearchRow::Column order.
const QString kSearchColumns = QStringLiteral(
    "g.fixed_result_xml, g.location_state, g.backup_time, g.creation_time, g.modification_time, g.life_cycle,"
    " g.reference_counter");

QVariant timeValue(const QDateTime &time)
{
    return time.isValid() ? QVariant(time.toMSecsSinceEpoch()) : QVariant(QVariant::LongLong);
}

// Qt SQL binds a null QString as NULL; texts are never NULL in the tables.
QString text(const QString &value)
{
    return value.isNull() ? QStringLiteral("") : value;
}

// LIKE pattern for a case-insensitive substring, with '!' as escape.
QString containsPattern(const QString &text)
{
    QString escaped = ArchiveStore::searchKey(text);
    escaped.replace(QLatin1Char('!'), QLatin1String("!!"));
    escaped.replace(QLatin1Char('%'), QLatin1String("!%"));
    escaped.replace(QLatin1Char('_'), QLatin1String("!_"));
    return QLatin1Char('%') + escaped + QLatin1Char('%');
}

} // namespace

ArchiveStore::ArchiveStore()
{
    static std::atomic<int> counter{0};
    m_connectionName = QStringLiteral("keldaserver-%1").arg(counter.fetch_add(1));
}

ArchiveStore::~ArchiveStore()
{
    m_statements.clear();
    if (m_db.isValid()) {
        m_db.close();
        m_db = QSqlDatabase();
    }
    QSqlDatabase::removeDatabase(m_connectionName);
}

QString ArchiveStore::searchKey(const QString &value)
{
    return text(value.toCaseFolded());
}

bool ArchiveStore::open(const DatabaseLocation &location)
{
    m_location = location;
    m_schemaTooNew = false;
    if (!connect())
        return false;
    try {
        if (!isPostgres())
            prepareSqlite();
        createSchema();
        // The writer's connection stands for the server; a second holder
        // of the same lock would wait for the first forever.
        if (isPostgres() && m_locksGroups)
            holdLiveness();
    } catch (const RequestFailure &failure) {
        if (m_error.isEmpty())
            m_error = QStringLiteral("Cannot prepare the database %1: %2").arg(m_location.displayName(), failure.text);
        return false;
    }
    return true;
}

bool ArchiveStore::reopen()
{
    m_statements.clear();
    m_db.close();
    m_db = QSqlDatabase();
    QSqlDatabase::removeDatabase(m_connectionName);
    m_connectionLost = false;
    m_error.clear();
    if (open(m_location))
        return true;
    m_connectionLost = true;
    return false;
}

bool ArchiveStore::connect()
{
    m_error.clear();
    if (isPostgres()) {
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_connectionName);
        if (!m_db.isValid()) {
            m_error = QStringLiteral("Cannot use %1: Qt has no PostgreSQL driver; install libqt5sql5-psql")
                          .arg(m_location.displayName());
            return false;
        }
        m_db.setHostName(m_location.host);
        m_db.setPort(m_location.port);
        m_db.setUserName(m_location.user);
        m_db.setPassword(m_location.password);
        m_db.setDatabaseName(m_location.name);
        // A database that went away must not hold a request up for long:
        // connecting gives up after seconds, and keepalives notice a
        // silent peer.
        m_db.setConnectOptions(QStringLiteral("connect_timeout=5;keepalives=1;keepalives_idle=10;"
                                              "keepalives_interval=3;keepalives_count=3;application_name=keldaserver"));
    } else {
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connectionName);
        m_db.setDatabaseName(m_location.file);
    }
    if (!m_db.open()) {
        m_error = QStringLiteral("Cannot open the database %1: %2")
                      .arg(m_location.displayName(), m_db.lastError().text().trimmed());
        return false;
    }
    if (isPostgres()) {
        try {
            // A row another server holds too long is an error, not a hang:
            // the client waits 60 s at most for any answer.
            execDirect(QStringLiteral("SET lock_timeout = '20s'"), KE_DatabaseNotAvailable);
            // "relation exists, skipping" on every start is no news.
            execDirect(QStringLiteral("SET client_min_messages = warning"), KE_DatabaseNotAvailable);
        } catch (const RequestFailure &failure) {
            m_error
                = QStringLiteral("Cannot set up the connection to %1: %2").arg(m_location.displayName(), failure.text);
            return false;
        }
    }
    return true;
}

void ArchiveStore::prepareSqlite()
{
    // WAL lets the commit be one append and one flush; FULL makes that
    // flush happen before the commit returns.
    execDirect(QStringLiteral("PRAGMA journal_mode=WAL"), KE_DatabaseNotAvailable);
    execDirect(QStringLiteral("PRAGMA synchronous=FULL"), KE_DatabaseNotAvailable);
    execDirect(QStringLiteral("PRAGMA busy_timeout=5000"), KE_DatabaseNotAvailable);
    // Pages are read through a mapping instead of a system call each,
    // and more of them stay cached between transactions.
    execDirect(QStringLiteral("PRAGMA mmap_size=268435456"), KE_DatabaseNotAvailable);
    execDirect(QStringLiteral("PRAGMA cache_size=-65536"), KE_DatabaseNotAvailable);
}

void ArchiveStore::createSchema()
{
    begin();
    try {
        // Servers starting together on an empty database would each try
        // to create the same tables.
        if (isPostgres())
            execDirect(
                QStringLiteral("SELECT pg_advisory_xact_lock(%1, 0)").arg(kAdvisoryClass), KE_DatabaseNotAvailable);
        execDirect(QStringLiteral("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)"),
                   KE_DatabaseNotAvailable);
        QSqlQuery query(m_db);
        if (!query.exec(QStringLiteral("SELECT MAX(version) FROM schema_version")))
            throw failure(query.lastError(), KE_DatabaseNotAvailable);
        const int found = query.next() ? query.value(0).toInt() : 0;
        query.finish();
        if (found > SchemaVersion) {
            m_schemaTooNew = true;
            m_error = QStringLiteral("The database %1 holds schema version %2, newer than version %3 that this "
                                     "keldaserver knows; run a keldaserver of the build that wrote it")
                          .arg(m_location.displayName())
                          .arg(found)
                          .arg(SchemaVersion);
            throw RequestFailure{KE_DatabaseNotAvailable, m_error};
        }
        for (const QString &statement : kSchema)
            execDirect(statement, KE_DatabaseNotAvailable);
        execDirect(QStringLiteral("CREATE INDEX IF NOT EXISTS file_groups_path ON file_groups (%1)").arg(pathColumn()),
                   KE_DatabaseNotAvailable);
        if (found < SchemaVersion)
            execDirect(QStringLiteral("INSERT INTO schema_version (version) VALUES (%1)").arg(SchemaVersion),
                       KE_DatabaseNotAvailable);
    } catch (const RequestFailure &) {
        rollback();
        throw;
    }
    if (!commit())
        throw RequestFailure{KE_DatabaseNotAvailable, m_error};
}

void ArchiveStore::holdLiveness()
{
    // Held for the life of the connection: other servers see by it that
    // this one is still there to finish its moves.
    QSqlQuery query(m_db);
    query.prepare(QStringLiteral("SELECT pg_advisory_lock(%1, hashtext(?))").arg(kAdvisoryClass));
    query.bindValue(0, m_instanceId);
    exec(query, KE_DatabaseNotAvailable);
}

bool ArchiveStore::ownerAlive(const QString &owner)
{
    if (owner == m_instanceId)
        return true;
    if (!isPostgres())
        return false;
    QSqlQuery &query = prepared(QStringLiteral("SELECT pg_try_advisory_lock(%1, hashtext(?))").arg(kAdvisoryClass));
    query.bindValue(0, owner);
    exec(query, KE_DatabaseNotAvailable);
    const bool free = query.next() && query.value(0).toBool();
    query.finish();
    if (!free)
        return true;
    QSqlQuery &unlock = prepared(QStringLiteral("SELECT pg_advisory_unlock(%1, hashtext(?))").arg(kAdvisoryClass));
    unlock.bindValue(0, owner);
    exec(unlock, KE_DatabaseNotAvailable);
    unlock.finish();
    return false;
}

RequestFailure ArchiveStore::failure(const QSqlError &error, KeldaError code)
{
    RequestFailure result{code, error.text().trimmed()};
    if (!isPostgres())
        return result;
    const QString state = error.nativeErrorCode();
    // Deadlock and serialization failures: another server changed the same
    // rows at the same moment; the request may simply run again.
    if (state == QLatin1String("40001") || state == QLatin1String("40P01")) {
        result.retry = true;
    } else if (state.isEmpty() || state.startsWith(QLatin1String("08")) || state.startsWith(QLatin1String("57P"))
               || error.type() == QSqlError::ConnectionError) {
        // Errors libpq makes up itself carry no state: the server is gone.
        m_connectionLost = true;
        result.code = KE_DatabaseNotAvailable;
    }
    return result;
}

QSqlQuery &ArchiveStore::prepared(const QString &sql)
{
    auto &slot = m_statements[sql];
    if (!slot) {
        slot = std::make_shared<QSqlQuery>(m_db);
        if (!slot->prepare(sql)) {
            RequestFailure refused = failure(slot->lastError(), KE_DatabaseNotAvailable);
            refused.text = QStringLiteral("Cannot prepare a statement: %1").arg(refused.text);
            slot.reset();
            m_statements.remove(sql);
            throw refused;
        }
    }
    return *slot;
}

void ArchiveStore::exec(QSqlQuery &query, KeldaError code)
{
    if (!query.exec())
        throw failure(query.lastError(), code);
}

void ArchiveStore::execDirect(const QString &sql, KeldaError code)
{
    QSqlQuery query(m_db);
    if (!query.exec(sql))
        throw failure(query.lastError(), code);
}

void ArchiveStore::begin()
{
    if (!m_db.transaction())
        throw failure(m_db.lastError(), KE_DatabaseNotAvailable);
}

bool ArchiveStore::commit()
{
    if (m_db.commit())
        return true;
    m_error = failure(m_db.lastError(), KE_DatabaseNotAvailable).text;
    if (!m_connectionLost)
        m_db.rollback();
    return false;
}

void ArchiveStore::writeCommitMark(qint64 token)
{
    QSqlQuery &query = prepared(QStringLiteral(
        "INSERT INTO commit_marks (server_id, token) VALUES (?, ?)"
        " ON CONFLICT (server_id) DO UPDATE SET token = excluded.token"));
    query.bindValue(0, m_instanceId);
    query.bindValue(1, token);
    exec(query, KE_DatabaseNotAvailable);
}

bool ArchiveStore::hasCommitMark(qint64 token)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT token FROM commit_marks WHERE server_id = ?"));
    query.bindValue(0, m_instanceId);
    exec(query, KE_DatabaseNotAvailable);
    const bool found = query.next() && query.value(0).toLongLong() == token;
    query.finish();
    return found;
}

void ArchiveStore::rollback()
{
    m_db.rollback();
}

void ArchiveStore::dropCommitMark()
{
    QSqlQuery &query = prepared(QStringLiteral("DELETE FROM commit_marks WHERE server_id = ?"));
    query.bindValue(0, m_instanceId);
    exec(query, KE_DatabaseNotAvailable);
}

void ArchiveStore::transactionControl(const QString &sql)
{
    // PostgreSQL cannot prepare these; SQLite runs them faster prepared.
    if (isPostgres())
        execDirect(sql, KE_DatabaseNotAvailable);
    else
        exec(prepared(sql), KE_DatabaseNotAvailable);
}

void ArchiveStore::savepoint()
{
    transactionControl(QStringLiteral("SAVEPOINT request"));
}

void ArchiveStore::releaseSavepoint()
{
    transactionControl(QStringLiteral("RELEASE SAVEPOINT request"));
}

void ArchiveStore::rollbackToSavepoint()
{
    transactionControl(QStringLiteral("ROLLBACK TO SAVEPOINT request"));
    transactionControl(QStringLiteral("RELEASE SAVEPOINT request"));
}

StoredGroup ArchiveStore::groupFromRow(const GroupRow &row) const
{
    const auto time = [&row](GroupRow::Column column) {
        return row.isNull(column) ? QDateTime() : QDateTime::fromMSecsSinceEpoch(row.number(column));
    };
    StoredGroup group;
    FileGroupData &data = group.data;
    data.setGuid(row.text(GroupRow::Guid));
    data.setFileGroupName(row.text(GroupRow::Name));
    data.setFileType(static_cast<FileType>(row.number(GroupRow::FileType)));
    data.setLocationState(static_cast<LocationState>(row.number(GroupRow::Location)));
    data.setBackupTime(time(GroupRow::Backup));
    data.setCreationTime(time(GroupRow::Creation));
    data.setModificationTime(time(GroupRow::Modification));
    data.setLifeCycle(time(GroupRow::LifeCycle));
    data.setComment(row.text(GroupRow::Comment));
    data.setCreator(row.text(GroupRow::Creator));
    data.setDetail(row.text(GroupRow::Detail));
    data.setTeamMembership(row.text(GroupRow::Team));
    data.setVersion(row.text(GroupRow::Version));
    data.setReservedStorage(qint32(qBound<qint64>(0, row.number(GroupRow::Reserved), INT_MAX)));
    data.setReferenceCounter(int(row.number(GroupRow::References)));
    group.path = row.text(GroupRow::Path);
    data.setPath(group.path);
    group.tovinId = row.text(GroupRow::TovinId);
    group.recordId = row.text(GroupRow::RecordId);
    group.copyProgress = row.text(GroupRow::Progress).toDouble();
    return group;
}

std::optional<StoredGroup> ArchiveStore::group(const QString &guid)
{
    QSqlQuery &query
        = prepared(QStringLiteral("SELECT ") + kGroupColumns + QStringLiteral(" FROM file_groups g WHERE g.guid = ?")
            + (m_locksGroups ? QStringLiteral(" FOR UPDATE") : QString()));
    query.bindValue(0, guid);
    exec(query, KE_ReadFileGroupFromDbFailed);
    std::optional<StoredGroup> result;
    if (query.next())
        result = groupFromRow(GroupRow(query));
    query.finish();
    return result;
}

void ArchiveStore::insertGroup(const StoredGroup &group)
{
    const FileGroupData &data = group.data;
    QSqlQuery &query = prepared(QStringLiteral(
        "INSERT INTO file_groups (guid, name, name_key, file_type, location_state, backup_time, creation_time,"
        " modification_time, life_cycle, comment, comment_key, creator, creator_key, detail, detail_key, team,"
        " team_key, version, version_key, reserved_storage, reference_counter, path, tovin_id, record_id,"
        " copy_progress, fixed_result_xml)"
        " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
    int i = 0;
    query.bindValue(i++, text(data.getGuid()));
    query.bindValue(i++, text(data.getFileGroupName()));
    query.bindValue(i++, text(searchKey(data.getFileGroupName())));
    query.bindValue(i++, int(data.getFileType()));
    query.bindValue(i++, int(data.getLocationState()));
    query.bindValue(i++, timeValue(data.getBackupTime()));
    query.bindValue(i++, timeValue(data.getCreationTime()));
    query.bindValue(i++, timeValue(data.getModificationTime()));
    query.bindValue(i++, timeValue(data.getLifeCycle()));
    for (const QString &value : {data.getComment(), data.getCreator(), data.getDetail(), data.getTeamMembership(),
                                data.getVersion()}) {
        query.bindValue(i++, text(value));
        query.bindValue(i++, searchKey(value));
    }
    query.bindValue(i++, qint64(data.getReservedStorage()));
    query.bindValue(i++, data.getReferenceCounter());
    query.bindValue(i++, text(group.path));
    query.bindValue(i++, group.tovinId.isEmpty() ? QVariant(QVariant::String) : QVariant(group.tovinId));
    query.bindValue(i++, group.recordId.isEmpty() ? QVariant(QVariant::String) : QVariant(group.recordId));
    query.bindValue(i++, group.copyProgress);
    query.bindValue(i++, group.fixedResultXml);
    exec(query, KE_InsertFileGroupInDbFailed);
}

void ArchiveStore::deleteGroup(const QString &guid)
{
    for (const QString &sql : {QStringLiteral("DELETE FROM group_files WHERE guid = ?"),
                               QStringLiteral("DELETE FROM group_locks WHERE guid = ?"),
                               QStringLiteral("DELETE FROM group_references WHERE guid = ?"),
                               QStringLiteral("DELETE FROM move_claims WHERE guid = ?"),
                               QStringLiteral("DELETE FROM file_groups WHERE guid = ?")}) {
        QSqlQuery &query = prepared(sql);
        query.bindValue(0, guid);
        exec(query, KE_DeleteFileGroupFromDbFailed);
    }
}

QString ArchiveStore::pathColumn() const
{
    // Directories compare byte by byte, as the file system names them, so
    // that everything below "X/" sorts between "X/" and "X0"; PostgreSQL
    // would otherwise order by the database's language.
    return isPostgres() ? QStringLiteral("path COLLATE \"C\"") : QStringLiteral("path");
}

std::optional<QString> ArchiveStore::groupAround(const QString &directory)
{
    QStringList candidates;
    for (int at = directory.indexOf(QLatin1Char('/'), 1); at > 0; at = directory.indexOf(QLatin1Char('/'), at + 1))
        candidates.append(directory.left(at));
    candidates.append(directory);
    // Padded, so that a few statements of fixed length serve every depth.
    while (candidates.size() % 8 != 0)
        candidates.append(directory);
    QStringList marks;
    for (int i = 0; i < candidates.size(); ++i)
        marks.append(QStringLiteral("?"));
    QSqlQuery &above = prepared(QStringLiteral("SELECT guid FROM file_groups WHERE %1 IN (%2) LIMIT 1")
                                    .arg(pathColumn(), marks.join(QLatin1String(", "))));
    for (int i = 0; i < candidates.size(); ++i)
        above.bindValue(i, candidates.at(i));
    std::optional<QString> found = firstGuid(above);
    if (found)
        return found;
    QSqlQuery &below = prepared(QStringLiteral("SELECT guid FROM file_groups WHERE %1 >= ? AND %1 < ? LIMIT 1")
                                    .arg(pathColumn()));
    below.bindValue(0, directory + QLatin1Char('/'));
    below.bindValue(1, directory + QLatin1Char('0'));
    return firstGuid(below);
}

std::optional<QString> ArchiveStore::firstGuid(QSqlQuery &query)
{
    exec(query, KE_ReadFileGroupFromDbFailed);
    std::optional<QString> result;
    if (query.next())
        result = query.value(0).toString();
    query.finish();
    return result;
}

void ArchiveStore::updateLocation(const QString &guid, int locationState, const QString &path, double copyProgress)
{
    QSqlQuery &query = prepared(
        QStringLiteral("UPDATE file_groups SET location_state = ?, path = ?, copy_progress = ? WHERE guid = ?"));
    query.bindValue(0, locationState);
    query.bindValue(1, path);
    query.bindValue(2, copyProgress);
    query.bindValue(3, guid);
    exec(query, KE_UpdateFileGroupInDbFailed);
}

void ArchiveStore::touch(const QString &guid, qint64 utcMs)
{
    QSqlQuery &query = prepared(QStringLiteral("UPDATE file_groups SET modification_time = ? WHERE guid = ?"));
    query.bindValue(0, utcMs);
    query.bindValue(1, guid);
    exec(query, KE_UpdateFileGroupInDbFailed);
}

std::optional<QString> ArchiveStore::tovinGroup(const QString &tovinId, const QString &recordId)
{
    QSqlQuery &query = prepared(QStringLiteral(
        "SELECT guid FROM file_groups WHERE tovin_id = ? AND record_id = ? ORDER BY creation_time, guid"));
    query.bindValue(0, tovinId);
    query.bindValue(1, recordId);
    exec(query, KE_ReadFileGroupFromDbFailed);
    std::optional<QString> result;
    if (query.next())
        result = query.value(0).toString();
    query.finish();
    return result;
}

QStringList ArchiveStore::groupsInState(int locationState)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT guid FROM file_groups WHERE location_state = ?"));
    query.bindValue(0, locationState);
    exec(query, KE_ReadFileGroupFromDbFailed);
    QStringList result;
    while (query.next())
        result.append(query.value(0).toString());
    query.finish();
    return result;
}

void ArchiveStore::recordMoveClaim(const QString &guid)
{
    QSqlQuery &query = prepared(QStringLiteral(
        "INSERT INTO move_claims (guid, owner) VALUES (?, ?) ON CONFLICT (guid) DO UPDATE SET owner = excluded.owner"));
    query.bindValue(0, guid);
    query.bindValue(1, m_instanceId);
    exec(query, KE_UpdateFileGroupInDbFailed);
}

bool ArchiveStore::claimMove(const QString &guid)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT owner FROM move_claims WHERE guid = ?")
                                + (m_locksGroups ? QStringLiteral(" FOR UPDATE") : QString()));
    query.bindValue(0, guid);
    exec(query, KE_ReadFileGroupFromDbFailed);
    const std::optional<QString> owner
        = query.next() ? std::optional<QString>(query.value(0).toString()) : std::nullopt;
    query.finish();
    if (owner && ownerAlive(*owner))
        return *owner == m_instanceId;
    recordMoveClaim(guid);
    return true;
}

void ArchiveStore::dropMoveClaim(const QString &guid)
{
    QSqlQuery &query = prepared(QStringLiteral("DELETE FROM move_claims WHERE guid = ?"));
    query.bindValue(0, guid);
    exec(query, KE_UpdateFileGroupInDbFailed);
}

void ArchiveStore::announceGroup(const QString &guid, int fileType, const QString &path)
{
    if (!isPostgres())
        return;
    QSqlQuery &query = prepared(QStringLiteral("SELECT pg_notify('%1', ?)").arg(GroupAnnouncement::Channel));
    query.bindValue(0, GroupAnnouncement{m_instanceId, guid, fileType, path}.payload());
    exec(query, KE_InsertFileGroupInDbFailed);
    query.finish();
}

FileGroupData::FileList ArchiveStore::files(const QString &guid)
{
    QSqlQuery &query
        = prepared(QStringLiteral("SELECT file_id, name FROM group_files WHERE guid = ? ORDER BY file_id"));
    query.bindValue(0, guid);
    exec(query, KE_ReadFileFromDbFailed);
    FileGroupData::FileList result;
    while (query.next())
        result.emplace_back(query.value(1).toString(), query.value(0).toInt());
    query.finish();
    return result;
}

std::optional<QString> ArchiveStore::fileName(const QString &guid, int fileId)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT name FROM group_files WHERE guid = ? AND file_id = ?"));
    query.bindValue(0, guid);
    query.bindValue(1, fileId);
    exec(query, KE_ReadFileFromDbFailed);
    std::optional<QString> result;
    if (query.next())
        result = query.value(0).toString();
    query.finish();
    return result;
}

bool ArchiveStore::hasFileNamed(const QString &guid, const QString &name)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT 1 FROM group_files WHERE guid = ? AND name = ?"));
    query.bindValue(0, guid);
    query.bindValue(1, text(name));
    exec(query, KE_ReadFileFromDbFailed);
    const bool found = query.next();
    query.finish();
    return found;
}

bool ArchiveStore::hasFileId(const QString &guid, int fileId)
{
    return fileName(guid, fileId).has_value();
}

int ArchiveStore::maxFileId(const QString &guid)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT MAX(file_id) FROM group_files WHERE guid = ?"));
    query.bindValue(0, guid);
    exec(query, KE_ReadFileFromDbFailed);
    const int result = query.next() ? query.value(0).toInt() : 0;
    query.finish();
    return result;
}

void ArchiveStore::insertFile(const QString &guid, int fileId, const QString &name)
{
    QSqlQuery &query = prepared(QStringLiteral("INSERT INTO group_files (guid, file_id, name) VALUES (?, ?, ?)"));
    query.bindValue(0, guid);
    query.bindValue(1, fileId);
    query.bindValue(2, text(name));
    exec(query, KE_InsertFileInDbFailed);
}

void ArchiveStore::deleteFile(const QString &guid, int fileId)
{
    QSqlQuery &query = prepared(QStringLiteral("DELETE FROM group_files WHERE guid = ? AND file_id = ?"));
    query.bindValue(0, guid);
    query.bindValue(1, fileId);
    exec(query, KE_DeleteFileFromDbFailed);
}

std::vector<LockHolder> ArchiveStore::locks(const QString &guid)
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT holder, write_lock FROM group_locks WHERE guid = ?"));
    query.bindValue(0, guid);
    exec(query, KE_ReadLockFromDbFailed);
    std::vector<LockHolder> result;
    while (query.next())
        result.push_back({query.value(0).toString(), query.value(1).toInt() != 0});
    query.finish();
    return result;
}

void ArchiveStore::setLock(const QString &guid, const QString &holder, bool write)
{
    QSqlQuery &remove = prepared(QStringLiteral("DELETE FROM group_locks WHERE guid = ? AND holder = ?"));
    remove.bindValue(0, guid);
    remove.bindValue(1, text(holder));
    exec(remove, KE_InsertLockInDbFailed);
    QSqlQuery &insert = prepared(
        QStringLiteral("INSERT INTO group_locks (guid, holder, holder_key, write_lock) VALUES (?, ?, ?, ?)"));
    insert.bindValue(0, guid);
    insert.bindValue(1, text(holder));
    insert.bindValue(2, text(searchKey(holder)));
    insert.bindValue(3, write ? 1 : 0);
    exec(insert, KE_InsertLockInDbFailed);
}

int ArchiveStore::releaseLocks(const QString &guid, const QString &holder)
{
    QSqlQuery &query = prepared(QStringLiteral("DELETE FROM group_locks WHERE guid = ? AND holder = ?"));
    query.bindValue(0, guid);
    query.bindValue(1, text(holder));
    exec(query, KE_DeleteLockFromDbFailed);
    return query.numRowsAffected();
}

int ArchiveStore::referenceCount(const QString &guid, const QString &application)
{
    QSqlQuery &query =
        prepared(QStringLiteral("SELECT ref_count FROM group_references WHERE guid = ? AND application = ?"));
    query.bindValue(0, guid);
    query.bindValue(1, text(application));
    exec(query, KE_ReadReferenceFromDbFailed);
    const int count = query.next() ? query.value(0).toInt() : 0;
    query.finish();
    return count;
}

void ArchiveStore::setReferenceCount(const QString &guid, const QString &application, int count)
{
    QSqlQuery &remove = prepared(QStringLiteral("DELETE FROM group_references WHERE guid = ? AND application = ?"));
    remove.bindValue(0, guid);
    remove.bindValue(1, text(application));
    exec(remove, KE_DeleteReferenceFromDbFailed);
    if (count > 0) {
        QSqlQuery &insert = prepared(QStringLiteral(
            "INSERT INTO group_references (guid, application, application_key, ref_count) VALUES (?, ?, ?, ?)"));
        insert.bindValue(0, guid);
        insert.bindValue(1, text(application));
        insert.bindValue(2, text(searchKey(application)));
        insert.bindValue(3, count);
        exec(insert, KE_InsertReferenceInDbFailed);
    }
    refreshCounters(guid);
}

void ArchiveStore::refreshCounters(const QString &guid)
{
    QSqlQuery &query = prepared(QStringLiteral(
        "UPDATE file_groups SET reference_counter ="
        " (SELECT COALESCE(SUM(ref_count), 0) FROM group_references r WHERE r.guid = ?) WHERE guid = ?"));
    query.bindValue(0, guid);
    query.bindValue(1, guid);
    exec(query, KE_UpdateFileGroupInDbFailed);
}

void ArchiveStore::rememberUser(const QString &name)
{
    if (name.isEmpty())
        return;
    QSqlQuery &query = prepared(QStringLiteral("INSERT INTO known_users (name) VALUES (?) ON CONFLICT DO NOTHING"));
    query.bindValue(0, text(name));
    exec(query, KE_UnknownError);
}

void ArchiveStore::rememberApplication(const QString &name)
{
    if (name.isEmpty())
        return;
    QSqlQuery &query =
        prepared(QStringLiteral("INSERT INTO known_applications (name) VALUES (?) ON CONFLICT DO NOTHING"));
    query.bindValue(0, text(name));
    exec(query, KE_UnknownError);
}

QStringList ArchiveStore::users()
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT name FROM known_users ORDER BY name"));
    exec(query, KE_UnknownError);
    QStringList result;
    while (query.next())
        result.append(query.value(0).toString());
    query.finish();
    return result;
}

QStringList ArchiveStore::applications()
{
    QSqlQuery &query = prepared(QStringLiteral("SELECT name FROM known_applications ORDER BY name"));
    exec(query, KE_UnknownError);
    QStringList result;
    while (query.next())
        result.append(query.value(0).toString());
    query.finish();
    return result;
}

void ArchiveStore::search(const GroupSearch &criteria, const std::function<void(const SearchRow &)> &visit)
{
    QString sql = QStringLiteral("SELECT ") + kSearchColumns + QStringLiteral(" FROM file_groups g WHERE 1 = 1");
    QVariantList values;
    const auto contains = [&](const char *column, const QString &text) {
        if (text.isEmpty())
            return;
        sql += QStringLiteral(" AND g.%1 LIKE ? ESCAPE '!'").arg(QLatin1String(column));
        values.append(containsPattern(text));
    };
    contains("name_key", criteria.name);
    contains("comment_key", criteria.comment);
    contains("detail_key", criteria.detail);
    contains("creator_key", criteria.creator);
    contains("team_key", criteria.team);
    contains("version_key", criteria.version);
    if (!criteria.fileTypes.empty()) {
        QStringList marks;
        for (int type : criteria.fileTypes) {
            marks.append(QStringLiteral("?"));
            values.append(type);
        }
        sql += QStringLiteral(" AND g.file_type IN (%1)").arg(marks.join(QLatin1String(", ")));
    }
    if (criteria.locationState != LS_Undefined) {
        sql += QStringLiteral(" AND g.location_state = ?");
        values.append(criteria.locationState);
    }
    const QString anyLock = QStringLiteral("SELECT 1 FROM group_locks l WHERE l.guid = g.guid");
    const QString writeLock = anyLock + QStringLiteral(" AND l.write_lock = 1");
    switch (criteria.lockState) {
    case LOCK_Free: sql += QStringLiteral(" AND NOT EXISTS (%1)").arg(anyLock); break;
    case LOCK_Read: sql += QStringLiteral(" AND EXISTS (%1) AND NOT EXISTS (%2)").arg(anyLock, writeLock); break;
    case LOCK_Write: sql += QStringLiteral(" AND EXISTS (%1)").arg(writeLock); break;
    default: break;
    }
    if (!criteria.lockUser.isEmpty()) {
        sql += QStringLiteral(" AND EXISTS (%1 AND l.holder_key LIKE ? ESCAPE '!')").arg(anyLock);
        values.append(containsPattern(criteria.lockUser));
    }
    if (!criteria.referencingApplication.isEmpty()) {
        sql += QStringLiteral(" AND EXISTS (SELECT 1 FROM group_references r WHERE r.guid = g.guid"
                              " AND r.application_key LIKE ? ESCAPE '!')");
        values.append(containsPattern(criteria.referencingApplication));
    }
    const auto range = [&](const char *column, const GroupSearch::Range &bounds) {
        if (bounds.min) {
            sql += QStringLiteral(" AND g.%1 >= ?").arg(QLatin1String(column));
            values.append(*bounds.min);
        }
        if (bounds.max) {
            sql += QStringLiteral(" AND g.%1 <= ?").arg(QLatin1String(column));
            values.append(*bounds.max);
        }
    };
    range("backup_time", criteria.backup);
    range("creation_time", criteria.creation);
    range("life_cycle", criteria.lifeCycle);
    range("modification_time", criteria.modification);
    // A text criterion leaves few rows: scanning the table and sorting those
    // beats walking the time index and fetching every row it names, which
    // the planner would choose to spare the sort. The unary plus keeps the
    // index out of the ordering.
    const bool byText = !criteria.name.isEmpty() || !criteria.comment.isEmpty() || !criteria.detail.isEmpty()
        || !criteria.creator.isEmpty() || !criteria.team.isEmpty() || !criteria.version.isEmpty();
    sql += byText ? QStringLiteral(" ORDER BY +g.creation_time, g.guid")
                  : QStringLiteral(" ORDER BY g.creation_time, g.guid");

    QSqlQuery query(m_db);
    query.setForwardOnly(true);
    if (!query.prepare(sql))
        throw RequestFailure{KE_QueryFilesFailed, query.lastError().text()};
    for (int i = 0; i < values.size(); ++i)
        query.bindValue(i, values.at(i));
    exec(query, KE_QueryFilesFailed);
    const SearchRow row(query);
    while (query.next())
        visit(row);
}

} // namespace Kelda
