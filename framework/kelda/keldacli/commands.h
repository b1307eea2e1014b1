#pragma once

#include "exitcode.h"

#include <QString>

#include <vector>

class QCommandLineParser;

namespace KeldaCli {

class Session;

// One subcommand of `kelda`: its options and positional arguments, and the
// function that runs it. A run function checks its arguments before it
// connects, so that a usage error never waits for a server.
struct Command
{
    const char *name;
    const char *synopsis;
    const char *summary;
    void (*addOptions)(QCommandLineParser &parser);
    ExitCode (*run)(const QCommandLineParser &parser, Session &session);
};

const std::vector<Command> &commands();
const Command *findCommand(const QString &name);

} // namespace KeldaCli
