#pragma once

#include <QString>

class QSslConfiguration;

namespace Kelda {

// The TLS files a client uses: the authority that must have signed the
// server's certificate (its presence switches TLS on), and the client's own
// certificate and key, which tell the server who the user is. Read from the
// keys TlsCaFile, TlsCertFile and TlsKeyFile of the group "KELDA", unless a
// program set them for the process.
struct ClientTls
{
    QString caFile;
    QString certFile;
    QString keyFile;

    bool isEnabled() const { return !caFile.isEmpty(); }

    // The files in force: those a program set, else the configured ones.
    static ClientTls current();
    // Overrides the configuration for every client made afterwards; an
    // empty caFile returns to what the configuration says.
    static void setOverride(const ClientTls &tls);

    // A configuration that trusts only the authority and shows the client's
    // certificate; false with *error naming the file and why.
    bool makeConfiguration(QSslConfiguration *configuration, QString *error) const;
};

} // namespace Kelda
