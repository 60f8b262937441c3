#include "cloud/consolesocket.h"

#include "common/logging.h"

#include <QJsonDocument>
#include <QNetworkRequest>
#include <QTimer>
#include <QWebSocket>

ConsoleSocket::ConsoleSocket(QObject *parent)
    : QObject(parent)
    , m_socket(new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this))
    , m_reconnectTimer(new QTimer(this))
    , m_random(QRandomGenerator::securelySeeded())
{
    m_socket->setMaxAllowedIncomingMessageSize(kMaxMessageBytes);
    m_socket->setMaxAllowedIncomingFrameSize(kMaxMessageBytes);
    m_reconnectTimer->setSingleShot(true);
    connect(m_reconnectTimer, &QTimer::timeout, this, &ConsoleSocket::onReconnectTimeout);
    connect(m_socket, &QWebSocket::connected, this, &ConsoleSocket::onConnected);
    connect(m_socket, &QWebSocket::textMessageReceived, this, &ConsoleSocket::onTextMessage);
    connect(m_socket, &QWebSocket::disconnected, this, &ConsoleSocket::onDisconnected);
    // A refused connection or handshake may end without a disconnected().
    connect(m_socket, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, [this] {
        if (m_socket->state() == QAbstractSocket::UnconnectedState)
            onDisconnected();
    });
}

ConsoleSocket::~ConsoleSocket()
{
    m_enabled = false;
    m_socket->disconnect(this);
}

QUrl ConsoleSocket::socketUrl(const QString &baseUrl)
{
    QUrl url(baseUrl);
    if (!url.isValid() || url.host().isEmpty())
        return {};
    url.setScheme(url.scheme() == QLatin1String("https") ? QStringLiteral("wss") : QStringLiteral("ws"));
    url.setPath(QStringLiteral("/ws/console/v1"));
    url.setQuery(QString());
    return url;
}

void ConsoleSocket::start(const QString &baseUrl, const QString &accessToken, const QJsonObject &hello)
{
    m_enabled = true;
    m_url = socketUrl(baseUrl);
    m_accessToken = accessToken;
    m_hello = hello;
    m_reconnectTimer->stop();
    if (m_socket->state() == QAbstractSocket::UnconnectedState)
        open();
}

void ConsoleSocket::stop()
{
    m_enabled = false;
    m_reconnectTimer->stop();
    m_socket->close(QWebSocketProtocol::CloseCodeNormal);
}

bool ConsoleSocket::isRunning() const
{
    return m_enabled && (m_attemptOpen || m_reconnectTimer->isActive());
}

bool ConsoleSocket::isReconnectPending() const
{
    return m_reconnectTimer->isActive();
}

void ConsoleSocket::open()
{
    if (!m_enabled || m_url.isEmpty() || m_accessToken.isEmpty())
        return;
    QNetworkRequest request(m_url);
    request.setRawHeader("Authorization", "Bearer " + m_accessToken.toUtf8());
    m_attemptOpen = true;
    qCDebug(lcCloud).noquote() << "[ConsoleSocket] open" << m_url.toString();
    m_socket->open(request);
}

bool ConsoleSocket::send(const QJsonObject &object)
{
    if (!m_ready)
        return false;
    m_socket->sendTextMessage(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    return true;
}

void ConsoleSocket::onConnected()
{
    m_socket->sendTextMessage(QString::fromUtf8(QJsonDocument(m_hello).toJson(QJsonDocument::Compact)));
}

void ConsoleSocket::onTextMessage(const QString &message)
{
    const QJsonDocument document = QJsonDocument::fromJson(message.toUtf8());
    if (!document.isObject())
        return;
    const QJsonObject object = document.object();
    if (object.value(QLatin1String("type")).toString() == QLatin1String("hello")) {
        if (!object.value(QLatin1String("status")).toBool()) {
            qCInfo(lcCloud).noquote() << "[ConsoleSocket] hello refused:"
                                      << object.value(QLatin1String("code")).toString()
                                      << object.value(QLatin1String("description")).toString();
            m_socket->close(QWebSocketProtocol::CloseCodeNormal);
            return;
        }
        if (!m_ready) {
            m_ready = true;
            m_backoff.reset();
            emit ready();
        }
    }
    emit consoleResponse(object);
}

void ConsoleSocket::onDisconnected()
{
    if (!std::exchange(m_attemptOpen, false))
        return;
    if (std::exchange(m_ready, false))
        emit disconnected();
    if (!m_enabled)
        return;
    const qint64 delay = m_backoff.next(m_random);
    qCDebug(lcCloud).noquote() << "[ConsoleSocket] closed" << m_socket->closeCode() << m_socket->errorString()
                               << "- next attempt in" << delay << "ms";
    m_reconnectTimer->start(int(delay));
    emit reconnectScheduled(delay);
}

void ConsoleSocket::onReconnectTimeout()
{
    if (m_socket->state() == QAbstractSocket::UnconnectedState)
        open();
}
