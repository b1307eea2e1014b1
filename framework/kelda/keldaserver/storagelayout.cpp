#include "storagelayout.h"

#include <QDir>
#include <QFileInfo>
#include <QUuid>

namespace Kelda {

StorageLayout::StorageLayout(const QString &basePath, const QString &nasPath, const QString &exchangePath)
    : m_basePath(QDir::cleanPath(QDir(basePath).absolutePath()))
    , m_nasPath(QDir::cleanPath(QDir(nasPath).absolutePath()))
    , m_exchangePath(QDir::cleanPath(QDir(exchangePath).absolutePath()))
{
}

QString StorageLayout::defaultGroupDirectory(const QString &guid, const QDateTime &utcNow) const
{
    return QDir::cleanPath(m_basePath + QLatin1Char('/') + utcNow.toUTC().toString(QStringLiteral("yyyy/MM/dd/hh"))
                           + QLatin1Char('/') + guid);
}

QString StorageLayout::nasDirectoryFor(const QString &groupDirectory, const QString &guid) const
{
    const QString cleaned = QDir::cleanPath(groupDirectory);
    if (isBelow(m_basePath, cleaned) && !isBelow(m_nasPath, cleaned))
        return QDir::cleanPath(m_nasPath + QLatin1Char('/') + QDir(m_basePath).relativeFilePath(cleaned));
    return QDir::cleanPath(m_nasPath + QLatin1Char('/') + guid);
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
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..")
        && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) && !name.contains(QChar(0));
}

bool StorageLayout::isGuid(const QString &text)
{
    return text.size() == 36 && !QUuid(text).isNull() && text == text.toLower();
}

QString StorageLayout::fileInside(const QString &directory, const QString &name)
{
    if (!isSafeFileName(name))
        return QString();
    const QString path = QDir::cleanPath(directory + QLatin1Char('/') + name);
    // A link may point anywhere; archived files are files of their own.
    if (QFileInfo(path).isSymLink())
        return QString();
    return path;
}

QString StorageLayout::directoryForReply(const QString &directory)
{
    return QDir::toNativeSeparators(QDir::cleanPath(directory) + QLatin1Char('/'));
}

} // namespace Kelda
