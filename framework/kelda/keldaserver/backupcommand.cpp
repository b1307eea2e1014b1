#include "backupcommand.h"

#include "databaselocation.h"
#include "filecopier.h"
#include "serveroptions.h"
#include "storageoptions.h"
#include "subcommand.h"
#include "sqlitebackup.h"
#include "storagelayout.h"

#include <QCommandLineParser>
#include <QDir>
#include <QDirIterator>
#include <QSaveFile>

#include <algorithm>
#include <cstdio>

namespace Kelda {

namespace {

int fail(int code, const QString &text)
{
    return Subcommand::report(QStringLiteral("backup"), code, text);
}

} // namespace

int BackupCommand::run(const QStringList &arguments)
{
    Subcommand command(
        QStringLiteral("backup"),
        QStringLiteral(
            "Copies an SQLite archive, also while a server runs on it, into a new folder: the "
            "database through SQLite's online backup, then every file below the base path and the network storage "
            "folder, with a manifest of their sizes and SHA-256 digests (written last). For a PostgreSQL archive "
            "use pg_dump and copy the storage folders; the README shows how."));
    const QCommandLineOption toOption(QStringLiteral("to"),
                                      QStringLiteral("The backup folder; must not exist or be empty (required)."),
                                      QStringLiteral("DIR"));
    const StorageOptions storage(
        {QStringLiteral("Storage root of the archive (default %1).").arg(ServerOptions::defaultBasePath()),
         QStringLiteral("SQLite database file (default BASE/keldaserver.sqlite)."),
         QStringLiteral("Network storage folder (default BASE/nas)."),
         QStringLiteral("Exchange folder, left out of the backup (default BASE/exchange).")},
        QStringLiteral("FILE"));
    command.parser().addOption(toOption);
    storage.addTo(command.parser());
    const int parsed =
        command.parse(arguments,
                      QStringLiteral(
                          "\nExit codes:\n"
                          "  0   the backup is complete\n"
                          "  64  bad arguments, or the backup folder is not empty\n"
                          "  70  the database or a storage file cannot be read, or the backup not written\n"));
    if (parsed != Subcommand::Proceed)
        return parsed;
    const QCommandLineParser &parser = command.parser();
    if (parser.value(toOption).isEmpty())
        return fail(ServerOptions::ExitUsage, QStringLiteral("--to DIR names the backup folder"));
    Options options;
    options.basePath = StorageOptions::absolutePath(storage.givenBasePath(parser));
    const QString db = storage.database(parser, options.basePath);
    if (DatabaseLocation::isPostgresUrl(db))
        return fail(ServerOptions::ExitUsage,
                    QStringLiteral("a PostgreSQL archive is backed up with pg_dump and a "
                                   "copy of the storage folders; see the README"));
    options.databaseFile = StorageOptions::absolutePath(db);
    options.nasPath = storage.nasPath(parser, options.basePath);
    options.exchangePath = storage.exchangePath(parser, options.basePath);
    options.target = StorageOptions::absolutePath(parser.value(toOption));
    return backUp(options);
}

int BackupCommand::backUp(const Options &options)
{
    const QDir target(options.target);
    if (target.exists() && !target.isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System))
        return fail(ServerOptions::ExitUsage, QStringLiteral("%1 is not empty").arg(options.target));
    if (StorageLayout::isAtOrBelow(options.basePath, options.target) ||
        StorageLayout::isAtOrBelow(options.nasPath, options.target))
        return fail(ServerOptions::ExitUsage,
                    QStringLiteral("%1 lies inside the storage folders it would copy").arg(options.target));
    if (!QDir().mkpath(options.target))
        return fail(ServerOptions::ExitStorage, QStringLiteral("Cannot create %1").arg(options.target));

    BackupManifest manifest;
    manifest.created = QDateTime::currentDateTimeUtc();
    manifest.basePath = options.basePath;
    manifest.nasPath = options.nasPath;
    manifest.database.path = BackupManifest::databaseName();
    const QString databaseCopy = BackupManifest::storedPath(options.target, manifest.database);
    QString error;
    if (!SqliteBackup::copy(options.databaseFile, databaseCopy, &error))
        return fail(ServerOptions::ExitStorage, error);
    const FileCopier::Result copied = FileCopier::digest(databaseCopy);
    if (!copied.ok)
        return fail(ServerOptions::ExitStorage, copied.error);
    manifest.database.size = copied.size;
    manifest.database.sha256 = copied.sha256;

    // The live database and its journals are the server's, not archive
    // files; its copy is above.
    QStringList skip{options.exchangePath, options.target};
    for (const char *suffix : {"", "-wal", "-shm", "-journal"})
        skip.append(options.databaseFile + QLatin1String(suffix));
    if (!copyFolder(options.nasPath, BackupManifest::nasRoot(), skip, options.target, &manifest, &error))
        return fail(ServerOptions::ExitStorage, error);
    skip.append(options.nasPath);
    if (!copyFolder(options.basePath, BackupManifest::baseRoot(), skip, options.target, &manifest, &error))
        return fail(ServerOptions::ExitStorage, error);

    QSaveFile file(QDir(options.target).filePath(BackupManifest::manifestName()));
    const QByteArray json = manifest.toJson();
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size() || !file.commit())
        return fail(ServerOptions::ExitStorage,
                    QStringLiteral("Cannot write %1: %2").arg(file.fileName(), file.errorString()));
    qint64 bytes = manifest.database.size;
    for (const BackupManifest::Entry &entry : manifest.files)
        bytes += entry.size;
    Subcommand::printLine(stdout,
                          QStringLiteral("Backed up %1 and %2 files, %3 bytes in all, to %4")
                              .arg(options.databaseFile)
                              .arg(manifest.files.size())
                              .arg(bytes)
                              .arg(options.target));
    return ServerOptions::ExitOk;
}

bool BackupCommand::copyFolder(const QString &root, const QString &rootName, const QStringList &skip,
                               const QString &target, BackupManifest *manifest, QString *error)
{
    const QDir rootDir(root);
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = QDir::cleanPath(it.next());
        const bool skipped = std::any_of(skip.cbegin(), skip.cend(), [&path](const QString &left) {
            return path == left || StorageLayout::isBelow(left, path);
        });
        if (skipped || !it.fileInfo().isFile())
            continue;
        BackupManifest::Entry entry;
        entry.root = rootName;
        entry.path = rootDir.relativeFilePath(path);
        const FileCopier::Result copied = FileCopier::copy(path, BackupManifest::storedPath(target, entry));
        // Deleted since the walk found it: it was deleted after the
        // database copy was taken as well.
        if (copied.missing)
            continue;
        if (!copied.ok) {
            *error = copied.error;
            return false;
        }
        entry.size = copied.size;
        entry.sha256 = copied.sha256;
        manifest->files.push_back(entry);
    }
    return true;
}

} // namespace Kelda
