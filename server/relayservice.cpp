#include "relayservice.h"

#include "accountservice.h"
#include "consolelive.h"
#include "consoleservice.h"
#include "jsonfields.h"
#include "quotaservice.h"
#include "relaylive.h"
#include "storage.h"
#include "tokens.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

const QString kType = QStringLiteral("relay");
const QString kHost = QStringLiteral("host");
const QString kOpenRelay = QStringLiteral("open_relay");

ApiReply refusal(int status, const QString &code, const QString &description)
{
    return ApiReply::failure(kType, status, code, description);
}

QJsonArray portsOf(const ConsoleComputerRow &computer)
{
    return QJsonDocument::fromJson(computer.ports.toUtf8()).array();
}

bool relayAllowed(const QJsonObject &port)
{
    return port.value(QLatin1String("capabilities")).toArray().contains(QJsonValue(kOpenRelay));
}

} // namespace

RelayService::RelayService(Storage &storage, QuotaService &quota, ConsoleLive &console, RelayLive &live,
                           RelayPolicy policy, QString instanceId, ServiceClock clock)
    : m_storage(storage), m_quota(quota), m_console(console), m_live(live), m_policy(policy),
      m_instanceId(std::move(instanceId)), m_clock(std::move(clock))
{
}

QString RelayService::instanceOfTicket(const QString &ticket)
{
    const qsizetype dot = ticket.indexOf(u'.');
    return dot > 0 ? ticket.left(dot) : QString();
}

bool RelayService::isValidInstanceId(const QString &id)
{
    if (id.isEmpty() || id.size() > 32)
        return false;
    for (const QChar c : id) {
        if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != u'-' && c != u'_')
            return false;
    }
    return true;
}

ApiReply RelayService::targets(const Caller &caller, const QString &ownCid)
{
    QList<ConsoleComputerRow> computers;
    if (!m_storage.consoleComputers(caller.userId, computers))
        return internalError(kType);
    const qint64 now = m_clock();
    QJsonArray devices;
    for (const ConsoleComputerRow &computer : std::as_const(computers)) {
        if (computer.cid == ownCid)
            continue;
        QJsonArray ports;
        for (const QJsonValue &value : portsOf(computer)) {
            QJsonObject port = value.toObject();
            port.insert(QStringLiteral("relay_allowed"), relayAllowed(port));
            ports.append(port);
        }
        const bool online = m_console.holdsSocket(computer.cid) || now - computer.lastSeenAt < m_policy.onlineWindowMs;
        // A computer tells its ports when somebody watches; a relay target
        // list is somebody. The asker comes back for them (the program asks
        // again while a device has not reported its ports).
        if (online)
            emit m_console.snapshotWanted(computer.cid);
        devices.append(QJsonObject{{QStringLiteral("cid"), computer.cid},
                                   {QStringLiteral("name"), computer.hostname},
                                   {QStringLiteral("online"), online},
                                   {QStringLiteral("version"), computer.version},
                                   {QStringLiteral("session_id"), computer.sessionId},
                                   {QStringLiteral("ports"), ports}});
    }
    return ApiReply::ok(kType, {{QStringLiteral("devices"), devices}});
}

ApiReply RelayService::openSession(const Caller &caller, const QJsonObject &body)
{
    JsonFields fields(body, kType);
    RelayOpening opening;
    opening.ownerId = caller.userId;
    opening.cid = fields.string("cid", 64);
    opening.sessionId = fields.string("session_id", 64, false);
    opening.portKey = fields.string("port_key", 64);
    if (fields.failed())
        return fields.failure();
    return open(opening);
}

ApiReply RelayService::open(const RelayOpening &opening)
{
    ConsoleComputerRow computer;
    const Storage::Found found = ConsoleService::isValidCid(opening.cid)
                                     ? m_storage.consoleComputer(opening.cid, computer)
                                     : Storage::Found::No;
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No || computer.userId != opening.ownerId)
        return refusal(Http::NotFound, QStringLiteral("device_offline"),
                       QStringLiteral("This account has no computer with that id."));
    const qint64 now = m_clock();
    if (!m_console.holdsSocket(computer.cid) && now - computer.lastSeenAt >= m_policy.onlineWindowMs)
        return refusal(Http::Conflict, QStringLiteral("device_offline"), QStringLiteral("The computer is offline."));
    if (!opening.sessionId.isEmpty() && opening.sessionId != computer.sessionId)
        return refusal(Http::Conflict, QStringLiteral("port_not_found"),
                       QStringLiteral("The computer was restarted since its ports were listed."));
    QJsonObject port;
    for (const QJsonValue &value : portsOf(computer)) {
        if (value.toObject().value(QLatin1String("port_key")).toString() == opening.portKey) {
            port = value.toObject();
            break;
        }
    }
    if (port.isEmpty())
        return refusal(Http::NotFound, QStringLiteral("port_not_found"), QStringLiteral("The computer has no such port."));
    // A share's own permissions are the host's to check, with the share.
    if (opening.shareId.isEmpty() && !relayAllowed(port))
        return refusal(Http::Forbidden, QStringLiteral("permission_denied"),
                       QStringLiteral("Live Relay is not allowed on that port."));
    bool busy = false;
    int openCommands = 0;
    if (!m_storage.relayBusy(opening.cid, opening.portKey, now, busy)
        || !m_storage.countOpenCommands(opening.cid, openCommands))
        return internalError(kType);
    if (busy)
        return refusal(Http::Conflict, QStringLiteral("relay_busy"), QStringLiteral("That port is relayed already."));
    if (openCommands >= m_policy.maxOpenCommands)
        return refusal(Http::TooManyRequests, QStringLiteral("too_many_commands"),
                       QStringLiteral("The computer has too many commands waiting already."));

    // Tickets name this instance: a proxy sends both ends here by it.
    const QString hostTicket = m_instanceId + u'.' + Tokens::random(32);
    const QString clientTicket = m_instanceId + u'.' + Tokens::random(32);
    const QString guestToken = opening.guest ? Tokens::random(32) : QString();
    RelayRow relay;
    relay.relayId = Tokens::random(16);
    relay.userId = opening.ownerId;
    relay.cid = opening.cid;
    relay.portKey = opening.portKey;
    relay.shareId = opening.shareId;
    relay.guestName = opening.guestName;
    relay.guestTokenHash = guestToken.isEmpty() ? QString() : Tokens::hash(guestToken);
    relay.hostTicketHash = Tokens::hash(hostTicket);
    relay.clientTicketHash = Tokens::hash(clientTicket);
    relay.ticketsExpireAt = now + m_policy.ticketTtlMs;
    relay.instanceId = m_instanceId;
    relay.createdAt = now;

    QJsonObject payload{{QStringLiteral("port_key"), opening.portKey},
                        {QStringLiteral("relay_id"), relay.relayId},
                        {QStringLiteral("ticket"), hostTicket}};
    if (!opening.shareId.isEmpty())
        payload.insert(QStringLiteral("share_id"), opening.shareId);
    if (!opening.guestName.isEmpty())
        payload.insert(QStringLiteral("guest_name"), opening.guestName);
    ConsoleCommandRow command;
    command.cid = opening.cid;
    command.command = kOpenRelay;
    command.payload = QString::fromUtf8(QJsonDocument(payload).toJson(QJsonDocument::Compact));
    command.createdAt = now;
    if (!m_storage.begin())
        return internalError(kType);
    if (!m_storage.insertRelay(relay) || !m_storage.insertConsoleCommand(command)
        || !m_storage.setRelayCommand(relay.relayId, command.id) || !m_storage.commit()) {
        m_storage.rollback();
        return internalError(kType);
    }
    emit m_console.commandQueued(opening.cid);

    QJsonObject members{{QStringLiteral("ticket"), clientTicket},
                        {QStringLiteral("relay_id"), relay.relayId},
                        {QStringLiteral("port_key"), opening.portKey}};
    if (opening.guest)
        members.insert(QStringLiteral("guest_token"), guestToken);
    return ApiReply::ok(kType, members);
}

ApiReply RelayService::end(const Caller *caller, const QString &guestToken, const QString &relayId)
{
    RelayRow relay;
    const Storage::Found found = relayId.size() <= 64 ? m_storage.relay(relayId, relay) : Storage::Found::No;
    if (found == Storage::Found::Error)
        return internalError(kType);
    bool allowed = false;
    if (found == Storage::Found::Yes) {
        if (caller)
            allowed = caller->userId == relay.userId;
        else if (!guestToken.isEmpty() && !relay.guestTokenHash.isEmpty())
            allowed = Tokens::equalConstantTime(Tokens::hash(guestToken).toLatin1(), relay.guestTokenHash.toLatin1());
    }
    if (!allowed)
        return refusal(Http::NotFound, QStringLiteral("relay_not_found"), QStringLiteral("There is no such relay session."));
    if (!endSession(relayId))
        return internalError(kType);
    return ApiReply::ok(kType);
}

bool RelayService::endSession(const QString &relayId)
{
    bool ended = false;
    if (!m_storage.endRelay(relayId, QStringLiteral("peer_gone"), QString(), m_clock(), ended))
        return false;
    // Held here: at once; held elsewhere: that instance finds it in the database.
    if (ended)
        emit m_live.relayEnded(relayId, QStringLiteral("peer_gone"), QString());
    return true;
}

ApiReply RelayService::admit(const QString &ticket)
{
    const auto refused = [](const QString &code, const QString &description) {
        return refusal(Http::Forbidden, code, description);
    };
    if (ticket.isEmpty() || ticket.size() > 128)
        return refused(QStringLiteral("invalid_ticket"), QStringLiteral("invalid ticket"));
    RelayRow relay;
    QString end;
    switch (m_storage.relayByTicket(Tokens::hash(ticket), relay, end)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::No:
        return refused(QStringLiteral("invalid_ticket"), QStringLiteral("invalid ticket"));
    case Storage::Found::Yes:
        break;
    }
    if (relay.instanceId != m_instanceId)
        return refused(QStringLiteral("wrong_instance"), QStringLiteral("this ticket belongs to another instance"));
    const auto used = [&] {
        return ApiReply::failure(kType, Http::Forbidden, QStringLiteral("ticket_used"),
                                 QStringLiteral("ticket already used"),
                                 {{QStringLiteral("relay_id"), relay.relayId}, {QStringLiteral("end"), end}});
    };
    if ((end == kHost ? relay.hostUsedAt : relay.clientUsedAt) != 0)
        return used();
    if (relay.endedAt != 0)
        return refused(QStringLiteral("relay_ended"), QStringLiteral("the relay has ended"));
    const qint64 now = m_clock();
    if (now >= relay.ticketsExpireAt)
        return refused(QStringLiteral("ticket_expired"), QStringLiteral("ticket expired"));
    bool won = false;
    if (!m_storage.useRelayTicket(relay.relayId, end, now, won))
        return internalError(kType);
    if (!won)
        return used();
    return ApiReply::ok(kType, {{QStringLiteral("relay_id"), relay.relayId},
                                {QStringLiteral("end"), end},
                                {QStringLiteral("port_key"), relay.portKey},
                                {QStringLiteral("user_id"), relay.userId},
                                {QStringLiteral("share_id"), relay.shareId}});
}

ApiReply RelayService::paired(const QString &relayId)
{
    if (!m_storage.setRelayPaired(relayId, m_clock()))
        return internalError(kType);
    return ApiReply::ok(kType);
}

ApiReply RelayService::finish(const QString &relayId, const QString &kind, const QString &reason)
{
    bool ended = false;
    if (!m_storage.endRelay(relayId, kind, reason, m_clock(), ended))
        return internalError(kType);
    return ApiReply::ok(kType);
}

ApiReply RelayService::charge(qint64 userId, const QString &relayId, qint64 bytes)
{
    bool ok = true;
    const bool fits = m_quota.allows(userId, bytes, ok);
    if (!ok || !m_quota.record(userId, bytes) || !m_storage.addRelayBytes(relayId, bytes))
        return internalError(kType);
    if (!fits)
        return refusal(Http::Forbidden, QStringLiteral("quota_exhausted"),
                       QStringLiteral("The account's monthly traffic allowance is used up."));
    return ApiReply::ok(kType);
}

ApiReply RelayService::changes(qint64 since)
{
    const qint64 now = m_clock();
    if (since <= 0)
        since = now - 60 * 1000;  // a first look: what ended in the last minute
    QJsonArray ended;
    // A host that refused "open_relay" ends its relay; the waiting end
    // hears why.
    QList<QPair<QString, QString>> answers;
    if (!m_storage.relayHostAnswers(m_instanceId, since, answers))
        return internalError(kType);
    for (const auto &[relayId, resultText] : std::as_const(answers)) {
        const QJsonObject result = QJsonDocument::fromJson(resultText.toUtf8()).object();
        if (result.value(QLatin1String("status")).toString() != QLatin1String("failed"))
            continue;
        QString reason = result.value(QLatin1String("error_code")).toString().left(64);
        if (reason.isEmpty())
            reason = QStringLiteral("internal_error");
        bool endedNow = false;
        if (!m_storage.endRelay(relayId, QStringLiteral("peer_refused"), reason, now, endedNow))
            return internalError(kType);
    }
    QList<RelayEndRow> rows;
    if (!m_storage.relaysEndedSince(m_instanceId, since, rows))
        return internalError(kType);
    for (const RelayEndRow &row : std::as_const(rows))
        ended.append(QJsonObject{{QStringLiteral("relay_id"), row.relayId},
                                 {QStringLiteral("kind"), row.endKind},
                                 {QStringLiteral("reason"), row.endReason}});
    return ApiReply::ok(kType, {{QStringLiteral("ended"), ended}, {QStringLiteral("at"), now}});
}
