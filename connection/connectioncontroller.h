#pragma once

#include "common/result.h"
#include "connection/connectionconfig.h"
#include "connection/porttransport.h"
#include "connection/relaytransport.h"
#include "connection/rfc2217clientsession.h"
#include "connection/serialporttransport.h"
#include "connection/udptransport.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

class RelayPortTransport;
class Rfc2217Transport;
class StreamClientTransport;
class TcpServerTransport;

// One pane's transport: opens and closes what the pane's connection record
// selects, moves bytes both ways, tracks network peers, drives the serial
// control lines and parameters, throttles reading for a slow consumer, and
// turns every transport failure into a status text. It decides nothing about
// display, logging or what to send.
//
// Each kind of transport is a class of its own behind PortTransport; this
// class picks the one for a mode, remembers the mode it opened last, and
// turns the transports' notifications into its own signals. Received bytes
// of every kind arrive through received(bytes, peer); the older pull style
// (readyRead then readAll, udpReadyRead then readUdpDatagrams) still works
// for a listener that takes the bytes from its slot.
class ConnectionController : public QObject
{
    Q_OBJECT

public:
    using ControlLine = SerialPortTransport::ControlLine;
    using SerialParameters = SerialPortTransport::Parameters;
    using UdpPeer = UdpTransport::Peer;
    using UdpDatagram = UdpTransport::Datagram;
    using SendTarget = ::SendTarget;

    // Creates the relay for a mode 8 open; returns nullptr when there is
    // none to make. The controller takes ownership of the result.
    using RelayFactory = std::function<RelayTransport *(const ConnectionConfig &config)>;

    static constexpr qint64 kPausedReadBufferSize = PortTransport::kPausedReadBufferSize;

    explicit ConnectionController(QObject *parent = nullptr);
    ~ConnectionController() override;

    // ---- The pane's face: the mode opened last is remembered ----

    // Starts the transport that config.mode selects: serial open, TCP server
    // listen (listen address, target port), TCP client / RFC 2217 connect
    // (target host and port), UDP bind (every UDP mode: the UDP local port),
    // relay from the relay factory. portName overrides config.portName for a
    // serial port; silent suppresses the serial open-failure signals.
    // Returns false when the start failed at once; a TCP client's outcome
    // arrives later (peerArrived or errorOccurred).
    bool open(const ConnectionConfig &config, const QString &portName = {}, bool silent = false);
    ConnectionMode mode() const { return m_mode; }
    bool isOpen() const { return isOpen(m_mode); }
    void close() { close(m_mode); }
    // Sends through the mode's one write path: serial (opening a closed
    // port), stream (pending until connected), relay, TCP server (all
    // clients, one client by index or label) or UDP (server: reply to a
    // peer; client and mode 6: datagram to the target host at the remote
    // UDP port, the record's udpServerPort).
    bool send(const ConnectionConfig &config, const QByteArray &data, const SendTarget &target,
              const QString &portName = {});
    bool send(const ConnectionConfig &config, const QByteArray &data);
    qint64 bytesToWrite() const { return bytesToWrite(m_mode); }
    // What still waits to leave, as it counts against the write watermark
    // (PortTransport::kWriteHighWatermark): the most any one peer holds.
    qint64 writeBacklog() const;
    void setReadPaused(bool paused) { setReadPaused(m_mode, paused); }
    // Whether any transport holds its data back.
    bool isReadPaused() const;

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
    // While reading is paused returns nothing; UDP is read with
    // readUdpDatagrams and the server delivers through serverMessage.
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
    bool sendUdp(const QByteArray &data, const QString &host, quint16 port);
    // A row outside the peer table means the first peer.
    bool sendUdpToPeer(const QByteArray &data, int row);

    qint64 bytesToWrite(ConnectionMode mode) const;
    // What still waits for one send target of the mode (one server client).
    qint64 bytesToWrite(ConnectionMode mode, const SendTarget &target) const;

    bool setControlLine(ControlLine line, bool on);
    bool dtrLevel() const;
    bool rtsLevel() const;
    bool breakLevel() const;
    // Levels to assert at the next open (the pane seeds them from the
    // record's DtrOn and RtsOn).
    void setStoredLineLevels(bool dtr, bool rts);

    // Applies the five settings to the open port; on a refusal sets all five
    // back and returns "%1 was refused by the driver: %2".
    Result applySerialParameters(const SerialParameters &parameters);
    Result applySerialParameters(const ConnectionConfig &config);
    // What the open port is set to now.
    SerialParameters currentSerialParameters() const;
    // The local serial port: forgets received or unsent bytes; its modem
    // lines (SerialPortTransport::modemLines).
    void purgeSerial(bool received, bool toSend);
    SerialParameters serialDeviceParameters() const;
    quint8 serialModemLines() const;
    QString serialPortName() const;

    void setReadPaused(ConnectionMode mode, bool paused);
    void setLowDelay(bool on);
    bool isLowDelay() const { return m_lowDelay; }

    // Whether a vanished serial device ends in serialPortLost (the pane
    // arms it for serial mode). On by default. Switched off, a vanished
    // device is still closed at once and reported, without serialPortLost.
    void setWatchForLoss(bool on);
    bool watchesForLoss() const;

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
    const QList<UdpPeer> &udpPeers() const;
    int currentUdpPeer() const;

    // ---- Remote serial port (RFC 2217) ----
    using RemoteNegotiation = Rfc2217ClientSession::Negotiation;
    // Sends the changed parameters to the remote port (once it accepted
    // control and unless the record keeps the remote's own configuration);
    // also what the next connection asks for.
    void setRemoteSerialParameters(const ConnectionConfig &config);
    // Returns whether the request went out (the remote accepted control).
    bool setRemoteControlLine(ControlLine line, bool on);
    bool remoteBreakLevel() const;
    // Undecided while not connected.
    RemoteNegotiation remoteNegotiation() const;

    void setRelayFactory(RelayFactory factory) { m_relayFactory = std::move(factory); }
    bool hasRelay() const;

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
    // Every received byte of every kind, once: the sender's "%1:%2" label in
    // the server and UDP modes, empty otherwise.
    void received(const QByteArray &data, const QString &peer);
    // Remote serial port: a text for the user (negotiation outcome, a
    // parameter the remote reports, a line fault).
    void remoteNotice(const QString &text);
    // The remote port reports one of its settings.
    void remoteSetting(Rfc2217ClientSession::Event::Kind kind, qint64 value);
    void remoteLineState(quint8 lineState);
    void remoteModemState(quint8 modemState);

private:
    // The transport that serves a mode, or nullptr before it was needed.
    PortTransport *transportFor(ConnectionMode mode) const;
    void forwardCommon(PortTransport *transport);
    StreamClientTransport *ensureStream();
    Rfc2217Transport *ensureRfc2217();
    // Common wiring of both stream transports.
    void forwardStream(StreamClientTransport *stream);
    TcpServerTransport *ensureServer();
    UdpTransport *ensureUdp();
    RelayPortTransport *ensureRelay();

    ConnectionMode m_mode = ConnectionMode::Serial;
    SerialPortTransport *m_serial;
    StreamClientTransport *m_stream = nullptr;
    Rfc2217Transport *m_rfc2217 = nullptr;
    TcpServerTransport *m_server = nullptr;
    UdpTransport *m_udp = nullptr;
    RelayPortTransport *m_relay = nullptr;
    RelayFactory m_relayFactory;

    bool m_lowDelay = false;
    bool m_serverExclusive = false;
    QStringList m_serverAllowlist;
};
