#include "putplan.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QMap>

#include <algorithm>

namespace KeldaCli {

namespace {

// A mistaken folder can clash in thousands of names; the first few tell.
constexpr int kClashesShown = 10;

// Hidden files count, as they do for cp -r; links to folders are not
// followed, so that a link cannot make the walk endless.
constexpr QDir::Filters kFileFilter = QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot;

QStringList filesBelow(const QString &folder)
{
    QStringList paths;
    QDirIterator it(folder, kFileFilter, QDirIterator::Subdirectories);
    while (it.hasNext())
        paths.append(it.next());
    std::sort(paths.begin(), paths.end());
    return paths;
}

QStringList filesIn(const QString &folder)
{
    QStringList paths;
    QDirIterator it(folder, kFileFilter);
    while (it.hasNext())
        paths.append(it.next());
    std::sort(paths.begin(), paths.end());
    return paths;
}

// "data" for "data/", "../data" or "."; the folder's own name.
QString folderName(const QString &folder)
{
    return QDir(QFileInfo(folder).absoluteFilePath()).dirName();
}

} // namespace

bool PutPlan::build(const QStringList &arguments, Layout layout, const QString &groupName)
{
    m_groups.clear();
    if (layout == Layout::GroupPerFolder) {
        for (const QString &argument : arguments) {
            if (!QFileInfo(argument).isDir())
                return refuse(ExitUsage,
                              QStringLiteral("'%1' is not a folder; --group-per-folder stores folders").arg(argument));
            if (!addFolderGroups(argument, groupName.isEmpty() ? folderName(argument) : groupName))
                return false;
        }
        if (m_groups.empty())
            return refuse(
                ExitUsage,
                QStringLiteral("nothing to store: no file below %1").arg(arguments.join(QLatin1String(", "))));
        return true;
    }

    Group group;
    const QString &first = arguments.constFirst();
    group.name = !groupName.isEmpty() ? groupName
        : QFileInfo(first).isDir()    ? folderName(first)
                                      : QFileInfo(first).fileName();
    for (const QString &argument : arguments) {
        if (!QFileInfo(argument).isDir()) {
            if (!addFile(group, argument))
                return false;
        } else if (layout == Layout::Files) {
            return refuse(ExitUsage, QStringLiteral("'%1' is a folder; store its files with -r").arg(argument));
        } else if (!addTree(group, argument)) {
            return false;
        }
    }
    if (group.files.empty())
        return refuse(ExitUsage,
                      QStringLiteral("nothing to store: no file below %1").arg(arguments.join(QLatin1String(", "))));
    if (!checkNames(group))
        return false;
    m_groups.push_back(group);
    return true;
}

int PutPlan::fileCount() const
{
    int count = 0;
    for (const Group &group : m_groups)
        count += int(group.files.size());
    return count;
}

qint64 PutPlan::totalBytes() const
{
    qint64 bytes = 0;
    for (const Group &group : m_groups)
        bytes += group.bytes;
    return bytes;
}

bool PutPlan::addFile(Group &group, const QString &path)
{
    const QFileInfo info(path);
    if (!info.isFile() || !info.isReadable())
        return refuse(ExitLocalFile, QStringLiteral("cannot read '%1': not a readable file").arg(path));
    group.files.push_back({path, info.fileName(), info.size()});
    group.bytes += info.size();
    return true;
}

bool PutPlan::addTree(Group &group, const QString &folder)
{
    for (const QString &path : filesBelow(folder)) {
        if (!addFile(group, path))
            return false;
    }
    return true;
}

bool PutPlan::addFolderGroups(const QString &folder, const QString &groupName)
{
    Group group;
    group.name = groupName;
    for (const QString &path : filesIn(folder)) {
        if (!addFile(group, path))
            return false;
    }
    if (!group.files.empty())
        m_groups.push_back(group);
    QStringList subfolders;
    QDirIterator it(folder, QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot | QDir::NoSymLinks);
    while (it.hasNext())
        subfolders.append(it.next());
    std::sort(subfolders.begin(), subfolders.end());
    for (const QString &subfolder : subfolders) {
        if (!addFolderGroups(subfolder, groupName + QLatin1Char('/') + QFileInfo(subfolder).fileName()))
            return false;
    }
    return true;
}

// A group holds one file per name; files from different folders may not
// meet under one.
bool PutPlan::checkNames(const Group &group)
{
    QMap<QString, QStringList> sources;
    for (const File &file : group.files)
        sources[file.name].append(file.source);
    QString clashes;
    int count = 0;
    for (auto it = sources.cbegin(); it != sources.cend(); ++it) {
        if (it.value().size() > 1 && ++count <= kClashesShown)
            clashes += QStringLiteral("\n  %1: %2").arg(it.key(), it.value().join(QLatin1String(", ")));
    }
    if (count == 0)
        return true;
    if (count > kClashesShown)
        clashes += QStringLiteral("\n  and %1 more names").arg(count - kClashesShown);
    return refuse(ExitUsage,
                  QStringLiteral("a group holds one file per name, and these names occur more than once "
                                 "(rename them, or use --group-per-folder):") +
                      clashes);
}

bool PutPlan::refuse(ExitCode code, const QString &text)
{
    m_errorCode = code;
    m_errorText = text;
    return false;
}

} // namespace KeldaCli
