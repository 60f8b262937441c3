#pragma once

#include "cloud/sessionstate.h"

struct ConnectionConfig;
struct PaneOptions;

// Where the synced settings come from and go to in the program: the
// connection record and the pane options of the last-used record, plus the
// shell's behaviour flags. The one place to change when those records move.
namespace SessionStateMapping {

SessionState fromRecords(const ConnectionConfig &connection, const PaneOptions &pane, bool autoReconnect,
                         bool restoreLastConnection, int language, const QStringList &sendHistory,
                         bool withSendHistory);

// Writes the state's connection and display members into the records; the
// behaviour flags, language and send history are read by the caller from
// the state itself.
void toRecords(const SessionState &state, ConnectionConfig &connection, PaneOptions &pane);

} // namespace SessionStateMapping
