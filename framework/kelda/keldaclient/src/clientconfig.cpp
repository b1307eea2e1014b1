#include "clientconfig.h"

#include "cfgcenter.h"
#include "icfg.h"
#include "trace.h"
#include "xmlseparator.h"


#include <limits>
#include <memory>

namespace Kelda {

namespace {

const char kTraceSource[] = "framework/kelda/keldaclient/src/clientconfig";

const QLatin1String kGroup("KELDA");
const QLatin1String kServerHostKey("ServerHost");
const QLatin1String kXmlPortKey("XmlPort");
const QLatin1String kUseUtcKey("UseUtc");
const QLatin1String kCompressionRateKey("CompressionRate");
const QLatin1String kMaxFrameSizeKey("MaxFrameSize");

const QLatin1String kDefaultHost("localhost");
constexpr quint16 kDefaultXmlPort = 5223;
constexpr int kDefaultCompressionRate = -1;

quint16 portFromConfiguration(int value)
{
    if (value > 0 && value <= std::numeric_limits<quint16>::max())
        return quint16(value);
    Q_TRACE_FAILURE(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: XmlPort %1 is not a TCP port, using %2")
                                      .arg(value)
                                      .arg(kDefaultXmlPort));
    return kDefaultXmlPort;
}

quint32 frameSizeFromConfiguration(int value)
{
    if (value > 0 && quint32(value) <= XmlSeparator::LargestMaxFrameLength)
        return quint32(value);
    const quint32 used = value > 0 ? XmlSeparator::LargestMaxFrameLength : XmlSeparator::DefaultMaxFrameLength;
    Q_TRACE_FAILURE(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: MaxFrameSize %1 is out of range, using %2")
                                      .arg(value)
                                      .arg(used));
    return used;
}

// The first reader's copy becomes the shared one unless a client has already
// installed its own.
KeldaClient::ClientConfig *sharedConfig(KeldaClient::ClientConfig &candidate)
{
    KeldaClient::ClientConfig *expected = nullptr;
    KeldaClient::s_config.compare_exchange_strong(expected, &candidate);
    return KeldaClient::s_config.load();
}

} // namespace

std::atomic<KeldaClient::ClientConfig *> KeldaClient::s_config{nullptr};

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

KeldaClient::ClientConfig::ClientConfig()
{
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: Start "));
    try {
        ReadConfiguration();
    } catch (...) {
        Q_TRACE_FAILURE(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: Unknown exception caught"));
    }
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("ClientConfig::ClientConfig: End"));
}

KeldaClient::ClientConfig::~ClientConfig()
{
    Q_TRACE_DETAIL(kTraceSource, QStringLiteral("ClientConfig::~ClientConfig: Destroyed"));
}

QString KeldaClient::ClientConfig::GetServerHost() const
{
    const std::lock_guard<std::mutex> lock(m_hostMutex);
    return m_sServerHost;
}

void KeldaClient::ClientConfig::SetServerHost(const QString &host)
{
    const std::lock_guard<std::mutex> lock(m_hostMutex);
    m_sServerHost = host;
}

quint16 KeldaClient::ClientConfig::GetXmlPort() const
{
    return m_uXmlPort.load();
}

void KeldaClient::ClientConfig::SetXmlPort(quint16 port)
{
    m_uXmlPort.store(port);
}

bool KeldaClient::ClientConfig::IsAvailable() const
{
    return m_bAvailable.load();
}

void KeldaClient::ClientConfig::SetAvailable(bool available)
{
    m_bAvailable.store(available);
}

bool KeldaClient::ClientConfig::IsUseUtc() const
{
    return m_bUseUtc.load();
}

int KeldaClient::ClientConfig::GetCompressionRate() const
{
    return m_iCompressionRate.load();
}

quint32 KeldaClient::ClientConfig::GetMaxFrameSize() const
{
    return m_uMaxFrameSize.load();
}

void KeldaClient::ClientConfig::ReadConfiguration()
{
    const std::unique_ptr<ICfg> cfg(CfgCenter::CreateCfg(kGroup, CfgCenter::ViewUser, QString()));
    if (!cfg)
        return;

    // Only a configured host makes a server available; "localhost" is merely
    // where a client given no host would look.
    m_bAvailable.store(cfg->HasKey(kServerHostKey, 0));
    if (GetServerHost().isEmpty())
        SetServerHost(cfg->GetString(kServerHostKey, kDefaultHost));
    if (m_uXmlPort.load() == 0)
        m_uXmlPort.store(portFromConfiguration(cfg->GetInt(kXmlPortKey, kDefaultXmlPort)));
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
