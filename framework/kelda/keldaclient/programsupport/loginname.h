#pragma once

#include "keldaclientglobal.h"

#include <QString>

namespace Kelda {

// The user name this project's programs send with their requests when none
// is given: $USER, else $USERNAME, else the account of the process; empty
// when none of them names one.
//
// Internal and not installed, like configuredserver.h.
KELDACLIENT_EXPORT QString LoginName();

} // namespace Kelda
