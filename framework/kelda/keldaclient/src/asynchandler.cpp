#include "asynchandler.h"

#include "commandsender.h"

#include <QDeadlineTimer>
#include <QMutexLocker>

namespace Kelda {

bool AsyncHandlerCommandSenderSocket::Wait(const QString &requestId, unsigned int timeoutMs)
{
    QMutexLocker lock(&m_mutex);
    if (SetAwaitedRequestId(requestId))
        return m_handled;
    const QDeadlineTimer deadline(timeoutMs);
    while (!m_finished) {
        if (!m_waitCondition.wait(&m_mutex, deadline))
            break;
    }
    return m_handled;
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
}

void AsyncHandlerCommandSenderSocket::sl_requestHandled(const QString &requestId)
{
    if (requestId.isEmpty())
        return;
    {
        QMutexLocker lock(&m_mutex);
        if (m_finished)
            return;
        if (!m_awaiting) {
            m_handledBeforeWait.insert(requestId);
            return;
        }
        if (requestId != m_awaitedRequestId)
            return;
        Finish(true);
    }
    // Woken after the mutex is released, so that the caller does not wake
    // only to block on it. The outcome was set under the mutex and the
    // caller checks it before every sleep, so the wake-up cannot be lost.
    m_waitCondition.wakeAll();
}

void AsyncHandlerCommandSenderSocket::sl_disconnect()
{
    {
        QMutexLocker lock(&m_mutex);
        if (m_finished)
            return;
        if (!m_awaiting) {
            m_disconnectedBeforeWait = true;
            return;
        }
        Finish(false);
    }
    m_waitCondition.wakeAll();
}

void RequestWaiters::Add(const Listener &listener)
{
    QMutexLocker lock(&m_mutex);
    m_listeners.append(listener);
}

void RequestWaiters::Remove(const Listener &listener)
{
    QMutexLocker lock(&m_mutex);
    m_listeners.removeOne(listener);
}

QVector<RequestWaiters::Listener> RequestWaiters::Listeners() const
{
    QMutexLocker lock(&m_mutex);
    return m_listeners;
}

void RequestWaiters::RequestHandled(const QString &requestId)
{
    for (const Listener &listener : Listeners())
        listener->sl_requestHandled(requestId);
}

void RequestWaiters::Disconnected()
{
    for (const Listener &listener : Listeners())
        listener->sl_disconnect();
}

AsyncHandler::AsyncHandler(CommandSender *sender, unsigned int timeoutMs)
    : m_sender(sender)
    , m_timeout(timeoutMs)
    , m_listener(std::make_shared<AsyncHandlerCommandSenderSocket>())
{
    if (m_sender)
        m_sender->Waiters().Add(m_listener);
}

AsyncHandler::~AsyncHandler()
{
    if (m_sender)
        m_sender->Waiters().Remove(m_listener);
}

bool AsyncHandler::Wait(const QString &requestId)
{
    return m_listener->Wait(requestId, m_timeout);
}

} // namespace Kelda
