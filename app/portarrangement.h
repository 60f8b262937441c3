#pragma once

#include <QList>

// How the panes are spread over rows: every arrangement is a column of rows,
// each row holding some panes side by side.
namespace PortArrangement {

enum class Layout : int { Horizontal = 0, Vertical = 1, Grid = 2, Custom = 3 };

// Number of panes in each row, top to bottom, for `count` panes. `perRow`
// is the "Port Number Per Column" value, used by the custom layout: pane i
// goes to row i / perRow at position i % perRow.
QList<int> rowSizes(Layout layout, int count, int perRow);

} // namespace PortArrangement
