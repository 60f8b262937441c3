#include "support/settingssandbox.h"

#include "common/appidentity.h"

#include <QCoreApplication>
#include <QSettings>
#include <QStandardPaths>

SettingsSandbox::SettingsSandbox()
{
    QStandardPaths::setTestModeEnabled(true);
    if (QCoreApplication *app = QCoreApplication::instance())
        AppIdentity::apply(*app);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_dir.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_dir.path());
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, m_dir.path() + QStringLiteral("/system"));
    QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, m_dir.path() + QStringLiteral("/system"));
    clear();
}

SettingsSandbox::~SettingsSandbox()
{
    clear();
}

void SettingsSandbox::clear()
{
    QSettings settings;
    settings.clear();
    settings.sync();
}
