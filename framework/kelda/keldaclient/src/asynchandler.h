#pragma once

#include <QAtomicPointer>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QThread>
#include <QWaitCondition>

#include <atomic>

namespace Kelda {

class CommandSender;

// Listens, on a thread of its own, for the command sender to announce the
// awaited request as handled (or the connection as lost) and wakes the caller
// blocked in AsyncHandler::Wait.
class AsyncHandlerCommandSenderSocket : public QObject
{
    Q_OBJECT

public:
    AsyncHandlerCommandSenderSocket(CommandSender *sender, QWaitCondition *waitCondition);

    // Stops waking the wait condition, whose owner is going away.
    void Detach();

    // Called once per handler, from the caller's thread, before it waits.
    void SetAwaitedRequestId(const QString &requestId);
    void Finish(bool handled);
    bool IsHandled() const { return m_handled.load(); }

public slots:
    void sl_requestHandled(const QString &requestId);
    void sl_disconnect();

private:
    std::atomic<bool> m_handled{false};
    CommandSender *m_commandSender;
    std::atomic<QWaitCondition *> m_waitCondition;
    // The awaited id is published through an atomic pointer so that the
    // listener thread can read it without a lock; the text itself is written
    // once, before it is published.
    QString m_awaitedStorage;
    QAtomicPointer<const QString> m_awaited;
};

// The wait of one blocking call: construct before sending (so the listener is
// already connected), send, Wait once, destroy.
class AsyncHandler : public QObject
{
    Q_OBJECT

public:
    AsyncHandler(CommandSender *sender, unsigned int timeoutMs);
    ~AsyncHandler() override;

    // True only when the request was announced as handled in time. A request
    // announced before Wait is entered is not recognised, and the call runs
    // into its time limit.
    bool Wait(const QString &requestId);

private:
    // The listener lives on m_thread and is deleted when that thread ends.
    AsyncHandlerCommandSenderSocket *m_listener;
    unsigned int m_timeout;
    QWaitCondition m_waitCondition;
    QMutex m_mutex;
    QThread *m_thread;
};

} // namespace Kelda
