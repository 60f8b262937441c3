#include "consolepeer.h"

#include <QJsonDocument>
#include <QTcpSocket>
#include <QUrl>
#include <QWebSocket>

ConsolePeer::ConsolePeer() : m_webSockets(QStringLiteral("console peer"), QWebSocketServer::NonSecureMode)
{
    connect(&m_server, &QTcpServer::newConnection, this, &ConsolePeer::onConnection);
    connect(&m_webSockets, &QWebSocketServer::newConnection, this, &ConsolePeer::onWebSocket);
}

ConsolePeer::~ConsolePeer()
{
    // The sockets outlive the members their handlers touch: cut them off.
    for (QTcpSocket *socket : m_buffers.keys())
        socket->disconnect(this);
    for (QWebSocket *socket : findChildren<QWebSocket *>())
        socket->disconnect(this);
    m_server.close();
    if (m_socket)
        m_socket->abort();
}

bool ConsolePeer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString ConsolePeer::baseUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

qsizetype ConsolePeer::count(const QByteArray &method, const QString &pathPart) const
{
    return matching(method, pathPart).size();
}

QList<ConsolePeer::Request> ConsolePeer::matching(const QByteArray &method, const QString &pathPart) const
{
    QList<Request> list;
    for (const Request &r : requests) {
        if (r.method == method && r.path.contains(pathPart))
            list.append(r);
    }
    return list;
}

QList<QJsonObject> ConsolePeer::socketMessagesOfType(const QString &type) const
{
    QList<QJsonObject> list;
    for (const QJsonObject &m : socketMessages) {
        if (m.value("type").toString() == type)
            list.append(m);
    }
    return list;
}

void ConsolePeer::push(const QJsonObject &message)
{
    if (m_socket)
        m_socket->sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void ConsolePeer::dropSocket()
{
    if (m_socket)
        m_socket->abort();
}

void ConsolePeer::onConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        m_buffers.insert(socket, {});
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onSocketData(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_buffers.remove(socket);
            socket->deleteLater();
        });
    }
}

void ConsolePeer::onSocketData(QTcpSocket *socket)
{
    // An upgrade goes to the WebSocket server untouched: look, do not read.
    if (m_buffers.value(socket).isEmpty()) {
        const QByteArray head = socket->peek(4096);
        if (!head.contains("\r\n\r\n"))
            return;
        if (head.toLower().contains("upgrade: websocket")) {
            disconnect(socket, nullptr, this, nullptr);
            m_buffers.remove(socket);
            m_webSockets.handleConnection(socket);
            return;
        }
    }
    QByteArray &buffer = m_buffers[socket];
    buffer += socket->readAll();
    for (;;) {
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        qsizetype length = 0;
        Request request;
        for (const QByteArray &line : lines.mid(1)) {
            const qsizetype colon = line.indexOf(':');
            const QByteArray name = line.left(colon).trimmed().toLower();
            const QByteArray value = line.mid(colon + 1).trimmed();
            if (name == "content-length")
                length = value.toLongLong();
            else if (name == "authorization")
                request.authorization = value;
        }
        if (buffer.size() < headEnd + 4 + length)
            return;
        const QByteArray body = buffer.mid(headEnd + 4, length);
        buffer.remove(0, headEnd + 4 + length);

        const QUrl url(QString::fromLatin1(requestLine.value(1)));
        request.method = requestLine.value(0);
        request.path = url.path();
        request.query = QUrlQuery(url);
        request.body = QJsonDocument::fromJson(body).object();
        requests.append(request);
        const QJsonObject answer = reply ? reply(request) : QJsonObject{{"type", "console"}, {"status", true}};
        const QByteArray json = QJsonDocument(answer).toJson(QJsonDocument::Compact);
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                      + QByteArray::number(json.size()) + "\r\n\r\n" + json);
        emit requestReceived();
    }
}

void ConsolePeer::onWebSocket()
{
    while (QWebSocket *socket = m_webSockets.nextPendingConnection()) {
        socket->setParent(this);
        socketAuthorizations.append(socket->request().rawHeader("Authorization"));
        if (socket->requestUrl().path() != QLatin1String("/ws/console/v1")) {
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
            continue;
        }
        m_socket = socket;
        connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString &text) {
            const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
            socketMessages.append(message);
            if (message.value("type").toString() == QLatin1String("hello")) {
                ++hellos;
                socket->sendTextMessage(QString::fromUtf8(QJsonDocument(helloAnswer).toJson(QJsonDocument::Compact)));
            }
            emit socketMessage(message);
        });
        connect(socket, &QWebSocket::disconnected, this, [this, socket] {
            closeCodes.append(int(socket->closeCode()));
            socket->deleteLater();
        });
    }
}
