#include "requestmessages.h"

#include "keldaxml.h"

namespace Kelda {

namespace {

// The file id CloseFile always sends: the server closes the group's open file
// for the lock identity in m:UserName, not by id.
constexpr int CloseAnyFileId = -1;

} // namespace

QByteArray AddFileMessage::ToXml() const
{
    return WriteCommand(Tag::AddFile, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::FileName, m_sFileName);
        WriteNumber(writer, Tag::FileId, m_iFileId);
    });
}

void AddFileMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sFileName.clear();
    m_iFileId = 0;
}

QByteArray AddReferenceMessage::ToXml() const
{
    return WriteCommand(Tag::AddReference, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::Application, GetApplication());
    });
}

QByteArray CheckFileGroupExistsMessage::ToXml() const
{
    return WriteCommand(Tag::CheckFileGroupExists, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
    });
}

QByteArray CloseFileMessage::ToXml() const
{
    return WriteCommand(Tag::CloseFile, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteNumber(writer, Tag::FileId, CloseAnyFileId);
        WriteText(writer, Tag::UserName, m_sUserName);
    });
}

void CloseFileMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sUserName.clear();
}

QByteArray ConvertFileGroupReplyMessage::ToXml() const
{
    return WriteCommand(Tag::ConvertFileGroupReply, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteNumber(writer, Tag::Error, m_iError);
        WriteText(writer, Tag::ErrorString, m_sErrorString);
    });
}

void ConvertFileGroupReplyMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_iError = KE_UnknownError;
    m_sErrorString.clear();
}

QByteArray CreateTovinFileGroupMessage::ToXml() const
{
    return WriteCommand(Tag::CreateTovinFileGroup, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::TovinId, m_sTovinId);
        WriteText(writer, Tag::SubSystemName, m_sSubSystemName);
        WriteText(writer, Tag::RecordId, m_sRecordId);
        WriteText(writer, Tag::FileGroupVersion, m_sFileGroupVersion);
        WriteText(writer, Tag::Detail, m_sDetail);
        WriteText(writer, Tag::Comment, m_sComment);
        WriteNumber(writer, Tag::FileType, m_eFileType);
        WriteText(writer, Tag::TeamMembership, m_sTeamMembership);
        WriteText(writer, Tag::UserName, m_sUserName);
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::Path, m_sPath);
    });
}

void CreateTovinFileGroupMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sTovinId.clear();
    m_sSubSystemName.clear();
    m_sRecordId.clear();
    m_sFileGroupVersion.clear();
    m_sDetail.clear();
    m_sComment.clear();
    m_eFileType = FT_Unknown;
    m_sTeamMembership.clear();
    m_sUserName.clear();
    m_sPath.clear();
}

void CreateFileGroupMessage::SetGroupGuid(const QString &guid)
{
    SetGuid(guid);
    SetRequestId(guid);
}

QByteArray CreateFileGroupMessage::ToXml() const
{
    return WriteCommand(Tag::CreateFileGroup, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Comment, m_sComment);
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::Detail, m_sDetail);
        WriteText(writer, Tag::FileGroupName, m_sFileGroupName);
        WriteNumber(writer, Tag::FileType, m_eFileType);
        WriteDateTime(writer, Tag::LifeCycle, m_lifeCycle);
        WriteUnsigned(writer, Tag::ReservedStorage, m_uReservedStorage);
        WriteText(writer, Tag::TeamMembership, m_sTeamMembership);
        WriteText(writer, Tag::UserName, m_sUserName);
        WriteText(writer, Tag::FileGroupVersion, m_sFileGroupVersion);
        WriteText(writer, Tag::Path, m_sPath);
    });
}

void CreateFileGroupMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sComment.clear();
    m_sDetail.clear();
    m_sFileGroupName.clear();
    m_eFileType = FT_Unknown;
    m_lifeCycle = QDateTime();
    m_uReservedStorage = 0;
    m_sTeamMembership.clear();
    m_sUserName.clear();
    m_sFileGroupVersion.clear();
    m_sPath.clear();
}

QByteArray DeleteFileGroupMessage::ToXml() const
{
    return WriteCommand(Tag::DeleteFileGroup, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteBool(writer, Tag::ShallowDelete, m_bShallowDelete);
    });
}

void DeleteFileGroupMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_bShallowDelete = false;
}

QByteArray DeleteFileMessage::ToXml() const
{
    return WriteCommand(Tag::DeleteFile, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteNumber(writer, Tag::FileId, m_iFileId);
    });
}

void DeleteFileMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_iFileId = 0;
}

QByteArray ExportArchiveMessage::ToXml() const
{
    return WriteCommand(Tag::ExportArchive, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Path, m_sPath);
        for (const QString &guid : m_guids)
            WriteText(writer, Tag::Guid, guid);
    });
}

void ExportArchiveMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sPath.clear();
    m_guids.clear();
}

QByteArray GetTovinFilegroupGuidMessage::ToXml() const
{
    return WriteCommand(Tag::GetTovinFilegroupGuid, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, m_sTovinId);
        WriteText(writer, Tag::FileId, m_sRecordId);
    });
}

void GetTovinFilegroupGuidMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sTovinId.clear();
    m_sRecordId.clear();
}

QByteArray GetApplicationListMessage::ToXml() const
{
    return WriteCommand(Tag::GetApplicationList, [](QXmlStreamWriter &) {});
}

QByteArray GetBasePathMessage::ToXml() const
{
    return WriteCommand(Tag::GetBasePath, [](QXmlStreamWriter &) {});
}

QByteArray GetFileListMessage::ToXml() const
{
    return WriteCommand(Tag::GetFileList, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
    });
}

QByteArray GetRemoteStorageLocationMessage::ToXml() const
{
    return WriteCommand(Tag::GetRemoteStorageLocation, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteNumber(writer, Tag::FileId, m_iFileId);
    });
}

void GetRemoteStorageLocationMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_iFileId = 0;
}

QByteArray GetUserListMessage::ToXml() const
{
    return WriteCommand(Tag::GetUserList, [](QXmlStreamWriter &) {});
}

QByteArray ImportArchiveMessage::ToXml() const
{
    return WriteCommand(Tag::ImportArchive, [this](QXmlStreamWriter &writer) {
        for (const QString &path : m_paths)
            WriteText(writer, Tag::Path, path);
    });
}

void ImportArchiveMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_paths.clear();
}

QByteArray MoveToNasMessage::ToXml() const
{
    return WriteCommand(Tag::MoveToNas, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::UserName, m_sUserName);
    });
}

void MoveToNasMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sUserName.clear();
}

QByteArray QueryFileGroupsMessage::ToXml() const
{
    return WriteCommand(Tag::QueryFileGroups, [this](QXmlStreamWriter &writer) {
        const auto writeRange = [&writer](QLatin1String name, const QDateTime &min, const QDateTime &max) {
            WriteStartElement(writer, name);
            WriteDateTime(writer, Tag::Min, min);
            WriteDateTime(writer, Tag::Max, max);
            writer.writeEndElement();
        };

        // The query path never fills Application; the server accepts it empty.
        WriteText(writer, Tag::Application, GetApplication());
        WriteText(writer, Tag::CommentSearchText, m_query.GetCommentSearchText());
        WriteText(writer, Tag::DetailSearchText, m_query.GetDetailSearchText());
        WriteText(writer, Tag::FileGroupNameSearchText, m_query.GetFileGroupSearchText());
        WriteStartElement(writer, Tag::FileTypeList);
        for (int i = 0; i < m_query.GetFileTypeListSize(); ++i)
            WriteNumber(writer, Tag::FileType, m_query.GetFileTypeAt(i));
        writer.writeEndElement();
        WriteNumber(writer, Tag::LocationState, m_query.GetLocationState());
        WriteNumber(writer, Tag::LockState, m_query.GetLockState());
        WriteText(writer, Tag::LockUser, m_query.GetLockUser());
        writeRange(Tag::BackupTime, m_query.GetBackupTimeMin(), m_query.GetBackupTimeMax());
        writeRange(Tag::CreationTime, m_query.GetCreationTimeMin(), m_query.GetCreationTimeMax());
        writeRange(Tag::LifeCycle, m_query.GetLifeCycleTimeMin(), m_query.GetLifeCycleTimeMax());
        writeRange(Tag::ModificationTime, m_query.GetModificationTimeMin(), m_query.GetModificationTimeMax());
        WriteText(writer, Tag::ReferencingApplication, m_query.GetReferencingApplication());
        WriteText(writer, Tag::TeamSearchText, m_query.GetTeamMembershipSearchText());
        WriteText(writer, Tag::User, m_query.GetCreatorSearchText());
        WriteText(writer, Tag::VersionSearchText, m_query.GetVersionSearchText());
    });
}

void QueryFileGroupsMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_query.Reset();
}

QByteArray QueryLocationStateProgressMessage::ToXml() const
{
    return WriteCommand(Tag::QueryLocationStateProgress, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
    });
}

QByteArray QueryMetaDataMessage::ToXml() const
{
    return WriteCommand(Tag::QueryMetaData, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::Application, GetApplication());
    });
}

QByteArray RegisterConverterMessage::ToXml() const
{
    return WriteCommand(Tag::RegisterConverter, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::ConverterId, m_sConverterId);
        for (FileType fileType : m_fileTypes)
            WriteNumber(writer, Tag::FileType, fileType);
    });
}

void RegisterConverterMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_sConverterId.clear();
    m_fileTypes.clear();
}

QByteArray RemoveAllReferencesMessage::ToXml() const
{
    return WriteCommand(Tag::RemoveAllReferences, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::Application, GetApplication());
    });
}

QByteArray RemoveReferenceMessage::ToXml() const
{
    return WriteCommand(Tag::RemoveReference, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteText(writer, Tag::Application, GetApplication());
    });
}

QByteArray RequestFileMessage::ToXml() const
{
    return WriteCommand(Tag::RequestFile, [this](QXmlStreamWriter &writer) {
        WriteText(writer, Tag::Guid, GetGuid());
        WriteNumber(writer, Tag::FileId, m_iFileId);
        WriteBool(writer, Tag::WriteLock, m_bWriteLock);
        WriteText(writer, Tag::UserName, m_sUserName);
    });
}

void RequestFileMessage::Clear()
{
    KeldaClientSOAPMessage::Clear();
    m_iFileId = 0;
    m_bWriteLock = false;
    m_sUserName.clear();
}

} // namespace Kelda
