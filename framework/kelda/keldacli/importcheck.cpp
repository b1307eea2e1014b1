#include "importcheck.h"

#include "clisession.h"
#include "commandsupport.h"

#include "filegroupdata.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>

using namespace Kelda;

namespace KeldaCli {

namespace {

const QString kDescriptionPattern = QStringLiteral("*.fgdesc");

// A folder stands for the description files directly in it, as the server
// takes them.
QStringList descriptionFiles(const QStringList &items)
{
    QStringList files;
    for (const QString &item : items) {
        if (!QFileInfo(item).isDir()) {
            files.append(item);
            continue;
        }
        QDirIterator it(item, {kDescriptionPattern}, QDir::Files);
        while (it.hasNext())
            files.append(it.next());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Empty when the group can be imported as far as the files tell.
QString checkDescription(const QString &description, FileGroupData &group)
{
    if (!group.fromXmlforImport(description))
        return QStringLiteral("cannot read the description '%1'").arg(description);
    if (!isGuid(group.getGuid()))
        return QStringLiteral("'%1' names no valid GUID").arg(description);
    const QDir folder(QFileInfo(description).absoluteDir().filePath(group.getGuid()));
    for (const FileGroupData::FileEntry &file : group.getFileList()) {
        if (!QFileInfo(folder.filePath(file.first)).isFile())
            return QStringLiteral("'%1' lists %2, which is missing from %3")
                .arg(description, file.first, folder.path());
    }
    return QString();
}

} // namespace

ExitCode checkImport(const QStringList &items, Session &session)
{
    const QStringList descriptions = descriptionFiles(items);
    if (descriptions.isEmpty()) {
        session.out() << "would import nothing: no description file (" << kDescriptionPattern << ") found\n";
        return ExitOk;
    }
    ExitCode result = ExitOk;
    for (const QString &description : descriptions) {
        FileGroupData group;
        const QString error = checkDescription(description, group);
        if (!error.isEmpty()) {
            result = session.fail(ExitLocalFile, error);
            continue;
        }
        session.out() << QStringLiteral("would import group \"%1\" (%2, %3) from %4\n")
                             .arg(group.getFileGroupName(), group.getGuid(),
                                  countText(qint64(group.getFileList().size()), "file"), description);
    }
    return result;
}

} // namespace KeldaCli
