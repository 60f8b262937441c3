#pragma once

#include "app/lastusedrecord.h"
#include "app/portarrangement.h"
#include "app/projectfile.h"

#include <QHash>
#include <QList>
#include <QMainWindow>
#include <QPointer>

class AsciiCode;
class CloudAccountMenu;
class CloudConsoleMenu;
struct SessionState;
class ModbusBuilderDialog;
class PaneTransfers;
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
    PaneTransfers *transfers() const { return m_transfers; }
    CloudAccountMenu *cloudMenu() const { return m_cloudMenu; }
    CloudConsoleMenu *consoleMenu() const { return m_consoleMenu; }
    // The settings that travel with the account, and taking them from the
    // cloud: the last-used record and the behaviour flags; panes whose
    // connection is closed take them at once, open ones keep theirs.
    SessionState cloudSessionState() const;
    void applyCloudSessionState(const SessionState &state, int language);

    // Opens the port named on the command line in the current pane; a
    // failure is reported in a warning box.
    bool openPortFromCommandLine(const QString &portName);
    // Re-opens at start the connection that was open at the last exit, when
    // the user asked for that.
    void restoreLastConnection();

    // Project files. Opening replaces every pane; both report failures in
    // the status bar and return false.
    bool openProject(const QString &fileName);
    bool saveProjectTo(const QString &fileName);
    Project currentProject() const;
    QString currentFile() const { return m_currentFile; }
    // Asks whether to save a modified project; false when the user cancels
    // (or the save fails).
    bool maybeSave();

    void setArrangement(PortArrangement::Layout layout);
    PortArrangement::Layout arrangement() const { return m_layout; }
    void setColumnNumber(int perRow);
    int columnNumber() const { return m_columnNumber; }
    void removePane(SerialPortWidget *pane);

Q_SIGNALS:
    // A pane was added or removed.
    void panesChanged();

protected:
    void closeEvent(QCloseEvent *event) override;

private Q_SLOTS:
    void on_acFileNew_triggered();
    void on_acFileOpen_triggered();
    void on_acFileSave_triggered();
    void on_acFileSaveAs_triggered();
    void on_acSettingSavePath_triggered();
    void on_acFileRecordDataLog_toggled(bool on);
    void on_acFileViewCurrentDataLog_triggered();
    void on_acFileOpenLogFolder_triggered();
    void on_acFileExit_triggered();
    void on_actionNew_Connection_triggered();
    void on_acEditAdd_triggered();
    void on_acEditRemove_triggered();
    void on_acViewColumnNumber_triggered();
    void on_acViewAlwaysTop_toggled(bool on);
    void on_acViewQuickSettings_toggled(bool closed);
    void on_acViewQuickSettingsEdit_triggered();
    void on_actionAbout_triggered();
    void on_acHelpHomepage_triggered();
    void on_acHelpOnline_triggered();
    void on_acDebugResizeAppStore_triggered();
    void on_actionEnglish_triggered();
    void on_actionChinese_triggered();
    void on_acMonStart_triggered();
    void on_acMonStop_triggered();
    void on_acControlOpen_toggled(bool on);
    void on_acAutoReconnect_toggled(bool on);
    void on_acEditClear_triggered();
    void on_acEditPause_toggled(bool on);
    void on_actionClearSendHistory_triggered();
    void on_acToolsSetting_triggered();
    void on_acToolCalc_triggered();
    void on_acToolsAscii_triggered();
    void on_acToolsModbus_triggered();
    void on_acXferSend_triggered();
    void on_acXferReceive_triggered();
    void on_acXferCancel_triggered();

private:
    void chooseLanguage(int value);
    SerialPortWidget *createPane(const ProjectPane &settings);
    void removeAllPanes();
    // Rebuilds the splitters for the current arrangement and reapplies the
    // sizes the user gave them.
    void rebuildLayout();
    void rememberSplitterSizes();
    void updateSplitterSizes();
    void markModified();
    void applyQuickSettings();
    // Every pane, the last-used record and the quick settings back to
    // their defaults; open connections are closed first.
    void restoreDefaults();
    void setCurrentFile(const QString &fileName);
    void addRecentFile(const QString &fileName);
    void updateRecentFilesMenu();
    bool saveAs();
    ProjectPane newPaneSettings() const;
    void saveLastUsed(const SerialPortWidget *pane);
    // Puts a frame into the current pane's send box as hex, switching the
    // pane to hex sending; `checksumNote` is shown when the pane would append
    // a checksum of its own.
    void insertFrameIntoSend(const QByteArray &frame, const QString &checksumNote);
    static void raiseDialog(QWidget *dialog);
    // Cancel Transfer follows the pane the user works in.
    void updateTransferActions();

    Ui::MainWindow *ui;
    QWidget *m_paneHolder = nullptr;
    QSplitter *m_portSplitter = nullptr;
    PortArrangement::Layout m_layout = PortArrangement::Layout::Custom;
    int m_columnNumber = 2;
    bool m_quickView = true;
    QString m_currentFile;
    // The project as last opened or saved; the modified mark is a
    // difference from it.
    Project m_savedProject;
    // Sizes the user gave each splitter, by object name.
    QHash<QString, QList<int>> m_splitterSizes;
    int m_nextPaneId = 1;
    QList<SerialPortWidget *> m_panes;
    LastUsedRecord m_lastUsed;
    // The pane the user worked in last: tool dialogs take the focus away
    // from it, yet their frames are meant for it.
    QPointer<SerialPortWidget> m_lastFocusedPane;
    QMetaObject::Connection m_focusConnection;
    ToolBox *m_toolBox = nullptr;
    AsciiCode *m_asciiCode = nullptr;
    ModbusBuilderDialog *m_modbusBuilder = nullptr;
    PaneTransfers *m_transfers = nullptr;
    CloudAccountMenu *m_cloudMenu = nullptr;
    CloudConsoleMenu *m_consoleMenu = nullptr;
};
