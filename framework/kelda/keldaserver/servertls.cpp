#include "servertls.h"

#include "tlsfiles.h"

#include <QFile>
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
    QByteArray pem;
    if (!TlsFiles::read(certificateFile, &pem, error))
        return false;
    const QList<QSslCertificate> chain = QSslCertificate::fromData(pem, QSsl::Pem);
    if (chain.isEmpty()) {
        *error = QStringLiteral("%1 holds no PEM certificate").arg(certificateFile);
        return false;
    }
    if (!TlsFiles::read(keyFile, &pem, error))
        return false;
    const QSslKey key = TlsFiles::privateKey(pem);
    if (key.isNull()) {
        *error = QStringLiteral("%1 holds no unencrypted PEM private key").arg(keyFile);
        return false;
    }
    m_configuration = QSslConfiguration::defaultConfiguration();
    m_configuration.setLocalCertificateChain(chain);
    m_configuration.setPrivateKey(key);
    m_configuration.setProtocol(QSsl::TlsV1_2OrLater);
    m_configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    if (!clientAuthorityFile.isEmpty()) {
        if (!TlsFiles::read(clientAuthorityFile, &pem, error))
            return false;
        const QList<QSslCertificate> authorities = QSslCertificate::fromData(pem, QSsl::Pem);
        if (authorities.isEmpty()) {
            *error = QStringLiteral("%1 holds no PEM certificate").arg(clientAuthorityFile);
            return false;
        }
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
