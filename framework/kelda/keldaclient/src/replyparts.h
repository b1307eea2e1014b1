#pragma once

#include <QByteArray>

#include <atomic>

namespace Kelda {

// Cuts a reply that is still arriving into parts for the command sender,
// which reads each while the rest arrives (ReplyStream). A part ends behind
// the end tag of a group element, where the reading can pause; a reply
// without such tags is never cut. Parts that the sender has not read yet are
// held to a few MiB, so that a sender slower than the network costs no more
// memory than the reply's own buffer: the bytes not handed on wait there and
// go in a later part, or in the whole message at the end.
//
// Lives on the socket thread; only PartRead() is called from the sender's.
class ReplyParts
{
public:
    // The next part of the reply whose first received.size() bytes have
    // arrived, and where it starts; an empty part when none is due.
    QByteArray TakePart(const QByteArray &received, qint64 *offset);
    // Some part of the reply under way was handed on.
    bool HasParts() const { return m_handedOn > 0; }
    // The next bytes belong to another reply.
    void Reset();

    // The sender has read bytes of the parts.
    void PartRead(qint64 bytes) { m_unread -= bytes; }

private:
    qint64 m_searched = 0;
    qint64 m_boundary = 0;
    qint64 m_handedOn = 0;
    std::atomic<qint64> m_unread{0};
};

} // namespace Kelda
