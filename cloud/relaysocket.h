#pragma once

#include "cloud/websocketcodec.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

class QTcpSocket;
class QTimer;

// One end of a Live Relay: a WebSocket to the service's "/ws/relay/v1" that
// waits for the other end ("ready"), then carries the port's raw bytes as
// binary messages both ways. Control arrives as JSON text messages. The
// socket reports its end once, as a stop kind and a text for the user.
//
// Reading can be paused: the TCP socket is then left unread beyond a small
// buffer, so a slow consumer holds the sender back through TCP instead of
// letting messages pile up here.
class RelaySocket : public QObject
{
    Q_OBJECT

public:
    enum class Stop { PeerGone, PeerAbsent, QuotaExhausted, Closing, Rejected, Transport };
    Q_ENUM(Stop)

    static constexpr int kPairDeadlineMs = 30000;
    // Port bytes travel in binary messages of at most this size.
    static constexpr qsizetype kMaxMessageBytes = 8192;
    // What the TCP socket may hold while reading is paused.
    static constexpr qint64 kPausedReadBufferSize = 64 * 1024;
    // The largest message accepted from the service.
    static constexpr qsizetype kMaxIncomingMessage = 1024 * 1024;
    static constexpr int kRejectedCloseCode = 1013;

    // What one control message means.
    struct Control
    {
        enum class Kind { Ready, Notice, Stopped, Ignored };
        Kind kind = Kind::Ignored;
        QString relayId;
        QString portKey;
        Stop stop = Stop::Transport;
        QString text;  // the notice or the stop's detail
    };

    explicit RelaySocket(QObject *parent = nullptr);
    ~RelaySocket() override;

    // Tests shorten the pair deadline.
    void setPairDeadline(int ms);
    // Opens "/ws/relay/v1?ticket=..." at the relay address (the cloud's
    // base URL). Without an address or a ticket it stops at once.
    void open(const QString &relayAddress, const QString &ticket);
    // Queues the bytes as messages of at most kMaxMessageBytes; returns the
    // count taken, or -1 when not paired (nothing is taken).
    qint64 send(const QByteArray &bytes);
    // Ends from this side; reports nothing.
    void close();

    bool isConnected() const { return m_connected; }
    bool isPaired() const { return m_paired; }
    bool isStopped() const { return m_stopped; }
    QString relayId() const { return m_relayId; }
    QString portKey() const { return m_portKey; }
    // Bytes given to send() (with their framing) not yet handed to the system.
    qint64 bytesToWrite() const;
    void setReadPaused(bool paused);
    bool isReadPaused() const { return m_readPaused; }

    // The relay URL for a base URL and a ticket: "wss" for "https", else "ws".
    static QUrl relayUrl(const QString &relayAddress, const QString &ticket);
    // Port bytes cut into messages of at most kMaxMessageBytes.
    static QList<QByteArray> split(const QByteArray &bytes);
    // A control message from the service, as the socket acts on it.
    static Control parseControl(const QByteArray &message);
    // The text for a refusal reason of "peer_refused".
    static QString refusalText(const QString &reason);

Q_SIGNALS:
    void paired(const QString &relayId, const QString &portKey);
    void binaryReceived(const QByteArray &bytes);
    void noticed(const QString &text);
    void stopped(RelaySocket::Stop reason, const QString &detail);
    // Bytes (with framing) handed to the system.
    void bytesWritten(qint64 bytes);

private Q_SLOTS:
    void onConnected();
    void onBinaryMessage(const QByteArray &message);
    void onTextMessage(const QByteArray &message);
    void onDisconnected();
    void onPairDeadline();

private:
    void onReadyRead();
    void onSocketError();
    void apply(WebSocketCodec::Step step);
    void stop(Stop reason, const QString &detail);
    QString gatewayText() const;

    QTcpSocket *m_socket = nullptr;
    WebSocketCodec m_codec;
    QTimer *m_deadline;
    bool m_connected = false;
    bool m_paired = false;
    bool m_stopped = false;
    bool m_closing = false;
    bool m_readPaused = false;
    // The service's close, once one arrived: code and reason.
    bool m_closeSeen = false;
    int m_closeCode = 0;
    QString m_closeReason;
    QString m_failure;
    bool m_protocolFailed = false;
    // The opening request, sent once the connection is up.
    QByteArray m_request;
    QString m_relayId;
    QString m_portKey;
};
