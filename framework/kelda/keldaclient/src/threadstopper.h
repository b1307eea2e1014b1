#pragma once

class QThread;

namespace Kelda {

// Asks a worker thread to quit and waits at most timeoutMs for it.
//
// Returns true when the thread has ended; the caller then deletes it as usual.
// A thread that is still running cannot be destroyed (Qt aborts the process),
// so on false the thread is left to delete itself once it finishes, and the
// caller must forget it, together with every object that lives on it: those
// go with the thread's finished() to deleteLater() connections.
bool StopThread(QThread *thread, unsigned long timeoutMs);

} // namespace Kelda
