#pragma once

#include "filetype.h"
#include "keldacommonglobal.h"
#include "keldaerror.h"

#include <QDateTime>
#include <QMetaType>
#include <QSharedDataPointer>
#include <QString>
#include <QStringList>

#include <utility>
#include <vector>

QT_BEGIN_NAMESPACE
class QXmlStreamReader;
class QXmlStreamWriter;
QT_END_NAMESPACE

/*!
    \file filegroupdata.h
    \brief The metadata record of one archived file group.
*/

namespace Kelda {

class FileGroupDataPrivate;

/*!
    \class Kelda::FileGroupData
    \brief The metadata of one archived file group and the list of its files.

    A record holds a group's identity (its GUID), name, FileType and
    LocationState, four time stamps (backup, creation, modification, end of
    life cycle), descriptive texts (comment, creator, detail, team
    membership, version), the reserved storage, the reference and lock
    counters, and the (name, id) pairs of its files.

    It has three forms:
    \li the XML element "m:FileGroup", in which a group travels in server
        replies and in description files (ToHtml(), FromHtml()); its times
        are written "yyyy-MM-dd hh:mm:ss" exactly as held, without zone
        conversion;
    \li a row of 16 texts for tables (GetHeaders(), ToStringList(),
        fromStringList()); its times are converted to local time, and the
        GUID is the last column;
    \li a ".fgdesc" description file beside exported data
        (toXmlFileForExport(), fromXmlforImport()).

    The path and the lock count live only in memory and in the text row;
    neither XML form carries them.

    A value type, implicitly shared; distinct records may be used from
    different threads. Nothing throws: FromHtml() reports through its result,
    the text form skips bad values with a trace.

    \note ToHtml() and FromHtml() write and read XML; they keep their names
    for compatibility, as does fromXmlforImport().
*/
class KELDACOMMON_EXPORT FileGroupData
{
public:
    //! One file of the group: its name and its id within the group.
    using FileEntry = std::pair<QString, int>;
    //! The files of a group, in the order the server listed them.
    using FileList = std::vector<FileEntry>;

    //! Constructs an empty record: empty texts, invalid times, numbers 0.
    FileGroupData();
    //! Constructs a copy of \a other; the data is shared until one changes.
    FileGroupData(const FileGroupData &other);
    //! Move-constructs from \a other, which may then only be assigned to or destroyed.
    FileGroupData(FileGroupData &&other) noexcept;
    //! Assigns \a other to this record.
    FileGroupData &operator=(const FileGroupData &other);
    //! Move-assigns \a other to this record.
    FileGroupData &operator=(FileGroupData &&other) noexcept;
    //! Destroys the record.
    ~FileGroupData();
    //! Swaps this record with \a other. Never fails.
    void swap(FileGroupData &other) noexcept { d.swap(other.d); }

    //! Returns true when every field and the file list equal those of \a other.
    bool operator==(const FileGroupData &other) const;
    //! Returns true when any field or the file list differs from \a other.
    bool operator!=(const FileGroupData &other) const { return !(*this == other); }

    //! Returns the group's GUID, its identity on the server.
    QString getGuid() const;
    //! Sets the GUID to \a guid.
    void setGuid(const QString &guid);
    //! Returns the display name of the group.
    QString getFileGroupName() const;
    //! Sets the display name to \a name.
    void setFileGroupName(const QString &name);
    //! Returns the kind of data the group holds.
    FileType getFileType() const;
    //! Sets the file type to \a type.
    void setFileType(FileType type);
    //! Returns where the group's data resides.
    LocationState getLocationState() const;
    //! Sets the location state to \a state.
    void setLocationState(LocationState state);
    //! Returns the time of the last backup copy; invalid when unknown.
    QDateTime getBackupTime() const;
    //! Sets the backup time to \a time.
    void setBackupTime(const QDateTime &time);
    //! Returns the creation time; invalid when unknown.
    QDateTime getCreationTime() const;
    //! Sets the creation time to \a time.
    void setCreationTime(const QDateTime &time);
    //! Returns the time of the last change; invalid when unknown.
    QDateTime getModificationTime() const;
    //! Sets the modification time to \a time.
    void setModificationTime(const QDateTime &time);
    //! Returns the end of the group's life cycle, until which it is kept.
    QDateTime getLifeCycle() const;
    //! Sets the end of the life cycle to \a time.
    void setLifeCycle(const QDateTime &time);
    //! Returns the free comment text.
    QString getComment() const;
    //! Sets the comment to \a comment.
    void setComment(const QString &comment);
    //! Returns the user who created the group.
    QString getCreator() const;
    //! Sets the creator to \a creator.
    void setCreator(const QString &creator);
    //! Returns the free detail text.
    QString getDetail() const;
    //! Sets the detail to \a detail.
    void setDetail(const QString &detail);
    //! Returns the group's storage path; held in memory only.
    QString getPath() const;
    //! Sets the storage path to \a path.
    void setPath(const QString &path);
    //! Returns the team the group belongs to.
    QString getTeamMembership() const;
    //! Sets the team to \a team.
    void setTeamMembership(const QString &team);
    //! Returns the version text.
    QString getVersion() const;
    //! Sets the version to \a version.
    void setVersion(const QString &version);
    //! Returns the storage reserved for the group; a negative value is not written to XML.
    qint32 getReservedStorage() const;
    //! Sets the reserved storage to \a storage.
    void setReservedStorage(qint32 storage);
    //! Returns the number of references to the group.
    qint32 getReferenceCounter() const;
    //! Sets the reference counter to \a counter.
    void setReferenceCounter(qint32 counter);
    //! Returns the number of current locks; shown in the text row only.
    qint32 getLockCount() const;
    //! Sets the lock count to \a count.
    void setLockCount(qint32 count);

    //! Appends the file \a name with the id \a id to the file list.
    void addFile(const QString &name, int id);
    //! Replaces the file list with \a files.
    void setFileList(const FileList &files);
    //! Returns the file list.
    const FileList &getFileList() const;

    /*!
        Writes the record's XML form to \a writer. With \a withElement the
        fields are wrapped in "m:FileGroup"; with \a withNamespace the prefix
        "m" is declared on the current element. Empty texts, invalid times,
        a location state of 0 and negative counters are left out; "m:Guid",
        "m:FileGroupName", "m:FileType" and "m:Files" are always written.
    */
    void ToHtml(QXmlStreamWriter &writer, bool withElement, bool withNamespace) const;
    /*!
        Reads the XML form from the current position of \a reader to the end
        of its input. Only elements in the message namespace are read;
        everything else is passed over.

        Returns KE_NoError; KE_ReadXmlFileFailed when the reader reports an
        error, or for a file type above 22 or a location state above 13 (the
        field then keeps its value and reading goes on); or the code of an
        "m:Error" child, with which a server marks a group as failed.

        The file list is appended to, never cleared: read into a fresh
        record.
    */
    KeldaError FromHtml(QXmlStreamReader &reader);
    //! Writes the start tag "m:FileGroup" to \a writer.
    void WriteStartElement(QXmlStreamWriter &writer) const;
    //! Closes the element that \a writer has open.
    void WriteEndElement(QXmlStreamWriter &writer) const;

    /*!
        Appends the 16 translated column headers of the text row to \a headers,
        from "File group name" to "Guid".
    */
    static void GetHeaders(QStringList &headers);
    /*!
        Appends the record's 16 column values to \a list, in the order of
        GetHeaders(): the file type and location state as their display
        texts, the times in local time ("yyyy-MM-dd hh:mm:ss", empty when
        invalid), the GUID last.
    */
    void ToStringList(QStringList &list) const;
    //! Returns 16 lines "<header>: <value>" for traces.
    QStringList ToDebugStringList() const;
    /*!
        Reads records laid end to end in \a list, 16 values each, the inverse
        of ToStringList(). File types and location states are accepted as
        texts or decimal numbers; an unknown one is traced and left at 0. An
        incomplete last row is dropped; an empty list gives no records.
    */
    static std::vector<FileGroupData> fromStringList(const QStringList &list);

    /*!
        Reads the description file \a fileName into this record and returns
        true when it was read without error. Returns false for a missing,
        unreadable or malformed file; the record then holds what was read
        before the fault. Files are appended: import into a fresh record.
    */
    bool fromXmlforImport(const QString &fileName);
    /*!
        Writes the description file "<name>_<guid>.fgdesc" into \a dir, with a
        suffix "_1", "_2", ... before the extension when that name is taken:
        nothing is ever overwritten. Returns the file name chosen (without the
        directory) whether or not it could be written; a failure is only
        traced, so a caller that must know checks that the file exists.
    */
    QString toXmlFileForExport(const QString &dir) const;

private:
    QSharedDataPointer<FileGroupDataPrivate> d;
};

} // namespace Kelda

Q_DECLARE_SHARED(Kelda::FileGroupData)
Q_DECLARE_METATYPE(Kelda::FileGroupData)
