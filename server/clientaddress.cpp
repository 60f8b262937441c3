#include "clientaddress.h"

#include <cstring>

namespace ClientAddress {

QHostAddress normalised(const QHostAddress &address)
{
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    return isV4 ? QHostAddress(v4) : address;
}

QString limitKey(const QHostAddress &address)
{
    const QHostAddress plain = normalised(address);
    if (plain.protocol() != QAbstractSocket::IPv6Protocol)
        return plain.toString();
    Q_IPV6ADDR bytes = plain.toIPv6Address();
    std::memset(&bytes[8], 0, 8);
    return QHostAddress(bytes).toString() + QStringLiteral("/64");
}

} // namespace ClientAddress

bool TrustedProxies::add(const QString &spec)
{
    const QString text = spec.trimmed();
    if (text.contains(u'/')) {
        const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(text);
        if (subnet.first.isNull())
            return false;
        m_subnets.append(subnet);
        return true;
    }
    const QHostAddress address(text);
    if (address.isNull())
        return false;
    const QHostAddress plain = ClientAddress::normalised(address);
    m_subnets.append({plain, plain.protocol() == QAbstractSocket::IPv4Protocol ? 32 : 128});
    return true;
}

bool TrustedProxies::contains(const QHostAddress &address) const
{
    const QHostAddress plain = ClientAddress::normalised(address);
    for (const auto &subnet : m_subnets) {
        if (plain.isInSubnet(subnet))
            return true;
    }
    return false;
}

QHostAddress TrustedProxies::clientOf(const QHostAddress &peer, const QByteArray &forwardedFor) const
{
    const QHostAddress plainPeer = ClientAddress::normalised(peer);
    if (forwardedFor.isEmpty() || !contains(plainPeer))
        return plainPeer;
    const QList<QByteArray> hops = forwardedFor.split(',');
    for (qsizetype i = hops.size() - 1; i >= 0; --i) {
        QByteArray hop = hops[i].trimmed();
        // "[2001:db8::1]:4711" and "192.0.2.1:4711" name a port too.
        if (hop.startsWith('[')) {
            hop = hop.mid(1, hop.indexOf(']') - 1);
        } else if (hop.count(':') == 1) {
            hop.truncate(hop.indexOf(':'));
        }
        const QHostAddress address(QString::fromLatin1(hop));
        if (address.isNull())
            return plainPeer;  // unreadable: trust nothing further left
        const QHostAddress plain = ClientAddress::normalised(address);
        if (!contains(plain))
            return plain;
    }
    return plainPeer;
}
