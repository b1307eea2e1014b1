#pragma once

#include "archiveengine.h"

#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <deque>
#include <functional>

namespace Kelda {

// Carries group directories to network storage on a thread of its own, so
// that copying large groups never stalls the database thread. Files are
// copied first and the source removed only after every copy succeeded; a
// move cut short by a stop is simply done again at the next start.
class GroupMover : public QThread
{
public:
    using Progress = std::function<void(const QString &guid, double percent)>;
    using Finished = std::function<void(const QString &guid, const QString &directory, bool ok)>;

    GroupMover(Progress progress, Finished finished);
    ~GroupMover() override;

    void post(const MoveOrder &order);
    // Ends after the file being copied; unfinished moves stay recorded.
    void stop();

    // One move, on the calling thread; for the thread and for tests.
    static bool moveDirectory(const MoveOrder &order, const Progress &progress, const std::atomic<bool> *stop);

protected:
    void run() override;

private:
    Progress m_progress;
    Finished m_finished;
    QMutex m_mutex;
    QWaitCondition m_wake;
    std::deque<MoveOrder> m_queue;
    std::atomic<bool> m_stopping{false};
};

} // namespace Kelda
