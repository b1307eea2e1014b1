#pragma once

#include "archiveengine.h"

#include <QThread>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace Kelda {

// Carries groups to network storage on a thread of its own, so that copying
// large groups never stalls the database thread. Only the files a group
// registered travel, regular files reached without following a link; each
// copy is checked, and the sources are removed only after every copy
// succeeded. A move cut short by a stop is simply done again at the next
// start.
// Hand-overs use the standard mutex and condition variable, which thread
// checkers see.
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
    // stop(), then returns once the thread has ended.
    void stopAndWait();

    // One move, on the calling thread; for the thread and for tests.
    static bool moveGroup(const MoveOrder &order, const Progress &progress, const std::atomic<bool> *stop);

protected:
    void run() override;

private:
    void serve();
    static bool carryFile(const ConfinedDirectory &source, const ConfinedDirectory &target, const QString &name,
                          const QByteArray &recorded, const ReadControl &control, bool *copied, QString *error);
    static bool copyMatches(const ConfinedDirectory &target, const QString &name, const ConfinedDirectory::Digest &read,
                            const QByteArray &recorded, const ReadControl &control, QString *error);

    Progress m_progress;
    Finished m_finished;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<MoveOrder> m_queue;
    std::atomic<bool> m_stopping{false};
};

} // namespace Kelda
