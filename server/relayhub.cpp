#include "relayhub.h"

#include "apioutcome.h"
#include "relaylive.h"
#include "relayservice.h"
#include "servicelog.h"
#include "shareservice.h"
#include "workerpool.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>

#include <utility>

namespace {

const QString kFamily = QStringLiteral("relay");
constexpr int kGoingAway = 1001;
constexpr int kPolicyViolation = 1008;
constexpr int kInternalError = 1011;
constexpr int kTryAgainLater = 1013;
// An end paused for the other's backlog is read again below this.
constexpr qint64 kLowWater = RelayHub::kHighWater / 2;
// Reads of one end in one turn of the event loop, so a fast pair cannot
// keep the loop from the others.
constexpr int kReadsPerTurn = 8;

QJsonObject objectOf(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

QJsonObject control(const char *type)
{
    return {{QStringLiteral("type"), QLatin1String(type)}};
}

} // namespace

RelayHub::RelayHub(WorkerPool &pool, RelayLive &live, qint64 rateLimit, QObject *parent)
    : QObject(parent), m_pool(pool), m_rateLimit(rateLimit), m_watch(new QTimer(this)), m_charge(new QTimer(this))
{
    connect(&live, &RelayLive::relayEnded, this, &RelayHub::onRelayEnded);
    m_watch->setInterval(kWatchIntervalMs);
    connect(m_watch, &QTimer::timeout, this, &RelayHub::watch);
    m_charge->setInterval(kChargeIntervalMs);
    connect(m_charge, &QTimer::timeout, this, &RelayHub::chargeAll);
}

RelayHub::~RelayHub()
{
    shutdown();
    for (End *end : std::as_const(m_ends))
        delete end;
    qDeleteAll(m_relays);
}

void RelayHub::addSocket(QTcpSocket *socket)
{
    socket->setParent(this);
    // Qt's own buffer stops taking from the kernel at this size, so an end
    // that is not read holds its sender back through TCP.
    socket->setReadBufferSize(kReadChunk);
    auto *end = new End;
    end->socket = socket;
    end->codec.setMaxMessageSize(kMaxMessage);
    m_ends.insert(socket, end);
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
        if (End *e = m_ends.value(socket))
            onReadable(e);
    });
    connect(socket, &QTcpSocket::bytesWritten, this, [this, socket] {
        if (End *e = m_ends.value(socket))
            onWritten(e);
    });
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
        if (End *e = m_ends.value(socket))
            onDisconnected(e);
    });
    QTimer::singleShot(kHandshakeMs, this, [this, socket = QPointer<QTcpSocket>(socket)] {
        End *e = socket ? m_ends.value(socket) : nullptr;
        if (e && !e->relay && !e->admitting)
            closeEnd(e, kPolicyViolation, QStringLiteral("no ticket in time"));
    });
    onReadable(end);
}

void RelayHub::shutdown()
{
    if (m_shuttingDown)
        return;
    m_shuttingDown = true;
    m_watch->stop();
    m_charge->stop();
    const QList<QTcpSocket *> sockets = m_ends.keys();
    for (QTcpSocket *socket : sockets)
        sendText(m_ends.value(socket), control("closing"));
    for (Relay *relay : m_relays.values())
        endRelay(relay, {}, QStringLiteral("closing"), QString(), true, kGoingAway);
    for (QTcpSocket *socket : sockets) {
        if (End *end = m_ends.value(socket))
            closeEnd(end, kGoingAway, QStringLiteral("the service is stopping"));
        if (m_ends.contains(socket))
            socket->flush();
    }
}

RelayHub::End *RelayHub::partnerOf(const End *end) const
{
    if (!end->relay)
        return nullptr;
    return end->relay->host == end ? end->relay->client : end->relay->host;
}

void RelayHub::onReadable(End *end)
{
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        if (end->admitting || end->closing || end->socket->bytesAvailable() <= 0)
            return;
        qint64 room = kReadChunk;
        Relay *relay = end->relay;
        if (end->opened && !(relay && relay->ready)) {
            // Until the pair forms, at most one read's worth waits here.
            qint64 early = 0;
            for (const QByteArray &message : std::as_const(end->early))
                early += message.size();
            if (early >= kReadChunk)
                return;
        }
        if (relay && relay->ready) {
            End *partner = partnerOf(end);
            if (!partner || partner->socket->bytesToWrite() >= kHighWater)
                return;  // onWritten() of the partner reads on
            if (m_rateLimit > 0) {
                room = qMin(room, allowance(relay->userId));
                if (room <= 0) {
                    resumeLater(end, 50);
                    return;
                }
            }
        }
        const QByteArray bytes = end->socket->read(room);
        if (bytes.isEmpty())
            return;
        if (end->socket->bytesAvailable() == 0) {
            // A socket whose full buffer stopped taking from the kernel
            // starts again only when a read finds its buffer empty; a read
            // that the buffer satisfied exactly does not. Ask once more:
            // it finds nothing and lets the kernel's bytes in again.
            char none;
            end->socket->read(&none, 1);
        }
        if (m_rateLimit > 0 && relay && relay->ready)
            m_buckets[relay->userId].tokens -= double(bytes.size());
        QPointer<QTcpSocket> alive(end->socket);
        handle(end, end->codec.feed(bytes));
        if (!alive || !m_ends.contains(alive))
            return;
    }
    // More is waiting: go on after the others had their turn.
    QMetaObject::invokeMethod(this, [this, socket = QPointer<QTcpSocket>(end->socket)] {
        if (End *e = socket ? m_ends.value(socket) : nullptr)
            onReadable(e);
    }, Qt::QueuedConnection);
}

void RelayHub::onWritten(End *end)
{
    if (end->closing) {
        if (end->socket->bytesToWrite() == 0)
            end->socket->disconnectFromHost();
        return;
    }
    if (End *partner = partnerOf(end); partner && end->socket->bytesToWrite() < kLowWater)
        onReadable(partner);
}

void RelayHub::resumeLater(End *end, int delayMs)
{
    QTimer::singleShot(delayMs, this, [this, socket = QPointer<QTcpSocket>(end->socket)] {
        if (End *e = socket ? m_ends.value(socket) : nullptr)
            onReadable(e);
    });
}

qint64 RelayHub::allowance(qint64 userId)
{
    Bucket &bucket = m_buckets[userId];
    if (!bucket.refilled.isValid()) {
        bucket.refilled.start();
        bucket.tokens = double(m_rateLimit);
    } else {
        const qint64 elapsed = bucket.refilled.restart();
        // At most one second's worth is saved up.
        bucket.tokens = qMin(double(m_rateLimit), bucket.tokens + double(m_rateLimit) * double(elapsed) / 1000.0);
    }
    return bucket.tokens >= 1 ? qint64(bucket.tokens) : 0;
}

void RelayHub::handle(End *end, const WebSocketCodec::Step &step)
{
    if (!step.write.isEmpty())
        end->socket->write(step.write);
    for (const WebSocketCodec::Event &event : step.events) {
        switch (event.kind) {
        case WebSocketCodec::Event::Kind::Opened:
            end->opened = true;
            onOpened(end);
            break;
        case WebSocketCodec::Event::Kind::Binary:
            if (end->closing)
                break;
            if (end->relay && end->relay->ready)
                forward(end, event.payload);
            else
                end->early.append(event.payload);
            break;
        case WebSocketCodec::Event::Kind::Text:
            break;  // an end has nothing to tell the service
        case WebSocketCodec::Event::Kind::Closed:
        case WebSocketCodec::Event::Kind::Failed: {
            // The codec answered the close (or sent its own); the other end hears it.
            Relay *relay = end->relay;
            end->closing = true;
            if (relay)
                endRelay(relay, control("peer_gone"), QStringLiteral("peer_gone"), QString(), true);
            dropEnd(end);
            return;
        }
        }
    }
}

void RelayHub::onOpened(End *end)
{
    const QByteArray target = end->codec.requestTarget();
    const qsizetype question = target.indexOf('?');
    const QUrlQuery query(QString::fromLatin1(question < 0 ? QByteArray() : target.mid(question + 1)));
    const QString ticket = query.queryItemValue(QStringLiteral("ticket"), QUrl::FullyDecoded);
    if (ticket.isEmpty()) {
        closeEnd(end, kPolicyViolation, QStringLiteral("missing ticket"));
        return;
    }
    end->admitting = true;
    QPointer<QTcpSocket> socket(end->socket);
    m_pool.submit(kFamily,
                  [ticket](WorkerContext &context) -> ApiOutcome { return context.services().relay.admit(ticket); },
                  [this, socket](const WorkReply &reply) { onAdmitted(socket, reply); });
}

void RelayHub::onAdmitted(QPointer<QTcpSocket> socket, const WorkReply &reply)
{
    End *end = socket ? m_ends.value(socket) : nullptr;
    if (!end)
        return;
    end->admitting = false;
    const QJsonObject answer = objectOf(reply.body);
    if (!answer.value(QLatin1String("status")).toBool()) {
        const QString description = answer.value(QLatin1String("description")).toString();
        if (reply.code == QLatin1String("ticket_used")) {
            // A second socket for an end still held here is told to try later.
            const Relay *relay = m_relays.value(answer.value(QLatin1String("relay_id")).toString());
            const bool host = answer.value(QLatin1String("end")).toString() == QLatin1String("host");
            const bool held = relay && (host ? relay->host : relay->client);
            closeEnd(end, held ? kTryAgainLater : kPolicyViolation, description);
        } else if (reply.status >= 500) {
            closeEnd(end, kInternalError, QStringLiteral("the service cannot admit the relay just now"));
        } else {
            closeEnd(end, kPolicyViolation, description);
        }
        return;
    }
    const QString relayId = answer.value(QLatin1String("relay_id")).toString();
    const bool host = answer.value(QLatin1String("end")).toString() == QLatin1String("host");
    Relay *relay = m_relays.value(relayId);
    if (!relay) {
        relay = new Relay;
        relay->relayId = relayId;
        relay->portKey = answer.value(QLatin1String("port_key")).toString();
        relay->userId = answer.value(QLatin1String("user_id")).toInteger();
        relay->shareId = answer.value(QLatin1String("share_id")).toString().toLongLong();
        relay->waiting.start();
        m_relays.insert(relayId, relay);
        ++m_buckets[relay->userId].relays;
        if (!m_shuttingDown) {
            m_watch->start();
            m_charge->start();
        }
        // A lone end does not wait for ever.
        QTimer::singleShot(kPairWaitMs, this, [this, relayId] {
            Relay *r = m_relays.value(relayId);
            if (r && !r->ready)
                endRelay(r, control("peer_gone"), QStringLiteral("peer_gone"), QStringLiteral("unpaired"), true);
        });
    }
    End *&slot = host ? relay->host : relay->client;
    if (slot) {
        closeEnd(end, kTryAgainLater, QStringLiteral("this end of the relay is held already"));
        return;
    }
    slot = end;
    end->relay = relay;
    end->side = host ? QStringLiteral("host") : QStringLiteral("client");
    if (relay->host && relay->client)
        pair(relay);
}

void RelayHub::pair(Relay *relay)
{
    relay->ready = true;
    const QJsonObject ready{{QStringLiteral("type"), QStringLiteral("ready")},
                            {QStringLiteral("relay_id"), relay->relayId},
                            {QStringLiteral("port_key"), relay->portKey}};
    for (End *end : {relay->host, relay->client}) {
        sendText(end, ready);
        if (m_rateLimit > 0)
            sendText(end, {{QStringLiteral("type"), QStringLiteral("rate_limited")},
                           {QStringLiteral("limit_bytes_per_sec"), m_rateLimit}});
    }
    const QString relayId = relay->relayId;
    m_pool.submit(kFamily,
                  [relayId](WorkerContext &context) -> ApiOutcome { return context.services().relay.paired(relayId); },
                  {});
    for (End *end : {relay->host, relay->client}) {
        const QList<QByteArray> early = std::exchange(end->early, {});
        for (const QByteArray &message : early)
            forward(end, message);
    }
    for (End *end : {relay->host, relay->client}) {
        QMetaObject::invokeMethod(this, [this, socket = QPointer<QTcpSocket>(end->socket)] {
            if (End *e = socket ? m_ends.value(socket) : nullptr)
                onReadable(e);
        }, Qt::QueuedConnection);
    }
}

void RelayHub::forward(End *from, const QByteArray &payload)
{
    End *to = partnerOf(from);
    if (!to || to->closing)
        return;
    to->socket->write(to->codec.binaryMessage(payload));
    Relay *relay = from->relay;
    relay->uncharged += payload.size();
    if (relay->uncharged >= kChargeBytes)
        charge(relay);
}

void RelayHub::sendText(End *end, const QJsonObject &message)
{
    if (!end || end->closing || !end->opened)
        return;
    end->socket->write(end->codec.textMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact))));
}

void RelayHub::closeEnd(End *end, int code, const QString &reason)
{
    if (end->closing)
        return;
    if (Relay *relay = end->relay) {
        // The relay goes on without this end only to end as well.
        End *&slot = relay->host == end ? relay->host : relay->client;
        slot = nullptr;
        end->relay = nullptr;
        if (relay->ready || (!relay->host && !relay->client))
            endRelay(relay, control("peer_gone"), QStringLiteral("peer_gone"), QString(), true);
    }
    end->closing = true;
    end->early.clear();
    QPointer<QTcpSocket> socket(end->socket);
    // A peer that never answers our close is cut off.
    QTimer::singleShot(5000, this, [this, socket] {
        if (End *e = socket ? m_ends.value(socket) : nullptr)
            dropEnd(e);
    });
    if (end->opened) {
        // 123 bytes is all a close reason may take.
        socket->write(end->codec.close(code, reason.left(60)));
        qCInfo(lcHttp).noquote() << "relay end closed:" << code << reason;
    }
    // Once written, the connection ends (onWritten); the end may be gone
    // after this call.
    if (socket->bytesToWrite() == 0)
        socket->disconnectFromHost();
}

void RelayHub::dropEnd(End *end)
{
    if (!m_ends.remove(end->socket))
        return;
    if (Relay *relay = end->relay) {
        End *&slot = relay->host == end ? relay->host : relay->client;
        slot = nullptr;
        end->relay = nullptr;
        endRelay(relay, control("peer_gone"), QStringLiteral("peer_gone"), QString(), true);
    }
    QTcpSocket *socket = end->socket;
    socket->disconnect(this);
    if (socket->state() != QAbstractSocket::UnconnectedState) {
        // What was written still leaves; the connection then closes.
        socket->disconnectFromHost();
        if (socket->state() != QAbstractSocket::UnconnectedState) {
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            QTimer::singleShot(5000, socket, &QTcpSocket::abort);
        } else {
            socket->deleteLater();
        }
    } else {
        socket->deleteLater();
    }
    delete end;
}

void RelayHub::onDisconnected(End *end)
{
    dropEnd(end);
}

void RelayHub::endRelay(Relay *relay, const QJsonObject &message, const QString &kind, const QString &reason,
                        bool record, int closeCode)
{
    if (relay->ended)
        return;
    relay->ended = true;
    m_relays.remove(relay->relayId);
    for (End *end : {relay->host, relay->client}) {
        if (!end)
            continue;
        end->relay = nullptr;
        if (!message.isEmpty())
            sendText(end, message);
        closeEnd(end, closeCode, kind);
    }
    relay->host = relay->client = nullptr;
    relay->charging = false;  // what is left is counted all the same
    charge(relay);
    if (record) {
        const QString relayId = relay->relayId;
        m_pool.submit(kFamily,
                      [relayId, kind, reason](WorkerContext &context) -> ApiOutcome {
                          return context.services().relay.finish(relayId, kind, reason);
                      },
                      {});
    }
    auto bucket = m_buckets.find(relay->userId);
    if (bucket != m_buckets.end() && --bucket->relays <= 0)
        m_buckets.erase(bucket);
    delete relay;
    if (m_relays.isEmpty()) {
        m_watch->stop();
        m_charge->stop();
    }
}

void RelayHub::onRelayEnded(const QString &relayId, const QString &kind, const QString &reason)
{
    Relay *relay = m_relays.value(relayId);
    if (!relay)
        return;
    QJsonObject message{{QStringLiteral("type"), kind}};
    if (kind == QLatin1String("peer_refused"))
        message.insert(QStringLiteral("reason"), reason);
    endRelay(relay, message, kind, reason, false);
}

void RelayHub::watch()
{
    if (m_watching || m_relays.isEmpty())
        return;
    m_watching = true;
    // Clocks of instances differ a little; what was seen before is not
    // here any more, so looking back further costs nothing.
    const qint64 since = m_watchedUntil > 0 ? m_watchedUntil - 5000 : 0;
    QList<qint64> shares;
    if (++m_looks % kShareCheckEvery == 0) {
        for (const Relay *relay : std::as_const(m_relays)) {
            if (relay->shareId > 0 && !relay->ended)
                shares.append(relay->shareId);
        }
    }
    m_pool.submit(kFamily,
                  [since, shares](WorkerContext &context) -> ApiOutcome {
                      // A share found ended here ends its relay in the
                      // database, so the look below already sees it.
                      if (!shares.isEmpty())
                          context.services().shares.endedAmong(shares);
                      return context.services().relay.changes(since);
                  },
                  [this](const WorkReply &reply) {
                      m_watching = false;
                      const QJsonObject answer = objectOf(reply.body);
                      if (!answer.value(QLatin1String("status")).toBool())
                          return;
                      m_watchedUntil = answer.value(QLatin1String("at")).toInteger();
                      for (const QJsonValue &value : answer.value(QLatin1String("ended")).toArray()) {
                          const QJsonObject ended = value.toObject();
                          onRelayEnded(ended.value(QLatin1String("relay_id")).toString(),
                                       ended.value(QLatin1String("kind")).toString(),
                                       ended.value(QLatin1String("reason")).toString());
                      }
                  });
}

void RelayHub::charge(Relay *relay)
{
    if (relay->uncharged <= 0 || relay->charging)
        return;
    const qint64 bytes = std::exchange(relay->uncharged, 0);
    const qint64 userId = relay->userId;
    const QString relayId = relay->relayId;
    relay->charging = !relay->ended;
    m_pool.submit(kFamily,
                  [userId, relayId, bytes](WorkerContext &context) -> ApiOutcome {
                      return context.services().relay.charge(userId, relayId, bytes);
                  },
                  [this, relayId](const WorkReply &reply) {
                      Relay *r = m_relays.value(relayId);
                      if (!r)
                          return;
                      r->charging = false;
                      if (reply.code == QLatin1String("quota_exhausted"))
                          endRelay(r, control("quota_exhausted"), QStringLiteral("quota_exhausted"), QString(), true);
                  });
}

void RelayHub::chargeAll()
{
    for (Relay *relay : m_relays.values())
        charge(relay);
}
