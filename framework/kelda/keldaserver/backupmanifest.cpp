#include "backupmanifest.h"

#include "filecopier.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

namespace Kelda {

namespace {

const QString kFormat = QStringLiteral("keldaserver-backup");

QJsonObject entryObject(const BackupManifest::Entry &entry)
{
    QJsonObject object{{QStringLiteral("path"), entry.path},
                       {QStringLiteral("size"), double(entry.size)},
                       {QStringLiteral("sha256"), entry.sha256}};
    if (!entry.root.isEmpty())
        object.insert(QStringLiteral("root"), entry.root);
    return object;
}

bool isDigest(const QString &text)
{
    if (text.size() != 64)
        return false;
    for (const QChar c : text) {
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
    }
    return true;
}

} // namespace

QByteArray BackupManifest::toJson() const
{
    QJsonArray list;
    for (const Entry &entry : files)
        list.append(entryObject(entry));
    const QJsonObject root{{QStringLiteral("format"), kFormat},
                           {QStringLiteral("version"), Version},
                           {QStringLiteral("created"), created.toUTC().toString(Qt::ISODateWithMs)},
                           {QStringLiteral("basePath"), basePath},
                           {QStringLiteral("nasPath"), nasPath},
                           {QStringLiteral("database"), entryObject(database)},
                           {QStringLiteral("files"), list}};
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

bool BackupManifest::read(const QString &backupFolder, QString *error)
{
    QFile file(QDir(backupFolder).filePath(manifestName()));
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1 has no readable %2: not a complete backup").arg(backupFolder, manifestName());
        return false;
    }
    if (file.size() > MaxManifestBytes) {
        *error = QStringLiteral("%1 is larger than %2 bytes").arg(file.fileName()).arg(MaxManifestBytes);
        return false;
    }
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    const QJsonObject root = document.object();
    if (document.isNull() || root.value(QStringLiteral("format")).toString() != kFormat) {
        *error = QStringLiteral("%1 is no backup manifest %2").arg(file.fileName(), parseError.errorString());
        return false;
    }
    if (root.value(QStringLiteral("version")).toInt() != Version) {
        *error = QStringLiteral("%1 has version %2; this keldaserver reads version %3")
                     .arg(file.fileName())
                     .arg(root.value(QStringLiteral("version")).toInt())
                     .arg(Version);
        return false;
    }
    created = QDateTime::fromString(root.value(QStringLiteral("created")).toString(), Qt::ISODateWithMs);
    basePath = root.value(QStringLiteral("basePath")).toString();
    nasPath = root.value(QStringLiteral("nasPath")).toString();
    if (!QDir::isAbsolutePath(basePath) || !QDir::isAbsolutePath(nasPath)) {
        *error = QStringLiteral("%1 names no absolute storage folders").arg(file.fileName());
        return false;
    }
    if (!readEntry(root.value(QStringLiteral("database")), true, &database, error))
        return false;
    files.clear();
    QSet<QString> seen;
    for (const QJsonValue &value : root.value(QStringLiteral("files")).toArray()) {
        Entry entry;
        if (!readEntry(value, false, &entry, error))
            return false;
        const QString key = entry.root + QLatin1Char('/') + entry.path;
        if (seen.contains(key)) {
            *error = QStringLiteral("The manifest lists %1 twice").arg(key);
            return false;
        }
        seen.insert(key);
        files.push_back(entry);
    }
    return true;
}

bool BackupManifest::readEntry(const QJsonValue &value, bool isDatabase, Entry *entry, QString *error) const
{
    const QJsonObject object = value.toObject();
    entry->root = object.value(QStringLiteral("root")).toString();
    entry->path = object.value(QStringLiteral("path")).toString();
    entry->size = qint64(object.value(QStringLiteral("size")).toDouble(-1));
    entry->sha256 = object.value(QStringLiteral("sha256")).toString();
    const bool rootOk = isDatabase ? entry->root.isEmpty() : (entry->root == baseRoot() || entry->root == nasRoot());
    const bool pathOk = isDatabase ? entry->path == databaseName() : isSafeRelativePath(entry->path);
    if (!rootOk || !pathOk || entry->size < 0 || !isDigest(entry->sha256)) {
        *error = QStringLiteral("The manifest has an entry it cannot use: %1")
                     .arg(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)).left(300));
        return false;
    }
    return true;
}

QStringList BackupManifest::verify(const QString &backupFolder) const
{
    QStringList problems;
    int count = 0;
    const auto check = [&](const Entry &entry) {
        const QString stored = storedPath(backupFolder, entry);
        QString problem;
        if (QFileInfo(stored).isSymLink() || (QFileInfo::exists(stored) && !QFileInfo(stored).isFile())) {
            problem = QStringLiteral("%1 is no plain file").arg(stored);
        } else {
            const FileCopier::Result read = FileCopier::digest(stored);
            if (!read.ok)
                problem = read.missing ? QStringLiteral("%1 is missing").arg(stored) : read.error;
            else if (read.size != entry.size)
                problem = QStringLiteral("%1 holds %2 bytes, the manifest says %3")
                              .arg(stored)
                              .arg(read.size)
                              .arg(entry.size);
            else if (read.sha256 != entry.sha256)
                problem = QStringLiteral("%1 does not match its SHA-256 digest").arg(stored);
        }
        if (problem.isEmpty())
            return;
        if (++count <= MaxProblems)
            problems.append(problem);
    };
    check(database);
    for (const Entry &entry : files)
        check(entry);
    if (count > MaxProblems)
        problems.append(QStringLiteral("and %1 more").arg(count - MaxProblems));
    return problems;
}

QString BackupManifest::storedPath(const QString &backupFolder, const Entry &entry)
{
    if (entry.root.isEmpty())
        return QDir(backupFolder).filePath(entry.path);
    return QDir(backupFolder).filePath(QStringLiteral("files/%1/%2").arg(entry.root, entry.path));
}

bool BackupManifest::isSafeRelativePath(const QString &path)
{
    if (path.isEmpty() || QDir::isAbsolutePath(path) || path.contains(QChar(0)))
        return false;
    for (const QString &part : path.split(QLatin1Char('/'))) {
        if (part.isEmpty() || part == QLatin1String(".") || part == QLatin1String(".."))
            return false;
    }
    return true;
}

} // namespace Kelda
