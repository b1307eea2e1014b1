#pragma once

#include "filegroupdata.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

// Output of `kelda`: readable tables and JSON documents, built from the
// client's results without any I/O, so that they can be tested on their own.
namespace KeldaCli {

// Columns padded to their widest cell, two blanks apart; the last column is
// not padded. A row shorter than the headers leaves its last cells empty.
QString formatTable(const QStringList &headers, const QVector<QStringList> &rows);

// A query result (the column headers, then the values row by row) as the
// `ls` table: whole GUIDs first, then the columns a reader scans for. `wide`
// shows every column.
QString formatQueryTable(const QStringList &reply, int columnCount, bool wide);
// The rows of a query result as records.
std::vector<Kelda::FileGroupData> queryRecords(const QStringList &reply, int columnCount);

// What the archive recorded of one file of group `guid`, from the records of
// GetFileChecksums and VerifyFileGroup.
struct FileChecksum
{
    QString guid;
    unsigned int fileId = 0;
    QString name;
    // Empty, as algorithm and digest are, for a file not read yet.
    QString size;
    QString algorithm;
    QString digest;
    QString lastCheck;
    QString state;
};

// The state of an intact file.
extern const QString kChecksumStateOk;
// The state of a file without a digest yet.
extern const QString kChecksumStateUnverified;

// Seven texts per file; an incomplete record at the end is dropped.
std::vector<FileChecksum> checksumRecords(const QString &guid, const QStringList &records);
// `verify`: group, id, name, size, state, last check and digest.
QString formatChecksums(const std::vector<FileChecksum> &files);
QJsonArray checksumsToJson(const std::vector<FileChecksum> &files);

// `checksums`, when given, add each file's digest and state.
QJsonObject fileGroupToJson(const Kelda::FileGroupData &group, bool withFiles,
                            const std::vector<FileChecksum> &checksums = {});
QJsonArray fileGroupsToJson(const std::vector<Kelda::FileGroupData> &groups);
QJsonArray filesToJson(const QString &guid, const Kelda::FileGroupData::FileList &files,
                       const std::vector<FileChecksum> &checksums = {});

// `info`: one "Label: value" line per field, then the files, with their
// state and digest when `checksums` has them.
QString formatFileGroup(const Kelda::FileGroupData &group, const std::vector<FileChecksum> &checksums = {});
// `files`: a table of id, name and URL.
QString formatFiles(const QString &guid, const Kelda::FileGroupData::FileList &files);

// One indented JSON document with a final newline.
QByteArray jsonText(const QJsonObject &object);
QByteArray jsonText(const QJsonArray &array);

} // namespace KeldaCli
