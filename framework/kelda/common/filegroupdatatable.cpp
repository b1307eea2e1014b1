#include "filegroupdata.h"
#include "filegroupdata_p.h"

#include "filegroupcolumns.h"

#include <trace.h>

#include <QObject>

#include <iterator>

// The record as a row of 16 texts, for tables: headers, row, and rows back
// into records.
namespace Kelda {

namespace {

const char *const kSource = FileGroupDataPrivate::TraceSource;

const char *const kHeaders[] = {
    QT_TRANSLATE_NOOP("QObject", "File group name"),
    QT_TRANSLATE_NOOP("QObject", "File type"),
    QT_TRANSLATE_NOOP("QObject", "Location state"),
    QT_TRANSLATE_NOOP("QObject", "Backup time"),
    QT_TRANSLATE_NOOP("QObject", "Creation time"),
    QT_TRANSLATE_NOOP("QObject", "Modification time"),
    QT_TRANSLATE_NOOP("QObject", "Life cycle"),
    QT_TRANSLATE_NOOP("QObject", "Comment"),
    QT_TRANSLATE_NOOP("QObject", "Creator"),
    QT_TRANSLATE_NOOP("QObject", "Detail"),
    QT_TRANSLATE_NOOP("QObject", "Team"),
    QT_TRANSLATE_NOOP("QObject", "Version"),
    QT_TRANSLATE_NOOP("QObject", "Reserved storage"),
    QT_TRANSLATE_NOOP("QObject", "Reference count"),
    QT_TRANSLATE_NOOP("QObject", "Lock count"),
    QT_TRANSLATE_NOOP("QObject", "Guid"),
};

static_assert(std::size(kHeaders) == FileGroupColumn::Count, "one header per column");

// Matches the display texts of the values below `count` first, then a
// decimal number up to `numericLimit`; false leaves `value` as it was.
template <typename Enum, typename TextOf>
bool enumFromColumn(const QString &text, int count, int numericLimit, TextOf textOf, Enum &value)
{
    for (int i = 0; i < count; ++i) {
        if (textOf(Enum(i)) == text) {
            value = Enum(i);
            return true;
        }
    }
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number > numericLimit)
        return false;
    value = Enum(number);
    return true;
}

} // namespace

void FileGroupData::GetHeaders(QStringList &headers)
{
    headers.reserve(headers.size() + FileGroupColumn::Count);
    for (const char *header : kHeaders)
        headers.append(QObject::tr(header));
}

// No reserve() here: QList grows in doubling steps by itself, while reserving
// exactly one row more would copy the whole table for every row.
void FileGroupData::ToStringList(QStringList &list) const
{
    QString row[FileGroupColumn::Count];
    row[FileGroupColumn::Name] = d->fileGroupName;
    row[FileGroupColumn::FileType] = FileTypeManager::GetText(d->fileType);
    row[FileGroupColumn::LocationState] = LocationStateString::GetText(d->locationState);
    row[FileGroupColumn::BackupTime] = FileGroupDataPrivate::formatTime(d->backupTime.toLocalTime());
    row[FileGroupColumn::CreationTime] = FileGroupDataPrivate::formatTime(d->creationTime.toLocalTime());
    row[FileGroupColumn::ModificationTime] = FileGroupDataPrivate::formatTime(d->modificationTime.toLocalTime());
    row[FileGroupColumn::LifeCycle] = FileGroupDataPrivate::formatTime(d->lifeCycle.toLocalTime());
    row[FileGroupColumn::Comment] = d->comment;
    row[FileGroupColumn::Creator] = d->creator;
    row[FileGroupColumn::Detail] = d->detail;
    row[FileGroupColumn::Team] = d->teamMembership;
    row[FileGroupColumn::Version] = d->version;
    row[FileGroupColumn::ReservedStorage] = QString::number(d->reservedStorage);
    row[FileGroupColumn::ReferenceCounter] = QString::number(d->referenceCounter);
    row[FileGroupColumn::LockCount] = QString::number(d->lockCount);
    row[FileGroupColumn::Guid] = d->guid;
    for (QString &value : row)
        list.append(std::move(value));
}

QStringList FileGroupData::ToDebugStringList() const
{
    QStringList headers;
    GetHeaders(headers);
    QStringList values;
    ToStringList(values);
    QStringList lines;
    lines.reserve(FileGroupColumn::Count);
    for (int i = 0; i < FileGroupColumn::Count; ++i)
        lines.append(QStringLiteral("%1: %2").arg(headers.at(i), values.at(i)));
    return lines;
}

std::vector<FileGroupData> FileGroupData::fromStringList(const QStringList &list)
{
    std::vector<FileGroupData> records;
    const int completeValues = list.size() - list.size() % FileGroupColumn::Count;
    records.reserve(completeValues / FileGroupColumn::Count);
    FileGroupData record;
    for (int i = 0; i < completeValues; ++i) {
        const QString &text = list.at(i);
        switch (i % FileGroupColumn::Count) {
        case FileGroupColumn::Name:
            record = FileGroupData();
            record.d->fileGroupName = text;
            break;
        case FileGroupColumn::FileType:
            if (!enumFromColumn(text, FT_Last + 1, FT_Last, &FileTypeManager::GetText, record.d->fileType))
                Q_TRACE_FAILURE(kSource,
                                QStringLiteral("FileGroupData::fromStringList: "
                                               "Unkown file type \"%1\" read")
                                    .arg(text));
            break;
        case FileGroupColumn::LocationState:
            // The numeric bound is the file types' one; existing tables rely on it.
            if (!enumFromColumn(text, LS_Last + 1, FT_Last, &LocationStateString::GetText, record.d->locationState))
                Q_TRACE_FAILURE(kSource,
                                QStringLiteral("FileGroupData::fromStringList: "
                                               "Unkown location state \"%1\" read")
                                    .arg(text));
            break;
        case FileGroupColumn::BackupTime:
            record.d->backupTime = FileGroupDataPrivate::parseTime(text);
            break;
        case FileGroupColumn::CreationTime:
            record.d->creationTime = FileGroupDataPrivate::parseTime(text);
            break;
        case FileGroupColumn::ModificationTime:
            record.d->modificationTime = FileGroupDataPrivate::parseTime(text);
            break;
        case FileGroupColumn::LifeCycle:
            record.d->lifeCycle = FileGroupDataPrivate::parseTime(text);
            break;
        case FileGroupColumn::Comment:
            record.d->comment = text;
            break;
        case FileGroupColumn::Creator:
            record.d->creator = text;
            break;
        case FileGroupColumn::Detail:
            record.d->detail = text;
            break;
        case FileGroupColumn::Team:
            record.d->teamMembership = text;
            break;
        case FileGroupColumn::Version:
            record.d->version = text;
            break;
        case FileGroupColumn::ReservedStorage:
            record.d->reservedStorage = text.toInt();
            break;
        case FileGroupColumn::ReferenceCounter:
            record.d->referenceCounter = text.toInt();
            break;
        case FileGroupColumn::LockCount:
            record.d->lockCount = text.toInt();
            break;
        case FileGroupColumn::Guid:
            record.d->guid = text;
            records.push_back(record);
            break;
        }
    }
    return records;
}

} // namespace Kelda
