#include "cloud/relaysocket.h"

#include "common/logging.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSslSocket>
#include <QTimer>

namespace {

// How much one read may take from the TCP socket while reading runs.
constexpr qint64 kReadBufferSize = 256 * 1024;

} // namespace

RelaySocket::RelaySocket(QObject *parent)
    : QObject(parent)
    , m_codec(WebSocketCodec::Role::Client)
    , m_deadline(new QTimer(this))
{
    m_codec.setMaxMessageSize(kMaxIncomingMessage);
    m_deadline->setSingleShot(true);
    m_deadline->setInterval(kPairDeadlineMs);
    connect(m_deadline, &QTimer::timeout, this, &RelaySocket::onPairDeadline);
}

RelaySocket::~RelaySocket()
{
    if (m_socket)
        m_socket->disconnect(this);
}

void RelaySocket::setPairDeadline(int ms)
{
    m_deadline->setInterval(ms);
}

QUrl RelaySocket::relayUrl(const QString &relayAddress, const QString &ticket)
{
    QUrl url(relayAddress.trimmed());
    url.setScheme(url.scheme() == QLatin1String("https") ? QStringLiteral("wss") : QStringLiteral("ws"));
    url.setPath(QStringLiteral("/ws/relay/v1"));
    url.setQuery(QStringLiteral("ticket=") + QString::fromLatin1(QUrl::toPercentEncoding(ticket)));
    url.setFragment(QString());
    return url;
}

QList<QByteArray> RelaySocket::split(const QByteArray &bytes)
{
    QList<QByteArray> messages;
    messages.reserve((bytes.size() + kMaxMessageBytes - 1) / kMaxMessageBytes);
    for (qsizetype at = 0; at < bytes.size(); at += kMaxMessageBytes)
        messages.append(bytes.mid(at, kMaxMessageBytes));
    return messages;
}

QString RelaySocket::refusalText(const QString &reason)
{
    if (reason == QLatin1String("permission_denied"))
        return tr("The remote computer does not allow Live Relay on that port.");
    if (reason == QLatin1String("relay_busy"))
        return tr("The remote port already has a relay session.");
    if (reason == QLatin1String("session_mismatch") || reason == QLatin1String("port_not_found"))
        return tr("The remote computer's ports changed. Choose the port again.");
    if (!reason.isEmpty())
        return tr("The remote computer declined the relay (%1).").arg(reason);
    return tr("The remote computer declined the relay.");
}

RelaySocket::Control RelaySocket::parseControl(const QByteArray &message)
{
    Control control;
    const QJsonObject object = QJsonDocument::fromJson(message).object();
    const QString type = object.value(QLatin1String("type")).toString();
    auto stopWith = [&control](Stop stop, const QString &text) {
        control.kind = Control::Kind::Stopped;
        control.stop = stop;
        control.text = text;
    };
    if (type == QLatin1String("ready")) {
        control.kind = Control::Kind::Ready;
        control.relayId = object.value(QLatin1String("relay_id")).toString();
        control.portKey = object.value(QLatin1String("port_key")).toString();
    } else if (type == QLatin1String("rate_limited")) {
        control.kind = Control::Kind::Notice;
        const qint64 limit = qint64(object.value(QLatin1String("limit_bytes_per_sec")).toDouble());
        control.text = tr("The relay is rate limited to %1 bytes per second.").arg(limit);
    } else if (type == QLatin1String("peer_refused")) {
        stopWith(Stop::PeerAbsent, refusalText(object.value(QLatin1String("reason")).toString()));
    } else if (type == QLatin1String("peer_gone")) {
        stopWith(Stop::PeerGone, tr("The remote end disconnected."));
    } else if (type == QLatin1String("quota_exhausted")) {
        stopWith(Stop::QuotaExhausted, tr("The monthly cloud traffic quota is exhausted."));
    } else if (type == QLatin1String("closing")) {
        stopWith(Stop::Closing, tr("The server closed the relay."));
    }
    return control;
}

// ------------------------------------------------------------------ opening

void RelaySocket::open(const QString &relayAddress, const QString &ticket)
{
    if (m_socket || m_stopped)
        return;
    if (relayAddress.trimmed().isEmpty() || ticket.isEmpty()) {
        stop(Stop::Transport, tr("Missing relay address or ticket."));
        return;
    }
    const QUrl url = relayUrl(relayAddress, ticket);
    const bool secure = url.scheme() == QLatin1String("wss");
    m_deadline->start();
    if (secure) {
        auto *socket = new QSslSocket(this);
        m_socket = socket;
        connect(socket, &QSslSocket::encrypted, this, &RelaySocket::onConnected);
    } else {
        m_socket = new QTcpSocket(this);
        connect(m_socket, &QTcpSocket::connected, this, &RelaySocket::onConnected);
    }
    m_socket->setReadBufferSize(kReadBufferSize);
    connect(m_socket, &QTcpSocket::readyRead, this, &RelaySocket::onReadyRead);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &RelaySocket::bytesWritten);
    connect(m_socket, &QTcpSocket::disconnected, this, &RelaySocket::onDisconnected);
    connect(m_socket, &QTcpSocket::errorOccurred, this, &RelaySocket::onSocketError);
    const quint16 port = quint16(url.port(secure ? 443 : 80));
    qCDebug(lcCloud).noquote() << "[RelaySocket] open" << url.toString(QUrl::RemoveQuery);
    if (url.host().isEmpty()) {
        m_failure = tr("%1 is not a server address").arg(relayAddress);
        QTimer::singleShot(0, this, [this] { stop(Stop::Transport, gatewayText()); });
        return;
    }
    // The codec's request goes out once the connection is up.
    m_request = m_codec.start(url.port() > 0 ? QStringLiteral("%1:%2").arg(url.host()).arg(url.port()) : url.host(),
                  url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::RemoveFragment))
                    .write;
    if (secure)
        static_cast<QSslSocket *>(m_socket)->connectToHostEncrypted(url.host(), port);
    else
        m_socket->connectToHost(url.host(), port);
}

void RelaySocket::onConnected()
{
    if (m_socket)
        m_socket->write(std::exchange(m_request, QByteArray()));
}

// ------------------------------------------------------------------ traffic

qint64 RelaySocket::send(const QByteArray &bytes)
{
    if (!m_paired || !m_connected || m_stopped || !m_socket)
        return -1;
    for (const QByteArray &message : split(bytes))
        m_socket->write(m_codec.binaryMessage(message));
    return bytes.size();
}

qint64 RelaySocket::bytesToWrite() const
{
    return m_socket ? m_socket->bytesToWrite() : 0;
}

void RelaySocket::setReadPaused(bool paused)
{
    if (paused == m_readPaused)
        return;
    m_readPaused = paused;
    if (!m_socket)
        return;
    m_socket->setReadBufferSize(paused ? kPausedReadBufferSize : kReadBufferSize);
    // What arrived meanwhile raises no new notification; read it from the
    // event loop, not inside whoever resumed us.
    if (!paused)
        QMetaObject::invokeMethod(this, &RelaySocket::onReadyRead, Qt::QueuedConnection);
}

void RelaySocket::onReadyRead()
{
    if (!m_socket || m_readPaused || m_stopped)
        return;
    const QByteArray bytes = m_socket->readAll();
    if (!bytes.isEmpty())
        apply(m_codec.feed(bytes));
    if (!m_stopped && m_socket->state() == QAbstractSocket::UnconnectedState)
        onDisconnected();  // it went while we were not reading
}

void RelaySocket::apply(WebSocketCodec::Step step)
{
    if (!step.write.isEmpty() && m_socket)
        m_socket->write(step.write);
    for (WebSocketCodec::Event &event : step.events) {
        if (m_stopped)
            return;
        using Kind = WebSocketCodec::Event::Kind;
        switch (event.kind) {
        case Kind::Opened:
            m_connected = true;
            break;
        case Kind::Text:
            onTextMessage(event.payload);
            break;
        case Kind::Binary:
            onBinaryMessage(event.payload);
            break;
        case Kind::Closed:
            m_closeSeen = true;
            m_closeCode = event.closeCode;
            m_closeReason = event.text;
            onDisconnected();
            break;
        case Kind::Failed:
            m_failure = event.text;
            m_protocolFailed = true;
            onDisconnected();
            break;
        }
    }
}

void RelaySocket::onBinaryMessage(const QByteArray &message)
{
    // Bytes before "ready" belong to nobody.
    if (m_paired && !message.isEmpty())
        emit binaryReceived(message);
}

void RelaySocket::onTextMessage(const QByteArray &message)
{
    const Control control = parseControl(message);
    switch (control.kind) {
    case Control::Kind::Ready:
        if (m_paired)
            return;
        m_deadline->stop();
        m_paired = true;
        m_relayId = control.relayId;
        m_portKey = control.portKey;
        emit paired(m_relayId, m_portKey);
        break;
    case Control::Kind::Notice:
        emit noticed(control.text);
        break;
    case Control::Kind::Stopped:
        stop(control.stop, control.text);
        break;
    case Control::Kind::Ignored:
        qCDebug(lcCloud) << "[RelaySocket] ignored" << message.left(200);
        break;
    }
}

// --------------------------------------------------------------------- ends

void RelaySocket::onDisconnected()
{
    if (m_stopped)
        return;
    // While paused, what is still buffered (the last bytes, a "peer_gone")
    // is read first; the end is reported after it.
    if (!m_closeSeen && !m_protocolFailed && m_readPaused && m_socket && m_socket->bytesAvailable() > 0)
        return;
    if (m_closeSeen) {
        const QString detail = m_closeReason.isEmpty()
            ? tr("The relay connection was closed (code %1).").arg(m_closeCode)
            : m_closeReason;
        stop(m_closeCode == kRejectedCloseCode ? Stop::Rejected : Stop::Transport, detail);
        return;
    }
    stop(Stop::Transport, gatewayText());
}

void RelaySocket::onSocketError()
{
    if (m_stopped || !m_socket)
        return;
    // A close the service sent is reported as such when the socket goes.
    if (m_failure.isEmpty() && !m_closeSeen)
        m_failure = m_socket->errorString();
    if (m_socket->state() == QAbstractSocket::UnconnectedState
        || m_socket->error() != QAbstractSocket::RemoteHostClosedError)
        onDisconnected();
}

void RelaySocket::onPairDeadline()
{
    if (m_stopped || m_paired)
        return;
    if (m_connected) {
        stop(Stop::PeerAbsent, tr("The remote computer did not join the relay. Check that it is online and "
                                  "that Live Relay is allowed on that port."));
        return;
    }
    stop(Stop::Transport, gatewayText());
}

QString RelaySocket::gatewayText() const
{
    if (m_failure.isEmpty())
        return tr("The relay gateway could not be reached.");
    return tr("The relay gateway could not be reached: %1").arg(m_failure);
}

void RelaySocket::stop(Stop reason, const QString &detail)
{
    if (m_stopped)
        return;
    m_stopped = true;
    m_deadline->stop();
    if (m_socket) {
        m_socket->disconnect(this);
        // Our answer to the service's close (already queued) still goes out.
        if (m_closeSeen)
            m_socket->disconnectFromHost();
        else
            m_socket->abort();
    }
    qCDebug(lcCloud).noquote() << "[RelaySocket] stopped:" << detail;
    emit stopped(reason, detail);
}

void RelaySocket::close()
{
    if (m_stopped)
        return;
    m_stopped = true;
    m_deadline->stop();
    if (!m_socket)
        return;
    m_socket->disconnect(this);
    const QByteArray goodbye = m_codec.close(1000);
    if (!goodbye.isEmpty() && m_socket->state() == QAbstractSocket::ConnectedState) {
        m_socket->write(goodbye);
        m_socket->disconnectFromHost();
    } else {
        m_socket->abort();
    }
}
