#include "clientconfig.h"

#include "configuredserver.h"
#include "icfg.h"
#include "keldaclient.h"
#include "trace.h"
#include "xmlseparator.h"

#include <memory>

namespace Kelda {

namespace {

const char kTraceSource[] = "framework/kelda/keldaclient/src/clientconfig";

const QLatin1String kUseUtcKey("UseUtc");
const QLatin1String kCompressionRateKey("CompressionRate");
const QLatin1String kMaxFrameSizeKey("MaxFrameSize");
constexpr int kDefaultCompressionRate = -1;

quint32 frameSizeFromConfiguration(int value)
{
    if (value > 0 && quint32(value) <= XmlSeparator::LargestMaxFrameLength)
        return quint32(value);
    const quint32 used = value > 0 ? XmlSeparator::LargestMaxFrameLength : XmlSeparator::DefaultMaxFrameLength;
    Q_TRACE_FAILURE(
        kTraceSource,
        QStringLiteral("ClientConfig::ClientConfig: MaxFrameSize %1 is out of range, using %2").arg(value).arg(used));
    return used;
}

// The first reader's copy becomes the shared one unless a client has already
// installed its own.
ClientConfig *sharedConfig(ClientConfig &candidate)
{
    ClientConfig *expected = nullptr;
    ClientConfig::s_shared.compare_exchange_strong(expected, &candidate);
    return ClientConfig::s_shared.load();
}

} // namespace

std::atomic<ClientConfig *> ClientConfig::s_shared{nullptr};

bool KeldaClient::IsKeldaAvailable()
{
    static ClientConfig config;
    return sharedConfig(config)->IsAvailable();
}

bool KeldaClient::IsUseUtc() const
{
    static ClientConfig config;
    return sharedConfig(config)->IsUseUtc();
}

int KeldaClient::GetCompressionRate()
{
    static ClientConfig config;
    return sharedConfig(config)->GetCompressionRate();
}

ClientConfig::ClientConfig()
{
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: Start "));
    try {
        ReadConfiguration();
    } catch (...) {
        Q_TRACE_FAILURE(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: Unknown exception caught"));
    }
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: End"));
}

ClientConfig::~ClientConfig()
{
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("ClientConfig::~ClientConfig: Destroyed"));
}

QString ClientConfig::GetServerHost() const
{
    const std::lock_guard<std::mutex> lock(m_hostMutex);
    return m_sServerHost;
}

void ClientConfig::SetServerHost(const QString &host)
{
    const std::lock_guard<std::mutex> lock(m_hostMutex);
    m_sServerHost = host;
}

quint16 ClientConfig::GetXmlPort() const
{
    return m_uXmlPort.load();
}

void ClientConfig::SetXmlPort(quint16 port)
{
    m_uXmlPort.store(port);
}

bool ClientConfig::IsAvailable() const
{
    return m_bAvailable.load();
}

void ClientConfig::SetAvailable(bool available)
{
    m_bAvailable.store(available);
}

bool ClientConfig::IsUseUtc() const
{
    return m_bUseUtc.load();
}

int ClientConfig::GetCompressionRate() const
{
    return m_iCompressionRate.load();
}

quint32 ClientConfig::GetMaxFrameSize() const
{
    return m_uMaxFrameSize.load();
}

void ClientConfig::ReadConfiguration()
{
    const std::unique_ptr<ICfg> cfg = ConfiguredServer::OpenGroup();
    if (!cfg)
        return;

    // Only a configured host makes a server available; "localhost" is merely
    // where a client given no host would look.
    m_bAvailable.store(ConfiguredServer::IsNamed(*cfg));
    if (GetServerHost().isEmpty())
        SetServerHost(ConfiguredServer::ReadHost(*cfg));
    if (m_uXmlPort.load() == 0)
        m_uXmlPort.store(ConfiguredServer::ReadPort(*cfg));
    m_bUseUtc.store(cfg->GetBool(kUseUtcKey, false));
    if (cfg->HasKey(kMaxFrameSizeKey, 0))
        m_uMaxFrameSize.store(frameSizeFromConfiguration(cfg->GetInt(kMaxFrameSizeKey, 0)));

    // Level 0 (no compression) cannot be configured: a stored 0 is taken for
    // an unset key and replaced in the store by the default level.
    if (cfg->GetInt(kCompressionRateKey, 0) == 0) {
        cfg->SetInt(kCompressionRateKey, kDefaultCompressionRate);
        cfg->Flush(kCompressionRateKey, 0);
    }
    m_iCompressionRate.store(cfg->GetInt(kCompressionRateKey, kDefaultCompressionRate));
}

} // namespace Kelda
