#pragma once

#include <QSslConfiguration>
#include <QString>

namespace Kelda {

// The server's TLS set-up, read from the files its options name: its own
// certificate and key, and optionally the authority whose certificates
// identify clients. Without a certificate the server speaks plain TCP.
class ServerTls
{
public:
    // False, with *error saying which file and why, when a file cannot be
    // used.
    bool load(const QString &certificateFile, const QString &keyFile, const QString &clientAuthorityFile,
              QString *error);

    bool isEnabled() const { return m_enabled; }
    // Clients must show a certificate of the client authority.
    bool identifiesClients() const { return m_identifiesClients; }
    const QSslConfiguration &configuration() const { return m_configuration; }

    // The user a verified client certificate names: its common name.
    static QString userOf(const QSslCertificate &certificate);

private:
    QSslConfiguration m_configuration;
    bool m_enabled = false;
    bool m_identifiesClients = false;
};

} // namespace Kelda
