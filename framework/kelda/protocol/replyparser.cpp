#include "replyparser.h"

#include "keldaerror.h"
#include "keldaxml.h"
#include "querytablereader.h"
#include "trace.h"

#include <QCoreApplication>

#include <iterator>
#include <utility>

namespace Kelda {

namespace {

// The parsers run inside the command sender; their traces name it.
const char *const TraceSource = "framework/kelda/keldaclient/src/commandsender";

// User-visible texts, all through translation.
QString Translate(const char *text)
{
    return QCoreApplication::translate("Kelda::ReplyParser", text);
}

QString ExpectedButGotText(const ExpectedElements &expected, const QString &got)
{
    return expected.Size() == 1 ? Translate("Expected element %1, but got %2").arg(expected.Joined(), got)
                                : Translate("Expected one of %1, but got %2").arg(expected.Joined(), got);
}

QString ExpectedButEndText(const ExpectedElements &expected)
{
    return expected.Size() == 1 ? Translate("Expected element %1, but got end of document").arg(expected.Joined())
                                : Translate("Expected one of %1, but got end of document").arg(expected.Joined());
}

QString NamespaceText(QLatin1String expected, const QStringRef &got)
{
    return Translate("Expected namespace %1, but got %2").arg(expected, got);
}

QString UnexpectedText(const QStringRef &text)
{
    return Translate("Unexpected text %1").arg(text);
}

QString WithPosition(const QString &text, const QXmlStreamReader &reader)
{
    return text + Translate(" at line %1, column %2").arg(reader.lineNumber()).arg(reader.columnNumber());
}

QString MetaDataErrorText(int error)
{
    return Translate("the filegroup meta data request returned the error: %1")
        .arg(KeldaErrorString::Get(static_cast<KeldaError>(error)));
}

// Envelope steps, in the envelope namespace.
constexpr ExpectedElements EnvelopeList{Tag::Envelope};
constexpr ExpectedElements HeaderOrBodyList{Tag::Header, Tag::Body};
constexpr ExpectedElements VersionList{Tag::Version};
constexpr ExpectedElements RequestIdList{Tag::RequestId};
constexpr ExpectedElements BodyList{Tag::Body};

int NextChild(QXmlStreamReader &reader, const ExpectedElements &list)
{
    return ReadNextExpected(reader, list, Ns::Message);
}

bool IsBlank(const QStringRef &text)
{
    for (const QChar c : text) {
        if (!c.isSpace())
            return false;
    }
    return true;
}

// Error and ErrorString of a reply, completed with the local text.
struct Status
{
    int error = 0;
    QString errorString;
};

// Reads the children of a reply whose values are texts at positions
// 1..count of list, followed by Error and ErrorString when the list has them.
// A repeated child overwrites the earlier value.
void ReadFields(QXmlStreamReader &reader, const ExpectedElements &list, QString *texts, int count, Status *status)
{
    for (int index = NextChild(reader, list); index != 0; index = NextChild(reader, list)) {
        if (index <= count)
            texts[index - 1] = reader.readElementText();
        else if (index == count + 1)
            status->error = reader.readElementText().toInt();
        else
            status->errorString = reader.readElementText();
    }
}

// Reads a reply that lists texts: positions first..last of list are appended
// in arrival order, Error and ErrorString are the last two positions, and
// every other position is a wrapper that is only passed.
void ReadListFields(QXmlStreamReader &reader, const ExpectedElements &list, int first, int last, QStringList *values,
                    Status *status)
{
    const int errorIndex = list.Size() - 2;
    for (int index = NextChild(reader, list); index != 0; index = NextChild(reader, list)) {
        if (index >= first && index <= last)
            values->append(reader.readElementText());
        else if (index == errorIndex)
            status->error = reader.readElementText().toInt();
        else if (index == errorIndex + 1)
            status->errorString = reader.readElementText();
    }
}

int FinishStatus(Status &status, QLatin1String traceText)
{
    return CompleteStatus(status.error, status.errorString, traceText);
}

// The result of a reply made of the texts of its first children.
ReplyResult ResultOfValues(ResultKind kind, const QString &requestId, const QString *texts, const Status &status)
{
    switch (kind) {
    case ResultKind::Status:
        return StatusResult{requestId, status.error, status.errorString};
    case ResultKind::Text:
        return TextResult{requestId, texts[0], status.error, status.errorString};
    case ResultKind::FileId:
        return FileIdResult{requestId, texts[0].toUInt()};
    case ResultKind::CreatedGroup:
        return CreatedGroupResult{texts[0], texts[1]};
    case ResultKind::BasePath:
        return BasePathResult{texts[0]};
    case ResultKind::LocationStateProgress:
        return LocationStateProgressResult{requestId, texts[0].toInt(), texts[1].toDouble(), status.error,
                                           status.errorString};
    case ResultKind::Exists:
        // Only the exact text: "TRUE" or "1" mean false.
        return ExistsResult{requestId, texts[0] == QLatin1String("true"), status.error, status.errorString};
    case ResultKind::RemoteStorageLocation:
        return RemoteStorageLocationResult{requestId, texts[0], texts[1], status.error, status.errorString};
    case ResultKind::ConvertRequest:
        return ConvertRequestResult{texts[0], static_cast<FileType>(texts[1].toInt()), texts[2]};
    case ResultKind::CopyProgress:
        return CopyProgressResult{requestId, texts[0].toFloat()};
    default:
        return std::monostate();
    }
}

// A server's request (ConvertFileGroup) is no reply: it carries no error to
// store.
void ParseValues(QXmlStreamReader &reader, const CommandDescriptor &command, ParsedReply &out)
{
    QString texts[MaxReplyValues];
    Status status;
    const bool hasStatus = HasStatus(command.result);
    ReadFields(reader, command.children, texts, ValueCount(command), hasStatus ? &status : nullptr);
    if (hasStatus)
        out.lastError = FinishStatus(status, command.errorTrace);
    out.result = ResultOfValues(command.result, out.requestId, texts, status);
}

void ParseList(QXmlStreamReader &reader, const CommandDescriptor &command, ParsedReply &out)
{
    ListResult result{out.requestId, {}, 0, {}};
    Status status;
    ReadListFields(reader, command.children, FirstListValue(command.children), LastListValue(command.children),
                   &result.list, &status);
    out.lastError = FinishStatus(status, command.errorTrace);
    result.error = status.error;
    result.errorString = status.errorString;
    out.result = std::move(result);
}

// One record: each field into its column, in whatever order the fields
// arrive; a field the record lacks stays empty, a repeated one keeps its
// last value.
void ReadRecord(QXmlStreamReader &reader, const ExpectedElements &record, QStringList &values)
{
    const int first = values.size();
    for (int column = 1; column < record.Size(); ++column)
        values.append(QString());
    for (int index = NextChild(reader, record); index != 0; index = NextChild(reader, record))
        values[first + index - 1] = reader.readElementText();
}

// Every other start tag of the reply's children wraps the records and is
// passed.
void ParseRecords(QXmlStreamReader &reader, const CommandDescriptor &command, ParsedReply &out)
{
    RecordsResult result;
    result.requestId = out.requestId;
    result.fieldCount = command.record.Size() - 1;
    Status status;
    const int recordIndex = IndexOfStart(command.children, command.record.At(0).name);
    const int errorIndex = command.children.Size() - 2;
    for (int index = NextChild(reader, command.children); index != 0; index = NextChild(reader, command.children)) {
        if (index == recordIndex)
            ReadRecord(reader, command.record, result.values);
        else if (index == errorIndex)
            status.error = reader.readElementText().toInt();
        else if (index == errorIndex + 1)
            status.errorString = reader.readElementText();
    }
    out.lastError = FinishStatus(status, command.errorTrace);
    result.error = status.error;
    result.errorString = status.errorString;
    out.result = std::move(result);
}

// The record is read by the record's own reader, which also yields the code;
// the reply's text is the local sentence for every code, success included.
void ParseMetaData(QXmlStreamReader &reader, ParsedReply &out)
{
    MetaDataResult result;
    result.requestId = out.requestId;
    result.error = result.metaData.FromHtml(reader);
    result.errorString = MetaDataErrorText(result.error);
    out.lastError = StoredErrorCode(result.error);
    out.result = std::move(result);
}

// Throws ReplyProtocolError; out keeps what was read before.
void ParseBody(const CommandDescriptor &command, QXmlStreamReader &reader, ParsedReply &out)
{
    switch (command.result) {
    case ResultKind::None:
        break;
    case ResultKind::List:
        ParseList(reader, command, out);
        break;
    case ResultKind::Table: {
        QueryTableReader table(command, out.requestId);
        table.ReadAll(reader);
        table.Finish(out);
        break;
    }
    case ResultKind::MetaData:
        ParseMetaData(reader, out);
        break;
    case ResultKind::Records:
        ParseRecords(reader, command, out);
        break;
    default:
        ParseValues(reader, command, out);
        break;
    }
}

void ParseBody(ReplyKind kind, QXmlStreamReader &reader, ParsedReply &out)
{
    const int index = static_cast<int>(kind);
    if (index >= 0 && index < CommandCount)
        ParseBody(CommandDescriptors[index], reader, out);
}

// Every message the client recognises, by its body element, in ReplyKind
// order.
constexpr ExpectedElements BodyElements()
{
    ExpectedElements bodies;
    for (const CommandDescriptor &command : CommandDescriptors)
        bodies.Append(command.reply);
    return bodies;
}

constexpr ExpectedElements DispatchList = BodyElements();

void ReadEnvelope(QXmlStreamReader &reader, ParsedReply &out)
{
    ReadNextExpected(reader, EnvelopeList, Ns::Envelope);
    if (ReadNextExpected(reader, HeaderOrBodyList, Ns::Envelope) == 0) {
        ReadNextExpected(reader, VersionList, Ns::Envelope);
        reader.readElementText();
        ReadNextExpected(reader, RequestIdList, Ns::Envelope);
        out.requestId = reader.readElementText();
        ReadNextExpected(reader, BodyList, Ns::Envelope);
    }
}

void FailWith(const ReplyProtocolError &error, const QXmlStreamReader &reader, ParsedReply &out)
{
    out.result = std::monostate();
    out.lastError.reset();
    out.error = WithPosition(error.Text(), reader);
}

} // namespace

QString NotSupportedText()
{
    return Translate("not supported by this server");
}

std::optional<int> MatchExpected(const QXmlStreamReader &reader, const ExpectedElements &expected,
                                 QLatin1String namespaceUri)
{
    const int count = expected.Size();
    switch (reader.tokenType()) {
    case QXmlStreamReader::StartElement: {
        const QStringRef name = reader.name();
        if (reader.namespaceUri() != namespaceUri)
            throw ReplyProtocolError(NamespaceText(namespaceUri, reader.namespaceUri()));
        for (int i = 0; i < count; ++i) {
            const ExpectedElements::Entry &entry = expected.At(i);
            if (!entry.isEnd && entry.name.size() == name.size() && name == entry.name)
                return i;
        }
        throw ReplyProtocolError(ExpectedButGotText(expected, name.toString()));
    }
    case QXmlStreamReader::EndElement: {
        if (reader.namespaceUri() != namespaceUri)
            break;
        const QStringRef name = reader.name();
        for (int i = 0; i < count; ++i) {
            const ExpectedElements::Entry &entry = expected.At(i);
            if (entry.isEnd && entry.name.size() == name.size() && name == entry.name)
                return i;
        }
        break;
    }
    case QXmlStreamReader::Characters:
        if (!reader.isWhitespace() && !IsBlank(reader.text()))
            throw ReplyProtocolError(UnexpectedText(reader.text()));
        break;
    default:
        break;
    }
    return std::nullopt;
}

int ReadNextExpected(QXmlStreamReader &reader, const ExpectedElements &expected, QLatin1String namespaceUri)
{
    while (!reader.atEnd()) {
        reader.readNext();
        if (const std::optional<int> index = MatchExpected(reader, expected, namespaceUri))
            return *index;
    }
    if (reader.hasError())
        throw ReplyProtocolError(reader.errorString());
    throw ReplyProtocolError(ExpectedButEndText(expected));
}

void ReadReplyHead(QXmlStreamReader &reader, ParsedReply &out)
{
    ReadEnvelope(reader, out);
    out.index = ReadNextExpected(reader, DispatchList, Ns::Message);
}

int CompleteStatus(int error, QString &errorString, QLatin1String traceText)
{
    // A server answers a command it does not know with this code in the
    // command's own reply: the client asked for more than that server has.
    if (error == KE_UnknownReplyCommand) {
        errorString = NotSupportedText();
        Q_TRACE_FAILURE(TraceSource, traceText.arg(errorString, QString::number(error)));
    } else if (error != 0) {
        const QString local = KeldaErrorString::Get(static_cast<KeldaError>(error));
        errorString = errorString.isEmpty() ? local : QStringLiteral("%1(%2)").arg(errorString, local);
        Q_TRACE_FAILURE(TraceSource, traceText.arg(errorString, QString::number(error)));
    }
    return StoredErrorCode(error);
}

int StoredErrorCode(int error)
{
    // Codes beyond the known range are not stored as such.
    return error > KE_LastError ? KE_UnknownError : error;
}

QDateTime ParseReplyDateTime(QStringView text)
{
    QDate date;
    QTime time;
    return SplitReplyDateTime(text, &date, &time) ? QDateTime(date, time) : QDateTime();
}

ParsedReply ParseReply(ReplyKind kind, QXmlStreamReader &reader, const QString &requestId)
{
    ParsedReply out;
    out.index = static_cast<int>(kind);
    out.requestId = requestId;
    try {
        ParseBody(kind, reader, out);
    } catch (const ReplyProtocolError &error) {
        FailWith(error, reader, out);
    }
    return out;
}

ParsedReply ParseReply(const CommandDescriptor &command, QXmlStreamReader &reader, const QString &requestId)
{
    ParsedReply out;
    out.index = static_cast<int>(command.kind);
    out.requestId = requestId;
    try {
        ParseBody(command, reader, out);
    } catch (const ReplyProtocolError &error) {
        FailWith(error, reader, out);
    }
    return out;
}

ParsedReply ParseReplyMessage(const QByteArray &message)
{
    QXmlStreamReader reader(message);
    ParsedReply out;
    try {
        ReadReplyHead(reader, out);
        ParseBody(out.Kind(), reader, out);
    } catch (const ReplyProtocolError &error) {
        FailWith(error, reader, out);
    }
    return out;
}

} // namespace Kelda
