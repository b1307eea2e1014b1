#pragma once

#include "keldaclientglobal.h"

#include <QString>

#include <memory>

class ICfg;

namespace Kelda {

// Where the configuration group "KELDA" places the archive server, with the
// defaults every client uses when it says nothing: "localhost" and 5223. A
// port that is no TCP port is traced and replaced by the default.
//
// Internal and not installed: the client's configuration reads it, and so do
// this project's programs, which offer it as the default of their --host and
// --port.
struct KELDACLIENT_EXPORT ConfiguredServer
{
    QString host;
    quint16 port = 0;

    // From the group in the user's view; the defaults when it cannot be
    // opened.
    static ConfiguredServer Read();
    // The group in the user's view; null when it cannot be opened.
    static std::unique_ptr<ICfg> OpenGroup();
    // Whether the group names a server at all; the defaults do not.
    static bool IsNamed(const ICfg &group);
    static QString ReadHost(const ICfg &group);
    static quint16 ReadPort(const ICfg &group);
};

} // namespace Kelda
