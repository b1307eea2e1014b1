#pragma once

#include "archiveengine.h"
#include "request.h"
#include "storagelayout.h"

#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace Kelda {

// Work for the database thread: a request to carry out, an answer made
// before it (kept in the queue so that a connection's replies stay in
// order), or a step of a running move.
struct DatabaseJob
{
    enum class Kind { Request, Prepared, MoveProgress, MoveFinished };
    Kind kind = Kind::Request;
    RequestOrigin origin;
    Request request;
    QByteArray preparedReply;
    QString guid;
    QString directory;
    double percent = 0;
    bool ok = false;
};

// What goes back to the network thread for one job.
struct DatabaseAnswer
{
    quint64 connectionId = 0;
    QByteArray reply;
    std::vector<NewGroupNotice> newGroups;
    std::vector<MoveOrder> moves;
    bool registersConverter = false;
    QVector<int> converterTypes;
};

// The one thread that owns the database. It drains its queue in batches:
// everything that arrived together is carried out in one transaction, each
// request inside a savepoint of its own, and committed with one flush; only
// then do the answers leave, in queue order. A failing request rolls back
// only itself; a failing commit turns every answer of the batch into an
// error, so nothing unsaved is ever confirmed.
class DatabaseWorker : public QThread
{
public:
    using Delivery = std::function<void(std::shared_ptr<std::vector<DatabaseAnswer>>)>;

    DatabaseWorker(const QString &databaseFile, const StorageLayout &layout, Delivery delivery);
    ~DatabaseWorker() override;

    // Starts the thread and waits until the database is open; false with
    // errorString() when it cannot be.
    bool open();
    QString errorString() const { return m_error; }

    // Thread-safe.
    void post(DatabaseJob job);
    // Carries out what is queued, commits, and ends the thread.
    void finish();

    // Moves found under way at start; valid after open().
    std::vector<MoveOrder> unfinishedMoves() const { return m_unfinishedMoves; }

    // Upper bound on the requests of one transaction, so a flood of
    // requests still gets answers in steady steps.
    static constexpr int MaxBatch = 1024;

protected:
    void run() override;

private:
    std::deque<DatabaseJob> takeBatch();
    std::shared_ptr<std::vector<DatabaseAnswer>> carryOut(std::deque<DatabaseJob> &batch);
    void carryOutOne(DatabaseJob &job, DatabaseAnswer &answer, std::vector<std::function<void()>> &afterCommit);

    const QString m_databaseFile;
    const StorageLayout m_layout;
    const Delivery m_delivery;

    QMutex m_mutex;
    QWaitCondition m_wake;
    QWaitCondition m_opened;
    std::deque<DatabaseJob> m_queue;
    bool m_finishing = false;
    int m_openState = 0; // 0 pending, 1 open, -1 failed

    QString m_error;
    std::vector<MoveOrder> m_unfinishedMoves;
    ArchiveStore *m_store = nullptr;
    ArchiveEngine *m_engine = nullptr;
};

} // namespace Kelda
