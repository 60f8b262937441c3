#pragma once

#include <QString>

class QCoreApplication;
class QSettings;
class QTranslator;

// The interface language stored as "ValueL": 0 follows the system, 1 is
// Simplified Chinese, 2 English. A change takes effect at the next start.
namespace LanguageChoice {

enum Value { FollowSystem = 0, SimplifiedChinese = 1, English = 2 };

inline constexpr char kSettingsKey[] = "ValueL";
inline constexpr char kTranslationResource[] = ":/i18n/zh_CN";

int stored(const QSettings &settings);
void store(QSettings &settings, int value);

// Only the exact locale "zh_CN" counts when following the system.
bool wantsChinese(int value, const QString &systemLocaleName);
// "zh" or "en", the language the cloud pages are asked for.
QString webLanguageCode(int value, const QString &systemLocaleName);

// Loads the Chinese translation when wanted (warning when it cannot) and
// installs the translator in every case. Returns whether a translation was
// loaded.
bool install(QCoreApplication &app, QTranslator &translator, int value, const QString &systemLocaleName);

} // namespace LanguageChoice
