#pragma once

#include "app/lastusedrecord.h"

#include <QList>
#include <QMainWindow>
#include <QPointer>

class AsciiCode;
class ModbusBuilderDialog;
class QSettings;
class QSplitter;
class SerialPortWidget;
class ToolBox;

namespace Ui {
class MainWindow;
}

// The one main window: it owns the port panes, the menus, the tool bar and
// the status bar.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget *parent = nullptr);
    ~MainWindow() override;

    // Size from the settings, then the stored position when it lies inside
    // the primary screen's available area.
    void restoreGeometryFrom(const QSettings &settings);

    const QList<SerialPortWidget *> &panes() const { return m_panes; }
    SerialPortWidget *currentPane() const;
    SerialPortWidget *addPane();

    // Opens the port named on the command line in the current pane; a
    // failure is reported in a warning box.
    bool openPortFromCommandLine(const QString &portName);
    // Re-opens at start the connection that was open at the last exit, when
    // the user asked for that.
    void restoreLastConnection();

protected:
    void closeEvent(QCloseEvent *event) override;

private Q_SLOTS:
    void on_acFileExit_triggered();
    void on_actionEnglish_triggered();
    void on_actionChinese_triggered();
    void on_acMonStart_triggered();
    void on_acMonStop_triggered();
    void on_acControlOpen_toggled(bool on);
    void on_acAutoReconnect_toggled(bool on);
    void on_acEditClear_triggered();
    void on_acEditPause_toggled(bool on);
    void on_actionClearSendHistory_triggered();
    void on_acToolCalc_triggered();
    void on_acToolsAscii_triggered();
    void on_acToolsModbus_triggered();

private:
    void chooseLanguage(int value);
    void saveLastUsed(const SerialPortWidget *pane);
    // Puts a frame into the current pane's send box as hex, switching the
    // pane to hex sending; `checksumNote` is shown when the pane would append
    // a checksum of its own.
    void insertFrameIntoSend(const QByteArray &frame, const QString &checksumNote);
    static void raiseDialog(QWidget *dialog);

    Ui::MainWindow *ui;
    QSplitter *m_portSplitter;
    QList<SerialPortWidget *> m_panes;
    LastUsedRecord m_lastUsed;
    // The pane the user worked in last: tool dialogs take the focus away
    // from it, yet their frames are meant for it.
    QPointer<SerialPortWidget> m_lastFocusedPane;
    QMetaObject::Connection m_focusConnection;
    ToolBox *m_toolBox = nullptr;
    AsciiCode *m_asciiCode = nullptr;
    ModbusBuilderDialog *m_modbusBuilder = nullptr;
};
