#pragma once

#include <QLatin1String>
#include <QString>

// The protocol's XML vocabulary, shared by the request writers, the reply
// readers and the file group record. Element names are written as literal
// qualified names ("s:Body", "m:FileId"); readers compare local names and
// namespace URIs.
namespace Kelda {

namespace Ns {
// Replies are checked against this URI character by character: client and
// server must use the identical string.
constexpr QLatin1String Message("http://kelda.archive/8SP/KELDA");
constexpr QLatin1String Envelope("http://www.w3.org/2003/05/soap-envelope");
constexpr QLatin1String SoapVersion("1.0");
constexpr QLatin1String PrefixS("s");
constexpr QLatin1String PrefixM("m");
} // namespace Ns

namespace Tag {

// Envelope (prefix s:).
constexpr QLatin1String Envelope("Envelope");
constexpr QLatin1String Header("Header");
constexpr QLatin1String Version("Version");
constexpr QLatin1String RequestId("RequestId");
constexpr QLatin1String Body("Body");

// Request command elements.
constexpr QLatin1String AddFile("AddFile");
constexpr QLatin1String AddReference("AddReference");
constexpr QLatin1String CheckFileGroupExists("CheckFileGroupExists");
constexpr QLatin1String CloseFile("CloseFile");
constexpr QLatin1String CreateTovinFileGroup("CreateTovinFileGroup");
constexpr QLatin1String CreateFileGroup("CreateFileGroup");
constexpr QLatin1String DeleteFileGroup("DeleteFileGroup");
constexpr QLatin1String DeleteFile("DeleteFile");
constexpr QLatin1String ExportArchive("ExportArchive");
constexpr QLatin1String GetTovinFilegroupGuid("GetTovinFilegroupGuid");
constexpr QLatin1String GetApplicationList("GetApplicationList");
constexpr QLatin1String GetBasePath("GetBasePath");
constexpr QLatin1String GetFileList("GetFileList");
constexpr QLatin1String GetRemoteStorageLocation("GetRemoteStorageLocation");
constexpr QLatin1String GetUserList("GetUserList");
constexpr QLatin1String ImportArchive("ImportArchive");
constexpr QLatin1String MoveToNas("MoveToNas");
constexpr QLatin1String QueryFileGroups("QueryFileGroups");
constexpr QLatin1String QueryLocationStateProgress("QueryLocationStateProgress");
constexpr QLatin1String QueryMetaData("QueryMetaData");
constexpr QLatin1String RegisterConverter("RegisterConverter");
constexpr QLatin1String RemoveAllReferences("RemoveAllReferences");
constexpr QLatin1String RemoveReference("RemoveReference");
constexpr QLatin1String RequestFile("RequestFile");
constexpr QLatin1String ConvertFileGroupReply("ConvertFileGroupReply");

// Reply elements.
constexpr QLatin1String CreateFileGroupReply("CreateFileGroupReply");
constexpr QLatin1String AddFileReply("AddFileReply");
constexpr QLatin1String DeleteFileReply("DeleteFileReply");
constexpr QLatin1String RequestFileReply("RequestFileReply");
constexpr QLatin1String CloseFileReply("CloseFileReply");
constexpr QLatin1String MoveToNasReply("MoveToNasReply");
constexpr QLatin1String AddReferenceReply("AddReferenceReply");
constexpr QLatin1String RemoveReferenceReply("RemoveReferenceReply");
constexpr QLatin1String RemoveAllReferencesReply("RemoveAllReferencesReply");
constexpr QLatin1String QueryMetaDataReply("QueryMetaDataReply");
constexpr QLatin1String GetApplicationListReply("GetApplicationListReply");
constexpr QLatin1String GetFileListReply("GetFileListReply");
constexpr QLatin1String GetUserListReply("GetUserListReply");
constexpr QLatin1String QueryFileGroupsReply("QueryFileGroupsReply");
constexpr QLatin1String GetBasePathReply("GetBasePathReply");
constexpr QLatin1String ExportArchiveReply("ExportArchiveReply");
constexpr QLatin1String ImportArchiveReply("ImportArchiveReply");
constexpr QLatin1String CreateTovinFileGroupReply("CreateTovinFileGroupReply");
constexpr QLatin1String RegisterConverterReply("RegisterConverterReply");
constexpr QLatin1String DeleteFileGroupReply("DeleteFileGroupReply");
constexpr QLatin1String QueryLocationStateProgressReply("QueryLocationStateProgressReply");
constexpr QLatin1String CheckFileGroupExistsReply("CheckFileGroupExistsReply");
constexpr QLatin1String GetRemoteStorageLocationReply("GetRemoteStorageLocationReply");
constexpr QLatin1String GetTovinFilegroupGuidReply("GetTovinFilegroupGuidReply");
constexpr QLatin1String QueryDiskSpaceReply("QueryDiskSpaceReply");

// Server-side commands and notifications.
constexpr QLatin1String ConvertFileGroup("ConvertFileGroup");
constexpr QLatin1String CopyForeignFileGroupProgress("CopyForeignFileGroupProgress");
constexpr QLatin1String QueryForForeignFileGroup("QueryForForeignFileGroup");
constexpr QLatin1String ConnectInfoForKelda("ConnectInfoForKelda");
constexpr QLatin1String DownloadFinished("DownloadFinished");
constexpr QLatin1String RequestTorrent("RequestTorrent");
constexpr QLatin1String QueryDiskSpace("QueryDiskSpace");
constexpr QLatin1String ThrowExceptionForTest("ThrowExceptionForTest");
constexpr QLatin1String MoveIQRecFromTovin("MoveIQRecFromTovin");

// Fields.
constexpr QLatin1String Application("Application");
constexpr QLatin1String AttachmentUrl("AttachmentUrl");
constexpr QLatin1String TovinId("TovinId");
constexpr QLatin1String BackupTime("BackupTime");
constexpr QLatin1String CleanupPeriodDays("CleanupPeriodDays");
constexpr QLatin1String CleanupTime("CleanupTime");
constexpr QLatin1String Comment("Comment");
constexpr QLatin1String CommentSearchText("CommentSearchText");
constexpr QLatin1String ConverterId("ConverterId");
constexpr QLatin1String CopyDestination("CopyDestination");
constexpr QLatin1String CopyOnDemand("CopyOnDemand");
constexpr QLatin1String CopyProgress("CopyProgress");
constexpr QLatin1String CreationTime("CreationTime");
constexpr QLatin1String Creator("Creator");
constexpr QLatin1String DbId("DbId");
constexpr QLatin1String DeleteArchive("DeleteArchive");
constexpr QLatin1String Detail("Detail");
constexpr QLatin1String DetailSearchText("DetailSearchText");
constexpr QLatin1String Error("Error");
constexpr QLatin1String ErrorString("ErrorString");
constexpr QLatin1String Exists("Exists");
constexpr QLatin1String File("File");
constexpr QLatin1String FileGroup("FileGroup");
constexpr QLatin1String FileGroupName("FileGroupName");
constexpr QLatin1String FileGroupNameSearchText("FileGroupNameSearchText");
constexpr QLatin1String FileGroupVersion("FileGroupVersion");
constexpr QLatin1String FileId("FileId");
constexpr QLatin1String FileName("FileName");
constexpr QLatin1String Files("Files");
constexpr QLatin1String FileType("FileType");
constexpr QLatin1String FileTypeList("FileTypeList");
constexpr QLatin1String Guid("Guid");
constexpr QLatin1String Hostname("Hostname");
constexpr QLatin1String Id("Id");
constexpr QLatin1String LifeCycle("LifeCycle");
constexpr QLatin1String ListOfAskedServers("ListOfAskedServers");
constexpr QLatin1String LocationState("LocationState");
constexpr QLatin1String LockState("LockState");
constexpr QLatin1String LockUser("LockUser");
constexpr QLatin1String Max("Max");
constexpr QLatin1String Min("Min");
constexpr QLatin1String ModificationTime("ModificationTime");
constexpr QLatin1String Path("Path");
constexpr QLatin1String Port("Port");
constexpr QLatin1String RecordId("RecordId");
constexpr QLatin1String ReferenceCounter("ReferenceCounter");
constexpr QLatin1String ReferencingApplication("ReferencingApplication");
constexpr QLatin1String RemoteIp("RemoteIp");
constexpr QLatin1String Requestor("Requestor");
constexpr QLatin1String ReservedPercent("ReservedPercent");
constexpr QLatin1String ReservedStorage("ReservedStorage");
constexpr QLatin1String ShallowDelete("ShallowDelete");
constexpr QLatin1String SkipExistingFileGroups("SkipExistingFileGroups");
constexpr QLatin1String State("State");
constexpr QLatin1String SubSystemName("SubSystemName");
constexpr QLatin1String TeamMembership("TeamMembership");
constexpr QLatin1String TeamSearchText("TeamSearchText");
constexpr QLatin1String Torrent("Torrent");
constexpr QLatin1String TotalBytes("TotalBytes");
constexpr QLatin1String TypeOfException("TypeOfException");
constexpr QLatin1String UsedPercent("UsedPercent");
constexpr QLatin1String User("User");
constexpr QLatin1String UserName("UserName");
constexpr QLatin1String VersionSearchText("VersionSearchText");
constexpr QLatin1String WriteLock("WriteLock");

// List wrappers of the list replies.
constexpr QLatin1String Applications("Applications");
constexpr QLatin1String Users("Users");

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
