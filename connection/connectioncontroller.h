#pragma once

#include "common/result.h"
#include "connection/connectionconfig.h"
#include "connection/relaytransport.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSerialPort>
#include <QString>
#include <QStringList>

#include <functional>

class MultiClientServer;
class QHostInfo;
class QTcpSocket;
class QUdpSocket;

// One pane's transport: opens and closes what the pane's connection record
// selects (serial port, TCP client, TCP server, UDP, RFC 2217 stream, cloud
// relay), moves bytes both ways, tracks network peers, drives the serial
// control lines and parameters, throttles reading for a slow consumer, and
// turns every transport failure into a status text. It decides nothing about
// display, logging or what to send.
class ConnectionController : public QObject
{
    Q_OBJECT

public:
    enum class ControlLine { Dtr = 0, Rts = 1, Break = 2 };
    Q_ENUM(ControlLine)

    // One remote end of the UDP socket, keyed by "%1:%2" (address, port).
    struct UdpPeer
    {
        QHostAddress address;
        quint16 port = 0;
        QByteArray lastDatagram;
        QDateTime lastTime;

        QString key() const;
    };

    // One received datagram, labelled "%1:%2" by its sender.
    struct UdpDatagram
    {
        QString peer;
        QByteArray data;
    };

    // The five settings of a serial line.
    struct SerialParameters
    {
        qint32 baudRate = 9600;
        QSerialPort::DataBits dataBits = QSerialPort::Data8;
        QSerialPort::Parity parity = QSerialPort::NoParity;
        QSerialPort::StopBits stopBits = QSerialPort::OneStop;
        QSerialPort::FlowControl flowControl = QSerialPort::NoFlowControl;

        static SerialParameters from(const ConnectionConfig &config);
        bool operator==(const SerialParameters &other) const = default;
    };

    // Where a dispatched send goes in the modes with several peers.
    struct SendTarget
    {
        // TCP server: a client's label; wins over index when not empty.
        QString clientLabel;
        // TCP server: client index, or -1 for every client.
        // UDP server: peer row, or -1 for the peer heard from last.
        int index = -1;
    };

    // Creates the relay for a mode 8 open; returns nullptr when there is
    // none to make. The controller takes ownership of the result.
    using RelayFactory = std::function<RelayTransport *(const ConnectionConfig &config)>;

    // A paused transport holds at most this much in its read buffer.
    static constexpr qint64 kPausedReadBufferSize = 4096;

    explicit ConnectionController(QObject *parent = nullptr);
    ~ConnectionController() override;

    // ---- Thin dispatchers by mode, for the pane ----

    // Starts the transport that config.mode selects: serial open, TCP server
    // listen (listen address, target port), TCP client / RFC 2217 connect
    // (target host and port), UDP bind (every UDP mode: the UDP local port),
    // relay from the relay factory. portName overrides config.portName for a
    // serial port; silent suppresses the serial open-failure signals.
    // Returns false when the start failed at once; a TCP client's outcome
    // arrives later (peerArrived or errorOccurred).
    bool open(const ConnectionConfig &config, const QString &portName = {}, bool silent = false);
    // Sends through the mode's one write path: serial (opening a closed
    // port), stream (pending until connected), relay, TCP server (all
    // clients, one client by index or label) or UDP (server: reply to a
    // peer; client and mode 6: datagram to the target host at the remote
    // UDP port, the record's udpServerPort).
    bool send(const ConnectionConfig &config, const QByteArray &data, const SendTarget &target,
              const QString &portName = {});
    bool send(const ConnectionConfig &config, const QByteArray &data);

    // ---- Operations per transport ----

    bool openSerial(const ConnectionConfig &settings, const QString &portName = {}, bool silent = false);
    // Does nothing while a previous attempt is still connecting or connected.
    void startTcpClient(const QString &host, quint16 port);
    // Stops a running server, hands it the options, listens. On failure
    // reports "TCP server listen on port %1 FAILED: %2"; returns whether it
    // listens. Port 0 picks a free port (see serverAddressText()).
    bool startTcpServer(quint16 port, const QHostAddress &address);
    bool bindUdp(quint16 localPort);
    // Takes ownership and returns true; returns false (leaving the relay to
    // the caller) while another relay is attached.
    bool attachRelay(RelayTransport *relay);
    void close(ConnectionMode mode, const QString &portName = {});

    bool isOpen(ConnectionMode mode) const;
    QByteArray readAll(ConnectionMode mode);
    QList<UdpDatagram> readUdpDatagrams();

    bool writeSerial(const QByteArray &data, const ConnectionConfig &settings, const QString &portName = {});
    bool writeStream(const QByteArray &data);
    bool writeRelay(const QByteArray &data);
    // An index outside the client list means the first client.
    bool sendToServerClient(const QByteArray &data, int index);
    bool sendToServerClient(const QByteArray &data, const QString &clientLabel);
    // Largest byte count any one client took; 0 when none did.
    qint64 sendToAllServerClients(const QByteArray &data);
    // host is an address or a name; datagrams for a name wait for its
    // lookup (once per bind) and a name that does not resolve is reported as
    // "UDP send to %1 FAILED: %2".
    bool sendUdp(const QByteArray &data, const QString &host, quint16 port);
    // A row outside the peer table means the first peer.
    bool sendUdpToPeer(const QByteArray &data, int row);

    qint64 bytesToWrite(ConnectionMode mode) const;

    bool setControlLine(ControlLine line, bool on);
    bool dtrLevel() const { return m_dtr; }
    bool rtsLevel() const { return m_rts; }
    bool breakLevel() const { return m_break; }
    // Levels to assert at the next open (the pane seeds them from the
    // record's DtrOn and RtsOn).
    void setStoredLineLevels(bool dtr, bool rts);

    // Applies the five settings to the open port; on a refusal sets all five
    // back and returns "%1 was refused by the driver: %2".
    Result applySerialParameters(const SerialParameters &parameters);
    Result applySerialParameters(const ConnectionConfig &config);
    // What the open port is set to now (the record's values when closed).
    SerialParameters currentSerialParameters() const;
    QString serialPortName() const;

    void setReadPaused(ConnectionMode mode, bool paused);
    bool isReadPaused() const { return m_readPaused; }
    void setLowDelay(bool on);
    bool isLowDelay() const { return m_lowDelay; }

    // Whether a vanished serial device ends in serialPortLost (the pane
    // arms it for serial mode). On by default. Switched off, a vanished
    // device is still closed at once and reported, without serialPortLost.
    void setWatchForLoss(bool on) { m_watchForLoss = on; }
    bool watchesForLoss() const { return m_watchForLoss; }

    // Options handed to the TCP server at each start.
    void setServerExclusive(bool on) { m_serverExclusive = on; }
    bool isServerExclusive() const { return m_serverExclusive; }
    void setServerAllowlist(const QStringList &entries) { m_serverAllowlist = entries; }
    QStringList serverAllowlist() const { return m_serverAllowlist; }
    // "%1:%2" of the listening address and port; empty without a server.
    QString serverAddressText() const;
    QStringList serverClientLabels() const;
    int serverClientCount() const;

    // The bound UDP port (useful after binding port 0); 0 when not bound.
    quint16 udpLocalPort() const;
    const QList<UdpPeer> &udpPeers() const { return m_udpPeers; }
    int currentUdpPeer() const { return m_currentUdpPeer; }

    void setRelayFactory(RelayFactory factory) { m_relayFactory = std::move(factory); }
    bool hasRelay() const { return m_relay != nullptr; }

Q_SIGNALS:
    void statusMessage(const QString &message, int timeoutMs);
    void errorOccurred(const QString &message);
    void readyRead();
    void serialPortLost();
    void tcpClientDisconnected();
    void cloudRelayEnded(const QString &reason);
    void serverConnectionsChanged();
    void serverMessage(const QByteArray &data, const QString &peer);
    void peerLost(const QString &peer);
    void peerArrived(const QString &peer);
    void udpReadyRead();
    void udpPeersChanged();
    void bytesWritten(qint64 bytes);

private:
    void onSerialError(QSerialPort::SerialPortError error);
    void handleLostSerialPort();
    bool serialDeviceVanished() const;
    void reportFailure(const QString &text);
    bool applyDtr(bool on, bool withMessages);
    bool applyRts(bool on, bool withMessages);

    void flushPendingStream();
    void onStreamConnected(QTcpSocket *socket);
    void onStreamDisconnected(QTcpSocket *socket);
    void onStreamError(QTcpSocket *socket);
    void dropStreamSocket();
    void applyStreamOptions();

    MultiClientServer *ensureServer();
    void clearUdpPeers();
    void resetUdpTargets();
    void onUdpHostLookedUp(const QString &host, const QHostInfo &info);
    void registerUdpSender(const QHostAddress &address, quint16 port, const QByteArray &datagram);

    void detachRelay();
    void onRelayEnded(const QString &reason);

    QSerialPort *m_serial = nullptr;
    QTcpSocket *m_stream = nullptr;
    QByteArray m_pendingStream;
    QUdpSocket *m_udp = nullptr;
    MultiClientServer *m_server = nullptr;
    // Guarded: the relay is ours, but a cloud object might still delete it.
    QPointer<RelayTransport> m_relay;
    QByteArray m_relayBuffer;
    RelayFactory m_relayFactory;

    bool m_dtr = true;
    bool m_rts = true;
    bool m_break = false;
    bool m_readPaused = false;
    bool m_lowDelay = false;
    bool m_watchForLoss = true;
    bool m_handlingLoss = false;
    int m_readErrorStreak = 0;
    bool m_serverExclusive = false;
    QStringList m_serverAllowlist;

    QList<UdpPeer> m_udpPeers;
    QHash<QString, int> m_udpPeerIndex;
    int m_currentUdpPeer = -1;

    // Target names already resolved for this bind, and datagrams waiting for
    // a name's lookup.
    struct AwaitingDatagram
    {
        QByteArray data;
        quint16 port = 0;
    };
    QHash<QString, QHostAddress> m_udpTargetAddresses;
    QHash<QString, QList<AwaitingDatagram>> m_udpAwaitingLookup;
};
