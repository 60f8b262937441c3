#pragma once

struct QuickSettingsLayout;
struct SerialPortWidgetUi;

// Shapes a pane's options column after the quick-settings layout: which
// groups show and in which order, and which fields are left out.
namespace PaneQuickSettings {

// `shown` false closes the whole column.
void apply(SerialPortWidgetUi &ui, const QuickSettingsLayout &layout, bool shown);
// Whether the quick settings leave the indicator lights in view.
bool lightsWanted(const SerialPortWidgetUi &ui);

} // namespace PaneQuickSettings
