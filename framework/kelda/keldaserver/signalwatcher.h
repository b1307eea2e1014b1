#pragma once

#include <QObject>

class QSocketNotifier;

namespace Kelda {

// Turns SIGINT and SIGTERM, and SIGHUP, into Qt signals on the thread that
// created the watcher: the handler only writes a byte into a pipe whose other
// end an event-loop notifier watches, the one thing a signal handler may
// safely do.
class SignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit SignalWatcher(QObject *parent = nullptr);
    ~SignalWatcher() override;

    // False when the pipe or the handlers could not be set up.
    bool isActive() const { return m_notifier != nullptr; }

Q_SIGNALS:
    void terminationRequested(int signalNumber);
    // SIGHUP: log rotation moved the trace file away.
    void reopenRequested();

private:
    void readSignal();

    QSocketNotifier *m_notifier = nullptr;
};

} // namespace Kelda
