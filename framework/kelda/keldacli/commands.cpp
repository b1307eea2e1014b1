#include "commands.h"

#include "clisession.h"
#include "cliformat.h"
#include "commandsupport.h"
#include "completion.h"
#include "getcommand.h"
#include "importcheck.h"
#include "progress.h"
#include "putcommand.h"
#include "queryoptions.h"

#include "filequery.h"
#include "keldaclient.h"
#include "keldaurl.h"

#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QFileInfo>

using namespace Kelda;

namespace KeldaCli {

namespace {

const QString kJson = QStringLiteral("json");
const QString kTo = QStringLiteral("to");
const QString kAll = QStringLiteral("all");
const QString kWide = QStringLiteral("wide");

constexpr int kMovePollMs = 250;
// A move that shows no change for this long has stalled.
constexpr qint64 kMoveStallMs = ReplyWait::kReplyTimeoutMs;

void addJsonOption(QCommandLineParser &parser)
{
    parser.addOption({kJson, QStringLiteral("Print one JSON document.")});
}

// ---------------------------------------------------------------- ls

void lsOptions(QCommandLineParser &parser)
{
    addQueryOptions(parser);
    addJsonOption(parser);
    parser.addOption({kWide, QStringLiteral("Show every column of the table.")});
}

ExitCode runLs(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 0, 0))
        return code;
    FileQuery query;
    QString error;
    if (!queryFromOptions(parser, query, error))
        return session.fail(ExitUsage, error);
    if (const ExitCode code = session.connect())
        return code;

    unsigned int columns = 0;
    const QStringList reply = session.client().QueryFiles(query, columns);
    if (reply.isEmpty() || columns == 0)
        return session.blockingFailure();
    if (parser.isSet(kJson))
        session.writeOut(jsonText(fileGroupsToJson(queryRecords(reply, int(columns)))));
    else
        session.out() << formatQueryTable(reply, int(columns), parser.isSet(kWide));
    return ExitOk;
}

// ---------------------------------------------------------------- files, info

void groupOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("GUID"), QStringLiteral("The file group."));
}

void groupJsonOptions(QCommandLineParser &parser)
{
    groupOptions(parser);
    addJsonOption(parser);
}

ExitCode runFiles(const QCommandLineParser &parser, Session &session)
{
    QString guid;
    if (const ExitCode code = guidArgument(parser, session, guid))
        return code;
    if (const ExitCode code = session.connect())
        return code;

    // The record names each file with its id; the plain file list may
    // interleave ids and names, depending on the server.
    FileGroupData group;
    if (const ExitCode code = queryMetaData(session, guid, group))
        return code;
    const FileGroupData::FileList &files = group.getFileList();
    if (parser.isSet(kJson))
        session.writeOut(jsonText(filesToJson(guid, files)));
    else
        session.out() << formatFiles(guid, files);
    return ExitOk;
}

ExitCode runInfo(const QCommandLineParser &parser, Session &session)
{
    QString guid;
    if (const ExitCode code = guidArgument(parser, session, guid))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    FileGroupData group;
    if (const ExitCode code = queryMetaData(session, guid, group))
        return code;
    // A server that keeps no digests still has the rest to show.
    std::vector<FileChecksum> checksums;
    Outcome outcome;
    if (const ExitCode code = requestChecksums(session, guid, false, checksums, outcome))
        return code;
    if (outcome.error == KE_UnknownReplyCommand)
        session.detail(QStringLiteral("the server keeps no digests"));
    else if (outcome.error != KE_NoError)
        return session.serverError(outcome.error, outcome.text);
    if (parser.isSet(kJson))
        session.writeOut(jsonText(fileGroupToJson(group, true, checksums)));
    else
        session.out() << formatFileGroup(group, checksums);
    return ExitOk;
}

// ---------------------------------------------------------------- verify

void verifyOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("GUID"), QStringLiteral("File groups to verify."),
                                 QStringLiteral("GUID..."));
    parser.addOption({kAll, QStringLiteral("Verify every file group of the archive.")});
    addJsonOption(parser);
}

// The GUIDs of every group, from the listing `ls` shows.
ExitCode allGroups(Session &session, QStringList &guids)
{
    unsigned int columns = 0;
    const QStringList reply = session.client().QueryFiles(FileQuery(), columns);
    if (reply.isEmpty() || columns == 0)
        return session.blockingFailure();
    for (const FileGroupData &group : queryRecords(reply, int(columns)))
        guids.append(group.getGuid());
    return ExitOk;
}

ExitCode runVerify(const QCommandLineParser &parser, Session &session)
{
    const bool all = parser.isSet(kAll);
    if (const ExitCode code = expectArguments(parser, session, all ? 0 : 1, all ? 0 : -1))
        return code;
    QStringList guids = parser.positionalArguments();
    for (const QString &guid : guids) {
        if (!isGuid(guid))
            return session.fail(ExitUsage, QStringLiteral("'%1' is not a file group GUID").arg(guid));
    }
    if (const ExitCode code = session.connect())
        return code;
    if (all) {
        if (const ExitCode code = allGroups(session, guids))
            return code;
    }

    std::vector<FileChecksum> files;
    for (const QString &guid : guids) {
        std::vector<FileChecksum> group;
        Outcome outcome;
        if (const ExitCode code = requestChecksums(session, guid, true, group, outcome))
            return code;
        if (outcome.error == KE_UnknownReplyCommand)
            return session.fail(ExitServerError,
                                QStringLiteral("the server keeps no digests and cannot verify files: %1 (error %2)")
                                    .arg(outcome.text.trimmed())
                                    .arg(outcome.error));
        if (outcome.error != KE_NoError)
            return session.serverError(outcome.error, outcome.text);
        files.insert(files.end(), group.begin(), group.end());
    }
    if (parser.isSet(kJson))
        session.writeOut(jsonText(checksumsToJson(files)));
    else
        session.out() << formatChecksums(files);
    qint64 notIntact = 0;
    for (const FileChecksum &file : files) {
        if (file.state != kChecksumStateOk)
            ++notIntact;
    }
    if (notIntact == 0)
        return ExitOk;
    return session.fail(
        ExitNotIntact,
        QStringLiteral("%1 of %2 not intact").arg(countText(notIntact, "file")).arg(qint64(files.size())));
}

// ---------------------------------------------------------------- rm, exists, ref, unref

void rmOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("TARGET"),
                                 QStringLiteral("kelda:///GUID/ID deletes one file; GUID or kelda:///GUID the group."),
                                 QStringLiteral("URL|GUID"));
    addDryRunOption(parser);
}

// The group as the server has it, for what rm --dry-run would delete.
ExitCode describeRemoval(Session &session, const KeldaUrl &url)
{
    FileGroupData group;
    if (const ExitCode code = queryMetaData(session, url.toKeldaGuid(), group))
        return code;
    if (!url.hasKeldaFileId()) {
        session.out() << QStringLiteral("would delete group \"%1\" (%2) with %3\n")
                             .arg(group.getFileGroupName(), group.getGuid(),
                                  countText(qint64(group.getFileList().size()), "file"));
        return ExitOk;
    }
    for (const FileGroupData::FileEntry &file : group.getFileList()) {
        if (unsigned(file.second) == url.toKeldaFileId()) {
            session.out() << QStringLiteral("would delete %1 (%2) of group \"%3\"\n")
                                 .arg(file.first, url.toString(), group.getFileGroupName());
            return ExitOk;
        }
    }
    return session.serverError(
        KE_FileGroupIdNotFound,
        QStringLiteral("File group %1 holds no file %2").arg(url.toKeldaGuid()).arg(url.toKeldaFileId()));
}

ExitCode runRm(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    KeldaUrl url;
    if (!readTarget(parser.positionalArguments().constFirst(), url))
        return session.fail(
            ExitUsage,
            QStringLiteral("'%1' is neither a GUID nor a kelda URL").arg(parser.positionalArguments().constFirst()));
    if (const ExitCode code = session.connect())
        return code;
    if (parser.isSet(kDryRunOption))
        return describeRemoval(session, url);
    KeldaClient &client = session.client();
    if (url.hasKeldaFileId())
        return simpleRequest(session, &KeldaClient::DeleteFileNameSg, [&] { return client.DeleteFileName(url); });
    return simpleRequest(session, &KeldaClient::deleteFileGroupSg,
                         [&] { return client.DeleteFileGroupAsync(url.toKeldaGuid()); });
}

ExitCode runExists(const QCommandLineParser &parser, Session &session)
{
    QString guid;
    if (const ExitCode code = guidArgument(parser, session, guid))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    bool exists = false;
    Outcome outcome;
    const ExitCode code = request(
        session, &KeldaClient::checkFileGroupExistsSg, [&] { return session.client().CheckFileGroupExists(guid); },
        [&](const QString &expected, QString id, bool found, int error, QString text) {
            if (id != expected)
                return false;
            exists = found;
            outcome = {error, text};
            return true;
        });
    if (code != ExitOk)
        return code;
    // An unknown GUID is an answer, not a failure.
    if (outcome.error != KE_NoError && outcome.error != KE_GuidNotFound)
        return session.serverError(outcome.error, outcome.text);
    session.out() << (exists ? "yes" : "no") << '\n';
    return exists ? ExitOk : ExitNo;
}

ExitCode runRef(const QCommandLineParser &parser, Session &session)
{
    QString guid;
    if (const ExitCode code = guidArgument(parser, session, guid))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    return simpleRequest(
        session, &KeldaClient::AddReferenceSg,
        [&] {
            session.client().AddReference(guid);
            return kUnnamedRequest;
        },
        true);
}

void unrefOptions(QCommandLineParser &parser)
{
    groupOptions(parser);
    parser.addOption({kAll, QStringLiteral("Remove the references of every application.")});
}

ExitCode runUnref(const QCommandLineParser &parser, Session &session)
{
    QString guid;
    if (const ExitCode code = guidArgument(parser, session, guid))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    KeldaClient &client = session.client();
    if (parser.isSet(kAll)) {
        return simpleRequest(
            session, &KeldaClient::RemoveAllReferenceSg,
            [&] {
                client.RemoveAllReferences(guid);
                return kUnnamedRequest;
            },
            true);
    }
    return simpleRequest(
        session, &KeldaClient::RemoveReferenceSg,
        [&] {
            client.RemoveReference(guid);
            return kUnnamedRequest;
        },
        true);
}

// ---------------------------------------------------------------- users, apps

void listOptions(QCommandLineParser &parser)
{
    addJsonOption(parser);
}

ExitCode printList(const QCommandLineParser &parser, Session &session, const QStringList &list)
{
    if (list.isEmpty() && session.client().GetError() != KE_NoError)
        return session.blockingFailure();
    if (parser.isSet(kJson)) {
        session.writeOut(jsonText(QJsonArray::fromStringList(list)));
        return ExitOk;
    }
    for (const QString &item : list)
        session.out() << item << '\n';
    return ExitOk;
}

ExitCode runUsers(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 0, 0))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    return printList(parser, session, session.client().GetUserList());
}

ExitCode runApps(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 0, 0))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    return printList(parser, session, session.client().GetApplicationList());
}

// ---------------------------------------------------------------- move

struct LocationProgress
{
    int state = LS_Undefined;
    double progress = 0.0;
};

ExitCode queryLocation(Session &session, const QString &guid, LocationProgress &location)
{
    Outcome outcome;
    const ExitCode code = request(
        session, &KeldaClient::queryLocationStateProgressSg,
        [&] { return session.client().QueryLocationStateProgress(guid); },
        [&](const QString &expected, QString id, int state, double progress, int error, QString text) {
            if (id != expected)
                return false;
            location = {state, progress};
            outcome = {error, text};
            return true;
        });
    if (code != ExitOk)
        return code;
    return outcome.error == KE_NoError ? ExitOk : session.serverError(outcome.error, outcome.text);
}

ExitCode runMove(const QCommandLineParser &parser, Session &session)
{
    QString guid;
    if (const ExitCode code = guidArgument(parser, session, guid))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    if (const ExitCode code =
            simpleRequest(session, &KeldaClient::MoveToNasSg, [&] { return session.client().MoveToNas(guid); }))
        return code;

    Progress display(QStringLiteral("move"));
    LocationProgress last{-1, -1.0};
    QElapsedTimer sinceChange;
    sinceChange.start();
    for (;;) {
        LocationProgress now;
        if (const ExitCode code = queryLocation(session, guid, now))
            return code;
        if (now.state == LS_Central)
            return ExitOk;
        if (now.state != last.state || now.progress != last.progress) {
            last = now;
            sinceChange.restart();
        } else if (sinceChange.elapsed() > kMoveStallMs) {
            return session.fail(ExitTimeout,
                                QStringLiteral("the move made no progress for %1 s (location: %2)")
                                    .arg(kMoveStallMs / 1000)
                                    .arg(LocationStateString::GetText(LocationState(now.state))));
        }
        display.update(QStringLiteral("%1 (progress %2)")
                           .arg(LocationStateString::GetText(LocationState(now.state)))
                           .arg(now.progress));
        pause(kMovePollMs);
    }
}

// ---------------------------------------------------------------- export, import

void exportOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("GUID"), QStringLiteral("File groups to export."),
                                 QStringLiteral("GUID..."));
    parser.addOption({kTo,
                      QStringLiteral("Directory to export into (required), below the server's exchange folder; a "
                                     "relative path is taken below that folder."),
                      QStringLiteral("DIR")});
}

ExitCode runExport(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, -1))
        return code;
    const QStringList guids = parser.positionalArguments();
    for (const QString &guid : guids) {
        if (!isGuid(guid))
            return session.fail(ExitUsage, QStringLiteral("'%1' is not a file group GUID").arg(guid));
    }
    if (!parser.isSet(kTo))
        return session.fail(ExitUsage, QStringLiteral("--to DIR is required"));
    // The server resolves the path below its exchange folder, not here.
    const QString target = parser.value(kTo);
    if (const ExitCode code = session.connect())
        return code;
    return simpleRequest(session, &KeldaClient::exportArchiveSg,
                         [&] { return session.client().ExportArchiveAsync(guids, target); });
}

void importOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("DIR"),
                                 QStringLiteral("Exported archives to import, below the server's exchange folder; a "
                                                "relative path is taken below that folder."),
                                 QStringLiteral("DIR..."));
    addDryRunOption(parser);
}

ExitCode runImport(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, -1))
        return code;
    // The server resolves the paths below its exchange folder, not here.
    const QStringList items = parser.positionalArguments();
    if (parser.isSet(kDryRunOption)) {
        // Only what this machine sees can be checked without the server.
        QStringList local;
        for (const QString &dir : items) {
            if (!QFileInfo::exists(dir))
                return session.fail(ExitLocalFile,
                                    QStringLiteral("'%1' is not visible here; a dry run checks only "
                                                   "archives this machine sees")
                                        .arg(dir));
            local.append(QFileInfo(dir).absoluteFilePath());
        }
        return checkImport(local, session);
    }
    if (const ExitCode code = session.connect())
        return code;
    return simpleRequest(session, &KeldaClient::importArchiveSg,
                         [&] { return session.client().ImportArchiveAsync(items); });
}

} // namespace

const std::vector<Command> &commands()
{
    static const std::vector<Command> table = {
        {"put", "FILE...", "Store local files (folders with -r) as a new file group; prints a URL per file.",
         putOptions, runPut},
        {"get", "URL|GUID",
         "Fetch an archived file, or every file of a group, under a read lock; a copy that differs from the archive's "
         "SHA-256 is removed (exit 7).",
         getOptions, runGet},
        {"ls", "", "List the file groups that match a query.", lsOptions, runLs},
        {"files", "GUID", "List the files of a group.", groupJsonOptions, runFiles},
        {"info", "GUID", "Show the metadata of a group, with each file's digest and state.", groupJsonOptions, runInfo},
        {"verify", "GUID... | --all",
         "Have the server read the groups' files again and compare them with their digests; exit 8 when any is not "
         "intact.",
         verifyOptions, runVerify},
        {"rm", "URL|GUID", "Delete one file (URL) or a whole group (GUID).", rmOptions, runRm},
        {"users", "", "List the users the server knows.", listOptions, runUsers},
        {"apps", "", "List the applications the server knows.", listOptions, runApps},
        {"exists", "GUID", "Exit 0 when the group exists, 1 when it does not.", groupOptions, runExists},
        {"ref", "GUID", "Add a reference from the application (--app).", groupOptions, runRef},
        {"unref", "GUID", "Remove the reference of the application (--app).", unrefOptions, runUnref},
        {"move", "GUID", "Move a group to network storage; returns once it is central.", groupOptions, runMove},
        {"export", "GUID... --to DIR", "Export groups into a directory below the server's exchange folder.",
         exportOptions, runExport},
        {"import", "DIR...", "Import exported archives from below the server's exchange folder.", importOptions,
         runImport},
        {"completion", "bash|zsh|fish", "Print a shell completion script.", completionOptions, runCompletion},
    };
    return table;
}

const Command *findCommand(const QString &name)
{
    for (const Command &command : commands()) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

} // namespace KeldaCli
