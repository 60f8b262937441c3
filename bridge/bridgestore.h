#pragma once

#include "bridge/bridgerecord.h"

#include <QCoreApplication>
#include <QList>
#include <QStringList>

class QSettings;

// Bridges in the settings store: "Bridge/Count", then "Bridge/%1/%2" with
// the index (from 0) and the field. Every field is described once in a
// table: its key, how it is written and how its stored text is read and
// checked. A bridge that does not read whole is skipped with a message;
// the others load.
class BridgeStore
{
    Q_DECLARE_TR_FUNCTIONS(BridgeStore)

public:
    static constexpr int kMaxBridges = 64;

    struct Loaded
    {
        QList<BridgeRecord> records;
        // One text per bridge skipped, or for the list itself.
        QStringList skipped;
    };

    static Loaded load(QSettings &settings);
    // Replaces every stored bridge.
    static void save(QSettings &settings, const QList<BridgeRecord> &records);

    // Every field key, in the table's order.
    static QStringList fieldKeys();
    static QString key(int index, const QString &field);
};
