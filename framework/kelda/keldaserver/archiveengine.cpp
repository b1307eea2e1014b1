#include "archiveengine.h"

#include "answerspool.h"
#include "groupresultxml.h"
#include "commanddescriptors.h"
#include "filedigest.h"
#include "localtimetext.h"
#include "keldaxml.h"
#include "replywriter.h"
#include "requestfailure.h"

#include <trace.h>

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSet>
#include <QUrl>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/keldaserver/archiveengine";

const QLatin1String kDescriptionSuffix(".fgdesc");
// The export's list of digests, in the form sha256sum reads and writes.
const QLatin1String kManifestName("SHA256SUMS");
// Rows of a query answer gathered before they go to its spool together.
constexpr int SpoolPieceBytes = 256 * 1024;

[[noreturn]] void refuse(KeldaError code, const QString &text)
{
    throw RequestFailure{code, text};
}

void refuseUnnamedGroup(const QString &guid)
{
    if (guid.trimmed().isEmpty())
        refuse(KE_GuidNotFound, QStringLiteral("The request names no file group"));
}

template <typename Group> Group foundGroup(const QString &guid, std::optional<Group> group)
{
    if (!group)
        refuse(KE_GuidNotFound, QStringLiteral("No file group %1").arg(guid));
    return std::move(*group);
}

void enforce(const std::optional<AccessRules::Refusal> &refusal)
{
    if (refusal)
        throw RequestFailure{refusal->code, refusal->text, false, true};
}

// Request times travel as UTC "yyyy-MM-dd hh:mm:ss.zzz" (milliseconds
// optional). Date and clock are read apart: read as one they would be taken
// for a local time first, and an hour that the local zone skips would not
// read at all.
std::optional<QDateTime> requestTime(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return QDateTime();
    if (trimmed.size() < 19 || trimmed.at(10) != QLatin1Char(' '))
        return std::nullopt;
    const QDate date = QDate::fromString(trimmed.left(10), QStringLiteral("yyyy-MM-dd"));
    const QString clock = trimmed.mid(11);
    QTime time = QTime::fromString(clock, QStringLiteral("hh:mm:ss.zzz"));
    if (!time.isValid())
        time = QTime::fromString(clock, QStringLiteral("hh:mm:ss"));
    if (!date.isValid() || !time.isValid())
        return std::nullopt;
    return QDateTime(date, time, Qt::UTC);
}

// Removes the named files of a group's directory, regular files only;
// what cannot be removed is traced and left.
void removeGroupFiles(const StorageLayout &layout, const QString &directory, const QStringList &names)
{
    QString error;
    const ConfinedDirectory opened =
        layout.openGroupDirectory(directory, ConfinedDirectory::Creation::Existing, &error);
    if (!opened.isOpen()) {
        if (!opened.wasMissing())
            Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot remove files from %1: %2").arg(directory, error));
        return;
    }
    for (const QString &name : names) {
        if (!opened.removeFile(name, &error))
            Q_TRACE_FAILURE(kSource, QStringLiteral("Cannot remove a file: %1").arg(error));
    }
}

QStringList namesOf(const FileGroupData::FileList &files)
{
    QStringList names;
    for (const auto &file : files)
        names.append(file.first);
    return names;
}

// A description names the files to copy: each must be a bare name, and
// names and ids must be unique, or the group could not be stored whole.
QString fileListRefusal(const FileGroupData::FileList &files)
{
    QSet<QString> names;
    QSet<int> ids;
    for (const auto &file : files) {
        if (!StorageLayout::isSafeFileName(file.first))
            return QStringLiteral("refused file name \"%1\"").arg(file.first);
        if (file.second <= 0 || ids.contains(file.second) || names.contains(file.first))
            return QStringLiteral("file %1 (id %2) is listed twice or has no valid id")
                .arg(file.first)
                .arg(file.second);
        names.insert(file.first);
        ids.insert(file.second);
    }
    return QString();
}

QByteArray descriptionBytes(const FileGroupData &data)
{
    QByteArray bytes;
    {
        QXmlStreamWriter writer(&bytes);
        data.ToHtml(writer, true, true);
    }
    return bytes;
}

// NAME_GUID.fgdesc; a group name may hold separators, which a file name
// cannot.
QString descriptionName(const FileGroupData &data)
{
    QString name = data.getFileGroupName() + QLatin1Char('_') + data.getGuid() + kDescriptionSuffix;
    for (const QChar separator : {QChar(QLatin1Char('/')), QChar(QLatin1Char('\\')), QChar(0)})
        name.replace(separator, QLatin1Char('_'));
    return name;
}

} // namespace

ArchiveEngine::ArchiveEngine(ArchiveStore &store, const StorageLayout &layout)
    : m_store(store)
    , m_layout(layout)
{ }

QDateTime ArchiveEngine::now()
{
    const qint64 ms = QDateTime::currentMSecsSinceEpoch();
    return QDateTime::fromMSecsSinceEpoch(ms - ms % 1000);
}

ArchiveEngine::Handler ArchiveEngine::handlerFor(const QString &command)
{
    struct Row
    {
        ReplyKind kind;
        Handler handler;
    };
    // One row for each command that the descriptors say the server carries
    // out, checked while building.
    static constexpr Row rows[] = {
        {ReplyKind::GetBasePath, &ArchiveEngine::getBasePath},
        {ReplyKind::CreateFileGroup, &ArchiveEngine::createFileGroup},
        {ReplyKind::CreateTovinFileGroup, &ArchiveEngine::createTovinFileGroup},
        {ReplyKind::AddFile, &ArchiveEngine::addFile},
        {ReplyKind::RequestFile, &ArchiveEngine::requestFile},
        {ReplyKind::CloseFile, &ArchiveEngine::closeFile},
        {ReplyKind::DeleteFile, &ArchiveEngine::deleteFile},
        {ReplyKind::DeleteFileGroup, &ArchiveEngine::deleteFileGroup},
        {ReplyKind::AddReference, &ArchiveEngine::addReference},
        {ReplyKind::RemoveReference, &ArchiveEngine::removeReference},
        {ReplyKind::RemoveAllReferences, &ArchiveEngine::removeAllReferences},
        {ReplyKind::QueryMetaData, &ArchiveEngine::queryMetaData},
        {ReplyKind::GetFileList, &ArchiveEngine::getFileList},
        {ReplyKind::GetUserList, &ArchiveEngine::getUserList},
        {ReplyKind::GetApplicationList, &ArchiveEngine::getApplicationList},
        {ReplyKind::QueryFileGroups, &ArchiveEngine::queryFileGroups},
        {ReplyKind::ExportArchive, &ArchiveEngine::exportArchive},
        {ReplyKind::ImportArchive, &ArchiveEngine::importArchive},
        {ReplyKind::MoveToNas, &ArchiveEngine::moveToNas},
        {ReplyKind::QueryLocationStateProgress, &ArchiveEngine::queryLocationStateProgress},
        {ReplyKind::CheckFileGroupExists, &ArchiveEngine::checkFileGroupExists},
        {ReplyKind::GetRemoteStorageLocation, &ArchiveEngine::getRemoteStorageLocation},
        {ReplyKind::GetTovinFilegroupGuid, &ArchiveEngine::getTovinFilegroupGuid},
        {ReplyKind::RegisterConverter, &ArchiveEngine::registerConverter},
        {ReplyKind::GetFileChecksums, &ArchiveEngine::getFileChecksums},
        {ReplyKind::VerifyFileGroup, &ArchiveEngine::verifyFileGroup},
    };
    static_assert(OneRowPerCommand(rows, CommandDescriptors), "one handler for each command, and only for those");

    const CommandDescriptor *described = FindCommand(command);
    if (!described)
        return nullptr;
    for (const Row &row : rows) {
        if (row.kind == described->kind)
            return row.handler;
    }
    return nullptr;
}

QByteArray ArchiveEngine::unknownCommandReply(const Request &request)
{
    return ReplyWriter::status(request.command, request.requestId, KE_UnknownReplyCommand,
                               QStringLiteral("Unknown command %1").arg(request.command));
}

bool ArchiveEngine::isReadOnly(const QString &command)
{
    const CommandDescriptor *described = FindCommand(command);
    return described && described->effect == Effect::Reads;
}

bool ArchiveEngine::handle(const Request &request, const RequestOrigin &origin, RequestOutcome &outcome)
{
    const Handler handler = handlerFor(request.command);
    if (!handler) {
        outcome.code = KE_UnknownReplyCommand;
        outcome.reply = unknownCommandReply(request);
        return false;
    }
    try {
        enforce(m_rules.checkClaims(request, origin));
        ReplyWriter writer(ReplyWriter::replyElement(request.command), request.requestId);
        (this->*handler)(request, origin, writer, outcome);
        finishReply(writer, outcome);
        return true;
    } catch (const RequestFailure &failure) {
        const QString readFirstIn = outcome.readFirstIn;
        if (readFirstIn.isEmpty())
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("%1 %2 failed: %3 (%4)")
                                .arg(request.command, request.requestId, failure.text)
                                .arg(int(failure.code)));
        outcome = RequestOutcome();
        outcome.readFirstIn = readFirstIn;
        outcome.reply = ReplyWriter::status(request.command, request.requestId, failure.code, failure.text);
        outcome.retry = failure.retry;
        outcome.code = failure.code;
        outcome.refused = failure.refused;
        return false;
    }
}

void ArchiveEngine::finishReply(ReplyWriter &writer, RequestOutcome &outcome)
{
    if (!outcome.spool) {
        outcome.reply = writer.finish();
        return;
    }
    spool(*outcome.spool, writer.finish());
    // A small one travels like any other reply.
    if (outcome.spool->isInMemory()) {
        outcome.reply = outcome.spool->takeMemory();
        outcome.spool.reset();
    }
}

void ArchiveEngine::spool(AnswerSpool &spool, const QByteArray &bytes)
{
    if (!spool.append(bytes))
        refuse(KE_QueryFilesFailed, spool.errorString());
}

StoredGroup ArchiveEngine::requireGroup(const QString &guid)
{
    refuseUnnamedGroup(guid);
    return foundGroup(guid, m_store.group(guid));
}

GroupPlace ArchiveEngine::requirePlace(const QString &guid)
{
    refuseUnnamedGroup(guid);
    return foundGroup(guid, m_store.groupPlace(guid));
}

void ArchiveEngine::refuseWhileMoving(const StoredGroup &group)
{
    refuseWhileMoving(group.data.getGuid(), group.data.getLocationState());
}

void ArchiveEngine::refuseWhileMoving(const QString &guid, LocationState state)
{
    if (state == LS_CentralNotMoved)
        refuse(KE_InvalidLocationStateForCommand,
               QStringLiteral("File group %1 is being moved to network storage").arg(guid));
}

void ArchiveEngine::refuseWhileLocked(const QString &guid, const RequestOrigin &origin)
{
    const std::vector<LockHolder> holders = m_store.locks(guid);
    for (const LockHolder &holder : holders) {
        if (holder.write)
            refuse(KE_FileGroupWriteLocked, lockedText(guid, holder, origin));
    }
    if (!holders.empty())
        refuse(KE_FileGroupLocked, lockedText(guid, holders.front(), origin));
}

QString ArchiveEngine::lockedText(const QString &guid, const LockHolder &holder, const RequestOrigin &origin) const
{
    return QStringLiteral("File group %1 is %2 locked by %3")
        .arg(guid, holder.write ? QStringLiteral("write") : QStringLiteral("read"),
             m_rules.holderAsSeenBy(holder.holder, origin));
}

void ArchiveEngine::requireOwner(const QString &command, const StoredGroup &group, const RequestOrigin &origin) const
{
    enforce(m_rules.checkOwner(command, group.data.getCreator(), origin));
}

void ArchiveEngine::getBasePath(const Request &, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    writer.writeText(Tag::Path, QDir::toNativeSeparators(m_layout.basePath()));
    writer.writeStatus(KE_NoError, QString());
}

QString ArchiveEngine::claimNewGroup(StoredGroup &group, const QString &requestedPath, const QDateTime &created)
{
    const QString guid = group.data.getGuid();
    if (guid.trimmed().isEmpty())
        refuse(KE_GuidNotFound, QStringLiteral("The request names no file group"));
    if (!StorageLayout::isGuid(guid))
        refuse(KE_AddFileGroupFailed, QStringLiteral("\"%1\" is not a GUID in lower-case text form").arg(guid));
    QString directory = StorageLayout::requestedGroupDirectory(requestedPath);
    if (directory.isEmpty())
        directory = m_layout.defaultGroupDirectory(guid, created);
    QString refusal = m_layout.refusedGroupDirectory(directory, guid);
    const QStringList otherGuids = m_layout.otherGuidsIn(directory, guid);
    group.singleGuidDirectory = otherGuids.isEmpty();
    // One look at the table for both: the GUID, and a directory shared
    // with another group, which would let deleting one remove the other's
    // files.
    const NewGroupConflicts conflicts =
        m_store.newGroupConflicts(guid, refusal.isEmpty() ? directory : QString(), otherGuids);
    if (conflicts.exists)
        refuse(KE_AddFileGroupFailed, QStringLiteral("File group %1 exists already").arg(guid));
    const int type = group.data.getFileType();
    if (type < FT_Unknown || type > FT_Last)
        refuse(KE_AddFileGroupFailed, QStringLiteral("Unknown file type %1").arg(type));
    if (refusal.isEmpty() && conflicts.around)
        refusal =
            QStringLiteral("%1 lies in or around the directory of file group %2").arg(directory, *conflicts.around);
    if (!refusal.isEmpty())
        refuse(KE_CreatePathFailed, refusal);
    QString error;
    if (!m_layout.openGroupDirectory(directory, ConfinedDirectory::Creation::CreateMissing, &error).isOpen())
        refuse(KE_CreatePathFailed, QStringLiteral("Cannot create the directory %1: %2").arg(directory, error));
    return directory;
}

void ArchiveEngine::registerGroup(StoredGroup group, const QString &directory, const QDateTime &created,
                                  RequestOutcome &outcome)
{
    const QString guid = group.data.getGuid();
    const int type = group.data.getFileType();
    group.path = directory;
    group.data.setPath(directory);
    group.fixedResultXml = GroupResultXml::fixedPart(group.data);
    // Imported groups keep the times they had where they came from.
    if (!group.data.getCreationTime().isValid())
        group.data.setCreationTime(created);
    if (!group.data.getModificationTime().isValid())
        group.data.setModificationTime(created);
    m_store.addGroup(group, {m_store.database().instanceId(), guid, type, StorageLayout::directoryForReply(directory)});
    outcome.newGroups.push_back({guid, type, StorageLayout::directoryForReply(directory)});
    Q_TRACE_DETAIL(kSource, QStringLiteral("Created file group %1 in %2").arg(guid, directory));
}

QString ArchiveEngine::createGroup(StoredGroup group, const QString &requestedPath, RequestOutcome &outcome)
{
    const QDateTime created = now();
    const QString directory = claimNewGroup(group, requestedPath, created);
    registerGroup(group, directory, created, outcome);
    return directory;
}

QString ArchiveEngine::groupFilesRefusal(const QString &directory, const QStringList &names, bool missingAllowed) const
{
    QString error;
    const ConfinedDirectory opened =
        m_layout.openGroupDirectory(directory, ConfinedDirectory::Creation::Existing, &error);
    if (!opened.isOpen())
        return missingAllowed && opened.wasMissing() ? QString() : error;
    for (const QString &name : names) {
        const ConfinedDirectory::Kind kind = opened.kindOf(name);
        if (kind == ConfinedDirectory::Kind::Regular || (missingAllowed && kind == ConfinedDirectory::Kind::Missing))
            continue;
        opened.checkRegularFile(name, &error);
        return error;
    }
    return QString();
}

void ArchiveEngine::createFileGroup(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                    RequestOutcome &outcome)
{
    const std::optional<QDateTime> lifeCycle = requestTime(request.text(Tag::LifeCycle));
    if (!lifeCycle)
        refuse(KE_AddFileGroupFailed,
               QStringLiteral("Cannot read the life cycle \"%1\"").arg(request.text(Tag::LifeCycle)));
    StoredGroup group;
    FileGroupData &data = group.data;
    data.setGuid(request.text(Tag::Guid).trimmed());
    data.setFileGroupName(request.text(Tag::FileGroupName));
    data.setFileType(static_cast<FileType>(request.number(Tag::FileType, -1)));
    data.setLocationState(LS_Local);
    data.setLifeCycle(lifeCycle->toLocalTime());
    data.setComment(request.text(Tag::Comment));
    data.setDetail(request.text(Tag::Detail));
    data.setCreator(request.text(Tag::UserName));
    data.setTeamMembership(request.text(Tag::TeamMembership));
    data.setVersion(request.text(Tag::FileGroupVersion));
    data.setReservedStorage(qint32(qBound<qint64>(0, request.number(Tag::ReservedStorage), INT_MAX)));
    const QString directory = createGroup(group, request.text(Tag::Path), outcome);
    writer.writeText(Tag::Guid, data.getGuid());
    writer.writeText(Tag::Path, StorageLayout::directoryForReply(directory));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::createTovinFileGroup(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                         RequestOutcome &outcome)
{
    StoredGroup group;
    FileGroupData &data = group.data;
    data.setGuid(request.text(Tag::Guid).trimmed());
    data.setFileGroupName(request.text(Tag::RecordId));
    data.setFileType(static_cast<FileType>(request.number(Tag::FileType, -1)));
    data.setLocationState(LS_Tovin);
    data.setComment(request.text(Tag::Comment));
    data.setDetail(request.text(Tag::Detail));
    data.setCreator(request.text(Tag::UserName));
    data.setTeamMembership(request.text(Tag::TeamMembership));
    data.setVersion(request.text(Tag::FileGroupVersion));
    group.tovinId = request.text(Tag::TovinId);
    group.recordId = request.text(Tag::RecordId);
    if (group.tovinId.isEmpty())
        refuse(KE_AddFileGroupFailed, QStringLiteral("A Tovin file group needs a Tovin id"));
    const QString directory = createGroup(group, request.text(Tag::Path), outcome);
    writer.writeText(Tag::Guid, data.getGuid());
    writer.writeText(Tag::Path, StorageLayout::directoryForReply(directory));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::addFile(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                            RequestOutcome &outcome)
{
    const GroupPlace group = requirePlace(request.text(Tag::Guid));
    refuseWhileMoving(group.guid, group.locationState);
    const QString name = request.text(Tag::FileName);
    if (StorageLayout::fileInside(group.path, name).isEmpty())
        refuse(KE_AddFileFailed,
               QStringLiteral("Refused file name \"%1\": it must name a file in the group's "
                              "directory itself")
                   .arg(name));
    QString error;
    const ConfinedDirectory directory =
        m_layout.openGroupDirectory(group.path, ConfinedDirectory::Creation::Existing, &error);
    if (!directory.isOpen())
        refuse(KE_OpenFileFailed,
               QStringLiteral("Cannot use the directory of file group %1: %2").arg(group.guid, error));
    const AddedFile added = lookAtAddedFile(directory, name, origin);
    if (added.size < 0) {
        // A link may point anywhere; archived files are files of their own.
        if (directory.kindOf(name) == ConfinedDirectory::Kind::Link)
            refuse(KE_AddFileFailed, QStringLiteral("Refused %1: it is a symbolic link").arg(name));
        refuse(KE_OpenFileFailed,
               QStringLiteral("%1 is no regular file in the group's directory %2; copy it there "
                              "first (%3)")
                   .arg(name, StorageLayout::directoryForReply(group.path), added.error));
    }
    const QString guid = group.guid;
    const qint64 wanted = request.number(Tag::FileId);
    const FileFacts facts = m_store.fileFacts(guid, name, wanted);
    if (facts.nameTaken)
        refuse(KE_AddFileFailed, QStringLiteral("File group %1 holds a file named %2 already").arg(guid, name));
    int fileId = int(wanted);
    if (wanted <= 0 || wanted > INT_MAX || facts.idTaken) {
        if (facts.highestId == INT_MAX)
            refuse(KE_AddFileFailed, QStringLiteral("File group %1 has no free file id left").arg(guid));
        fileId = facts.highestId + 1;
    }
    FileCheck check = checkOfAddedFile(group, name, origin, added, outcome);
    check.fileId = fileId;
    m_store.addFile(guid, fileId, name, now().toMSecsSinceEpoch(), check);
    outcome.fileId = fileId;
    writer.writeNumber(Tag::FileId, fileId);
    writer.writeStatus(KE_NoError, QString());
}

ArchiveEngine::AddedFile ArchiveEngine::lookAtAddedFile(const ConfinedDirectory &directory, const QString &name,
                                                        const RequestOrigin &origin)
{
    AddedFile added;
    if (origin.readings) {
        if (const std::optional<qint64> size = directory.regularFileSize(name, &added.error))
            added.size = *size;
    } else {
        added.digest = directory.digestSmallFile(name, InlineDigestBytes, &added.size, &added.error);
    }
    return added;
}

FileCheck ArchiveEngine::checkOfAddedFile(const GroupPlace &group, const QString &name, const RequestOrigin &origin,
                                          const AddedFile &added, RequestOutcome &outcome)
{
    if (origin.readings)
        return checkOfPoolReading(group, name, origin, added.size);
    if (!added.digest && added.error.isEmpty() && added.size > InlineDigestBytes)
        outcome.readFirstIn = group.path;
    if (!added.digest)
        refuse(KE_ReadFileFailed,
               QStringLiteral("Cannot read %1 to record its digest: %2")
                   .arg(name, added.error.isEmpty() ? QStringLiteral("it was not read") : added.error));
    FileReading reading;
    reading.found = true;
    reading.size = added.digest->size;
    reading.digest = FileDigest::hex(added.digest->sha256);
    return checkOf(name, reading);
}

FileCheck ArchiveEngine::checkOfPoolReading(const GroupPlace &group, const QString &name, const RequestOrigin &origin,
                                            qint64 sizeNow)
{
    const FileReading *reading = nullptr;
    const FileReading *elsewhere = nullptr;
    if (origin.readings) {
        for (const FileReading &candidate : *origin.readings) {
            if (candidate.name == name)
                (candidate.directory == group.path ? reading : elsewhere) = &candidate;
        }
    }
    if (!reading && elsewhere)
        refuse(KE_ReadFileFailed,
               QStringLiteral("Cannot record %1: the server read it in %2, but file group %3 is in %4")
                   .arg(name, StorageLayout::directoryForReply(elsewhere->directory), group.guid,
                        StorageLayout::directoryForReply(group.path)));
    if (!reading || !reading->found)
        refuse(KE_ReadFileFailed,
               QStringLiteral("Cannot read %1 to record its digest: %2")
                   .arg(name, reading ? reading->error : QStringLiteral("it was not read")));
    // Read before this request reached the database: a file that changed
    // since would be recorded with a digest of other content.
    if (sizeNow != reading->size)
        refuse(KE_ReadFileFailed, QStringLiteral("%1 changed while the server read it; add it again").arg(name));
    return checkOf(name, *reading);
}

FileCheck ArchiveEngine::checkOf(const QString &name, const FileReading &reading)
{
    FileCheck check;
    check.name = name;
    check.size = reading.size;
    check.algorithm = FileDigest::algorithm();
    check.digest = reading.digest;
    check.checkedMs = now().toMSecsSinceEpoch();
    check.state = FileCheck::State::Ok;
    return check;
}

void ArchiveEngine::requestFile(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                RequestOutcome &)
{
    const GroupPlace group = requirePlace(request.text(Tag::Guid));
    refuseWhileMoving(group.guid, group.locationState);
    const QString guid = group.guid;
    const qint64 fileId = request.number(Tag::FileId, -1);
    // The file's name and the group's locks in one look.
    const FileAccess access = fileId > 0 && fileId <= INT_MAX ? m_store.fileAccess(guid, int(fileId)) : FileAccess();
    const std::optional<QString> &name = access.name;
    if (!name)
        refuse(KE_FileGroupIdNotFound, QStringLiteral("File group %1 holds no file %2").arg(guid).arg(fileId));
    const QString path = StorageLayout::fileInside(group.path, *name);
    QString error;
    const ConfinedDirectory directory =
        m_layout.openGroupDirectory(group.path, ConfinedDirectory::Creation::Existing, &error);
    if (path.isEmpty() || !directory.isOpen() || !directory.checkRegularFile(*name, &error))
        refuse(KE_OpenFileFailed,
               QStringLiteral("The file %1 of group %2 cannot be opened: %3").arg(*name, guid, error));

    const QString holder = request.text(Tag::UserName);
    if (holder.isEmpty())
        refuse(KE_AddLockFailed, QStringLiteral("The request names no lock identity"));
    const bool write = request.flag(Tag::WriteLock);
    bool holdsWrite = false;
    for (const LockHolder &other : access.locks) {
        if (other.holder == holder) {
            holdsWrite = other.write;
            continue;
        }
        if (other.write)
            refuse(KE_FileGroupWriteLocked, lockedText(guid, other, origin));
        if (write)
            refuse(KE_FileGroupLocked, lockedText(guid, other, origin));
    }
    // A holder's later read request keeps the write lock it has.
    m_store.setLock(guid, holder, write || holdsWrite);
    writer.writeText(Tag::Path, QDir::toNativeSeparators(path));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::closeFile(const Request &request, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    const QString guid = requirePlace(request.text(Tag::Guid)).guid;
    const QString holder = request.text(Tag::UserName);
    if (m_store.releaseLocks(guid, holder) == 0)
        refuse(KE_DeleteLockFailed, QStringLiteral("%1 holds no lock on file group %2").arg(holder, guid));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::deleteFile(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                               RequestOutcome &outcome)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    requireOwner(request.command, group, origin);
    refuseWhileMoving(group);
    const QString guid = group.data.getGuid();
    const qint64 fileId = request.number(Tag::FileId, -1);
    const std::optional<QString> name =
        fileId > 0 && fileId <= INT_MAX ? m_store.fileName(guid, int(fileId)) : std::nullopt;
    if (!name)
        refuse(KE_FileGroupIdNotFound, QStringLiteral("File group %1 holds no file %2").arg(guid).arg(fileId));
    refuseWhileLocked(guid, origin);
    const bool onDisk = !m_layout.rootOf(group.path).isEmpty();
    if (onDisk) {
        const QString refusal = groupFilesRefusal(group.path, {*name}, true);
        if (!refusal.isEmpty())
            refuse(KE_DeleteFileFailed, QStringLiteral("Nothing was deleted: %1").arg(refusal));
    }
    m_store.deleteFile(guid, int(fileId));
    m_store.touch(guid, now().toMSecsSinceEpoch());
    // The group lives on: its directory stays for the files still to come.
    if (onDisk)
        outcome.afterCommit.push_back(
            [layout = m_layout, path = group.path, file = *name] { removeGroupFiles(layout, path, {file}); });
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::deleteFileGroup(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                    RequestOutcome &outcome)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    requireOwner(request.command, group, origin);
    refuseWhileMoving(group);
    const QString guid = group.data.getGuid();
    refuseWhileLocked(guid, origin);
    // A shallow delete forgets the group and leaves its files on disk.
    const bool removesFiles = !request.flag(Tag::ShallowDelete) && !m_layout.rootOf(group.path).isEmpty();
    const QStringList files = namesOf(m_store.files(guid));
    if (removesFiles) {
        const QString refusal = groupFilesRefusal(group.path, files, true);
        if (!refusal.isEmpty())
            refuse(KE_DeleteFileGroupFailed, QStringLiteral("Nothing was deleted: %1").arg(refusal));
    }
    m_store.deleteGroup(guid);
    if (removesFiles)
        outcome.afterCommit.push_back([layout = m_layout, path = group.path, files] {
            removeGroupFiles(layout, path, files);
            layout.removeEmptyGroupDirectory(path);
        });
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::addReference(const Request &request, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    const QString application = request.text(Tag::Application);
    if (application.isEmpty())
        refuse(KE_AddReferenceFailed, QStringLiteral("The request names no application"));
    const QString guid = group.data.getGuid();
    m_store.setReferenceCount(guid, application, m_store.referenceCount(guid, application) + 1);
    m_store.rememberApplication(application);
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::removeReference(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                    RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    const QString guid = group.data.getGuid();
    const QString application = request.text(Tag::Application);
    const int count = m_store.referenceCount(guid, application);
    if (count == 0)
        refuse(KE_DeleteReferenceFailed,
               QStringLiteral("%1 holds no reference to file group %2").arg(application, guid));
    m_store.setReferenceCount(guid, application, count - 1);
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::removeAllReferences(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                        RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    m_store.setReferenceCount(group.data.getGuid(), request.text(Tag::Application), 0);
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::queryMetaData(const Request &request, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    StoredGroup group = requireGroup(request.text(Tag::Guid));
    group.data.setFileList(m_store.files(group.data.getGuid()));
    group.data.ToHtml(writer.xml(), true, false);
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::getFileList(const Request &request, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    writer.writeStartElement(Tag::Files);
    for (const auto &file : m_store.files(group.data.getGuid())) {
        writer.writeStartElement(Tag::File);
        writer.writeNumber(Tag::FileId, file.second);
        writer.writeText(Tag::FileName, file.first);
        writer.writeEndElement();
    }
    writer.writeEndElement();
    writer.writeStatus(KE_NoError, QString());
}

namespace {

// The user and application lists: one wrapper, one element a name, then the
// status.
void writeNameList(ReplyWriter &writer, QLatin1String listTag, QLatin1String itemTag, const QStringList &names)
{
    writer.writeStartElement(listTag);
    for (const QString &name : names)
        writer.writeText(itemTag, name);
    writer.writeEndElement();
    writer.writeStatus(KE_NoError, QString());
}

} // namespace

void ArchiveEngine::getUserList(const Request &, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    writeNameList(writer, Tag::Users, Tag::User, m_store.users());
}

void ArchiveEngine::getApplicationList(const Request &, const RequestOrigin &, ReplyWriter &writer, RequestOutcome &)
{
    writeNameList(writer, Tag::Applications, Tag::Application, m_store.applications());
}

void ArchiveEngine::queryFileGroups(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                    RequestOutcome &outcome)
{
    GroupSearch criteria;
    criteria.name = request.text(Tag::FileGroupNameSearchText);
    criteria.comment = request.text(Tag::CommentSearchText);
    criteria.detail = request.text(Tag::DetailSearchText);
    criteria.creator = request.text(Tag::User);
    criteria.team = request.text(Tag::TeamSearchText);
    criteria.version = request.text(Tag::VersionSearchText);
    criteria.lockUser = request.text(Tag::LockUser);
    criteria.referencingApplication = request.text(Tag::ReferencingApplication);
    for (const QString &text : request.texts(nestedKey(Tag::FileTypeList, Tag::FileType))) {
        bool ok = false;
        const int type = text.trimmed().toInt(&ok);
        if (!ok)
            refuse(KE_QueryFilesFailed, QStringLiteral("Cannot read the file type \"%1\"").arg(text));
        criteria.fileTypes.push_back(type);
    }
    criteria.locationState = int(request.number(Tag::LocationState));
    if (criteria.locationState < 0 || criteria.locationState > LS_Last)
        refuse(KE_QueryFilesFailed, QStringLiteral("Unknown location state %1").arg(criteria.locationState));
    criteria.lockState = int(request.number(Tag::LockState));
    if (criteria.lockState < 0 || criteria.lockState > LOCK_Last)
        refuse(KE_QueryFilesFailed, QStringLiteral("Unknown lock state %1").arg(criteria.lockState));
    const auto range = [&request](QLatin1String name, GroupSearch::Range &bounds) {
        const auto bound = [&](QLatin1String which, std::optional<qint64> &value) {
            const QString text = request.text(nestedKey(name, which));
            const std::optional<QDateTime> time = requestTime(text);
            if (!time)
                refuse(KE_QueryFilesFailed, QStringLiteral("Cannot read the time \"%1\" of %2").arg(text, name));
            if (time->isValid())
                value = time->toMSecsSinceEpoch();
        };
        bound(Tag::Min, bounds.min);
        bound(Tag::Max, bounds.max);
    };
    range(Tag::BackupTime, criteria.backup);
    range(Tag::CreationTime, criteria.creation);
    range(Tag::LifeCycle, criteria.lifeCycle);
    range(Tag::ModificationTime, criteria.modification);

    // The client refuses a Files element with children here: groups travel
    // without their file lists.
    QElapsedTimer timer;
    timer.start();
    if (m_spoolFolder) {
        outcome.spool = std::make_shared<AnswerSpool>(m_spoolFolder);
        spool(*outcome.spool, writer.takeBytes());
    }
    QByteArray rows;
    int count = 0;
    m_store.search(criteria, [&rows, &count, &outcome](const SearchRow &row) {
        GroupResultXml::append(rows, row);
        ++count;
        if (outcome.spool && rows.size() >= SpoolPieceBytes) {
            spool(*outcome.spool, rows);
            rows.resize(0);
        }
    });
    if (outcome.spool)
        spool(*outcome.spool, rows);
    else
        writer.writeRaw(rows);
    Q_TRACE_DETAIL(kSource, QStringLiteral("QueryFileGroups: %1 groups in %2 ms").arg(count).arg(timer.elapsed()));
    writer.writeStatus(KE_NoError, QString());
}

QString ArchiveEngine::exchangeItem(const QString &requested) const
{
    const QString item = m_layout.exchangeItem(requested);
    // The same answer whether or not the path exists, and without the
    // path: the server tells nobody what lies outside the folder.
    if (item.isEmpty())
        refuse(KE_CreatePathFailed,
               QStringLiteral("The path lies outside the exchange folder %1, the only folder "
                              "export and import use")
                   .arg(m_layout.exchangePath()));
    return item;
}

QString ArchiveEngine::exportGroup(const QString &guid, const ConfinedDirectory &target, QStringList &manifest)
{
    std::optional<StoredGroup> group = m_store.group(guid);
    if (!group)
        return QStringLiteral("no file group %1").arg(guid);
    group->data.setFileList(m_store.files(guid));
    const QStringList names = namesOf(group->data.getFileList());
    QString error;
    const ConfinedDirectory source =
        m_layout.openGroupDirectory(group->path, ConfinedDirectory::Creation::Existing, &error);
    if (!source.isOpen())
        return QStringLiteral("file group %1: %2").arg(guid, error);
    // Checked before anything is written, so a refused group leaves
    // nothing behind.
    for (const QString &name : names) {
        if (!source.checkRegularFile(name, &error))
            return QStringLiteral("file group %1: %2").arg(guid, error);
    }
    const ConfinedDirectory files = target.createSubdirectory(guid, &error);
    if (!files.isOpen())
        return QStringLiteral("file group %1: %2").arg(guid, error);
    if (!target.writeNewFile(descriptionName(group->data), descriptionBytes(group->data), &error)) {
        target.removeEmptySubdirectory(guid);
        return QStringLiteral("file group %1: %2").arg(guid, error);
    }
    QHash<QString, QString> recorded;
    for (const FileCheck &check : m_store.fileChecks(guid))
        recorded.insert(check.name, check.digest);
    for (const QString &name : names) {
        ConfinedDirectory::Digest copied;
        if (!source.copyFileTo(name, files, &error, &copied))
            return QStringLiteral("file group %1: %2").arg(guid, error);
        const QString digest = FileDigest::hex(copied.sha256);
        // An archive hands on only what it was given.
        const QString expected = recorded.value(name);
        if (!expected.isEmpty() && expected != digest)
            return QStringLiteral("file group %1: %2 differs from what was stored (recorded %3, read %4)")
                .arg(guid, name, expected, digest);
        manifest.append(digest + QLatin1String("  ") + guid + QLatin1Char('/') + name);
    }
    return QString();
}

QString ArchiveEngine::writeManifest(const ConfinedDirectory &target, const QStringList &lines) const
{
    if (lines.isEmpty())
        return QString();
    // Groups exported into the same folder before keep their lines.
    QString error;
    QStringList all;
    if (target.kindOf(kManifestName) != ConfinedDirectory::Kind::Missing) {
        const std::optional<QByteArray> old = target.readFile(kManifestName, m_layout.maxImportBytes(), &error);
        if (!old || !target.removeFile(kManifestName, &error))
            return error;
        all = QString::fromUtf8(*old).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    all.append(lines);
    return target.writeNewFile(kManifestName, all.join(QLatin1Char('\n')).toUtf8() + '\n', &error) ? QString() : error;
}

void ArchiveEngine::exportArchive(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                  RequestOutcome &)
{
    const QString requested = request.text(Tag::Path);
    if (requested.trimmed().isEmpty())
        refuse(KE_ExportArchiveFailed, QStringLiteral("The export names no directory"));
    // All or nothing: a refused group leaves no half-written archive.
    for (const QString &guid : request.texts(Tag::Guid)) {
        const std::optional<StoredGroup> group = StorageLayout::isGuid(guid) ? m_store.group(guid) : std::nullopt;
        if (group)
            requireOwner(request.command, *group, origin);
    }
    const QString target = exchangeItem(requested);
    QString error;
    const ConfinedDirectory directory =
        ConfinedDirectory::open(m_layout.exchangePath(), target, ConfinedDirectory::Creation::CreateMissing, &error);
    if (!directory.isOpen())
        refuse(KE_ExportArchiveFailed, QStringLiteral("Cannot create the directory %1: %2").arg(target, error));
    QStringList failures;
    QStringList manifest;
    for (const QString &guid : request.texts(Tag::Guid)) {
        if (!StorageLayout::isGuid(guid)) {
            failures.append(QStringLiteral("\"%1\" is not a file group GUID").arg(guid));
            continue;
        }
        const QString failure = exportGroup(guid, directory, manifest);
        if (!failure.isEmpty())
            failures.append(failure);
    }
    const QString manifestFailure = writeManifest(directory, manifest);
    if (!manifestFailure.isEmpty())
        failures.append(manifestFailure);
    if (!failures.isEmpty())
        refuse(KE_ExportArchiveFailed, failures.join(QLatin1String("; ")));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::collectDescriptions(const QString &item, QStringList &descriptions, QStringList &failures) const
{
    const QString exchange = m_layout.exchangePath();
    QString error;
    ConfinedDirectory folder;
    if (item == exchange) {
        folder = ConfinedDirectory::open(exchange, item, ConfinedDirectory::Creation::Existing, &error);
    } else {
        const int cut = item.lastIndexOf(QLatin1Char('/'));
        const QString name = item.mid(cut + 1);
        const ConfinedDirectory parent =
            ConfinedDirectory::open(exchange, item.left(cut), ConfinedDirectory::Creation::Existing, &error);
        if (!parent.isOpen() && !parent.wasMissing()) {
            failures.append(error);
            return;
        }
        const ConfinedDirectory::Kind kind = parent.isOpen() ? parent.kindOf(name) : ConfinedDirectory::Kind::Missing;
        if (kind == ConfinedDirectory::Kind::Regular) {
            descriptions.append(item);
            return;
        }
        if (kind == ConfinedDirectory::Kind::Missing) {
            failures.append(QStringLiteral("no archive at %1").arg(item));
            return;
        }
        // Anything else is refused without being opened: a FIFO or a
        // device would never end.
        if (kind == ConfinedDirectory::Kind::Directory)
            folder = parent.subdirectory(name, &error);
        else
            parent.checkRegularFile(name, &error);
    }
    if (!folder.isOpen()) {
        failures.append(error);
        return;
    }
    for (const QString &entry : folder.entryNames()) {
        if (entry.endsWith(kDescriptionSuffix))
            descriptions.append(item + QLatin1Char('/') + entry);
    }
}

QHash<QString, QString> ArchiveEngine::readManifest(const ConfinedDirectory &folder, QString *error) const
{
    QHash<QString, QString> digests;
    if (folder.kindOf(kManifestName) == ConfinedDirectory::Kind::Missing)
        return digests;
    const std::optional<QByteArray> bytes = folder.readFile(kManifestName, m_layout.maxImportBytes(), error);
    if (!bytes)
        return digests;
    // "HEX  PATH", or "HEX *PATH" as sha256sum writes for binary mode.
    static const QRegularExpression line(QStringLiteral("^([0-9a-fA-F]{64}) [ *](.+)$"));
    for (const QString &text : QString::fromUtf8(*bytes).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch())
            digests.insert(match.captured(2), match.captured(1).toLower());
        else
            *error = QStringLiteral("%1 holds a line that is no digest: \"%2\"").arg(kManifestName, text.left(80));
    }
    return digests;
}

QString ArchiveEngine::importDescription(const QString &description, RequestOutcome &outcome, bool *mismatch)
{
    const int cut = description.lastIndexOf(QLatin1Char('/'));
    QString error;
    const ConfinedDirectory folder = ConfinedDirectory::open(m_layout.exchangePath(), description.left(cut),
                                                             ConfinedDirectory::Creation::Existing, &error);
    const std::optional<QByteArray> bytes =
        folder.isOpen() ? folder.readFile(description.mid(cut + 1), m_layout.maxImportBytes(), &error) : std::nullopt;
    if (!bytes)
        return error;
    FileGroupData record;
    QXmlStreamReader reader(*bytes);
    if (record.FromHtml(reader) != KE_NoError)
        return QStringLiteral("cannot read %1").arg(description);
    const QString guid = record.getGuid();
    if (!StorageLayout::isGuid(guid))
        return QStringLiteral("%1 names no valid GUID").arg(description);
    if (m_store.group(guid))
        return QStringLiteral("file group %1 is in the archive already").arg(guid);
    const FileGroupData::FileList files = record.getFileList();
    const QString refusal = fileListRefusal(files);
    if (!refusal.isEmpty())
        return QStringLiteral("%1: %2").arg(description, refusal);
    const QStringList names = namesOf(files);
    const QHash<QString, QString> manifest = readManifest(folder, &error);
    if (!error.isEmpty()) {
        *mismatch = true;
        return QStringLiteral("file group %1 is not imported: %2").arg(guid, error);
    }
    // A manifest that lists the group must list each of its files; one that
    // does not list it at all leaves the group's files unverified.
    const QString prefix = guid + QLatin1Char('/');
    const bool listed = std::any_of(manifest.keyBegin(), manifest.keyEnd(),
                                    [&prefix](const QString &path) { return path.startsWith(prefix); });
    const ConfinedDirectory source = folder.subdirectory(guid, &error);
    for (const QString &name : names) {
        if (!source.isOpen() || !source.checkRegularFile(name, &error))
            return QStringLiteral("file group %1: %2").arg(guid, error);
    }

    StoredGroup group;
    group.data = record;
    group.data.setFileList({});
    group.data.setLocationState(LS_Local);
    const QDateTime created = now();
    QString directory;
    try {
        directory = claimNewGroup(group, QString(), created);
    } catch (const RequestFailure &failure) {
        return failure.text;
    }
    // Files first: a group enters the archive only with all of its files.
    const ConfinedDirectory target =
        m_layout.openGroupDirectory(directory, ConfinedDirectory::Creation::Existing, &error);
    QStringList copied;
    QHash<QString, FileCheck> checks;
    const qint64 nowMs = now().toMSecsSinceEpoch();
    const auto undo = [&](const QString &failure) {
        removeGroupFiles(m_layout, directory, copied);
        m_layout.removeEmptyGroupDirectory(directory);
        return QStringLiteral("file group %1: %2").arg(guid, failure);
    };
    for (const QString &name : names) {
        ConfinedDirectory::Digest read;
        if (!target.isOpen() || !source.copyFileTo(name, target, &error, &read))
            return undo(error);
        copied.append(name);
        if (!listed)
            continue;
        const QString digest = FileDigest::hex(read.sha256);
        const QString expected = manifest.value(prefix + name);
        if (expected != digest) {
            *mismatch = true;
            return undo(
                QStringLiteral("%1 does not match the export's %2 (listed %3, read %4); nothing of the group "
                               "is imported")
                    .arg(name, kManifestName, expected.isEmpty() ? QStringLiteral("nothing") : expected, digest));
        }
        FileCheck &check = checks[name];
        check.size = read.size;
        check.algorithm = FileDigest::algorithm();
        check.digest = digest;
        check.checkedMs = nowMs;
        check.state = FileCheck::State::Ok;
    }
    try {
        registerGroup(group, directory, created, outcome);
        for (const auto &file : files)
            m_store.insertFile(guid, file.second, file.first, checks.value(file.first));
    } catch (const RequestFailure &) {
        removeGroupFiles(m_layout, directory, copied);
        m_layout.removeEmptyGroupDirectory(directory);
        throw;
    }
    return QString();
}

void ArchiveEngine::importArchive(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                  RequestOutcome &outcome)
{
    enforce(m_rules.checkImport(origin));
    // Every path is checked before any is used.
    QStringList items;
    for (const QString &item : request.texts(Tag::Path))
        items.append(item.trimmed().isEmpty() ? QString() : exchangeItem(item));
    QStringList descriptions;
    QStringList failures;
    for (const QString &item : qAsConst(items)) {
        if (item.isEmpty())
            failures.append(QStringLiteral("an empty path names no archive"));
        else
            collectDescriptions(item, descriptions, failures);
    }
    descriptions.sort();
    descriptions.removeDuplicates();
    int imported = 0;
    bool mismatch = false;
    for (const QString &description : qAsConst(descriptions)) {
        const QString failure = importDescription(description, outcome, &mismatch);
        if (failure.isEmpty())
            ++imported;
        else
            failures.append(failure);
    }
    if (mismatch)
        refuse(KE_ImportFileGroupIncomplete, failures.join(QLatin1String("; ")));
    if (!failures.isEmpty())
        refuse(imported > 0 ? KE_ImportArchiveIncomplete : KE_ImportArchiveFailed, failures.join(QLatin1String("; ")));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::moveToNas(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                              RequestOutcome &outcome)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    requireOwner(request.command, group, origin);
    const QString guid = group.data.getGuid();
    const LocationState state = group.data.getLocationState();
    if (state != LS_Local && state != LS_Tovin)
        refuse(KE_InvalidLocationStateForCommand,
               QStringLiteral("File group %1 is %2, not local").arg(guid, LocationStateString::GetText(state)));
    refuseWhileLocked(guid, origin);
    const MoveOrder order = moveOrder(group);
    // Refused now rather than failing on the mover's thread later: the
    // group stays local and the client hears why.
    const QString refusal = groupFilesRefusal(group.path, order.files, false);
    if (!refusal.isEmpty())
        refuse(KE_MoveFileGroupFailed, QStringLiteral("File group %1 stays local: %2").arg(guid, refusal));
    m_store.rememberUser(request.text(Tag::UserName));
    m_store.updateLocation(guid, LS_CentralNotMoved, group.path, 0);
    m_store.recordMoveClaim(guid);
    outcome.moves.push_back(order);
    writer.writeStatus(KE_NoError, QString());
}

FileCheck ArchiveEngine::checked(const FileCheck &recorded, const FileReading &reading, qint64 nowMs)
{
    FileCheck check = recorded;
    check.checkedMs = nowMs;
    if (!reading.found) {
        check.state = FileCheck::State::Missing;
    } else if (recorded.digest.isEmpty()) {
        // A file older than digests: its first reading is what it is.
        check.size = reading.size;
        check.algorithm = FileDigest::algorithm();
        check.digest = reading.digest;
        check.state = FileCheck::State::Ok;
    } else {
        const bool same = reading.digest == recorded.digest && reading.size == recorded.size;
        check.state = same ? FileCheck::State::Ok : FileCheck::State::Mismatch;
    }
    return check;
}

std::vector<FileCheck> ArchiveEngine::recordReadings(const QString &guid, const std::vector<FileReading> &readings)
{
    std::vector<FileCheck> checks = m_store.fileChecks(guid);
    const qint64 nowMs = now().toMSecsSinceEpoch();
    for (FileCheck &check : checks) {
        const auto reading = std::find_if(readings.begin(), readings.end(), [&check](const FileReading &r) {
            return r.fileId == check.fileId && r.name == check.name;
        });
        if (reading == readings.end())
            continue;
        check = checked(check, *reading, nowMs);
        m_store.recordCheck(guid, check);
        if (check.state == FileCheck::State::Mismatch)
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("File %1 (id %2) of group %3 differs from what was stored: "
                                           "recorded %4 (%5 bytes), read %6 (%7 bytes)")
                                .arg(check.name)
                                .arg(check.fileId)
                                .arg(guid, check.digest)
                                .arg(check.size)
                                .arg(reading->digest)
                                .arg(reading->size));
        else if (check.state == FileCheck::State::Missing)
            Q_TRACE_FAILURE(kSource,
                            QStringLiteral("File %1 (id %2) of group %3 is missing: %4")
                                .arg(check.name)
                                .arg(check.fileId)
                                .arg(guid, reading->error));
    }
    return checks;
}

void ArchiveEngine::writeChecks(ReplyWriter &writer, ReplyKind kind, const std::vector<FileCheck> &checks)
{
    writer.writeStartElement(Tag::Files);
    for (const FileCheck &check : checks) {
        writer.writeRecord(Descriptor(kind),
                           {QString::number(check.fileId), check.name,
                            check.size < 0 ? QString() : QString::number(check.size), check.algorithm, check.digest,
                            check.checkedMs > 0 ? QString::fromLatin1(localTimeText(check.checkedMs)) : QString(),
                            FileCheck::stateText(check.state)});
    }
    writer.writeEndElement();
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::getFileChecksums(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                     RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    writeChecks(writer, ReplyKind::GetFileChecksums, m_store.fileChecks(group.data.getGuid()));
}

void ArchiveEngine::verifyFileGroup(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                    RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    refuseWhileMoving(group);
    if (!origin.readings)
        refuse(KE_ReadFileFailed, QStringLiteral("The files of group %1 were not read").arg(group.data.getGuid()));
    writeChecks(writer, ReplyKind::VerifyFileGroup, recordReadings(group.data.getGuid(), *origin.readings));
}

void ArchiveEngine::moveProgressed(const QString &guid, double percent)
{
    std::optional<StoredGroup> group = m_store.group(guid);
    if (group && group->data.getLocationState() == LS_CentralNotMoved)
        m_store.updateLocation(guid, LS_CentralNotMoved, group->path, percent);
}

void ArchiveEngine::moveFinished(const QString &guid, const QString &directory, bool ok)
{
    std::optional<StoredGroup> group = m_store.group(guid);
    if (!group || group->data.getLocationState() != LS_CentralNotMoved)
        return;
    m_store.dropMoveClaim(guid);
    if (ok) {
        m_store.updateLocation(guid, LS_Central, directory, 100);
        m_store.touch(guid, now().toMSecsSinceEpoch());
    } else {
        m_store.updateLocation(guid, LS_Local, group->path, FailedMoveProgress);
    }
}

MoveOrder ArchiveEngine::moveOrder(const StoredGroup &group)
{
    const QString guid = group.data.getGuid();
    MoveOrder order;
    order.guid = guid;
    order.from = group.path;
    order.to = m_layout.nasDirectoryFor(group.path, guid);
    order.files = namesOf(m_store.files(guid));
    order.sourceRoot = m_layout.rootOf(group.path);
    order.targetRoot = m_layout.nasPath();
    for (const FileCheck &check : m_store.fileChecks(guid)) {
        if (!check.digest.isEmpty())
            order.digests.insert(check.name, QByteArray::fromHex(check.digest.toLatin1()));
    }
    return order;
}

std::vector<MoveOrder> ArchiveEngine::unfinishedMoves()
{
    std::vector<MoveOrder> orders;
    for (const QString &guid : m_store.groupsInState(LS_CentralNotMoved)) {
        // Another server sharing the database may be carrying it already.
        const std::optional<StoredGroup> group = m_store.group(guid);
        if (group && group->data.getLocationState() == LS_CentralNotMoved && m_store.claimMove(guid))
            orders.push_back(moveOrder(*group));
    }
    return orders;
}

void ArchiveEngine::queryLocationStateProgress(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                               RequestOutcome &)
{
    const QString guid = request.text(Tag::Guid);
    const std::optional<StoredGroup> group = guid.isEmpty() ? std::nullopt : m_store.group(guid);
    if (!group) {
        writer.writeNumber(Tag::LocationState, LS_UnknownFileGroup);
        writer.writeText(Tag::CopyProgress, QStringLiteral("0"));
        writer.writeStatus(KE_GuidNotFound, QStringLiteral("No file group %1").arg(guid));
        return;
    }
    writer.writeNumber(Tag::LocationState, group->data.getLocationState());
    if (group->data.getLocationState() == LS_Local && group->copyProgress < 0) {
        writer.writeText(Tag::CopyProgress, QStringLiteral("0"));
        writer.writeStatus(KE_MoveFileGroupFailed,
                           QStringLiteral("The move of file group %1 to network storage failed; it stays local and "
                                          "the server's trace tells why")
                               .arg(guid));
        return;
    }
    writer.writeText(Tag::CopyProgress, QString::number(group->copyProgress));
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::checkFileGroupExists(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                         RequestOutcome &)
{
    const QString guid = request.text(Tag::Guid);
    if (guid.trimmed().isEmpty()) {
        writer.writeBool(Tag::Exists, false);
        writer.writeStatus(KE_GuidNotFound, QStringLiteral("The request names no file group"));
        return;
    }
    writer.writeBool(Tag::Exists, m_store.group(guid).has_value());
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::getRemoteStorageLocation(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                             RequestOutcome &)
{
    const StoredGroup group = requireGroup(request.text(Tag::Guid));
    QString target = group.path;
    const qint64 fileId = request.number(Tag::FileId);
    if (fileId != 0) {
        const std::optional<QString> name =
            fileId > 0 && fileId <= INT_MAX ? m_store.fileName(group.data.getGuid(), int(fileId)) : std::nullopt;
        if (!name)
            refuse(KE_FileGroupIdNotFound,
                   QStringLiteral("File group %1 holds no file %2").arg(group.data.getGuid()).arg(fileId));
        target = QDir(group.path).filePath(*name);
    }
    writer.writeText(Tag::RemoteIp, origin.localAddress);
    writer.writeText(Tag::AttachmentUrl, QUrl::fromLocalFile(target).toString());
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::getTovinFilegroupGuid(const Request &request, const RequestOrigin &, ReplyWriter &writer,
                                          RequestOutcome &)
{
    // The Tovin id travels as Guid and the record id as FileId.
    const QString tovinId = request.text(Tag::Guid);
    const QString recordId = request.text(Tag::FileId);
    const std::optional<QString> guid = tovinId.isEmpty() ? std::nullopt : m_store.tovinGroup(tovinId, recordId);
    if (!guid)
        refuse(KE_GuidNotFound, QStringLiteral("No file group of Tovin %1, record %2").arg(tovinId, recordId));
    writer.writeText(Tag::Guid, *guid);
    writer.writeStatus(KE_NoError, QString());
}

void ArchiveEngine::registerConverter(const Request &request, const RequestOrigin &origin, ReplyWriter &writer,
                                      RequestOutcome &outcome)
{
    enforce(m_rules.checkConverter(origin));
    if (request.text(Tag::ConverterId).trimmed().isEmpty())
        refuse(KE_UnknownError, QStringLiteral("The converter has no id"));
    for (const QString &text : request.texts(Tag::FileType)) {
        bool ok = false;
        const int type = text.trimmed().toInt(&ok);
        if (!ok || type < FT_Unknown || type > FT_Last)
            refuse(KE_UnknownError, QStringLiteral("Unknown file type \"%1\"").arg(text));
        outcome.converterTypes.append(type);
    }
    outcome.registersConverter = true;
    writer.writeStatus(KE_NoError, QString());
}

} // namespace Kelda
