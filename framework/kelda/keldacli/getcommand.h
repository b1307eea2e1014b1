#pragma once

#include "exitcode.h"

class QCommandLineParser;

namespace KeldaCli {

class Session;

void getOptions(QCommandLineParser &parser);
ExitCode runGet(const QCommandLineParser &parser, Session &session);

} // namespace KeldaCli
