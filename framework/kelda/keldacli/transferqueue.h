#pragma once

#include "copyworkers.h"
#include "exitcode.h"
#include "progress.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QHash>
#include <QObject>
#include <QTimer>

#include <memory>
#include <vector>

namespace KeldaCli {

class Session;

// Runs the transfers of many files on the calling thread's event loop: the
// subclass starts each item with a request to the server or a copy, and
// reports it done or failed. Up to `jobs` copies run at once on worker
// threads while up to kAheadPerJob times as many items are under way, so
// that the copies of some files overlap the server's answers for others. One progress display covers the
// whole; results are reported in the items' order, whatever order they
// finish in, so that the output does not depend on --jobs.
class TransferQueue : public QObject
{
    Q_OBJECT

public:
    ~TransferQueue() override;

    static constexpr int kAheadPerJob = 8;

    // Returns once every item has ended, or the connection was lost or the
    // server fell silent; the exit code of the first failure, else ExitOk.
    ExitCode run();

    int succeededCount() const { return m_succeeded; }

protected:
    TransferQueue(Session &session, const QString &label, int jobs, int count, qint64 totalBytes);

    Session &session() const { return m_session; }
    // From the start of item `index` to its end.
    qint64 elapsedMs(int index) const;

    // Starts item `index`: request() or copy().
    virtual void begin(int index) = 0;
    // Sends the request of item `index` and returns its id. Empty when no
    // answer is to be awaited: the item went on without one, or failed.
    virtual QString send(int index) = 0;
    // A copy started with copy() has ended; `error` is empty on success,
    // `digest` the copy's SHA-256 in hex when copy() asked for it.
    virtual void copied(int index, const QString &error, const QByteArray &digest) = 0;
    // Prints the result of a successful item; called in the items' order.
    virtual void report(int index) = 0;
    // An item that had begun but will not end (the run stopped): undo what
    // it left behind.
    virtual void abandon(int index) = 0;
    // The file the messages of item `index` name.
    virtual QString describe(int index) const = 0;

    void copy(int index, const QString &from, const QString &to, CopyMode mode, bool digest = false);
    // Calls send() for item `index` and, when it sent something, waits for
    // the answer: the run stops when none comes in time.
    void request(int index);
    // The item whose request `requestId` is, no longer waiting; -1 when no
    // item waits for that answer. Call before going on with the item.
    int answered(const QString &requestId);
    bool awaitsAnswer(int index) const;
    void succeed(int index);
    void fail(int index, ExitCode code, const QString &message);

private slots:
    void drainCopies();

private:
    enum class State { Waiting, Running, Succeeded, Failed };

    void startMore();
    void tick();
    void stopAll(ExitCode code, const QString &message);
    void ended(int index);
    void reportInOrder();
    void showProgress();

    Session &m_session;
    const int m_jobs;
    const int m_window;
    const qint64 m_totalBytes;
    std::vector<State> m_states;
    std::vector<QElapsedTimer> m_started;
    std::vector<QElapsedTimer> m_replyWait;
    // The requests under way, by request id.
    QHash<QString, int> m_awaiting;
    std::vector<qint64> m_durationMs;
    std::unique_ptr<CopyWorkers> m_workers;
    Progress m_progress;
    QEventLoop m_loop;
    QTimer m_ticker;
    int m_next = 0;
    int m_running = 0;
    int m_succeeded = 0;
    int m_failed = 0;
    int m_nextReport = 0;
    bool m_starting = false;
    bool m_stopped = false;
    ExitCode m_result = ExitOk;
};

} // namespace KeldaCli
