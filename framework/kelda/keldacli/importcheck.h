#pragma once

#include "exitcode.h"

#include <QStringList>

namespace KeldaCli {

class Session;

// `import --dry-run`: reads the description files that an import of
// `items` (absolute paths) would take, checks that each names a GUID and
// that its files lie beside it, and prints what would be imported. Nothing
// is sent: whether a group is in the archive already shows only in a real
// import.
ExitCode checkImport(const QStringList &items, Session &session);

} // namespace KeldaCli
