#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <vector>

class QJsonValue;

namespace Kelda {

// What a backup folder holds and what its files must read as:
//
//   manifest.json             this manifest, written last
//   database.sqlite           the database copy
//   files/base/PATH           the files below the base path
//   files/nas/PATH            the files below the network storage folder
//
// Every file comes with its size and SHA-256 digest, so that a restore can
// tell a damaged or incomplete backup before it replaces anything.
class BackupManifest
{
public:
    struct Entry
    {
        QString root; // "base" or "nas"; empty for the database
        QString path; // relative to the root
        qint64 size = 0;
        QString sha256;
    };

    static QString manifestName() { return QStringLiteral("manifest.json"); }
    static QString databaseName() { return QStringLiteral("database.sqlite"); }
    static QString baseRoot() { return QStringLiteral("base"); }
    static QString nasRoot() { return QStringLiteral("nas"); }
    static constexpr int Version = 1;
    // A larger manifest is refused unread.
    static constexpr qint64 MaxManifestBytes = qint64(1) << 30;
    // Problems listed before the rest are only counted.
    static constexpr int MaxProblems = 20;

    QDateTime created;
    // The folders the files came from, absolute.
    QString basePath;
    QString nasPath;
    Entry database;
    std::vector<Entry> files;

    QByteArray toJson() const;
    // Reads the manifest of a backup folder; false with *error when it is
    // missing, too large or malformed, or names a path outside its root.
    bool read(const QString &backupFolder, QString *error);
    // Reads every file of the backup again: what is missing or differs from
    // the manifest, one line each, at most MaxProblems and a count.
    QStringList verify(const QString &backupFolder) const;

    // Where the backup holds an entry.
    static QString storedPath(const QString &backupFolder, const Entry &entry);
    // A relative path that stays below its root: no empty, "." or ".."
    // component, not absolute.
    static bool isSafeRelativePath(const QString &path);

private:
    bool readEntry(const QJsonValue &value, bool isDatabase, Entry *entry, QString *error) const;
};

} // namespace Kelda
