#include "cloudhttpserver.h"

#include "apirouter.h"
#include "connectionlistener.h"
#include "servicelog.h"
#include "webpage.h"
#include "workerpool.h"

#include <QJsonDocument>
#include <QPointer>
#include <QTcpSocket>
#include <QUrl>
#include <QWebSocket>
#include <QWebSocketServer>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

QByteArray envelope(const QString &type, const QString &code, const QString &description)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("type"), type},
                                     {QStringLiteral("status"), false},
                                     {QStringLiteral("code"), code},
                                     {QStringLiteral("description"), description}})
        .toJson(QJsonDocument::Compact);
}

HttpResponse responseOf(const WorkReply &reply)
{
    HttpResponse response;
    response.status = reply.status;
    response.body = reply.body;
    if (reply.retryAfterSeconds > 0)
        response.headers.append({QByteArrayLiteral("Retry-After"), QByteArray::number(reply.retryAfterSeconds)});
    return response;
}

QHostAddress peerOf(qintptr descriptor)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getpeername(int(descriptor), reinterpret_cast<sockaddr *>(&storage), &length) != 0)
        return {};
    QHostAddress address;
    address.setAddress(reinterpret_cast<const sockaddr *>(&storage));
    return ClientAddress::normalised(address);
}

// A complete WebSocket opening handshake, as RFC 6455 has it.
bool isWebSocketHandshake(const HttpRequest &request)
{
    return request.method == "GET" && request.minorVersion == 1 && request.hasToken("upgrade", "websocket")
           && request.hasToken("connection", "upgrade") && request.header("sec-websocket-version") == "13"
           && QByteArray::fromBase64(request.header("sec-websocket-key"), QByteArray::AbortOnBase64DecodingErrors).size()
                  == 16
           && request.body.isEmpty() && !request.hasHeader("transfer-encoding");
}

// Calls back when its parent is deleted.
class GoneNotice : public QObject
{
public:
    GoneNotice(QObject *parent, std::function<void()> gone) : QObject(parent), m_gone(std::move(gone)) {}
    ~GoneNotice() override { m_gone(); }

private:
    std::function<void()> m_gone;
};

// All X-Forwarded-For values in order, as one list.
QByteArray forwardedFor(const HttpRequest &request)
{
    QByteArray out;
    for (const auto &[name, value] : request.headers) {
        if (name == "x-forwarded-for")
            out += (out.isEmpty() ? QByteArray() : QByteArrayLiteral(",")) + value;
    }
    return out;
}

} // namespace

CloudHttpServer::CloudHttpServer(WorkerPool &pool, FrontLimits limits, TrustedProxies trustedProxies, QObject *parent)
    : QObject(parent),
      m_pool(pool),
      m_limits(limits),
      m_trusted(std::move(trustedProxies)),
      m_listener(new ConnectionListener(this)),
      m_webSockets(new QWebSocketServer(QStringLiteral("tessaline-cloud"), QWebSocketServer::NonSecureMode, this))
{
    connect(m_listener, &ConnectionListener::accepted, this, &CloudHttpServer::onAccepted);
    connect(m_listener, &ConnectionListener::descriptorsExhausted, this, [this] {
        qCWarning(lcHttp) << "out of file descriptors with" << m_open
                          << "connections open; accepting rests (raise LimitNOFILE or lower --max-connections)";
    });
    connect(m_webSockets, &QWebSocketServer::newConnection, this, &CloudHttpServer::onNewWebSocket);
    m_refusalLog.start();
}

CloudHttpServer::~CloudHttpServer()
{
    // Connections go first, while the maps they report to still exist.
    const QList<HttpConnection *> connections = m_slotOf.keys();
    for (HttpConnection *connection : connections) {
        disconnect(connection, nullptr, this, nullptr);
        delete connection;
    }
}

quint16 CloudHttpServer::start(const QHostAddress &address, quint16 port, QString *error)
{
    return m_listener->listen(address, port, error);
}

void CloudHttpServer::addRawSocketEndpoint(const QString &path, RawSocketEndpoint endpoint)
{
    m_rawSocketEndpoints.insert(path, std::move(endpoint));
}

void CloudHttpServer::addSocketEndpoint(const QString &path, SocketEndpoint endpoint)
{
    m_socketEndpoints.insert(path, std::move(endpoint));
}

// --- connections -------------------------------------------------------------

void CloudHttpServer::onAccepted(qintptr descriptor)
{
    const QHostAddress peer = peerOf(descriptor);
    const QString key = ClientAddress::limitKey(peer);
    const bool trusted = m_trusted.contains(peer);
    if (!trusted && m_perAddress.value(key) >= m_limits.maxConnectionsPerAddress) {
        refuseAtOnce(descriptor, peer);
        return;
    }
    if (m_open >= m_limits.maxConnections && !m_idle.empty())
        m_idle.front()->close();  // the longest idle makes room
    if (m_open >= m_limits.maxConnections) {
        // Cannot happen while the listener follows updateListener(); kept
        // so that the cap holds whatever the order of events.
        ::close(int(descriptor));
        updateListener();
        return;
    }
    auto *socket = new QTcpSocket;
    if (!socket->setSocketDescriptor(descriptor)) {
        ::close(int(descriptor));
        delete socket;
        return;
    }
    auto *connection = new HttpConnection(socket, m_limits.http, this);
    takeSlot(trusted ? QString() : key);
    m_slotOf.insert(connection, trusted ? QString() : key);
    connect(connection, &HttpConnection::requestReceived, this,
            [this, connection](const HttpRequest &request) { onRequest(connection, request); });
    connect(connection, &HttpConnection::refused, this,
            [this, connection](const HttpRequestParser::Event &refusal) { onRefused(connection, refusal); });
    connect(connection, &HttpConnection::idleChanged, this,
            [this, connection](bool idle) { onIdleChanged(connection, idle); });
    connect(connection, &HttpConnection::finished, this, [this, connection] {
        onIdleChanged(connection, false);
        if (m_slotOf.contains(connection))
            releaseSlot(m_slotOf.take(connection));
    });
    connection->start();
    updateListener();
}

void CloudHttpServer::refuseAtOnce(qintptr descriptor, const QHostAddress &peer)
{
    const QByteArray body = envelope(QStringLiteral("error"), QStringLiteral("too_many_connections"),
                                     QStringLiteral("Too many connections from your address. Please close some."));
    const QByteArray response = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nContent-Length: "
                                + QByteArray::number(body.size()) + "\r\nConnection: close\r\nRetry-After: 5\r\n\r\n"
                                + body;
    // A fresh socket's send buffer takes this whole; if not, so be it.
    [[maybe_unused]] const auto sent = ::send(int(descriptor), response.constData(), size_t(response.size()),
                                              MSG_DONTWAIT | MSG_NOSIGNAL);
    ::close(int(descriptor));
    // Under a flood one line now and then says how many went.
    ++m_refusedSinceLog;
    if (m_refusedSinceLog == 1 || m_refusalLog.elapsed() >= 10000) {
        qCWarning(lcHttp).noquote() << QStringLiteral("refused %1 connection(s) over the per-address cap, last from %2")
                                           .arg(m_refusedSinceLog)
                                           .arg(peer.toString());
        m_refusedSinceLog = 0;
        m_refusalLog.restart();
    }
}

void CloudHttpServer::takeSlot(const QString &key)
{
    ++m_open;
    if (!key.isEmpty())
        ++m_perAddress[key];
}

void CloudHttpServer::releaseSlot(const QString &key)
{
    --m_open;
    if (!key.isEmpty()) {
        auto count = m_perAddress.find(key);
        if (count != m_perAddress.end() && --*count <= 0)
            m_perAddress.erase(count);
    }
    m_listener->resume();  // also: a descriptor came free
    updateListener();
}

void CloudHttpServer::updateListener()
{
    // At the cap, accepting goes on only while an idle connection can make room.
    if (m_open >= m_limits.maxConnections && m_idle.empty())
        m_listener->pause();
    else if (m_listener->isPaused())
        m_listener->resume();
}

void CloudHttpServer::onIdleChanged(HttpConnection *connection, bool idle)
{
    const auto position = m_idlePosition.find(connection);
    if (position != m_idlePosition.end()) {
        m_idle.erase(*position);
        m_idlePosition.erase(position);
    }
    if (idle)
        m_idlePosition.insert(connection, m_idle.insert(m_idle.end(), connection));
    updateListener();
}

// --- requests ------------------------------------------------------------------

void CloudHttpServer::onRefused(HttpConnection *connection, const HttpRequestParser::Event &refusal)
{
    const QString path = QUrl::fromPercentEncoding(refusal.request.path());
    const QString family = refusal.request.target.isEmpty() ? QStringLiteral("error") : ApiRouter::familyOf(path);
    HttpResponse response;
    response.status = refusal.status;
    response.body = envelope(family, refusal.code, refusal.description);
    response.close = true;
    connection->respond(response);
    qCInfo(lcHttp).noquote() << QStringLiteral("%1 %2 %3 %4 %5")
                                    .arg(QString::fromLatin1(refusal.request.method.left(16)), path.left(200))
                                    .arg(refusal.status)
                                    .arg(refusal.code, connection->peerAddress().toString());
}

void CloudHttpServer::onRequest(HttpConnection *connection, const HttpRequest &request)
{
    QElapsedTimer timer;
    timer.start();
    ApiRequest api;
    api.method = request.method;
    api.path = QUrl::fromPercentEncoding(request.path());
    api.query = QUrlQuery(QString::fromLatin1(request.query()));
    api.authorization = request.header("authorization");
    api.relayGuestToken = request.header("x-relay-guest-token");
    api.body = request.body;
    api.remoteAddress = m_trusted.clientOf(connection->peerAddress(), forwardedFor(request)).toString();

    if (api.path == QLatin1String(kHealthPath) && (api.method == "GET" || api.method == "HEAD")) {
        const QJsonObject health{{QStringLiteral("type"), QStringLiteral("health")},
                                 {QStringLiteral("status"), true},
                                 {QStringLiteral("database"), m_pool.databaseReachable()
                                                                  ? QStringLiteral("reachable")
                                                                  : QStringLiteral("unreachable")}};
        answer(connection, api, WorkReply::from(ApiReply{Http::Ok, health}), timer);
        return;
    }
    if (std::optional<HttpResponse> page = WebPage::serve(api.method, api.path)) {
        connection->respond(*page);
        ++m_answered;
        qCInfo(lcHttp).noquote() << QStringLiteral("%1 %2 %3 page %4")
                                        .arg(QString::fromLatin1(api.method), api.path)
                                        .arg(page->status)
                                        .arg(api.remoteAddress);
        return;
    }
    if (m_socketEndpoints.contains(api.path) || m_rawSocketEndpoints.contains(api.path)) {
        upgrade(connection, request, api.path);
        return;
    }
    std::variant<ApiReply, RouteMatch> resolved = ApiRouter::resolve(api);
    if (auto *reply = std::get_if<ApiReply>(&resolved)) {
        answer(connection, api, WorkReply::from(*reply), timer);
        return;
    }
    const RouteMatch match = std::get<RouteMatch>(std::move(resolved));
    QPointer<HttpConnection> alive(connection);
    auto run = [this, alive, api, match, timer] {
        m_pool.submit(match.family,
                      [api, match](WorkerContext &context) {
                          return ApiRouter::execute(match, api, context.services());
                      },
                      [this, alive, api, match, timer](const WorkReply &reply) {
                          if (match.isSignIn())
                              finishSignIn(api.remoteAddress);
                          if (alive)
                              answer(alive, api, reply, timer);
                      });
    };
    if (!match.isSignIn()) {
        run();
        return;
    }
    // Guesses from one address take turns, so each sees the failures
    // before it and the delays they earned hold.
    SignInLine &line = m_signIns[api.remoteAddress];
    if (line.running < m_limits.maxSignInsPerAddress) {
        ++line.running;
        run();
    } else if (int(line.waiting.size()) < m_limits.maxWaitingSignIns) {
        line.waiting.push_back(run);
    } else {
        ApiReply refusal = ApiReply::failure(match.family, Http::TooManyRequests, QStringLiteral("too_many_attempts"),
                                             QStringLiteral("Too many sign-ins at once from your address. Please "
                                                            "wait a moment and try again."));
        refusal.retryAfterSeconds = 1;
        answer(connection, api, WorkReply::from(refusal), timer);
    }
}

void CloudHttpServer::finishSignIn(const QString &address)
{
    const auto line = m_signIns.find(address);
    if (line == m_signIns.end())
        return;
    if (!line->waiting.empty()) {
        const std::function<void()> next = std::move(line->waiting.front());
        line->waiting.pop_front();
        next();  // its turn: `running` stays as it was
        return;
    }
    if (--line->running <= 0)
        m_signIns.erase(line);
}

void CloudHttpServer::answer(HttpConnection *connection, const ApiRequest &request, const WorkReply &reply,
                             const QElapsedTimer &timer)
{
    connection->respond(responseOf(reply));
    ++m_answered;
    qCInfo(lcHttp).noquote() << QStringLiteral("%1 %2 %3 %4 %5 ms %6")
                                    .arg(QString::fromLatin1(request.method.left(16)), request.path.left(200))
                                    .arg(reply.status)
                                    .arg(reply.code.isEmpty() ? QStringLiteral("ok") : reply.code)
                                    .arg(timer.nsecsElapsed() / 1e6, 0, 'f', 1)
                                    .arg(request.remoteAddress);
}

// --- WebSockets ----------------------------------------------------------------

void CloudHttpServer::upgrade(HttpConnection *connection, const HttpRequest &request, const QString &path)
{
    const QString family = ApiRouter::familyOf(path);
    if (!isWebSocketHandshake(request)) {
        const bool asked = request.hasHeader("upgrade");
        HttpResponse response;
        response.status = asked ? Http::BadRequest : 426;
        response.body = asked ? envelope(family, QStringLiteral("bad_request"),
                                         QStringLiteral("The WebSocket handshake is not valid."))
                              : envelope(family, QStringLiteral("upgrade_required"),
                                         QStringLiteral("This address takes WebSocket connections only."));
        if (!asked)
            response.headers.append({QByteArrayLiteral("Upgrade"), QByteArrayLiteral("websocket")});
        response.close = asked;
        connection->respond(response);
        qCInfo(lcHttp).noquote() << "WebSocket" << path.left(200) << "refused:" << response.status
                                 << connection->peerAddress().toString();
        return;
    }
    // The socket keeps its place under the caps until it is gone.
    const QString key = m_slotOf.take(connection);
    onIdleChanged(connection, false);
    QTcpSocket *socket = connection->releaseForUpgrade();
    if (!socket) {
        releaseSlot(key);
        return;
    }
    // Live sockets carry small messages that must leave at once: without
    // this, a push that follows an unacknowledged one waits for the
    // peer's delayed ACK (40 ms here).
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (const auto raw = m_rawSocketEndpoints.constFind(path); raw != m_rawSocketEndpoints.constEnd()) {
        new GoneNotice(socket, [server = QPointer<CloudHttpServer>(this), key] {
            if (server)
                server->releaseSlot(key);
        });
        qCInfo(lcHttp).noquote() << "WebSocket" << path.left(200) << "opened" << socket->peerAddress().toString();
        (*raw)(socket);
        return;
    }
    // Qt reads a WebSocket frame only once all of it is in the socket's
    // buffer: the HTTP head's small buffer would stall any larger frame for
    // good. Room for the largest frame taken, and no more.
    socket->setReadBufferSize(qint64(m_limits.http.maxBodyBytes) + 16 * 1024);
    const QString peer = QStringLiteral("%1 %2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
    m_handedOver.insert(peer, socket);
    // Not the socket's destroyed signal: QWebSocket disconnects every
    // signal of its TCP socket when it closes. A child goes with it anyway.
    new GoneNotice(socket, [server = QPointer<CloudHttpServer>(this), key, peer] {
        if (server) {
            server->m_handedOver.remove(peer);
            server->releaseSlot(key);
        }
    });
    m_webSockets->handleConnection(socket);
}

void CloudHttpServer::onNewWebSocket()
{
    while (m_webSockets->hasPendingConnections()) {
        std::unique_ptr<QWebSocket> socket(m_webSockets->nextPendingConnection());
        if (!socket)
            break;
        // Qt 6.4 leaves the TCP socket behind when a server-side QWebSocket
        // is deleted; made its child, it goes along (and frees its place).
        const QString peer = QStringLiteral("%1 %2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
        if (QTcpSocket *tcp = m_handedOver.take(peer))
            tcp->setParent(socket.get());
        socket->setMaxAllowedIncomingMessageSize(quint64(m_limits.http.maxBodyBytes));
        socket->setMaxAllowedIncomingFrameSize(quint64(m_limits.http.maxBodyBytes));
        const auto endpoint = m_socketEndpoints.constFind(socket->requestUrl().path());
        if (endpoint == m_socketEndpoints.constEnd())
            continue;  // the path was checked before the hand-over
        qCInfo(lcHttp).noquote() << "WebSocket" << socket->requestUrl().path().left(200) << "opened"
                                 << socket->peerAddress().toString();
        (*endpoint)(std::move(socket));
    }
}
