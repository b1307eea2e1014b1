#pragma once

#include <QtGlobal>

#include <atomic>

namespace Kelda {

// What the database threads may know of a client connection while they
// work for it: whether it is gone, so that its queued work is dropped, and
// how many answer bytes wait for it, so that no further answer is built
// while it does not read them. The network thread writes the fields, the
// database threads read them; they are hints, exact once the threads meet.
struct ConnectionGate
{
    explicit ConnectionGate(qint64 maxBacklog)
        : maxBacklog(maxBacklog)
    { }

    // Bytes of answers waiting for the client: built by a database thread
    // and not yet handed to the socket, plus those the socket holds unsent.
    qint64 backlog() const { return built.load() + unsent.load(); }
    bool overBacklog() const { return backlog() > maxBacklog; }

    const qint64 maxBacklog;
    std::atomic<bool> closed{false};
    std::atomic<qint64> built{0};
    std::atomic<qint64> unsent{0};
    // A database thread holds requests back for this connection: tell it
    // when the backlog shrinks or the connection closes.
    std::atomic<bool> held{false};
};

} // namespace Kelda
