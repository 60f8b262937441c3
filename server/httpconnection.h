#pragma once

#include "httprequestparser.h"

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPair>

class QTcpSocket;
class QTimer;

// One answer on the wire.
struct HttpResponse
{
    int status = 200;
    QByteArray body;
    QByteArray contentType = QByteArrayLiteral("application/json");
    QList<QPair<QByteArray, QByteArray>> headers;
    bool close = false;  // the connection ends after this answer
};

// One HTTP/1.1 connection: feeds what arrives to an HttpRequestParser,
// hands each complete request to its owner and writes the owner's answer,
// one request at a time, so pipelined requests are answered in order. It
// keeps the parser's deadlines with one timer, reads nothing more while an
// answer is owed or a written answer has not left, and closes after
// refusals by first sending the refusal and then draining what the peer
// still sends for a moment, so the peer reads the refusal instead of a
// reset.
//
// A request head is peeked, not read, until the request is complete: a
// WebSocket handshake can then leave with releaseForUpgrade(), still whole
// in the socket, for QWebSocketServer::handleConnection().
class HttpConnection : public QObject
{
    Q_OBJECT
public:
    // Written answers beyond this many bytes hold back the next request.
    static constexpr qint64 kWriteHighWater = 64 * 1024;
    // After a refusal, what the peer still sends is read and dropped for
    // this long (or this many bytes) before the connection closes.
    static constexpr int kLingerMs = 2000;
    static constexpr qint64 kLingerBytes = 256 * 1024;

    // Takes the socket (an accepted, connected one) as its child.
    HttpConnection(QTcpSocket *socket, HttpLimits limits, QObject *parent = nullptr);
    ~HttpConnection() override;

    void start();

    QHostAddress peerAddress() const { return m_peerAddress; }
    quint16 peerPort() const { return m_peerPort; }
    // Waiting for a next request with nothing of it received yet.
    bool isIdle() const;

    // The answer to the request in hand (or to a refusal).
    void respond(const HttpResponse &response);
    // The request in hand is a WebSocket handshake: the socket leaves this
    // connection (without parent) with the request still unread in it.
    // The connection is finished afterwards.
    QTcpSocket *releaseForUpgrade();
    // Ends the connection now, answer or not (a slot is needed elsewhere).
    void close();

    static qint64 nowMs();

signals:
    void requestReceived(const HttpRequest &request);
    // The peer broke a rule; the owner answers it with respond().
    void refused(const HttpRequestParser::Event &refusal);
    void idleChanged(bool idle);
    // The connection is over; it deletes itself afterwards.
    void finished();

private:
    enum class Phase { Reading, Answering, Flushing, Closing, Lingering, Finished };

    void pump();
    void schedulePump();
    void apply(HttpRequestParser::Step step);
    void arm(qint64 wakeAtMs);
    void onTimer();
    void onBytesWritten();
    void onDisconnected();
    void skipUnread();
    void startLingering();
    void finish();
    void updateIdle();

    QTcpSocket *m_socket;
    HttpRequestParser m_parser;
    HttpLimits m_limits;
    QTimer *m_timer;
    QHostAddress m_peerAddress;
    quint16 m_peerPort = 0;
    Phase m_phase = Phase::Reading;
    qsizetype m_unread = 0;      // bytes the parser took that are still in the socket
    bool m_answerIsHead = false; // the request in hand was HEAD: no body in the answer
    bool m_closeAfterWrite = false;
    bool m_pumpQueued = false;
    bool m_idle = false;
    qint64 m_lingered = 0;
};
