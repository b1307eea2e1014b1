#include "restorecommand.h"

#include "databaselocation.h"
#include "filecopier.h"
#include "serveroptions.h"
#include "storageoptions.h"
#include "subcommand.h"
#include "sqlitebackup.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

namespace Kelda {

namespace {

const char *const kJournals[] = {"-wal", "-shm", "-journal"};

int fail(int code, const QString &text)
{
    return Subcommand::report(QStringLiteral("restore"), code, text);
}

} // namespace

int RestoreCommand::run(const QStringList &arguments)
{
    Subcommand command(
        QStringLiteral("restore"),
        QStringLiteral(
            "Puts a backup of keldaserver backup in place, for a server that is not running. "
            "Every file of the backup is checked against its manifest first; on any difference nothing is written. "
            "Restored to other folders than it came from, the groups' directories are moved along."));
    const QCommandLineOption fromOption(QStringLiteral("from"), QStringLiteral("The backup folder (required)."),
                                        QStringLiteral("DIR"));
    const StorageOptions storage(
        {QStringLiteral("Storage root to restore into (default %1).").arg(ServerOptions::defaultBasePath()),
         QStringLiteral("SQLite database file to restore (default BASE/keldaserver.sqlite)."),
         QStringLiteral("Network storage folder to restore into (default BASE/nas)."), QString()},
        QStringLiteral("FILE"));
    const QCommandLineOption replaceOption(
        QStringLiteral("replace"),
        QStringLiteral("Overwrite a database and files that exist at the targets (default: refuse)."));
    command.parser().addOption(fromOption);
    storage.addTo(command.parser());
    command.parser().addOption(replaceOption);
    const int parsed =
        command.parse(arguments,
                      QStringLiteral(
                          "\nExit codes:\n"
                          "  0   restored\n"
                          "  64  bad arguments, or a database or file exists at a target without --replace\n"
                          "  65  the backup is incomplete or does not match its manifest; nothing was written\n"
                          "  70  a target cannot be written\n"));
    if (parsed != Subcommand::Proceed)
        return parsed;
    const QCommandLineParser &parser = command.parser();
    if (parser.value(fromOption).isEmpty())
        return fail(ServerOptions::ExitUsage, QStringLiteral("--from DIR names the backup folder"));
    Options options;
    options.source = StorageOptions::absolutePath(parser.value(fromOption));
    options.basePath = StorageOptions::absolutePath(storage.givenBasePath(parser));
    const QString db = storage.database(parser, options.basePath);
    if (DatabaseLocation::isPostgresUrl(db))
        return fail(ServerOptions::ExitUsage,
                    QStringLiteral("a PostgreSQL archive is restored with pg_restore and a "
                                   "copy of the storage folders; see the README"));
    options.databaseFile = StorageOptions::absolutePath(db);
    options.nasPath = storage.nasPath(parser, options.basePath);
    options.replace = parser.isSet(replaceOption);
    return restore(options);
}

int RestoreCommand::restore(const Options &options)
{
    BackupManifest manifest;
    QString error;
    if (!manifest.read(options.source, &error))
        return fail(ServerOptions::ExitBadBackup, error);
    const QStringList problems = manifest.verify(options.source);
    if (!problems.isEmpty())
        return fail(ServerOptions::ExitBadBackup,
                    QStringLiteral("the backup in %1 does not match its manifest; "
                                   "nothing was restored:\n  %2")
                        .arg(options.source, problems.join(QStringLiteral("\n  "))));
    if (!options.replace) {
        const QStringList inTheWay = occupied(options, manifest);
        if (!inTheWay.isEmpty())
            return fail(ServerOptions::ExitUsage,
                        QStringLiteral("these exist already (give --replace to overwrite "
                                       "them, with the server stopped):\n  %1")
                            .arg(inTheWay.join(QStringLiteral("\n  "))));
    }
    for (const BackupManifest::Entry &entry : manifest.files) {
        const FileCopier::Result copied =
            FileCopier::copy(BackupManifest::storedPath(options.source, entry), targetOf(options, entry));
        if (!copied.ok)
            return fail(ServerOptions::ExitStorage, copied.error);
        // Read again while copying: a backup changed since the check
        // stops the restore here.
        if (copied.sha256 != entry.sha256)
            return fail(
                ServerOptions::ExitBadBackup,
                QStringLiteral("%1 changed during the restore").arg(BackupManifest::storedPath(options.source, entry)));
    }
    if (!restoreDatabase(options, manifest, &error))
        return fail(ServerOptions::ExitStorage, error);
    Subcommand::printLine(stdout,
                          QStringLiteral("Restored the backup of %1 (%2 files) into %3 and %4")
                              .arg(manifest.created.toString(Qt::ISODate))
                              .arg(manifest.files.size())
                              .arg(options.databaseFile, options.basePath));
    return ServerOptions::ExitOk;
}

QString RestoreCommand::targetOf(const Options &options, const BackupManifest::Entry &entry)
{
    const QString root = entry.root == BackupManifest::nasRoot() ? options.nasPath : options.basePath;
    return QDir(root).filePath(entry.path);
}

QStringList RestoreCommand::occupied(const Options &options, const BackupManifest &manifest)
{
    QStringList found;
    const auto look = [&](const QString &path) {
        if (QFileInfo::exists(path) || QFileInfo(path).isSymLink())
            found.append(path);
    };
    look(options.databaseFile);
    for (const char *suffix : kJournals)
        look(options.databaseFile + QLatin1String(suffix));
    for (const BackupManifest::Entry &entry : manifest.files)
        look(targetOf(options, entry));
    if (found.size() > BackupManifest::MaxProblems) {
        const int more = found.size() - BackupManifest::MaxProblems;
        found = found.mid(0, BackupManifest::MaxProblems);
        found.append(QStringLiteral("and %1 more").arg(more));
    }
    return found;
}

bool RestoreCommand::restoreDatabase(const Options &options, const BackupManifest &manifest, QString *error)
{
    if (!QDir().mkpath(QFileInfo(options.databaseFile).absolutePath())) {
        *error = QStringLiteral("Cannot create the folder of %1").arg(options.databaseFile);
        return false;
    }
    // Prepared beside the target and renamed over it once complete.
    const QString staged = options.databaseFile + QStringLiteral(".restoring");
    QFile::remove(staged);
    const FileCopier::Result copied =
        FileCopier::copy(BackupManifest::storedPath(options.source, manifest.database), staged);
    if (!copied.ok || copied.sha256 != manifest.database.sha256) {
        *error = copied.ok ? QStringLiteral("The database copy changed during the restore") : copied.error;
        QFile::remove(staged);
        return false;
    }
    if ((manifest.basePath != options.basePath || manifest.nasPath != options.nasPath) &&
        !SqliteBackup::relocate(staged, manifest.basePath, options.basePath, manifest.nasPath, options.nasPath,
                                error)) {
        QFile::remove(staged);
        return false;
    }
    // Journals of the database replaced would be applied to its successor.
    for (const char *suffix : kJournals)
        QFile::remove(options.databaseFile + QLatin1String(suffix));
    if (QFileInfo::exists(options.databaseFile) && !QFile::remove(options.databaseFile)) {
        *error = QStringLiteral("Cannot replace %1").arg(options.databaseFile);
        return false;
    }
    if (!QFile::rename(staged, options.databaseFile)) {
        *error = QStringLiteral("Cannot move %1 to %2").arg(staged, options.databaseFile);
        return false;
    }
    return true;
}

} // namespace Kelda
