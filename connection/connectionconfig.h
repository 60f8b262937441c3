#pragma once

#include <QHostAddress>
#include <QSerialPort>
#include <QString>
#include <QStringList>

// How a pane reaches its device. The numbers are persisted in project files
// and settings and must never change.
enum class ConnectionMode : int {
    Serial = 0,
    TcpServer = 1,
    TcpClient = 2,
    // 3 is unassigned: opening or closing it does nothing.
    UdpServer = 4,
    UdpClient = 5,
    UdpGeneric = 6,
    RemoteSerialRfc2217 = 7,
    RemoteSerialRelay = 8,
};

// Maps a persisted integer to a mode; unknown numbers keep their value so
// that they round-trip and label as "port".
inline ConnectionMode connectionModeFromInt(int value) { return static_cast<ConnectionMode>(value); }
inline int toInt(ConnectionMode mode) { return static_cast<int>(mode); }

// Short tag naming a mode in labels and keys ("ser", "tcpc", ...).
QString connectionModeTag(ConnectionMode mode);
// "%1-%2": tag and the pane's identifier, e.g. "tcpc-3".
QString connectionLabel(ConnectionMode mode, int paneId);

bool isStreamMode(ConnectionMode mode);  // TCP client and RFC 2217 share one socket
bool isUdpMode(ConnectionMode mode);     // 4, 5 and 6 share one UDP socket

// The complete record of one pane's connection, with its defaults.
struct ConnectionConfig
{
    ConnectionMode mode = ConnectionMode::Serial;
    QString portName;
    qint32 baudRate = 9600;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
    QSerialPort::FlowControl flowControl = QSerialPort::NoFlowControl;
    bool dtrOn = true;
    // Kept even under RTS/CTS flow control, where the driver owns RTS.
    bool rtsOn = true;
    QString targetHost = QStringLiteral("127.0.0.1");
    QStringList recentTargetHosts = {QStringLiteral("127.0.0.1")};
    int targetPort = 6000;
    quint16 udpLocalPort = 60001;
    quint16 udpServerPort = 60000;
    QHostAddress::SpecialAddress listenAddress = QHostAddress::Any;
    bool useRemoteSerialConfig = false;
    QString relayCid;
    QString relayPortName;
    QString relayPortKey;
    QString relayShareLabel;
    QString relayGuestName;

    bool operator==(const ConnectionConfig &other) const = default;

    // True when only baud rate, data bits, parity, stop bits or flow control
    // differ: an open port can take those in place instead of reopening.
    bool differsOnlyInSerialParameters(const ConnectionConfig &other) const;
    bool sameSerialParameters(const ConnectionConfig &other) const;

    static constexpr int kMinTargetPort = 1;
    static constexpr int kMaxTargetPort = 65535;
};
