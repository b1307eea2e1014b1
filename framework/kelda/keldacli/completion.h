#pragma once

#include "exitcode.h"

#include <QString>

class QCommandLineParser;

namespace KeldaCli {

class Session;

void completionOptions(QCommandLineParser &parser);
ExitCode runCompletion(const QCommandLineParser &parser, Session &session);

// The script for "bash", "zsh" or "fish"; empty for another shell.
QString completionScript(const QString &shell);

} // namespace KeldaCli
