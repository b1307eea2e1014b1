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

class QXmlStreamReader;
class QXmlStreamWriter;

namespace Kelda {

class FileGroupDataPrivate;

// The metadata of one archived file group and its (name, id) file list.
//
// Three forms: the "m:FileGroup" XML element of replies and description
// files (times as held, no zone conversion), a 16-column text row for tables
// (times in local time, the Guid last), and a ".fgdesc" description file.
// Path and LockCount live only in memory and the text row.
class KELDACOMMON_EXPORT FileGroupData
{
public:
    using FileEntry = std::pair<QString, int>;
    using FileList = std::vector<FileEntry>;

    FileGroupData();
    FileGroupData(const FileGroupData &other);
    FileGroupData(FileGroupData &&other) noexcept;
    FileGroupData &operator=(const FileGroupData &other);
    FileGroupData &operator=(FileGroupData &&other) noexcept;
    ~FileGroupData();

    bool operator==(const FileGroupData &other) const;
    bool operator!=(const FileGroupData &other) const { return !(*this == other); }

    QString getGuid() const;
    void setGuid(const QString &guid);
    QString getFileGroupName() const;
    void setFileGroupName(const QString &name);
    FileType getFileType() const;
    void setFileType(FileType type);
    LocationState getLocationState() const;
    void setLocationState(LocationState state);
    QDateTime getBackupTime() const;
    void setBackupTime(const QDateTime &time);
    QDateTime getCreationTime() const;
    void setCreationTime(const QDateTime &time);
    QDateTime getModificationTime() const;
    void setModificationTime(const QDateTime &time);
    QDateTime getLifeCycle() const;
    void setLifeCycle(const QDateTime &time);
    QString getComment() const;
    void setComment(const QString &comment);
    QString getCreator() const;
    void setCreator(const QString &creator);
    QString getDetail() const;
    void setDetail(const QString &detail);
    QString getPath() const;
    void setPath(const QString &path);
    QString getTeamMembership() const;
    void setTeamMembership(const QString &team);
    QString getVersion() const;
    void setVersion(const QString &version);
    qint32 getReservedStorage() const;
    void setReservedStorage(qint32 storage);
    qint32 getReferenceCounter() const;
    void setReferenceCounter(qint32 counter);
    qint32 getLockCount() const;
    void setLockCount(qint32 count);

    void addFile(const QString &name, int id);
    void setFileList(const FileList &files);
    const FileList &getFileList() const;

    // withElement wraps the fields in "m:FileGroup"; withNamespace declares
    // the "m" prefix on the current element.
    void ToHtml(QXmlStreamWriter &writer, bool withElement, bool withNamespace) const;
    // Reads to the end of the reader's input. Returns KE_NoError,
    // KE_ReadXmlFileFailed, or the code of an "Error" child. The file list is
    // appended to: read into a fresh record.
    KeldaError FromHtml(QXmlStreamReader &reader);
    void WriteStartElement(QXmlStreamWriter &writer) const;
    void WriteEndElement(QXmlStreamWriter &writer) const;

    static void GetHeaders(QStringList &headers);
    void ToStringList(QStringList &list) const;
    QStringList ToDebugStringList() const;
    // Rows of 16 laid end to end; an incomplete last row is dropped.
    static std::vector<FileGroupData> fromStringList(const QStringList &list);

    // Reads a description file; true when it was read without error.
    bool fromXmlforImport(const QString &fileName);
    // Writes <dir>/<name>_<guid>[_n].fgdesc without overwriting anything and
    // returns the file name chosen, whether or not it could be written.
    QString toXmlFileForExport(const QString &dir) const;

private:
    void readElement(QXmlStreamReader &reader, KeldaError &result);
    void readFiles(QXmlStreamReader &reader);

    QSharedDataPointer<FileGroupDataPrivate> d;
};

} // namespace Kelda

Q_DECLARE_METATYPE(Kelda::FileGroupData)
