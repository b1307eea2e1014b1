#pragma once

#include <QString>

namespace Kelda {

// A consistent copy of an SQLite archive database that may be in use:
// SQLite's online backup, run on the connection Qt's driver opened, reads
// one snapshot while the server goes on writing (WAL mode). The copy is a
// single file without journal.
class SqliteBackup
{
public:
    // Copies source into target, which must not exist; false with *error.
    static bool copy(const QString &source, const QString &target, QString *error);
    // Rewrites the group directories stored in the database file after its
    // storage folders moved: each old root to its new one. False with *error.
    static bool relocate(const QString &databaseFile, const QString &oldBase, const QString &newBase,
                         const QString &oldNas, const QString &newNas, QString *error);

    // Attempts of a backup step that finds the database locked by a writer.
    static constexpr int BusyAttempts = 100;
    static constexpr int BusyPauseMs = 100;
};

} // namespace Kelda
