#pragma once

#include "exitcode.h"

class QCommandLineParser;

namespace KeldaCli {

class Session;

void putOptions(QCommandLineParser &parser);
ExitCode runPut(const QCommandLineParser &parser, Session &session);

} // namespace KeldaCli
