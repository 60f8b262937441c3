#include "relaypeer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QUrlQuery>

RelayPeer::RelayPeer(QObject *parent) : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &RelayPeer::onConnection);
}

RelayPeer::~RelayPeer()
{
    for (End *end : std::as_const(m_ends)) {
        end->socket->disconnect(this);
        delete end;
    }
}

bool RelayPeer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString RelayPeer::address() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

void RelayPeer::addTicket(const QString &ticket, const Ticket &spec)
{
    m_tickets.insert(ticket, spec);
}

std::pair<QString, QString> RelayPeer::openRelay(const QString &relayId, const QString &portKey)
{
    const QString host = QStringLiteral("h%1-%2").arg(m_nextTicket).arg(relayId);
    const QString client = QStringLiteral("c%1-%2").arg(m_nextTicket++).arg(relayId);
    addTicket(host, Ticket{relayId, QStringLiteral("host"), portKey});
    addTicket(client, Ticket{relayId, QStringLiteral("client"), portKey});
    return {host, client};
}

void RelayPeer::onConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        auto *end = new End;
        end->socket = socket;
        m_ends.append(end);
        connect(socket, &QTcpSocket::readyRead, this, [this, end] { onReadable(end); });
        connect(socket, &QTcpSocket::bytesWritten, this, [this, end] { onWritten(end); });
        connect(socket, &QTcpSocket::disconnected, this, [this, end] {
            // The other end learns that this one is gone, as from the service.
            if (End *other = partner(end); other && end->admitted && other->codec.isOpen())
                write(other, other->codec.textMessage(QStringLiteral("{\"type\":\"peer_gone\"}")));
            end->admitted = false;
        });
    }
}

RelayPeer::End *RelayPeer::find(const QString &relayId, const QString &end) const
{
    for (End *e : m_ends) {
        if (e->admitted && e->spec.relayId == relayId && e->spec.end == end)
            return e;
    }
    return nullptr;
}

RelayPeer::End *RelayPeer::partner(const End *end) const
{
    if (end->spec.relayId.isEmpty())
        return nullptr;
    return find(end->spec.relayId, end->spec.end == QLatin1String("host") ? QStringLiteral("client")
                                                                          : QStringLiteral("host"));
}

void RelayPeer::write(End *end, const QByteArray &bytes)
{
    if (bytes.isEmpty() || end->socket->state() != QAbstractSocket::ConnectedState)
        return;
    end->socket->write(bytes);
    m_peakBacklog = qMax(m_peakBacklog, end->socket->bytesToWrite());
}

void RelayPeer::onReadable(End *end)
{
    if (end->paused)
        return;
    const WebSocketCodec::Step step = end->codec.feed(end->socket->readAll());
    write(end, step.write);
    for (const WebSocketCodec::Event &event : step.events) {
        using Kind = WebSocketCodec::Event::Kind;
        switch (event.kind) {
        case Kind::Opened:
            admit(end);
            break;
        case Kind::Binary:
            end->sizes.append(event.payload.size());
            if (End *other = partner(end)) {
                const QByteArray frame = other->codec.binaryMessage(event.payload);
                write(other, frame);
                // Hold this end back while the other one is not taking it.
                if (other->socket->bytesToWrite() > kHighWater && !end->paused) {
                    end->paused = true;
                    end->socket->setReadBufferSize(kLowWater);
                }
            }
            break;
        case Kind::Closed:
        case Kind::Failed:
            end->socket->disconnectFromHost();
            break;
        case Kind::Text:
            break;
        }
    }
}

void RelayPeer::onWritten(End *end)
{
    End *other = partner(end);
    if (other && other->paused && end->socket->bytesToWrite() < kLowWater) {
        other->paused = false;
        other->socket->setReadBufferSize(0);
        QMetaObject::invokeMethod(this, [this, other] { onReadable(other); }, Qt::QueuedConnection);
    }
}

void RelayPeer::admit(End *end)
{
    const QByteArray target = end->codec.requestTarget();
    m_lastTarget = QString::fromUtf8(target);
    const QString ticket = QUrlQuery(QUrl(m_lastTarget)).queryItemValue(QStringLiteral("ticket"),
                                                                       QUrl::FullyDecoded);
    if (!m_tickets.contains(ticket)) {
        write(end, end->codec.close(1008, QStringLiteral("The relay ticket is not valid or has expired.")));
        end->socket->disconnectFromHost();
        return;
    }
    end->ticket = ticket;
    end->spec = m_tickets.take(ticket);  // one use only
    if (end->spec.closeCode != 0) {
        write(end, end->codec.close(end->spec.closeCode, end->spec.closeReason));
        end->socket->disconnectFromHost();
        return;
    }
    if (find(end->spec.relayId, end->spec.end)) {
        write(end, end->codec.close(1013, QStringLiteral("That end of the relay is already connected.")));
        end->socket->disconnectFromHost();
        return;
    }
    end->admitted = true;
    End *other = partner(end);
    if (!other || end->spec.neverPair || other->spec.neverPair)
        return;
    for (End *e : {end, other}) {
        const QJsonObject ready{{QStringLiteral("type"), QStringLiteral("ready")},
                                {QStringLiteral("relay_id"), e->spec.relayId},
                                {QStringLiteral("port_key"), e->spec.portKey}};
        write(e, e->codec.textMessage(QString::fromUtf8(QJsonDocument(ready).toJson(QJsonDocument::Compact))));
    }
}

void RelayPeer::sendText(const QString &relayId, const QString &end, const QByteArray &json)
{
    if (End *e = find(relayId, end))
        write(e, e->codec.textMessage(QString::fromUtf8(json)));
}

void RelayPeer::closeEnd(const QString &relayId, const QString &end, int code, const QString &reason)
{
    if (End *e = find(relayId, end)) {
        write(e, e->codec.close(code, reason));
        e->socket->disconnectFromHost();
    }
}

void RelayPeer::dropEnd(const QString &relayId, const QString &end)
{
    if (End *e = find(relayId, end))
        e->socket->abort();
}

QList<qsizetype> RelayPeer::messageSizes(const QString &relayId, const QString &end) const
{
    for (const End *e : m_ends) {
        if (e->spec.relayId == relayId && e->spec.end == end)
            return e->sizes;
    }
    return {};
}

bool RelayPeer::isReadingPaused(const QString &relayId, const QString &end) const
{
    const End *e = find(relayId, end);
    return e && e->paused;
}
