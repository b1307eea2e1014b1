#pragma once

#include "filetype.h"
#include "keldacommonglobal.h"

#include <QDateTime>
#include <QSharedDataPointer>
#include <QString>

/*!
    \file filequery.h
    \brief Search criteria for file groups.
*/

namespace Kelda {

class TimeRangePrivate;

/*!
    \class Kelda::TimeRange
    \brief A pair of optional, inclusive date-time bounds.

    A null bound (QDateTime::isNull()) is open. A value type, implicitly
    shared.
*/
class KELDACOMMON_EXPORT TimeRange
{
public:
    //! Constructs a range open on both sides.
    TimeRange();
    //! Constructs a copy of \a other.
    TimeRange(const TimeRange &other);
    //! Move-constructs from \a other.
    TimeRange(TimeRange &&other) noexcept;
    //! Assigns \a other to this range.
    TimeRange &operator=(const TimeRange &other);
    //! Move-assigns \a other to this range.
    TimeRange &operator=(TimeRange &&other) noexcept;
    //! Destroys the range.
    virtual ~TimeRange();
    //! Swaps this range with \a other. Never fails.
    void swap(TimeRange &other) noexcept { d.swap(other.d); }

    //! Returns the lower bound; null when open.
    QDateTime GetMin() const;
    //! Returns the upper bound; null when open.
    QDateTime GetMax() const;
    //! Sets the lower bound to \a min; a null value opens it.
    void SetMin(const QDateTime &min);
    //! Sets the upper bound to \a max; a null value opens it.
    void SetMax(const QDateTime &max);

    /*!
        Returns true when \a time lies within the bounds, both inclusive. A
        range open on both sides accepts anything, even a null time;
        otherwise a null time is out of range. Swapped bounds accept nothing.
    */
    bool IsInRange(const QDateTime &time) const;

private:
    QSharedDataPointer<TimeRangePrivate> d;
};

class FileQueryPrivate;

/*!
    \class Kelda::FileQuery
    \brief The criteria with which a client searches the archive for file
    groups.

    Four time ranges (backup, creation, life cycle, modification), a list of
    file types, a location state, a lock state and eight search texts. Zero
    states, empty lists and empty texts mean "any". KeldaClient::QueryFiles()
    sends the query to the server, which interprets the search texts; the
    Is...InRange() and IsFileTypeListed() tests let a caller check a
    FileGroupData against the criteria locally. QueryDialog edits a query.

    A value type, implicitly shared.
*/
class KELDACOMMON_EXPORT FileQuery
{
public:
    //! Constructs a query that matches every group; see Reset().
    FileQuery();
    //! Constructs a copy of \a other.
    FileQuery(const FileQuery &other);
    //! Move-constructs from \a other.
    FileQuery(FileQuery &&other) noexcept;
    //! Assigns \a other to this query.
    FileQuery &operator=(const FileQuery &other);
    //! Move-assigns \a other to this query.
    FileQuery &operator=(FileQuery &&other) noexcept;
    //! Destroys the query.
    virtual ~FileQuery();
    //! Swaps this query with \a other. Never fails.
    void swap(FileQuery &other) noexcept { d.swap(other.d); }

    //! Returns the lower bound of the backup time; null when open.
    QDateTime GetBackupTimeMin() const;
    //! Returns the upper bound of the backup time; null when open.
    QDateTime GetBackupTimeMax() const;
    //! Sets the lower bound of the backup time to \a time.
    void SetBackupTimeMin(const QDateTime &time);
    //! Sets the upper bound of the backup time to \a time.
    void SetBackupTimeMax(const QDateTime &time);
    //! Returns TimeRange::IsInRange() of the backup time range for \a time.
    bool IsBackupTimeInRange(const QDateTime &time) const;

    //! Returns the lower bound of the creation time; null when open.
    QDateTime GetCreationTimeMin() const;
    //! Returns the upper bound of the creation time; null when open.
    QDateTime GetCreationTimeMax() const;
    //! Sets the lower bound of the creation time to \a time.
    void SetCreationTimeMin(const QDateTime &time);
    //! Sets the upper bound of the creation time to \a time.
    void SetCreationTimeMax(const QDateTime &time);
    //! Returns TimeRange::IsInRange() of the creation time range for \a time.
    bool IsCreationTimeInRange(const QDateTime &time) const;

    //! Returns the lower bound of the life cycle end; null when open.
    QDateTime GetLifeCycleTimeMin() const;
    //! Returns the upper bound of the life cycle end; null when open.
    QDateTime GetLifeCycleTimeMax() const;
    //! Sets the lower bound of the life cycle end to \a time.
    void SetLifeCycleTimeMin(const QDateTime &time);
    //! Sets the upper bound of the life cycle end to \a time.
    void SetLifeCycleTimeMax(const QDateTime &time);
    //! Returns TimeRange::IsInRange() of the life cycle range for \a time.
    bool IsLifeCycleInRange(const QDateTime &time) const;

    //! Returns the lower bound of the modification time; null when open.
    QDateTime GetModificationTimeMin() const;
    //! Returns the upper bound of the modification time; null when open.
    QDateTime GetModificationTimeMax() const;
    //! Sets the lower bound of the modification time to \a time.
    void SetModificationTimeMin(const QDateTime &time);
    //! Sets the upper bound of the modification time to \a time.
    void SetModificationTimeMax(const QDateTime &time);
    //! Returns TimeRange::IsInRange() of the modification time range for \a time.
    bool IsModificationTimeInRange(const QDateTime &time) const;

    //! Appends \a type to the accepted types; duplicates are kept.
    void AddFileType(FileType type);
    //! Empties the list of accepted types, so that any type matches.
    void ClearFileTypeList();
    //! Returns the number of listed types.
    int GetFileTypeListSize() const;
    //! Returns the listed type at \a index; not bounds-checked: stay below GetFileTypeListSize().
    FileType GetFileTypeAt(int index) const;
    /*!
        Returns true when \a type is listed. False for an empty list, which
        means "any type": test GetFileTypeListSize() first.
    */
    bool IsFileTypeListed(FileType type) const;

    //! Returns the wanted location state; LS_Undefined means any.
    LocationState GetLocationState() const;
    //! Sets the wanted location state to \a state.
    void SetLocationState(LocationState state);
    //! Returns the wanted lock state; LOCK_Undefined means any.
    LockState GetLockState() const;
    //! Sets the wanted lock state to \a state.
    void SetLockState(LockState state);

    //! Returns the text searched in the comment.
    QString GetCommentSearchText() const;
    //! Sets the text searched in the comment to \a text.
    void SetCommentSearchText(const QString &text);
    //! Returns the text searched in the creator.
    QString GetCreatorSearchText() const;
    //! Sets the text searched in the creator to \a text.
    void SetCreatorSearchText(const QString &text);
    //! Returns the text searched in the detail.
    QString GetDetailSearchText() const;
    //! Sets the text searched in the detail to \a text.
    void SetDetailSearchText(const QString &text);
    //! Returns the text searched in the file group name.
    QString GetFileGroupSearchText() const;
    //! Sets the text searched in the file group name to \a text.
    void SetFileGroupSearchText(const QString &text);
    //! Returns the user who must hold a lock on the group.
    QString GetLockUser() const;
    //! Sets the user who must hold a lock to \a user.
    void SetLockUser(const QString &user);
    //! Returns the application that must hold a reference to the group.
    QString GetReferencingApplication() const;
    //! Sets the application that must hold a reference to \a application.
    void SetReferencingApplication(const QString &application);
    //! Returns the text searched in the team membership.
    QString GetTeamMembershipSearchText() const;
    //! Sets the text searched in the team membership to \a text.
    void SetTeamMembershipSearchText(const QString &text);
    //! Returns the text searched in the version.
    QString GetVersionSearchText() const;
    //! Sets the text searched in the version to \a text.
    void SetVersionSearchText(const QString &text);

    /*!
        Opens all four time ranges, empties the type list, sets both states
        to 0 and every text to an empty (not null) string.
    */
    void Reset();

    /*!
        Parses \a text as "yyyy-MM-dd hh:mm:ss.zzz", "yyyy-MM-ddThh:mm:ss.zzz",
        "yyyy-MM-dd hh:mm:ss" or "yyyy-MM-ddThh:mm:ss", in this order, as
        local time. Returns an invalid QDateTime when none fits (a trailing
        zone designator never fits).
    */
    static QDateTime getValidDateTimeFromString(const QString &text);

private:
    QSharedDataPointer<FileQueryPrivate> d;
};

} // namespace Kelda

Q_DECLARE_SHARED(Kelda::TimeRange)
Q_DECLARE_SHARED(Kelda::FileQuery)
