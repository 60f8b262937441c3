#pragma once

#include <QPoint>
#include <QSize>

class QSettings;

// Where the main window went at the last exit, and whether to put it back.
namespace WindowPlacement {

inline constexpr char kSizeKey[] = "LAST_WINDOW_SIZE";
inline constexpr char kPositionKey[] = "LAST_WINDOW_POSITION";

QSize storedSize(const QSettings &settings);      // default 1000 x 800
QPoint storedPosition(const QSettings &settings);  // (0, 0) when none
void store(QSettings &settings, QSize size, QPoint position);

// The stored size brought within what the screen offers (and at least a
// usable minimum), so a damaged or foreign value cannot make a window
// larger than any screen.
QSize fittedSize(QSize stored, QSize availableArea);

// Restored only strictly inside the primary screen's available area: a
// corner at exactly 0 is deliberately left to the window system.
bool isRestorable(QPoint position, QSize availableArea);

} // namespace WindowPlacement
