#include "settings/quicksettingslayout.h"

#include <QSettings>

QStringList QuickSettingsLayout::defaultGroupOrder()
{
    return {QStringLiteral("connection"), QStringLiteral("controlLines"),
            QStringLiteral("receive"), QStringLiteral("send")};
}

QStringList QuickSettingsLayout::fieldListIds()
{
    return defaultGroupOrder();
}

void QuickSettingsLayout::load(QSettings &settings)
{
    const QuickSettingsLayout defaults;
    showConnection = settings.value(QStringLiteral("QuickSettings/Connection"), defaults.showConnection).toBool();
    showReceive = settings.value(QStringLiteral("QuickSettings/Receive"), defaults.showReceive).toBool();
    showSend = settings.value(QStringLiteral("QuickSettings/Send"), defaults.showSend).toBool();
    groupOrder = settings.value(QStringLiteral("QuickSettings/GroupOrder"), defaults.groupOrder).toStringList();
    fieldOrder.clear();
    hiddenFields.clear();
    for (const QString &list : fieldListIds()) {
        const QString base = QStringLiteral("QuickSettings/Fields/%1/").arg(list);
        const QStringList order = settings.value(base + QStringLiteral("Order")).toStringList();
        const QStringList hidden = settings.value(base + QStringLiteral("Hidden")).toStringList();
        if (!order.isEmpty())
            fieldOrder.insert(list, order);
        if (!hidden.isEmpty())
            hiddenFields.insert(list, hidden);
    }
}

void QuickSettingsLayout::save(QSettings &settings) const
{
    settings.setValue(QStringLiteral("QuickSettings/Connection"), showConnection);
    settings.setValue(QStringLiteral("QuickSettings/Receive"), showReceive);
    settings.setValue(QStringLiteral("QuickSettings/Send"), showSend);
    settings.setValue(QStringLiteral("QuickSettings/GroupOrder"), groupOrder);
    for (const QString &list : fieldListIds()) {
        const QString base = QStringLiteral("QuickSettings/Fields/%1/").arg(list);
        settings.setValue(base + QStringLiteral("Order"), fieldOrder.value(list));
        settings.setValue(base + QStringLiteral("Hidden"), hiddenFields.value(list));
    }
}
