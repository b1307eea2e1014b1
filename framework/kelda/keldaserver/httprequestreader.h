#pragma once

#include <QByteArray>

namespace Kelda {

// Reads the head of one HTTP/1.x request, as strictly as a monitoring
// endpoint needs and no further: a request line of GET, a path and a
// version, then header lines up to the empty line; nothing may follow.
// Anything else, or a head longer than the limit, is refused with the
// status to answer.
class HttpRequestReader
{
public:
    enum class State { NeedMore, Complete, Refused };

    static constexpr int MaxHeadBytes = 4096;

    State feed(const QByteArray &bytes);
    State state() const { return m_state; }
    // Valid once Complete: the path without any query string.
    QByteArray path() const { return m_path; }
    // Valid once Refused: 400, 405, 431 or 505.
    int status() const { return m_status; }

private:
    State refuse(int status);
    State parseHead(const QByteArray &head);

    QByteArray m_buffer;
    QByteArray m_path;
    State m_state = State::NeedMore;
    int m_status = 0;
};

} // namespace Kelda
