#include "cloud/guestshare.h"

#include <QJsonValue>

namespace {

QString idText(const QJsonValue &value)
{
    // Ids are strings; a service that numbers them is understood too.
    if (value.isString())
        return value.toString();
    if (value.isDouble())
        return QString::number(qint64(value.toDouble()));
    return {};
}

qint64 timeOf(const QJsonValue &value)
{
    const double ms = value.toDouble();
    // Nothing before 1970 or past the year 9999 is a time we can show.
    return ms > 0 && ms < 253402300800000.0 ? qint64(ms) : 0;
}

QString text(const QJsonObject &object, QLatin1String key)
{
    return object.value(key).toString();
}

} // namespace

std::optional<GuestShare> GuestShare::fromJson(const QJsonObject &object)
{
    GuestShare share;
    share.shareId = idText(object.value(QLatin1String("share_id")));
    if (share.shareId.isEmpty())
        return std::nullopt;
    share.code = text(object, QLatin1String("code"));
    share.link = text(object, QLatin1String("link"));
    share.cid = text(object, QLatin1String("cid"));
    share.sessionId = text(object, QLatin1String("session_id"));
    share.deviceName = text(object, QLatin1String("device_name"));
    share.portKey = text(object, QLatin1String("port_key"));
    share.portName = text(object, QLatin1String("port_name"));
    share.label = text(object, QLatin1String("label"));
    const QString web = text(object, QLatin1String("web"));
    share.web = isLevel(web) ? web : QStringLiteral("none");
    share.relay = object.value(QLatin1String("relay")).toBool();
    share.hasPasscode = object.value(QLatin1String("has_passcode")).toBool();
    share.createdAt = timeOf(object.value(QLatin1String("created_at")));
    share.expiresAt = timeOf(object.value(QLatin1String("expires_at")));
    if (const QJsonValue guest = object.value(QLatin1String("guest")); guest.isObject()) {
        const QJsonObject g = guest.toObject();
        share.guest = Guest{text(g, QLatin1String("name")), timeOf(g.value(QLatin1String("since"))),
                            idText(g.value(QLatin1String("relay_id")))};
    }
    share.webGuests = qBound(0, object.value(QLatin1String("web_guests")).toInt(), 1000000);
    share.ended = text(object, QLatin1String("state")) == QLatin1String("ended");
    if (share.ended)
        share.endReason = text(object, QLatin1String("end_reason"));
    return share;
}

QJsonObject GuestShare::toJson() const
{
    QJsonObject object{
        {QStringLiteral("share_id"), shareId},
        {QStringLiteral("code"), code},
        {QStringLiteral("link"), link},
        {QStringLiteral("cid"), cid},
        {QStringLiteral("session_id"), sessionId},
        {QStringLiteral("device_name"), deviceName},
        {QStringLiteral("port_key"), portKey},
        {QStringLiteral("port_name"), portName},
        {QStringLiteral("label"), label},
        {QStringLiteral("web"), web},
        {QStringLiteral("relay"), relay},
        {QStringLiteral("has_passcode"), hasPasscode},
        {QStringLiteral("created_at"), createdAt},
        {QStringLiteral("expires_at"), expiresAt},
        {QStringLiteral("guest"), QJsonValue::Null},
        {QStringLiteral("web_guests"), webGuests},
        {QStringLiteral("state"), ended ? QStringLiteral("ended") : QStringLiteral("live")},
    };
    if (guest) {
        object.insert(QStringLiteral("guest"), QJsonObject{{QStringLiteral("name"), guest->name},
                                                           {QStringLiteral("since"), guest->since},
                                                           {QStringLiteral("relay_id"), guest->relayId}});
    }
    if (ended)
        object.insert(QStringLiteral("end_reason"), endReason);
    return object;
}

void GuestShare::shiftTimes(qint64 offsetMs)
{
    for (qint64 *time : {&createdAt, &expiresAt}) {
        if (*time)
            *time -= offsetMs;
    }
    if (guest && guest->since)
        guest->since -= offsetMs;
}

QStringList GuestShare::levels()
{
    return {QStringLiteral("none"), QStringLiteral("view"), QStringLiteral("send"), QStringLiteral("control")};
}

bool GuestShare::isLevel(const QString &word)
{
    return levels().contains(word);
}

bool GuestShare::allowsSending(const QString &level)
{
    return level == QLatin1String("send") || level == QLatin1String("control");
}

bool GuestShare::allowsPortControl(const QString &level)
{
    return level == QLatin1String("control");
}

QString GuestShare::levelText(const QString &level)
{
    if (level == QLatin1String("view"))
        return tr("View only");
    if (level == QLatin1String("send"))
        return tr("View and send");
    if (level == QLatin1String("control"))
        return tr("View, send and port control");
    return tr("Not allowed");
}

QString GuestShare::browserRightText(const QString &level)
{
    if (level == QLatin1String("view"))
        return tr("browser: view only");
    if (level == QLatin1String("send"))
        return tr("browser: view and send");
    if (level == QLatin1String("control"))
        return tr("browser: view, send and port control");
    return {};
}

QList<int> GuestShare::validForSeconds()
{
    return {3600, 14400, 43200, 86400};
}

QString GuestShare::validForText(int seconds)
{
    switch (seconds) {
    case 3600:
        return tr("1 hour");
    case 14400:
        return tr("4 hours");
    case 43200:
        return tr("12 hours");
    case 86400:
        return tr("24 hours");
    default:
        return {};
    }
}

QString GuestShare::endWordText(const QString &word)
{
    if (word == QLatin1String("stale"))
        return tr("the computer restarted");
    if (word == QLatin1String("too_many_attempts"))
        return tr("too many wrong passcodes");
    if (word == QLatin1String("expired"))
        return tr("it expired");
    if (word == QLatin1String("revoked"))
        return tr("stopped by the owner");
    return word;
}

QString GuestShare::endedText(const QString &word)
{
    if (word == QLatin1String("expired"))
        return expiredText();
    if (word == QLatin1String("revoked"))
        return stoppedText();
    if (word == QLatin1String("stale") || word == QLatin1String("too_many_attempts"))
        return endWordText(word);
    return refusalText({});
}

QString GuestShare::refusalText(const QString &code)
{
    if (code == QLatin1String("session_mismatch"))
        return tr("The share no longer matched this run.");
    if (code == QLatin1String("too_many_attempts"))
        return tr("Too many wrong passcodes; the share was revoked.");
    return tr("The share ended.");
}

QString GuestShare::expiredText()
{
    return tr("The share expired.");
}

QString GuestShare::stoppedText()
{
    return tr("You stopped sharing.");
}

QString GuestShare::portClosedText()
{
    return tr("The shared port was closed.");
}

QString GuestShare::consoleOffText()
{
    return tr("Live Console was switched off.");
}

QString GuestShare::relayOffText()
{
    return tr("Live Relay was switched off on this computer.");
}
