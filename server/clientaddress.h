#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QPair>
#include <QString>

// Who a request comes from. Behind a reverse proxy every connection comes
// from the proxy; only a proxy named as trusted may say, in
// X-Forwarded-For, whom it speaks for. Anybody else's X-Forwarded-For is
// ignored, so a client cannot choose the address its limits are counted on.
class TrustedProxies
{
public:
    // "ADDRESS" or "ADDRESS/PREFIX"; false when it is neither.
    bool add(const QString &spec);
    bool isEmpty() const { return m_subnets.isEmpty(); }
    bool contains(const QHostAddress &address) const;

    // The client behind a connection from `peer`: when `peer` is trusted,
    // the rightmost address of X-Forwarded-For that is not itself a trusted
    // proxy (what the nearest trusted proxy saw); otherwise `peer`.
    QHostAddress clientOf(const QHostAddress &peer, const QByteArray &forwardedFor) const;

private:
    QList<QPair<QHostAddress, int>> m_subnets;
};

namespace ClientAddress {

// An IPv4 address written as IPv6 ("::ffff:192.0.2.1") as plain IPv4.
QHostAddress normalised(const QHostAddress &address);
// The key limits are counted on: an IPv4 address, or the /64 network of an
// IPv6 address (one subscriber usually holds a whole /64).
QString limitKey(const QHostAddress &address);

} // namespace ClientAddress
