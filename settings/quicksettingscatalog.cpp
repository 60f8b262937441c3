#include "settings/quicksettingscatalog.h"

#include <QCoreApplication>

namespace QuickSettingsCatalog {

namespace {

QString t(const char *text)
{
    return QCoreApplication::translate("QuickSettingsCatalog", text);
}

QStringList merged(const QStringList &stored, const QStringList &known)
{
    QStringList result;
    for (const QString &id : stored) {
        if (known.contains(id) && !result.contains(id))
            result.append(id);
    }
    for (const QString &id : known) {
        if (!result.contains(id))
            result.append(id);
    }
    return result;
}

QStringList idsOf(const Group *g)
{
    QStringList ids;
    if (g) {
        for (const Field &f : g->fields)
            ids.append(f.id);
    }
    return ids;
}

} // namespace

QList<Group> groups()
{
    return {
        {QStringLiteral("connection"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Connection Settings")),
         t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Port and connection parameters")),
         {
             {QStringLiteral("baudRate"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Baudrate")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Serial transfer speed"))},
             {QStringLiteral("dataBits"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Data Bits")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Data bits per frame"))},
             {QStringLiteral("parity"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Parity")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Parity check mode"))},
             {QStringLiteral("stopBits"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Stop Bits")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Stop bits per frame"))},
             {QStringLiteral("flowControl"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Flow Type")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Flow control method"))},
             {QStringLiteral("indicatorLights"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Indicator Lights")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Show all TX/RX and control line indicators"))},
         }},
        {QStringLiteral("receive"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Receive Settings")),
         t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "How received data is shown")),
         {
             {QStringLiteral("rxFormat"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Format")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog",
                                  "Show received data as text or hex, and the encoding to read it with"))},
             {QStringLiteral("rxAutoFeed"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Auto Line Feed")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Start a new line after an idle interval"))},
             {QStringLiteral("rxDisplayTime"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Display Time")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Prefix received data with a timestamp"))},
         }},
        {QStringLiteral("send"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Send Settings")),
         t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "How data is sent")),
         {
             {QStringLiteral("txFormat"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Format")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog",
                                  "Send the input as text or hex, and the encoding to send it with"))},
             {QStringLiteral("txLoop"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Loop Send")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Resend automatically at an interval"))},
             {QStringLiteral("txAutoFeed"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Append Line Ending")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Ending appended to each send"))},
             {QStringLiteral("txTerminalEnter"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Enter Sends")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Bytes sent when Enter is pressed in the receive terminal"))},
             {QStringLiteral("txChecksum"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Append Checksum")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Checksum appended to each send"))},
             {QStringLiteral("txDisplaySend"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Display Send")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Echo sent data in the display"))},
             {QStringLiteral("txLocalEcho"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Local Echo")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Echo keys typed into the receive terminal"))},
             {QStringLiteral("txLineByLine"), t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Line by Line")),
              t(QT_TRANSLATE_NOOP("QuickSettingsCatalog", "Send multi-line input line by line"))},
         }},
    };
}

const Group *group(const QList<Group> &all, const QString &id)
{
    for (const Group &g : all) {
        if (g.id == id)
            return &g;
    }
    return nullptr;
}

bool isGroupShown(const QuickSettingsLayout &layout, const QString &id)
{
    if (id == u"connection")
        return layout.showConnection;
    if (id == u"receive")
        return layout.showReceive;
    if (id == u"send")
        return layout.showSend;
    return false;
}

void setGroupShown(QuickSettingsLayout &layout, const QString &id, bool shown)
{
    if (id == u"connection")
        layout.showConnection = shown;
    else if (id == u"receive")
        layout.showReceive = shown;
    else if (id == u"send")
        layout.showSend = shown;
}

QStringList groupOrder(const QuickSettingsLayout &layout)
{
    QStringList known;
    for (const Group &g : groups())
        known.append(g.id);
    return merged(layout.groupOrder, known);
}

QStringList fieldOrder(const QuickSettingsLayout &layout, const QString &id, bool visibleOnly)
{
    const QList<Group> all = groups();
    QStringList order = merged(layout.fieldOrder.value(id), idsOf(group(all, id)));
    if (visibleOnly) {
        const QStringList hidden = layout.hiddenFields.value(id);
        order.removeIf([&hidden](const QString &field) { return hidden.contains(field); });
    }
    return order;
}

QuickSettingsLayout cleaned(const QuickSettingsLayout &layout)
{
    QuickSettingsLayout result = layout;
    // "controlLines" keeps its place in the stored order, as before.
    QStringList order;
    for (const QString &id : layout.groupOrder) {
        if ((id == u"controlLines" || group(groups(), id)) && !order.contains(id))
            order.append(id);
    }
    for (const QString &id : QuickSettingsLayout::defaultGroupOrder()) {
        if (!order.contains(id))
            order.append(id);
    }
    result.groupOrder = order;
    result.fieldOrder.clear();
    result.hiddenFields.clear();
    const QList<Group> all = groups();
    for (const QString &list : QuickSettingsLayout::fieldListIds()) {
        const QStringList known = idsOf(group(all, list));
        if (known.isEmpty())
            continue;
        if (layout.fieldOrder.contains(list))
            result.fieldOrder.insert(list, merged(layout.fieldOrder.value(list), known));
        QStringList hidden;
        for (const QString &id : layout.hiddenFields.value(list)) {
            if (known.contains(id) && !hidden.contains(id))
                hidden.append(id);
        }
        if (!hidden.isEmpty())
            result.hiddenFields.insert(list, hidden);
    }
    return result;
}

} // namespace QuickSettingsCatalog
