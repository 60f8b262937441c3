#include "connection/connectionconfig.h"

QString connectionModeTag(ConnectionMode mode)
{
    switch (mode) {
    case ConnectionMode::Serial: return QStringLiteral("ser");
    case ConnectionMode::TcpServer: return QStringLiteral("tcps");
    case ConnectionMode::TcpClient: return QStringLiteral("tcpc");
    case ConnectionMode::UdpServer: return QStringLiteral("udps");
    case ConnectionMode::UdpClient: return QStringLiteral("udpc");
    case ConnectionMode::UdpGeneric: return QStringLiteral("udpg");
    case ConnectionMode::RemoteSerialRfc2217: return QStringLiteral("rser");
    case ConnectionMode::RemoteSerialRelay: return QStringLiteral("crly");
    }
    return QStringLiteral("port");
}

QString connectionLabel(ConnectionMode mode, int paneId)
{
    return QStringLiteral("%1-%2").arg(connectionModeTag(mode)).arg(paneId);
}

bool isStreamMode(ConnectionMode mode)
{
    return mode == ConnectionMode::TcpClient || mode == ConnectionMode::RemoteSerialRfc2217;
}

bool isUdpMode(ConnectionMode mode)
{
    return mode == ConnectionMode::UdpServer || mode == ConnectionMode::UdpClient
        || mode == ConnectionMode::UdpGeneric;
}

bool ConnectionConfig::sameSerialParameters(const ConnectionConfig &other) const
{
    return baudRate == other.baudRate && dataBits == other.dataBits && parity == other.parity
        && stopBits == other.stopBits && flowControl == other.flowControl;
}

bool ConnectionConfig::differsOnlyInSerialParameters(const ConnectionConfig &other) const
{
    if (sameSerialParameters(other))
        return false;
    ConnectionConfig aligned = other;
    aligned.baudRate = baudRate;
    aligned.dataBits = dataBits;
    aligned.parity = parity;
    aligned.stopBits = stopBits;
    aligned.flowControl = flowControl;
    return aligned == *this;
}
