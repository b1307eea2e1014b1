#pragma once

#include "backupmanifest.h"

#include <QStringList>

namespace Kelda {

// keldaserver backup: a consistent copy of an SQLite archive, also while a
// server runs on it. The database is copied first, in one snapshot; then
// every file below the base path and the network storage folder is copied
// with its digest, and the manifest is written last. A change answered
// before the backup started is in the copy; a file deleted while it runs
// may be missing from it, and files added meanwhile may be in it although
// the copied database does not know them.
class BackupCommand
{
public:
    // arguments as QCoreApplication gives them: the program, "backup", the
    // options. Prints what it does and returns the exit code.
    static int run(const QStringList &arguments);

private:
    struct Options
    {
        QString databaseFile;
        QString basePath;
        QString nasPath;
        QString exchangePath;
        QString target;
    };

    static int backUp(const Options &options);
    // Copies the files below root into the backup as entries of rootName,
    // leaving out the files and folders in skip; false with *error.
    static bool copyFolder(const QString &root, const QString &rootName, const QStringList &skip, const QString &target,
                           BackupManifest *manifest, QString *error);
};

} // namespace Kelda
