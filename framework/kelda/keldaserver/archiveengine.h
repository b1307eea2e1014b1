#pragma once

#include "accessrules.h"
#include "archivestore.h"
#include "commanddescriptors.h"
#include "filereading.h"
#include "request.h"
#include "storagelayout.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Kelda {

class AnswerSpool;
class ReplyWriter;
class SpoolFolder;

// A group that converters of its type should hear about.
struct NewGroupNotice
{
    QString guid;
    int fileType = 0;
    QString path;
};

// A group's files to carry to network storage once the change is committed:
// the files it registered, from its directory below sourceRoot into one
// below targetRoot.
struct MoveOrder
{
    QString guid;
    QString from;
    QString to;
    QStringList files;
    QString sourceRoot;
    QString targetRoot;
    // The digests recorded when the files were added, by name; a file
    // without one (never verified yet) is checked against its own source.
    QHash<QString, QByteArray> digests;
};

// What carrying out one request produced. Side effects outside the database
// (removing files, starting moves, telling converters) wait in here until the
// transaction that holds the request is committed.
struct RequestOutcome
{
    QByteArray reply; // empty: the request is answered by no reply
    // A large reply, written to disk as it was made; reply is empty then.
    std::shared_ptr<AnswerSpool> spool;
    std::vector<std::function<void()>> afterCommit;
    std::vector<NewGroupNotice> newGroups;
    std::vector<MoveOrder> moves;
    bool registersConverter = false;
    QVector<int> converterTypes;
    // Failed against another server's concurrent change of the same rows:
    // carry it out again once this transaction is over.
    bool retry = false;
    // The reply's error code, and whether the ownership rules refused it.
    KeldaError code = KE_NoError;
    bool refused = false;
    // The file the request acted on, when the server chose it.
    std::optional<qint64> fileId;
    // AddFile of a file too large to read here: once the digest pool has
    // read it in this directory (RequestOrigin::readings), the request is
    // carried out again. The reply refuses it as unread meanwhile.
    QString readFirstIn;
};

// Where a request came from.
struct RequestOrigin
{
    quint64 connectionId = 0;
    quint64 sequence = 0; // position among the connection's answered requests
    QString localAddress; // the server's address on that connection
    QString peerAddress; // the client's address
    // The user the client's verified certificate names; empty when clients
    // are not identified by certificate.
    QString certificateUser;
    // The files the digest pool read for this request before it reached
    // the database thread (VerifyFileGroup; AddFile of a large file); null
    // when the pool has not had the request.
    std::shared_ptr<const std::vector<FileReading>> readings;
};

// The archive's rules: carries out one request against the store and the
// group directories and writes its reply. Runs on the database thread,
// inside the transaction the caller opened; a RequestFailure thrown by a
// handler is turned into an error reply here, and the caller rolls the
// request's changes back.
class ArchiveEngine
{
public:
    ArchiveEngine(ArchiveStore &store, const StorageLayout &layout);

    // The answer to a command this server does not know: code 41 in the
    // command's own reply element, so that a client newer than the server
    // learns at once that it lacks the command.
    static QByteArray unknownCommandReply(const Request &request);

    // Whether this server carries out the command.
    static bool isKnown(const QString &command) { return handlerFor(command) != nullptr; }
    // Who may do what; without a call every request is allowed, as for
    // clients that are not identified.
    void setAccessRules(const AccessRules &rules) { m_rules = rules; }

    // Query answers are written as their rows are read into spools of this
    // folder, which keep a large one on disk (RequestOutcome::spool);
    // without a folder every reply is built whole in memory.
    void setSpoolFolder(std::shared_ptr<SpoolFolder> folder) { m_spoolFolder = std::move(folder); }

    // Whether a command only reads; such requests may run beside changes.
    static bool isReadOnly(const QString &command);

    // Returns whether the request succeeded; the outcome holds the reply
    // either way.
    bool handle(const Request &request, const RequestOrigin &origin, RequestOutcome &outcome);

    // Steps of a move to network storage, reported by the mover.
    void moveProgressed(const QString &guid, double percent);
    void moveFinished(const QString &guid, const QString &directory, bool ok);
    // Moves that were under way when the server stopped.
    std::vector<MoveOrder> unfinishedMoves();

    // Records fresh readings of a group's files, each compared with the
    // digest recorded before; returns the group's files as recorded now.
    // A mismatch or a missing file is traced as a failure.
    std::vector<FileCheck> recordReadings(const QString &guid, const std::vector<FileReading> &readings);
    // What a reading makes of a file's record at nowMs.
    static FileCheck checked(const FileCheck &recorded, const FileReading &reading, qint64 nowMs);

    // The copy progress a local group keeps after a move that failed, so
    // that the next look at its location reports the failure.
    static constexpr double FailedMoveProgress = -1;
    // AddFile reads and digests a file of at most this size itself, within
    // the time of a commit; a larger one goes to the digest pool first
    // (RequestOutcome::readFirstIn), so that it holds up no other client.
    static constexpr qint64 InlineDigestBytes = 64 * 1024;

    // Current time, whole seconds: the forms shown to users have no
    // fraction, so a time window a user types matches what was stored.
    static QDateTime now();

private:
    using Handler = void (ArchiveEngine::*)(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    static Handler handlerFor(const QString &command);

    StoredGroup requireGroup(const QString &guid);
    // Enough of a group for requests on its files.
    GroupPlace requirePlace(const QString &guid);
    void refuseWhileMoving(const StoredGroup &group);
    void refuseWhileMoving(const QString &guid, LocationState state);
    void refuseWhileLocked(const QString &guid, const RequestOrigin &origin);
    // A lock's holder named as far as the caller may see it.
    QString lockedText(const QString &guid, const LockHolder &holder, const RequestOrigin &origin) const;
    // The refusal of a change to a group the caller may not change.
    void requireOwner(const QString &command, const StoredGroup &group, const RequestOrigin &origin) const;

    void getBasePath(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void createFileGroup(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void createTovinFileGroup(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void addFile(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void requestFile(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void closeFile(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void deleteFile(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void deleteFileGroup(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void addReference(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void removeReference(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void removeAllReferences(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void queryMetaData(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void getFileList(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void getUserList(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void getApplicationList(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void queryFileGroups(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void exportArchive(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void importArchive(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void moveToNas(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void queryLocationStateProgress(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void checkFileGroupExists(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void getRemoteStorageLocation(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void getTovinFilegroupGuid(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void registerConverter(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void getFileChecksums(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);
    void verifyFileGroup(const Request &, const RequestOrigin &, ReplyWriter &, RequestOutcome &);

    // The reply once its handler is done: whole, or the rest of its spool.
    static void finishReply(ReplyWriter &writer, RequestOutcome &outcome);
    static void spool(AnswerSpool &spool, const QByteArray &bytes);

    static void writeChecks(ReplyWriter &writer, ReplyKind kind, const std::vector<FileCheck> &checks);
    // What AddFile's one look at its file found: its size (negative when
    // it is no regular file, error then says why) and, unless the pool has
    // read it, the digest of a small file or why it could not be read.
    struct AddedFile
    {
        qint64 size = -1;
        std::optional<ConfinedDirectory::Digest> digest;
        QString error;
    };
    static AddedFile lookAtAddedFile(const ConfinedDirectory &directory, const QString &name,
                                     const RequestOrigin &origin);
    // The digest an added file is recorded with: read here when the file
    // is small, else the pool's reading, compared with the size found now.
    FileCheck checkOfAddedFile(const GroupPlace &group, const QString &name, const RequestOrigin &origin,
                               const AddedFile &added, RequestOutcome &outcome);
    FileCheck checkOfPoolReading(const GroupPlace &group, const QString &name, const RequestOrigin &origin,
                                 qint64 sizeNow);
    // A file's record as read just now.
    static FileCheck checkOf(const QString &name, const FileReading &reading);

    QString createGroup(StoredGroup group, const QString &requestedPath, RequestOutcome &outcome);
    // Checks a new group and creates its directory; returns the directory.
    QString claimNewGroup(StoredGroup &group, const QString &requestedPath, const QDateTime &created);
    void registerGroup(StoredGroup group, const QString &directory, const QDateTime &created, RequestOutcome &outcome);
    QString groupFilesRefusal(const QString &directory, const QStringList &names, bool missingAllowed) const;
    MoveOrder moveOrder(const StoredGroup &group);

    QString exchangeItem(const QString &requested) const;
    QString exportGroup(const QString &guid, const ConfinedDirectory &target, QStringList &manifest);
    QString writeManifest(const ConfinedDirectory &target, const QStringList &lines) const;
    // The digests an export's manifest lists, by "GUID/name"; empty when
    // the export has none (it came from a server older than digests).
    QHash<QString, QString> readManifest(const ConfinedDirectory &folder, QString *error) const;
    void collectDescriptions(const QString &item, QStringList &descriptions, QStringList &failures) const;
    // Empty when the group was imported; *mismatch tells a file that
    // differs from the export's manifest from other failures.
    QString importDescription(const QString &description, RequestOutcome &outcome, bool *mismatch);

    ArchiveStore &m_store;
    StorageLayout m_layout;
    AccessRules m_rules;
    std::shared_ptr<SpoolFolder> m_spoolFolder;
};

} // namespace Kelda
