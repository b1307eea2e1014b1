#include "configuredserver.h"

#include "cfgcenter.h"
#include "icfg.h"
#include "trace.h"

#include <limits>

namespace Kelda {

namespace {

const char kTraceSource[] = "framework/kelda/keldaclient/src/clientconfig";

const QLatin1String kGroup("KELDA");
const QLatin1String kServerHostKey("ServerHost");
const QLatin1String kXmlPortKey("XmlPort");
const QLatin1String kDefaultHost("localhost");
constexpr quint16 kDefaultXmlPort = 5223;

} // namespace

ConfiguredServer ConfiguredServer::Read()
{
    const std::unique_ptr<ICfg> group = OpenGroup();
    if (!group)
        return {kDefaultHost, kDefaultXmlPort};
    return {ReadHost(*group), ReadPort(*group)};
}

std::unique_ptr<ICfg> ConfiguredServer::OpenGroup()
{
    return std::unique_ptr<ICfg>(CfgCenter::CreateCfg(kGroup, CfgCenter::ViewUser, QString()));
}

bool ConfiguredServer::IsNamed(const ICfg &group)
{
    return group.HasKey(kServerHostKey, 0);
}

QString ConfiguredServer::ReadHost(const ICfg &group)
{
    return group.GetString(kServerHostKey, kDefaultHost);
}

quint16 ConfiguredServer::ReadPort(const ICfg &group)
{
    const int value = group.GetInt(kXmlPortKey, kDefaultXmlPort);
    if (value > 0 && value <= std::numeric_limits<quint16>::max())
        return quint16(value);
    Q_TRACE_FAILURE(kTraceSource,
                    QStringLiteral("ClientConfig::ClientConfig: XmlPort %1 is not a TCP port, using %2")
                        .arg(value)
                        .arg(kDefaultXmlPort));
    return kDefaultXmlPort;
}

} // namespace Kelda
