#include "app/languagechoice.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSettings>
#include <QTranslator>

namespace LanguageChoice {

int stored(const QSettings &settings)
{
    return settings.value(QLatin1String(kSettingsKey), int(FollowSystem)).toInt();
}

void store(QSettings &settings, int value)
{
    settings.setValue(QLatin1String(kSettingsKey), value);
}

bool wantsChinese(int value, const QString &systemLocaleName)
{
    return value == SimplifiedChinese
        || (value == FollowSystem && systemLocaleName == QLatin1String("zh_CN"));
}

QString webLanguageCode(int value, const QString &systemLocaleName)
{
    return wantsChinese(value, systemLocaleName) ? QStringLiteral("zh") : QStringLiteral("en");
}

bool install(QCoreApplication &app, QTranslator &translator, int value, const QString &systemLocaleName)
{
    bool loaded = false;
    if (wantsChinese(value, systemLocaleName)) {
        loaded = translator.load(QString::fromLatin1(kTranslationResource));
        if (!loaded)
            qWarning() << "load language zh_CN failed!";
    }
    app.installTranslator(&translator);
    return loaded;
}

} // namespace LanguageChoice
