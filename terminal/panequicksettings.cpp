#include "terminal/panequicksettings.h"

#include "settings/connectionsettingswidget.h"
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

// Shows the form row holding `field` when any of `parts` is wanted.
void showRow(QWidget *field, const QList<std::pair<QWidget *, bool>> &parts)
{
    // A field sits in the form itself or in a row holder placed in it.
    QWidget *holder = field->parentWidget();
    auto *form = qobject_cast<QFormLayout *>(holder->layout());
    if (form)
        holder = field;
    else if (holder->parentWidget())
        form = qobject_cast<QFormLayout *>(holder->parentWidget()->layout());
    bool any = false;
    for (const auto &[widget, wanted] : parts) {
        widget->setVisible(wanted);
        any = any || wanted;
    }
    if (!form)
        return;
    int row = -1;
    QFormLayout::ItemRole role;
    form->getWidgetPosition(holder, &row, &role);
    if (row >= 0)
        form->setRowVisible(row, any);
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

    const auto wanted = [&layout](const char *group, const char *field) {
        return !layout.hiddenFields.value(QLatin1String(group)).contains(QLatin1String(field));
    };
    ui.connectionSettings->setHiddenFields(layout.hiddenFields.value(QStringLiteral("connection")));
    ui.indicatorLights->setProperty(kLightsHidden, !wanted("connection", "indicatorLights"));
    if (!wanted("connection", "indicatorLights"))
        ui.indicatorLights->setVisible(false);

    showRow(ui.receiveFormatBox, {{ui.receiveFormatBox, wanted("receive", "rxFormat")},
                                  {ui.receiveEncodingBox, wanted("receive", "rxFormat")}});
    showRow(ui.rxLineEndingBox, {{ui.rxLineEndingBox, wanted("receive", "rxAutoFeed")},
                                 {ui.autoFeedIntervalSB, wanted("receive", "rxAutoFeed")}});
    showRow(ui.displayTimeBox, {{ui.displayTimeBox, wanted("receive", "rxDisplayTime")},
                                {ui.displaySendBox, wanted("send", "txDisplaySend")}});
    showRow(ui.hexSendBox, {{ui.hexSendBox, wanted("send", "txFormat")}, {ui.sendEncodingBox, wanted("send", "txFormat")}});
    showRow(ui.appendLineEndingBox, {{ui.appendLineEndingBox, wanted("send", "txAutoFeed")},
                                     {ui.txLineEndingBox, wanted("send", "txAutoFeed")}});
    showRow(ui.sendChecksumBox, {{ui.sendChecksumBox, wanted("send", "txChecksum")}});
    showRow(ui.terminalEnterBox, {{ui.terminalEnterBox, wanted("send", "txTerminalEnter")},
                                  {ui.localEchoBox, wanted("send", "txLocalEcho")}});
    showRow(ui.autoSendBox, {{ui.autoSendBox, wanted("send", "txLoop")},
                             {ui.sendIntervelSB, wanted("send", "txLoop")},
                             {ui.sendTimeUnitBox, wanted("send", "txLoop")}});
    showRow(ui.cbLinebyLine, {{ui.cbLinebyLine, wanted("send", "txLineByLine")}});
}

bool lightsWanted(const SerialPortWidgetUi &ui)
{
    return !ui.indicatorLights->property(kLightsHidden).toBool();
}

} // namespace PaneQuickSettings
