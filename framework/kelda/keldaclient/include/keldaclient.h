#pragma once

#include "keldaclientglobal.h"

#include <QObject>

#include <atomic>

namespace Kelda {

// The facade through which an application uses the archive server.
class KELDACLIENT_EXPORT KeldaClient : public QObject
{
    Q_OBJECT

public:
    // The settings every client of the process shares.
    class ClientConfig;

    // Whether a server is configured.
    static bool IsKeldaAvailable();
    // Whether date-times travel to and from the server in UTC.
    bool IsUseUtc() const;
    // The compression level for message bodies; -1 is zlib's default.
    static int GetCompressionRate();

    // The shared configuration all readers use. Set by the first reader, and
    // replaced by the first client, whose constructor may override host and
    // port for the whole process.
    static std::atomic<ClientConfig *> s_config;
};

} // namespace Kelda
