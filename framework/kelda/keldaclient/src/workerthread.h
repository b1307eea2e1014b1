#pragma once

#include <QString>

class QObject;
class QThread;

namespace Kelda {

// A named thread that runs one worker object at a time.
//
// The worker is moved to the thread and goes with the thread's finished()
// through deleteLater().
class WorkerThread
{
public:
    explicit WorkerThread(const QString &name);
    // Stops the thread.
    ~WorkerThread();

    WorkerThread(const WorkerThread &) = delete;
    WorkerThread &operator=(const WorkerThread &) = delete;

    // Ends the thread, waiting as long as that takes, deletes the current
    // worker, then moves worker (which has no parent) to the thread and
    // starts it. The caller keeps a pointer that does not own.
    void Start(QObject *worker);

    // Asks the thread to quit and waits for it up to the thread-stop wait
    // (TransportTimings). A thread that is still running then cannot be
    // destroyed (Qt aborts the process), so it is left to delete itself, and
    // its worker, whenever it does end: deleting an object its thread may
    // still be using is no way out either. Nothing may be started
    // afterwards; a second call does nothing.
    void Stop();

private:
    // Null once stopped.
    QThread *m_thread;
    QObject *m_worker = nullptr;
};

} // namespace Kelda
