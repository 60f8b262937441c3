#pragma once

#include <QString>
#include <QTcpSocket>

// A loopback port for a listener that cannot take port 0 (a server pane, a
// program given a number). It lies below the system's ephemeral range, so no
// other test's port-0 listener or outgoing connection can take it between the
// check and the bind; within that space it starts at a random place, so two
// tests running at once do not pick the same one. 0 when none is free.
quint16 unusedListenPort();

// A loopback port that refuses every connection for as long as this object
// lives: bound without listening, so nobody else can take it (unlike a port
// just closed, which another test may be handed at once).
class RefusingPort
{
public:
    RefusingPort() { m_socket.bind(QHostAddress::LocalHost, 0, QAbstractSocket::DontShareAddress); }
    quint16 port() const { return m_socket.localPort(); }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(port()); }

private:
    QTcpSocket m_socket;
};
