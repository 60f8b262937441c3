#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

class QSettings;

// Which quick-settings groups and fields every pane shows, and in which
// order. Stored in the application settings and in project files under the
// same "QuickSettings/..." keys.
struct QuickSettingsLayout
{
    bool showConnection = true;
    bool showReceive = true;
    bool showSend = true;
    QStringList groupOrder = defaultGroupOrder();
    QMap<QString, QStringList> fieldOrder;   // by field list id
    QMap<QString, QStringList> hiddenFields;  // by field list id

    bool operator==(const QuickSettingsLayout &other) const = default;

    static QStringList defaultGroupOrder();
    // The four field lists that keep an order and a hidden set.
    static QStringList fieldListIds();

    void load(QSettings &settings);
    void save(QSettings &settings) const;
};
