#pragma once

#include "xmlseparator.h"

#include <QString>

#include <atomic>
#include <mutex>

namespace Kelda {

// The client settings of the process, read once from the configuration group
// "KELDA". The client constructors write host, port and availability before
// other threads use them; the fields may be read from any thread.
class ClientConfig
{
public:
    // The copy that every reader in the process shares: set by the first
    // reader, replaced by the first client, whose constructor may override
    // host and port. Applications reach it through KeldaClient's
    // IsKeldaAvailable(), IsUseUtc() and GetCompressionRate().
    static std::atomic<ClientConfig *> s_shared;

    ClientConfig();
    ~ClientConfig();

    ClientConfig(const ClientConfig &) = delete;
    ClientConfig &operator=(const ClientConfig &) = delete;

    QString GetServerHost() const;
    void SetServerHost(const QString &host);
    quint16 GetXmlPort() const;
    void SetXmlPort(quint16 port);
    // A server is configured: the store names one, or a client was given one.
    bool IsAvailable() const;
    void SetAvailable(bool available);
    bool IsUseUtc() const;
    int GetCompressionRate() const;
    // The longest message accepted from the server, in bytes; a longer one
    // closes the connection.
    quint32 GetMaxFrameSize() const;

private:
    void ReadConfiguration();

    mutable std::mutex m_hostMutex;
    QString m_sServerHost;
    std::atomic<quint16> m_uXmlPort{0};
    std::atomic<bool> m_bAvailable{false};
    std::atomic<bool> m_bUseUtc{false};
    std::atomic<int> m_iCompressionRate{-1};
    std::atomic<quint32> m_uMaxFrameSize{XmlSeparator::DefaultMaxFrameLength};
};

} // namespace Kelda
