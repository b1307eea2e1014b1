#pragma once

#include "exitcode.h"

#include <QString>
#include <QStringList>

#include <vector>

namespace KeldaCli {

// What `put` would store, worked out from the local files alone, so that
// every local fault shows before anything is sent and --dry-run can print
// it.
class PutPlan
{
public:
    enum class Layout {
        // The arguments are files; folders are refused.
        Files,
        // Files and the files of folders, at any depth, in one group.
        OneGroup,
        // One group for each folder that holds files itself.
        GroupPerFolder
    };

    struct File
    {
        QString source;
        // Its name in the group: the base name.
        QString name;
        qint64 size = 0;
    };

    struct Group
    {
        QString name;
        // Sorted by source path; a file's id in the group is its place + 1.
        std::vector<File> files;
        qint64 bytes = 0;
    };

    // `groupName` empty means a name taken from the arguments. False with
    // errorCode() and errorText() when the files cannot be stored as asked.
    bool build(const QStringList &arguments, Layout layout, const QString &groupName);

    const std::vector<Group> &groups() const { return m_groups; }
    int fileCount() const;
    qint64 totalBytes() const;

    ExitCode errorCode() const { return m_errorCode; }
    QString errorText() const { return m_errorText; }

private:
    bool addFile(Group &group, const QString &path);
    bool addTree(Group &group, const QString &folder);
    bool addFolderGroups(const QString &folder, const QString &groupName);
    bool checkNames(const Group &group);
    bool refuse(ExitCode code, const QString &text);

    std::vector<Group> m_groups;
    ExitCode m_errorCode = ExitOk;
    QString m_errorText;
};

} // namespace KeldaCli
