#include "app/configfolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

namespace ConfigFolder {

QString stored(const QSettings &settings)
{
    return settings.value(QLatin1String(kSettingsKey)).toString();
}

QString proposal(const QSettings &settings)
{
    const QString current = stored(settings);
    if (!current.isEmpty())
        return current;
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/Config");
}

Result accept(QSettings &settings, const QString &folder)
{
    const QString path = folder.trimmed();
    if (path.isEmpty())
        return Result::failure(QCoreApplication::translate("SetConfigFilePathDialog", "Choose a folder for the configuration files."));
    const QFileInfo info(path);
    if (info.exists() && !info.isDir())
        return Result::failure(QCoreApplication::translate("SetConfigFilePathDialog", "%1 is a file, not a folder.").arg(QDir::toNativeSeparators(path)));
    if (!QDir().mkpath(path))
        return Result::failure(QCoreApplication::translate("SetConfigFilePathDialog", "Could not create the folder %1.").arg(QDir::toNativeSeparators(path)));
    settings.setValue(QLatin1String(kSettingsKey), path);
    settings.sync();
    return Result::success();
}

} // namespace ConfigFolder
