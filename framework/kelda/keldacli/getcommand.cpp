#include "getcommand.h"

#include "clisession.h"
#include "commandsupport.h"
#include "downloadqueue.h"

#include "filedigest.h"

#include "keldaclient.h"
#include "keldafile.h"

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QHash>
#include <QSaveFile>

using namespace Kelda;

namespace KeldaCli {

namespace {

const QString kOutput = QStringLiteral("output");
const QString kStdout = QStringLiteral("-");

QString destinationFor(const QCommandLineParser &parser, const QString &archivedPath)
{
    const QString fileName = QFileInfo(archivedPath).fileName();
    if (!parser.isSet(kOutput))
        return fileName;
    const QString dest = parser.value(kOutput);
    return QFileInfo(dest).isDir() ? QDir(dest).filePath(fileName) : dest;
}

// The digests the archive recorded for group `guid`, by file id, for
// comparing the copies with. A file not read by the server yet has none, and
// a server that keeps no digests gives none at all.
ExitCode archiveDigests(Session &session, const QString &guid, QHash<unsigned int, QString> &digests)
{
    std::vector<FileChecksum> files;
    Outcome outcome;
    if (const ExitCode code = requestChecksums(session, guid, false, files, outcome))
        return code;
    if (outcome.error == KE_UnknownReplyCommand) {
        session.detail(QStringLiteral("the server keeps no digests; the copies are not compared"));
        return ExitOk;
    }
    if (outcome.error != KE_NoError)
        return session.serverError(outcome.error, outcome.text);
    for (const FileChecksum &file : files) {
        if (file.digest.isEmpty() || file.state == kChecksumStateUnverified)
            session.detail(
                QStringLiteral("%1 has no digest in the archive yet; its copy is not compared").arg(file.name));
        else
            digests.insert(file.fileId, file.digest.toLower());
    }
    return ExitOk;
}

// Copies `in` to `dest` and compares the copy with `expected` unless that is
// empty. A file that differs never takes its name; on stdout it has gone out
// already and only the exit code tells.
ExitCode copyOut(QFile &in, const QString &dest, const QString &expected, Session &session)
{
    Progress progress = session.progress(QFileInfo(in.fileName()).fileName());
    QString error;
    FileDigest digest;
    FileDigest *hash = expected.isEmpty() ? nullptr : &digest;
    if (dest == kStdout) {
        QFile out;
        session.out().flush();
        if (!out.open(stdout, QIODevice::WriteOnly) || !copyWithProgress(in, out, in.size(), progress, error, hash))
            return session.fail(ExitLocalFile, QStringLiteral("writing to stdout: %1").arg(error));
        out.close();
        const QByteArray actual = hash ? hash->finish().toHex() : QByteArray();
        if (hash && actual != expected.toLatin1())
            return session.fail(ExitDigestMismatch,
                                QStringLiteral("the copy written to stdout differs from the archive\n  expected "
                                               "SHA-256: %1\n  actual SHA-256:   %2")
                                    .arg(expected, QString::fromLatin1(actual)));
        return ExitOk;
    }
    QSaveFile out(dest);
    if (!out.open(QIODevice::WriteOnly))
        return session.fail(ExitLocalFile, QStringLiteral("cannot write '%1': %2").arg(dest, out.errorString()));
    if (!copyWithProgress(in, out, in.size(), progress, error, hash))
        return session.fail(ExitLocalFile,
                            QStringLiteral("writing '%1': %2").arg(dest, error.isEmpty() ? out.errorString() : error));
    if (hash) {
        const QByteArray actual = hash->finish().toHex();
        if (actual != expected.toLatin1()) {
            out.cancelWriting();
            return session.fail(ExitDigestMismatch,
                                QStringLiteral("%1: %2").arg(dest, digestMismatchText(expected, actual)));
        }
    }
    if (!out.commit())
        return session.fail(ExitLocalFile, QStringLiteral("writing '%1': %2").arg(dest, out.errorString()));
    return ExitOk;
}

// Closes the lock of this program's identity on the group and waits for the
// server's answer, so that the lock is gone when the program ends.
ExitCode releaseLock(Session &session, const std::function<void()> &close)
{
    return simpleRequest(
        session, &KeldaClient::CloseFileSg,
        [&] {
            close();
            return kUnnamedRequest;
        },
        true);
}

ExitCode getFile(const QCommandLineParser &parser, Session &session, const KeldaUrl &url)
{
    const unsigned int fileId = url.hasKeldaFileId() ? url.toKeldaFileId() : 1u;
    QHash<unsigned int, QString> digests;
    if (const ExitCode code = archiveDigests(session, url.toKeldaGuid(), digests))
        return code;
    KeldaFile file(&session.client(), url.toKeldaGuid(), fileId);
    if (!file.open(QIODevice::ReadOnly)) {
        if (file.GetError() != KE_NoError)
            return session.serverError(file.GetError());
        if (file.fileName().isEmpty())
            return session.blockingFailure();
    }
    ExitCode code = ExitOk;
    if (!file.isOpen()) {
        code = session.fail(
            ExitLocalFile,
            QStringLiteral("cannot read the archived copy '%1': %2").arg(file.fileName(), file.errorString()));
    } else {
        code = copyOut(file, destinationFor(parser, file.fileName()), digests.value(fileId), session);
    }
    const ExitCode closed = releaseLock(session, [&] { file.close(); });
    return code != ExitOk ? code : closed;
}

// The folder a whole group goes to, made when missing.
ExitCode groupFolder(const QCommandLineParser &parser, Session &session, QString &folder)
{
    folder = parser.isSet(kOutput) ? parser.value(kOutput) : QStringLiteral(".");
    if (folder == kStdout)
        return session.fail(ExitUsage, QStringLiteral("a whole group does not fit on stdout; name a folder with -o"));
    if (QFileInfo::exists(folder) && !QFileInfo(folder).isDir())
        return session.fail(ExitUsage, QStringLiteral("'%1' is not a folder; a whole group needs one").arg(folder));
    if (!QDir().mkpath(folder))
        return session.fail(ExitLocalFile, QStringLiteral("cannot make the folder '%1'").arg(folder));
    return ExitOk;
}

ExitCode getGroup(const QCommandLineParser &parser, Session &session, const QString &guid, int jobs)
{
    QString folder;
    if (const ExitCode code = groupFolder(parser, session, folder))
        return code;
    if (const ExitCode code = session.connect())
        return code;
    QElapsedTimer timer;
    timer.start();
    FileGroupData group;
    if (const ExitCode code = queryMetaData(session, guid, group))
        return code;
    QHash<unsigned int, QString> digests;
    if (const ExitCode code = archiveDigests(session, guid, digests))
        return code;
    std::vector<DownloadQueue::Item> items;
    for (const FileGroupData::FileEntry &file : group.getFileList())
        items.push_back({unsigned(file.second), file.first, QDir(folder).filePath(file.first),
                         digests.value(unsigned(file.second))});
    if (items.empty()) {
        session.inform(QStringLiteral("the group %1 holds no files").arg(guid));
        return ExitOk;
    }

    DownloadQueue queue(session, jobs, guid, std::move(items));
    const ExitCode code = queue.run();
    if (queue.requested() && session.client().IsConnected()) {
        const unsigned int anyFile = unsigned(group.getFileList().front().second);
        const ExitCode closed = releaseLock(session, [&] { session.client().CloseFile(anyFile, guid); });
        if (code == ExitOk && closed != ExitOk)
            return closed;
    }
    if (code == ExitOk)
        session.inform(QStringLiteral("fetched %1 (%2) in %3 s")
                           .arg(countText(queue.succeededCount(), "file"))
                           .arg(sizeText(queue.copiedBytes()))
                           .arg(double(timer.elapsed()) / 1000.0, 0, 'f', 2));
    return code;
}

} // namespace

void getOptions(QCommandLineParser &parser)
{
    parser.addPositionalArgument(QStringLiteral("TARGET"),
                                 QStringLiteral("kelda:///GUID/ID fetches one file (a group URL means its first "
                                                "file); a bare GUID fetches every file of the group."),
                                 QStringLiteral("URL|GUID"));
    parser.addOption({{QStringLiteral("o"), kOutput},
                      QStringLiteral("For one file: the destination file, a folder to put it in, or - for stdout. "
                                     "For a group: the folder, made when missing. Default: the current folder."),
                      QStringLiteral("DEST")});
    addJobsOption(parser);
}

ExitCode runGet(const QCommandLineParser &parser, Session &session)
{
    if (const ExitCode code = expectArguments(parser, session, 1, 1))
        return code;
    int jobs = 0;
    if (const ExitCode code = jobsOption(parser, session, jobs))
        return code;
    const QString target = parser.positionalArguments().constFirst();
    if (isGuid(target))
        return getGroup(parser, session, target, jobs);
    KeldaUrl url;
    if (!readTarget(target, url))
        return session.fail(ExitUsage, QStringLiteral("'%1' is neither a kelda:///GUID/ID URL nor a GUID").arg(target));
    if (const ExitCode code = session.connect())
        return code;
    return getFile(parser, session, url);
}

} // namespace KeldaCli
