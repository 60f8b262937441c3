#include "cloudhttpserver.h"

#include "apirouter.h"
#include "servicelog.h"

#include <QElapsedTimer>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>

namespace {

// Watches one connection: refuses a request whose declared or actual body
// passes the cap before it is buffered whole, closes idle connections, and
// steps aside once the connection becomes a WebSocket.
class ConnectionGuard : public QObject
{
public:
    ConnectionGuard(QTcpSocket *socket, HttpLimits limits)
        : QObject(socket), m_socket(socket), m_limits(limits), m_idle(new QTimer(this))
    {
        m_idle->setSingleShot(true);
        m_idle->setInterval(limits.idleTimeoutMs);
        connect(m_idle, &QTimer::timeout, socket, &QTcpSocket::abort);
        m_idle->start();
        connect(socket, &QTcpSocket::readyRead, this, &ConnectionGuard::onReadyRead);
    }

    bool refused() const { return m_refused; }
    void requestDone()
    {
        m_seen = 0;
        m_headerChecked = false;
    }

private:
    void onReadyRead()
    {
        if (!m_socket->isOpen())
            return;
        if (m_refused) {
            m_socket->readAll();  // nothing more is parsed on this connection
            return;
        }
        m_idle->start();
        m_seen += m_socket->bytesAvailable();
        if (!m_headerChecked) {
            const QByteArray head = m_socket->peek(m_limits.maxHeaderBytes);
            const qsizetype end = head.indexOf("\r\n\r\n");
            if (end >= 0) {
                m_headerChecked = true;
                // "POST /api/v3/account/login HTTP/1.1": the path names the
                // family of a refusal's envelope.
                m_family = ApiRouter::familyOf(QString::fromLatin1(head.left(head.indexOf("\r\n")).split(' ').value(1)));
                const QByteArray lower = head.left(end).toLower();
                if (lower.contains("\r\nupgrade:")) {
                    // A WebSocket handshake: the socket server owns it now.
                    m_idle->stop();
                    disconnect(m_socket, nullptr, this, nullptr);
                    deleteLater();
                    return;
                }
                const qsizetype at = lower.indexOf("\r\ncontent-length:");
                if (at >= 0) {
                    const qsizetype lineEnd = lower.indexOf("\r\n", at + 2);
                    bool ok = false;
                    const qint64 declared = lower.mid(at + 17, lineEnd - at - 17).trimmed().toLongLong(&ok);
                    if (!ok || declared > m_limits.maxBodyBytes)
                        return refuse();
                }
            } else if (head.size() >= m_limits.maxHeaderBytes) {
                return refuse();
            }
        }
        if (m_seen > m_limits.maxBodyBytes + m_limits.maxHeaderBytes)
            refuse();
    }

    void refuse()
    {
        m_refused = true;
        m_socket->readAll();
        const QByteArray body = QJsonDocument(QJsonObject{
                                                  {QStringLiteral("type"), m_family},
                                                  {QStringLiteral("status"), false},
                                                  {QStringLiteral("code"), QStringLiteral("payload_too_large")},
                                                  {QStringLiteral("description"),
                                                   QStringLiteral("The request is larger than this service accepts (%1 bytes).")
                                                       .arg(m_limits.maxBodyBytes)}})
                                    .toJson(QJsonDocument::Compact);
        m_socket->write("HTTP/1.1 413 Payload Too Large\r\nContent-Type: application/json\r\nContent-Length: "
                        + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
        qCInfo(lcHttp).noquote() << "refused an oversized request from" << m_socket->peerAddress().toString();
        m_socket->disconnectFromHost();
    }

    QTcpSocket *m_socket;
    HttpLimits m_limits;
    QTimer *m_idle;
    qint64 m_seen = 0;
    bool m_headerChecked = false;
    bool m_refused = false;
    QString m_family = QStringLiteral("error");
};

QByteArray methodName(QHttpServerRequest::Method method)
{
    switch (method) {
    case QHttpServerRequest::Method::Get: return "GET";
    case QHttpServerRequest::Method::Put: return "PUT";
    case QHttpServerRequest::Method::Delete: return "DELETE";
    case QHttpServerRequest::Method::Post: return "POST";
    case QHttpServerRequest::Method::Head: return "HEAD";
    case QHttpServerRequest::Method::Options: return "OPTIONS";
    case QHttpServerRequest::Method::Patch: return "PATCH";
    case QHttpServerRequest::Method::Connect: return "CONNECT";
    case QHttpServerRequest::Method::Trace: return "TRACE";
    default: return "UNKNOWN";
    }
}

} // namespace

CloudHttpServer::CloudHttpServer(ApiRouter &router, HttpLimits limits, QObject *parent)
    : QAbstractHttpServer(parent), m_router(router), m_limits(limits)
{
    connect(this, &QAbstractHttpServer::newWebSocketConnection, this, &CloudHttpServer::onNewWebSocket);
}

quint16 CloudHttpServer::start(const QHostAddress &address, quint16 port, QString *error)
{
    auto *tcp = new QTcpServer(this);
    if (!tcp->listen(address, port)) {
        *error = tcp->errorString();
        delete tcp;
        return 0;
    }
    // Connected before bind(), so this runs before the HTTP parser takes the
    // socket and the guard's byte watch runs before the parser's.
    connect(tcp, &QTcpServer::pendingConnectionAvailable, this, [this, tcp] {
        const QList<QTcpSocket *> sockets = tcp->findChildren<QTcpSocket *>(Qt::FindDirectChildrenOnly);
        for (QTcpSocket *socket : sockets) {
            if (socket->property("tsl.guarded").toBool())
                continue;
            socket->setProperty("tsl.guarded", true);
            new ConnectionGuard(socket, m_limits);
        }
        // At the limit new connections wait in the kernel's backlog; the
        // count is of live sockets, so nothing has to report its end.
        if (sockets.size() >= m_limits.maxConnections && tcp->isListening()) {
            qCWarning(lcHttp) << "connection limit reached; accepting paused";
            tcp->pauseAccepting();
            auto *check = new QTimer(tcp);
            connect(check, &QTimer::timeout, tcp, [this, tcp, check] {
                if (tcp->findChildren<QTcpSocket *>(Qt::FindDirectChildrenOnly).size() < m_limits.maxConnections) {
                    tcp->resumeAccepting();
                    check->deleteLater();
                }
            });
            check->start(1000);
        }
    });
    bind(tcp);
    return tcp->serverPort();
}

void CloudHttpServer::addSocketEndpoint(const QString &path, SocketEndpoint endpoint)
{
    m_socketEndpoints.insert(path, std::move(endpoint));
}

bool CloudHttpServer::handleRequest(const QHttpServerRequest &request, QTcpSocket *socket)
{
    // Qt HttpServer 6.4 shows a WebSocket handshake here first and hands the
    // socket to the WebSocket side only when it is reported handled; an
    // answer written now would land inside the WebSocket stream.
    if (request.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0)
        return true;
    for (QObject *child : socket->children()) {
        // The guard has no meta-object of its own, so findChild cannot tell it apart.
        if (auto *guard = dynamic_cast<ConnectionGuard *>(child)) {
            if (guard->refused())
                return true;
            guard->requestDone();
        }
    }
    QElapsedTimer elapsed;
    elapsed.start();
    ApiRequest api{methodName(request.method()), request.url().path(), request.query(), request.value("authorization"),
                   request.body(), request.remoteAddress().toString()};
    const ApiReply reply = m_router.handle(api);
    QHttpServerResponder responder = makeResponder(request, socket);
    responder.write(QJsonDocument(reply.body), static_cast<QHttpServerResponder::StatusCode>(reply.httpStatus));
    qCInfo(lcHttp).noquote() << QStringLiteral("%1 %2 %3 %4 %5 ms %6")
                                    .arg(QString::fromLatin1(api.method), api.path.left(200))
                                    .arg(reply.httpStatus)
                                    .arg(reply.code().isEmpty() ? QStringLiteral("ok") : reply.code())
                                    .arg(elapsed.nsecsElapsed() / 1e6, 0, 'f', 1)
                                    .arg(api.remoteAddress);
    return true;
}

void CloudHttpServer::missingHandler(const QHttpServerRequest &request, QTcpSocket *socket)
{
    // handleRequest takes every request; kept for the interface.
    Q_UNUSED(request);
    Q_UNUSED(socket);
}

void CloudHttpServer::onNewWebSocket()
{
    while (hasPendingWebSocketConnections()) {
        std::unique_ptr<QWebSocket> socket = nextPendingWebSocketConnection();
        if (!socket)
            break;
        const QString path = socket->requestUrl().path();
        const auto endpoint = m_socketEndpoints.constFind(path);
        if (endpoint != m_socketEndpoints.constEnd()) {
            (*endpoint)(std::move(socket));
            continue;
        }
        qCInfo(lcHttp).noquote() << "WebSocket" << path.left(200) << "refused: unknown_path";
        QWebSocket *raw = socket.release();
        QObject::connect(raw, &QWebSocket::disconnected, raw, &QObject::deleteLater);
        raw->close(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("unknown_path"));
        QTimer::singleShot(5000, raw, &QObject::deleteLater);
    }
}
