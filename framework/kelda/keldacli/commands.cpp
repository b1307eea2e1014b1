#include "commands.h"

#include "clisession.h"
#include "cliformat.h"
#include "progress.h"
#include "queryoptions.h"

#include "filequery.h"
#include "keldaclient.h"
#include "keldafile.h"
#include "keldaurl.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>

#include <functional>

using namespace Kelda;

namespace KeldaCli {

namespace {

const QString kJson = QStringLiteral("json");
const QString kOutput = QStringLiteral("output");
const QString kTo = QStringLiteral("to");
const QString kAll = QStringLiteral("all");
const QString kWide = QStringLiteral("wide");
const QString kType = QStringLiteral("type");
const QString kName = QStringLiteral("name");
const QString kVersion = QStringLiteral("version");
const QString kComment = QStringLiteral("comment");
const QString kDetail = QStringLiteral("detail");
const QString kDays = QStringLiteral("lifecycle-days");
const QString kStdout = QStringLiteral("-");

constexpr unsigned int kDefaultLifeCycleDays = 30;
constexpr int kMovePollMs = 250;
// A move that shows no change for this long has stalled.
constexpr qint64 kMoveStallMs = ReplyWait::kReplyTimeoutMs;

bool isGuid(const QString &text)
{
    static const QRegularExpression guid(QStringLiteral(
        "^[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}$"));
    return guid.match(text).hasMatch();
}

// A GUID or a kelda URL; `url` is the group's URL for a bare GUID.
bool readTarget(const QString &text, KeldaUrl &url)
{
    if (isGuid(text)) {
        url = KeldaUrl::fromKeldaGuid(text);
        return true;
    }
    url = KeldaUrl(text);
    return url.isKeldaUrl() && isGuid(url.toKeldaGuid()) && (!url.hasKeldaFileId() || url.toKeldaFileId() > 0);
}

ExitCode expectArguments(const QCommandLineParser &parser, Session &session, int min, int max)
{
    const int count = parser.positionalArguments().size();
    if (count >= min && (max < 0 || count <= max))
        return ExitOk;
    const QString expected = min == max ? QString::number(min)
                             : max < 0  ? QStringLiteral("at least %1").arg(min)
                                        : QStringLiteral("%1 to %2").arg(min).arg(max);
    return session.fail(ExitUsage, QStringLiteral("expected %1 argument(s), got %2; see --help").arg(expected).arg(count));
}

// The single GUID argument of the group commands.
ExitCode guidArgument(const QCommandLineParser &parser, Session &session, QString &guid)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    guid = parser.positionalArguments().constFirst();
    if (!isGuid(guid))
        return session.fail(ExitUsage, QStringLiteral("'%1' is not a file group GUID").arg(guid));
    return ExitOk;
}

void addJsonOption(QCommandLineParser &parser)
{
    parser.addOption({kJson, QStringLiteral("Print one JSON document.")});
}

// Sends one request and waits for its reply signal. `send` returns the
// request id; `signal` is connected to `onReply`, which returns true for
// the reply of that id.
template <typename Signal, typename OnReply>
ExitCode request(Session &session, Signal signal, const std::function<QString()> &send, OnReply onReply)
{
    // A dropped connection would otherwise only show after the full wait for
    // operations that return no request id.
    if (!session.client().IsConnected())
        return session.blockingFailure();
    ReplyWait wait(session.client());
    QString requestId;
    QObject::connect(&session.client(), signal, &wait, [&](auto... args) {
        if (onReply(requestId, args...))
            wait.finish();
    });
    requestId = send();
    if (requestId.isEmpty())
        return session.blockingFailure();
    return session.waitResult(wait.exec());
}

// The reply of a three-argument signal (request id, error, text).
struct Outcome
{
    int error = 0;
    QString text;
};

template <typename Signal>
ExitCode simpleRequest(Session &session, Signal signal, const std::function<QString()> &send, bool anyRequestId = false)
{
    Outcome outcome;
    const ExitCode code = request(session, signal, send, [&](const QString &expected, QString id, int error, QString text) {
        if (!anyRequestId && id != expected)
            return false;
        outcome = {error, text};
        return true;
    });
    if (code != ExitOk)
        return code;
    return outcome.error == KE_NoError ? ExitOk : session.serverError(outcome.error, outcome.text);
}

// Operations that return no request id are matched by their signal alone;
// this stands for the id so that request() sees something was sent.
const QString kUnnamedRequest = QStringLiteral("unnamed");

ExitCode queryMetaData(Session &session, const QString &guid, FileGroupData &group)
{
    Outcome outcome;
    const ExitCode code = request(
        session, &KeldaClient::QueryMetaDataSg,
        [&] { return session.client().QueryMetaDataAsync(guid, session.settings().application); },
        [&](const QString &expected, QString id, FileGroupData data, int error, QString text) {
            if (id != expected)
                return false;
            group = data;
            outcome = {error, text};
            return true;
        });
    if (code != ExitOk)
        return code;
    return outcome.error == KE_NoError ? ExitOk : session.serverError(outcome.error, outcome.text);
}

// ---------------------------------------------------------------- put

void putOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("Local files to store as one file group."),
                                 QStringLiteral("FILE..."));
    parser.addOption({{QStringLiteral("t"), kType},
                      QStringLiteral("File type: a number or its text, e.g. 8 or \"Scan Recording\" (default 0)."),
                      QStringLiteral("TYPE")});
    parser.addOption({{QStringLiteral("n"), kName},
                      QStringLiteral("File group name (default: the first file's name)."), QStringLiteral("NAME")});
    parser.addOption({kVersion, QStringLiteral("Version text."), QStringLiteral("VERSION")});
    parser.addOption({kComment, QStringLiteral("Comment."), QStringLiteral("TEXT")});
    parser.addOption({kDetail, QStringLiteral("Detail text."), QStringLiteral("TEXT")});
    parser.addOption({{QStringLiteral("days"), kDays},
                      QStringLiteral("Life cycle in days from now (default %1).").arg(kDefaultLifeCycleDays),
                      QStringLiteral("DAYS")});
}

ExitCode checkPutFiles(const QStringList &files, Session &session, quint64 &totalBytes)
{
    QSet<QString> names;
    for (const QString &path : files) {
        const QFileInfo info(path);
        if (!info.isFile() || !info.isReadable())
            return session.fail(ExitLocalFile, QStringLiteral("cannot read '%1': not a readable file").arg(path));
        if (names.contains(info.fileName()))
            return session.fail(ExitUsage,
                                QStringLiteral("two files are named '%1'; a group holds one file per name")
                                    .arg(info.fileName()));
        names.insert(info.fileName());
        totalBytes += quint64(info.size());
    }
    return ExitOk;
}

ExitCode copyFile(const QString &from, const QString &to, Session &session)
{
    QFile in(from);
    if (!in.open(QIODevice::ReadOnly))
        return session.fail(ExitLocalFile, QStringLiteral("cannot read '%1': %2").arg(from, in.errorString()));
    QSaveFile out(to);
    if (!out.open(QIODevice::WriteOnly))
        return session.fail(ExitLocalFile, QStringLiteral("cannot write '%1': %2").arg(to, out.errorString()));
    Progress progress(QFileInfo(from).fileName());
    QString error;
    if (!copyWithProgress(in, out, in.size(), progress, error) || !out.commit()) {
        return session.fail(ExitLocalFile, QStringLiteral("copying '%1' to '%2': %3")
                                               .arg(from, to, error.isEmpty() ? out.errorString() : error));
    }
    return ExitOk;
}

ExitCode runPut(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, -1))
        return code;
    const QStringList files = parser.positionalArguments();
    FileType type = FT_Unknown;
    if (parser.isSet(kType) && !parseFileType(parser.value(kType), type))
        return session.fail(ExitUsage, QStringLiteral("unknown file type '%1'").arg(parser.value(kType)));
    unsigned int days = kDefaultLifeCycleDays;
    if (parser.isSet(kDays)) {
        bool ok = false;
        days = parser.value(kDays).toUInt(&ok);
        if (!ok)
            return session.fail(ExitUsage, QStringLiteral("--%1 takes a number of days").arg(kDays));
    }
    quint64 totalBytes = 0;
    if (const ExitCode code = checkPutFiles(files, session, totalBytes))
        return code;
    if (const ExitCode code = session.connect())
        return code;

    KeldaClient &client = session.client();
    const QString name = parser.isSet(kName) ? parser.value(kName) : QFileInfo(files.constFirst()).fileName();
    QString groupPath;
    const QString guid = client.CreateFileGroup(parser.value(kVersion), QDateTime::currentDateTime().addDays(days),
                                                parser.value(kDetail), parser.value(kComment), type, totalBytes, name,
                                                groupPath);
    if (guid.isEmpty())
        return session.blockingFailure();

    for (const QString &path : files) {
        const QString fileName = QFileInfo(path).fileName();
        if (const ExitCode code = copyFile(path, QDir(groupPath).filePath(fileName), session))
            return code;
        const unsigned int fileId = client.AddFile(fileName, guid);
        if (fileId == 0)
            return session.blockingFailure();
        session.out() << KeldaUrl::fromKeldaIds(guid, fileId).toString() << '\n';
        session.out().flush();
    }
    return ExitOk;
}

// ---------------------------------------------------------------- get

void getOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("URL"),
                                 QStringLiteral("kelda:///GUID/ID of the file (a group URL means its first file)."));
    parser.addOption({{QStringLiteral("o"), kOutput},
                      QStringLiteral("Destination file, or a directory to put the file in; - for stdout "
                                     "(default: the file's name in the current directory)."),
                      QStringLiteral("DEST")});
}

QString destinationFor(const QCommandLineParser &parser, const QString &archivedPath)
{
    const QString fileName = QFileInfo(archivedPath).fileName();
    if (!parser.isSet(kOutput))
        return fileName;
    const QString dest = parser.value(kOutput);
    return QFileInfo(dest).isDir() ? QDir(dest).filePath(fileName) : dest;
}

ExitCode copyOut(QFile &in, const QString &dest, Session &session)
{
    Progress progress(QFileInfo(in.fileName()).fileName());
    QString error;
    if (dest == kStdout) {
        QFile out;
        session.out().flush();
        if (!out.open(stdout, QIODevice::WriteOnly) || !copyWithProgress(in, out, in.size(), progress, error))
            return session.fail(ExitLocalFile, QStringLiteral("writing to stdout: %1").arg(error));
        return ExitOk;
    }
    QSaveFile out(dest);
    if (!out.open(QIODevice::WriteOnly))
        return session.fail(ExitLocalFile, QStringLiteral("cannot write '%1': %2").arg(dest, out.errorString()));
    if (!copyWithProgress(in, out, in.size(), progress, error) || !out.commit())
        return session.fail(ExitLocalFile, QStringLiteral("writing '%1': %2")
                                               .arg(dest, error.isEmpty() ? out.errorString() : error));
    return ExitOk;
}

// Closes the file and waits for the server's answer, so that the lock is
// gone when the program ends.
ExitCode closeAndWait(KeldaFile &file, Session &session)
{
    return simpleRequest(
        session, &KeldaClient::CloseFileSg,
        [&] {
            file.close();
            return kUnnamedRequest;
        },
        true);
}

ExitCode runGet(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    KeldaUrl url;
    if (!readTarget(parser.positionalArguments().constFirst(), url))
        return session.fail(ExitUsage, QStringLiteral("'%1' is not a kelda:///GUID/ID URL")
                                           .arg(parser.positionalArguments().constFirst()));
    if (const ExitCode code = session.connect())
        return code;

    const unsigned int fileId = url.hasKeldaFileId() ? url.toKeldaFileId() : 1u;
    KeldaFile file(&session.client(), url.toKeldaGuid(), fileId);
    if (!file.open(QIODevice::ReadOnly)) {
        if (file.GetError() != KE_NoError)
            return session.serverError(file.GetError());
        if (file.fileName().isEmpty())
            return session.blockingFailure();
    }
    ExitCode code = ExitOk;
    if (!file.isOpen()) {
        code = session.fail(ExitLocalFile, QStringLiteral("cannot read the archived copy '%1': %2")
                                                .arg(file.fileName(), file.errorString()));
    } else {
        code = copyOut(file, destinationFor(parser, file.fileName()), session);
    }
    const ExitCode closed = closeAndWait(file, session);
    return code != ExitOk ? code : closed;
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
    if (parser.isSet(kJson))
        session.writeOut(jsonText(fileGroupToJson(group, true)));
    else
        session.out() << formatFileGroup(group);
    return ExitOk;
}

// ---------------------------------------------------------------- rm, exists, ref, unref

void rmOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("TARGET"),
                                 QStringLiteral("kelda:///GUID/ID deletes one file; GUID or kelda:///GUID the group."),
                                 QStringLiteral("URL|GUID"));
}

ExitCode runRm(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    KeldaUrl url;
    if (!readTarget(parser.positionalArguments().constFirst(), url))
        return session.fail(ExitUsage, QStringLiteral("'%1' is neither a GUID nor a kelda URL")
                                           .arg(parser.positionalArguments().constFirst()));
    if (const ExitCode code = session.connect())
        return code;
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
        session, &KeldaClient::checkFileGroupExistsSg,
        [&] { return session.client().CheckFileGroupExists(guid); },
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
    if (const ExitCode code = simpleRequest(session, &KeldaClient::MoveToNasSg,
                                            [&] { return session.client().MoveToNas(guid); }))
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
            return session.fail(ExitTimeout, QStringLiteral("the move made no progress for %1 s (location: %2)")
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
}

ExitCode runImport(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, -1))
        return code;
    // The server resolves the paths below its exchange folder, not here.
    const QStringList items = parser.positionalArguments();
    if (const ExitCode code = session.connect())
        return code;
    return simpleRequest(session, &KeldaClient::importArchiveSg,
                         [&] { return session.client().ImportArchiveAsync(items); });
}

} // namespace

const std::vector<Command> &commands()
{
    static const std::vector<Command> table = {
        {"put", "FILE...", "Store local files as one new file group; prints a URL per file.", putOptions, runPut},
        {"get", "URL", "Fetch an archived file under a read lock.", getOptions, runGet},
        {"ls", "", "List the file groups that match a query.", lsOptions, runLs},
        {"files", "GUID", "List the files of a group.", groupJsonOptions, runFiles},
        {"info", "GUID", "Show the metadata of a group.", groupJsonOptions, runInfo},
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
