#pragma once

#include <QHostAddress>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Kelda {

// The networks clients may connect from, as CIDR blocks ("10.1.0.0/16",
// "fd00::/8", or a bare address for itself alone). Without any block, only
// loopback clients are admitted. An IPv4 client reaching an IPv6 socket
// ("::ffff:10.1.2.3") is judged by its IPv4 address.
class AddressAllowList
{
public:
    AddressAllowList();

    // False, with *error naming the block, when a text is no CIDR block.
    bool add(const QString &cidr, QString *error);
    bool admits(const QHostAddress &address) const;
    bool isDefault() const { return m_default; }
    QStringList blocks() const;

private:
    QVector<QPair<QHostAddress, int>> m_subnets;
    bool m_default = true;
};

} // namespace Kelda
