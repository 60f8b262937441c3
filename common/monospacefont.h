#pragma once

#include <QFont>
#include <QString>
#include <QStringList>

// The fixed-pitch font of the pane's views.
namespace MonospaceFont {

// Families tried in order; the first the system has wins.
QStringList preferenceList();
// The first of `preferences` found among `installed`; the last preference
// when none is installed (the font system then substitutes).
QString firstInstalled(const QStringList &preferences, const QStringList &installed);
// The preferred family on this system.
QString preferredFamily();
// `family` (the preferred one when empty) at the size and weight given.
QFont make(const QString &family, int pointSize, int weight);

} // namespace MonospaceFont
