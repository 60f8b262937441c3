#include "cloud/relaycommand.h"

#include "cloud/cloudconsoleservice.h"
#include "cloud/relaycontroller.h"
#include "terminal/portsession.h"

void RelayCommand::addTo(CloudConsoleService &service, ConsolePortCommands::PortList ports,
                         std::function<QString()> relayAddress)
{
    ConsoleCommandTable &table = service.commands();
    table.add(QStringLiteral("open_relay"), ConsoleCommandTable::Requirement::Relay,
              [&service, &table, ports = std::move(ports), address = std::move(relayAddress)](const QJsonObject &payload) {
                  const RelayController::Request request = RelayController::Request::fromPayload(payload);
                  PortSession *session = ConsolePortCommands::find(ports(), request.portKey);
                  const RelayController::Opening opening =
                      RelayController::open(request, session, address(), table.consent().relay);
                  if (opening.isRefused())
                      return ConsoleOutcome::failure(opening.errorCode, opening.message);
                  const QString portKey = request.portKey;
                  const QString guest = request.guestName;
                  QObject::connect(opening.controller, &RelayController::engaged, &service,
                                   [&service, portKey, guest] { emit service.relayEngaged(portKey, guest); });
                  QObject::connect(opening.controller, &RelayController::ended, &service,
                                   [&service, portKey] { emit service.relayEnded(portKey); });
                  return ConsoleOutcome::success(QJsonObject{{QStringLiteral("port_key"), portKey},
                                                             {QStringLiteral("relay_id"), request.relayId}});
              });
}
