#include "request.h"

#include "keldaxml.h"

#include <QXmlStreamReader>

#include <cstring>

namespace Kelda {

namespace {

// A command's own children, and one level below them, are all the protocol
// uses; anything deeper is refused rather than walked.
constexpr int MaxDepth = 2;

class DocumentReader
{
public:
    explicit DocumentReader(const QByteArray &document)
        : m_reader(document)
    { }

    RequestReader::Result run()
    {
        RequestReader::Result result;
        if (readEnvelope(result.request) && readTrailer())
            result.ok = true;
        else
            result.error = m_error;
        return result;
    }

private:
    bool fail(const QString &text)
    {
        if (m_error.isEmpty()) {
            m_error = m_reader.hasError() ? m_reader.errorString() : text;
            m_error += QStringLiteral(" at line %1, column %2").arg(m_reader.lineNumber()).arg(m_reader.columnNumber());
        }
        return false;
    }

    // The next start element, skipping blank text and comments; fails on
    // anything else, naming what was expected.
    bool nextStart(const QString &expected)
    {
        while (!m_reader.atEnd()) {
            switch (m_reader.readNext()) {
            case QXmlStreamReader::StartElement:
                return true;
            case QXmlStreamReader::Characters:
                if (!m_reader.isWhitespace())
                    return fail(QStringLiteral("Unexpected text where %1 was expected").arg(expected));
                break;
            case QXmlStreamReader::EndElement:
                return fail(QStringLiteral("Unexpected end of %1 where %2 was expected")
                                .arg(m_reader.name().toString(), expected));
            case QXmlStreamReader::Invalid:
                return fail(QString());
            default:
                break;
            }
        }
        return fail(QStringLiteral("Document ended where %1 was expected").arg(expected));
    }

    bool isEnvelope(QLatin1String name) const
    {
        return m_reader.name() == name && m_reader.namespaceUri() == Ns::Envelope;
    }

    bool expectEnvelope(QLatin1String name)
    {
        const QString qualified = Tag::s(name);
        if (!nextStart(qualified))
            return false;
        if (!isEnvelope(name))
            return fail(QStringLiteral("Expected %1, got %2").arg(qualified, m_reader.qualifiedName().toString()));
        return true;
    }

    bool readEnvelope(Request &request)
    {
        if (!expectEnvelope(Tag::Envelope))
            return false;
        if (!nextStart(QStringLiteral("s:Header or s:Body")))
            return false;
        if (isEnvelope(Tag::Header)) {
            if (!readHeader(request) || !expectEnvelope(Tag::Body))
                return false;
        } else if (!isEnvelope(Tag::Body)) {
            return fail(QStringLiteral("Expected s:Header or s:Body, got %1").arg(m_reader.qualifiedName().toString()));
        }
        if (!nextStart(QStringLiteral("a command")))
            return false;
        if (m_reader.namespaceUri() != Ns::Message)
            return fail(QStringLiteral("Command %1 is not in the namespace %2")
                            .arg(m_reader.qualifiedName().toString(), Ns::Message));
        request.command = m_reader.name().toString();
        return readChildren(request, QString(), 1);
    }

    bool readHeader(Request &request)
    {
        while (!m_reader.atEnd()) {
            switch (m_reader.readNext()) {
            case QXmlStreamReader::StartElement:
                if (isEnvelope(Tag::RequestId))
                    request.requestId = m_reader.readElementText();
                else
                    m_reader.skipCurrentElement();
                if (m_reader.hasError())
                    return fail(QString());
                break;
            case QXmlStreamReader::EndElement:
                return true;
            case QXmlStreamReader::Characters:
                if (!m_reader.isWhitespace())
                    return fail(QStringLiteral("Unexpected text in s:Header"));
                break;
            case QXmlStreamReader::Invalid:
                return fail(QString());
            default:
                break;
            }
        }
        return fail(QStringLiteral("Document ended inside s:Header"));
    }

    // Reads the children of the current element into fields; an element
    // without element children is a value.
    bool readChildren(Request &request, const QString &prefix, int depth)
    {
        while (!m_reader.atEnd()) {
            switch (m_reader.readNext()) {
            case QXmlStreamReader::StartElement:
                if (!readChild(request, prefix, depth))
                    return false;
                break;
            case QXmlStreamReader::EndElement:
                return true;
            case QXmlStreamReader::Characters:
                if (!m_reader.isWhitespace())
                    return fail(QStringLiteral("Unexpected text inside %1").arg(request.command));
                break;
            case QXmlStreamReader::Invalid:
                return fail(QString());
            default:
                break;
            }
        }
        return fail(QStringLiteral("Document ended inside %1").arg(request.command));
    }

    bool readChild(Request &request, const QString &prefix, int depth)
    {
        if (m_reader.namespaceUri() != Ns::Message)
            return fail(QStringLiteral("Element %1 is not in the namespace %2")
                            .arg(m_reader.qualifiedName().toString(), Ns::Message));
        const QString key = prefix + m_reader.name().toString();
        QString text;
        bool container = false;
        while (!m_reader.atEnd()) {
            switch (m_reader.readNext()) {
            case QXmlStreamReader::Characters:
            case QXmlStreamReader::EntityReference:
                text += m_reader.text();
                break;
            case QXmlStreamReader::StartElement:
                if (depth >= MaxDepth)
                    return fail(QStringLiteral("Element %1 nests too deep").arg(m_reader.name().toString()));
                container = true;
                if (!readChild(request, key + QLatin1Char('/'), depth + 1))
                    return false;
                break;
            case QXmlStreamReader::EndElement:
                if (!container)
                    request.fields[key].append(text);
                else if (!text.trimmed().isEmpty())
                    return fail(QStringLiteral("Unexpected text inside %1").arg(key));
                return true;
            case QXmlStreamReader::Invalid:
                return fail(QString());
            default:
                break;
            }
        }
        return fail(QStringLiteral("Document ended inside %1").arg(key));
    }

    // After the command: the ends of Body and Envelope, then nothing.
    bool readTrailer()
    {
        while (!m_reader.atEnd()) {
            switch (m_reader.readNext()) {
            case QXmlStreamReader::StartElement:
                return fail(
                    QStringLiteral("Unexpected element %1 after the command").arg(m_reader.qualifiedName().toString()));
            case QXmlStreamReader::Characters:
                if (!m_reader.isWhitespace())
                    return fail(QStringLiteral("Unexpected text after the command"));
                break;
            case QXmlStreamReader::Invalid:
                return fail(QString());
            default:
                break;
            }
        }
        return !m_reader.hasError() || fail(QString());
    }

    QXmlStreamReader m_reader;
    QString m_error;
};

// Where a document first passes the markup bound, and why; stopAt is -1
// when it stays within it. One pass over the bytes: it decides only how
// much of the document the XML reader may see, so anything malformed is
// left for the reader to refuse.
struct MarkupVerdict
{
    qsizetype stopAt = -1;
    QString reason;
};

MarkupVerdict scanMarkup(const QByteArray &document, int maxMarkup)
{
    enum class State { Text, Tag, Quoted, Comment, CData, Instruction };
    const char *const bytes = document.constData();
    const qsizetype size = document.size();
    const auto startsWith = [&](qsizetype at, const char *prefix) {
        const qsizetype length = qsizetype(qstrlen(prefix));
        return at + length <= size && std::memcmp(bytes + at, prefix, size_t(length)) == 0;
    };
    const auto tooMuch = [maxMarkup](qsizetype at) {
        return MarkupVerdict{at,
                             QStringLiteral("The request holds more than %1 elements and attributes").arg(maxMarkup)};
    };
    State state = State::Text;
    char quote = 0;
    int items = 0;
    int attributes = 0;
    qsizetype tagStart = 0;
    for (qsizetype i = 0; i < size; ++i) {
        const char c = bytes[i];
        switch (state) {
        case State::Text:
            if (c != '<')
                break;
            tagStart = i;
            if (startsWith(i, "<!--")) {
                state = State::Comment;
                i += 3;
            } else if (startsWith(i, "<![CDATA[")) {
                state = State::CData;
                i += 8;
            } else if (startsWith(i, "<!")) {
                return {i, QStringLiteral("The request declares a document type")};
            } else if (startsWith(i, "<?")) {
                state = State::Instruction;
                ++i;
            } else {
                state = State::Tag;
                attributes = 0;
                if (!startsWith(i, "</") && ++items > maxMarkup)
                    return tooMuch(i);
            }
            break;
        case State::Tag:
            if (c == '"' || c == '\'') {
                quote = c;
                state = State::Quoted;
            } else if (c == '=') {
                if (++items > maxMarkup)
                    return tooMuch(tagStart);
                if (++attributes > RequestReader::MaxAttributesPerElement)
                    return {tagStart,
                            QStringLiteral("An element of the request carries more than %1 attributes")
                                .arg(RequestReader::MaxAttributesPerElement)};
            } else if (c == '>') {
                state = State::Text;
            }
            break;
        case State::Quoted:
            if (c == quote)
                state = State::Tag;
            break;
        case State::Comment:
            if (c == '>' && bytes[i - 1] == '-' && bytes[i - 2] == '-')
                state = State::Text;
            break;
        case State::CData:
            if (c == '>' && bytes[i - 1] == ']' && bytes[i - 2] == ']')
                state = State::Text;
            break;
        case State::Instruction:
            if (c == '>' && bytes[i - 1] == '?')
                state = State::Text;
            break;
        }
    }
    return {};
}

// For a document that does not read as a request: its request id and
// command found the lenient way, by local names alone, so that the client
// still hears why. Stops at the command.
void salvageAddress(const QByteArray &document, Request &request)
{
    QXmlStreamReader reader(document);
    QStringList open;
    while (!reader.atEnd() && request.command.isEmpty()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::StartElement:
            if (!open.isEmpty() && open.last() == Tag::Body) {
                request.command = reader.name().toString();
            } else if (reader.name() == Tag::RequestId && request.requestId.isEmpty()) {
                request.requestId = reader.readElementText(QXmlStreamReader::SkipChildElements);
            } else {
                open.append(reader.name().toString());
                // The command sits three levels down; deeper is no request.
                if (open.size() > 3)
                    return;
            }
            break;
        case QXmlStreamReader::EndElement:
            if (!open.isEmpty())
                open.removeLast();
            break;
        default:
            break;
        }
    }
}

} // namespace

QString Request::text(const QString &key) const
{
    const auto it = fields.constFind(key);
    return it == fields.cend() || it->isEmpty() ? QString() : it->first();
}

qint64 Request::number(const QString &key, qint64 fallback) const
{
    bool ok = false;
    const qint64 value = text(key).trimmed().toLongLong(&ok, 10);
    return ok ? value : fallback;
}

bool Request::flag(const QString &key) const
{
    const QString value = text(key).trimmed();
    return value.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0 || value == QLatin1String("1");
}

RequestReader::Result RequestReader::read(const QByteArray &document, int maxMarkup)
{
    const MarkupVerdict verdict = maxMarkup > 0 ? scanMarkup(document, maxMarkup) : MarkupVerdict();
    if (verdict.stopAt < 0) {
        Result result = DocumentReader(document).run();
        if (!result.ok && result.request.command.isEmpty())
            salvageAddress(document, result.request);
        return result;
    }
    // What lies before the fault is within the bound: read the address
    // from it.
    const QByteArray within = document.left(int(verdict.stopAt));
    Result result = DocumentReader(within).run();
    if (result.request.command.isEmpty())
        salvageAddress(within, result.request);
    result.ok = false;
    result.error = verdict.reason;
    return result;
}

} // namespace Kelda
