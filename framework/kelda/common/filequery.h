#pragma once

#include "filetype.h"
#include "keldacommonglobal.h"

#include <QDateTime>
#include <QSharedDataPointer>
#include <QString>

namespace Kelda {

class TimeRangePrivate;

// A pair of optional, inclusive bounds; a null bound is open.
class KELDACOMMON_EXPORT TimeRange
{
public:
    TimeRange();
    TimeRange(const TimeRange &other);
    TimeRange &operator=(const TimeRange &other);
    virtual ~TimeRange();

    QDateTime GetMin() const;
    QDateTime GetMax() const;
    void SetMin(const QDateTime &min);
    void SetMax(const QDateTime &max);

    // Open on both sides accepts anything, even a null time; otherwise a null
    // time is out of range. Swapped bounds accept nothing.
    bool IsInRange(const QDateTime &time) const;

private:
    QSharedDataPointer<TimeRangePrivate> d;
};

class FileQueryPrivate;

// Search criteria for file groups. Zero states and empty lists and texts
// mean "any"; the server interprets the search texts.
class KELDACOMMON_EXPORT FileQuery
{
public:
    FileQuery();
    FileQuery(const FileQuery &other);
    FileQuery &operator=(const FileQuery &other);
    virtual ~FileQuery();

    QDateTime GetBackupTimeMin() const;
    QDateTime GetBackupTimeMax() const;
    void SetBackupTimeMin(const QDateTime &time);
    void SetBackupTimeMax(const QDateTime &time);
    bool IsBackupTimeInRange(const QDateTime &time) const;

    QDateTime GetCreationTimeMin() const;
    QDateTime GetCreationTimeMax() const;
    void SetCreationTimeMin(const QDateTime &time);
    void SetCreationTimeMax(const QDateTime &time);
    bool IsCreationTimeInRange(const QDateTime &time) const;

    QDateTime GetLifeCycleTimeMin() const;
    QDateTime GetLifeCycleTimeMax() const;
    void SetLifeCycleTimeMin(const QDateTime &time);
    void SetLifeCycleTimeMax(const QDateTime &time);
    bool IsLifeCycleInRange(const QDateTime &time) const;

    QDateTime GetModificationTimeMin() const;
    QDateTime GetModificationTimeMax() const;
    void SetModificationTimeMin(const QDateTime &time);
    void SetModificationTimeMax(const QDateTime &time);
    bool IsModificationTimeInRange(const QDateTime &time) const;

    void AddFileType(FileType type);
    void ClearFileTypeList();
    int GetFileTypeListSize() const;
    // No bounds check: stay below GetFileTypeListSize().
    FileType GetFileTypeAt(int index) const;
    // False for an empty list, which callers treat as "any type".
    bool IsFileTypeListed(FileType type) const;

    LocationState GetLocationState() const;
    void SetLocationState(LocationState state);
    LockState GetLockState() const;
    void SetLockState(LockState state);

    QString GetCommentSearchText() const;
    void SetCommentSearchText(const QString &text);
    QString GetCreatorSearchText() const;
    void SetCreatorSearchText(const QString &text);
    QString GetDetailSearchText() const;
    void SetDetailSearchText(const QString &text);
    QString GetFileGroupSearchText() const;
    void SetFileGroupSearchText(const QString &text);
    QString GetLockUser() const;
    void SetLockUser(const QString &user);
    QString GetReferencingApplication() const;
    void SetReferencingApplication(const QString &application);
    QString GetTeamMembershipSearchText() const;
    void SetTeamMembershipSearchText(const QString &text);
    QString GetVersionSearchText() const;
    void SetVersionSearchText(const QString &text);

    void Reset();

    // Accepts "yyyy-MM-dd hh:mm:ss.zzz", the same with a "T", and both
    // without milliseconds; local time. Invalid when none fits.
    static QDateTime getValidDateTimeFromString(const QString &text);

private:
    QSharedDataPointer<FileQueryPrivate> d;
};

} // namespace Kelda
