#include "clienttls.h"

#include "configuredserver.h"
#include "icfg.h"
#include "keldaclient.h"
#include "tlsfiles.h"

#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>

#include <memory>
#include <mutex>

namespace Kelda {

namespace {

const QLatin1String kCaFileKey("TlsCaFile");
const QLatin1String kCertFileKey("TlsCertFile");
const QLatin1String kKeyFileKey("TlsKeyFile");

std::mutex &overrideMutex()
{
    static std::mutex mutex;
    return mutex;
}

ClientTls &overridden()
{
    static ClientTls tls;
    return tls;
}

ClientTls configured()
{
    ClientTls tls;
    const std::unique_ptr<ICfg> cfg = ConfiguredServer::OpenGroup();
    if (!cfg)
        return tls;
    tls.caFile = cfg->GetString(kCaFileKey, QString());
    tls.certFile = cfg->GetString(kCertFileKey, QString());
    tls.keyFile = cfg->GetString(kKeyFileKey, QString());
    return tls;
}

} // namespace

void KeldaClient::SetTlsFiles(const QString &caFile, const QString &certFile, const QString &keyFile)
{
    ClientTls::setOverride(ClientTls{caFile, certFile, keyFile});
}

ClientTls ClientTls::current()
{
    {
        const std::lock_guard<std::mutex> lock(overrideMutex());
        if (overridden().isEnabled())
            return overridden();
    }
    return configured();
}

void ClientTls::setOverride(const ClientTls &tls)
{
    const std::lock_guard<std::mutex> lock(overrideMutex());
    overridden() = tls;
}

bool ClientTls::makeConfiguration(QSslConfiguration *configuration, QString *error) const
{
    QByteArray pem;
    if (!TlsFiles::read(caFile, &pem, error))
        return false;
    const QList<QSslCertificate> authorities = QSslCertificate::fromData(pem, QSsl::Pem);
    if (authorities.isEmpty()) {
        *error = QStringLiteral("%1 holds no PEM certificate").arg(caFile);
        return false;
    }
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    // Only the named authority vouches for the server, not the system's.
    tls.setCaCertificates(authorities);
    tls.setProtocol(QSsl::TlsV1_2OrLater);
    tls.setPeerVerifyMode(QSslSocket::VerifyPeer);
    if (!certFile.isEmpty() || !keyFile.isEmpty()) {
        if (!TlsFiles::read(certFile, &pem, error))
            return false;
        const QList<QSslCertificate> chain = QSslCertificate::fromData(pem, QSsl::Pem);
        if (chain.isEmpty()) {
            *error = QStringLiteral("%1 holds no PEM certificate").arg(certFile);
            return false;
        }
        if (!TlsFiles::read(keyFile, &pem, error))
            return false;
        const QSslKey key = TlsFiles::privateKey(pem);
        if (key.isNull()) {
            *error = QStringLiteral("%1 holds no unencrypted PEM private key").arg(keyFile);
            return false;
        }
        tls.setLocalCertificateChain(chain);
        tls.setPrivateKey(key);
    }
    *configuration = tls;
    return true;
}

} // namespace Kelda
