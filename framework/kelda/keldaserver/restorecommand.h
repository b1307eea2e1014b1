#pragma once

#include "backupmanifest.h"

#include <QStringList>

namespace Kelda {

// keldaserver restore: puts a backup made by keldaserver backup in place.
// Every file of the backup is read and compared with its manifest first;
// any difference, and any file or database already at a target (unless
// --replace), refuses the restore before anything is written. Restored to
// other folders than it came from, the groups' directories in the database
// are moved along.
class RestoreCommand
{
public:
    // arguments as QCoreApplication gives them: the program, "restore", the
    // options. Prints what it does and returns the exit code.
    static int run(const QStringList &arguments);

private:
    struct Options
    {
        QString source;
        QString databaseFile;
        QString basePath;
        QString nasPath;
        bool replace = false;
    };

    static int restore(const Options &options);
    static QString targetOf(const Options &options, const BackupManifest::Entry &entry);
    // What is in the way at the targets, when replacing is not allowed.
    static QStringList occupied(const Options &options, const BackupManifest &manifest);
    static bool restoreDatabase(const Options &options, const BackupManifest &manifest, QString *error);
};

} // namespace Kelda
