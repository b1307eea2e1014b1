#pragma once

#include "filegroupdata.h"

#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

// Query tables and reply bodies for the dialog tests.
namespace GroupTable {

// The flat query table: the 16 headers, then one row per (name, guid), with
// the given lock count, also used as version text.
inline QStringList table(const QVector<QPair<QString, QString>> &groups, const QStringList &lockCounts = {})
{
    QStringList list;
    Kelda::FileGroupData::GetHeaders(list);
    for (int i = 0; i < groups.size(); ++i) {
        Kelda::FileGroupData group;
        group.setFileGroupName(groups.at(i).first);
        group.setGuid(groups.at(i).second);
        group.setLockCount(lockCounts.value(i).toInt());
        group.setVersion(lockCounts.value(i));
        group.ToStringList(list);
    }
    return list;
}

// QueryFileGroups reply children for groups of the given (name, guid).
inline QString queryReply(const QVector<QPair<QString, QString>> &groups, int error = 0)
{
    QString children;
    for (const auto &group : groups) {
        children += QStringLiteral("<m:FileGroup><m:Guid>%1</m:Guid><m:FileGroupName>%2</m:FileGroupName>"
                                   "<m:FileType>8</m:FileType><m:LocationState>2</m:LocationState>"
                                   "<m:Creator>ann</m:Creator><m:Files/></m:FileGroup>")
                        .arg(group.second, group.first);
    }
    return children + QStringLiteral("<m:Error>%1</m:Error>").arg(error);
}

// GetFileList reply children for (id, name) pairs.
inline QString fileListReply(const QVector<QPair<int, QString>> &files, int error = 0)
{
    QString children = QStringLiteral("<m:Files>");
    for (const auto &file : files) {
        children += QStringLiteral("<m:File><m:FileId>%1</m:FileId><m:FileName>%2</m:FileName></m:File>")
                        .arg(file.first)
                        .arg(file.second);
    }
    return children + QStringLiteral("</m:Files><m:Error>%1</m:Error>").arg(error);
}

} // namespace GroupTable
