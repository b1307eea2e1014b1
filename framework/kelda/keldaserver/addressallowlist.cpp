#include "addressallowlist.h"

namespace Kelda {

namespace {

const QStringList kLoopback{QStringLiteral("127.0.0.0/8"), QStringLiteral("::1/128")};

QHostAddress plain(const QHostAddress &address)
{
    bool mapped = false;
    const quint32 v4 = address.toIPv4Address(&mapped);
    return mapped && address.protocol() == QAbstractSocket::IPv6Protocol ? QHostAddress(v4) : address;
}

} // namespace

AddressAllowList::AddressAllowList()
{
    for (const QString &block : kLoopback)
        m_subnets.append(QHostAddress::parseSubnet(block));
}

bool AddressAllowList::add(const QString &cidr, QString *error)
{
    const QString text = cidr.trimmed();
    QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(text);
    if (subnet.first.isNull()) {
        // A bare address stands for itself.
        const QHostAddress single(text);
        if (single.isNull()) {
            *error = QStringLiteral("--allow wants a network as ADDRESS/BITS, got \"%1\"").arg(cidr);
            return false;
        }
        subnet = {single, single.protocol() == QAbstractSocket::IPv4Protocol ? 32 : 128};
    }
    if (m_default) {
        m_subnets.clear();
        m_default = false;
    }
    m_subnets.append(subnet);
    return true;
}

bool AddressAllowList::admits(const QHostAddress &address) const
{
    const QHostAddress peer = plain(address);
    for (const auto &subnet : m_subnets) {
        if (peer.isInSubnet(subnet))
            return true;
    }
    return false;
}

QStringList AddressAllowList::blocks() const
{
    QStringList texts;
    for (const auto &subnet : m_subnets)
        texts.append(QStringLiteral("%1/%2").arg(subnet.first.toString()).arg(subnet.second));
    return texts;
}

} // namespace Kelda
