#pragma once

#include "commandrequest.h"

#include "filequery.h"
#include "filetype.h"
#include "keldaerror.h"
#include "keldaxml.h"

#include <QStringList>
#include <QVector>

// A class per request command with setters named after its fields, over the
// command's CommandRequest: what they set and how it is written is its
// descriptor's (commanddescriptors.h). The Guid and Application fields live
// in the base class; a request writes them only where its command has them.
namespace Kelda {

template <ReplyKind kind> class RequestOf : public CommandRequest
{
public:
    RequestOf()
        : CommandRequest(kind)
    { }
};

// The commands whose fields are only the GUID and application.
using AddReferenceMessage = RequestOf<ReplyKind::AddReference>;
using CheckFileGroupExistsMessage = RequestOf<ReplyKind::CheckFileGroupExists>;
using GetApplicationListMessage = RequestOf<ReplyKind::GetApplicationList>;
using GetBasePathMessage = RequestOf<ReplyKind::GetBasePath>;
using GetFileListMessage = RequestOf<ReplyKind::GetFileList>;
using GetUserListMessage = RequestOf<ReplyKind::GetUserList>;
using QueryLocationStateProgressMessage = RequestOf<ReplyKind::QueryLocationStateProgress>;
using QueryMetaDataMessage = RequestOf<ReplyKind::QueryMetaData>;
using RemoveAllReferencesMessage = RequestOf<ReplyKind::RemoveAllReferences>;
using RemoveReferenceMessage = RequestOf<ReplyKind::RemoveReference>;

class AddFileMessage : public RequestOf<ReplyKind::AddFile>
{
public:
    void SetFileName(const QString &fileName) { SetText(Tag::FileName, fileName); }
    // Signed on the wire: an id of 0xFFFFFFFF travels as -1.
    void SetFileId(int fileId) { SetNumber(Tag::FileId, fileId); }
};

// m:FileId is always -1.
class CloseFileMessage : public RequestOf<ReplyKind::CloseFile>
{
public:
    void SetUserName(const QString &lockIdentity) { SetText(Tag::UserName, lockIdentity); }
};

// The answer to the server's ConvertFileGroup.
class ConvertFileGroupReplyMessage : public RequestOf<ReplyKind::ConvertFileGroup>
{
public:
    ConvertFileGroupReplyMessage();
    // Error becomes 1, not 0: an answer never filled in reports a failure.
    void Clear() override;

    void SetError(int error) { SetNumber(Tag::Error, error); }
    void SetErrorString(const QString &errorString) { SetText(Tag::ErrorString, errorString); }
};

class CreateTovinFileGroupMessage : public RequestOf<ReplyKind::CreateTovinFileGroup>
{
public:
    void SetTovinId(const QString &tovinId) { SetText(Tag::TovinId, tovinId); }
    void SetSubSystemName(const QString &subSystem) { SetText(Tag::SubSystemName, subSystem); }
    void SetRecordId(const QString &recordId) { SetText(Tag::RecordId, recordId); }
    void SetFileGroupVersion(const QString &version) { SetText(Tag::FileGroupVersion, version); }
    void SetDetail(const QString &detail) { SetText(Tag::Detail, detail); }
    void SetComment(const QString &comment) { SetText(Tag::Comment, comment); }
    void SetFileType(FileType fileType) { SetNumber(Tag::FileType, fileType); }
    void SetTeamMembership(const QString &team) { SetText(Tag::TeamMembership, team); }
    void SetUserName(const QString &userName) { SetText(Tag::UserName, userName); }
    void SetPath(const QString &path) { SetText(Tag::Path, path); }
};

class CreateFileGroupMessage : public RequestOf<ReplyKind::CreateFileGroup>
{
public:
    // Sets Guid and request id alike: the server identifies the creating
    // request by the new group's own GUID.
    void SetGroupGuid(const QString &guid);
    void SetComment(const QString &comment) { SetText(Tag::Comment, comment); }
    void SetDetail(const QString &detail) { SetText(Tag::Detail, detail); }
    void SetFileGroupName(const QString &name) { SetText(Tag::FileGroupName, name); }
    void SetFileType(FileType fileType) { SetNumber(Tag::FileType, fileType); }
    void SetLifeCycle(const QDateTime &lifeCycle) { SetTime(Tag::LifeCycle, lifeCycle); }
    void SetReservedStorage(quint64 reservedStorage) { SetUnsigned(Tag::ReservedStorage, reservedStorage); }
    void SetTeamMembership(const QString &team) { SetText(Tag::TeamMembership, team); }
    void SetUserName(const QString &userName) { SetText(Tag::UserName, userName); }
    void SetFileGroupVersion(const QString &version) { SetText(Tag::FileGroupVersion, version); }
    void SetPath(const QString &path) { SetText(Tag::Path, path); }
};

class DeleteFileGroupMessage : public RequestOf<ReplyKind::DeleteFileGroup>
{
public:
    void SetShallowDelete(bool shallow) { SetFlag(Tag::ShallowDelete, shallow); }
};

class DeleteFileMessage : public RequestOf<ReplyKind::DeleteFile>
{
public:
    void SetFileId(int fileId) { SetNumber(Tag::FileId, fileId); }
};

class ExportArchiveMessage : public RequestOf<ReplyKind::ExportArchive>
{
public:
    // The destination archive.
    void SetPath(const QString &path) { SetText(Tag::Path, path); }
    void SetGuids(const QStringList &guids) { SetTexts(Tag::Guid, guids); }
};

class GetTovinFilegroupGuidMessage : public RequestOf<ReplyKind::GetTovinFilegroupGuid>
{
public:
    void SetTovinId(const QString &tovinId) { SetText(Tag::Guid, tovinId); }
    void SetRecordId(const QString &recordId) { SetText(Tag::FileId, recordId); }
};

class GetRemoteStorageLocationMessage : public RequestOf<ReplyKind::GetRemoteStorageLocation>
{
public:
    void SetFileId(int fileId) { SetNumber(Tag::FileId, fileId); }
};

// One m:Path per archive to import.
class ImportArchiveMessage : public RequestOf<ReplyKind::ImportArchive>
{
public:
    void SetPaths(const QStringList &paths) { SetTexts(Tag::Path, paths); }
};

class MoveToNasMessage : public RequestOf<ReplyKind::MoveToNas>
{
public:
    void SetUserName(const QString &userName) { SetText(Tag::UserName, userName); }
};

// All sixteen criteria, always, empty or not; a fresh message holds those of
// a query that matches every group.
class QueryFileGroupsMessage : public RequestOf<ReplyKind::QueryFileGroups>
{
public:
    QueryFileGroupsMessage();
    void Clear() override;

    void SetQuery(const FileQuery &query);
};

class RegisterConverterMessage : public RequestOf<ReplyKind::RegisterConverter>
{
public:
    void SetConverterId(const QString &converterId) { SetText(Tag::ConverterId, converterId); }
    void SetFileTypes(const QVector<FileType> &fileTypes);
};

class RequestFileMessage : public RequestOf<ReplyKind::RequestFile>
{
public:
    void SetFileId(int fileId) { SetNumber(Tag::FileId, fileId); }
    void SetWriteLock(bool writeLock) { SetFlag(Tag::WriteLock, writeLock); }
    void SetUserName(const QString &lockIdentity) { SetText(Tag::UserName, lockIdentity); }
};

} // namespace Kelda
