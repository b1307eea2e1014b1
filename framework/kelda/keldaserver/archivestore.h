#pragma once

#include "archivedatabase.h"
#include "filecheck.h"
#include "filegroupdata.h"
#include "filetype.h"
#include "groupannouncement.h"
#include "groupsearch.h"
#include "resultrows.h"
#include "trigramstatistics.h"

#include <QElapsedTimer>

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <vector>

namespace Kelda {

// A group as stored: the record that travels in replies plus what only the
// server keeps. Times in the record are local times (that is how replies
// carry them); the table holds them as UTC milliseconds.
struct StoredGroup
{
    FileGroupData data; // without file list unless asked for
    QString path; // the group's directory, absolute
    // The directory names no GUID but the group's own below the base path.
    bool singleGuidDirectory = false;
    QString tovinId;
    QString recordId;
    double copyProgress = 0; // percent of a running move to network storage
    // The children of the group's query result element that never change,
    // ready to send: a large result is copied together from these.
    QByteArray fixedResultXml;
};

// Where a group's files are and whether it is being moved: what requests
// on single files need of it, without the rest of its row.
struct GroupPlace
{
    QString guid;
    QString path;
    LocationState locationState = LS_Undefined;
};

struct LockHolder
{
    QString holder; // the lock identity "address|application|user"
    bool write = false;
};

// What stands in the way of a new group: a group of the same GUID, and one
// whose directory lies at, above or below the one wanted.
struct NewGroupConflicts
{
    bool exists = false;
    std::optional<QString> around;
};

// What adding a file to a group must know of the files it holds.
struct FileFacts
{
    bool nameTaken = false;
    bool idTaken = false;
    int highestId = 0;
};

// What a request for one file of a group must know.
struct FileAccess
{
    std::optional<QString> name; // absent when the group holds no such file
    std::vector<LockHolder> locks;
};

// A file whose latest reading is old enough to be read again.
struct DueFile
{
    QString guid;
    QString directory; // the group's directory
    int fileId = 0;
    QString name;
};

// One row of a group, read column by column.
class GroupRow
{
public:
    enum Column {
        Guid,
        Name,
        FileType,
        Location,
        Backup,
        Creation,
        Modification,
        LifeCycle,
        Comment,
        Creator,
        Detail,
        Team,
        Version,
        Reserved,
        References,
        Path,
        TovinId,
        RecordId,
        Progress
    };
    explicit GroupRow(const ResultRows &rows)
        : m_rows(rows)
    { }
    QString text(Column column) const { return m_rows.text(column); }
    qint64 number(Column column) const { return m_rows.number(column); }
    double real(Column column) const { return m_rows.real(column); }
    bool isNull(Column column) const { return m_rows.isNull(column); }

private:
    const ResultRows &m_rows;
};

// One row of a search: the fixed part of the result element and the
// columns that change over a group's life.
class SearchRow
{
public:
    enum Column { FixedXml, Location, Backup, Creation, Modification, LifeCycle, References };
    explicit SearchRow(const ResultRows &rows)
        : m_rows(rows)
    { }
    QByteArray bytes(Column column) const { return m_rows.bytes(column); }
    qint64 number(Column column) const { return m_rows.number(column); }
    bool isNull(Column column) const { return m_rows.isNull(column); }

private:
    const ResultRows &m_rows;
};

// The archive's metadata as the rules need it: groups, their files, locks
// and references, and searches. The statements are the same on SQLite and
// PostgreSQL wherever the two agree; the connection, schema and
// transactions are the ArchiveDatabase's, whose transaction control the
// store passes on to its callers.
//
// On PostgreSQL several servers share the tables. Whatever decides locks,
// file ids, references or deletions is read with the group's row locked
// (see setLocksGroups), so the changes of one group are carried out one
// after another across all servers.
class ArchiveStore
{
public:
    ArchiveStore() = default;
    ArchiveStore(const ArchiveStore &) = delete;
    ArchiveStore &operator=(const ArchiveStore &) = delete;

    ArchiveDatabase &database() { return m_db; }

    void setInstanceId(const QString &id) { m_db.setInstanceId(id); }
    // Reads of a group lock its row until the transaction ends, and the
    // connection stands for the server: for the writer of a shared
    // database.
    void setLocksGroups(bool locks);

    // On SQLite, every commit brings the trigram indexes up to date first.
    bool open(const DatabaseLocation &location);
    bool reopen() { return m_db.reopen(); }
    QString errorString() const { return m_db.errorString(); }
    bool schemaTooNew() const { return m_db.schemaTooNew(); }
    bool isPostgres() const { return m_db.isPostgres(); }
    bool connectionLost() const { return m_db.connectionLost(); }

    void begin() { m_db.begin(); }
    bool commit() { return m_db.commit(); }
    void rollback() { m_db.rollback(); }
    void savepoint() { m_db.savepoint(); }
    void releaseSavepoint() { m_db.releaseSavepoint(); }
    void rollbackToSavepoint() { m_db.rollbackToSavepoint(); }
    void writeCommitMark(qint64 token) { m_db.writeCommitMark(token); }
    bool hasCommitMark(qint64 token) { return m_db.hasCommitMark(token); }
    void dropCommitMark() { m_db.dropCommitMark(); }
    // Hands the rows noted for SQLite's trigram indexes to them: all, or
    // (as every commit does) those of an index with TextFlushRows waiting.
    void flushTextIndexes(bool all);

    std::optional<StoredGroup> group(const QString &guid);
    // Where a group is: a look that builds no whole group; held for update
    // like group().
    std::optional<GroupPlace> groupPlace(const QString &guid);
    // An empty directory asks only for the GUID; otherGuids are the GUIDs
    // its folders name besides guid.
    NewGroupConflicts newGroupConflicts(const QString &guid, const QString &directory, const QStringList &otherGuids);
    // Stores a new group, remembers its creator and, on a shared database,
    // tells every server listening of it when the transaction commits.
    void addGroup(const StoredGroup &group, const GroupAnnouncement &announcement);
    void deleteGroup(const QString &guid);
    void updateLocation(const QString &guid, int locationState, const QString &path, double copyProgress);
    void touch(const QString &guid, qint64 utcMs);
    std::optional<QString> tovinGroup(const QString &tovinId, const QString &recordId);
    // Groups whose move to network storage was under way.
    QStringList groupsInState(int locationState);
    // A move is carried out by the server that claimed it. claimMove takes
    // the group's move for this server when nobody alive holds it.
    void recordMoveClaim(const QString &guid);
    bool claimMove(const QString &guid);
    void dropMoveClaim(const QString &guid);

    FileGroupData::FileList files(const QString &guid);
    std::optional<QString> fileName(const QString &guid, int fileId);
    // wantedId outside 1..INT_MAX is never taken.
    FileFacts fileFacts(const QString &guid, const QString &name, qint64 wantedId);
    FileAccess fileAccess(const QString &guid, int fileId);
    // Without a check the file is "unverified".
    void insertFile(const QString &guid, int fileId, const QString &name, const FileCheck &check = FileCheck());
    // Inserts the file and sets the group's modification time.
    void addFile(const QString &guid, int fileId, const QString &name, qint64 utcMs, const FileCheck &check);
    // The group's files with what is known of their integrity, by id.
    std::vector<FileCheck> fileChecks(const QString &guid);
    // Replaces what is recorded of the file check.fileId.
    void recordCheck(const QString &guid, const FileCheck &check);
    // Files never read, then those read before checkedBeforeMs, oldest
    // reading first; none of a group on its way to network storage.
    std::vector<DueFile> dueFiles(qint64 checkedBeforeMs, int limit);
    void deleteFile(const QString &guid, int fileId);

    std::vector<LockHolder> locks(const QString &guid);
    void setLock(const QString &guid, const QString &holder, bool write);
    int releaseLocks(const QString &guid, const QString &holder);

    int referenceCount(const QString &guid, const QString &application);
    void setReferenceCount(const QString &guid, const QString &application, int count);

    void rememberUser(const QString &name);
    void rememberApplication(const QString &name);
    QStringList users();
    QStringList applications();

    // Calls visit for every match, ordered by creation time and GUID.
    void search(const GroupSearch &criteria, const std::function<void(const SearchRow &)> &visit);

    // How long a sample of the search keys serves before it is taken again;
    // a sample of a small archive, which grows fast in proportion, soon.
    static constexpr int SampleAgeMs = 5 * 60 * 1000;
    static constexpr int SmallSampleAgeMs = 10 * 1000;

private:
    StoredGroup groupFromRow(const GroupRow &row) const;
    QStringList firstColumn(ResultRows &rows);
    QStringList names(const QString &sql);
    void refreshCounters(const QString &guid);
    QString forUpdate() const;
    void sampleSearchKeys();
    // Counts the trigrams of a sample of the table's rows per column, and
    // per row under the name of the table's index.
    void sampleTable(const QString &table, const QStringList &columns, const QString &index);
    int samplePercent(const QString &table);

    ArchiveDatabase m_db;
    bool m_locksGroups = false;
    TrigramStatistics m_statistics;
    QElapsedTimer m_sampled;
};

} // namespace Kelda
