#include "replyparts.h"

#include "replystream.h"

namespace Kelda {

namespace {

// What the sender may have waiting, and the size of one part: small beside a
// large reply, large beside a group and an event-loop turn.
constexpr qint64 kMaxUnreadBytes = 4 * 1024 * 1024;
constexpr qint64 kMaxPartBytes = 1024 * 1024;

} // namespace

QByteArray ReplyParts::TakePart(const QByteArray &received, qint64 *offset)
{
    const char *data = received.constData();
    const qint64 found = ReplyStream::GroupBoundary(data, m_searched, received.size());
    m_searched = received.size();
    if (found > 0)
        m_boundary = found;
    if (m_boundary <= m_handedOn || m_unread.load() >= kMaxUnreadBytes)
        return QByteArray();
    qint64 end = m_boundary;
    if (end - m_handedOn > kMaxPartBytes) {
        const qint64 earlier = ReplyStream::GroupBoundary(data, m_handedOn, m_handedOn + kMaxPartBytes);
        if (earlier > 0)
            end = earlier;
    }
    *offset = m_handedOn;
    const QByteArray part(data + m_handedOn, int(end - m_handedOn));
    m_handedOn = end;
    m_unread += part.size();
    return part;
}

void ReplyParts::Reset()
{
    m_searched = 0;
    m_boundary = 0;
    m_handedOn = 0;
    m_unread.store(0);
}

} // namespace Kelda
