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

QJsonObject fileGroupToJson(const Kelda::FileGroupData &group, bool withFiles);
QJsonArray fileGroupsToJson(const std::vector<Kelda::FileGroupData> &groups);
QJsonArray filesToJson(const QString &guid, const Kelda::FileGroupData::FileList &files);

// `info`: one "Label: value" line per field, then the files.
QString formatFileGroup(const Kelda::FileGroupData &group);
// `files`: a table of id, name and URL.
QString formatFiles(const QString &guid, const Kelda::FileGroupData::FileList &files);

// One indented JSON document with a final newline.
QByteArray jsonText(const QJsonObject &object);
QByteArray jsonText(const QJsonArray &array);

} // namespace KeldaCli
