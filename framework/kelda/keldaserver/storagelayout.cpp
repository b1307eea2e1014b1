#include "storagelayout.h"

#include <QDir>
#include <QUuid>

namespace Kelda {

StorageLayout::StorageLayout(const QString &basePath, const QString &nasPath, const QString &exchangePath,
                             qint64 maxImportBytes)
    : m_basePath(QDir::cleanPath(QDir(basePath).absolutePath()))
    , m_nasPath(QDir::cleanPath(QDir(nasPath).absolutePath()))
    , m_exchangePath(QDir::cleanPath(QDir(exchangePath).absolutePath()))
    , m_maxImportBytes(maxImportBytes)
{
    // Held open for the server's life, as the database inside it is.
    // Network storage may be mounted after the start: its root is looked
    // up at each use.
    ConfinedDirectory base =
        ConfinedDirectory::open(m_basePath, m_basePath, ConfinedDirectory::Creation::Existing, nullptr);
    if (base.isOpen())
        m_base = std::make_shared<const ConfinedDirectory>(std::move(base));
}

QString StorageLayout::defaultGroupDirectory(const QString &guid, const QDateTime &utcNow) const
{
    return QDir::cleanPath(m_basePath + QLatin1Char('/') + utcNow.toUTC().toString(QStringLiteral("yyyy/MM/dd/hh")) +
                           QLatin1Char('/') + guid);
}

QString StorageLayout::nasDirectoryFor(const QString &groupDirectory, const QString &guid) const
{
    const QString cleaned = QDir::cleanPath(groupDirectory);
    if (isBelow(m_basePath, cleaned) && !isBelow(m_nasPath, cleaned))
        return QDir::cleanPath(m_nasPath + QLatin1Char('/') + QDir(m_basePath).relativeFilePath(cleaned));
    return QDir::cleanPath(m_nasPath + QLatin1Char('/') + guid);
}

QString StorageLayout::refusedGroupDirectory(const QString &directory, const QString &guid) const
{
    if (!isBelow(m_basePath, directory))
        return QStringLiteral("%1 does not lie below the base path %2").arg(directory, m_basePath);
    for (const QString &folder : {m_nasPath, m_exchangePath}) {
        if (isAtOrBelow(folder, directory) || isBelow(directory, folder))
            return QStringLiteral("%1 lies in or around %2, which holds no group directories").arg(directory, folder);
    }
    // The GUID keeps one group's directory from being chosen for another.
    const QStringList components = componentsBelowBase(directory);
    for (const QString &component : components) {
        if (!ConfinedDirectory::isPlainName(component))
            return QStringLiteral("%1 holds a folder name the server cannot use").arg(directory);
    }
    if (!components.contains(guid))
        return QStringLiteral("%1 does not name the file group's GUID %2 as one of its folders").arg(directory, guid);
    return QString();
}

QStringList StorageLayout::otherGuidsIn(const QString &directory, const QString &guid) const
{
    QStringList guids;
    for (const QString &component : componentsBelowBase(directory)) {
        if (component != guid && isGuid(component))
            guids.append(component);
    }
    return guids;
}

QStringList StorageLayout::componentsBelowBase(const QString &directory) const
{
    return QDir(m_basePath).relativeFilePath(directory).split(QLatin1Char('/'));
}

QString StorageLayout::requestedGroupDirectory(const QString &requestedPath)
{
    const QString trimmed = requestedPath.trimmed();
    return trimmed.isEmpty() ? QString() : QDir::cleanPath(QDir::fromNativeSeparators(trimmed));
}

QString StorageLayout::rootOf(const QString &directory) const
{
    if (isAtOrBelow(m_nasPath, directory))
        return m_nasPath;
    return isBelow(m_basePath, directory) ? m_basePath : QString();
}

ConfinedDirectory StorageLayout::openGroupDirectory(const QString &directory, ConfinedDirectory::Creation creation,
                                                    QString *error) const
{
    const QString root = rootOf(directory);
    if (root.isEmpty()) {
        *error = QStringLiteral("%1 lies outside the server's storage").arg(directory);
        return ConfinedDirectory();
    }
    if (m_base && root == m_basePath)
        return m_base->openWithin(directory, creation, error);
    return ConfinedDirectory::open(root, directory, creation, error);
}

void StorageLayout::removeEmptyGroupDirectory(const QString &directory) const
{
    const QString root = rootOf(directory);
    if (!root.isEmpty())
        ConfinedDirectory::removeEmptyTree(root, directory);
}

QString StorageLayout::exchangeItem(const QString &requested) const
{
    const QString text = QDir::fromNativeSeparators(requested.trimmed());
    if (text.contains(QChar(0)))
        return QString();
    const QString path = QDir::cleanPath(QDir::isRelativePath(text) ? m_exchangePath + QLatin1Char('/') + text : text);
    return isAtOrBelow(m_exchangePath, path) ? path : QString();
}

bool StorageLayout::isAtOrBelow(const QString &root, const QString &path)
{
    return isBelow(root, path) || (!path.isEmpty() && QDir::cleanPath(path) == QDir::cleanPath(root));
}

bool StorageLayout::isBelow(const QString &root, const QString &path)
{
    if (root.isEmpty() || path.isEmpty() || QDir::isRelativePath(path))
        return false;
    const QString cleanRoot = QDir::cleanPath(root);
    const QString cleanPath = QDir::cleanPath(path);
    const QString prefix = cleanRoot.endsWith(QLatin1Char('/')) ? cleanRoot : cleanRoot + QLatin1Char('/');
    return cleanPath.startsWith(prefix) && cleanPath.size() > prefix.size();
}

bool StorageLayout::isSafeFileName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
        !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) && !name.contains(QChar(0));
}

bool StorageLayout::isGuid(const QString &text)
{
    return text.size() == 36 && !QUuid(text).isNull() && text == text.toLower();
}

QString StorageLayout::fileInside(const QString &directory, const QString &name)
{
    if (!isSafeFileName(name))
        return QString();
    return QDir::cleanPath(directory + QLatin1Char('/') + name);
}

QString StorageLayout::directoryForReply(const QString &directory)
{
    return QDir::toNativeSeparators(QDir::cleanPath(directory) + QLatin1Char('/'));
}

} // namespace Kelda
