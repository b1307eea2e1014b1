#pragma once

#include "verbosity.h"

#include <QString>

class QCommandLineParser;

namespace KeldaCli {

struct ConnectionSettings;

// The options that come before the command. Their defaults are the
// environment variables where set, else the configuration (`defaults`).
void addGlobalOptions(QCommandLineParser &parser, const ConnectionSettings &defaults);
// False, with a message naming the option or variable, for a bad value.
bool readGlobalOptions(const QCommandLineParser &parser, ConnectionSettings &settings, QString &error);

// -q and -v, accepted before the command and after it.
void addVerbosityOptions(QCommandLineParser &parser);
// What the parser's -q or -v say; neither set keeps `verbosity`.
Verbosity verbosityOf(const QCommandLineParser &parser, Verbosity verbosity);
// A message when both are set, else an empty string.
QString verbosityConflict(const QCommandLineParser &parser);

} // namespace KeldaCli
