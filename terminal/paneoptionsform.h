#pragma once

#include "common/paneoptions.h"

struct SerialPortWidgetUi;

// Moves a pane's options between PaneOptions and the option widgets of its
// form, without announcing anything (the widgets' signals are blocked).
namespace PaneOptionsForm {

// Shows every option. Returns false when the stored checksum kind is not
// one the form offers (the form then shows "None").
bool show(SerialPortWidgetUi &ui, const PaneOptions &options);
// The options as the widgets show them; what the form has no widget for
// is taken from base.
PaneOptions read(const SerialPortWidgetUi &ui, PaneOptions base);
// Shows the two encodings again (after one was refused).
void showEncodings(SerialPortWidgetUi &ui, const QString &receive, const QString &send);

} // namespace PaneOptionsForm
