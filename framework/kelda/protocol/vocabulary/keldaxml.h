#pragma once

#include <QLatin1String>
#include <QString>

#include <cstddef>

// The protocol's XML vocabulary, shared by the request writers, the reply
// readers and the file group record. Element names are written as literal
// qualified names ("s:Body", "m:FileId"); readers compare local names and
// namespace URIs.
namespace Kelda {

// QLatin1String's pointer constructor measures its text with strlen, which
// only some compilers evaluate at compile time; taking the literal's array
// size makes the constants constant expressions everywhere.
template <std::size_t N> constexpr QLatin1String Latin1Literal(const char (&text)[N])
{
    return QLatin1String(text, static_cast<int>(N - 1));
}

namespace Ns {
// Replies are checked against this URI character by character: client and
// server must use the identical string.
constexpr QLatin1String Message = Latin1Literal("http://kelda.archive/8SP/KELDA");
constexpr QLatin1String Envelope = Latin1Literal("http://www.w3.org/2003/05/soap-envelope");
constexpr QLatin1String SoapVersion = Latin1Literal("1.0");
constexpr QLatin1String PrefixS = Latin1Literal("s");
constexpr QLatin1String PrefixM = Latin1Literal("m");
} // namespace Ns

// The texts of a flag.
namespace Flag {
constexpr QLatin1String True = Latin1Literal("true");
constexpr QLatin1String False = Latin1Literal("false");
} // namespace Flag

namespace Tag {

// Envelope (prefix s:).
constexpr QLatin1String Envelope = Latin1Literal("Envelope");
constexpr QLatin1String Header = Latin1Literal("Header");
constexpr QLatin1String Version = Latin1Literal("Version");
constexpr QLatin1String RequestId = Latin1Literal("RequestId");
constexpr QLatin1String Body = Latin1Literal("Body");

// Request command elements.
constexpr QLatin1String AddFile = Latin1Literal("AddFile");
constexpr QLatin1String AddReference = Latin1Literal("AddReference");
constexpr QLatin1String CheckFileGroupExists = Latin1Literal("CheckFileGroupExists");
constexpr QLatin1String CloseFile = Latin1Literal("CloseFile");
constexpr QLatin1String CreateTovinFileGroup = Latin1Literal("CreateTovinFileGroup");
constexpr QLatin1String CreateFileGroup = Latin1Literal("CreateFileGroup");
constexpr QLatin1String DeleteFileGroup = Latin1Literal("DeleteFileGroup");
constexpr QLatin1String DeleteFile = Latin1Literal("DeleteFile");
constexpr QLatin1String ExportArchive = Latin1Literal("ExportArchive");
constexpr QLatin1String GetTovinFilegroupGuid = Latin1Literal("GetTovinFilegroupGuid");
constexpr QLatin1String GetApplicationList = Latin1Literal("GetApplicationList");
constexpr QLatin1String GetBasePath = Latin1Literal("GetBasePath");
constexpr QLatin1String GetFileList = Latin1Literal("GetFileList");
constexpr QLatin1String GetRemoteStorageLocation = Latin1Literal("GetRemoteStorageLocation");
constexpr QLatin1String GetUserList = Latin1Literal("GetUserList");
constexpr QLatin1String ImportArchive = Latin1Literal("ImportArchive");
constexpr QLatin1String MoveToNas = Latin1Literal("MoveToNas");
constexpr QLatin1String QueryFileGroups = Latin1Literal("QueryFileGroups");
constexpr QLatin1String QueryLocationStateProgress = Latin1Literal("QueryLocationStateProgress");
constexpr QLatin1String QueryMetaData = Latin1Literal("QueryMetaData");
constexpr QLatin1String RegisterConverter = Latin1Literal("RegisterConverter");
constexpr QLatin1String RemoveAllReferences = Latin1Literal("RemoveAllReferences");
constexpr QLatin1String RemoveReference = Latin1Literal("RemoveReference");
constexpr QLatin1String RequestFile = Latin1Literal("RequestFile");
constexpr QLatin1String ConvertFileGroupReply = Latin1Literal("ConvertFileGroupReply");
constexpr QLatin1String GetFileChecksums = Latin1Literal("GetFileChecksums");
constexpr QLatin1String VerifyFileGroup = Latin1Literal("VerifyFileGroup");

// Reply elements.
constexpr QLatin1String CreateFileGroupReply = Latin1Literal("CreateFileGroupReply");
constexpr QLatin1String AddFileReply = Latin1Literal("AddFileReply");
constexpr QLatin1String DeleteFileReply = Latin1Literal("DeleteFileReply");
constexpr QLatin1String RequestFileReply = Latin1Literal("RequestFileReply");
constexpr QLatin1String CloseFileReply = Latin1Literal("CloseFileReply");
constexpr QLatin1String MoveToNasReply = Latin1Literal("MoveToNasReply");
constexpr QLatin1String AddReferenceReply = Latin1Literal("AddReferenceReply");
constexpr QLatin1String RemoveReferenceReply = Latin1Literal("RemoveReferenceReply");
constexpr QLatin1String RemoveAllReferencesReply = Latin1Literal("RemoveAllReferencesReply");
constexpr QLatin1String QueryMetaDataReply = Latin1Literal("QueryMetaDataReply");
constexpr QLatin1String GetApplicationListReply = Latin1Literal("GetApplicationListReply");
constexpr QLatin1String GetFileListReply = Latin1Literal("GetFileListReply");
constexpr QLatin1String GetUserListReply = Latin1Literal("GetUserListReply");
constexpr QLatin1String QueryFileGroupsReply = Latin1Literal("QueryFileGroupsReply");
constexpr QLatin1String GetBasePathReply = Latin1Literal("GetBasePathReply");
constexpr QLatin1String ExportArchiveReply = Latin1Literal("ExportArchiveReply");
constexpr QLatin1String ImportArchiveReply = Latin1Literal("ImportArchiveReply");
constexpr QLatin1String CreateTovinFileGroupReply = Latin1Literal("CreateTovinFileGroupReply");
constexpr QLatin1String RegisterConverterReply = Latin1Literal("RegisterConverterReply");
constexpr QLatin1String DeleteFileGroupReply = Latin1Literal("DeleteFileGroupReply");
constexpr QLatin1String QueryLocationStateProgressReply = Latin1Literal("QueryLocationStateProgressReply");
constexpr QLatin1String CheckFileGroupExistsReply = Latin1Literal("CheckFileGroupExistsReply");
constexpr QLatin1String GetRemoteStorageLocationReply = Latin1Literal("GetRemoteStorageLocationReply");
constexpr QLatin1String GetTovinFilegroupGuidReply = Latin1Literal("GetTovinFilegroupGuidReply");
constexpr QLatin1String QueryDiskSpaceReply = Latin1Literal("QueryDiskSpaceReply");
constexpr QLatin1String GetFileChecksumsReply = Latin1Literal("GetFileChecksumsReply");
constexpr QLatin1String VerifyFileGroupReply = Latin1Literal("VerifyFileGroupReply");

// Server-side commands and notifications.
constexpr QLatin1String ConvertFileGroup = Latin1Literal("ConvertFileGroup");
constexpr QLatin1String CopyForeignFileGroupProgress = Latin1Literal("CopyForeignFileGroupProgress");
constexpr QLatin1String QueryForForeignFileGroup = Latin1Literal("QueryForForeignFileGroup");
constexpr QLatin1String ConnectInfoForKelda = Latin1Literal("ConnectInfoForKelda");
constexpr QLatin1String DownloadFinished = Latin1Literal("DownloadFinished");
constexpr QLatin1String RequestTorrent = Latin1Literal("RequestTorrent");
constexpr QLatin1String QueryDiskSpace = Latin1Literal("QueryDiskSpace");
constexpr QLatin1String ThrowExceptionForTest = Latin1Literal("ThrowExceptionForTest");
constexpr QLatin1String MoveIQRecFromTovin = Latin1Literal("MoveIQRecFromTovin");

// Fields.
constexpr QLatin1String Algorithm = Latin1Literal("Algorithm");
constexpr QLatin1String Application = Latin1Literal("Application");
constexpr QLatin1String AttachmentUrl = Latin1Literal("AttachmentUrl");
constexpr QLatin1String TovinId = Latin1Literal("TovinId");
constexpr QLatin1String BackupTime = Latin1Literal("BackupTime");
constexpr QLatin1String CleanupPeriodDays = Latin1Literal("CleanupPeriodDays");
constexpr QLatin1String CleanupTime = Latin1Literal("CleanupTime");
constexpr QLatin1String Comment = Latin1Literal("Comment");
constexpr QLatin1String CommentSearchText = Latin1Literal("CommentSearchText");
constexpr QLatin1String ConverterId = Latin1Literal("ConverterId");
constexpr QLatin1String CopyDestination = Latin1Literal("CopyDestination");
constexpr QLatin1String CopyOnDemand = Latin1Literal("CopyOnDemand");
constexpr QLatin1String CopyProgress = Latin1Literal("CopyProgress");
constexpr QLatin1String CreationTime = Latin1Literal("CreationTime");
constexpr QLatin1String Creator = Latin1Literal("Creator");
constexpr QLatin1String DbId = Latin1Literal("DbId");
constexpr QLatin1String DeleteArchive = Latin1Literal("DeleteArchive");
constexpr QLatin1String Detail = Latin1Literal("Detail");
constexpr QLatin1String DetailSearchText = Latin1Literal("DetailSearchText");
constexpr QLatin1String Digest = Latin1Literal("Digest");
constexpr QLatin1String Error = Latin1Literal("Error");
constexpr QLatin1String ErrorString = Latin1Literal("ErrorString");
constexpr QLatin1String Exists = Latin1Literal("Exists");
constexpr QLatin1String File = Latin1Literal("File");
constexpr QLatin1String FileGroup = Latin1Literal("FileGroup");
constexpr QLatin1String FileGroupName = Latin1Literal("FileGroupName");
constexpr QLatin1String FileGroupNameSearchText = Latin1Literal("FileGroupNameSearchText");
constexpr QLatin1String FileGroupVersion = Latin1Literal("FileGroupVersion");
constexpr QLatin1String FileId = Latin1Literal("FileId");
constexpr QLatin1String FileName = Latin1Literal("FileName");
constexpr QLatin1String FileSize = Latin1Literal("FileSize");
constexpr QLatin1String Files = Latin1Literal("Files");
constexpr QLatin1String FileType = Latin1Literal("FileType");
constexpr QLatin1String FileTypeList = Latin1Literal("FileTypeList");
constexpr QLatin1String Guid = Latin1Literal("Guid");
constexpr QLatin1String Hostname = Latin1Literal("Hostname");
constexpr QLatin1String Id = Latin1Literal("Id");
constexpr QLatin1String LastCheck = Latin1Literal("LastCheck");
constexpr QLatin1String LifeCycle = Latin1Literal("LifeCycle");
constexpr QLatin1String ListOfAskedServers = Latin1Literal("ListOfAskedServers");
constexpr QLatin1String LocationState = Latin1Literal("LocationState");
constexpr QLatin1String LockState = Latin1Literal("LockState");
constexpr QLatin1String LockUser = Latin1Literal("LockUser");
constexpr QLatin1String Max = Latin1Literal("Max");
constexpr QLatin1String Min = Latin1Literal("Min");
constexpr QLatin1String ModificationTime = Latin1Literal("ModificationTime");
constexpr QLatin1String Path = Latin1Literal("Path");
constexpr QLatin1String Port = Latin1Literal("Port");
constexpr QLatin1String RecordId = Latin1Literal("RecordId");
constexpr QLatin1String ReferenceCounter = Latin1Literal("ReferenceCounter");
constexpr QLatin1String ReferencingApplication = Latin1Literal("ReferencingApplication");
constexpr QLatin1String RemoteIp = Latin1Literal("RemoteIp");
constexpr QLatin1String Requestor = Latin1Literal("Requestor");
constexpr QLatin1String ReservedPercent = Latin1Literal("ReservedPercent");
constexpr QLatin1String ReservedStorage = Latin1Literal("ReservedStorage");
constexpr QLatin1String ShallowDelete = Latin1Literal("ShallowDelete");
constexpr QLatin1String SkipExistingFileGroups = Latin1Literal("SkipExistingFileGroups");
constexpr QLatin1String State = Latin1Literal("State");
constexpr QLatin1String SubSystemName = Latin1Literal("SubSystemName");
constexpr QLatin1String TeamMembership = Latin1Literal("TeamMembership");
constexpr QLatin1String TeamSearchText = Latin1Literal("TeamSearchText");
constexpr QLatin1String Torrent = Latin1Literal("Torrent");
constexpr QLatin1String TotalBytes = Latin1Literal("TotalBytes");
constexpr QLatin1String TypeOfException = Latin1Literal("TypeOfException");
constexpr QLatin1String UsedPercent = Latin1Literal("UsedPercent");
constexpr QLatin1String User = Latin1Literal("User");
constexpr QLatin1String UserName = Latin1Literal("UserName");
constexpr QLatin1String VersionSearchText = Latin1Literal("VersionSearchText");
constexpr QLatin1String WriteLock = Latin1Literal("WriteLock");

// List wrappers of the list replies.
constexpr QLatin1String Applications = Latin1Literal("Applications");
constexpr QLatin1String Users = Latin1Literal("Users");

// "m:" + name, the qualified form used by every writer.
inline QString m(QLatin1String name)
{
    return QLatin1String("m:") + name;
}

// "s:" + name.
inline QString s(QLatin1String name)
{
    return QLatin1String("s:") + name;
}

} // namespace Tag
} // namespace Kelda
