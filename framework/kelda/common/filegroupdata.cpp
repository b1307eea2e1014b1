#include "filegroupdata.h"
#include "filegroupdata_p.h"

#include <iterator>

namespace Kelda {

namespace {

const QLatin1String kTimeFormat("yyyy-MM-dd hh:mm:ss");

} // namespace

// The table row of a 100,000-group query result formats four times per
// group: QDateTime::toString parses its format every time, so the common
// four-digit years are written digit by digit.
QString FileGroupDataPrivate::formatTime(const QDateTime &time)
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
    QChar buffer[] = {QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('-'),
                      QLatin1Char('0'), QLatin1Char('0'), QLatin1Char('-'), QLatin1Char('0'), QLatin1Char('0'),
                      QLatin1Char(' '), QLatin1Char('0'), QLatin1Char('0'), QLatin1Char(':'), QLatin1Char('0'),
                      QLatin1Char('0'), QLatin1Char(':'), QLatin1Char('0'), QLatin1Char('0')};
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

QDateTime FileGroupDataPrivate::parseTime(const QString &text)
{
    return QDateTime::fromString(text, kTimeFormat);
}

bool FileGroupDataPrivate::operator==(const FileGroupDataPrivate &o) const
{
    return guid == o.guid && fileGroupName == o.fileGroupName && fileType == o.fileType &&
        locationState == o.locationState && backupTime == o.backupTime && creationTime == o.creationTime &&
        modificationTime == o.modificationTime && lifeCycle == o.lifeCycle && comment == o.comment &&
        creator == o.creator && detail == o.detail && path == o.path && teamMembership == o.teamMembership &&
        version == o.version && reservedStorage == o.reservedStorage && referenceCounter == o.referenceCounter &&
        lockCount == o.lockCount && files == o.files;
}

FileGroupData::FileGroupData()
    : d(new FileGroupDataPrivate)
{ }

FileGroupData::FileGroupData(const FileGroupData &other) = default;
FileGroupData::FileGroupData(FileGroupData &&other) noexcept = default;
FileGroupData &FileGroupData::operator=(const FileGroupData &other) = default;
FileGroupData &FileGroupData::operator=(FileGroupData &&other) noexcept = default;
FileGroupData::~FileGroupData() = default;

bool FileGroupData::operator==(const FileGroupData &other) const
{
    return d == other.d || *d == *other.d;
}

QString FileGroupData::getGuid() const
{
    return d->guid;
}
void FileGroupData::setGuid(const QString &guid)
{
    d->guid = guid;
}
QString FileGroupData::getFileGroupName() const
{
    return d->fileGroupName;
}
void FileGroupData::setFileGroupName(const QString &name)
{
    d->fileGroupName = name;
}
FileType FileGroupData::getFileType() const
{
    return d->fileType;
}
void FileGroupData::setFileType(FileType type)
{
    d->fileType = type;
}
LocationState FileGroupData::getLocationState() const
{
    return d->locationState;
}
void FileGroupData::setLocationState(LocationState state)
{
    d->locationState = state;
}
QDateTime FileGroupData::getBackupTime() const
{
    return d->backupTime;
}
void FileGroupData::setBackupTime(const QDateTime &time)
{
    d->backupTime = time;
}
QDateTime FileGroupData::getCreationTime() const
{
    return d->creationTime;
}
void FileGroupData::setCreationTime(const QDateTime &time)
{
    d->creationTime = time;
}
QDateTime FileGroupData::getModificationTime() const
{
    return d->modificationTime;
}
void FileGroupData::setModificationTime(const QDateTime &time)
{
    d->modificationTime = time;
}
QDateTime FileGroupData::getLifeCycle() const
{
    return d->lifeCycle;
}
void FileGroupData::setLifeCycle(const QDateTime &time)
{
    d->lifeCycle = time;
}
QString FileGroupData::getComment() const
{
    return d->comment;
}
void FileGroupData::setComment(const QString &comment)
{
    d->comment = comment;
}
QString FileGroupData::getCreator() const
{
    return d->creator;
}
void FileGroupData::setCreator(const QString &creator)
{
    d->creator = creator;
}
QString FileGroupData::getDetail() const
{
    return d->detail;
}
void FileGroupData::setDetail(const QString &detail)
{
    d->detail = detail;
}
QString FileGroupData::getPath() const
{
    return d->path;
}
void FileGroupData::setPath(const QString &path)
{
    d->path = path;
}
QString FileGroupData::getTeamMembership() const
{
    return d->teamMembership;
}
void FileGroupData::setTeamMembership(const QString &team)
{
    d->teamMembership = team;
}
QString FileGroupData::getVersion() const
{
    return d->version;
}
void FileGroupData::setVersion(const QString &version)
{
    d->version = version;
}
qint32 FileGroupData::getReservedStorage() const
{
    return d->reservedStorage;
}
void FileGroupData::setReservedStorage(qint32 storage)
{
    d->reservedStorage = storage;
}
qint32 FileGroupData::getReferenceCounter() const
{
    return d->referenceCounter;
}
void FileGroupData::setReferenceCounter(qint32 counter)
{
    d->referenceCounter = counter;
}
qint32 FileGroupData::getLockCount() const
{
    return d->lockCount;
}
void FileGroupData::setLockCount(qint32 count)
{
    d->lockCount = count;
}

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

} // namespace Kelda
