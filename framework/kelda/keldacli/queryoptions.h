#pragma once

#include "filequery.h"
#include "filetype.h"

#include <QDateTime>
#include <QString>

class QCommandLineParser;

// The `ls` options: one per criterion of a file query, read into a
// FileQuery without touching the server.
namespace KeldaCli {

void addQueryOptions(QCommandLineParser &parser);
// False, with a message naming the option, when a value cannot be read.
bool queryFromOptions(const QCommandLineParser &parser, Kelda::FileQuery &query, QString &error);

// A decimal value or the display text (any case) of a known value.
bool parseFileType(const QString &text, Kelda::FileType &type);
bool parseLocationState(const QString &text, Kelda::LocationState &state);
bool parseLockState(const QString &text, Kelda::LockState &state);
// The query's own formats ("yyyy-MM-dd hh:mm:ss[.zzz]", also with "T"), or a
// bare date "yyyy-MM-dd" (midnight), in local time.
QDateTime parseTime(const QString &text);

} // namespace KeldaCli
