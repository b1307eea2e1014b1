#pragma once

#include "commanddescriptors.h"
#include "expectedelements.h"
#include "filegroupdata.h"
#include "filetype.h"

#include <QByteArray>
#include <QLatin1String>
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QXmlStreamReader>

#include <optional>
#include <variant>

// Reading of the server's messages: the envelope, the dispatch by body
// element, and each reply read as its descriptor (commanddescriptors.h)
// says. Everything here is plain code over a QXmlStreamReader, with no
// QObject, socket or thread, so that the command sender only stores the
// error code and emits the signal that the descriptor names:
//
//     const ParsedReply parsed = ParseReplyMessage(bytes);
//     if (!parsed.IsValid())            -> SlotHandleXmlError(parsed.error, true)
//     if (parsed.lastError)             -> last error = *parsed.lastError
//     Descriptor(parsed.Kind())         -> emit its signal from parsed.result
//     ReplyKind::QueryDiskSpace         -> "Unknown command: 26" (no result)
//     then                              -> emit si_requestHandled(parsed.requestId)
//
// Error traces of the parsers are written here, with the command sender as
// their source.
namespace Kelda {

// Protocol error of one read step: the text, without the position suffix.
class ReplyProtocolError
{
public:
    explicit ReplyProtocolError(const QString &text)
        : m_sText(text)
    { }
    QString Text() const { return m_sText; }

private:
    QString m_sText;
};

// Advances to the next start element, or end element, named in expected and
// in namespaceUri, and returns its index. Whitespace, comments, declarations
// and end tags not listed are skipped. Throws ReplyProtocolError for a start
// element that is not listed or in another namespace, for text that is not
// whitespace, at the end of the document and on a reader error.
int ReadNextExpected(QXmlStreamReader &reader, const ExpectedElements &expected, QLatin1String namespaceUri);
// What ReadNextExpected makes of the token the reader stands on: its index,
// or nothing for a token it passes. Throws as ReadNextExpected does.
std::optional<int> MatchExpected(const QXmlStreamReader &reader, const ExpectedElements &expected,
                                 QLatin1String namespaceUri);

// Result values, member order = argument order of the reply signal.

// deleteFileReply, closeFileReply, moveToNasReply, addReferenceReply,
// removeReferenceReply, removeAllReferenceReply, exportArchiveReply,
// importArchiveReply, registerConverterReply, deleteFileGroupReply.
struct StatusResult
{
    QString requestId;
    int error = 0;
    QString errorString;
};

// requestFileReply (the Path), createTovinFileGroupReply and
// getTovinFilegroupGuidReply (the Guid).
struct TextResult
{
    QString requestId;
    QString text;
    int error = 0;
    QString errorString;
};

// getApplicationListReply, getUserListReply, getFileListReply (id, name, id,
// name, ... in arrival order).
struct ListResult
{
    QString requestId;
    QStringList list;
    int error = 0;
    QString errorString;
};

// queryFileGroupsReply: the headers, then one row per group, in one list;
// columnCount is the number of headers.
struct TableResult
{
    QString requestId;
    QStringList table;
    int columnCount = 0;
    int error = 0;
    QString errorString;
};

// addFileReply.
struct FileIdResult
{
    QString requestId;
    unsigned int fileId = 0;
};

// createFileGroupReply: the group's Guid (the request id of the creating
// request) and its path.
struct CreatedGroupResult
{
    QString guid;
    QString path;
};

// GetBasePathReply: what connected() carries.
struct BasePathResult
{
    QString path;
};

// queryMetaDataReply; errorString is the local sentence for every code.
struct MetaDataResult
{
    QString requestId;
    FileGroupData metaData;
    int error = 0;
    QString errorString;
};

// queryLocationStateProgressReply.
struct LocationStateProgressResult
{
    QString requestId;
    int locationState = 0;
    double progress = 0.0;
    int error = 0;
    QString errorString;
};

// checkFileGroupExistsReply.
struct ExistsResult
{
    QString requestId;
    bool exists = false;
    int error = 0;
    QString errorString;
};

// getRemoteStorageLocationReply.
struct RemoteStorageLocationResult
{
    QString requestId;
    QString remoteIp;
    QString attachmentUrl;
    int error = 0;
    QString errorString;
};

// convertFileGroupRequested: the server asks for a conversion.
struct ConvertRequestResult
{
    QString guid;
    FileType fileType = FT_Unknown;
    QString path;
};

// copyForeignFileGroupProgess.
struct CopyProgressResult
{
    QString requestId;
    float progress = 0.0f;
};

// A reply of records (ResultKind::Records): fieldCount texts per record, in
// the order in which the descriptor's record names its fields
// (RecordColumn()).
struct RecordsResult
{
    QString requestId;
    QStringList values;
    int fieldCount = 0;
    int error = 0;
    QString errorString;
};

using ReplyResult =
    std::variant<std::monostate, StatusResult, TextResult, ListResult, TableResult, FileIdResult, CreatedGroupResult,
                 BasePathResult, MetaDataResult, LocationStateProgressResult, ExistsResult, RemoteStorageLocationResult,
                 ConvertRequestResult, CopyProgressResult, RecordsResult>;

// The error text of a reply with code 41: the server does not know the
// command, which is newer than the server.
QString NotSupportedText();

// One message as read.
struct ParsedReply
{
    // Position in the dispatch list; -1 when the envelope could not be read.
    int index = -1;
    // From s:RequestId; empty when the envelope has no header.
    QString requestId;
    // Empty (monostate) for QueryDiskSpaceReply and on a protocol error.
    ReplyResult result;
    // The code to store as the last error: the reply's code, clamped so that
    // 72 and above become 1. Unset when nothing is to be stored (a protocol
    // error, ConvertFileGroup, QueryDiskSpaceReply). The result keeps the
    // code as received.
    std::optional<int> lastError;
    // The protocol error with " at line %1, column %2"; empty when the
    // message was read.
    QString error;

    bool IsValid() const { return error.isEmpty(); }
    ReplyKind Kind() const { return static_cast<ReplyKind>(index); }
};

// Reads a whole message: envelope, dispatch and the reply's parser.
ParsedReply ParseReplyMessage(const QByteArray &message);

// Reads the envelope up to the body's element and sets the request id and
// the dispatch index of out. Throws ReplyProtocolError.
void ReadReplyHead(QXmlStreamReader &reader, ParsedReply &out);

// Runs the parser of kind on a reader positioned inside its body element,
// as the envelope reading leaves it.
ParsedReply ParseReply(ReplyKind kind, QXmlStreamReader &reader, const QString &requestId);
// The same for any descriptor, also one that is not in the table.
ParsedReply ParseReply(const CommandDescriptor &command, QXmlStreamReader &reader, const QString &requestId);

// The code stored as the last error for a received code.
int StoredErrorCode(int error);
// Completes the text of a reply's error code with the local one, traces a
// failure with traceText and returns the code to store.
int CompleteStatus(int error, QString &errorString, QLatin1String traceText);

// "yyyy-MM-dd hh:mm:ss", no zone conversion; anything else is invalid.
QDateTime ParseReplyDateTime(QStringView text);

} // namespace Kelda
