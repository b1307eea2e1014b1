#pragma once

#include "keldaclientsoapmessage.h"

#include "filequery.h"
#include "filetype.h"
#include "keldaerror.h"

#include <QStringList>
#include <QVector>

// One class per request command. Each holds the command's arguments, writes
// its command element with the children in the order the server reads them
// (ToXml) and resets its own fields (Clear). The Guid and Application fields
// live in the base class; a class writes them only where its command has them.
namespace Kelda {

// m:Guid, m:FileName, m:FileId.
class AddFileMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetFileName(const QString &fileName) { m_sFileName = fileName; }
    // Signed on the wire: an id of 0xFFFFFFFF travels as -1.
    void SetFileId(int fileId) { m_iFileId = fileId; }

private:
    QString m_sFileName;
    int m_iFileId = 0;
};

// m:Guid, m:Application.
class AddReferenceMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid.
class CheckFileGroupExistsMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid, m:FileId (always -1), m:UserName (the lock identity).
class CloseFileMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetUserName(const QString &lockIdentity) { m_sUserName = lockIdentity; }

private:
    QString m_sUserName;
};

// The answer to the server's ConvertFileGroup: m:Guid, m:Error, m:ErrorString.
class ConvertFileGroupReplyMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    // Error becomes 1, not 0: an answer never filled in reports a failure.
    void Clear() override;

    void SetError(int error) { m_iError = error; }
    void SetErrorString(const QString &errorString) { m_sErrorString = errorString; }

private:
    int m_iError = KE_UnknownError;
    QString m_sErrorString;
};

// m:TovinId, m:SubSystemName, m:RecordId, m:FileGroupVersion, m:Detail,
// m:Comment, m:FileType, m:TeamMembership, m:UserName, m:Guid, m:Path.
class CreateTovinFileGroupMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetTovinId(const QString &tovinId) { m_sTovinId = tovinId; }
    void SetSubSystemName(const QString &subSystem) { m_sSubSystemName = subSystem; }
    void SetRecordId(const QString &recordId) { m_sRecordId = recordId; }
    void SetFileGroupVersion(const QString &version) { m_sFileGroupVersion = version; }
    void SetDetail(const QString &detail) { m_sDetail = detail; }
    void SetComment(const QString &comment) { m_sComment = comment; }
    void SetFileType(FileType fileType) { m_eFileType = fileType; }
    void SetTeamMembership(const QString &team) { m_sTeamMembership = team; }
    void SetUserName(const QString &userName) { m_sUserName = userName; }
    void SetPath(const QString &path) { m_sPath = path; }

private:
    QString m_sTovinId;
    QString m_sSubSystemName;
    QString m_sRecordId;
    QString m_sFileGroupVersion;
    QString m_sDetail;
    QString m_sComment;
    FileType m_eFileType = FT_Unknown;
    QString m_sTeamMembership;
    QString m_sUserName;
    QString m_sPath;
};

// m:Comment, m:Guid, m:Detail, m:FileGroupName, m:FileType, m:LifeCycle,
// m:ReservedStorage, m:TeamMembership, m:UserName, m:FileGroupVersion, m:Path.
class CreateFileGroupMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    // Sets Guid and request id alike: the server identifies the creating
    // request by the new group's own GUID.
    void SetGroupGuid(const QString &guid);
    void SetComment(const QString &comment) { m_sComment = comment; }
    void SetDetail(const QString &detail) { m_sDetail = detail; }
    void SetFileGroupName(const QString &name) { m_sFileGroupName = name; }
    void SetFileType(FileType fileType) { m_eFileType = fileType; }
    void SetLifeCycle(const QDateTime &lifeCycle) { m_lifeCycle = lifeCycle; }
    void SetReservedStorage(quint64 reservedStorage) { m_uReservedStorage = reservedStorage; }
    void SetTeamMembership(const QString &team) { m_sTeamMembership = team; }
    void SetUserName(const QString &userName) { m_sUserName = userName; }
    void SetFileGroupVersion(const QString &version) { m_sFileGroupVersion = version; }
    void SetPath(const QString &path) { m_sPath = path; }

private:
    QString m_sComment;
    QString m_sDetail;
    QString m_sFileGroupName;
    FileType m_eFileType = FT_Unknown;
    QDateTime m_lifeCycle;
    quint64 m_uReservedStorage = 0;
    QString m_sTeamMembership;
    QString m_sUserName;
    QString m_sFileGroupVersion;
    QString m_sPath;
};

// m:Guid, m:ShallowDelete.
class DeleteFileGroupMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetShallowDelete(bool shallow) { m_bShallowDelete = shallow; }

private:
    bool m_bShallowDelete = false;
};

// m:Guid, m:FileId.
class DeleteFileMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetFileId(int fileId) { m_iFileId = fileId; }

private:
    int m_iFileId = 0;
};

// m:Path (the destination archive), then one m:Guid per group to export.
class ExportArchiveMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetPath(const QString &path) { m_sPath = path; }
    void SetGuids(const QStringList &guids) { m_guids = guids; }

private:
    QString m_sPath;
    QStringList m_guids;
};

// The server reads m:Guid as the Tovin id and m:FileId as the record id,
// both as text.
class GetTovinFilegroupGuidMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetTovinId(const QString &tovinId) { m_sTovinId = tovinId; }
    void SetRecordId(const QString &recordId) { m_sRecordId = recordId; }

private:
    QString m_sTovinId;
    QString m_sRecordId;
};

// No children.
class GetApplicationListMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// No children.
class GetBasePathMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid.
class GetFileListMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid, m:FileId.
class GetRemoteStorageLocationMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetFileId(int fileId) { m_iFileId = fileId; }

private:
    int m_iFileId = 0;
};

// No children.
class GetUserListMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// One m:Path per archive to import.
class ImportArchiveMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetPaths(const QStringList &paths) { m_paths = paths; }

private:
    QStringList m_paths;
};

// m:Guid, m:UserName.
class MoveToNasMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetUserName(const QString &userName) { m_sUserName = userName; }

private:
    QString m_sUserName;
};

// All sixteen criteria, always, empty or not: m:Application,
// m:CommentSearchText, m:DetailSearchText, m:FileGroupNameSearchText,
// m:FileTypeList, m:LocationState, m:LockState, m:LockUser, the four time
// ranges (m:Min, m:Max each), m:ReferencingApplication, m:TeamSearchText,
// m:User, m:VersionSearchText.
class QueryFileGroupsMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetQuery(const FileQuery &query) { m_query = query; }

private:
    FileQuery m_query;
};

// m:Guid.
class QueryLocationStateProgressMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid, m:Application.
class QueryMetaDataMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:ConverterId, then one m:FileType per handled type, with no wrapper.
class RegisterConverterMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetConverterId(const QString &converterId) { m_sConverterId = converterId; }
    void SetFileTypes(const QVector<FileType> &fileTypes) { m_fileTypes = fileTypes; }

private:
    QString m_sConverterId;
    QVector<FileType> m_fileTypes;
};

// m:Guid, m:Application.
class RemoveAllReferencesMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid, m:Application.
class RemoveReferenceMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
};

// m:Guid, m:FileId, m:WriteLock, m:UserName (the lock identity).
class RequestFileMessage : public KeldaClientSOAPMessage
{
public:
    QByteArray ToXml() const override;
    void Clear() override;

    void SetFileId(int fileId) { m_iFileId = fileId; }
    void SetWriteLock(bool writeLock) { m_bWriteLock = writeLock; }
    void SetUserName(const QString &lockIdentity) { m_sUserName = lockIdentity; }

private:
    int m_iFileId = 0;
    bool m_bWriteLock = false;
    QString m_sUserName;
};

} // namespace Kelda
