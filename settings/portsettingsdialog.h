#pragma once

#include "settings/panesettings.h"

#include <QDialog>

class ConnectionSettingsWidget;
class QCheckBox;
class QComboBox;
class QFontComboBox;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QTimeEdit;

// The full settings panel of one port: its connection, how it receives and
// sends (every option the pane's quick strip offers, whether the strip shows
// it or not), the look of its views and its data log, including what the
// strip has no room for (log file name, timestamps, rotation, font, colours).
class PortSettingsDialog : public QDialog
{
    Q_OBJECT

public:
    explicit PortSettingsDialog(const PaneSettings &settings, QWidget *parent = nullptr);

    // The settings shown, with every edit taken in.
    PaneSettings settings() const;

    // The question asked before everything returns to its defaults.
    static QString restoreDefaultsQuestion();

Q_SIGNALS:
    // The user confirmed "Restore Default Settings".
    void restoreDefaultsRequested();

public Q_SLOTS:
    void on_pbRestoreDefaults_clicked();

private:
    QWidget *buildReceivePage();
    QWidget *buildSendPage();
    QWidget *buildDisplayPage();
    QWidget *buildLogPage();
    void show(const PaneSettings &settings);
    void chooseColor(QPushButton *button);
    static void showColor(QPushButton *button, const QString &name);

    PaneSettings m_settings;
    ConnectionSettingsWidget *m_connection = nullptr;
    // Receive
    QComboBox *m_rxFormat = nullptr;
    QComboBox *m_rxEncoding = nullptr;
    QComboBox *m_rxLineEnding = nullptr;
    QSpinBox *m_autoFeedInterval = nullptr;
    QCheckBox *m_displayTime = nullptr;
    // Send
    QCheckBox *m_hexSend = nullptr;
    QComboBox *m_txEncoding = nullptr;
    QCheckBox *m_autoSend = nullptr;
    QSpinBox *m_sendInterval = nullptr;
    QComboBox *m_sendTimeUnit = nullptr;
    QCheckBox *m_appendLineEnding = nullptr;
    QComboBox *m_txLineEnding = nullptr;
    QComboBox *m_terminalEnter = nullptr;
    QComboBox *m_checksum = nullptr;
    QCheckBox *m_displaySend = nullptr;
    QCheckBox *m_localEcho = nullptr;
    QCheckBox *m_lineByLine = nullptr;
    QFontComboBox *m_fontFamily = nullptr;
    QSpinBox *m_fontSize = nullptr;
    QCheckBox *m_fontBold = nullptr;
    QPushButton *m_formatColor = nullptr;
    QPushButton *m_sendColor = nullptr;
    QPushButton *m_receiveColor = nullptr;
    QCheckBox *m_showLeds = nullptr;
    QSpinBox *m_bufferSize = nullptr;
    QLineEdit *m_rxTimeFormat = nullptr;
    QLineEdit *m_txTimeFormat = nullptr;
    QCheckBox *m_logSave = nullptr;
    QLineEdit *m_logFolder = nullptr;
    QLineEdit *m_logFileName = nullptr;
    QCheckBox *m_logTimestamp = nullptr;
    QLineEdit *m_logTimestampPattern = nullptr;
    QCheckBox *m_rotateAtSize = nullptr;
    QSpinBox *m_rotateSize = nullptr;
    QCheckBox *m_rotateAtTime = nullptr;
    QTimeEdit *m_rotateTime = nullptr;
    QCheckBox *m_hourStamp = nullptr;
};
