#include "clienttls.h"

#include "configuredserver.h"
#include "icfg.h"
#include "keldaclient.h"
#include "tlsfiles.h"

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
    QList<QSslCertificate> authorities;
    if (!TlsFiles::readCertificates(caFile, &authorities, error))
        return false;
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    // Only the named authority vouches for the server, not the system's.
    tls.setCaCertificates(authorities);
    tls.setProtocol(QSsl::TlsV1_2OrLater);
    tls.setPeerVerifyMode(QSslSocket::VerifyPeer);
    if (!certFile.isEmpty() || !keyFile.isEmpty()) {
        QList<QSslCertificate> chain;
        QSslKey key;
        if (!TlsFiles::readCertificates(certFile, &chain, error) || !TlsFiles::readPrivateKey(keyFile, &key, error))
            return false;
        tls.setLocalCertificateChain(chain);
        tls.setPrivateKey(key);
    }
    *configuration = tls;
    return true;
}

} // namespace Kelda
