#pragma once

#include <QtGlobal>

// A loopback port for a listener that cannot take port 0 (a server pane, a
// program given a number). It lies below the system's ephemeral range, so no
// other test's port-0 listener or outgoing connection can take it between the
// check and the bind; within that space it starts at a random place, so two
// tests running at once do not pick the same one. 0 when none is free.
quint16 unusedListenPort();
