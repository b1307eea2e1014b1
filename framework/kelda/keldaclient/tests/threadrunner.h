#pragma once

#include <QObject>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

// Runs actions on the thread this object lives on, for tests that drive
// another thread. The actions and their completion are handed over under the
// standard library's mutex, which thread checkers see; a queued call to a
// lambda or a blocking queued call is ordered only inside Qt.
class ThreadRunner : public QObject
{
    Q_OBJECT

public:
    // Only once its thread has ended, or on that thread.
    ~ThreadRunner() override;

    // Returns at once; the action runs in a later event-loop turn.
    void post(std::function<void()> action);
    // Returns once the action has run.
    void run(std::function<void()> action);

private Q_SLOTS:
    void runPending();

private:
    quint64 enqueue(std::function<void()> action);

    std::mutex m_mutex;
    std::condition_variable m_ran;
    std::deque<std::function<void()>> m_pending;
    quint64 m_posted = 0;
    quint64 m_done = 0;
};
