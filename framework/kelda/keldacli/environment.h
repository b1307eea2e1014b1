#pragma once

#include <QString>

// The environment variables that `kelda` reads. They rank below the
// command-line options and above the configuration file, so that a shell
// session or a script can aim every call at one server without repeating
// --host and --port.
namespace KeldaCli {

constexpr const char kHostVariable[] = "KELDA_HOST";
constexpr const char kPortVariable[] = "KELDA_PORT";
constexpr const char kUserVariable[] = "KELDA_USER";

// The variable's value when it is set and not empty, else `fallback`.
QString environmentOr(const char *variable, const QString &fallback);
// Whether the variable holds a value that environmentOr() would take.
bool environmentSets(const char *variable);

// The block printed by `kelda --help` and in the README.
const char *environmentHelp();

} // namespace KeldaCli
