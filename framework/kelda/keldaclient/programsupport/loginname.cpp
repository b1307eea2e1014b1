#include "loginname.h"

#include <pwd.h>
#include <unistd.h>

namespace Kelda {

QString LoginName()
{
    QString user = qEnvironmentVariable("USER");
    if (user.isEmpty())
        user = qEnvironmentVariable("USERNAME");
    if (user.isEmpty()) {
        if (const passwd *entry = getpwuid(getuid()))
            user = QString::fromLocal8Bit(entry->pw_name);
    }
    return user;
}

} // namespace Kelda
