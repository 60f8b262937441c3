#include "sharepeer.h"

#include <QDateTime>

namespace {
QJsonObject relayReply(QJsonObject members)
{
    members.insert("type", "relay");
    members.insert("status", !members.contains("status") || members.value("status").toBool());
    return members;
}
} // namespace

SharePeer::SharePeer(ConsolePeer &peer) : now(QDateTime::currentMSecsSinceEpoch()), m_peer(peer)
{
    m_peer.reply = [this](const ConsolePeer::Request &request) { return answer(request); };
}

QJsonObject SharePeer::answer(const ConsolePeer::Request &request)
{
    const QString path = request.path;
    if (path == "/api/v3/relay/shares" && request.method == "POST") {
        if (!refuseNextCreate.isEmpty())
            return relayReply(std::exchange(refuseNextCreate, {}));
        const QString id = QString("share-%1").arg(++m_next);
        const QString code = QString("K7QM-4HXP-%1").arg(m_next, 4, 10, QChar('2'));
        const QJsonObject &body = request.body;
        QJsonObject share{
            {"share_id", id},
            {"code", code},
            {"link", m_peer.baseUrl() + "/join/" + QString(code).remove('-')},
            {"cid", body["cid"]},
            {"session_id", body["session_id"]},
            {"device_name", "bench-pc"},
            {"port_key", body["port_key"]},
            {"port_name", "ttyS9"},
            {"label", body["label"]},
            {"web", body["web"]},
            {"relay", body["relay"]},
            {"has_passcode", !body["passcode"].toString().isEmpty()},
            {"created_at", now},
            {"expires_at", now + qint64(body["ttl_seconds"].toInt()) * 1000},
            {"guest", QJsonValue::Null},
            {"web_guests", 0},
            {"state", "live"},
        };
        shares.insert(id, share);
        return relayReply({{"share", share}});
    }
    if (path == "/api/v3/relay/shares" && request.method == "GET") {
        const QString cid = request.query.queryItemValue("cid");
        QJsonArray list;
        for (const QJsonObject &share : std::as_const(shares)) {
            if (cid.isEmpty() ? share["state"] == "live" : share["cid"] == cid)
                list.append(share);
        }
        if (cid.isEmpty())
            return relayReply({{"shares", list}, {"revoked", revoked}});
        return relayReply({{"shares", list}});
    }
    if (path.startsWith("/api/v3/relay/shares/") && request.method == "DELETE") {
        const QString id = path.section('/', -1);
        if (!shares.contains(id))
            return relayReply({{"status", false}, {"share_id", id}, {"code", "not_found"}, {"description", "gone"}});
        shares[id]["state"] = "ended";
        shares[id]["end_reason"] = "revoked";
        return relayReply({{"share_id", id}});
    }
    if (path.startsWith("/api/v3/relay/sessions/") && request.method == "DELETE") {
        const QString relayId = path.section('/', -1);
        for (QJsonObject &share : shares) {
            if (share["guest"].toObject()["relay_id"].toString() == relayId)
                share["guest"] = QJsonValue::Null;
        }
        return relayReply({});
    }
    QJsonObject console{{"type", "console"}, {"status", true}, {"ws", false}};
    if (path.endsWith("/commands/poll") && !commands.isEmpty())
        console.insert("commands", std::exchange(commands, {}));
    return console;
}
