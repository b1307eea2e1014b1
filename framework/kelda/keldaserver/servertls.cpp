#include "servertls.h"

#include "tlsfiles.h"

#include <QSslCertificate>
#include <QSslKey>

namespace Kelda {

bool ServerTls::load(const QString &certificateFile, const QString &keyFile, const QString &clientAuthorityFile,
                     QString *error)
{
    if (certificateFile.isEmpty() && keyFile.isEmpty()) {
        if (!clientAuthorityFile.isEmpty()) {
            *error = QStringLiteral("--tls-client-ca needs --tls-cert and --tls-key");
            return false;
        }
        return true;
    }
    if (certificateFile.isEmpty() || keyFile.isEmpty()) {
        *error = QStringLiteral("--tls-cert and --tls-key go together");
        return false;
    }
    QList<QSslCertificate> chain;
    QSslKey key;
    if (!TlsFiles::readCertificates(certificateFile, &chain, error) || !TlsFiles::readPrivateKey(keyFile, &key, error))
        return false;
    m_configuration = QSslConfiguration::defaultConfiguration();
    m_configuration.setLocalCertificateChain(chain);
    m_configuration.setPrivateKey(key);
    m_configuration.setProtocol(QSsl::TlsV1_2OrLater);
    m_configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    if (!clientAuthorityFile.isEmpty()) {
        QList<QSslCertificate> authorities;
        if (!TlsFiles::readCertificates(clientAuthorityFile, &authorities, error))
            return false;
        // Only this authority vouches for clients, not the system's.
        m_configuration.setCaCertificates(authorities);
        m_configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
        m_identifiesClients = true;
    }
    m_enabled = true;
    return true;
}

QString ServerTls::userOf(const QSslCertificate &certificate)
{
    const QStringList names = certificate.subjectInfo(QSslCertificate::CommonName);
    return names.isEmpty() ? QString() : names.first();
}

} // namespace Kelda
