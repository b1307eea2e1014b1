#include "threadrunner.h"

ThreadRunner::~ThreadRunner()
{
    // The thread's last look at the queue was under the mutex: taking it
    // orders that before the memory goes, where QThread::wait() is all
    // there is otherwise, which thread checkers cannot see into.
    const std::lock_guard<std::mutex> lock(m_mutex);
}

quint64 ThreadRunner::enqueue(std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pending.push_back(std::move(action));
    // By name: the call then carries nothing that our code wrote, so the
    // only hand-over is the one under the mutex. Posted under it too, so that
    // the object's thread, which takes the mutex before it may end this
    // object's life, is seen to come after this look at the object.
    QMetaObject::invokeMethod(this, "runPending", Qt::QueuedConnection);
    return ++m_posted;
}

void ThreadRunner::post(std::function<void()> action)
{
    enqueue(std::move(action));
}

void ThreadRunner::run(std::function<void()> action)
{
    const quint64 ticket = enqueue(std::move(action));
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ran.wait(lock, [this, ticket] { return m_done >= ticket; });
}

void ThreadRunner::runPending()
{
    for (;;) {
        std::function<void()> action;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_pending.empty())
                return;
            action = std::move(m_pending.front());
            m_pending.pop_front();
        }
        action();
        // Notified under the mutex: a waiter that wakes may end this object's
        // life as soon as it can take the mutex.
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_done;
        m_ran.notify_all();
    }
}
