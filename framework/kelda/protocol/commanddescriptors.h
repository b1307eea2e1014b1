#pragma once

#include "commanddescriptor.h"

#include <QStringView>

#include <iterator>

// Every message of the protocol, one descriptor each. Adding a command means
// an enumerator at the end of ReplyKind (before Count) and its descriptor at
// the same position of CommandDescriptors; commanddescriptors.cpp checks the
// table while the tree builds. See docs/adding-a-command.md.
namespace Kelda {

// Positions in the client's dispatch list of body elements. Traces show the
// numbers ("Unknown command: 26"), so existing ones never move.
enum class ReplyKind : int {
    CreateFileGroup = 0,
    AddFile,
    DeleteFile,
    RequestFile,
    CloseFile,
    MoveToNas,
    AddReference,
    RemoveReference,
    RemoveAllReferences,
    QueryMetaData,
    GetApplicationList,
    GetFileList,
    GetUserList,
    QueryFileGroups,
    GetBasePath,
    CopyForeignFileGroupProgress,
    ExportArchive,
    ImportArchive,
    CreateTovinFileGroup,
    RegisterConverter,
    ConvertFileGroup,
    DeleteFileGroup,
    QueryLocationStateProgress,
    CheckFileGroupExists,
    GetRemoteStorageLocation,
    GetTovinFilegroupGuid,
    QueryDiskSpace, // listed, but not read
    GetFileChecksums,
    VerifyFileGroup,
    Count
};

// In ReplyKind order. Three failure traces name another operation; they are
// diagnostics and are kept as they have always read.
inline constexpr CommandDescriptor CommandDescriptors[] = {
    Describe(ReplyKind::CreateFileGroup, Exchange::Command, Effect::Changes)
        .Sends(Tag::CreateFileGroup,
               {Field::Text(Tag::Comment), Field::Guid, Field::Text(Tag::Detail), Field::Text(Tag::FileGroupName),
                Field::Number(Tag::FileType), Field::Time(Tag::LifeCycle), Field::Unsigned(Tag::ReservedStorage),
                Field::Text(Tag::TeamMembership, FieldSource::Team), Field::Text(Tag::UserName, FieldSource::User),
                Field::Text(Tag::FileGroupVersion), Field::Text(Tag::Path)})
        .Traced("KeldaClient::CreateFG: guid='%1' group='%2' path='%3' detail='%4' comment='%5' user='%6' type='%7'",
                {Tag::Guid, Tag::FileGroupName, Tag::Path, Tag::Detail, Tag::Comment, Tag::UserName, Tag::FileType})
        .Receives(Tag::CreateFileGroupReply, {Tag::Guid, Tag::Path}, ResultKind::CreatedGroup)
        .FailureTraced("Error while creating file group: %1 (%2)")
        .Signals("createFileGroupReply", "CreateFileGroupSg"),

    Describe(ReplyKind::AddFile, Exchange::Command, Effect::Changes)
        .Sends(Tag::AddFile, {Field::Guid, Field::Text(Tag::FileName), Field::Number(Tag::FileId)})
        .Traced("KeldaClient::AddFile: guid='%1' fileid='%2' filename='%3'", {Tag::Guid, Tag::FileId, Tag::FileName})
        .Receives(Tag::AddFileReply, {Tag::FileId}, ResultKind::FileId)
        .FailureTraced("Error while adding file: %1 (%2)")
        .Signals("addFileReply", "AddFileSg"),

    Describe(ReplyKind::DeleteFile, Exchange::Command, Effect::Changes)
        .Sends(Tag::DeleteFile, {Field::Guid, Field::Number(Tag::FileId)})
        .Traced("KeldaClient::DeleteFile: guid='%1' fileid='%2'", {Tag::Guid, Tag::FileId})
        .Receives(Tag::DeleteFileReply, {}, ResultKind::Status)
        .FailureTraced("Error while deleting file group: %1 (%2)")
        .Signals("deleteFileReply", "DeleteFileNameSg"),

    // Locks count as changes: they are records too.
    Describe(ReplyKind::RequestFile, Exchange::Command, Effect::Changes)
        .Sends(Tag::RequestFile,
               {Field::Guid, Field::Number(Tag::FileId), Field::Flag(Tag::WriteLock),
                Field::Text(Tag::UserName, FieldSource::LockIdentity)})
        .Traced("KeldaClient::RequestFile: guid='%1' fileid='%2' lock='%3' lockid='%4'",
                {Tag::Guid, Tag::FileId, Tag::WriteLock, Tag::UserName})
        .Receives(Tag::RequestFileReply, {Tag::Path}, ResultKind::Text)
        .FailureTraced("Error while requesting file: %1 (%2)")
        .Signals("requestFileReply", "RequestFileSg"),

    // The server closes the group's file for the lock identity, not by id.
    Describe(ReplyKind::CloseFile, Exchange::Command, Effect::Changes)
        .Sends(Tag::CloseFile,
               {Field::Guid, Field::Fixed(Tag::FileId, "-1"), Field::Text(Tag::UserName, FieldSource::LockIdentity)})
        .Traced("KeldaClient::CloseFile: guid='%1' fileid='%2'", {Tag::Guid, Tag::FileId})
        .Receives(Tag::CloseFileReply, {}, ResultKind::Status)
        .FailureTraced("Error while closing file: %1 (%2)")
        .Signals("closeFileReply", "CloseFileSg"),

    Describe(ReplyKind::MoveToNas, Exchange::Command, Effect::Changes)
        .Sends(Tag::MoveToNas, {Field::Guid, Field::Text(Tag::UserName, FieldSource::User)})
        .Traced("KeldaClient::MoveToNas: guid='%1' user='%2'", {Tag::Guid, Tag::UserName})
        .Receives(Tag::MoveToNasReply, {}, ResultKind::Status)
        .FailureTraced("Error while moving to NAS: %1 (%2)")
        .Signals("moveToNasReply", "MoveToNasSg"),

    Describe(ReplyKind::AddReference, Exchange::Command, Effect::Changes)
        .Sends(Tag::AddReference, {Field::Guid, Field::Text(Tag::Application, FieldSource::ClientApplication)})
        .Traced("KeldaClient::AddRef: guid='%1' app='%2'", {Tag::Guid, Tag::Application})
        .Receives(Tag::AddReferenceReply, {}, ResultKind::Status)
        .FailureTraced("Error while adding reference: %1 (%2)")
        .Signals("addReferenceReply", "AddReferenceSg"),

    Describe(ReplyKind::RemoveReference, Exchange::Command, Effect::Changes)
        .Sends(Tag::RemoveReference, {Field::Guid, Field::Text(Tag::Application, FieldSource::ClientApplication)})
        .Traced("KeldaClient::RemoveReference: guid='%1'", {Tag::Guid})
        .Receives(Tag::RemoveReferenceReply, {}, ResultKind::Status)
        .FailureTraced("Error while removing reference: %1 (%2)")
        .Signals("removeReferenceReply", "RemoveReferenceSg"),

    Describe(ReplyKind::RemoveAllReferences, Exchange::Command, Effect::Changes)
        .Sends(Tag::RemoveAllReferences, {Field::Guid, Field::Text(Tag::Application, FieldSource::ClientApplication)})
        .Traced("KeldaClient::RemoveAllReferences: guid='%1'", {Tag::Guid})
        .Receives(Tag::RemoveAllReferencesReply, {}, ResultKind::Status)
        .FailureTraced("Error while removing all references: %1 (%2)")
        .Signals("removeAllReferenceReply", "RemoveAllReferenceSg"),

    // The record's own reader takes the body; the code it finds is the
    // result's, and no failure is traced.
    Describe(ReplyKind::QueryMetaData, Exchange::Command, Effect::Reads)
        .Sends(Tag::QueryMetaData, {Field::Guid, Field::Text(Tag::Application, FieldSource::Application)})
        .Traced("KeldaClient::QueryMetaData: guid='%1' app='%2'", {Tag::Guid, Tag::Application})
        .Receives(Tag::QueryMetaDataReply, {}, ResultKind::MetaData)
        .Signals("queryMetaDataReply", "QueryMetaDataSg"),

    Describe(ReplyKind::GetApplicationList, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetApplicationList, {})
        .Receives(Tag::GetApplicationListReply, {Tag::Applications, Tag::Application, EndOf(Tag::Applications)},
                  ResultKind::List)
        .FailureTraced("Error while getting application list: %1 (%2)")
        .Signals("getApplicationListReply", "GetApplicationListSg"),

    // Id and name of each file, in arrival order.
    Describe(ReplyKind::GetFileList, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetFileList, {Field::Guid})
        .Receives(Tag::GetFileListReply,
                  {Tag::Files, Tag::File, Tag::FileId, Tag::FileName, EndOf(Tag::File), EndOf(Tag::Files)},
                  ResultKind::List)
        .FailureTraced("Error while getting file list: %1 (%2)")
        .Signals("getFileListReply", "GetFileListSg"),

    Describe(ReplyKind::GetUserList, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetUserList, {})
        .Receives(Tag::GetUserListReply, {Tag::Users, Tag::User, EndOf(Tag::Users)}, ResultKind::List)
        .FailureTraced("Error while getting user list: %1 (%2)")
        .Signals("getUserListReply", "GetUserListSg"),

    // Every criterion is sent, empty or not. The query path never fills the
    // application; the server accepts it empty. A group's m:Files is passed
    // unread.
    Describe(ReplyKind::QueryFileGroups, Exchange::Command, Effect::Reads)
        .Sends(Tag::QueryFileGroups,
               {Field::Text(Tag::Application, FieldSource::Application), Field::Text(Tag::CommentSearchText),
                Field::Text(Tag::DetailSearchText), Field::Text(Tag::FileGroupNameSearchText),
                Field::List(Tag::FileTypeList, Tag::FileType), Field::Number(Tag::LocationState),
                Field::Number(Tag::LockState), Field::Text(Tag::LockUser), Field::TimeRange(Tag::BackupTime),
                Field::TimeRange(Tag::CreationTime), Field::TimeRange(Tag::LifeCycle),
                Field::TimeRange(Tag::ModificationTime), Field::Text(Tag::ReferencingApplication),
                Field::Text(Tag::TeamSearchText), Field::Text(Tag::User), Field::Text(Tag::VersionSearchText)})
        .Receives(Tag::QueryFileGroupsReply, {Tag::FileGroup}, ResultKind::Table)
        .Record(Tag::FileGroup,
                {Tag::Guid, Tag::FileGroupName, Tag::FileType, Tag::LocationState, Tag::BackupTime, Tag::CreationTime,
                 Tag::ModificationTime, Tag::LifeCycle, Tag::Comment, Tag::Creator, Tag::Detail, Tag::TeamMembership,
                 Tag::Version, Tag::ReservedStorage, Tag::ReferenceCounter, Tag::Files})
        .FailureTraced("Error while getting user list: %1 (%2)")
        .Signals("queryFileGroupsReply", "queryFileGroupsSg"),

    // The connection's handshake; the sender announces the first one.
    Describe(ReplyKind::GetBasePath, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetBasePath, {})
        .Receives(Tag::GetBasePathReply, {Tag::Path}, ResultKind::BasePath)
        .FailureTraced("Error while getting base path: %1 (%2)"),

    Describe(ReplyKind::CopyForeignFileGroupProgress, Exchange::ServerNotice)
        .Receives(Tag::CopyForeignFileGroupProgress, {Tag::CopyProgress}, ResultKind::CopyProgress)
        .FailureTraced("Error while getting progress: %1 (%2)")
        .Signals("copyForeignFileGroupProgess", "copyForeignFileGroupProgess"),

    // Writes files into the exchange folder, but no record.
    Describe(ReplyKind::ExportArchive, Exchange::Command, Effect::Reads)
        .Sends(Tag::ExportArchive, {Field::Text(Tag::Path), Field::Repeated(Tag::Guid)})
        .Receives(Tag::ExportArchiveReply, {}, ResultKind::Status)
        .FailureTraced("Error while exporting archive: %1 (%2)")
        .Signals("exportArchiveReply", "exportArchiveSg"),

    Describe(ReplyKind::ImportArchive, Exchange::Command, Effect::Changes)
        .Sends(Tag::ImportArchive, {Field::Repeated(Tag::Path)})
        .Receives(Tag::ImportArchiveReply, {}, ResultKind::Status)
        .FailureTraced("Error while importing archive: %1 (%2)")
        .Signals("importArchiveReply", "importArchiveSg"),

    // The result is the GUID; the path is read and dropped.
    Describe(ReplyKind::CreateTovinFileGroup, Exchange::Command, Effect::Changes)
        .Sends(Tag::CreateTovinFileGroup,
               {Field::Text(Tag::TovinId), Field::Text(Tag::SubSystemName), Field::Text(Tag::RecordId),
                Field::Text(Tag::FileGroupVersion), Field::Text(Tag::Detail), Field::Text(Tag::Comment),
                Field::Number(Tag::FileType), Field::Text(Tag::TeamMembership, FieldSource::Team),
                Field::Text(Tag::UserName, FieldSource::User), Field::Guid, Field::Text(Tag::Path)})
        .Traced("KeldaClient::CreateTovinFG: guid='%1' tovin='%2' record='%3' detail='%4' comment='%5' user='%6' "
                "subsystem='%7' type='%8' filepath='%9'",
                {Tag::Guid, Tag::TovinId, Tag::RecordId, Tag::Detail, Tag::Comment, Tag::UserName, Tag::SubSystemName,
                 Tag::FileType, Tag::Path})
        .Receives(Tag::CreateTovinFileGroupReply, {Tag::Guid, Tag::Path}, ResultKind::Text)
        .FailureTraced("Error while creating file group: %1 (%2)")
        .Signals("createTovinFileGroupReply", "CreateTovinFileGroupSg"),

    // One m:FileType per handled type, with no wrapper.
    Describe(ReplyKind::RegisterConverter, Exchange::Command, Effect::Changes)
        .Sends(Tag::RegisterConverter, {Field::Text(Tag::ConverterId), Field::Repeated(Tag::FileType)})
        .Receives(Tag::RegisterConverterReply, {}, ResultKind::Status)
        .FailureTraced("Error while getting register converter reply: %1 (%2)")
        .Signals("registerConverterReply"),

    // The server asks; the client answers, and carries no error to store.
    Describe(ReplyKind::ConvertFileGroup, Exchange::ServerRequest)
        .Sends(Tag::ConvertFileGroupReply, {Field::Guid, Field::Number(Tag::Error), Field::Text(Tag::ErrorString)})
        .Receives(Tag::ConvertFileGroup, {Tag::Guid, Tag::FileType, Tag::Path}, ResultKind::ConvertRequest)
        .Signals("convertFileGroupRequested"),

    Describe(ReplyKind::DeleteFileGroup, Exchange::Command, Effect::Changes)
        .Sends(Tag::DeleteFileGroup, {Field::Guid, Field::Flag(Tag::ShallowDelete)})
        .Traced("KeldaClient::DeleteFG: guid='%1' shallow='%2'", {Tag::Guid, Tag::ShallowDelete})
        .Receives(Tag::DeleteFileGroupReply, {}, ResultKind::Status)
        .FailureTraced("Error while getting delete filegroup reply: %1 (%2)")
        .Signals("deleteFileGroupReply", "deleteFileGroupSg"),

    Describe(ReplyKind::QueryLocationStateProgress, Exchange::Command, Effect::Reads)
        .Sends(Tag::QueryLocationStateProgress, {Field::Guid})
        .Receives(Tag::QueryLocationStateProgressReply, {Tag::LocationState, Tag::CopyProgress},
                  ResultKind::LocationStateProgress)
        .FailureTraced("Error while getting QueryLocationStateProgress reply: %1 (%2)")
        .Signals("queryLocationStateProgressReply", "queryLocationStateProgressSg"),

    Describe(ReplyKind::CheckFileGroupExists, Exchange::Command, Effect::Reads)
        .Sends(Tag::CheckFileGroupExists, {Field::Guid})
        .Receives(Tag::CheckFileGroupExistsReply, {Tag::Exists}, ResultKind::Exists)
        .FailureTraced("Error while getting QueryLocationStateProgress reply: %1 (%2)")
        .Signals("checkFileGroupExistsReply", "checkFileGroupExistsSg"),

    Describe(ReplyKind::GetRemoteStorageLocation, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetRemoteStorageLocation, {Field::Guid, Field::Number(Tag::FileId)})
        .Receives(Tag::GetRemoteStorageLocationReply, {Tag::RemoteIp, Tag::AttachmentUrl},
                  ResultKind::RemoteStorageLocation)
        .FailureTraced("Error while getting RemoteStorageLocation reply: %1 (%2)")
        .Signals("getRemoteStorageLocationReply", "getRemoteStorageLocationSg"),

    // The server reads m:Guid as the Tovin id and m:FileId as the record id,
    // both as text.
    Describe(ReplyKind::GetTovinFilegroupGuid, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetTovinFilegroupGuid, {Field::Text(Tag::Guid), Field::Text(Tag::FileId)})
        .Traced("KeldaClient::SendGetTovinFilegroupGuidAsync: tovin id='%1' recordId='%2'", {Tag::Guid, Tag::FileId})
        .Receives(Tag::GetTovinFilegroupGuidReply, {Tag::Guid}, ResultKind::Text)
        .FailureTraced("Error while getting GetTovinFilegroupGuid reply: %1 (%2)")
        .Signals("getTovinFilegroupGuidReply", "getTovinFilegroupGuidSg"),

    Describe(ReplyKind::QueryDiskSpace, Exchange::Unread).Receives(Tag::QueryDiskSpaceReply, {}, ResultKind::None),

    // Additions to the original protocol: what the archive recorded of each
    // file of a group, and a fresh reading of them. Both answer the same
    // records; the time of the last check is empty for a file never read.
    Describe(ReplyKind::GetFileChecksums, Exchange::Command, Effect::Reads)
        .Sends(Tag::GetFileChecksums, {Field::Guid})
        .Traced("KeldaClient::GetFileChecksums: guid='%1'", {Tag::Guid})
        .Receives(Tag::GetFileChecksumsReply, {Tag::Files, Tag::File, EndOf(Tag::Files)}, ResultKind::Records)
        .Record(Tag::File,
                {Tag::FileId, Tag::FileName, Tag::FileSize, Tag::Algorithm, Tag::Digest, Tag::LastCheck, Tag::State})
        .FailureTraced("Error while getting file checksums: %1 (%2)")
        .Signals("getFileChecksumsReply", "GetFileChecksumsSg"),

    // Records the readings, so it counts as a change.
    Describe(ReplyKind::VerifyFileGroup, Exchange::Command, Effect::Changes)
        .Sends(Tag::VerifyFileGroup, {Field::Guid})
        .Traced("KeldaClient::VerifyFileGroup: guid='%1'", {Tag::Guid})
        .Receives(Tag::VerifyFileGroupReply, {Tag::Files, Tag::File, EndOf(Tag::Files)}, ResultKind::Records)
        .Record(Tag::File,
                {Tag::FileId, Tag::FileName, Tag::FileSize, Tag::Algorithm, Tag::Digest, Tag::LastCheck, Tag::State})
        .FailureTraced("Error while verifying file group: %1 (%2)")
        .Signals("verifyFileGroupReply", "VerifyFileGroupSg"),
};

constexpr int CommandCount = int(std::size(CommandDescriptors));

constexpr const CommandDescriptor &Descriptor(ReplyKind kind)
{
    return CommandDescriptors[static_cast<int>(kind)];
}

// The command the server carries out for a request element; null for any
// other element.
const CommandDescriptor *FindCommand(QStringView request);

} // namespace Kelda
