#pragma once

#include "querytablereader.h"
#include "replyparser.h"

#include <QByteArray>
#include <QXmlStreamReader>

#include <memory>
#include <optional>

namespace Kelda {

// A QueryFileGroups reply read while its bytes arrive, so that little is
// left to read once the last one is in.
//
// The message's bytes are fed in pieces, in order; the groups in them are
// read at once. A piece may end anywhere, but one that ends inside a group
// stops the reading (GroupBoundary() finds where to cut). Finish() takes the
// whole message and reads the rest. Its result is always the one
// ParseReplyMessage() gives for the message: a message that is no query
// answer, and one that fails to read, is read again whole by it, so that
// errors, positions and traces come out as they always have.
class ReplyStream
{
public:
    ReplyStream();
    ~ReplyStream();

    // The largest position in (from, to] behind the end tag of a group
    // element in data, which holds to bytes; -1 when there is none. A tag
    // may begin before from.
    static qint64 GroupBoundary(const char *data, qint64 from, qint64 to);

    // The bytes of the message from offset on. Offset 0 starts a new
    // message; a piece that does not follow the last one stops the reading.
    void Feed(const QByteArray &piece, qint64 offset);
    // The message, whole, of which the pieces fed were the first bytes.
    ParsedReply Finish(const QByteArray &message);
    // Drops what was read.
    void Reset();

    // The bytes fed since the message started.
    qint64 FedBytes() const { return m_fed; }
    // Whether the groups are being read; false before the first piece and
    // once the reading stopped.
    bool IsReading() const { return m_state == State::Head || m_state == State::Rows; }

private:
    enum class State { Off, Head, Rows, Done };

    void Start();
    void ReadOn();
    bool ReadRows();
    std::optional<int> NextChild();

    State m_state = State::Off;
    std::unique_ptr<QXmlStreamReader> m_reader;
    std::optional<QueryTableReader> m_table;
    ParsedReply m_reply;
    qint64 m_fed = 0;
    // The reader ran out of bytes between two children of the reply.
    bool m_paused = false;
    // The last byte is in: running out of bytes is the reply's error.
    bool m_final = false;
};

} // namespace Kelda
