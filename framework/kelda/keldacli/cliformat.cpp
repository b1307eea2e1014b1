#include "cliformat.h"

#include "filegroupcolumns.h"
#include "filetype.h"
#include "keldaurl.h"

#include <QJsonDocument>

#include <algorithm>

using namespace Kelda;

namespace KeldaCli {

namespace {

const QString kTimeFormat = QStringLiteral("yyyy-MM-ddThh:mm:ss");

const QVector<int> kNarrowColumns = {FileGroupColumn::Guid,         FileGroupColumn::Name,
                                     FileGroupColumn::FileType,     FileGroupColumn::LocationState,
                                     FileGroupColumn::CreationTime, FileGroupColumn::Version,
                                     FileGroupColumn::Creator,      FileGroupColumn::LockCount};

QJsonValue timeValue(const QDateTime &time)
{
    return time.isValid() ? QJsonValue(time.toString(kTimeFormat)) : QJsonValue(QJsonValue::Null);
}

QString fileUrl(const QString &guid, int id)
{
    return KeldaUrl::fromKeldaIds(guid, unsigned(id)).toString();
}

QVector<QStringList> rowsOf(const QStringList &reply, int columnCount)
{
    QVector<QStringList> rows;
    if (columnCount <= 0)
        return rows;
    for (int at = columnCount; at + columnCount <= reply.size(); at += columnCount)
        rows.append(reply.mid(at, columnCount));
    return rows;
}

QStringList pick(const QStringList &row, const QVector<int> &columns)
{
    QStringList picked;
    for (int column : columns)
        picked.append(row.value(column));
    return picked;
}

} // namespace

QString formatTable(const QStringList &headers, const QVector<QStringList> &rows)
{
    QVector<int> widths(headers.size());
    for (int column = 0; column < headers.size(); ++column) {
        widths[column] = headers[column].size();
        for (const QStringList &row : rows)
            widths[column] = std::max(widths[column], int(row.value(column).size()));
    }
    auto line = [&](const QStringList &cells) {
        QString text;
        for (int column = 0; column < headers.size(); ++column) {
            const QString cell = cells.value(column);
            if (column + 1 < headers.size())
                text += cell.leftJustified(widths[column]) + QStringLiteral("  ");
            else
                text += cell;
        }
        // Trailing blanks of empty last cells help nobody.
        while (text.endsWith(QLatin1Char(' ')))
            text.chop(1);
        return text + QLatin1Char('\n');
    };
    QString table = line(headers);
    for (const QStringList &row : rows)
        table += line(row);
    return table;
}

QString formatQueryTable(const QStringList &reply, int columnCount, bool wide)
{
    const QStringList headers = reply.mid(0, columnCount);
    QVector<QStringList> rows = rowsOf(reply, columnCount);
    if (wide)
        return formatTable(headers, rows);
    for (QStringList &row : rows)
        row = pick(row, kNarrowColumns);
    return formatTable(pick(headers, kNarrowColumns), rows);
}

std::vector<FileGroupData> queryRecords(const QStringList &reply, int columnCount)
{
    return FileGroupData::fromStringList(reply.mid(columnCount));
}

const QString kChecksumStateOk = QStringLiteral("ok");
const QString kChecksumStateUnverified = QStringLiteral("unverified");

namespace {

// The fields of one record, in the order the server sends them.
enum ChecksumField { CfId, CfName, CfSize, CfAlgorithm, CfDigest, CfLastCheck, CfState, CfCount };

const FileChecksum *checksumOf(const std::vector<FileChecksum> &checksums, int fileId)
{
    for (const FileChecksum &checksum : checksums) {
        if (checksum.fileId == unsigned(fileId))
            return &checksum;
    }
    return nullptr;
}

} // namespace

std::vector<FileChecksum> checksumRecords(const QString &guid, const QStringList &records)
{
    std::vector<FileChecksum> files;
    for (int at = 0; at + CfCount <= records.size(); at += CfCount) {
        FileChecksum file;
        file.guid = guid;
        file.fileId = records.at(at + CfId).toUInt();
        file.name = records.at(at + CfName);
        file.size = records.at(at + CfSize);
        file.algorithm = records.at(at + CfAlgorithm);
        file.digest = records.at(at + CfDigest);
        file.lastCheck = records.at(at + CfLastCheck);
        file.state = records.at(at + CfState);
        files.push_back(file);
    }
    return files;
}

QString formatChecksums(const std::vector<FileChecksum> &files)
{
    QVector<QStringList> rows;
    for (const FileChecksum &file : files)
        rows.append({file.guid, QString::number(file.fileId), file.name, file.size, file.state,
                     file.lastCheck.isEmpty() ? QStringLiteral("-") : file.lastCheck,
                     file.digest.isEmpty() ? QStringLiteral("-") : file.digest});
    return formatTable({QStringLiteral("Group"), QStringLiteral("Id"), QStringLiteral("Name"), QStringLiteral("Size"),
                        QStringLiteral("State"), QStringLiteral("Last check"), QStringLiteral("Digest")},
                       rows);
}

QJsonArray checksumsToJson(const std::vector<FileChecksum> &files)
{
    QJsonArray array;
    for (const FileChecksum &file : files) {
        QJsonObject object;
        object.insert(QStringLiteral("guid"), file.guid);
        object.insert(QStringLiteral("id"), qint64(file.fileId));
        object.insert(QStringLiteral("name"), file.name);
        object.insert(QStringLiteral("size"), file.size.isEmpty() ? QJsonValue() : QJsonValue(file.size.toLongLong()));
        object.insert(QStringLiteral("algorithm"), file.algorithm);
        object.insert(QStringLiteral("digest"), file.digest);
        object.insert(QStringLiteral("lastCheck"), file.lastCheck);
        object.insert(QStringLiteral("state"), file.state);
        array.append(object);
    }
    return array;
}

QJsonObject fileGroupToJson(const FileGroupData &group, bool withFiles, const std::vector<FileChecksum> &checksums)
{
    QJsonObject object;
    object.insert(QStringLiteral("guid"), group.getGuid());
    object.insert(QStringLiteral("name"), group.getFileGroupName());
    object.insert(QStringLiteral("fileType"), int(group.getFileType()));
    object.insert(QStringLiteral("fileTypeText"), FileTypeManager::GetText(group.getFileType()));
    object.insert(QStringLiteral("locationState"), int(group.getLocationState()));
    object.insert(QStringLiteral("locationStateText"), LocationStateString::GetText(group.getLocationState()));
    object.insert(QStringLiteral("backupTime"), timeValue(group.getBackupTime()));
    object.insert(QStringLiteral("creationTime"), timeValue(group.getCreationTime()));
    object.insert(QStringLiteral("modificationTime"), timeValue(group.getModificationTime()));
    object.insert(QStringLiteral("lifeCycle"), timeValue(group.getLifeCycle()));
    object.insert(QStringLiteral("comment"), group.getComment());
    object.insert(QStringLiteral("creator"), group.getCreator());
    object.insert(QStringLiteral("detail"), group.getDetail());
    object.insert(QStringLiteral("team"), group.getTeamMembership());
    object.insert(QStringLiteral("version"), group.getVersion());
    object.insert(QStringLiteral("reservedStorage"), group.getReservedStorage());
    object.insert(QStringLiteral("referenceCounter"), group.getReferenceCounter());
    object.insert(QStringLiteral("lockCount"), group.getLockCount());
    if (withFiles)
        object.insert(QStringLiteral("files"), filesToJson(group.getGuid(), group.getFileList(), checksums));
    return object;
}

QJsonArray fileGroupsToJson(const std::vector<FileGroupData> &groups)
{
    QJsonArray array;
    for (const FileGroupData &group : groups)
        array.append(fileGroupToJson(group, false));
    return array;
}

QJsonArray filesToJson(const QString &guid, const FileGroupData::FileList &files,
                       const std::vector<FileChecksum> &checksums)
{
    QJsonArray array;
    for (const auto &file : files) {
        QJsonObject object;
        object.insert(QStringLiteral("id"), file.second);
        object.insert(QStringLiteral("name"), file.first);
        object.insert(QStringLiteral("url"), fileUrl(guid, file.second));
        if (const FileChecksum *checksum = checksumOf(checksums, file.second)) {
            object.insert(QStringLiteral("digest"), checksum->digest);
            object.insert(QStringLiteral("state"), checksum->state);
        }
        array.append(object);
    }
    return array;
}

QString formatFileGroup(const FileGroupData &group, const std::vector<FileChecksum> &checksums)
{
    QString text;
    for (const QString &line : group.ToDebugStringList())
        text += line + QLatin1Char('\n');
    text += QStringLiteral("Files:\n");
    for (const auto &file : group.getFileList()) {
        text += QStringLiteral("  %1  %2  %3")
                    .arg(QString::number(file.second), file.first, fileUrl(group.getGuid(), file.second));
        if (const FileChecksum *checksum = checksumOf(checksums, file.second))
            text += QStringLiteral("  %1  %2")
                        .arg(checksum->state, checksum->digest.isEmpty() ? QStringLiteral("-") : checksum->digest);
        text += QLatin1Char('\n');
    }
    return text;
}

QString formatFiles(const QString &guid, const FileGroupData::FileList &files)
{
    QVector<QStringList> rows;
    for (const auto &file : files)
        rows.append({QString::number(file.second), file.first, fileUrl(guid, file.second)});
    return formatTable({QStringLiteral("Id"), QStringLiteral("Name"), QStringLiteral("URL")}, rows);
}

QByteArray jsonText(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

QByteArray jsonText(const QJsonArray &array)
{
    return QJsonDocument(array).toJson(QJsonDocument::Indented);
}

} // namespace KeldaCli
