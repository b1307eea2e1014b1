#include "replyparser.h"

#include "filegroupcolumns.h"
#include "keldaerror.h"
#include "keldaxml.h"
#include "replytimes.h"
#include "trace.h"

#include <QCoreApplication>
#include <QLocale>
#include <QVarLengthArray>

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
    return expected.Size() == 1
        ? Translate("Expected element %1, but got %2").arg(expected.Joined(), got)
        : Translate("Expected one of %1, but got %2").arg(expected.Joined(), got);
}

QString ExpectedButEndText(const ExpectedElements &expected)
{
    return expected.Size() == 1
        ? Translate("Expected element %1, but got end of document").arg(expected.Joined())
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

// The reader's own text for an element inside a text element.
QString ExpectedCharacterDataText()
{
    return QCoreApplication::translate("QXmlStream", "Expected character data.");
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

// Trace texts of the failed replies. Three name another operation; they are
// diagnostics and are kept as they have always read.
namespace TraceText {
constexpr QLatin1String AddFile = Latin1Literal("Error while adding file: %1 (%2)");
constexpr QLatin1String AddReference = Latin1Literal("Error while adding reference: %1 (%2)");
constexpr QLatin1String CheckFileGroupExists = Latin1Literal("Error while getting QueryLocationStateProgress reply: %1 (%2)");
constexpr QLatin1String CloseFile = Latin1Literal("Error while closing file: %1 (%2)");
constexpr QLatin1String CreateFileGroup = Latin1Literal("Error while creating file group: %1 (%2)");
constexpr QLatin1String DeleteFileGroup = Latin1Literal("Error while getting delete filegroup reply: %1 (%2)");
constexpr QLatin1String DeleteFile = Latin1Literal("Error while deleting file group: %1 (%2)");
constexpr QLatin1String ExportArchive = Latin1Literal("Error while exporting archive: %1 (%2)");
constexpr QLatin1String ImportArchive = Latin1Literal("Error while importing archive: %1 (%2)");
constexpr QLatin1String GetTovinFilegroupGuid = Latin1Literal("Error while getting GetTovinFilegroupGuid reply: %1 (%2)");
constexpr QLatin1String GetApplicationList = Latin1Literal("Error while getting application list: %1 (%2)");
constexpr QLatin1String GetUserList = Latin1Literal("Error while getting user list: %1 (%2)");
constexpr QLatin1String GetFileList = Latin1Literal("Error while getting file list: %1 (%2)");
constexpr QLatin1String GetBasePath = Latin1Literal("Error while getting base path: %1 (%2)");
constexpr QLatin1String GetRemoteStorageLocation = Latin1Literal("Error while getting RemoteStorageLocation reply: %1 (%2)");
constexpr QLatin1String MoveToNas = Latin1Literal("Error while moving to NAS: %1 (%2)");
constexpr QLatin1String QueryFileGroups = Latin1Literal("Error while getting user list: %1 (%2)");
constexpr QLatin1String QueryLocationStateProgress = Latin1Literal("Error while getting QueryLocationStateProgress reply: %1 (%2)");
constexpr QLatin1String RegisterConverter = Latin1Literal("Error while getting register converter reply: %1 (%2)");
constexpr QLatin1String RemoveAllReferences = Latin1Literal("Error while removing all references: %1 (%2)");
constexpr QLatin1String RemoveReference = Latin1Literal("Error while removing reference: %1 (%2)");
constexpr QLatin1String RequestFile = Latin1Literal("Error while requesting file: %1 (%2)");
constexpr QLatin1String CopyProgress = Latin1Literal("Error while getting progress: %1 (%2)");
} // namespace TraceText

// Envelope steps, in the envelope namespace.
constexpr ExpectedElements EnvelopeList{Tag::Envelope};
constexpr ExpectedElements HeaderOrBodyList{Tag::Header, Tag::Body};
constexpr ExpectedElements VersionList{Tag::Version};
constexpr ExpectedElements RequestIdList{Tag::RequestId};
constexpr ExpectedElements BodyList{Tag::Body};

// Reply bodies. Where a reply has them, Error and ErrorString are the last
// two entries.
constexpr ExpectedElements AddFileList{EndOf(Tag::AddFileReply), Tag::FileId, Tag::Error, Tag::ErrorString};
constexpr ExpectedElements AddReferenceList{EndOf(Tag::AddReferenceReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements CheckFileGroupExistsList{EndOf(Tag::CheckFileGroupExistsReply), Tag::Exists, Tag::Error,
                                                    Tag::ErrorString};
constexpr ExpectedElements CloseFileList{EndOf(Tag::CloseFileReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements CreateFileGroupList{EndOf(Tag::CreateFileGroupReply), Tag::Guid, Tag::Path, Tag::Error,
                                               Tag::ErrorString};
constexpr ExpectedElements CreateTovinFileGroupList{EndOf(Tag::CreateTovinFileGroupReply), Tag::Guid, Tag::Path,
                                                    Tag::Error, Tag::ErrorString};
constexpr ExpectedElements DeleteFileGroupList{EndOf(Tag::DeleteFileGroupReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements DeleteFileList{EndOf(Tag::DeleteFileReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements ExportArchiveList{EndOf(Tag::ExportArchiveReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements ImportArchiveList{EndOf(Tag::ImportArchiveReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements GetTovinFilegroupGuidList{EndOf(Tag::GetTovinFilegroupGuidReply), Tag::Guid, Tag::Error,
                                                     Tag::ErrorString};
constexpr ExpectedElements GetApplicationListList{EndOf(Tag::GetApplicationListReply), Tag::Applications,
                                                  Tag::Application, EndOf(Tag::Applications), Tag::Error,
                                                  Tag::ErrorString};
constexpr ExpectedElements GetUserListList{EndOf(Tag::GetUserListReply), Tag::Users, Tag::User, EndOf(Tag::Users),
                                           Tag::Error, Tag::ErrorString};
constexpr ExpectedElements GetFileListList{EndOf(Tag::GetFileListReply), Tag::Files, Tag::File, Tag::FileId,
                                           Tag::FileName, EndOf(Tag::File), EndOf(Tag::Files), Tag::Error,
                                           Tag::ErrorString};
constexpr ExpectedElements GetBasePathList{EndOf(Tag::GetBasePathReply), Tag::Path, Tag::Error, Tag::ErrorString};
constexpr ExpectedElements GetRemoteStorageLocationList{EndOf(Tag::GetRemoteStorageLocationReply), Tag::RemoteIp,
                                                        Tag::AttachmentUrl, Tag::Error, Tag::ErrorString};
constexpr ExpectedElements MoveToNasList{EndOf(Tag::MoveToNasReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements QueryFileGroupsList{EndOf(Tag::QueryFileGroupsReply), Tag::FileGroup, Tag::Error,
                                               Tag::ErrorString};
constexpr ExpectedElements FileGroupList{EndOf(Tag::FileGroup), Tag::Guid, Tag::FileGroupName, Tag::FileType,
                                         Tag::LocationState, Tag::BackupTime, Tag::CreationTime,
                                         Tag::ModificationTime, Tag::LifeCycle, Tag::Comment, Tag::Creator,
                                         Tag::Detail, Tag::TeamMembership, Tag::Version, Tag::ReservedStorage,
                                         Tag::ReferenceCounter, Tag::Files};
constexpr ExpectedElements QueryLocationStateProgressList{EndOf(Tag::QueryLocationStateProgressReply),
                                                          Tag::LocationState, Tag::CopyProgress, Tag::Error,
                                                          Tag::ErrorString};
constexpr ExpectedElements RegisterConverterList{EndOf(Tag::RegisterConverterReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements RemoveAllReferencesList{EndOf(Tag::RemoveAllReferencesReply), Tag::Error,
                                                   Tag::ErrorString};
constexpr ExpectedElements RemoveReferenceList{EndOf(Tag::RemoveReferenceReply), Tag::Error, Tag::ErrorString};
constexpr ExpectedElements RequestFileList{EndOf(Tag::RequestFileReply), Tag::Path, Tag::Error, Tag::ErrorString};
constexpr ExpectedElements ConvertFileGroupList{EndOf(Tag::ConvertFileGroup), Tag::Guid, Tag::FileType, Tag::Path};
constexpr ExpectedElements CopyForeignFileGroupProgressList{EndOf(Tag::CopyForeignFileGroupProgress),
                                                            Tag::CopyProgress, Tag::Error, Tag::ErrorString};

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
void ReadListFields(QXmlStreamReader &reader, const ExpectedElements &list, int first, int last,
                    QStringList *values, Status *status)
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

// Completes the text of a failed reply and traces it; returns the code to
// store.
int FinishStatus(Status &status, QLatin1String traceText)
{
    if (status.error != 0) {
        const QString local = KeldaErrorString::Get(static_cast<KeldaError>(status.error));
        status.errorString = status.errorString.isEmpty()
            ? local
            : QStringLiteral("%1(%2)").arg(status.errorString, local);
        Q_TRACE_FAILURE(TraceSource, traceText.arg(status.errorString, QString::number(status.error)));
    }
    return StoredErrorCode(status.error);
}

void ParseStatusReply(QXmlStreamReader &reader, const ExpectedElements &list, QLatin1String traceText,
                      ParsedReply &out)
{
    Status status;
    ReadFields(reader, list, nullptr, 0, &status);
    out.lastError = FinishStatus(status, traceText);
    out.result = StatusResult{out.requestId, status.error, status.errorString};
}

// Replies with one or two text values that the signal carries as text.
template<int Count>
void ParseTextReply(QXmlStreamReader &reader, const ExpectedElements &list, QLatin1String traceText,
                    QString (&texts)[Count], Status &status, ParsedReply &out)
{
    ReadFields(reader, list, texts, Count, &status);
    out.lastError = FinishStatus(status, traceText);
}

void ParseAddFile(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[1];
    Status status;
    ParseTextReply(reader, AddFileList, TraceText::AddFile, texts, status, out);
    out.result = FileIdResult{out.requestId, texts[0].toUInt()};
}

void ParseCheckFileGroupExists(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[1];
    Status status;
    ParseTextReply(reader, CheckFileGroupExistsList, TraceText::CheckFileGroupExists, texts, status, out);
    // Only the exact text: "TRUE" or "1" mean false.
    const bool exists = texts[0] == QLatin1String("true");
    out.result = ExistsResult{out.requestId, exists, status.error, status.errorString};
}

void ParseCreateFileGroup(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[2];
    Status status;
    ParseTextReply(reader, CreateFileGroupList, TraceText::CreateFileGroup, texts, status, out);
    out.result = CreatedGroupResult{texts[0], texts[1]};
}

void ParseCreateTovinFileGroup(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[2];
    Status status;
    ParseTextReply(reader, CreateTovinFileGroupList, TraceText::CreateFileGroup, texts, status, out);
    out.result = TextResult{out.requestId, texts[0], status.error, status.errorString};
}

void ParseSingleTextReply(QXmlStreamReader &reader, const ExpectedElements &list, QLatin1String traceText,
                          ParsedReply &out)
{
    QString texts[1];
    Status status;
    ParseTextReply(reader, list, traceText, texts, status, out);
    out.result = TextResult{out.requestId, texts[0], status.error, status.errorString};
}

void ParseGetBasePath(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[1];
    Status status;
    ParseTextReply(reader, GetBasePathList, TraceText::GetBasePath, texts, status, out);
    out.result = BasePathResult{texts[0]};
}

void ParseGetRemoteStorageLocation(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[2];
    Status status;
    ParseTextReply(reader, GetRemoteStorageLocationList, TraceText::GetRemoteStorageLocation, texts, status, out);
    out.result = RemoteStorageLocationResult{out.requestId, texts[0], texts[1], status.error, status.errorString};
}

void ParseQueryLocationStateProgress(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[2];
    Status status;
    ParseTextReply(reader, QueryLocationStateProgressList, TraceText::QueryLocationStateProgress, texts, status,
                   out);
    out.result = LocationStateProgressResult{out.requestId, texts[0].toInt(), texts[1].toDouble(), status.error,
                                             status.errorString};
}

void ParseCopyForeignFileGroupProgress(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[1];
    Status status;
    ParseTextReply(reader, CopyForeignFileGroupProgressList, TraceText::CopyProgress, texts, status, out);
    out.result = CopyProgressResult{out.requestId, texts[0].toFloat()};
}

// A request from the server, not a reply: it carries no error to store.
void ParseConvertFileGroup(QXmlStreamReader &reader, ParsedReply &out)
{
    QString texts[3];
    ReadFields(reader, ConvertFileGroupList, texts, 3, nullptr);
    out.result = ConvertRequestResult{texts[0], static_cast<FileType>(texts[1].toInt()), texts[2]};
}

void ParseListReply(QXmlStreamReader &reader, const ExpectedElements &list, int first, int last,
                    QLatin1String traceText, ParsedReply &out)
{
    ListResult result{out.requestId, {}, 0, {}};
    Status status;
    ReadListFields(reader, list, first, last, &result.list, &status);
    out.lastError = FinishStatus(status, traceText);
    result.error = status.error;
    result.errorString = status.errorString;
    out.result = std::move(result);
}

// The record is read by the record's own reader, which also yields the code;
// the reply's text is the local sentence for every code, success included.
void ParseQueryMetaData(QXmlStreamReader &reader, ParsedReply &out)
{
    MetaDataResult result;
    result.requestId = out.requestId;
    result.error = result.metaData.FromHtml(reader);
    result.errorString = MetaDataErrorText(result.error);
    out.lastError = StoredErrorCode(result.error);
    out.result = std::move(result);
}

// QXmlStreamReader::readElementText() for values that are converted at once:
// short texts need no heap allocation. The view lives until the next Read.
class ElementText
{
public:
    QStringView Read(QXmlStreamReader &reader)
    {
        m_buffer.clear();
        for (;;) {
            switch (reader.readNext()) {
            case QXmlStreamReader::Characters:
            case QXmlStreamReader::EntityReference: {
                const QStringRef text = reader.text();
                m_buffer.append(text.constData(), text.size());
                break;
            }
            case QXmlStreamReader::EndElement:
                return View();
            case QXmlStreamReader::Comment:
            case QXmlStreamReader::ProcessingInstruction:
                break;
            default:
                if (!reader.hasError())
                    reader.raiseError(ExpectedCharacterDataText());
                return View();
            }
        }
    }

    int ReadInt(QXmlStreamReader &reader) { return ToInt(Read(reader)); }

private:
    QStringView View() const { return QStringView(m_buffer.constData(), m_buffer.size()); }

    // The rules of QString::toInt(): blanks around, a sign, no group separators.
    static int ToInt(QStringView text)
    {
        // Never destroyed, like the element lists.
        static const QLocale *const c = [] {
            auto *locale = new QLocale(QLocale::c());
            locale->setNumberOptions(QLocale::RejectGroupSeparator);
            return locale;
        }();
        return c->toInt(text);
    }

    QVarLengthArray<QChar, 64> m_buffer;
};

// Reads one m:FileGroup of a query reply. m:Files is passed unread: a Files
// element with children fails the reply at its first child.
FileGroupData ReadFileGroup(QXmlStreamReader &reader, ElementText &value, ReplyTimes &times)
{
    FileGroupData group;
    for (int index = NextChild(reader, FileGroupList); index != 0; index = NextChild(reader, FileGroupList)) {
        switch (index) {
        case 1: group.setGuid(reader.readElementText()); break;
        case 2: group.setFileGroupName(reader.readElementText()); break;
        case 3: group.setFileType(static_cast<FileType>(value.ReadInt(reader))); break;
        case 4: group.setLocationState(static_cast<LocationState>(value.ReadInt(reader))); break;
        case 5: group.setBackupTime(times.Read(value.Read(reader), FileGroupColumn::BackupTime)); break;
        case 6: group.setCreationTime(times.Read(value.Read(reader), FileGroupColumn::CreationTime)); break;
        case 7: group.setModificationTime(times.Read(value.Read(reader), FileGroupColumn::ModificationTime)); break;
        case 8: group.setLifeCycle(times.Read(value.Read(reader), FileGroupColumn::LifeCycle)); break;
        case 9: group.setComment(reader.readElementText()); break;
        case 10: group.setCreator(reader.readElementText()); break;
        case 11: group.setDetail(reader.readElementText()); break;
        case 12: group.setTeamMembership(reader.readElementText()); break;
        case 13: group.setVersion(reader.readElementText()); break;
        case 14: group.setReservedStorage(value.ReadInt(reader)); break;
        case 15: group.setReferenceCounter(value.ReadInt(reader)); break;
        default: break; // Files
        }
    }
    return group;
}

// The table grows group by group; a failure anywhere drops all of it.
void ParseQueryFileGroups(QXmlStreamReader &reader, ParsedReply &out)
{
    TableResult result;
    result.requestId = out.requestId;
    FileGroupData::GetHeaders(result.table);
    result.columnCount = result.table.size();
    Status status;
    ElementText value;
    ReplyTimes times;
    for (int index = NextChild(reader, QueryFileGroupsList); index != 0;
         index = NextChild(reader, QueryFileGroupsList)) {
        if (index == 1) {
            const FileGroupData group = ReadFileGroup(reader, value, times);
            const int row = result.table.size();
            group.ToStringList(result.table);
            times.FillRow(result.table, row);
        } else if (index == 2) {
            status.error = value.ReadInt(reader);
        } else {
            status.errorString = reader.readElementText();
        }
    }
    out.lastError = FinishStatus(status, TraceText::QueryFileGroups);
    result.error = status.error;
    result.errorString = status.errorString;
    out.result = std::move(result);
}

// The parsers that differ only in their list of children and trace text.
template<const ExpectedElements &List, const QLatin1String &Trace>
void StatusReply(QXmlStreamReader &reader, ParsedReply &out)
{
    ParseStatusReply(reader, List, Trace, out);
}

template<const ExpectedElements &List, const QLatin1String &Trace>
void SingleTextReply(QXmlStreamReader &reader, ParsedReply &out)
{
    ParseSingleTextReply(reader, List, Trace, out);
}

template<const ExpectedElements &List, int First, int Last, const QLatin1String &Trace>
void ListReply(QXmlStreamReader &reader, ParsedReply &out)
{
    ParseListReply(reader, List, First, Last, Trace, out);
}

using BodyParser = void (*)(QXmlStreamReader &, ParsedReply &);

struct ReplyEntry
{
    QLatin1String body;
    // Throws ReplyProtocolError; out keeps what was read before. Null for a
    // reply that is recognised but not read.
    BodyParser parse;
};

// Every message the client recognises, by its body element, in ReplyKind
// order.
constexpr ReplyEntry Replies[] = {
    {Tag::CreateFileGroupReply, ParseCreateFileGroup},
    {Tag::AddFileReply, ParseAddFile},
    {Tag::DeleteFileReply, StatusReply<DeleteFileList, TraceText::DeleteFile>},
    {Tag::RequestFileReply, SingleTextReply<RequestFileList, TraceText::RequestFile>},
    {Tag::CloseFileReply, StatusReply<CloseFileList, TraceText::CloseFile>},
    {Tag::MoveToNasReply, StatusReply<MoveToNasList, TraceText::MoveToNas>},
    {Tag::AddReferenceReply, StatusReply<AddReferenceList, TraceText::AddReference>},
    {Tag::RemoveReferenceReply, StatusReply<RemoveReferenceList, TraceText::RemoveReference>},
    {Tag::RemoveAllReferencesReply, StatusReply<RemoveAllReferencesList, TraceText::RemoveAllReferences>},
    {Tag::QueryMetaDataReply, ParseQueryMetaData},
    {Tag::GetApplicationListReply, ListReply<GetApplicationListList, 2, 2, TraceText::GetApplicationList>},
    {Tag::GetFileListReply, ListReply<GetFileListList, 3, 4, TraceText::GetFileList>},
    {Tag::GetUserListReply, ListReply<GetUserListList, 2, 2, TraceText::GetUserList>},
    {Tag::QueryFileGroupsReply, ParseQueryFileGroups},
    {Tag::GetBasePathReply, ParseGetBasePath},
    {Tag::CopyForeignFileGroupProgress, ParseCopyForeignFileGroupProgress},
    {Tag::ExportArchiveReply, StatusReply<ExportArchiveList, TraceText::ExportArchive>},
    {Tag::ImportArchiveReply, StatusReply<ImportArchiveList, TraceText::ImportArchive>},
    {Tag::CreateTovinFileGroupReply, ParseCreateTovinFileGroup},
    {Tag::RegisterConverterReply, StatusReply<RegisterConverterList, TraceText::RegisterConverter>},
    {Tag::ConvertFileGroup, ParseConvertFileGroup},
    {Tag::DeleteFileGroupReply, StatusReply<DeleteFileGroupList, TraceText::DeleteFileGroup>},
    {Tag::QueryLocationStateProgressReply, ParseQueryLocationStateProgress},
    {Tag::CheckFileGroupExistsReply, ParseCheckFileGroupExists},
    {Tag::GetRemoteStorageLocationReply, ParseGetRemoteStorageLocation},
    {Tag::GetTovinFilegroupGuidReply, SingleTextReply<GetTovinFilegroupGuidList, TraceText::GetTovinFilegroupGuid>},
    {Tag::QueryDiskSpaceReply, nullptr},
};
static_assert(std::size(Replies) == size_t(ReplyKind::Count), "one entry per reply kind");

constexpr ExpectedElements BodyElements()
{
        ExpectedElements bodies;
    for (const ReplyEntry &reply : Replies)
        bodies.Append(reply.body);
    return bodies;
}

constexpr ExpectedElements DispatchList = BodyElements();

void ParseBody(ReplyKind kind, QXmlStreamReader &reader, ParsedReply &out)
{
    const int index = static_cast<int>(kind);
    if (index < 0 || index >= int(ReplyKind::Count))
        return;
    if (const BodyParser parse = Replies[index].parse)
        parse(reader, out);
}

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

QString ExpectedElements::Joined() const
{
    QString joined;
    for (int i = 0; i < m_size; ++i) {
        if (i > 0)
            joined += QLatin1String(", ");
        if (m_entries[i].isEnd)
            joined += QLatin1Char('/');
        joined += m_entries[i].name;
    }
    return joined;
}

int ReadNextExpected(QXmlStreamReader &reader, const ExpectedElements &expected, QLatin1String namespaceUri)
{
    const int count = expected.Size();
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
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
    }
    if (reader.hasError())
        throw ReplyProtocolError(reader.errorString());
    throw ReplyProtocolError(ExpectedButEndText(expected));
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

ParsedReply ParseReplyMessage(const QByteArray &message)
{
    QXmlStreamReader reader(message);
    ParsedReply out;
    try {
        ReadEnvelope(reader, out);
        out.index = ReadNextExpected(reader, DispatchList, Ns::Message);
        ParseBody(out.Kind(), reader, out);
    } catch (const ReplyProtocolError &error) {
        FailWith(error, reader, out);
    }
    return out;
}

} // namespace Kelda
