#include "cloud/syncsettingsdialog.h"

#include "cloud/sessionsynccoordinator.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QSettings>
#include <QSpinBox>
#include <QVBoxLayout>

using Sync = SessionSyncCoordinator;

SyncSettingsDialog::SyncSettingsDialog(QWidget *parent)
    : QDialog(parent)
{
    setWindowTitle(tr("Sync Settings"));
    const QSettings settings;
    auto *layout = new QVBoxLayout(this);
    auto *lastSynced = new QLabel(Sync::lastSyncedText(), this);
    lastSynced->setObjectName(QStringLiteral("lastSyncedLabel"));
    layout->addWidget(lastSynced);

    m_sendHistory = new QCheckBox(tr("Sync send history"), this);
    m_sendHistory->setObjectName(QStringLiteral("syncSendHistoryBox"));
    m_sendHistory->setChecked(settings.value(Sync::kSendHistoryKey, false).toBool());
    m_autoSync = new QCheckBox(tr("Sync automatically"), this);
    m_autoSync->setObjectName(QStringLiteral("autoSyncBox"));
    m_autoSync->setChecked(settings.value(Sync::kAutoSyncKey, false).toBool());
    m_interval = new QSpinBox(this);
    m_interval->setObjectName(QStringLiteral("autoSyncIntervalSB"));
    m_interval->setRange(kMinIntervalMinutes, kMaxIntervalMinutes);
    m_interval->setSuffix(tr(" min"));
    m_interval->setValue(qBound(kMinIntervalMinutes,
                                settings.value(Sync::kIntervalKey, Sync::kDefaultAutoSyncMinutes).toInt(),
                                kMaxIntervalMinutes));
    m_interval->setEnabled(m_autoSync->isChecked());
    connect(m_autoSync, &QCheckBox::toggled, m_interval, &QWidget::setEnabled);

    auto *form = new QFormLayout;
    form->addRow(m_sendHistory);
    form->addRow(m_autoSync);
    form->addRow(tr("Auto sync interval"), m_interval);
    layout->addLayout(form);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, [this] {
        store();
        accept();
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

void SyncSettingsDialog::store() const
{
    QSettings settings;
    settings.setValue(Sync::kSendHistoryKey, m_sendHistory->isChecked());
    settings.setValue(Sync::kAutoSyncKey, m_autoSync->isChecked());
    settings.setValue(Sync::kIntervalKey, m_interval->value());
}
