#include "threadstopper.h"

#include <QThread>

namespace Kelda {

bool StopThread(QThread *thread, unsigned long timeoutMs)
{
    thread->quit();
    if (thread->wait(timeoutMs))
        return true;
    thread->setParent(nullptr);
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    // It may have ended between the wait and the connection.
    if (thread->isFinished()) {
        thread->wait();
        return true;
    }
    return false;
}

} // namespace Kelda
