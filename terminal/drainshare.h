#pragma once

#include <QtGlobal>

// The GUI thread's time for putting received text into views, shared by
// every pane that has text waiting. Each pane's refresh timer drains on its
// own, and panes fed at the same rate fire in the same timer pass: with an
// equal share of one refresh's worth each, sixteen flooded panes hold the
// event loop about as long as one does.
namespace DrainShare {

// `pane` has text waiting for its view (or no longer has).
void setWaiting(const void *pane, bool waiting);
// The part of `totalMs` one waiting pane may spend now; never below 1 ms,
// so every pane moves on.
qint64 limitMs(qint64 totalMs);

} // namespace DrainShare
