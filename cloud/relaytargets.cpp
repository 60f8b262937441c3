#include "cloud/relaytargets.h"

#include <QJsonArray>
#include <QSettings>
#include <QUrl>

namespace RelayTargets {

namespace {
const QString kAlphabet = QStringLiteral("23456789ABCDEFGHJKMNPQRSTUVWXYZ");
} // namespace

const Port *Device::port(const QString &key) const
{
    for (const Port &p : ports) {
        if (p.key == key)
            return &p;
    }
    return nullptr;
}

QList<Device> parseDevices(const QJsonObject &response)
{
    QList<Device> devices;
    const QJsonArray list = response.value(QLatin1String("devices")).toArray();
    for (const QJsonValue &value : list) {
        const QJsonObject entry = value.toObject();
        Device device;
        device.cid = entry.value(QLatin1String("cid")).toString();
        if (device.cid.isEmpty())
            continue;
        device.name = entry.value(QLatin1String("name")).toString();
        if (device.name.isEmpty())
            device.name = device.cid;
        device.sessionId = entry.value(QLatin1String("session_id")).toString();
        device.version = entry.value(QLatin1String("version")).toString();
        device.online = entry.value(QLatin1String("online")).toBool();
        const QJsonArray ports = entry.value(QLatin1String("ports")).toArray();
        for (const QJsonValue &portValue : ports) {
            const QJsonObject p = portValue.toObject();
            Port port;
            port.key = p.value(QLatin1String("port_key")).toString();
            if (port.key.isEmpty())
                continue;
            port.name = p.value(QLatin1String("port_name")).toString();
            port.label = p.value(QLatin1String("label")).toString();
            port.modeTag = p.value(QLatin1String("mode_tag")).toString();
            port.open = p.value(QLatin1String("open")).toBool();
            port.relayAllowed = p.value(QLatin1String("relay_allowed")).toBool();
            device.ports.append(port);
        }
        devices.append(device);
    }
    return devices;
}

const Device *findDevice(const QList<Device> &devices, const QString &cid)
{
    for (const Device &device : devices) {
        if (device.cid == cid)
            return &device;
    }
    return nullptr;
}

QString inviteCode(const QString &text)
{
    QString candidate = text.trimmed();
    // A link: the code is its last path component.
    if (candidate.contains(QLatin1Char('/'))) {
        const QUrl url(candidate);
        QString path = url.isValid() && !url.path().isEmpty() ? url.path() : candidate;
        while (path.endsWith(QLatin1Char('/')))
            path.chop(1);
        candidate = path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
    }
    QString code;
    for (const QChar c : candidate) {
        if (c == QLatin1Char('-') || c.isSpace())
            continue;
        const QChar upper = c.toUpper();
        if (!kAlphabet.contains(upper))
            return {};
        code.append(upper);
    }
    return code.size() == kInviteCodeLength ? code : QString();
}

QString displayInviteCode(const QString &code)
{
    if (code.size() != kInviteCodeLength)
        return code;
    return code.left(4) + QLatin1Char('-') + code.mid(4, 4) + QLatin1Char('-') + code.mid(8);
}

QString guestName()
{
    QString fallback = qEnvironmentVariable("USERNAME");
    if (fallback.isEmpty())
        fallback = qEnvironmentVariable("USER");
    return QSettings().value(QStringLiteral("RelayGuestName"), fallback).toString();
}

void setGuestName(const QString &name)
{
    QSettings().setValue(QStringLiteral("RelayGuestName"), name);
}

} // namespace RelayTargets
