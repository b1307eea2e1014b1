#include "replystream.h"

#include "keldaxml.h"

#include <cstring>

namespace Kelda {

namespace {

bool IsPrefixCharacter(char c)
{
    return c != '<' && c != '/' && c != '>' && c != ':' && c != ' ' && c != '\t' && c != '\r' && c != '\n';
}

// Whether the '>' at close ends "</FileGroup>" or "</prefix:FileGroup>".
bool IsGroupEndTag(const char *data, qint64 close)
{
    const QLatin1String name = Tag::FileGroup;
    qint64 at = close - name.size();
    if (at < 0 || std::memcmp(data + at, name.data(), size_t(name.size())) != 0)
        return false;
    if (at > 0 && data[at - 1] == ':') {
        --at;
        while (at > 0 && IsPrefixCharacter(data[at - 1]))
            --at;
    }
    return at >= 2 && data[at - 1] == '/' && data[at - 2] == '<';
}

} // namespace

ReplyStream::ReplyStream() = default;

ReplyStream::~ReplyStream() = default;

qint64 ReplyStream::GroupBoundary(const char *data, qint64 from, qint64 to)
{
    for (qint64 end = to; end > from; --end) {
        if (data[end - 1] == '>' && IsGroupEndTag(data, end - 1))
            return end;
    }
    return -1;
}

void ReplyStream::Feed(const QByteArray &piece, qint64 offset)
{
    if (offset == 0)
        Start();
    if (!IsReading() || offset != m_fed) {
        Reset();
        return;
    }
    m_fed += piece.size();
    m_reader->addData(piece);
    try {
        ReadOn();
    } catch (const ReplyProtocolError &) {
        // Whatever went wrong is reported by the whole read in Finish().
        Reset();
    }
}

ParsedReply ReplyStream::Finish(const QByteArray &message)
{
    std::optional<ParsedReply> streamed;
    if (m_state == State::Done) {
        streamed = std::move(m_reply);
    } else if (IsReading() && m_fed <= message.size()) {
        // The message outlives the reader, which is dropped below.
        m_reader->addData(QByteArray::fromRawData(message.constData() + m_fed, int(message.size() - m_fed)));
        m_final = true;
        try {
            ReadOn();
        } catch (const ReplyProtocolError &) {
            // The whole read below reports it, as it always has.
            m_state = State::Off;
        }
        if (m_state == State::Done)
            streamed = std::move(m_reply);
    }
    Reset();
    return streamed ? std::move(*streamed) : ParseReplyMessage(message);
}

void ReplyStream::Reset()
{
    m_state = State::Off;
    m_reader.reset();
    m_table.reset();
    m_reply = ParsedReply();
    m_fed = 0;
    m_paused = false;
    m_final = false;
}

void ReplyStream::Start()
{
    Reset();
    m_reader = std::make_unique<QXmlStreamReader>();
    m_state = State::Head;
}

void ReplyStream::ReadOn()
{
    if (m_state == State::Head) {
        ReadReplyHead(*m_reader, m_reply);
        const CommandDescriptor &command = Descriptor(m_reply.Kind());
        if (command.result != ResultKind::Table) {
            Reset();
            return;
        }
        m_table.emplace(command, m_reply.requestId);
        m_state = State::Rows;
    }
    if (ReadRows()) {
        m_table->Finish(m_reply);
        m_state = State::Done;
    }
}

// True at the reply's end tag, false when the bytes fed end between two
// children.
bool ReplyStream::ReadRows()
{
    for (std::optional<int> index = NextChild(); index; index = NextChild()) {
        if (*index == 0)
            return true;
        m_table->ReadChild(*m_reader, *index);
        // A child cut short leaves the reader in error without a throw; the
        // reading cannot go on from the middle of it.
        if (m_reader->hasError())
            throw ReplyProtocolError(m_reader->errorString());
    }
    return false;
}

std::optional<int> ReplyStream::NextChild()
{
    if (m_paused) {
        m_paused = false;
        // The reader stays at its end until it is asked for the next token.
        m_reader->readNext();
        if (const std::optional<int> index = MatchExpected(*m_reader, m_table->Children(), Ns::Message))
            return index;
    }
    try {
        return ReadNextExpected(*m_reader, m_table->Children(), Ns::Message);
    } catch (const ReplyProtocolError &) {
        if (m_final || m_reader->error() != QXmlStreamReader::PrematureEndOfDocumentError)
            throw;
        m_paused = true;
        return std::nullopt;
    }
}

} // namespace Kelda
