#include "asynchandler.h"

#include "commandsender.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace Kelda {

namespace {

// How long a blocking call looks for its outcome before it goes to sleep.
constexpr std::chrono::microseconds kWatchTime(150);

// Tells the processor that this is a busy wait, so that it spends less power
// and lets a sibling hardware thread run.
inline void RelaxProcessor()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
}

} // namespace

bool AsyncHandlerCommandSenderSocket::Wait(const QString &requestId, unsigned int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(m_mutex);
    if (SetAwaitedRequestId(requestId))
        return m_handled;
    lock.unlock();
    WatchBriefly();
    lock.lock();
    m_waitCondition.wait_until(lock, deadline, [this] { return m_finished.load(); });
    return m_handled;
}

void AsyncHandlerCommandSenderSocket::WatchBriefly() const
{
    // A server on this machine answers within tens of microseconds, and
    // waking a sleeping thread costs about as much again: looking for the
    // outcome for a moment first spares the caller that wake-up. With one
    // processor the threads that produce the reply need it, so there is no
    // point.
    static const bool worthIt = std::thread::hardware_concurrency() > 1;
    if (!worthIt)
        return;
    const auto until = std::chrono::steady_clock::now() + kWatchTime;
    while (!m_finished.load(std::memory_order_acquire)) {
        for (int i = 0; i < 64; ++i)
            RelaxProcessor();
        if (std::chrono::steady_clock::now() > until)
            return;
    }
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
        const std::lock_guard<std::mutex> lock(m_mutex);
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
    m_waitCondition.notify_all();
}

void AsyncHandlerCommandSenderSocket::sl_disconnect()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_finished)
            return;
        if (!m_awaiting) {
            m_disconnectedBeforeWait = true;
            return;
        }
        Finish(false);
    }
    m_waitCondition.notify_all();
}

void RequestWaiters::Add(const Listener &listener)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_listeners.push_back(listener);
}

void RequestWaiters::Remove(const Listener &listener)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = std::find(m_listeners.begin(), m_listeners.end(), listener);
    if (found != m_listeners.end())
        m_listeners.erase(found);
}

std::vector<RequestWaiters::Listener> RequestWaiters::Listeners() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
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
