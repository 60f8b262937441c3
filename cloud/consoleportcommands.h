#pragma once

#include "cloud/consolecommandtable.h"

#include <QJsonArray>
#include <QList>

#include <functional>

class PortSession;

// The Live Console's commands on this computer's ports: "send_text",
// "send_hex", "open_port", "close_port" and "set_port_config". Each acts
// on the port session a pane owns, through the operations the pane's own
// buttons use: the one send path (so Tx counters, echo and log see remote
// sends), open, close and the serial parameters, with the file-transfer
// lock respected.
namespace ConsolePortCommands {

using PortList = std::function<QList<PortSession *>()>;

void addTo(ConsoleCommandTable &table, PortList ports);

PortSession *find(const QList<PortSession *> &ports, const QString &portKey);
// A port's snapshot entry with what the owner allows on it ("send",
// "control", "open_relay").
QJsonObject entry(const PortSession &session, const ConsoleConsent &consent);
QJsonArray entries(const QList<PortSession *> &ports, const ConsoleConsent &consent);

} // namespace ConsolePortCommands
