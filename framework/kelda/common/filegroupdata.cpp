#include "filegroupdata.h"

#include "keldaxml.h"

#include <trace.h>

#include <QDir>
#include <QFile>
#include <QObject>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <iterator>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/common/filegroupdata";

// Both the XML element and the table row use this form; only the row
// converts to local time first.
const QLatin1String kTimeFormat("yyyy-MM-dd hh:mm:ss");
const QLatin1String kDescriptionFileSuffix(".fgdesc");

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

enum Column {
    ColName,
    ColFileType,
    ColLocationState,
    ColBackupTime,
    ColCreationTime,
    ColModificationTime,
    ColLifeCycle,
    ColComment,
    ColCreator,
    ColDetail,
    ColTeam,
    ColVersion,
    ColReservedStorage,
    ColReferenceCounter,
    ColLockCount,
    ColGuid,
    ColumnCount
};
static_assert(std::size(kHeaders) == ColumnCount, "one header per column");

// The table row of a 100,000-group query result formats four times per
// group: QDateTime::toString parses its format every time, so the common
// four-digit years are written digit by digit.
QString formatTime(const QDateTime &time)
{
    if (!time.isValid())
        return QString();
    int year = 0;
    int month = 0;
    int day = 0;
    time.date().getDate(&year, &month, &day);
    if (year < 0 || year > 9999)
        return time.toString(kTimeFormat);
    const QTime clock = time.time();
    QChar buffer[] = {QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('0'),
                      QLatin1Char('-'), QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('-'),
                      QLatin1Char('0'), QLatin1Char('0'), QLatin1Char(' '), QLatin1Char('0'),
                      QLatin1Char('0'), QLatin1Char(':'), QLatin1Char('0'), QLatin1Char('0'),
                      QLatin1Char(':'), QLatin1Char('0'), QLatin1Char('0')};
    auto put = [&buffer](int position, int value, int digits) {
        for (int i = position + digits - 1; i >= position; --i) {
            buffer[i] = QLatin1Char(char('0' + value % 10));
            value /= 10;
        }
    };
    put(0, year, 4);
    put(5, month, 2);
    put(8, day, 2);
    put(11, clock.hour(), 2);
    put(14, clock.minute(), 2);
    put(17, clock.second(), 2);
    return QString(buffer, int(std::size(buffer)));
}

QDateTime parseTime(const QString &text)
{
    return QDateTime::fromString(text, kTimeFormat);
}

void writeTextElement(QXmlStreamWriter &writer, QLatin1String name, const QString &text)
{
    writer.writeTextElement(Tag::m(name), text);
}

void writeOptionalText(QXmlStreamWriter &writer, QLatin1String name, const QString &text)
{
    if (!text.isEmpty())
        writeTextElement(writer, name, text);
}

void writeOptionalTime(QXmlStreamWriter &writer, QLatin1String name, const QDateTime &time)
{
    if (time.isValid())
        writeTextElement(writer, name, formatTime(time));
}

void writeOptionalCount(QXmlStreamWriter &writer, QLatin1String name, qint32 value)
{
    if (value >= 0)
        writeTextElement(writer, name, QString::number(value));
}

bool isMessageStart(const QXmlStreamReader &reader)
{
    return reader.isStartElement() && reader.namespaceUri() == Ns::Message;
}

} // namespace

class FileGroupDataPrivate : public QSharedData
{
public:
    bool operator==(const FileGroupDataPrivate &other) const;

    void readElement(QXmlStreamReader &reader, KeldaError &result);
    void readFiles(QXmlStreamReader &reader);

    QString guid;
    QString fileGroupName;
    FileType fileType = FT_Unknown;
    LocationState locationState = LS_Undefined;
    QDateTime backupTime;
    QDateTime creationTime;
    QDateTime modificationTime;
    QDateTime lifeCycle;
    QString comment;
    QString creator;
    QString detail;
    QString path;
    QString teamMembership;
    QString version;
    qint32 reservedStorage = 0;
    qint32 referenceCounter = 0;
    qint32 lockCount = 0;
    FileGroupData::FileList files;
};

bool FileGroupDataPrivate::operator==(const FileGroupDataPrivate &o) const
{
    return guid == o.guid && fileGroupName == o.fileGroupName && fileType == o.fileType
           && locationState == o.locationState && backupTime == o.backupTime
           && creationTime == o.creationTime && modificationTime == o.modificationTime
           && lifeCycle == o.lifeCycle && comment == o.comment && creator == o.creator
           && detail == o.detail && path == o.path && teamMembership == o.teamMembership
           && version == o.version && reservedStorage == o.reservedStorage
           && referenceCounter == o.referenceCounter && lockCount == o.lockCount
           && files == o.files;
}

FileGroupData::FileGroupData()
    : d(new FileGroupDataPrivate)
{
}

FileGroupData::FileGroupData(const FileGroupData &other) = default;
FileGroupData::FileGroupData(FileGroupData &&other) noexcept = default;
FileGroupData &FileGroupData::operator=(const FileGroupData &other) = default;
FileGroupData &FileGroupData::operator=(FileGroupData &&other) noexcept = default;
FileGroupData::~FileGroupData() = default;

bool FileGroupData::operator==(const FileGroupData &other) const
{
    return d == other.d || *d == *other.d;
}

QString FileGroupData::getGuid() const { return d->guid; }
void FileGroupData::setGuid(const QString &guid) { d->guid = guid; }
QString FileGroupData::getFileGroupName() const { return d->fileGroupName; }
void FileGroupData::setFileGroupName(const QString &name) { d->fileGroupName = name; }
FileType FileGroupData::getFileType() const { return d->fileType; }
void FileGroupData::setFileType(FileType type) { d->fileType = type; }
LocationState FileGroupData::getLocationState() const { return d->locationState; }
void FileGroupData::setLocationState(LocationState state) { d->locationState = state; }
QDateTime FileGroupData::getBackupTime() const { return d->backupTime; }
void FileGroupData::setBackupTime(const QDateTime &time) { d->backupTime = time; }
QDateTime FileGroupData::getCreationTime() const { return d->creationTime; }
void FileGroupData::setCreationTime(const QDateTime &time) { d->creationTime = time; }
QDateTime FileGroupData::getModificationTime() const { return d->modificationTime; }
void FileGroupData::setModificationTime(const QDateTime &time) { d->modificationTime = time; }
QDateTime FileGroupData::getLifeCycle() const { return d->lifeCycle; }
void FileGroupData::setLifeCycle(const QDateTime &time) { d->lifeCycle = time; }
QString FileGroupData::getComment() const { return d->comment; }
void FileGroupData::setComment(const QString &comment) { d->comment = comment; }
QString FileGroupData::getCreator() const { return d->creator; }
void FileGroupData::setCreator(const QString &creator) { d->creator = creator; }
QString FileGroupData::getDetail() const { return d->detail; }
void FileGroupData::setDetail(const QString &detail) { d->detail = detail; }
QString FileGroupData::getPath() const { return d->path; }
void FileGroupData::setPath(const QString &path) { d->path = path; }
QString FileGroupData::getTeamMembership() const { return d->teamMembership; }
void FileGroupData::setTeamMembership(const QString &team) { d->teamMembership = team; }
QString FileGroupData::getVersion() const { return d->version; }
void FileGroupData::setVersion(const QString &version) { d->version = version; }
qint32 FileGroupData::getReservedStorage() const { return d->reservedStorage; }
void FileGroupData::setReservedStorage(qint32 storage) { d->reservedStorage = storage; }
qint32 FileGroupData::getReferenceCounter() const { return d->referenceCounter; }
void FileGroupData::setReferenceCounter(qint32 counter) { d->referenceCounter = counter; }
qint32 FileGroupData::getLockCount() const { return d->lockCount; }
void FileGroupData::setLockCount(qint32 count) { d->lockCount = count; }

void FileGroupData::addFile(const QString &name, int id)
{
    d->files.emplace_back(name, id);
}

void FileGroupData::setFileList(const FileList &files)
{
    d->files = files;
}

const FileGroupData::FileList &FileGroupData::getFileList() const
{
    return d->files;
}

void FileGroupData::WriteStartElement(QXmlStreamWriter &writer) const
{
    writer.writeStartElement(Tag::m(Tag::FileGroup));
}

void FileGroupData::WriteEndElement(QXmlStreamWriter &writer) const
{
    writer.writeEndElement();
}

// Path and LockCount stay local: the server keeps its own.
void FileGroupData::ToHtml(QXmlStreamWriter &writer, bool withElement, bool withNamespace) const
{
    if (withElement)
        WriteStartElement(writer);
    if (withNamespace)
        writer.writeNamespace(Ns::Message, Ns::PrefixM);
    writeTextElement(writer, Tag::Guid, d->guid);
    writeTextElement(writer, Tag::FileGroupName, d->fileGroupName);
    writeTextElement(writer, Tag::FileType, QString::number(d->fileType));
    if (d->locationState > LS_Undefined)
        writeTextElement(writer, Tag::LocationState, QString::number(d->locationState));
    writeOptionalTime(writer, Tag::BackupTime, d->backupTime);
    writeOptionalTime(writer, Tag::CreationTime, d->creationTime);
    writeOptionalTime(writer, Tag::ModificationTime, d->modificationTime);
    writeOptionalTime(writer, Tag::LifeCycle, d->lifeCycle);
    writeOptionalText(writer, Tag::Comment, d->comment);
    writeOptionalText(writer, Tag::Creator, d->creator);
    writeOptionalText(writer, Tag::Detail, d->detail);
    writeOptionalText(writer, Tag::TeamMembership, d->teamMembership);
    writeOptionalText(writer, Tag::Version, d->version);
    writeOptionalCount(writer, Tag::ReservedStorage, d->reservedStorage);
    writeOptionalCount(writer, Tag::ReferenceCounter, d->referenceCounter);
    writer.writeStartElement(Tag::m(Tag::Files));
    for (const FileEntry &file : d->files) {
        writer.writeStartElement(Tag::m(Tag::File));
        writeTextElement(writer, Tag::FileId, QString::number(file.second));
        writeTextElement(writer, Tag::FileName, file.first);
        writer.writeEndElement();
    }
    writer.writeEndElement();
    if (withElement)
        WriteEndElement(writer);
}

KeldaError FileGroupData::FromHtml(QXmlStreamReader &reader)
{
    KeldaError result = KE_NoError;
    // The caller may have stopped on a start element already: look at the
    // current token before moving on.
    while (!reader.atEnd() && !reader.hasError()) {
        if (isMessageStart(reader))
            d->readElement(reader, result);
        reader.readNext();
    }
    if (reader.hasError()) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Could not read Xml file for import of filegroup. "
                                                "XmlStreamReader error: %1")
                                     .arg(reader.errorString()));
        result = KE_ReadXmlFileFailed;
    }
    return result;
}

void FileGroupDataPrivate::readElement(QXmlStreamReader &reader, KeldaError &result)
{
    const QStringRef name = reader.name();
    if (name == Tag::Files) {
        readFiles(reader);
    } else if (name == Tag::Guid) {
        guid = reader.readElementText();
    } else if (name == Tag::FileGroupName) {
        fileGroupName = reader.readElementText();
    } else if (name == Tag::FileType) {
        const int value = reader.readElementText().toInt();
        if (value > FT_Last) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Unkown file type \"%1\" read").arg(value));
            result = KE_ReadXmlFileFailed;
        } else {
            fileType = FileType(value);
        }
    } else if (name == Tag::LocationState) {
        const int value = reader.readElementText().toInt();
        if (value > LS_Last) {
            Q_TRACE_FAILURE(kSource, QStringLiteral("Unkown location state \"%1\" read").arg(value));
            result = KE_ReadXmlFileFailed;
        } else {
            locationState = LocationState(value);
        }
    } else if (name == Tag::BackupTime) {
        backupTime = parseTime(reader.readElementText());
    } else if (name == Tag::CreationTime) {
        creationTime = parseTime(reader.readElementText());
    } else if (name == Tag::ModificationTime) {
        modificationTime = parseTime(reader.readElementText());
    } else if (name == Tag::LifeCycle) {
        lifeCycle = parseTime(reader.readElementText());
    } else if (name == Tag::Comment) {
        comment = reader.readElementText();
    } else if (name == Tag::Creator) {
        creator = reader.readElementText();
    } else if (name == Tag::Detail) {
        detail = reader.readElementText();
    } else if (name == Tag::TeamMembership) {
        teamMembership = reader.readElementText();
    } else if (name == Tag::Version) {
        version = reader.readElementText();
    } else if (name == Tag::ReservedStorage) {
        reservedStorage = reader.readElementText().toInt();
    } else if (name == Tag::ReferenceCounter) {
        referenceCounter = reader.readElementText().toInt();
    } else if (name == Tag::Error) {
        result = KeldaError(reader.readElementText().toInt());
    }
}

// A File element lacking FileId or FileName repeats the previous file's
// value: the current name and id are deliberately not reset between files.
void FileGroupDataPrivate::readFiles(QXmlStreamReader &reader)
{
    QString name;
    int id = 0;
    int depth = 0;
    while (!reader.atEnd() && !reader.hasError()) {
        reader.readNext();
        if (reader.isStartElement()) {
            if (reader.namespaceUri() == Ns::Message && reader.name() == Tag::FileId)
                id = reader.readElementText().toInt();
            else if (reader.namespaceUri() == Ns::Message && reader.name() == Tag::FileName)
                name = reader.readElementText();
            else
                ++depth;
        } else if (reader.isEndElement()) {
            if (depth == 0)
                return;
            --depth;
            if (reader.namespaceUri() == Ns::Message && reader.name() == Tag::File)
                files.emplace_back(name, id);
        }
    }
}

void FileGroupData::GetHeaders(QStringList &headers)
{
    headers.reserve(headers.size() + ColumnCount);
    for (const char *header : kHeaders)
        headers.append(QObject::tr(header));
}

// No reserve() here: QList grows in doubling steps by itself, while reserving
// exactly one row more would copy the whole table for every row.
void FileGroupData::ToStringList(QStringList &list) const
{
    list.append(d->fileGroupName);
    list.append(FileTypeManager::GetText(d->fileType));
    list.append(LocationStateString::GetText(d->locationState));
    list.append(formatTime(d->backupTime.toLocalTime()));
    list.append(formatTime(d->creationTime.toLocalTime()));
    list.append(formatTime(d->modificationTime.toLocalTime()));
    list.append(formatTime(d->lifeCycle.toLocalTime()));
    list.append(d->comment);
    list.append(d->creator);
    list.append(d->detail);
    list.append(d->teamMembership);
    list.append(d->version);
    list.append(QString::number(d->reservedStorage));
    list.append(QString::number(d->referenceCounter));
    list.append(QString::number(d->lockCount));
    list.append(d->guid);
}

QStringList FileGroupData::ToDebugStringList() const
{
    QStringList headers;
    GetHeaders(headers);
    QStringList values;
    ToStringList(values);
    QStringList lines;
    lines.reserve(ColumnCount);
    for (int i = 0; i < ColumnCount; ++i)
        lines.append(QStringLiteral("%1: %2").arg(headers.at(i), values.at(i)));
    return lines;
}

namespace {

// Matches the display texts of the values below `count` first, then a
// decimal number up to `numericLimit`; false leaves `value` as it was.
template<typename Enum, typename TextOf>
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

std::vector<FileGroupData> FileGroupData::fromStringList(const QStringList &list)
{
    std::vector<FileGroupData> records;
    const int completeValues = list.size() - list.size() % ColumnCount;
    records.reserve(completeValues / ColumnCount);
    FileGroupData record;
    for (int i = 0; i < completeValues; ++i) {
        const QString &text = list.at(i);
        switch (i % ColumnCount) {
        case ColName:
            record = FileGroupData();
            record.d->fileGroupName = text;
            break;
        case ColFileType:
            if (!enumFromColumn(text, FT_Last + 1, FT_Last, &FileTypeManager::GetText,
                                record.d->fileType))
                Q_TRACE_FAILURE(kSource, QStringLiteral("FileGroupData::fromStringList: "
                                                        "Unkown file type \"%1\" read")
                                             .arg(text));
            break;
        case ColLocationState:
            // The numeric bound is the file types' one; existing tables rely on it.
            if (!enumFromColumn(text, LS_Last + 1, FT_Last, &LocationStateString::GetText,
                                record.d->locationState))
                Q_TRACE_FAILURE(kSource, QStringLiteral("FileGroupData::fromStringList: "
                                                        "Unkown location state \"%1\" read")
                                             .arg(text));
            break;
        case ColBackupTime:
            record.d->backupTime = parseTime(text);
            break;
        case ColCreationTime:
            record.d->creationTime = parseTime(text);
            break;
        case ColModificationTime:
            record.d->modificationTime = parseTime(text);
            break;
        case ColLifeCycle:
            record.d->lifeCycle = parseTime(text);
            break;
        case ColComment:
            record.d->comment = text;
            break;
        case ColCreator:
            record.d->creator = text;
            break;
        case ColDetail:
            record.d->detail = text;
            break;
        case ColTeam:
            record.d->teamMembership = text;
            break;
        case ColVersion:
            record.d->version = text;
            break;
        case ColReservedStorage:
            record.d->reservedStorage = text.toInt();
            break;
        case ColReferenceCounter:
            record.d->referenceCounter = text.toInt();
            break;
        case ColLockCount:
            record.d->lockCount = text.toInt();
            break;
        case ColGuid:
            record.d->guid = text;
            records.push_back(record);
            break;
        }
    }
    return records;
}

QString FileGroupData::toXmlFileForExport(const QString &dir) const
{
    QByteArray bytes;
    {
        QXmlStreamWriter writer(&bytes);
        ToHtml(writer, true, true);
    }
    // Made on a system that joins with a backslash; the platform separator
    // reaches the same directory and leaves the file name untouched.
    const QString directory = dir + QDir::separator();
    const QString baseName = d->fileGroupName + QStringLiteral("_%1").arg(d->guid);
    QString fileName = baseName + kDescriptionFileSuffix;
    for (int n = 1; QFile::exists(directory + fileName); ++n)
        fileName = baseName + QStringLiteral("_%1").arg(n) + kDescriptionFileSuffix;

    QFile file(directory + fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Could not create Xml file for export of "
                                                "filegroup %1 with guid %2")
                                     .arg(d->fileGroupName, d->guid));
        return fileName;
    }
    file.write(bytes);
    file.close();
    return fileName;
}

bool FileGroupData::fromXmlforImport(const QString &fileName)
{
    QFile file(fileName);
    if (!file.exists() || !file.open(QIODevice::ReadOnly)) {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Could not open filegroup file %1 for import").arg(fileName));
        return false;
    }
    const QByteArray bytes = file.readAll();
    file.close();
    QXmlStreamReader reader(bytes);
    return FromHtml(reader) == KE_NoError;
}

} // namespace Kelda
