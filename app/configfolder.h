#pragma once

#include "common/result.h"

#include <QString>

class QSettings;

// The folder that holds the user's projects and quick settings, chosen once
// at first start and stored as "CONFIG_FILE_PATH".
namespace ConfigFolder {

inline constexpr char kSettingsKey[] = "CONFIG_FILE_PATH";

QString stored(const QSettings &settings);
// What the chooser proposes: the stored folder, else the application data
// location followed by "/Config".
QString proposal(const QSettings &settings);
// Creates the folder with its parents when missing and stores it.
Result accept(QSettings &settings, const QString &folder);

} // namespace ConfigFolder
