#pragma once

#include "settings/quicksettingslayout.h"

#include <QList>
#include <QString>
#include <QStringList>

// The settings a pane's quick-settings strip can show, grouped, in their
// default order. Labels and tooltips come translated.
namespace QuickSettingsCatalog {

struct Field
{
    QString id;
    QString label;
    QString toolTip;
};

struct Group
{
    QString id;
    QString title;
    QString description;
    QList<Field> fields;
};

QList<Group> groups();
const Group *group(const QList<Group> &all, const QString &id);

// Whether the layout shows group `id` ("connection", "receive", "send").
bool isGroupShown(const QuickSettingsLayout &layout, const QString &id);
void setGroupShown(QuickSettingsLayout &layout, const QString &id, bool shown);

// The layout's group order with ids the catalogue does not know dropped and
// the known ones it lacks appended.
QStringList groupOrder(const QuickSettingsLayout &layout);
// The same for the fields of group `id`; `visibleOnly` leaves out the hidden.
QStringList fieldOrder(const QuickSettingsLayout &layout, const QString &id, bool visibleOnly);
// The layout with every unknown id dropped.
QuickSettingsLayout cleaned(const QuickSettingsLayout &layout);

} // namespace QuickSettingsCatalog
