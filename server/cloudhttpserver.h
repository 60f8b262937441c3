#pragma once

#include <QAbstractHttpServer>
#include <QHash>
#include <QTcpServer>

#include <functional>
#include <memory>

class ApiRouter;
class QWebSocket;

// Limits on what one connection may send before the service refuses it.
struct HttpLimits
{
    qint64 maxBodyBytes = 1024 * 1024;
    qint64 maxHeaderBytes = 64 * 1024;
    int maxConnections = 1000;     // beyond: accepting pauses until one closes
    int idleTimeoutMs = 60000;     // a connection silent this long is closed
};

// The HTTP and WebSocket front on one port. Thin: turns requests into
// ApiRequest, asks the router, writes the envelope, logs one line.
class CloudHttpServer : public QAbstractHttpServer
{
    Q_OBJECT
public:
    using SocketEndpoint = std::function<void(std::unique_ptr<QWebSocket>)>;

    CloudHttpServer(ApiRouter &router, HttpLimits limits, QObject *parent = nullptr);

    // Listens; the port actually bound (useful with port 0), or 0 with
    // `error` set.
    quint16 start(const QHostAddress &address, quint16 port, QString *error);

    // Live sockets (console, relay) register their path here; a WebSocket
    // to any other path is closed with 1008 and "unknown_path".
    void addSocketEndpoint(const QString &path, SocketEndpoint endpoint);

protected:
    bool handleRequest(const QHttpServerRequest &request, QTcpSocket *socket) override;
    void missingHandler(const QHttpServerRequest &request, QTcpSocket *socket) override;

private:
    void onNewWebSocket();

    ApiRouter &m_router;
    HttpLimits m_limits;
    QHash<QString, SocketEndpoint> m_socketEndpoints;
};
