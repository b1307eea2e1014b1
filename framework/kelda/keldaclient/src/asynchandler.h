#pragma once

#include <QObject>
#include <QSet>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace Kelda {

class CommandSender;

// Hears, for one blocking call, the command sender announce handled requests
// and lost connections, and wakes the caller blocked in AsyncHandler::Wait.
//
// The slots run directly on the sender's thread, through RequestWaiters, and
// change the outcome only under the listener's mutex: a wake-up can therefore
// never fall between the caller's check and its sleep. Ids handled before the
// caller names the one it awaits are remembered, so a reply that is faster
// than the caller is still recognised.
//
// The listener holds the mutex and the wait condition, and is shared between
// its handler and a sender that is reporting to it: the sender wakes the
// caller without holding any lock the caller needs next, and a handler that
// is gone by then leaves a listener that nobody waits on.
//
// The standard library's mutex and condition variable are used rather than
// Qt's so that thread checkers, which cannot see inside a Qt built without
// them, see this synchronisation.
class AsyncHandlerCommandSenderSocket : public QObject
{
    Q_OBJECT

public:
    AsyncHandlerCommandSenderSocket() = default;

    // Blocks until the request id is handled, the connection drops or the
    // time limit passes; true in the first case only.
    bool Wait(const QString &requestId, unsigned int timeoutMs);

public slots:
    void sl_requestHandled(const QString &requestId);
    void sl_disconnect();

private:
    // Called with the mutex held. Returns true when the wait is decided
    // already: the id was handled, or the connection dropped, before the
    // caller got here.
    bool SetAwaitedRequestId(const QString &requestId);
    void Finish(bool handled);
    void WatchBriefly() const;

    std::mutex m_mutex;
    std::condition_variable m_waitCondition;
    // Guarded by m_mutex.
    bool m_handled = false;
    // Also read without the mutex, while watching for the outcome.
    std::atomic<bool> m_finished{false};
    bool m_awaiting = false;
    bool m_disconnectedBeforeWait = false;
    QString m_awaitedRequestId;
    QSet<QString> m_handledBeforeWait;
};

// The listeners of the blocking calls that are waiting on one command sender.
// The sender reports to it on its own thread; the list is guarded by a mutex
// of its own, held only to add, remove or copy entries.
class RequestWaiters
{
public:
    using Listener = std::shared_ptr<AsyncHandlerCommandSenderSocket>;

    void Add(const Listener &listener);
    void Remove(const Listener &listener);

    void RequestHandled(const QString &requestId);
    void Disconnected();

private:
    // A copy made under the lock: implicitly shared data would detach on
    // the reading thread, outside it.
    std::vector<Listener> Listeners() const;

    mutable std::mutex m_mutex;
    std::vector<Listener> m_listeners;
};

// The wait of one blocking call: construct before sending (so that a reply
// cannot be missed however fast it comes), send, Wait once, destroy.
class AsyncHandler : public QObject
{
    Q_OBJECT

public:
    AsyncHandler(CommandSender *sender, unsigned int timeoutMs);
    ~AsyncHandler() override;

    // True only when the request was announced as handled within the time
    // limit; false at once when the connection drops. An empty id is never
    // announced, so it waits until the limit or a disconnection.
    bool Wait(const QString &requestId);

private:
    CommandSender *m_sender;
    unsigned int m_timeout;
    RequestWaiters::Listener m_listener;
};

} // namespace Kelda
