#pragma once

#include "startupglobal.h"

#include <QString>

class ICfg;

// The host framework's configuration centre.
//
// Every group lives in one INI file: the file named by the environment
// variable KELDA_CONFIG_FILE, or <generic config dir>/kelda/kelda.ini. The
// variable is read at every call, so a process (or a test) may switch files.
// The administrative view is the INI group "Admin".
class FRAMEWORKSTARTUP_EXPORT CfgCenter
{
public:
    enum View { ViewSystem = 1, ViewAdmin = 2, ViewUser = 4 };

    static ICfg *CreateCfg(const QString &group, View view, const QString &extra);
    static ICfg *GetAdminCfg(View view);
    static QString GetAppName();

    // The INI file the next CreateCfg call will use.
    static QString ConfigFilePath();
};
