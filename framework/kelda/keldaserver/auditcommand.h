#pragma once

#include <QString>
#include <QStringList>

namespace Kelda {

// "keldaserver audit": prints the audit trail of an archive's database,
// with or without a server running on it. It reads the database as the
// server's --db names it and never changes it, not even its schema.
class AuditCommand
{
public:
    // The subcommand's name, the program's first argument.
    static const QString Name;

    // arguments: the program's, the subcommand's name second. Returns the
    // exit code (those of ServerOptions).
    static int run(const QStringList &arguments);
};

} // namespace Kelda
