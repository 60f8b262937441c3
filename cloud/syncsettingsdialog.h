#pragma once

#include <QDialog>

class QCheckBox;
class QSpinBox;

// "Sync Settings...": what the settings sync includes and how often it runs
// by itself. Accepting stores the choices; the caller then has the
// coordinator re-read them.
class SyncSettingsDialog : public QDialog
{
    Q_OBJECT
public:
    static constexpr int kMinIntervalMinutes = 1;
    static constexpr int kMaxIntervalMinutes = 24 * 60;

    explicit SyncSettingsDialog(QWidget *parent = nullptr);

    // Writes `AccountSyncSendHistory`, `AccountAutoSync` and
    // `AccountAutoSyncIntervalMinutes`.
    void store() const;

private:
    QCheckBox *m_sendHistory;
    QCheckBox *m_autoSync;
    QSpinBox *m_interval;
};
