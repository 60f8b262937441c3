#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

// What the service says about the computers of an account that share ports
// over Live Relay, and the invite codes guests join with. Pure parsing.
namespace RelayTargets {

struct Port
{
    QString key;   // "port_key": the port's name for this run of its program
    QString name;  // "port_name": the serial port, or "host:port"
    QString label;
    QString modeTag;
    bool open = false;
    bool relayAllowed = false;
};

struct Device
{
    QString cid;
    QString name;  // the computer's host name
    QString sessionId;  // the run of its program the port keys belong to
    QString version;
    bool online = false;
    QList<Port> ports;

    const Port *port(const QString &key) const;
};

// The "devices" of a relay-targets reply; entries without a "cid" are left out.
QList<Device> parseDevices(const QJsonObject &response);
const Device *findDevice(const QList<Device> &devices, const QString &cid);

// Invite codes: 12 characters of "23456789ABCDEFGHJKMNPQRSTUVWXYZ", shown as
// XXXX-XXXX-XXXX; typed in any case, with spaces or dashes, or as the
// invite link ".../join/<code>".
inline constexpr int kInviteCodeLength = 12;
// The code in a text, without dashes; empty when the text holds none.
QString inviteCode(const QString &text);
QString displayInviteCode(const QString &code);

// `RelayGuestName`: the name a host sees when this user joins; by default
// the system's user name ("USERNAME", else "USER").
QString guestName();
void setGuestName(const QString &name);

} // namespace RelayTargets
