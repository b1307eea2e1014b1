#include "filequery.h"

#include <QVector>

namespace Kelda {

class TimeRangePrivate : public QSharedData
{
public:
    QDateTime max;
    QDateTime min;
};

TimeRange::TimeRange()
    : d(new TimeRangePrivate)
{ }

TimeRange::TimeRange(const TimeRange &other) = default;
TimeRange::TimeRange(TimeRange &&other) noexcept = default;
TimeRange &TimeRange::operator=(const TimeRange &other) = default;
TimeRange &TimeRange::operator=(TimeRange &&other) noexcept = default;
TimeRange::~TimeRange() = default;

QDateTime TimeRange::GetMin() const
{
    return d->min;
}

QDateTime TimeRange::GetMax() const
{
    return d->max;
}

void TimeRange::SetMin(const QDateTime &min)
{
    d->min = min;
}

void TimeRange::SetMax(const QDateTime &max)
{
    d->max = max;
}

bool TimeRange::IsInRange(const QDateTime &time) const
{
    const bool openBelow = d->min.isNull();
    const bool openAbove = d->max.isNull();
    if (openBelow && openAbove)
        return true;
    if (time.isNull())
        return false;
    if (!openBelow && time < d->min)
        return false;
    return openAbove || !(d->max < time);
}

class FileQueryPrivate : public QSharedData
{
public:
    TimeRange backupTime;
    TimeRange creationTime;
    QVector<FileType> fileTypes;
    TimeRange lifeCycle;
    TimeRange modificationTime;
    LocationState locationState = LS_Undefined;
    LockState lockState = LOCK_Undefined;
    // Empty rather than null: the request writers send them as they are.
    QString commentSearchText = QStringLiteral("");
    QString creatorSearchText = QStringLiteral("");
    QString detailSearchText = QStringLiteral("");
    QString fileGroupSearchText = QStringLiteral("");
    QString lockUser = QStringLiteral("");
    QString referencingApplication = QStringLiteral("");
    QString teamMembershipSearchText = QStringLiteral("");
    QString versionSearchText = QStringLiteral("");
};

FileQuery::FileQuery()
    : d(new FileQueryPrivate)
{ }

FileQuery::FileQuery(const FileQuery &other) = default;
FileQuery::FileQuery(FileQuery &&other) noexcept = default;
FileQuery &FileQuery::operator=(const FileQuery &other) = default;
FileQuery &FileQuery::operator=(FileQuery &&other) noexcept = default;
FileQuery::~FileQuery() = default;

QDateTime FileQuery::GetBackupTimeMin() const
{
    return d->backupTime.GetMin();
}
QDateTime FileQuery::GetBackupTimeMax() const
{
    return d->backupTime.GetMax();
}
void FileQuery::SetBackupTimeMin(const QDateTime &time)
{
    d->backupTime.SetMin(time);
}
void FileQuery::SetBackupTimeMax(const QDateTime &time)
{
    d->backupTime.SetMax(time);
}
bool FileQuery::IsBackupTimeInRange(const QDateTime &time) const
{
    return d->backupTime.IsInRange(time);
}

QDateTime FileQuery::GetCreationTimeMin() const
{
    return d->creationTime.GetMin();
}
QDateTime FileQuery::GetCreationTimeMax() const
{
    return d->creationTime.GetMax();
}
void FileQuery::SetCreationTimeMin(const QDateTime &time)
{
    d->creationTime.SetMin(time);
}
void FileQuery::SetCreationTimeMax(const QDateTime &time)
{
    d->creationTime.SetMax(time);
}
bool FileQuery::IsCreationTimeInRange(const QDateTime &time) const
{
    return d->creationTime.IsInRange(time);
}

QDateTime FileQuery::GetLifeCycleTimeMin() const
{
    return d->lifeCycle.GetMin();
}
QDateTime FileQuery::GetLifeCycleTimeMax() const
{
    return d->lifeCycle.GetMax();
}
void FileQuery::SetLifeCycleTimeMin(const QDateTime &time)
{
    d->lifeCycle.SetMin(time);
}
void FileQuery::SetLifeCycleTimeMax(const QDateTime &time)
{
    d->lifeCycle.SetMax(time);
}
bool FileQuery::IsLifeCycleInRange(const QDateTime &time) const
{
    return d->lifeCycle.IsInRange(time);
}

QDateTime FileQuery::GetModificationTimeMin() const
{
    return d->modificationTime.GetMin();
}
QDateTime FileQuery::GetModificationTimeMax() const
{
    return d->modificationTime.GetMax();
}
void FileQuery::SetModificationTimeMin(const QDateTime &time)
{
    d->modificationTime.SetMin(time);
}
void FileQuery::SetModificationTimeMax(const QDateTime &time)
{
    d->modificationTime.SetMax(time);
}
bool FileQuery::IsModificationTimeInRange(const QDateTime &time) const
{
    return d->modificationTime.IsInRange(time);
}

void FileQuery::AddFileType(FileType type)
{
    d->fileTypes.append(type);
}

void FileQuery::ClearFileTypeList()
{
    d->fileTypes.clear();
}

int FileQuery::GetFileTypeListSize() const
{
    return d->fileTypes.size();
}

FileType FileQuery::GetFileTypeAt(int index) const
{
    return d->fileTypes.at(index);
}

bool FileQuery::IsFileTypeListed(FileType type) const
{
    return d->fileTypes.contains(type);
}

LocationState FileQuery::GetLocationState() const
{
    return d->locationState;
}
void FileQuery::SetLocationState(LocationState state)
{
    d->locationState = state;
}
LockState FileQuery::GetLockState() const
{
    return d->lockState;
}
void FileQuery::SetLockState(LockState state)
{
    d->lockState = state;
}

QString FileQuery::GetCommentSearchText() const
{
    return d->commentSearchText;
}
void FileQuery::SetCommentSearchText(const QString &text)
{
    d->commentSearchText = text;
}
QString FileQuery::GetCreatorSearchText() const
{
    return d->creatorSearchText;
}
void FileQuery::SetCreatorSearchText(const QString &text)
{
    d->creatorSearchText = text;
}
QString FileQuery::GetDetailSearchText() const
{
    return d->detailSearchText;
}
void FileQuery::SetDetailSearchText(const QString &text)
{
    d->detailSearchText = text;
}
QString FileQuery::GetFileGroupSearchText() const
{
    return d->fileGroupSearchText;
}
void FileQuery::SetFileGroupSearchText(const QString &text)
{
    d->fileGroupSearchText = text;
}
QString FileQuery::GetLockUser() const
{
    return d->lockUser;
}
void FileQuery::SetLockUser(const QString &user)
{
    d->lockUser = user;
}
QString FileQuery::GetReferencingApplication() const
{
    return d->referencingApplication;
}
void FileQuery::SetReferencingApplication(const QString &application)
{
    d->referencingApplication = application;
}
QString FileQuery::GetTeamMembershipSearchText() const
{
    return d->teamMembershipSearchText;
}
void FileQuery::SetTeamMembershipSearchText(const QString &text)
{
    d->teamMembershipSearchText = text;
}
QString FileQuery::GetVersionSearchText() const
{
    return d->versionSearchText;
}
void FileQuery::SetVersionSearchText(const QString &text)
{
    d->versionSearchText = text;
}

void FileQuery::Reset()
{
    const QDateTime open;
    for (TimeRange *range : {&d->backupTime, &d->creationTime, &d->lifeCycle, &d->modificationTime}) {
        range->SetMin(open);
        range->SetMax(open);
    }
    d->fileTypes.clear();
    d->locationState = LS_Undefined;
    d->lockState = LOCK_Undefined;
    for (QString *text :
         {&d->commentSearchText, &d->creatorSearchText, &d->detailSearchText, &d->fileGroupSearchText, &d->lockUser,
          &d->referencingApplication, &d->teamMembershipSearchText, &d->versionSearchText})
        *text = QStringLiteral("");
}

QDateTime FileQuery::getValidDateTimeFromString(const QString &text)
{
    static const QString formats[] = {
        QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"),
        QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz"),
        QStringLiteral("yyyy-MM-dd hh:mm:ss"),
        QStringLiteral("yyyy-MM-ddThh:mm:ss"),
    };
    for (const QString &format : formats) {
        const QDateTime time = QDateTime::fromString(text, format);
        if (time.isValid())
            return time;
    }
    return QDateTime();
}

} // namespace Kelda
