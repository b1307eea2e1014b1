#include "asynchandler.h"

#include "commandsender.h"
#include "threadstopper.h"

#include <QMutexLocker>

namespace Kelda {

namespace {
constexpr unsigned long kThreadStopMs = 1000;
}

AsyncHandlerCommandSenderSocket::AsyncHandlerCommandSenderSocket(CommandSender *sender,
                                                                 QWaitCondition *waitCondition)
    : m_commandSender(sender)
    , m_waitCondition(waitCondition)
{
    if (m_commandSender) {
        connect(m_commandSender, &CommandSender::disconnected, this, &AsyncHandlerCommandSenderSocket::sl_disconnect);
        connect(m_commandSender, &CommandSender::si_requestHandled, this,
                &AsyncHandlerCommandSenderSocket::sl_requestHandled);
    }
}

void AsyncHandlerCommandSenderSocket::SetAwaitedRequestId(const QString &requestId)
{
    m_awaitedStorage = requestId;
    m_awaited.storeRelease(&m_awaitedStorage);
}

void AsyncHandlerCommandSenderSocket::Detach()
{
    if (m_commandSender)
        disconnect(m_commandSender, nullptr, this, nullptr);
    m_waitCondition.store(nullptr);
}

void AsyncHandlerCommandSenderSocket::Finish(bool handled)
{
    m_awaited.storeRelease(nullptr);
    m_handled.store(handled);
    if (QWaitCondition *waitCondition = m_waitCondition.load())
        waitCondition->wakeAll();
}

void AsyncHandlerCommandSenderSocket::sl_requestHandled(const QString &requestId)
{
    const QString *awaited = m_awaited.loadAcquire();
    if (awaited && *awaited == requestId)
        Finish(true);
}

void AsyncHandlerCommandSenderSocket::sl_disconnect()
{
    Finish(false);
}

AsyncHandler::AsyncHandler(CommandSender *sender, unsigned int timeoutMs)
    : m_listener(new AsyncHandlerCommandSenderSocket(sender, &m_waitCondition))
    , m_timeout(timeoutMs)
    , m_thread(new QThread(this))
{
    m_thread->setObjectName(QStringLiteral("AsyncHandlerThread"));
    m_listener->moveToThread(m_thread);
    connect(m_thread, &QThread::finished, m_listener, &QObject::deleteLater);
    m_thread->start(QThread::InheritPriority);
}

AsyncHandler::~AsyncHandler()
{
    m_listener->Detach();
    if (StopThread(m_thread, kThreadStopMs))
        delete m_thread;
}

bool AsyncHandler::Wait(const QString &requestId)
{
    m_listener->SetAwaitedRequestId(requestId);
    QMutexLocker lock(&m_mutex);
    const bool woken = m_waitCondition.wait(&m_mutex, m_timeout);
    return woken && m_listener->IsHandled();
}

} // namespace Kelda
