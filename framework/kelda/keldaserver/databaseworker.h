#pragma once

#include "archiveengine.h"
#include "request.h"
#include "storagelayout.h"

#include <QThread>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Kelda {

// Work for a database thread: a request to carry out, or a step of a
// running move.
struct DatabaseJob
{
    enum class Kind { Request, MoveProgress, MoveFinished };
    Kind kind = Kind::Request;
    RequestOrigin origin;
    Request request;
    // Changes nothing in the database: carried out by a reader, after
    // every earlier change of its connection is committed.
    bool readOnly = false;
    QString guid;
    QString directory;
    double percent = 0;
    bool ok = false;
};

// What goes back to the network thread for one job.
struct DatabaseAnswer
{
    quint64 connectionId = 0;
    quint64 sequence = 0;
    QByteArray reply;
    std::vector<NewGroupNotice> newGroups;
    std::vector<MoveOrder> moves;
    bool registersConverter = false;
    QVector<int> converterTypes;
};

// A thread with a database connection of its own.
//
// The writer is the one thread that changes the database. It drains its
// queue in batches: everything that arrived together is carried out in one
// transaction, each request inside a savepoint of its own, and committed
// with one flush; only then do the answers leave. A failing request rolls
// back only itself; a failing commit turns every answer of the batch into an
// error, so nothing unsaved is ever confirmed. Read-only requests that wait
// behind a change of their connection are handed to the reader once that
// change is committed.
//
// A reader carries out read-only requests on a snapshot of committed data,
// so that long queries and exports never hold up changes.
//
// Every hand-over with the thread goes through the standard library's mutex
// and condition variable, which thread checkers see; Qt's are opaque to them.
class DatabaseWorker : public QThread
{
public:
    enum class Role { Writer, Reader };
    using Delivery = std::function<void(std::shared_ptr<std::vector<DatabaseAnswer>>)>;
    using HandOff = std::function<void(DatabaseJob)>;

    DatabaseWorker(Role role, const QString &databaseFile, const StorageLayout &layout, Delivery delivery,
                   HandOff handOff = HandOff());
    ~DatabaseWorker() override;

    // Starts the thread and waits until the database is open; false with
    // errorString() when it cannot be.
    bool open();
    QString errorString() const { return m_error; }

    // Thread-safe.
    void post(DatabaseJob job);
    // Carries out what is queued, commits, and ends the thread.
    void finish();
    // finish(), then returns once the thread has ended.
    void finishAndWait();

    // Moves found under way at start; valid after open().
    std::vector<MoveOrder> unfinishedMoves() const { return m_unfinishedMoves; }

    // Upper bound on the requests of one transaction, so a flood of
    // requests still gets answers in steady steps.
    static constexpr int MaxBatch = 1024;
    // Longest wait for the next changes of recently active connections.
    static constexpr int GatherMicroseconds = 1000;

protected:
    void run() override;

private:
    void serve();
    std::deque<DatabaseJob> takeBatch();
    std::shared_ptr<std::vector<DatabaseAnswer>> carryOut(std::deque<DatabaseJob> &batch);
    std::shared_ptr<std::vector<DatabaseAnswer>> read(std::deque<DatabaseJob> &batch);
    void carryOutOne(DatabaseJob &job, DatabaseAnswer &answer, std::vector<std::function<void()>> &afterCommit);

    const Role m_role;
    const QString m_databaseFile;
    const StorageLayout m_layout;
    const Delivery m_delivery;
    const HandOff m_handOff;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_stateChanged;
    std::deque<DatabaseJob> m_queue;
    bool m_finishing = false;
    enum class State { NotStarted, Opening, Open, Failed, Ended };
    State m_state = State::NotStarted;
    int m_recentWriters = 0; // connections with changes in the last batch

    QString m_error;
    std::vector<MoveOrder> m_unfinishedMoves;
    ArchiveStore *m_store = nullptr;
    ArchiveEngine *m_engine = nullptr;
};

} // namespace Kelda
