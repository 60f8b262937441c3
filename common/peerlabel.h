#pragma once

#include <QHostAddress>
#include <QString>

// Every network peer is named "%1:%2": address in its textual form, then the
// port in decimal. One spelling, so labels compare equal wherever they meet.
inline QString peerLabel(const QString &host, quint16 port)
{
    return QStringLiteral("%1:%2").arg(host).arg(port);
}

inline QString peerLabel(const QHostAddress &address, quint16 port)
{
    return peerLabel(address.toString(), port);
}
