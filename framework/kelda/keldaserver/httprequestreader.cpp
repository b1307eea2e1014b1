#include "httprequestreader.h"

#include <QList>

namespace Kelda {

namespace {

bool isToken(const QByteArray &text)
{
    if (text.isEmpty())
        return false;
    for (const char c : text) {
        if (c <= ' ' || c >= 127 || c == ':')
            return false;
    }
    return true;
}

bool hasControls(const QByteArray &line)
{
    for (const char c : line) {
        if ((c >= 0 && c < ' ' && c != '\t') || c == 127)
            return true;
    }
    return false;
}

} // namespace

HttpRequestReader::State HttpRequestReader::refuse(int status)
{
    m_status = status;
    m_state = State::Refused;
    m_buffer.clear();
    return m_state;
}

HttpRequestReader::State HttpRequestReader::feed(const QByteArray &bytes)
{
    if (m_state != State::NeedMore)
        return m_state == State::Complete && !bytes.isEmpty() ? refuse(400) : m_state;
    m_buffer += bytes;
    const int end = m_buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return m_buffer.size() > MaxHeadBytes ? refuse(431) : m_state;
    if (end + 4 > MaxHeadBytes)
        return refuse(431);
    // A GET carries no body: whatever follows the head is a fault.
    if (m_buffer.size() > end + 4)
        return refuse(400);
    return parseHead(m_buffer.left(end));
}

HttpRequestReader::State HttpRequestReader::parseHead(const QByteArray &head)
{
    const QList<QByteArray> lines = head.split('\n');
    QList<QByteArray> requestLine;
    for (int i = 0; i < lines.size(); ++i) {
        QByteArray line = lines.at(i);
        if (!line.endsWith('\r') && i + 1 < lines.size())
            return refuse(400);
        line.chop(line.endsWith('\r') ? 1 : 0);
        if (hasControls(line))
            return refuse(400);
        if (i == 0) {
            requestLine = line.split(' ');
            continue;
        }
        const int colon = line.indexOf(':');
        if (colon <= 0 || !isToken(line.left(colon)))
            return refuse(400);
        if (line.left(colon).toLower() == "content-length" && line.mid(colon + 1).trimmed() != "0")
            return refuse(400);
        if (line.left(colon).toLower() == "transfer-encoding")
            return refuse(400);
    }
    if (requestLine.size() != 3 || !isToken(requestLine.at(0)) || !requestLine.at(1).startsWith('/'))
        return refuse(400);
    if (requestLine.at(2) != "HTTP/1.1" && requestLine.at(2) != "HTTP/1.0")
        return refuse(requestLine.at(2).startsWith("HTTP/") ? 505 : 400);
    if (requestLine.at(0) != "GET")
        return refuse(405);
    const QByteArray target = requestLine.at(1);
    const int query = target.indexOf('?');
    m_path = query < 0 ? target : target.left(query);
    m_state = State::Complete;
    return m_state;
}

} // namespace Kelda
