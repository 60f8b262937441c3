#include "terminal/panequicksettings.h"

#include "settings/connectionsettingswidget.h"
#include "settings/formrows.h"
#include "settings/quicksettingscatalog.h"
#include "terminal/controllinelights.h"
#include "terminal/serialportwidgetui.h"

#include <QAbstractScrollArea>
#include <QBoxLayout>
#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QSpinBox>
#include <QSplitter>

namespace PaneQuickSettings {

namespace {

const char kLightsHidden[] = "quickSettingsHidden";

struct FieldRow
{
    const char *id;
    QWidget *widget;  // any widget in the field's row
};

// Orders a group's rows as the layout says and shows the wanted ones.
void shapeGroup(QFormLayout *form, const QuickSettingsLayout &layout, const QString &group,
                const QList<FieldRow> &rows)
{
    if (!form)
        return;
    QList<QWidget *> order;
    for (const QString &id : QuickSettingsCatalog::fieldOrder(layout, group, false)) {
        for (const FieldRow &row : rows) {
            if (id == QLatin1String(row.id))
                order.append(row.widget);
        }
    }
    if (order.size() == rows.size())
        FormRows::arrange(form, order);
    const QStringList hidden = layout.hiddenFields.value(group);
    for (const FieldRow &row : rows)
        FormRows::setVisible(form, row.widget, !hidden.contains(QLatin1String(row.id)));
}

} // namespace

void apply(SerialPortWidgetUi &ui, const QuickSettingsLayout &layout, bool shown)
{
    if (QWidget *column = ui.splitter->widget(0))
        column->setVisible(shown);

    auto *receiveGroup = ui.connectionGroup->parentWidget()->findChild<QGroupBox *>(QStringLiteral("receiveGroup"));
    auto *sendGroup = ui.connectionGroup->parentWidget()->findChild<QGroupBox *>(QStringLiteral("sendGroup"));
    const std::pair<QString, QGroupBox *> groups[] = {
        {QStringLiteral("connection"), ui.connectionGroup},
        {QStringLiteral("receive"), receiveGroup},
        {QStringLiteral("send"), sendGroup},
    };
    auto *column = qobject_cast<QBoxLayout *>(ui.connectionGroup->parentWidget()->layout());
    int position = 0;
    for (const QString &id : QuickSettingsCatalog::groupOrder(layout)) {
        for (const auto &[groupId, box] : groups) {
            if (groupId != id || !box)
                continue;
            box->setVisible(QuickSettingsCatalog::isGroupShown(layout, id));
            if (column) {
                column->removeWidget(box);
                column->insertWidget(position++, box);
            }
        }
    }

    const bool lights = !layout.hiddenFields.value(QStringLiteral("connection")).contains(QLatin1String("indicatorLights"));
    ui.connectionSettings->setFieldOrder(QuickSettingsCatalog::fieldOrder(layout, QStringLiteral("connection"), false));
    ui.connectionSettings->setHiddenFields(layout.hiddenFields.value(QStringLiteral("connection")));
    ui.indicatorLights->setProperty(kLightsHidden, !lights);
    if (!lights)
        ui.indicatorLights->setVisible(false);

    shapeGroup(receiveGroup ? qobject_cast<QFormLayout *>(receiveGroup->layout()) : nullptr, layout,
               QStringLiteral("receive"),
               {{"rxFormat", ui.receiveFormatBox}, {"rxAutoFeed", ui.rxLineEndingBox}, {"rxDisplayTime", ui.displayTimeBox}});
    shapeGroup(sendGroup ? qobject_cast<QFormLayout *>(sendGroup->layout()) : nullptr, layout, QStringLiteral("send"),
               {{"txFormat", ui.hexSendBox},
                {"txLoop", ui.autoSendBox},
                {"txAutoFeed", ui.appendLineEndingBox},
                {"txTerminalEnter", ui.terminalEnterBox},
                {"txChecksum", ui.sendChecksumBox},
                {"txDisplaySend", ui.displaySendBox},
                {"txLocalEcho", ui.localEchoBox},
                {"txLineByLine", ui.cbLinebyLine}});
}

bool lightsWanted(const SerialPortWidgetUi &ui)
{
    return !ui.indicatorLights->property(kLightsHidden).toBool();
}

} // namespace PaneQuickSettings
