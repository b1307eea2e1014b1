#include "asynchandler.h"

#include "commandsender.h"

#include <QDeadlineTimer>
#include <QMutexLocker>

namespace Kelda {

AsyncHandlerCommandSenderSocket::AsyncHandlerCommandSenderSocket(QMutex *mutex, QWaitCondition *waitCondition)
    : m_mutex(mutex)
    , m_waitCondition(waitCondition)
{
}

bool AsyncHandlerCommandSenderSocket::SetAwaitedRequestId(const QString &requestId)
{
    m_awaiting = true;
    m_awaitedRequestId = requestId;
    if (!requestId.isEmpty() && m_handledBeforeWait.contains(requestId))
        Finish(true);
    else if (m_disconnectedBeforeWait)
        Finish(false);
    m_handledBeforeWait.clear();
    return m_finished;
}

void AsyncHandlerCommandSenderSocket::Finish(bool handled)
{
    m_awaitedRequestId.clear();
    m_handled = handled;
    m_finished = true;
    m_waitCondition->wakeAll();
}

void AsyncHandlerCommandSenderSocket::sl_requestHandled(const QString &requestId)
{
    if (requestId.isEmpty())
        return;
    QMutexLocker lock(m_mutex);
    if (m_finished)
        return;
    if (!m_awaiting)
        m_handledBeforeWait.insert(requestId);
    else if (requestId == m_awaitedRequestId)
        Finish(true);
}

void AsyncHandlerCommandSenderSocket::sl_disconnect()
{
    QMutexLocker lock(m_mutex);
    if (m_finished)
        return;
    if (m_awaiting)
        Finish(false);
    else
        m_disconnectedBeforeWait = true;
}

void RequestWaiters::Add(AsyncHandlerCommandSenderSocket *listener)
{
    QMutexLocker lock(&m_mutex);
    m_listeners.append(listener);
}

void RequestWaiters::Remove(AsyncHandlerCommandSenderSocket *listener)
{
    QMutexLocker lock(&m_mutex);
    m_listeners.removeOne(listener);
}

void RequestWaiters::RequestHandled(const QString &requestId)
{
    QMutexLocker lock(&m_mutex);
    for (AsyncHandlerCommandSenderSocket *listener : qAsConst(m_listeners))
        listener->sl_requestHandled(requestId);
}

void RequestWaiters::Disconnected()
{
    QMutexLocker lock(&m_mutex);
    for (AsyncHandlerCommandSenderSocket *listener : qAsConst(m_listeners))
        listener->sl_disconnect();
}

AsyncHandler::AsyncHandler(CommandSender *sender, unsigned int timeoutMs)
    : m_sender(sender)
    , m_timeout(timeoutMs)
    , m_listener(&m_mutex, &m_waitCondition)
{
    if (m_sender)
        m_sender->Waiters().Add(&m_listener);
}

AsyncHandler::~AsyncHandler()
{
    if (m_sender)
        m_sender->Waiters().Remove(&m_listener);
}

bool AsyncHandler::Wait(const QString &requestId)
{
    QMutexLocker lock(&m_mutex);
    if (m_listener.SetAwaitedRequestId(requestId))
        return m_listener.IsHandled();
    QDeadlineTimer deadline(m_timeout);
    while (!m_listener.IsFinished()) {
        if (!m_waitCondition.wait(&m_mutex, deadline))
            break;
    }
    return m_listener.IsHandled();
}

} // namespace Kelda
