#pragma once

#include "cloud/consoleportcommands.h"

#include <functional>

class CloudConsoleService;

// "open_relay": the Live Console command with which the service asks this
// computer to be the host end of a relay on one of its open ports. The
// console's table checks the owner's "Live Relay" switch (or the share the
// command names) before the handler runs; the handler starts a
// RelayController and answers at once: the relay's own end is told to the
// other side by the relay socket, not by the command's result.
namespace RelayCommand {

// Adds the command to the service's table. relayAddress gives the cloud's
// base URL at the moment a relay opens. Each relay reports itself through
// the service's relayEngaged and relayEnded.
void addTo(CloudConsoleService &service, ConsolePortCommands::PortList ports, std::function<QString()> relayAddress);

} // namespace RelayCommand
