#pragma once

#include "databaselocation.h"
#include "requestfailure.h"
#include "resultrows.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariantList>

#include <atomic>
#include <functional>
#include <memory>

class QSqlError;

namespace Kelda {

class PgSession;
struct SqliteStatement;

// The connection to the archive's metadata, in SQLite or PostgreSQL: opening
// it (and bringing its schema up to date), running statements, transactions
// with a savepoint per request, the commit marks of a shared database, and
// this server's liveness towards the others sharing it.
//
// SQLite runs in WAL mode with synchronous=FULL so that a commit survives
// power loss. On PostgreSQL every statement of fixed text is prepared once,
// and savepoints, their releases and the commit mark travel with the next
// statement instead of costing round trips of their own.
//
// Every failing statement throws RequestFailure with the code its caller
// names. One thread owns an instance.
class ArchiveDatabase
{
public:
    ArchiveDatabase();
    ~ArchiveDatabase();
    ArchiveDatabase(const ArchiveDatabase &) = delete;
    ArchiveDatabase &operator=(const ArchiveDatabase &) = delete;

    // What one SQLite connection may hold of its database: pages mapped
    // from the file, and pages in its own cache for the rest. A database
    // larger than the mapping fills the cache by a scan of all groups.
    static constexpr qint64 SqliteMapBytes = 256 * 1024 * 1024;
    static constexpr qint64 SqliteCacheKiB = 64 * 1024;
    // Each request runs in a savepoint, and what SQLite keeps to roll one
    // back spills past 64 KiB into a temporary file, a new one for every
    // transaction: a request touching twenty pages wrote them twice more.
    // Kept in memory up to this size instead, per connection.
    static constexpr int SqliteSubJournalBytes = 4 * 1024 * 1024;
    // Sets what the SQLite library is given once for the whole process.
    // Call before any database is opened and before other threads start;
    // false when SQLite was in use already.
    static bool configureSqliteLibrary();

    // This server among those sharing the database: names its commit marks
    // and its liveness. Set before open().
    void setInstanceId(const QString &id) { m_instanceId = id; }
    const QString &instanceId() const { return m_instanceId; }
    // Names this connection's commit mark, when the server has several
    // writing connections; the instance id by default.
    void setCommitMarkId(const QString &id) { m_commitMarkId = id; }
    // The connection stands for the server while it lives, so that others
    // can tell whether the server is still there (see ownerAlive). For the
    // writer of a shared database.
    void setHoldsLiveness(bool holds) { m_holdsLiveness = holds; }
    // Counters, shared with the server's metrics, of failed statements and
    // of connections made again after a loss; either may be null.
    void setTroubleCounters(std::atomic<quint64> *errors, std::atomic<quint64> *reconnects)
    {
        m_errorCounter = errors;
        m_reconnectCounter = reconnects;
    }

    // Whether open() brings the schema up to date or leaves it as found:
    // a tool that only reads must not upgrade a database that a server of
    // an earlier build still uses.
    enum class Schema { Upgrade, AsFound };

    // Opens (creating when missing) the database and brings its schema up
    // to date; false with errorString() on failure, and schemaTooNew() when
    // the reason is a schema of a later build.
    bool open(const DatabaseLocation &location, Schema schema = Schema::Upgrade);
    // Drops the connection and opens it again, after it was lost.
    bool reopen();
    QString errorString() const { return m_error; }
    bool schemaTooNew() const { return m_schemaTooNew; }
    bool isPostgres() const { return m_location.isPostgres(); }
    const DatabaseLocation &location() const { return m_location; }
    // A statement failed because the connection to the database is gone;
    // nothing works until reopen() succeeds.
    bool connectionLost() const { return m_connectionLost; }

    // A statement of fixed text with a '?' for each value, prepared once
    // per connection. The rows are valid until the next statement.
    ResultRows &run(const QString &sql, const QVariantList &values, KeldaError code);
    // A statement made for one use, its rows handed to visit as they come.
    void visit(const QString &sql, const QVariantList &values, KeldaError code,
               const std::function<void(const ResultRows &)> &row);
    // A statement without values, not kept prepared: for the schema.
    void execute(const QString &sql, KeldaError code);
    // A change whose rows nobody reads. On PostgreSQL it travels with the
    // next statement or the COMMIT instead of costing a round trip; should
    // it fail there, the transaction fails with it.
    void runLater(const QString &sql, const QVariantList &values, KeldaError code);

    // What every commit does first, in its transaction; it throws
    // RequestFailure to fail the commit.
    void setBeforeCommit(std::function<void()> step) { m_beforeCommit = std::move(step); }
    void begin();
    bool commit();
    void rollback();
    // Around each request of a transaction, so that a failing one rolls
    // back only itself.
    void savepoint();
    void releaseSavepoint();
    void rollbackToSavepoint();

    // Commit marks tell whether a transaction whose COMMIT got no answer
    // was saved: the writer records one before committing and looks for it
    // after reconnecting.
    void writeCommitMark(qint64 token);
    bool hasCommitMark(qint64 token);
    // At a clean stop: every answer is out, the mark has served.
    void dropCommitMark();

    // Whether the server with this instance id still holds its connection.
    bool ownerAlive(const QString &owner);

    // First key of every advisory lock the servers take ("KELD").
    static constexpr int AdvisoryClass = 0x4B454C44;
    // Prepared SQLite statements kept at once.
    static constexpr int MostStatements = 256;

private:
    bool connect();
    void setUpSqlite();
    void setUpPostgres();
    void holdLiveness();
    void close();
    RequestFailure failure(const QSqlError &error, KeldaError code);
    RequestFailure failure(const QString &state, const QString &text, bool connectionBroken, KeldaError code);
    RequestFailure sessionFailure(KeldaError code);
    SqliteStatement &prepared(const QString &sql);
    // Ends the read of the statement run last.
    void endRead();
    QString commitMarkId() const;
    void transactionControl(const QString &sql);

    QString m_connectionName;
    DatabaseLocation m_location;
    QSqlDatabase m_db;
    std::unique_ptr<PgSession> m_session;
    QString m_error;
    QString m_instanceId;
    QString m_commitMarkId;
    bool m_holdsLiveness = false;
    bool m_schemaTooNew = false;
    Schema m_schema = Schema::Upgrade;
    bool m_connectionLost = false;
    std::function<void()> m_beforeCommit;
    std::atomic<quint64> *m_errorCounter = nullptr;
    std::atomic<quint64> *m_reconnectCounter = nullptr;
    QHash<QString, std::shared_ptr<SqliteStatement>> m_statements;
    // The statement whose rows are being read: ended before the next runs.
    ResultRows *m_current = nullptr;
};

} // namespace Kelda
