#include "restorecommand.h"

#include "databaselocation.h"
#include "filecopier.h"
#include "serveroptions.h"
#include "sqlitebackup.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

namespace Kelda {

namespace {

const char *const kJournals[] = {"-wal", "-shm", "-journal"};

void printLine(FILE *stream, const QString &text)
{
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fputc('\n', stream);
}

int fail(int code, const QString &text)
{
    printLine(stderr, QStringLiteral("keldaserver restore: %1").arg(text));
    return code;
}

QString absolute(const QString &path)
{
    return QDir::cleanPath(QDir(path).absolutePath());
}

} // namespace

int RestoreCommand::run(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "keldaserver restore: put a backup of keldaserver backup in place, for a server that is not running. "
        "Every file of the backup is checked against its manifest first; on any difference nothing is written. "
        "Restored to other folders than it came from, the groups' directories are moved along."));
    const QCommandLineOption helpOption(QStringList{QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Show this help and exit."));
    const QCommandLineOption fromOption(QStringLiteral("from"), QStringLiteral("The backup folder (required)."),
                                        QStringLiteral("DIR"));
    const QCommandLineOption baseOption(
        QStringLiteral("base-path"),
        QStringLiteral("Storage root to restore into (default %1).").arg(ServerOptions::defaultBasePath()),
        QStringLiteral("DIR"));
    const QCommandLineOption dbOption(QStringLiteral("db"),
                                      QStringLiteral(
                                          "SQLite database file to restore (default BASE/keldaserver.sqlite)."),
                                      QStringLiteral("FILE"));
    const QCommandLineOption nasOption(QStringLiteral("nas-path"),
                                       QStringLiteral("Network storage folder to restore into (default BASE/nas)."),
                                       QStringLiteral("DIR"));
    const QCommandLineOption replaceOption(
        QStringLiteral("replace"),
        QStringLiteral("Overwrite a database and files that exist at the targets (default: refuse)."));
    parser.addOptions({helpOption, fromOption, baseOption, dbOption, nasOption, replaceOption});
    const QString help = parser.helpText() +
        QStringLiteral("\nExit codes:\n"
                       "  0   restored\n"
                       "  64  bad arguments, or a database or file exists at a target without --replace\n"
                       "  65  the backup is incomplete or does not match its manifest; nothing was written\n"
                       "  70  a target cannot be written\n");
    QStringList rest = arguments;
    rest.removeAt(1);
    if (!parser.parse(rest))
        return fail(ServerOptions::ExitUsage,
                    parser.errorText() + QStringLiteral("\nTry 'keldaserver restore --help'."));
    if (parser.isSet(helpOption)) {
        printLine(stdout, help);
        return ServerOptions::ExitOk;
    }
    if (!parser.positionalArguments().isEmpty())
        return fail(ServerOptions::ExitUsage,
                    QStringLiteral("Unexpected argument: %1").arg(parser.positionalArguments().first()));
    if (parser.value(fromOption).isEmpty())
        return fail(ServerOptions::ExitUsage, QStringLiteral("--from DIR names the backup folder"));
    Options options;
    options.source = absolute(parser.value(fromOption));
    options.basePath = absolute(parser.isSet(baseOption) ? parser.value(baseOption) : ServerOptions::defaultBasePath());
    const QString db =
        parser.isSet(dbOption) ? parser.value(dbOption) : ServerOptions::defaultDatabaseFile(options.basePath);
    if (DatabaseLocation::isPostgresUrl(db))
        return fail(ServerOptions::ExitUsage,
                    QStringLiteral("a PostgreSQL archive is restored with pg_restore and a "
                                   "copy of the storage folders; see the README"));
    options.databaseFile = absolute(db);
    options.nasPath =
        parser.isSet(nasOption) ? absolute(parser.value(nasOption)) : ServerOptions::defaultNasPath(options.basePath);
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
    printLine(stdout,
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
