#include "bridge/panedirectory.h"

#include "common/peerlabel.h"
#include "terminal/portsession.h"

QString PaneDirectory::endpointLabel(const ConnectionConfig &config)
{
    QString endpoint;
    switch (config.mode) {
    case ConnectionMode::Serial:
        endpoint = config.portName;
        break;
    case ConnectionMode::TcpServer:
        endpoint = QString::number(config.targetPort);
        break;
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        endpoint = peerLabel(config.targetHost, quint16(config.targetPort));
        break;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpGeneric:
        endpoint = QString::number(config.udpServerPort);
        break;
    case ConnectionMode::UdpClient:
        endpoint = QString::number(config.udpLocalPort);
        break;
    case ConnectionMode::RemoteSerialRelay:
        endpoint = config.relayPortName;
        break;
    }
    return QStringLiteral("%1-%2").arg(connectionModeTag(config.mode), endpoint);
}

void PaneDirectory::add(PortSession *session)
{
    if (!session || sessions().contains(session))
        return;
    m_sessions.append(session);
    connect(session, &QObject::destroyed, this, [this] {
        m_sessions.removeIf([](const QPointer<PortSession> &s) { return s.isNull(); });
        emit changed();
    });
    connect(session, &PortSession::stateChanged, this, &PaneDirectory::changed);
    connect(session, &PortSession::configChanged, this, &PaneDirectory::changed);
    connect(session, &PortSession::settingsChanged, this, &PaneDirectory::changed);
    emit changed();
}

QList<PortSession *> PaneDirectory::sessions() const
{
    QList<PortSession *> result;
    for (const QPointer<PortSession> &session : m_sessions) {
        if (session)
            result.append(session.data());
    }
    return result;
}

PortSession *PaneDirectory::find(const QString &label) const
{
    const QString wanted = label.trimmed();
    for (const QPointer<PortSession> &session : m_sessions) {
        if (session && endpointLabel(session->config()) == wanted)
            return session.data();
    }
    return nullptr;
}

QStringList PaneDirectory::labels() const
{
    QStringList result;
    for (PortSession *session : sessions())
        result.append(endpointLabel(session->config()));
    return result;
}
