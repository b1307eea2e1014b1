#include "workerthread.h"

#include "transporttimings.h"

#include <QThread>

namespace Kelda {

WorkerThread::WorkerThread(const QString &name)
    : m_thread(new QThread)
{
    m_thread->setObjectName(name);
}

WorkerThread::~WorkerThread()
{
    m_thread->quit();
    if (m_thread->wait(TransportTimings::ThreadStopWaitMs())) {
        delete m_thread;
        return;
    }
    QObject::connect(m_thread, &QThread::finished, m_thread, &QObject::deleteLater);
    // It may have ended between the wait and the connection.
    if (m_thread->isFinished()) {
        m_thread->wait();
        delete m_thread;
    }
}

void WorkerThread::Start(QObject *worker)
{
    // The old worker is deleted here, so its thread's finished() must not
    // delete it as well.
    if (m_worker)
        QObject::disconnect(m_thread, nullptr, m_worker, nullptr);
    m_thread->quit();
    m_thread->wait();
    delete m_worker;

    m_worker = worker;
    worker->moveToThread(m_thread);
    QObject::connect(m_thread, &QThread::finished, worker, &QObject::deleteLater);
    m_thread->start(QThread::InheritPriority);
}

} // namespace Kelda
