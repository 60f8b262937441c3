#pragma once

#include "clientaddress.h"
#include "httpconnection.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>

#include <deque>
#include <functional>
#include <list>
#include <memory>

class ConnectionListener;
class QTcpSocket;
class QWebSocket;
class QWebSocketServer;
class WorkerPool;
struct ApiRequest;
struct WorkReply;

// The front's bounds beyond one request's.
struct FrontLimits
{
    HttpLimits http;
    // Open connections (HTTP and WebSocket). At the cap a new connection
    // takes the place of the connection idle the longest; with none idle,
    // accepting pauses until one closes.
    int maxConnections = 1000;
    // Per client address (IPv6: per /64); trusted proxies are not counted.
    // Beyond, a connection is answered 503 and closed at once.
    int maxConnectionsPerAddress = 128;
    // Sign-ins in progress per client address; more wait their turn (each
    // then sees the failures of those before it), up to a line of
    // maxWaitingSignIns, beyond which they are answered 429.
    int maxSignInsPerAddress = 2;
    int maxWaitingSignIns = 128;
};

// The HTTP and WebSocket front on one port, on the event loop: it accepts
// connections within the caps, reads requests (HttpConnection), finds
// their route, hands the work to the worker pool and writes the answer,
// and passes complete WebSocket handshakes on known paths to the
// WebSocket side. One log line per request.
class CloudHttpServer : public QObject
{
    Q_OBJECT
public:
    using SocketEndpoint = std::function<void(std::unique_ptr<QWebSocket>)>;
    static constexpr const char *kHealthPath = "/healthz";

    CloudHttpServer(WorkerPool &pool, FrontLimits limits, TrustedProxies trustedProxies, QObject *parent = nullptr);
    ~CloudHttpServer() override;

    // Listens; the port actually bound (useful with port 0), or 0 with
    // `error` set.
    quint16 start(const QHostAddress &address, quint16 port, QString *error);

    // Live sockets (console, relay) register their path here; only a
    // complete, valid WebSocket handshake on such a path is handed over.
    void addSocketEndpoint(const QString &path, SocketEndpoint endpoint);
    // A socket endpoint that speaks WebSocket itself (to decide when to
    // read): it gets the TCP connection with the handshake still unread in
    // it and owns it from then on.
    using RawSocketEndpoint = std::function<void(QTcpSocket *)>;
    void addRawSocketEndpoint(const QString &path, RawSocketEndpoint endpoint);

    int openConnections() const { return m_open; }
    quint64 answeredRequests() const { return m_answered; }

private:
    struct SignInLine
    {
        int running = 0;
        std::deque<std::function<void()>> waiting;
    };

    void onAccepted(qintptr descriptor);
    void refuseAtOnce(qintptr descriptor, const QHostAddress &peer);
    void takeSlot(const QString &key);
    void releaseSlot(const QString &key);
    void updateListener();
    void onIdleChanged(HttpConnection *connection, bool idle);
    void onRequest(HttpConnection *connection, const HttpRequest &request);
    void onRefused(HttpConnection *connection, const HttpRequestParser::Event &refusal);
    void upgrade(HttpConnection *connection, const HttpRequest &request, const QString &path);
    void dispatch(HttpConnection *connection, const ApiRequest &request, const QString &family, bool signIn,
                  QElapsedTimer timer);
    void answer(HttpConnection *connection, const ApiRequest &request, const WorkReply &reply,
                const QElapsedTimer &timer);
    void finishSignIn(const QString &address);
    void onNewWebSocket();

    WorkerPool &m_pool;
    FrontLimits m_limits;
    TrustedProxies m_trusted;
    ConnectionListener *m_listener;
    QWebSocketServer *m_webSockets;
    QHash<QString, SocketEndpoint> m_socketEndpoints;
    QHash<QString, RawSocketEndpoint> m_rawSocketEndpoints;

    int m_open = 0;                      // connections holding a descriptor
    QHash<QString, int> m_perAddress;    // by ClientAddress::limitKey
    QHash<HttpConnection *, QString> m_slotOf;
    std::list<HttpConnection *> m_idle;  // oldest idle first
    QHash<HttpConnection *, std::list<HttpConnection *>::iterator> m_idlePosition;
    QHash<QString, SignInLine> m_signIns;  // by client address
    QHash<QString, QTcpSocket *> m_handedOver;  // in the WebSocket handshake, by peer "address port"
    quint64 m_answered = 0;
    int m_refusedSinceLog = 0;
    QElapsedTimer m_refusalLog;
};
