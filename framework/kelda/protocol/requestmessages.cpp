#include "requestmessages.h"

namespace Kelda {

ConvertFileGroupReplyMessage::ConvertFileGroupReplyMessage()
{
    SetError(KE_UnknownError);
}

void ConvertFileGroupReplyMessage::Clear()
{
    CommandRequest::Clear();
    SetError(KE_UnknownError);
}

void CreateFileGroupMessage::SetGroupGuid(const QString &guid)
{
    SetGuid(guid);
    SetRequestId(guid);
}

QueryFileGroupsMessage::QueryFileGroupsMessage()
{
    SetQuery(FileQuery());
}

void QueryFileGroupsMessage::Clear()
{
    CommandRequest::Clear();
    SetQuery(FileQuery());
}

void QueryFileGroupsMessage::SetQuery(const FileQuery &query)
{
    QStringList fileTypes;
    for (int i = 0; i < query.GetFileTypeListSize(); ++i)
        fileTypes.append(QString::number(query.GetFileTypeAt(i)));
    SetText(Tag::CommentSearchText, query.GetCommentSearchText());
    SetText(Tag::DetailSearchText, query.GetDetailSearchText());
    SetText(Tag::FileGroupNameSearchText, query.GetFileGroupSearchText());
    SetTexts(Tag::FileTypeList, fileTypes);
    SetNumber(Tag::LocationState, query.GetLocationState());
    SetNumber(Tag::LockState, query.GetLockState());
    SetText(Tag::LockUser, query.GetLockUser());
    SetTimeRange(Tag::BackupTime, query.GetBackupTimeMin(), query.GetBackupTimeMax());
    SetTimeRange(Tag::CreationTime, query.GetCreationTimeMin(), query.GetCreationTimeMax());
    SetTimeRange(Tag::LifeCycle, query.GetLifeCycleTimeMin(), query.GetLifeCycleTimeMax());
    SetTimeRange(Tag::ModificationTime, query.GetModificationTimeMin(), query.GetModificationTimeMax());
    SetText(Tag::ReferencingApplication, query.GetReferencingApplication());
    SetText(Tag::TeamSearchText, query.GetTeamMembershipSearchText());
    SetText(Tag::User, query.GetCreatorSearchText());
    SetText(Tag::VersionSearchText, query.GetVersionSearchText());
}

void RegisterConverterMessage::SetFileTypes(const QVector<FileType> &fileTypes)
{
    QStringList texts;
    for (FileType fileType : fileTypes)
        texts.append(QString::number(fileType));
    SetTexts(Tag::FileType, texts);
}

} // namespace Kelda
