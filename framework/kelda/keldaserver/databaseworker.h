#pragma once

#include "accessrules.h"
#include "answerspool.h"
#include "archiveengine.h"
#include "auditrecord.h"
#include "connectiongate.h"
#include "request.h"
#include "storagelayout.h"

#include <QElapsedTimer>
#include <QThread>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace Kelda {

class AuditTrail;

// Work for a database thread: a request to carry out, a step of a running
// move, a nudge to look at the requests held back for their clients'
// backlogs, (for a reader) a look whether the database answers, or the
// audit record of a refused read for a writer to keep.
struct DatabaseJob
{
    enum class Kind { Request, MoveProgress, MoveFinished, RecordReadings, Wake, Ping, Audit };
    Kind kind = Kind::Request;
    RequestOrigin origin;
    Request request;
    // The requesting connection's state, as far as the database threads
    // may see it; null for work of no connection.
    std::shared_ptr<ConnectionGate> gate;
    // Changes nothing in the database: carried out by a reader, after
    // every earlier change of its connection is committed.
    bool readOnly = false;
    QString guid;
    // MoveFinished: the group's new directory. AddFile sent to the digest
    // pool: the group's directory, where the pool reads the file.
    QString directory;
    // AddFile back from the digest pool: the requests of its connection
    // that arrived meanwhile follow it.
    bool returnsRead = false;
    double percent = 0;
    bool ok = false;
    // Ping: told on the reader's thread whether the database answered.
    std::function<void(bool)> pinged;
    // RecordReadings: told what was recorded of the files in
    // origin.readings once it is committed (on the database thread).
    std::function<void(const std::vector<FileCheck> &)> recorded;
    AuditRecord audit;
};

// What goes back to the network thread for one job.
struct DatabaseAnswer
{
    quint64 connectionId = 0;
    quint64 sequence = 0;
    QByteArray reply;
    // A large reply, on disk; reply is empty then.
    std::shared_ptr<AnswerSpool> spool;
    std::vector<NewGroupNotice> newGroups;
    std::vector<MoveOrder> moves;
    bool registersConverter = false;
    QVector<int> converterTypes;

    qint64 size() const;
};

// A thread with a database connection of its own.
//
// A writer is a thread that changes the database (the only one on SQLite;
// on PostgreSQL each of a server's writers serves its share of the client
// connections). It drains its queue in batches: everything that arrived
// together is carried out in one transaction, each request inside a
// savepoint of its own, and committed with one flush; only then do the
// answers leave. A failing request rolls back only itself; a failing commit
// turns every answer of the batch into an error, so nothing unsaved is ever
// confirmed. Read-only requests that wait behind a change of their
// connection are handed to the reader once that change is committed.
//
// A reader carries out read-only requests on a snapshot of committed data,
// so that long queries and exports never hold up changes. It builds no
// further answer for a connection whose unread answers exceed its backlog
// limit: those requests wait, in order, until the client has read enough.
//
// Work of a connection that has closed is dropped unstarted; whatever was
// committed before stays.
//
// A writer keeps the audit trail: each change's record is written inside
// the change's savepoint, so that one is never saved without the other, and
// a failed or refused change's record after its rollback. A reader hands
// the records of the reads the ownership rules refused on (see HandOff).
//
// On a shared PostgreSQL database a request that lost a deadlock against
// another server is carried out again in the next transaction. A worker that
// loses its connection answers every job with an error at once and
// reconnects with a bounded back-off. A COMMIT that got no answer is not
// assumed lost: the transaction carries a commit mark, and after
// reconnecting the writer looks for it before answering.
//
// Every hand-over with the thread goes through the standard library's mutex
// and condition variable, which thread checkers see; Qt's are opaque to them.
class DatabaseWorker : public QThread
{
public:
    enum class Role { Writer, Reader };
    using Delivery = std::function<void(std::shared_ptr<std::vector<DatabaseAnswer>>)>;
    // A writer hands reads that wait for its commits to the reader; a
    // reader hands the audit records of refused reads to a writer.
    using HandOff = std::function<void(DatabaseJob)>;
    // Takes an AddFile whose file is too large to read on this thread, and
    // posts it back here once read; false when it takes no more work.
    using FileReader = std::function<bool(DatabaseJob)>;

    DatabaseWorker(Role role, const DatabaseLocation &database, const QString &instanceId, const StorageLayout &layout,
                   Delivery delivery, HandOff handOff = HandOff());
    ~DatabaseWorker() override;

    // Of several writers on a shared database, the first resumes the moves
    // and stands for the server; the others only carry out changes. Set
    // before open().
    void setWriterIndex(int index) { m_writerIndex = index; }
    // Where the connection counts its failed statements and reconnects
    // (see ArchiveDatabase::setTroubleCounters). Set before open().
    void setTroubleCounters(std::atomic<quint64> *errors, std::atomic<quint64> *reconnects)
    {
        m_errorCounter = errors;
        m_reconnectCounter = reconnects;
    }
    // Who may do what; set before open().
    void setAccessRules(const AccessRules &rules) { m_rules = rules; }
    // Where a writer has large added files read; set before open().
    // Without one they are refused as unread.
    void setFileReader(FileReader reader) { m_readFiles = std::move(reader); }
    // Where a reader spools large query answers (see
    // ArchiveEngine::setSpoolFolder); set before open().
    void setSpoolFolder(std::shared_ptr<SpoolFolder> folder) { m_spoolFolder = std::move(folder); }

    // Starts the thread and waits until the database is open; false with
    // errorString() when it cannot be.
    bool open();
    QString errorString() const { return m_error; }

    // Thread-safe.
    void post(DatabaseJob job);
    // Thread-safe: a Ping goes ahead of the reads queued, so that a busy
    // reader still tells soon whether the database answers.
    void postFirst(DatabaseJob job);
    // Carries out what is queued, commits, and ends the thread.
    void finish();
    // From now on, requests that only read are dropped unanswered: a
    // stopping server carries out the changes it received, not the reads.
    void abandonReads() { m_abandonReads = true; }
    // finish(), then returns once the thread has ended.
    void finishAndWait();

    // Moves found under way at start; valid after open().
    std::vector<MoveOrder> unfinishedMoves() const { return m_unfinishedMoves; }

    // Upper bound on the requests of one transaction, so a flood of
    // requests still gets answers in steady steps.
    static constexpr int MaxBatch = 1024;
    // Longest wait for the next changes of recently active connections.
    static constexpr int GatherMicroseconds = 1000;
    // Rounds a request that lost to another server's change gets.
    static constexpr int MaxRetries = 5;
    // Bounds of the pause between attempts to reach a lost database.
    static constexpr int FirstReconnectMs = 100;
    static constexpr int MaxReconnectMs = 2000;
    // How long a COMMIT without answer may keep the writer looking for its
    // outcome; well within the client's wait for any answer.
    static constexpr int CommitCheckMs = 15000;
    // Answer bytes a reader gathers before it hands them on mid-batch.
    static constexpr qint64 ReadDeliveryBytes = 4 * 1024 * 1024;

protected:
    void run() override;

private:
    void serve();
    // Waits for jobs; with a timeout (ms, not negative) it may return none
    // while the worker keeps running.
    std::deque<DatabaseJob> takeBatch(int idleTimeoutMs, bool *finishing);
    std::shared_ptr<std::vector<DatabaseAnswer>> carryOut(std::deque<DatabaseJob> &batch);
    void read(std::deque<DatabaseJob> &batch);
    // Carries out the held requests whose clients have read enough since.
    void readHeld(std::vector<DatabaseAnswer> &answers);
    // Carries out one read now, or holds it back; false once held.
    bool readOrHold(DatabaseJob &job, std::vector<DatabaseAnswer> &answers);
    void deliverReads(std::vector<DatabaseAnswer> &answers, bool always);
    void readOne(const DatabaseJob &job, DatabaseAnswer &answer);
    bool ping();
    static bool isDropped(const DatabaseJob &job);
    std::vector<DatabaseJob *> transact(const std::vector<DatabaseJob *> &jobs, bool mayRetry,
                                        std::vector<DatabaseAnswer> &answers);
    enum class Carried { Done, Again, Reading };
    Carried carryOutOne(DatabaseJob &job, DatabaseAnswer &answer, std::vector<std::function<void()>> &afterCommit,
                        bool mayRetry);
    // Puts the AddFiles back from the pool first in the batch, each
    // followed by the requests parked behind it, and parks what arrived
    // for connections whose files are still being read.
    void unpark(std::deque<DatabaseJob> &batch);
    // Whether job waits behind an AddFile of its connection at the pool.
    bool waitsForRead(const DatabaseJob &job) const;
    void park(DatabaseJob job);
    bool sendToRead(const DatabaseJob &job, const QString &directory);
    // Writes the record of a change that succeeded, inside its savepoint;
    // false, with the outcome turned into an error, when it cannot.
    bool recordChange(const DatabaseJob &job, RequestOutcome &outcome);
    // The record of a request that changed nothing; a failure is traced.
    void recordUnchanged(const AuditRecord &record);
    bool commitBatch();
    void recordReadings(const DatabaseJob &job, RequestOutcome &outcome);
    bool ensureConnected();
    bool reconnect();
    static DatabaseAnswer failedAnswer(const DatabaseJob &job, const QString &text);

    const Role m_role;
    int m_writerIndex = 0;
    std::atomic<quint64> *m_errorCounter = nullptr;
    std::atomic<quint64> *m_reconnectCounter = nullptr;
    AccessRules m_rules;
    std::shared_ptr<SpoolFolder> m_spoolFolder;
    const DatabaseLocation m_database;
    const QString m_instanceId;
    const StorageLayout m_layout;
    const Delivery m_delivery;
    const HandOff m_handOff;
    FileReader m_readFiles;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_stateChanged;
    std::deque<DatabaseJob> m_queue;
    bool m_finishing = false;
    enum class State { NotStarted, Opening, Open, Failed, Ended };
    State m_state = State::NotStarted;
    int m_recentWriters = 0; // connections with changes in the last batch
    // How long the next batch waits for them: the last commit's time, at
    // most GatherMicroseconds. Only the worker's thread uses it.
    std::chrono::microseconds m_gather{GatherMicroseconds};

    QString m_error;
    std::vector<MoveOrder> m_unfinishedMoves;
    // Connection state; only the worker's own thread touches these.
    QElapsedTimer m_sinceReconnect;
    int m_reconnectPauseMs = FirstReconnectMs;
    qint64 m_commitToken = 0;
    // Ends of moves that could not be recorded while the database was
    // away; carried out once it is back (they are safe to do late).
    std::vector<DatabaseJob> m_heldMoves;
    ArchiveStore *m_store = nullptr;
    ArchiveEngine *m_engine = nullptr;
    AuditTrail *m_trail = nullptr;
    // Reader only: requests held back per connection, in arrival order.
    std::map<quint64, std::deque<DatabaseJob>> m_held;
    // Writer only: connections with an AddFile at the pool (by the
    // sequence of that request), and the requests that arrived behind it,
    // in their connection's order.
    std::map<quint64, quint64> m_reading;
    std::map<quint64, std::vector<DatabaseJob>> m_parked;
    std::atomic<bool> m_abandonReads{false};
};

} // namespace Kelda
