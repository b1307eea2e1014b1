#pragma once

#include "confineddirectory.h"
#include "serveroptions.h"

#include <QDateTime>
#include <QString>

#include <memory>

namespace Kelda {

// Where group directories live, and the checks that keep every file the
// server touches inside them.
class StorageLayout
{
public:
    StorageLayout(const QString &basePath, const QString &nasPath, const QString &exchangePath,
                  qint64 maxImportBytes = ServerOptions::DefaultMaxImportBytes);

    QString basePath() const { return m_basePath; }
    QString nasPath() const { return m_nasPath; }
    // Where ExportArchive writes and ImportArchive reads; nowhere else.
    QString exchangePath() const { return m_exchangePath; }
    // The largest description file an import reads.
    qint64 maxImportBytes() const { return m_maxImportBytes; }

    // BASE/yyyy/MM/dd/hh/GUID, the hour in UTC: the layout clients use too.
    QString defaultGroupDirectory(const QString &guid, const QDateTime &utcNow) const;
    // The group's directory below the network storage folder, at the same
    // place relative to it as below the base path.
    QString nasDirectoryFor(const QString &groupDirectory, const QString &guid) const;
    // Why a client's directory for the group guid cannot be the group's
    // directory, or empty when it can: it must lie below the base path but
    // neither in nor around the network storage or exchange folder, and
    // one of its components must be the GUID. Other groups are the
    // database's matter.
    QString refusedGroupDirectory(const QString &directory, const QString &guid) const;
    // The GUIDs other than guid that folders of directory below the base
    // path are named after.
    QStringList otherGuidsIn(const QString &directory, const QString &guid) const;
    // The directory a CreateFileGroup request's Path names, in the form the
    // group keeps; empty when the request leaves the choice to the server.
    static QString requestedGroupDirectory(const QString &requestedPath);

    // The root a group directory lies below (network storage or base
    // path), empty when it lies below neither.
    QString rootOf(const QString &directory) const;
    // The group directory, opened without following links from its root.
    ConfinedDirectory openGroupDirectory(const QString &directory, ConfinedDirectory::Creation creation,
                                         QString *error) const;
    // Removes what became empty of a group's directory and the directories
    // below it, never anything above it.
    void removeEmptyGroupDirectory(const QString &directory) const;
    // An export target or import source as a request names it: relative
    // paths are taken below the exchange folder. Empty when the result does
    // not lie in the exchange folder.
    QString exchangeItem(const QString &requested) const;

    // True when path, cleaned, lies strictly below root.
    static bool isBelow(const QString &root, const QString &path);
    static bool isAtOrBelow(const QString &root, const QString &path);
    // A bare file name: not empty, not "." or "..", no separator of any platform.
    static bool isSafeFileName(const QString &name);
    // A lower-case GUID in its 36-character text form.
    static bool isGuid(const QString &text);
    // directory joined to name, or empty when name is no bare file name.
    static QString fileInside(const QString &directory, const QString &name);
    // Native separators with a trailing separator, the form replies carry.
    static QString directoryForReply(const QString &directory);

private:
    QStringList componentsBelowBase(const QString &directory) const;

    QString m_basePath;
    QString m_nasPath;
    QString m_exchangePath;
    qint64 m_maxImportBytes;
    // The base path, when it was there at the start; shared by copies.
    std::shared_ptr<const ConfinedDirectory> m_base;
};

} // namespace Kelda
