#pragma once

#include "databaselocation.h"
#include "filegroupdata.h"
#include "filetype.h"
#include "requestfailure.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Kelda {

// A group as stored: the record that travels in replies plus what only the
// server keeps. Times in the record are local times (that is how replies
// carry them); the table holds them as UTC milliseconds.
struct StoredGroup
{
    FileGroupData data;     // without file list unless asked for
    QString path;           // the group's directory, absolute
    QString tovinId;
    QString recordId;
    double copyProgress = 0; // percent of a running move to network storage
    // The children of the group's query result element that never change,
    // ready to send: a large result is copied together from these.
    QByteArray fixedResultXml;
};

struct LockHolder
{
    QString holder; // the lock identity "address|application|user"
    bool write = false;
};

// One row of a group, read column by column.
class GroupRow
{
public:
    enum Column {
        Guid, Name, FileType, Location, Backup, Creation, Modification, LifeCycle, Comment, Creator, Detail, Team,
        Version, Reserved, References, Path, TovinId, RecordId, Progress
    };
    explicit GroupRow(const QSqlQuery &query)
        : m_query(query)
    {
    }
    QString text(Column column) const { return m_query.value(column).toString(); }
    qint64 number(Column column) const { return m_query.value(column).toLongLong(); }
    bool isNull(Column column) const { return m_query.isNull(column); }

private:
    const QSqlQuery &m_query;
};

// One row of a search: the fixed part of the result element and the
// columns that change over a group's life.
class SearchRow
{
public:
    enum Column { FixedXml, Location, Backup, Creation, Modification, LifeCycle, References };
    explicit SearchRow(const QSqlQuery &query)
        : m_query(query)
    {
    }
    QByteArray bytes(Column column) const { return m_query.value(column).toByteArray(); }
    qint64 number(Column column) const { return m_query.value(column).toLongLong(); }
    bool isNull(Column column) const { return m_query.isNull(column); }

private:
    const QSqlQuery &m_query;
};

// Criteria of a group search, already parsed. Empty texts and zero states
// mean "any"; time bounds are UTC milliseconds, absent when open.
struct GroupSearch
{
    QString name, comment, detail, creator, team, version, lockUser, referencingApplication;
    std::vector<int> fileTypes;
    int locationState = 0;
    int lockState = 0;
    struct Range
    {
        std::optional<qint64> min, max;
    };
    Range backup, creation, lifeCycle, modification;
};

// The metadata tables of the archive, reached through Qt SQL, in SQLite or
// PostgreSQL. One set of statements serves both; where they differ (setup,
// row locks, notifications) the store asks isPostgres(). The SQLite
// connection runs in WAL mode with synchronous=FULL so that a commit
// survives power loss.
//
// On PostgreSQL several servers share the tables. Whatever decides locks,
// file ids, references or deletions is read with the group's row locked
// (see setLocksGroups), so the changes of one group are carried out one
// after another across all servers.
//
// Every failing statement throws RequestFailure with the code its caller
// names, so the handlers stay linear. One thread owns an instance.
class ArchiveStore
{
public:
    ArchiveStore();
    ~ArchiveStore();
    ArchiveStore(const ArchiveStore &) = delete;
    ArchiveStore &operator=(const ArchiveStore &) = delete;

    // The schema this build writes; a database with a newer one is refused.
    static constexpr int SchemaVersion = 1;

    // Opens (creating when missing) the database and its tables; false with
    // errorString() on failure, and schemaTooNew() when the reason is a
    // schema of a later build.
    bool open(const DatabaseLocation &location);
    // Drops the connection and opens it again, after it was lost.
    bool reopen();
    QString errorString() const { return m_error; }
    bool schemaTooNew() const { return m_schemaTooNew; }
    bool isPostgres() const { return m_location.isPostgres(); }
    // A statement failed because the connection to the database is gone;
    // nothing works until reopen() succeeds.
    bool connectionLost() const { return m_connectionLost; }

    // This server among those sharing the database: names its commit marks,
    // its move claims and its notifications. Set before open().
    void setInstanceId(const QString &id) { m_instanceId = id; }
    // Reads of a group lock its row until the transaction ends: for the
    // writer of a shared database.
    void setLocksGroups(bool locks) { m_locksGroups = locks; }

    // Commit marks tell whether a transaction whose COMMIT got no answer
    // was saved: the writer records one before committing and looks for it
    // after reconnecting.
    void writeCommitMark(qint64 token);
    bool hasCommitMark(qint64 token);
    // At a clean stop: every answer is out, the mark has served.
    void dropCommitMark();

    void begin();
    bool commit();
    void rollback();
    void savepoint();
    void releaseSavepoint();
    void rollbackToSavepoint();

    std::optional<StoredGroup> group(const QString &guid);
    void insertGroup(const StoredGroup &group);
    void deleteGroup(const QString &guid);
    void updateLocation(const QString &guid, int locationState, const QString &path, double copyProgress);
    // A group whose directory is directory, lies above it or below it.
    std::optional<QString> groupAround(const QString &directory);
    void touch(const QString &guid, qint64 utcMs);
    std::optional<QString> tovinGroup(const QString &tovinId, const QString &recordId);
    // Groups whose move to network storage was under way.
    QStringList groupsInState(int locationState);
    // A move is carried out by the server that claimed it. claimMove takes
    // the group's move for this server when nobody alive holds it.
    void recordMoveClaim(const QString &guid);
    bool claimMove(const QString &guid);
    void dropMoveClaim(const QString &guid);
    // Tells every server listening on the database of a new group, when
    // the transaction commits.
    void announceGroup(const QString &guid, int fileType, const QString &path);

    FileGroupData::FileList files(const QString &guid);
    std::optional<QString> fileName(const QString &guid, int fileId);
    bool hasFileNamed(const QString &guid, const QString &name);
    bool hasFileId(const QString &guid, int fileId);
    int maxFileId(const QString &guid);
    void insertFile(const QString &guid, int fileId, const QString &name);
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

    // Lower-cased form kept beside every searchable text.
    static QString searchKey(const QString &text);

private:
    bool connect();
    void prepareSqlite();
    void createSchema();
    void holdLiveness();
    bool ownerAlive(const QString &owner);
    RequestFailure failure(const QSqlError &error, KeldaError code);
    QSqlQuery &prepared(const QString &sql);
    void transactionControl(const QString &sql);
    void exec(QSqlQuery &query, KeldaError code);
    void execDirect(const QString &sql, KeldaError code);
    StoredGroup groupFromRow(const GroupRow &row) const;
    QString pathColumn() const;
    std::optional<QString> firstGuid(QSqlQuery &query);
    void refreshCounters(const QString &guid);

    QString m_connectionName;
    DatabaseLocation m_location;
    QSqlDatabase m_db;
    QString m_error;
    QString m_instanceId;
    bool m_schemaTooNew = false;
    bool m_connectionLost = false;
    bool m_locksGroups = false;
    QHash<QString, std::shared_ptr<QSqlQuery>> m_statements;
};

} // namespace Kelda
