#include "archivestore.h"

#include "archiveschema.h"
#include "requestfailure.h"
#include "searchstatement.h"

#include <QDateTime>

#include <climits>

namespace Kelda {

namespace {

// In GroupRow::Column order.
const QString kGroupColumns = QStringLiteral(
    "g.guid, g.name, g.file_type, g.location_state, g.backup_time, g.creation_time, g.modification_time,"
    " g.life_cycle, g.comment, g.creator, g.detail, g.team, g.version, g.reserved_storage, g.reference_counter,"
    " g.path, g.tovin_id, g.record_id, g.copy_progress");

const QString kInsertGroup = QStringLiteral(
    "INSERT INTO file_groups (guid, name, name_key, file_type, location_state, backup_time, creation_time,"
    " modification_time, life_cycle, comment, comment_key, creator, creator_key, detail, detail_key, team,"
    " team_key, version, version_key, reserved_storage, reference_counter, path, tovin_id, record_id,"
    " copy_progress, fixed_result_xml, single_guid_directory)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
const QString kInsertFile = QStringLiteral("INSERT INTO group_files (guid, file_id, name, size, algorithm, digest,"
                                           " checked_at, state) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
const QString kFileCheckColumns = QStringLiteral("file_id, name, size, algorithm, digest, checked_at, state");
const QString kTouch = QStringLiteral("UPDATE file_groups SET modification_time = ? WHERE guid = ?");
const QString kRememberUser = QStringLiteral("INSERT INTO known_users (name) VALUES (?) ON CONFLICT DO NOTHING");
const QStringList kDeleteGroup{QStringLiteral("DELETE FROM group_files WHERE guid = ?"),
                               QStringLiteral("DELETE FROM group_locks WHERE guid = ?"),
                               QStringLiteral("DELETE FROM group_references WHERE guid = ?"),
                               QStringLiteral("DELETE FROM move_claims WHERE guid = ?"),
                               QStringLiteral("DELETE FROM file_groups WHERE guid = ?")};

QVariant timeValue(const QDateTime &time)
{
    return time.isValid() ? QVariant(time.toMSecsSinceEpoch()) : QVariant(QVariant::LongLong);
}

// Qt SQL binds a null QString as NULL; texts are never NULL in the tables.
QString text(const QString &value)
{
    return value.isNull() ? QStringLiteral("") : value;
}

QVariant optionalText(const QString &value)
{
    return value.isEmpty() ? QVariant(QVariant::String) : QVariant(value);
}

// The values of kFileCheckColumns after file_id and name.
QVariantList checkValues(const FileCheck &check)
{
    const bool read = check.size >= 0;
    return {read ? QVariant(check.size) : QVariant(QVariant::LongLong), optionalText(check.algorithm),
            optionalText(check.digest), check.checkedMs > 0 ? QVariant(check.checkedMs) : QVariant(QVariant::LongLong),
            FileCheck::stateText(check.state)};
}

FileCheck checkFromRow(const ResultRows &rows)
{
    FileCheck check;
    check.fileId = int(rows.number(0));
    check.name = rows.text(1);
    check.size = rows.isNull(2) ? -1 : rows.number(2);
    check.algorithm = rows.isNull(3) ? QString() : rows.text(3);
    check.digest = rows.isNull(4) ? QString() : rows.text(4);
    check.checkedMs = rows.isNull(5) ? 0 : rows.number(5);
    check.state = FileCheck::stateFromText(rows.text(6)).value_or(FileCheck::State::Unverified);
    return check;
}

QVariantList groupValues(const StoredGroup &group)
{
    const FileGroupData &data = group.data;
    QVariantList values{text(data.getGuid()),
                        text(data.getFileGroupName()),
                        SearchStatement::searchKey(data.getFileGroupName()),
                        int(data.getFileType()),
                        int(data.getLocationState()),
                        timeValue(data.getBackupTime()),
                        timeValue(data.getCreationTime()),
                        timeValue(data.getModificationTime()),
                        timeValue(data.getLifeCycle())};
    for (const QString &value :
         {data.getComment(), data.getCreator(), data.getDetail(), data.getTeamMembership(), data.getVersion()}) {
        values.append(text(value));
        values.append(SearchStatement::searchKey(value));
    }
    values << qint64(data.getReservedStorage()) << data.getReferenceCounter() << text(group.path)
           << optionalText(group.tovinId) << optionalText(group.recordId) << group.copyProgress << group.fixedResultXml
           << (group.singleGuidDirectory ? QVariant(1) : QVariant(QVariant::Int));
    return values;
}

// Repeats the last value up to a multiple of eight, so that a few
// statements of fixed length serve lists of every length.
QStringList paddedToEight(QStringList values)
{
    const QString last = values.last();
    while (values.size() % 8 != 0)
        values.append(last);
    return values;
}

// Every folder above a directory and the directory itself.
QStringList directoryAndParents(const QString &directory)
{
    QStringList candidates;
    for (int at = directory.indexOf(QLatin1Char('/'), 1); at > 0; at = directory.indexOf(QLatin1Char('/'), at + 1))
        candidates.append(directory.left(at));
    candidates.append(directory);
    return paddedToEight(candidates);
}

QString marks(int count)
{
    QStringList list;
    for (int i = 0; i < count; ++i)
        list.append(QStringLiteral("?"));
    return list.join(QLatin1String(", "));
}

} // namespace

bool ArchiveStore::open(const DatabaseLocation &location)
{
    if (!m_db.open(location))
        return false;
    if (!m_db.isPostgres())
        m_db.setBeforeCommit([this] { flushTextIndexes(false); });
    return true;
}

void ArchiveStore::flushTextIndexes(bool all)
{
    if (isPostgres())
        return;
    ResultRows &waiting = m_db.run(ArchiveSchema::pendingTextCheck(all), {}, KE_DatabaseNotAvailable);
    std::vector<bool> due(size_t(ArchiveSchema::deferredTextIndexCount()), false);
    if (waiting.next()) {
        for (size_t i = 0; i < due.size(); ++i)
            due[i] = waiting.flag(int(i));
    }
    waiting.finish();
    for (size_t i = 0; i < due.size(); ++i) {
        if (!due[i])
            continue;
        for (const QString &sql : ArchiveSchema::textIndexFlush(int(i)))
            m_db.run(sql, {}, KE_DatabaseNotAvailable);
    }
}

void ArchiveStore::setLocksGroups(bool locks)
{
    m_locksGroups = locks;
    m_db.setHoldsLiveness(locks);
}

QString ArchiveStore::forUpdate() const
{
    return m_locksGroups ? QStringLiteral(" FOR UPDATE") : QString();
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
    group.copyProgress = row.real(GroupRow::Progress);
    return group;
}

std::optional<StoredGroup> ArchiveStore::group(const QString &guid)
{
    ResultRows &rows = m_db.run(QStringLiteral("SELECT ") + kGroupColumns +
                                    QStringLiteral(" FROM file_groups g WHERE g.guid = ?") + forUpdate(),
                                {guid}, KE_ReadFileGroupFromDbFailed);
    std::optional<StoredGroup> result;
    if (rows.next())
        result = groupFromRow(GroupRow(rows));
    rows.finish();
    return result;
}

std::optional<GroupPlace> ArchiveStore::groupPlace(const QString &guid)
{
    ResultRows &rows =
        m_db.run(QStringLiteral("SELECT guid, path, location_state FROM file_groups WHERE guid = ?") + forUpdate(),
                 {guid}, KE_ReadFileGroupFromDbFailed);
    std::optional<GroupPlace> place;
    if (rows.next())
        place = GroupPlace{rows.text(0), rows.text(1), static_cast<LocationState>(rows.number(2))};
    rows.finish();
    return place;
}

NewGroupConflicts ArchiveStore::newGroupConflicts(const QString &guid, const QString &directory,
                                                  const QStringList &otherGuids)
{
    NewGroupConflicts conflicts;
    if (directory.isEmpty()) {
        conflicts.exists = m_db.run(QStringLiteral("SELECT guid FROM file_groups WHERE guid = ?"), {guid},
                                    KE_ReadFileGroupFromDbFailed)
                               .firstText()
                               .has_value();
        return conflicts;
    }
    // Directories compare byte by byte, as the file system names them, so
    // that everything below "X/" sorts between "X/" and "X0". The index of
    // directories holds only those that name other GUIDs than their own;
    // a directory that names none may still hold this one, and then this
    // one names its GUID.
    const QString path = ArchiveSchema::pathColumn(isPostgres());
    const QStringList candidates = directoryAndParents(directory);
    QVariantList values{guid};
    for (const QString &candidate : candidates)
        values.append(candidate);
    values << directory + QLatin1Char('/') << directory + QLatin1Char('0');
    QString sql =
        QStringLiteral("SELECT 1, guid FROM file_groups WHERE guid = ?"
                       " UNION ALL SELECT 2, a.guid FROM (SELECT guid FROM file_groups WHERE %1 IN (%2) AND %3"
                       " LIMIT 1) a"
                       " UNION ALL SELECT 3, b.guid FROM (SELECT guid FROM file_groups WHERE %1 >= ? AND %1 < ?"
                       " AND %3 LIMIT 1) b")
            .arg(path, marks(candidates.size()), ArchiveSchema::IndexedDirectories);
    if (!otherGuids.isEmpty()) {
        const QStringList named = paddedToEight(otherGuids);
        sql += QStringLiteral(" UNION ALL SELECT 2, guid FROM file_groups WHERE guid IN (%1) AND %2 IN (%3)")
                   .arg(marks(named.size()), path, marks(candidates.size()));
        for (const QString &other : named)
            values.append(other);
        for (const QString &candidate : candidates)
            values.append(candidate);
    }
    ResultRows &rows = m_db.run(sql, values, KE_ReadFileGroupFromDbFailed);
    // Unordered, which spares a sort: a group whose directory holds this
    // one is still named before a group this one would hold.
    std::optional<QString> inside;
    while (rows.next()) {
        switch (rows.number(0)) {
        case 1:
            conflicts.exists = true;
            break;
        case 2:
            conflicts.around = rows.text(1);
            break;
        default:
            inside = rows.text(1);
            break;
        }
    }
    rows.finish();
    if (!conflicts.around)
        conflicts.around = inside;
    return conflicts;
}

void ArchiveStore::addGroup(const StoredGroup &group, const GroupAnnouncement &announcement)
{
    const QString creator = text(group.data.getCreator());
    if (!isPostgres()) {
        m_db.run(kInsertGroup, groupValues(group), KE_InsertFileGroupInDbFailed);
        rememberUser(creator);
        return;
    }
    // One round trip: the group, its creator, and the notification that
    // goes out when the transaction commits.
    m_db.run(QStringLiteral("WITH added AS (%1 RETURNING guid),"
                            " known AS (INSERT INTO known_users (name) SELECT n FROM (VALUES (CAST(? AS TEXT))) v (n)"
                            " WHERE n <> '' ON CONFLICT DO NOTHING)"
                            " SELECT pg_notify('%2', CAST(? AS TEXT)) FROM added")
                 .arg(kInsertGroup, GroupAnnouncement::Channel),
             groupValues(group) << creator << announcement.payload(), KE_InsertFileGroupInDbFailed)
        .finish();
}

void ArchiveStore::deleteGroup(const QString &guid)
{
    if (!isPostgres()) {
        for (const QString &sql : kDeleteGroup)
            m_db.run(sql, {guid}, KE_DeleteFileGroupFromDbFailed);
        return;
    }
    QStringList parts;
    QVariantList values;
    for (int i = 0; i + 1 < kDeleteGroup.size(); ++i) {
        parts.append(QStringLiteral("d%1 AS (%2)").arg(i).arg(kDeleteGroup.at(i)));
        values.append(guid);
    }
    values.append(guid);
    m_db.run(QStringLiteral("WITH ") + parts.join(QLatin1String(", ")) + QLatin1Char(' ') + kDeleteGroup.last(), values,
             KE_DeleteFileGroupFromDbFailed);
}

void ArchiveStore::updateLocation(const QString &guid, int locationState, const QString &path, double copyProgress)
{
    m_db.run(QStringLiteral("UPDATE file_groups SET location_state = ?, path = ?, copy_progress = ? WHERE guid = ?"),
             {locationState, path, copyProgress, guid}, KE_UpdateFileGroupInDbFailed);
}

void ArchiveStore::touch(const QString &guid, qint64 utcMs)
{
    m_db.run(kTouch, {utcMs, guid}, KE_UpdateFileGroupInDbFailed);
}

std::optional<QString> ArchiveStore::tovinGroup(const QString &tovinId, const QString &recordId)
{
    return m_db
        .run(QStringLiteral(
                 "SELECT guid FROM file_groups WHERE tovin_id = ? AND record_id = ? ORDER BY creation_time, guid"),
             {tovinId, recordId}, KE_ReadFileGroupFromDbFailed)
        .firstText();
}

QStringList ArchiveStore::firstColumn(ResultRows &rows)
{
    QStringList result;
    while (rows.next())
        result.append(rows.text(0));
    rows.finish();
    return result;
}

QStringList ArchiveStore::groupsInState(int locationState)
{
    return firstColumn(m_db.run(QStringLiteral("SELECT guid FROM file_groups WHERE ") +
                                    ArchiveSchema::locationCriterion(QString(), locationState),
                                {locationState}, KE_ReadFileGroupFromDbFailed));
}

void ArchiveStore::recordMoveClaim(const QString &guid)
{
    m_db.run(QStringLiteral("INSERT INTO move_claims (guid, owner) VALUES (?, ?)"
                            " ON CONFLICT (guid) DO UPDATE SET owner = excluded.owner"),
             {guid, m_db.instanceId()}, KE_UpdateFileGroupInDbFailed);
}

bool ArchiveStore::claimMove(const QString &guid)
{
    const std::optional<QString> owner =
        m_db.run(QStringLiteral("SELECT owner FROM move_claims WHERE guid = ?") + forUpdate(), {guid},
                 KE_ReadFileGroupFromDbFailed)
            .firstText();
    if (owner && m_db.ownerAlive(*owner))
        return *owner == m_db.instanceId();
    recordMoveClaim(guid);
    return true;
}

void ArchiveStore::dropMoveClaim(const QString &guid)
{
    m_db.run(QStringLiteral("DELETE FROM move_claims WHERE guid = ?"), {guid}, KE_UpdateFileGroupInDbFailed);
}

FileGroupData::FileList ArchiveStore::files(const QString &guid)
{
    ResultRows &rows = m_db.run(QStringLiteral("SELECT file_id, name FROM group_files WHERE guid = ? ORDER BY file_id"),
                                {guid}, KE_ReadFileFromDbFailed);
    FileGroupData::FileList result;
    while (rows.next())
        result.emplace_back(rows.text(1), int(rows.number(0)));
    rows.finish();
    return result;
}

std::optional<QString> ArchiveStore::fileName(const QString &guid, int fileId)
{
    return m_db
        .run(QStringLiteral("SELECT name FROM group_files WHERE guid = ? AND file_id = ?"), {guid, fileId},
             KE_ReadFileFromDbFailed)
        .firstText();
}

FileFacts ArchiveStore::fileFacts(const QString &guid, const QString &name, qint64 wantedId)
{
    const int wanted = wantedId > 0 && wantedId <= INT_MAX ? int(wantedId) : 0;
    ResultRows &rows = m_db.run(QStringLiteral("SELECT COALESCE(MAX(CASE WHEN name = ? THEN 1 ELSE 0 END), 0),"
                                               " COALESCE(MAX(CASE WHEN file_id = ? THEN 1 ELSE 0 END), 0),"
                                               " COALESCE(MAX(file_id), 0) FROM group_files WHERE guid = ?"),
                                {text(name), wanted, guid}, KE_ReadFileFromDbFailed);
    FileFacts facts;
    if (rows.next()) {
        facts.nameTaken = rows.number(0) != 0;
        facts.idTaken = wanted != 0 && rows.number(1) != 0;
        facts.highestId = int(rows.number(2));
    }
    rows.finish();
    return facts;
}

FileAccess ArchiveStore::fileAccess(const QString &guid, int fileId)
{
    ResultRows &rows = m_db.run(QStringLiteral("SELECT 0, name, 0 FROM group_files WHERE guid = ? AND file_id = ?"
                                               " UNION ALL SELECT 1, holder, write_lock FROM group_locks"
                                               " WHERE guid = ?"),
                                {guid, fileId, guid}, KE_ReadLockFromDbFailed);
    FileAccess access;
    while (rows.next()) {
        if (rows.number(0) == 0)
            access.name = rows.text(1);
        else
            access.locks.push_back({rows.text(1), rows.number(2) != 0});
    }
    rows.finish();
    return access;
}

void ArchiveStore::insertFile(const QString &guid, int fileId, const QString &name, const FileCheck &check)
{
    m_db.run(kInsertFile, QVariantList{guid, fileId, text(name)} + checkValues(check), KE_InsertFileInDbFailed);
}

void ArchiveStore::addFile(const QString &guid, int fileId, const QString &name, qint64 utcMs, const FileCheck &check)
{
    if (!isPostgres()) {
        insertFile(guid, fileId, name, check);
        touch(guid, utcMs);
        return;
    }
    m_db.run(QStringLiteral("WITH added AS (%1) %2").arg(kInsertFile, kTouch),
             QVariantList{guid, fileId, text(name)} + checkValues(check) + QVariantList{utcMs, guid},
             KE_InsertFileInDbFailed);
}

std::vector<FileCheck> ArchiveStore::fileChecks(const QString &guid)
{
    ResultRows &rows =
        m_db.run(QStringLiteral("SELECT %1 FROM group_files WHERE guid = ? ORDER BY file_id").arg(kFileCheckColumns),
                 {guid}, KE_ReadFileFromDbFailed);
    std::vector<FileCheck> result;
    while (rows.next())
        result.push_back(checkFromRow(rows));
    rows.finish();
    return result;
}

void ArchiveStore::recordCheck(const QString &guid, const FileCheck &check)
{
    m_db.run(QStringLiteral("UPDATE group_files SET size = ?, algorithm = ?, digest = ?, checked_at = ?, state = ?"
                            " WHERE guid = ? AND file_id = ?"),
             checkValues(check) + QVariantList{guid, check.fileId}, KE_InsertFileInDbFailed);
}

std::vector<DueFile> ArchiveStore::dueFiles(qint64 checkedBeforeMs, int limit)
{
    // Two looks rather than one ordering with NULLs first, which the two
    // databases spell differently; each walks the index on checked_at.
    const QString select = QStringLiteral(
        "SELECT f.guid, g.path, f.file_id, f.name FROM group_files f JOIN file_groups g ON g.guid = f.guid"
        " WHERE %1 AND g.location_state <> ? ORDER BY f.checked_at, f.guid, f.file_id LIMIT ?");
    std::vector<DueFile> due;
    const auto collect = [&](const QString &condition, const QVariantList &values) {
        ResultRows &rows =
            m_db.run(select.arg(condition), values + QVariantList{int(LS_CentralNotMoved), limit - int(due.size())},
                     KE_ReadFileFromDbFailed);
        while (rows.next())
            due.push_back({rows.text(0), rows.text(1), int(rows.number(2)), rows.text(3)});
        rows.finish();
    };
    collect(QStringLiteral("f.checked_at IS NULL"), {});
    if (int(due.size()) < limit)
        collect(QStringLiteral("f.checked_at < ?"), {checkedBeforeMs});
    return due;
}

void ArchiveStore::deleteFile(const QString &guid, int fileId)
{
    m_db.run(QStringLiteral("DELETE FROM group_files WHERE guid = ? AND file_id = ?"), {guid, fileId},
             KE_DeleteFileFromDbFailed);
}

std::vector<LockHolder> ArchiveStore::locks(const QString &guid)
{
    ResultRows &rows = m_db.run(QStringLiteral("SELECT holder, write_lock FROM group_locks WHERE guid = ?"), {guid},
                                KE_ReadLockFromDbFailed);
    std::vector<LockHolder> result;
    while (rows.next())
        result.push_back({rows.text(0), rows.number(1) != 0});
    rows.finish();
    return result;
}

void ArchiveStore::setLock(const QString &guid, const QString &holder, bool write)
{
    m_db.run(QStringLiteral("INSERT INTO group_locks (guid, holder, holder_key, write_lock) VALUES (?, ?, ?, ?)"
                            " ON CONFLICT (guid, holder) DO UPDATE SET write_lock = excluded.write_lock"),
             {guid, text(holder), SearchStatement::searchKey(holder), write ? 1 : 0}, KE_InsertLockInDbFailed);
}

int ArchiveStore::releaseLocks(const QString &guid, const QString &holder)
{
    return m_db
        .run(QStringLiteral("DELETE FROM group_locks WHERE guid = ? AND holder = ?"), {guid, text(holder)},
             KE_DeleteLockFromDbFailed)
        .affected();
}

int ArchiveStore::referenceCount(const QString &guid, const QString &application)
{
    ResultRows &rows =
        m_db.run(QStringLiteral("SELECT ref_count FROM group_references WHERE guid = ? AND application = ?"),
                 {guid, text(application)}, KE_ReadReferenceFromDbFailed);
    const int count = rows.next() ? int(rows.number(0)) : 0;
    rows.finish();
    return count;
}

void ArchiveStore::setReferenceCount(const QString &guid, const QString &application, int count)
{
    if (count > 0)
        m_db.run(QStringLiteral("INSERT INTO group_references (guid, application, application_key, ref_count)"
                                " VALUES (?, ?, ?, ?)"
                                " ON CONFLICT (guid, application) DO UPDATE SET ref_count = excluded.ref_count"),
                 {guid, text(application), SearchStatement::searchKey(application), count},
                 KE_InsertReferenceInDbFailed);
    else
        m_db.run(QStringLiteral("DELETE FROM group_references WHERE guid = ? AND application = ?"),
                 {guid, text(application)}, KE_DeleteReferenceFromDbFailed);
    refreshCounters(guid);
}

void ArchiveStore::refreshCounters(const QString &guid)
{
    m_db.run(QStringLiteral("UPDATE file_groups SET reference_counter ="
                            " (SELECT COALESCE(SUM(ref_count), 0) FROM group_references r WHERE r.guid = ?)"
                            " WHERE guid = ?"),
             {guid, guid}, KE_UpdateFileGroupInDbFailed);
}

void ArchiveStore::rememberUser(const QString &name)
{
    if (!name.isEmpty())
        m_db.run(kRememberUser, {name}, KE_UnknownError);
}

void ArchiveStore::rememberApplication(const QString &name)
{
    if (!name.isEmpty())
        m_db.run(QStringLiteral("INSERT INTO known_applications (name) VALUES (?) ON CONFLICT DO NOTHING"), {name},
                 KE_UnknownError);
}

QStringList ArchiveStore::names(const QString &sql)
{
    return firstColumn(m_db.run(sql, {}, KE_UnknownError));
}

QStringList ArchiveStore::users()
{
    return names(QStringLiteral("SELECT name FROM known_users ORDER BY name"));
}

QStringList ArchiveStore::applications()
{
    return names(QStringLiteral("SELECT name FROM known_applications ORDER BY name"));
}

int ArchiveStore::samplePercent(const QString &table)
{
    // The planner's row count, kept by autovacuum; unknown before the
    // table's first analysis, when the whole of a young table is read.
    ResultRows &rows = m_db.run(QStringLiteral("SELECT reltuples FROM pg_class WHERE oid = CAST(? AS regclass)"),
                                {table}, KE_QueryFilesFailed);
    const double estimate = rows.next() ? rows.real(0) : -1;
    rows.finish();
    if (estimate < TrigramStatistics::SampleRows)
        return 100;
    return qMax(1, int(100.0 * TrigramStatistics::SampleRows / estimate));
}

void ArchiveStore::sampleTable(const QString &table, const QStringList &columns, const QString &index)
{
    // Rows from all over the table, whatever order its keys were made in:
    // random ids on SQLite, random pages on PostgreSQL.
    const QString names = columns.join(QLatin1String(", "));
    ResultRows &rows = isPostgres()
        ? m_db.run(QStringLiteral("SELECT %1 FROM %2 TABLESAMPLE SYSTEM (?) LIMIT ?").arg(names, table),
                   {samplePercent(table), TrigramStatistics::SampleRows}, KE_QueryFilesFailed)
        : m_db.run(QStringLiteral("WITH RECURSIVE picks (n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM picks WHERE n < ?)"
                                  " SELECT %1 FROM %2 WHERE id IN"
                                  " (SELECT 1 + abs(random() % (SELECT MAX(id) FROM %2)) FROM picks)")
                       .arg(names, table),
                   {TrigramStatistics::SampleRows}, KE_QueryFilesFailed);
    while (rows.next()) {
        QStringList texts;
        for (int i = 0; i < columns.size(); ++i) {
            texts.append(rows.text(i));
            m_statistics.count(columns.at(i), {texts.last()});
        }
        m_statistics.count(index, texts);
    }
    rows.finish();
}

void ArchiveStore::sampleSearchKeys()
{
    m_statistics.clear();
    sampleTable(QStringLiteral("file_groups"),
                {QStringLiteral("name_key"), QStringLiteral("comment_key"), QStringLiteral("detail_key"),
                 QStringLiteral("creator_key"), QStringLiteral("team_key"), QStringLiteral("version_key")},
                ArchiveSchema::GroupTextIndex);
    sampleTable(QStringLiteral("group_references"), {QStringLiteral("application_key")},
                ArchiveSchema::ReferenceTextIndex);
    m_sampled.start();
}

void ArchiveStore::search(const GroupSearch &criteria, const std::function<void(const SearchRow &)> &visit)
{
    const bool small = m_statistics.rows(ArchiveSchema::GroupTextIndex) < TrigramStatistics::SampleRows / 2;
    if (!m_sampled.isValid() || m_sampled.hasExpired(small ? SmallSampleAgeMs : SampleAgeMs))
        sampleSearchKeys();
    const SearchStatement statement(criteria, isPostgres(), m_statistics);
    m_db.visit(statement.sql(), statement.values(), KE_QueryFilesFailed,
               [&visit](const ResultRows &rows) { visit(SearchRow(rows)); });
}

} // namespace Kelda
