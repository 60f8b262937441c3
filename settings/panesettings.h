#pragma once

#include "connection/connectionconfig.h"
#include "common/paneoptions.h"

#include <QList>
#include <QString>
#include <QVariant>

// Everything one pane keeps between runs: its connection and its options.
struct PaneSettings
{
    ConnectionConfig connection;
    PaneOptions options;

    bool operator==(const PaneSettings &other) const = default;
};

// One persisted setting of a pane, described once. The stores (the last-used
// record, project files, the synced settings document) each give a field a
// key name of their own and move values through get() and set(), so a field
// is added or range-checked in one place.
struct PaneField
{
    enum class Kind { Int, Enum, Bool, String, StringList, Time };

    // A stable name for the field, independent of any store's key.
    QString id;
    Kind kind = Kind::Int;
    // Int: values outside are clamped into the range. Enum: the values
    // allowed (others are refused). String and StringList: longest text,
    // and most entries for a list (longer is refused).
    qint64 min = 0;
    qint64 max = 0;
    QList<int> allowed;

    QVariant (*read)(const PaneSettings &settings) = nullptr;
    void (*write)(PaneSettings &settings, const QVariant &value) = nullptr;

    QVariant get(const PaneSettings &settings) const { return read(settings); }
    // Takes a stored value: converted, range-checked and written into
    // settings. False (settings untouched) when the value cannot be read
    // as this field or lies outside what it allows.
    bool set(PaneSettings &settings, const QVariant &value) const;
};

namespace PaneFields {

// Every field, in a fixed order.
const QList<PaneField> &all();
// The field with this id, or nullptr.
const PaneField *find(const QString &id);

} // namespace PaneFields
