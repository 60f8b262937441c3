#include "shareservice.h"

#include "accountservice.h"
#include "consolelive.h"
#include "consoleservice.h"
#include "jsonfields.h"
#include "storage.h"
#include "tokens.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>

#include <cstring>

namespace {

const QString kType = QStringLiteral("relay");
constexpr char kAlphabet[] = "23456789ABCDEFGHJKMNPQRSTUVWXYZ";
constexpr int kCodeLength = 12;

const QStringList &webLevels()
{
    static const QStringList levels = {QStringLiteral("none"), QStringLiteral("view"), QStringLiteral("send"),
                                       QStringLiteral("control")};
    return levels;
}

qint64 shareNumber(const QString &text)
{
    bool ok = false;
    const qint64 id = text.toLongLong(&ok);
    return ok && id > 0 && text.size() <= 19 ? id : 0;
}

ApiReply invalidCode()
{
    return ApiReply::failure(kType, Http::NotFound, QStringLiteral("invalid_code"),
                             QStringLiteral("No share has this code."));
}

// What an ended share tells a guest who comes with its code.
ApiReply endedShare(const ShareRow &share)
{
    if (share.endReason == QLatin1String("too_many_attempts"))
        return ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("too_many_attempts"),
                                 QStringLiteral("Too many wrong passcodes; the share was revoked."),
                                 {{QStringLiteral("end_reason"), share.endReason}});
    ApiReply reply = ApiReply::failure(kType, Http::NotFound, QStringLiteral("invalid_code"),
                                       QStringLiteral("This share has ended."));
    reply.body.insert(QStringLiteral("end_reason"), share.endReason);
    return reply;
}

QString guestName(const QJsonObject &body, bool &ok)
{
    JsonFields fields(body, kType);
    QString name = fields.string("guest_name", 64, false).simplified();
    ok = !fields.failed();
    return name;
}

} // namespace

namespace InviteCode {

QString generate()
{
    QString code;
    code.reserve(kCodeLength);
    auto *random = QRandomGenerator::system();
    for (int i = 0; i < kCodeLength; ++i)
        code.append(QLatin1Char(kAlphabet[random->bounded(int(sizeof kAlphabet) - 1)]));
    return code;
}

QString normalize(const QString &input)
{
    QString text = input.trimmed();
    const qsizetype slash = text.lastIndexOf(u'/');
    if (slash >= 0)
        text = text.mid(slash + 1);
    QString code;
    for (const QChar c : std::as_const(text)) {
        if (c == u'-' || c.isSpace())
            continue;
        const QChar upper = c.toUpper();
        if (upper.unicode() > 127 || !std::strchr(kAlphabet, char(upper.unicode())) || code.size() >= kCodeLength)
            return {};
        code.append(upper);
    }
    return code.size() == kCodeLength ? code : QString();
}

QString display(const QString &code)
{
    return code.mid(0, 4) + u'-' + code.mid(4, 4) + u'-' + code.mid(8);
}

} // namespace InviteCode

namespace Passcode {

QString hash(const QString &passcode)
{
    if (passcode.isEmpty())
        return {};
    const QString salt = Tokens::random(16);
    return salt + u'$'
           + QString::fromLatin1(
               QCryptographicHash::hash((salt + passcode).toUtf8(), QCryptographicHash::Sha256).toHex());
}

bool matches(const QString &stored, const QString &given)
{
    const qsizetype dollar = stored.indexOf(u'$');
    if (dollar <= 0)
        return false;
    const QByteArray expected = stored.mid(dollar + 1).toLatin1();
    const QByteArray actual =
        QCryptographicHash::hash((stored.left(dollar) + given).toUtf8(), QCryptographicHash::Sha256).toHex();
    return Tokens::equalConstantTime(expected, actual);
}

} // namespace Passcode

ShareService::ShareService(Storage &storage, ConsoleService &console, ConsoleLive &live, SharePolicy policy,
                           ServiceClock clock)
    : m_storage(storage), m_console(console), m_live(live), m_policy(std::move(policy)), m_clock(std::move(clock))
{
}

QString ShareService::levelNeeded(const QString &command)
{
    if (command == QLatin1String("send_text") || command == QLatin1String("send_hex"))
        return QStringLiteral("send");
    if (command == QLatin1String("open_port") || command == QLatin1String("close_port"))
        return QStringLiteral("control");
    if (command == QLatin1String("request_snapshot"))
        return QStringLiteral("view");
    return {};
}

bool ShareService::levelAllows(const QString &web, const QString &needed)
{
    const qsizetype have = webLevels().indexOf(web);
    const qsizetype need = webLevels().indexOf(needed);
    return need > 0 && have >= need;
}

bool ShareService::end(ShareRow &share, const QString &reason)
{
    bool ended = false;
    const qint64 now = m_clock();
    if (!m_storage.endShare(share.id, reason, now, ended))
        return false;
    if (ended) {
        share.state = QStringLiteral("ended");
        share.endReason = reason;
        share.endedAt = now;
        emit m_live.shareEnded(share.id, reason);
        // Whatever ended the share, its relay guest leaves with it.
        if (!share.relayId.isEmpty() && m_endRelay)
            return m_endRelay(share.relayId);
        return true;
    }
    // Another request ended it first: its reason stands.
    return m_storage.shareById(share.id, share) != Storage::Found::Error;
}

bool ShareService::settle(ShareRow &share)
{
    if (share.state != QLatin1String("live"))
        return true;
    const qint64 now = m_clock();
    if (now >= share.expiresAt)
        return end(share, QStringLiteral("expired"));
    ConsoleComputerRow computer;
    const Storage::Found found = m_storage.consoleComputer(share.cid, computer);
    if (found == Storage::Found::Error)
        return false;
    const bool newRun = found == Storage::Found::No || computer.sessionId != share.sessionId;
    const bool silent = computer.lastSeenAt < now - m_policy.staleAfterMs && !m_live.holdsSocket(share.cid);
    if (newRun || silent)
        return end(share, QStringLiteral("stale"));
    return true;
}

QJsonObject ShareService::shareJson(const ShareRow &share) const
{
    QJsonObject json{
        {QStringLiteral("share_id"), QString::number(share.id)},
        {QStringLiteral("code"), InviteCode::display(share.code)},
        {QStringLiteral("link"), *m_policy.publicUrl + QStringLiteral("/join/") + InviteCode::display(share.code)},
        {QStringLiteral("cid"), share.cid},
        {QStringLiteral("session_id"), share.sessionId},
        {QStringLiteral("device_name"), share.deviceName},
        {QStringLiteral("port_key"), share.portKey},
        {QStringLiteral("port_name"), share.portName},
        {QStringLiteral("label"), share.label},
        {QStringLiteral("web"), share.web},
        {QStringLiteral("relay"), share.relay},
        {QStringLiteral("has_passcode"), !share.passcodeHash.isEmpty()},
        {QStringLiteral("created_at"), share.createdAt},
        {QStringLiteral("expires_at"), share.expiresAt},
        {QStringLiteral("web_guests"), share.state == QLatin1String("live") ? m_live.shareGuests(share.id) : 0},
        {QStringLiteral("state"), share.state},
    };
    if (share.state != QLatin1String("live") || !relayGuestPresent(share)) {
        json.insert(QStringLiteral("guest"), QJsonValue::Null);
    } else {
        json.insert(QStringLiteral("guest"), QJsonObject{{QStringLiteral("name"), share.guestName},
                                                         {QStringLiteral("since"), share.guestSince},
                                                         {QStringLiteral("relay_id"), share.relayId}});
    }
    if (share.state != QLatin1String("live"))
        json.insert(QStringLiteral("end_reason"), share.endReason);
    return json;
}

bool ShareService::relayGuestPresent(const ShareRow &share) const
{
    if (share.relayId.isEmpty())
        return false;
    RelayRow relay;
    if (m_storage.relay(share.relayId, relay) != Storage::Found::Yes || relay.endedAt != 0)
        return false;
    // Opened but never joined: gone once its tickets expired.
    return relay.pairedAt != 0 || relay.ticketsExpireAt > m_clock();
}

ApiReply ShareService::create(const Caller &caller, const QJsonObject &body)
{
    JsonFields fields(body, kType);
    const QString cid = fields.string("cid", 64);
    const QString sessionId = fields.string("session_id", 64);
    const QString portKey = fields.string("port_key", 64);
    const qint64 ttl = fields.integer("ttl_seconds");
    const QString label = fields.string("label", 200, false);
    const QString passcode = fields.string("passcode", 64, false);
    const QString web = fields.string("web", 16, false);
    const QJsonValue relayValue = body.value(QLatin1String("relay"));
    if (fields.failed())
        return fields.failure();
    if (!relayValue.isUndefined() && !relayValue.isNull() && !relayValue.isBool())
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_field"),
                                 QStringLiteral("\"relay\" must be true or false."));
    const bool relay = relayValue.toBool();
    const QString level = web.isEmpty() ? QStringLiteral("none") : web;
    if (!webLevels().contains(level))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_field"),
                                 QStringLiteral("\"web\" is one of none, view, send, control."));
    if (ttl != 3600 && ttl != 14400 && ttl != 43200 && ttl != 86400)
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_ttl"),
                                 QStringLiteral("A share lasts 1, 4, 12 or 24 hours."));
    // Characters, not bytes, as the owner counted them.
    const qsizetype length = passcode.toUcs4().size();
    if (!passcode.isEmpty() && (length < 4 || length > 16))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_passcode"),
                                 QStringLiteral("A passcode is 4–16 characters."));
    if (level == QLatin1String("none") && !relay)
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("nothing_allowed"),
                                 QStringLiteral("Allow at least one way in: the browser, Tessaline, or both."));
    if (!ConsoleService::isValidCid(cid))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_cid"),
                                 QStringLiteral("\"cid\" is 8 to 64 letters, digits or dashes."));
    ConsoleComputerRow computer;
    const Storage::Found found = m_storage.consoleComputer(cid, computer);
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No || computer.userId != caller.userId)
        return ApiReply::failure(kType, Http::NotFound, QStringLiteral("computer_not_found"),
                                 QStringLiteral("This account has no computer with that id."));
    if (computer.sessionId != sessionId)
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("session_mismatch"),
                                 QStringLiteral("This computer has started again since; share from the new run."));
    // The snapshot names the port when there is one; a computer nobody
    // watches may not have sent one yet, so its absence refuses nothing.
    QString portName;
    const QJsonArray ports = QJsonDocument::fromJson(computer.ports.toUtf8()).array();
    for (const QJsonValue &entry : ports) {
        const QJsonObject port = entry.toObject();
        if (port.value(QLatin1String("port_key")).toString() == portKey)
            portName = port.value(QLatin1String("port_name")).toString().left(200);
    }
    if (portKey.isEmpty())
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("port_not_found"),
                                 QStringLiteral("\"port_key\" names no port."));
    int live = 0;
    if (!m_storage.countLiveShares(cid, live))
        return internalError(kType);
    if (live >= m_policy.maxLiveSharesPerComputer)
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("share_limit"),
                                 QStringLiteral("This computer shares %1 ports already.").arg(live));
    ShareRow share;
    share.userId = caller.userId;
    share.cid = cid;
    share.sessionId = sessionId;
    share.portKey = portKey;
    share.portName = portName;
    share.deviceName = computer.hostname;
    share.label = label;
    share.web = level;
    share.relay = relay;
    share.passcodeHash = Passcode::hash(passcode);
    share.createdAt = m_clock();
    share.expiresAt = share.createdAt + ttl * 1000;
    // A code drawn twice is astronomically rare; a few draws settle it.
    for (int attempt = 0; attempt < 4; ++attempt) {
        share.code = InviteCode::generate();
        switch (m_storage.insertShare(share)) {
        case Storage::Found::Error:
            return internalError(kType);
        case Storage::Found::Yes:
            return ApiReply::ok(kType, {{QStringLiteral("share"), shareJson(share)}});
        case Storage::Found::No:
            break;
        }
    }
    return internalError(kType);
}

ApiReply ShareService::listForComputer(const Caller &caller, const QString &cid)
{
    ConsoleComputerRow computer;
    const Storage::Found found = ConsoleService::isValidCid(cid) ? m_storage.consoleComputer(cid, computer)
                                                                 : Storage::Found::No;
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No || computer.userId != caller.userId)
        return ApiReply::failure(kType, Http::NotFound, QStringLiteral("computer_not_found"),
                                 QStringLiteral("This account has no computer with that id."));
    QList<ShareRow> rows;
    if (!m_storage.sharesOfComputer(cid, m_clock() - m_policy.endedListedMs, rows))
        return internalError(kType);
    QJsonArray shares;
    for (ShareRow &row : rows) {
        if (!settle(row))
            return internalError(kType);
        shares.append(shareJson(row));
    }
    return ApiReply::ok(kType, {{QStringLiteral("shares"), shares}});
}

ApiReply ShareService::listForAccount(const Caller &caller)
{
    QList<ShareRow> rows;
    int revoked = 0;
    if (!m_storage.liveSharesOfAccount(caller.userId, m_policy.maxListed, rows))
        return internalError(kType);
    QJsonArray shares;
    for (ShareRow &row : rows) {
        if (!settle(row))
            return internalError(kType);
        if (row.state == QLatin1String("live"))
            shares.append(shareJson(row));
    }
    if (!m_storage.countRevokedShares(caller.userId, m_clock() - m_policy.revokedWindowMs, revoked))
        return internalError(kType);
    return ApiReply::ok(kType, {{QStringLiteral("shares"), shares}, {QStringLiteral("revoked"), revoked}});
}

ApiReply ShareService::revoke(const Caller &caller, const QString &shareId)
{
    const qint64 id = shareNumber(shareId);
    ShareRow share;
    const Storage::Found found = id ? m_storage.shareById(id, share) : Storage::Found::No;
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No || share.userId != caller.userId)
        return ApiReply::failure(kType, Http::NotFound, QStringLiteral("share_not_found"),
                                 QStringLiteral("This account has no such share."),
                                 {{QStringLiteral("share_id"), shareId.left(20)}});
    if (!settle(share) || (share.state == QLatin1String("live") && !end(share, QStringLiteral("revoked"))))
        return internalError(kType);
    // Ending an ended share again is done: the owner wanted it gone.
    return ApiReply::ok(kType, {{QStringLiteral("share_id"), QString::number(share.id)}});
}

ApiReply ShareService::peek(const QString &codeText)
{
    const QString code = InviteCode::normalize(codeText);
    if (code.isEmpty())
        return invalidCode();
    ShareRow share;
    const Storage::Found found = m_storage.shareByCode(code, share);
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No)
        return invalidCode();
    if (!settle(share))
        return internalError(kType);
    if (share.state != QLatin1String("live"))
        return endedShare(share);
    ConsoleComputerRow computer;
    if (m_storage.consoleComputer(share.cid, computer) == Storage::Found::Error)
        return internalError(kType);
    const bool online = m_live.holdsSocket(share.cid) || computer.lastSeenAt >= m_clock() - m_policy.onlineWindowMs;
    return ApiReply::ok(kType, {{QStringLiteral("label"), share.label},
                                {QStringLiteral("device_name"), share.deviceName},
                                {QStringLiteral("port_name"), share.portName},
                                {QStringLiteral("online"), online},
                                {QStringLiteral("busy"), relayGuestPresent(share)},
                                {QStringLiteral("passcode_required"), !share.passcodeHash.isEmpty()},
                                {QStringLiteral("web"), share.web},
                                {QStringLiteral("relay"), share.relay},
                                {QStringLiteral("expires_at"), share.expiresAt}});
}

bool ShareService::admitJoin(const QString &codeText, const QString &passcode, const QString &address,
                             ShareRow &share, ApiReply &refusal)
{
    const QString code = InviteCode::normalize(codeText);
    const Storage::Found found = code.isEmpty() ? Storage::Found::No : m_storage.shareByCode(code, share);
    if (found == Storage::Found::Error) {
        refusal = internalError(kType);
        return false;
    }
    if (found == Storage::Found::No) {
        refusal = invalidCode();
        return false;
    }
    if (!settle(share)) {
        refusal = internalError(kType);
        return false;
    }
    if (share.state != QLatin1String("live")) {
        refusal = endedShare(share);
        return false;
    }
    if (share.passcodeHash.isEmpty())
        return true;
    // An address that guessed wrong too often waits out its window, even
    // with the right passcode now: otherwise the limit would only slow it.
    const QString bucket = QStringLiteral("share-%1-%2").arg(share.id).arg(address);
    const qint64 now = m_clock();
    int wrong = 0;
    if (!m_storage.failuresSince(bucket, now - m_policy.addressWindowMs, wrong)) {
        refusal = internalError(kType);
        return false;
    }
    if (wrong >= m_policy.wrongPerAddress) {
        refusal = ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("too_many_attempts"),
                                    QStringLiteral("Too many wrong passcodes from here; try again later."));
        refusal.retryAfterSeconds = int(m_policy.addressWindowMs / 1000);
        return false;
    }
    if (passcode.isEmpty()) {
        refusal = ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("passcode_required"),
                                    QStringLiteral("This share asks for a passcode."));
        return false;
    }
    if (Passcode::matches(share.passcodeHash, passcode))
        return true;
    int total = 0;
    if (!m_storage.recordFailure(bucket, now, m_policy.addressWindowMs) || !m_storage.addWrongPasscode(share.id, total)) {
        refusal = internalError(kType);
        return false;
    }
    if (total >= m_policy.wrongPerShare) {
        if (!end(share, QStringLiteral("too_many_attempts"))) {
            refusal = internalError(kType);
            return false;
        }
        refusal = endedShare(share);
        return false;
    }
    if (wrong + 1 >= m_policy.wrongPerAddress) {
        refusal = ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("too_many_attempts"),
                                    QStringLiteral("Too many wrong passcodes from here; try again later."));
        refusal.retryAfterSeconds = int(m_policy.addressWindowMs / 1000);
        return false;
    }
    refusal = ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("wrong_passcode"),
                                QStringLiteral("The passcode is not right."));
    return false;
}

ApiReply ShareService::joinWeb(const QString &code, const QJsonObject &body, const QString &address)
{
    JsonFields fields(body, kType);
    const QString passcode = fields.string("passcode", 64, false);
    if (fields.failed())
        return fields.failure();
    bool nameOk = true;
    const QString name = guestName(body, nameOk);
    if (!nameOk || name.isEmpty())
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_field"),
                                 QStringLiteral("Give a name of 1 to 64 characters."));
    ShareRow share;
    ApiReply refusal;
    if (!admitJoin(code, passcode, address, share, refusal))
        return refusal;
    if (share.web == QLatin1String("none"))
        return ApiReply::failure(kType, Http::Forbidden, QStringLiteral("permission_denied"),
                                 QStringLiteral("This share does not admit browsers; join it from Tessaline."));
    const QString token = Tokens::random();
    if (!m_storage.insertShareGuest(Tokens::hash(token), share.id, name, m_clock(), m_policy.maxGuestsPerShare))
        return internalError(kType);
    return ApiReply::ok(kType, {{QStringLiteral("guest_token"), token},
                                {QStringLiteral("share_id"), QString::number(share.id)},
                                {QStringLiteral("label"), share.label},
                                {QStringLiteral("device_name"), share.deviceName},
                                {QStringLiteral("port_name"), share.portName},
                                {QStringLiteral("web"), share.web},
                                {QStringLiteral("expires_at"), share.expiresAt}});
}

ApiReply ShareService::joinRelay(const QJsonObject &body, const QString &address)
{
    JsonFields fields(body, kType);
    const QString code = fields.string("code", 200);
    const QString passcode = fields.string("passcode", 64, false);
    if (fields.failed())
        return fields.failure();
    bool nameOk = true;
    QString name = guestName(body, nameOk);
    if (!nameOk)
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_field"),
                                 QStringLiteral("\"guest_name\" is at most 64 characters."));
    ShareRow share;
    ApiReply refusal;
    if (!admitJoin(code, passcode, address, share, refusal))
        return refusal;
    if (!share.relay)
        return ApiReply::failure(kType, Http::Forbidden, QStringLiteral("permission_denied"),
                                 QStringLiteral("This share admits browsers only; open its link."));
    if (relayGuestPresent(share))
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("relay_busy"),
                                 QStringLiteral("Another guest is connected to this share."));
    if (!m_openRelay)
        return ApiReply::failure(kType, Http::Unavailable, QStringLiteral("relay_unavailable"),
                                 QStringLiteral("This service does not relay ports yet."));
    if (name.isEmpty())
        name = QStringLiteral("Guest");
    ApiReply opened = m_openRelay(share, name);
    if (!opened.isOk())
        return opened;
    if (!m_storage.setShareRelayGuest(share.id, name, m_clock(), opened.body.value(QLatin1String("relay_id")).toString()))
        return internalError(kType);
    opened.body.insert(QStringLiteral("label"), share.label);
    return opened;
}

ApiReply ShareService::admitGuest(const QString &token)
{
    qint64 shareId = 0;
    QString name;
    const Storage::Found guest = token.isEmpty() ? Storage::Found::No : m_storage.shareGuest(Tokens::hash(token), shareId, name);
    if (guest == Storage::Found::Error)
        return internalError(kType);
    ShareRow share;
    const Storage::Found found = guest == Storage::Found::Yes ? m_storage.shareById(shareId, share) : Storage::Found::No;
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No)
        return ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("invalid_token"),
                                 QStringLiteral("This invitation is no longer valid; open the link again."));
    if (!settle(share))
        return internalError(kType);
    if (share.state != QLatin1String("live"))
        return ApiReply::failure(kType, Http::Gone, QStringLiteral("share_ended"), QStringLiteral("The share ended."),
                                 {{QStringLiteral("end_reason"), share.endReason}});
    ConsoleComputerRow computer;
    if (m_storage.consoleComputer(share.cid, computer) == Storage::Found::Error)
        return internalError(kType);
    QJsonArray ports;
    const QJsonArray all = QJsonDocument::fromJson(computer.ports.toUtf8()).array();
    for (const QJsonValue &entry : all) {
        if (entry.toObject().value(QLatin1String("port_key")).toString() == share.portKey)
            ports.append(entry);
    }
    return ApiReply::ok(kType, {{QStringLiteral("share_id"), QString::number(share.id)},
                                {QStringLiteral("cid"), share.cid},
                                {QStringLiteral("port_key"), share.portKey},
                                {QStringLiteral("name"), name},
                                {QStringLiteral("label"), share.label},
                                {QStringLiteral("device_name"), share.deviceName},
                                {QStringLiteral("web"), share.web},
                                {QStringLiteral("expires_at"), share.expiresAt},
                                {QStringLiteral("ports"), ports},
                                {QStringLiteral("updated_at"), computer.portsAt}});
}

ApiReply ShareService::guestCommand(qint64 shareId, const QJsonObject &message)
{
    JsonFields fields(message, kType);
    const QString name = fields.string("command", 32);
    QJsonObject payload = fields.object("payload", false);
    if (fields.failed())
        return fields.failure();
    ShareRow share;
    const Storage::Found found = m_storage.shareById(shareId, share);
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::No || !settle(share))
        return found == Storage::Found::No ? ApiReply::failure(kType, Http::Gone, QStringLiteral("share_ended"),
                                                               QStringLiteral("The share ended."))
                                           : internalError(kType);
    if (share.state != QLatin1String("live"))
        return ApiReply::failure(kType, Http::Gone, QStringLiteral("share_ended"), QStringLiteral("The share ended."),
                                 {{QStringLiteral("end_reason"), share.endReason}});
    const QString needed = levelNeeded(name);
    if (needed.isEmpty())
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("unknown_command"),
                                 QStringLiteral("A guest may send send_text, send_hex, open_port, close_port."));
    if (!levelAllows(share.web, needed)) {
        // The texts the computer itself answers with, so the page shows one wording.
        const QString text = needed == QLatin1String("control")
                                 ? QStringLiteral("the share does not allow port control from a browser")
                                 : QStringLiteral("the share does not allow sending from a browser");
        return ApiReply::failure(kType, Http::Forbidden, QStringLiteral("permission_denied"), text);
    }
    // The guest reaches its share's port only, whatever it named.
    payload.insert(QStringLiteral("port_key"), share.portKey);
    payload.insert(QStringLiteral("share_id"), QString::number(share.id));
    ApiReply queued = m_console.queue(share.cid, name, payload);
    queued.body.insert(QStringLiteral("type"), kType);
    return queued;
}

ApiReply ShareService::endedAmong(const QList<qint64> &shareIds)
{
    QJsonArray ended;
    for (const qint64 id : shareIds) {
        ShareRow share;
        const Storage::Found found = m_storage.shareById(id, share);
        if (found == Storage::Found::Error || (found == Storage::Found::Yes && !settle(share)))
            return internalError(kType);
        if (found == Storage::Found::No || share.state != QLatin1String("live"))
            ended.append(QJsonObject{{QStringLiteral("share_id"), QString::number(id)},
                                     {QStringLiteral("reason"), found == Storage::Found::No
                                                                    ? QStringLiteral("revoked")
                                                                    : share.endReason}});
    }
    return ApiReply::ok(kType, {{QStringLiteral("ended"), ended}});
}
