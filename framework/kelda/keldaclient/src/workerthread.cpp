#include "workerthread.h"

#include "threadhandover.h"
#include "transporttimings.h"

#include <QThread>

#include <utility>

namespace Kelda {

WorkerThread::WorkerThread(const QString &name)
    : m_thread(new QThread)
{
    m_thread->setObjectName(name);
}

WorkerThread::~WorkerThread()
{
    Stop();
}

void WorkerThread::Stop()
{
    QThread *thread = std::exchange(m_thread, nullptr);
    if (!thread)
        return;
    // The worker's destructor runs on its thread once quit() has ended the
    // loop, an order made inside Qt that thread checkers cannot see.
    if (QObject *worker = std::exchange(m_worker, nullptr))
        ThreadHandOver::release(worker);
    thread->quit();
    if (thread->wait(TransportTimings::ThreadStopWaitMs())) {
        delete thread;
        return;
    }
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    // It may have ended between the wait and the connection.
    if (thread->isFinished()) {
        thread->wait();
        delete thread;
    }
}

void WorkerThread::Start(QObject *worker)
{
    // The old worker is deleted here, so its thread's finished() must not
    // delete it as well.
    if (m_worker) {
        QObject::disconnect(m_thread, nullptr, m_worker, nullptr);
        ThreadHandOver::release(m_worker);
    }
    m_thread->quit();
    m_thread->wait();
    delete m_worker;

    m_worker = worker;
    worker->moveToThread(m_thread);
    QObject::connect(m_thread, &QThread::finished, worker, &QObject::deleteLater);
    m_thread->start(QThread::InheritPriority);
}

} // namespace Kelda
