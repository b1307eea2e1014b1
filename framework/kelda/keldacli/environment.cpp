#include "environment.h"

namespace KeldaCli {

QString environmentOr(const char *variable, const QString &fallback)
{
    const QString value = qEnvironmentVariable(variable).trimmed();
    return value.isEmpty() ? fallback : value;
}

bool environmentSets(const char *variable)
{
    return !qEnvironmentVariable(variable).trimmed().isEmpty();
}

const char *environmentHelp()
{
    return "Environment (below the options, above the configuration file):\n"
           "  KELDA_HOST         archive server host\n"
           "  KELDA_PORT         archive server port\n"
           "  KELDA_USER         user name sent with requests\n"
           "  KELDA_CONFIG_FILE  the configuration file (default ~/.config/kelda/kelda.ini)\n";
}

} // namespace KeldaCli
