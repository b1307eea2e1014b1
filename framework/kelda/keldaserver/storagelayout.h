#pragma once

#include <QDateTime>
#include <QString>

namespace Kelda {

// Where group directories live, and the checks that keep every file the
// server touches inside them.
class StorageLayout
{
public:
    StorageLayout(const QString &basePath, const QString &nasPath, const QString &exchangePath);

    QString basePath() const { return m_basePath; }
    QString nasPath() const { return m_nasPath; }
    // Where ExportArchive writes and ImportArchive reads; nowhere else.
    QString exchangePath() const { return m_exchangePath; }

    // BASE/yyyy/MM/dd/hh/GUID, the hour in UTC: the layout clients use too.
    QString defaultGroupDirectory(const QString &guid, const QDateTime &utcNow) const;
    // The group's directory below the network storage folder, at the same
    // place relative to it as below the base path.
    QString nasDirectoryFor(const QString &groupDirectory, const QString &guid) const;

    // True when path, cleaned, lies strictly below root.
    static bool isBelow(const QString &root, const QString &path);
    // A bare file name: not empty, not "." or "..", no separator of any platform.
    static bool isSafeFileName(const QString &name);
    // A lower-case GUID in its 36-character text form.
    static bool isGuid(const QString &text);
    // directory joined to name, or empty when name is no bare file name or
    // names a symbolic link, which could lead anywhere.
    static QString fileInside(const QString &directory, const QString &name);
    // Native separators with a trailing separator, the form replies carry.
    static QString directoryForReply(const QString &directory);

private:
    QString m_basePath;
    QString m_nasPath;
    QString m_exchangePath;
};

} // namespace Kelda
