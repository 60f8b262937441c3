#include "app/mainwindow.h"

#include "app/cloudaccountmenu.h"
#include "app/cloudconsolemenu.h"
#include "app/configfolder.h"
#include "app/languagechoice.h"
#include "app/newconnectiondialog.h"
#include "app/panetransfers.h"
#include "common/appidentity.h"
#include "cloud/sessionstatemapping.h"
#include "cloud/sessionsynccoordinator.h"
#include "common/logging.h"
#include "settings/portsettingsdialog.h"
#include "settings/quicksettingsdialog.h"
#include "app/windowplacement.h"
#include "terminal/serialportwidget.h"
#include "tools/asciicode.h"
#include "tools/hexparser.h"
#include "tools/modbusbuilderdialog.h"
#include "tools/toolbox.h"
#include "ui_mainwindow.h"

#include <QActionGroup>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QUrl>
#include <QCloseEvent>
#include <QGuiApplication>
#include <QMessageBox>
#include <QScreen>
#include <QScrollArea>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace {

constexpr int kRecentFileLimit = 10;
const QString kLayoutKey = QStringLiteral("PortLayout");
const QString kColumnNumberKey = QStringLiteral("ColumnNumber");

} // namespace

MainWindow::MainWindow(QWidget *parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
{
    ui->setupUi(this);
    // Panes keep their minimum size: many of them on a small screen scroll
    // instead of pushing the window past the screen.
    auto *areaLayout = new QVBoxLayout(ui->portArea);
    areaLayout->setContentsMargins(0, 0, 0, 0);
    auto *scroll = new QScrollArea(ui->portArea);
    scroll->setObjectName(QStringLiteral("portScrollArea"));
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    m_paneHolder = new QWidget(scroll);
    auto *layout = new QVBoxLayout(m_paneHolder);
    layout->setContentsMargins(0, 0, 0, 0);
    scroll->setWidget(m_paneHolder);
    areaLayout->addWidget(scroll);

    auto *layouts = new QActionGroup(this);
    const std::pair<QAction *, PortArrangement::Layout> layoutActions[] = {
        {ui->acViewHorizontal, PortArrangement::Layout::Horizontal},
        {ui->acViewVertical, PortArrangement::Layout::Vertical},
        {ui->acViewGrid, PortArrangement::Layout::Grid},
        {ui->acViewCustom, PortArrangement::Layout::Custom},
    };
    for (const auto &[action, kind] : layoutActions) {
        layouts->addAction(action);
        connect(action, &QAction::triggered, this, [this, kind = kind] {
            setArrangement(kind);
            markModified();
        });
    }

    QSettings settings;
    m_lastUsed.load(settings);
    const int storedLayout = settings.value(kLayoutKey, int(m_layout)).toInt();
    if (storedLayout >= 0 && storedLayout <= int(PortArrangement::Layout::Custom))
        m_layout = PortArrangement::Layout(storedLayout);
    m_columnNumber = std::clamp(settings.value(kColumnNumberKey, m_columnNumber).toInt(), Project::kMinColumnNumber,
                                Project::kMaxColumnNumber);
    for (const auto &[action, kind] : layoutActions)
        action->setChecked(kind == m_layout);
    {
        const QSignalBlocker b1(ui->acControlOpen);
        const QSignalBlocker b2(ui->acAutoReconnect);
        const QSignalBlocker b3(ui->acFileRecordDataLog);
        ui->acControlOpen->setChecked(LastUsedRecord::readOpenLastConnection(settings));
        ui->acAutoReconnect->setChecked(LastUsedRecord::readAutoReconnect(settings));
        ui->acFileRecordDataLog->setChecked(m_lastUsed.pane.logSaveFlag);
    }
    m_lastUsed.openLastConnection = ui->acControlOpen->isChecked();
    m_lastUsed.autoReconnect = ui->acAutoReconnect->isChecked();
    updateRecentFilesMenu();

    // The project open at the last exit comes back; without one the window
    // starts with one pane from the last-used settings.
    if (m_lastUsed.lastFile.isEmpty() || !QFileInfo(m_lastUsed.lastFile).isFile() || !openProject(m_lastUsed.lastFile)) {
        createPane(newPaneSettings());
        rebuildLayout();
        setCurrentFile({});
    }
    m_transfers = new PaneTransfers(this);
    m_cloudMenu = new CloudAccountMenu(
        {ui->acAccountSignIn, ui->acAccountMe, ui->acAccountSyncNow, ui->acAccountSyncSettings, ui->acAccountSignOut},
        statusBar(), [this] { return cloudSessionState(); },
        [this](const SessionState &state, int language) { applyCloudSessionState(state, language); }, this);
    m_cloudMenu->resumeSignIn();
    m_consoleMenu = new CloudConsoleMenu(
        {ui->acCloudConsole, ui->acCloudConsoleAllowSend, ui->acCloudConsoleAllowPortControl}, statusBar(),
        [this] {
            QList<PortSession *> sessions;
            for (const SerialPortWidget *pane : std::as_const(m_panes))
                sessions.append(pane->session());
            return sessions;
        },
        this);
    connect(this, &MainWindow::panesChanged, m_consoleMenu, &CloudConsoleMenu::portsChanged);
    connect(m_transfers, &PaneTransfers::runningChanged, this, &MainWindow::updateTransferActions);
    m_focusConnection = connect(qApp, &QApplication::focusChanged, this, [this](QWidget *, QWidget *now) {
        for (QWidget *w = now; w; w = w->parentWidget()) {
            if (auto *pane = qobject_cast<SerialPortWidget *>(w)) {
                m_lastFocusedPane = pane;
                updateTransferActions();
                return;
            }
        }
    });
}

ProjectPane MainWindow::newPaneSettings() const
{
    return ProjectPane{PaneSettings{m_lastUsed.connection, m_lastUsed.pane}, m_lastUsed.sendList};
}

SerialPortWidget *MainWindow::addPane()
{
    SerialPortWidget *pane = createPane(newPaneSettings());
    rebuildLayout();
    return pane;
}

SerialPortWidget *MainWindow::createPane(const ProjectPane &settings)
{
    auto *pane = new SerialPortWidget(m_nextPaneId++, m_paneHolder);
    pane->applySettings(settings.settings.connection, settings.settings.options, settings.sendList);
    pane->setAutoReconnect(ui->acAutoReconnect->isChecked());
    pane->applyQuickSettings(m_lastUsed.quickSettings, m_quickView);
    m_panes.append(pane);
    connect(pane, &SerialPortWidget::statusMessage, this,
            [this](const QString &text, int timeoutMs) { statusBar()->showMessage(text, timeoutMs); });
    connect(pane, &SerialPortWidget::settingsChanged, this, [this, pane] {
        saveLastUsed(pane);
        markModified();
    });
    emit panesChanged();
    return pane;
}

void MainWindow::removePane(SerialPortWidget *pane)
{
    if (!pane || !m_panes.contains(pane))
        return;
    pane->disarmReconnect();
    pane->closeConnection();
    m_panes.removeOne(pane);
    pane->hide();
    pane->setParent(nullptr);
    pane->deleteLater();
    emit panesChanged();
}

void MainWindow::removeAllPanes()
{
    const QList<SerialPortWidget *> panes = m_panes;
    for (SerialPortWidget *pane : panes)
        removePane(pane);
}

void MainWindow::rebuildLayout()
{
    rememberSplitterSizes();
    // The panes leave the old splitters before those go.
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->setParent(m_paneHolder);
    delete m_portSplitter;

    m_portSplitter = new QSplitter(Qt::Vertical, m_paneHolder);
    m_portSplitter->setObjectName(QStringLiteral("portSplitter"));
    m_portSplitter->setHandleWidth(8);
    m_portSplitter->setChildrenCollapsible(false);
    m_paneHolder->layout()->addWidget(m_portSplitter);

    const QList<int> rows = PortArrangement::rowSizes(m_layout, int(m_panes.size()), m_columnNumber);
    int next = 0;
    for (int r = 0; r < rows.size(); ++r) {
        auto *row = new QSplitter(Qt::Horizontal, m_portSplitter);
        row->setObjectName(QStringLiteral("portRowSplitter%1").arg(r));
        row->setHandleWidth(8);
        row->setChildrenCollapsible(false);
        for (int c = 0; c < rows.at(r); ++c) {
            SerialPortWidget *pane = m_panes.at(next++);
            row->addWidget(pane);
            pane->show();
        }
        m_portSplitter->addWidget(row);
    }
    updateSplitterSizes();
    // New splitters share out their space when first laid out; the stored
    // sizes go in again once that has happened.
    QTimer::singleShot(0, this, [this, splitter = QPointer<QSplitter>(m_portSplitter)] {
        if (splitter == m_portSplitter)
            updateSplitterSizes();
    });
}

void MainWindow::rememberSplitterSizes()
{
    if (!m_portSplitter)
        return;
    const auto remember = [this](QSplitter *splitter) {
        // Only sizes the user could have set: a splitter never laid out
        // reports zeros.
        const QList<int> sizes = splitter->sizes();
        if (std::any_of(sizes.begin(), sizes.end(), [](int v) { return v > 0; }))
            m_splitterSizes.insert(splitter->objectName(), sizes);
    };
    remember(m_portSplitter);
    for (QSplitter *row : m_portSplitter->findChildren<QSplitter *>(Qt::FindDirectChildrenOnly))
        remember(row);
}

void MainWindow::updateSplitterSizes()
{
    const auto apply = [this](QSplitter *splitter) {
        const QList<int> sizes = m_splitterSizes.value(splitter->objectName());
        if (sizes.size() == splitter->count()) {
            qCDebug(lcApp) << "### updateSplitterSizes:" << splitter->objectName() << sizes;
            splitter->setSizes(sizes);
        }
    };
    apply(m_portSplitter);
    for (QSplitter *row : m_portSplitter->findChildren<QSplitter *>(Qt::FindDirectChildrenOnly))
        apply(row);
}

void MainWindow::setArrangement(PortArrangement::Layout layout)
{
    m_layout = layout;
    QSettings settings;
    settings.setValue(kLayoutKey, int(layout));
    const std::pair<QAction *, PortArrangement::Layout> actions[] = {
        {ui->acViewHorizontal, PortArrangement::Layout::Horizontal},
        {ui->acViewVertical, PortArrangement::Layout::Vertical},
        {ui->acViewGrid, PortArrangement::Layout::Grid},
        {ui->acViewCustom, PortArrangement::Layout::Custom},
    };
    for (const auto &[action, kind] : actions)
        action->setChecked(kind == layout);
    rebuildLayout();
}

void MainWindow::setColumnNumber(int perRow)
{
    m_columnNumber = std::clamp(perRow, Project::kMinColumnNumber, Project::kMaxColumnNumber);
    QSettings settings;
    settings.setValue(kColumnNumberKey, m_columnNumber);
    rebuildLayout();
}

void MainWindow::markModified()
{
    // Opening a port or switching back and forth changes nothing a save
    // would keep: only a real difference from the file shows the mark.
    setWindowModified(!(currentProject() == m_savedProject));
}

void MainWindow::setCurrentFile(const QString &fileName)
{
    m_currentFile = fileName;
    const QString shown = fileName.isEmpty() ? tr("Untitled") : QFileInfo(fileName).fileName();
    setWindowTitle(QStringLiteral("%1[*] - %2").arg(shown, QStringLiteral("Tessaline")));
    m_savedProject = currentProject();
    setWindowModified(false);
}

Project MainWindow::currentProject() const
{
    Project project;
    project.columnNumber = m_columnNumber;
    project.quickView = m_quickView;
    project.quickSettings = m_lastUsed.quickSettings;
    for (const SerialPortWidget *pane : m_panes)
        project.panes.append(ProjectPane{PaneSettings{pane->connectionConfig(), pane->paneOptions()}, pane->sendHistory()});
    return project;
}

bool MainWindow::openProject(const QString &fileName)
{
    const ValueResult<Project> read = ProjectFile::readSettingFile(fileName, newPaneSettings());
    if (!read) {
        statusBar()->showMessage(read.errorText(), 5000);
        return false;
    }
    const Project &project = read.value();
    removeAllPanes();
    m_quickView = project.quickView;
    m_columnNumber = project.columnNumber;
    m_lastUsed.quickSettings = project.quickSettings;
    {
        const QSignalBlocker blocker(ui->acViewQuickSettings);
        ui->acViewQuickSettings->setChecked(!m_quickView);
    }
    for (const ProjectPane &pane : project.panes)
        createPane(pane);
    rebuildLayout();
    setCurrentFile(fileName);
    addRecentFile(fileName);
    statusBar()->showMessage(tr("Opened %1").arg(QDir::toNativeSeparators(fileName)), 2000);
    return true;
}

bool MainWindow::saveProjectTo(const QString &fileName)
{
    statusBar()->showMessage(tr("Saving..."));
    const Result saved = ProjectFile::writeFile(fileName, currentProject());
    if (!saved) {
        qCWarning(lcApp) << "writeFile failed:" << saved.errorText();
        statusBar()->showMessage(saved.errorText(), 15000);
        return false;
    }
    setCurrentFile(fileName);
    addRecentFile(fileName);
    statusBar()->showMessage(tr("Saved %1").arg(QDir::toNativeSeparators(fileName)), 2000);
    return true;
}

bool MainWindow::maybeSave()
{
    if (!isWindowModified())
        return true;
    const auto answer = QMessageBox::warning(
        this, QStringLiteral("Tessaline"), tr("The document has been modified.\nDo you want to save your changes?"),
        QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel);
    if (answer == QMessageBox::Save)
        return m_currentFile.isEmpty() ? saveAs() : saveProjectTo(m_currentFile);
    return answer == QMessageBox::Discard;
}

bool MainWindow::saveAs()
{
    QString folder = QFileInfo(m_currentFile).absolutePath();
    if (m_currentFile.isEmpty()) {
        QSettings settings;
        folder = ConfigFolder::stored(settings);
    }
    QString fileName = QFileDialog::getSaveFileName(this, tr("Save Tessaline"), folder, tr("Tessaline files (*.tsl)"));
    if (fileName.isEmpty())
        return false;
    if (QFileInfo(fileName).suffix().isEmpty())
        fileName += QStringLiteral(".tsl");
    return saveProjectTo(fileName);
}

void MainWindow::addRecentFile(const QString &fileName)
{
    const QString path = QFileInfo(fileName).absoluteFilePath();
    m_lastUsed.recentFiles.removeAll(path);
    m_lastUsed.recentFiles.prepend(path);
    while (m_lastUsed.recentFiles.size() > kRecentFileLimit)
        m_lastUsed.recentFiles.removeLast();
    QSettings settings;
    settings.setValue(QStringLiteral("RecentFiles"), m_lastUsed.recentFiles);
    updateRecentFilesMenu();
}

void MainWindow::updateRecentFilesMenu()
{
    ui->menuRecentFiles->clear();
    for (qsizetype i = 0; i < m_lastUsed.recentFiles.size(); ++i) {
        const QString path = m_lastUsed.recentFiles.at(i);
        QAction *action = ui->menuRecentFiles->addAction(
            QStringLiteral("&%1 %2").arg(i + 1).arg(QDir::toNativeSeparators(path)));
        connect(action, &QAction::triggered, this, [this, path] {
            if (!maybeSave())
                return;
            if (!QFileInfo(path).isFile()) {
                m_lastUsed.recentFiles.removeAll(path);
                QSettings settings;
                settings.setValue(QStringLiteral("RecentFiles"), m_lastUsed.recentFiles);
                updateRecentFilesMenu();
            }
            openProject(path);
        });
    }
    ui->menuRecentFiles->setEnabled(!m_lastUsed.recentFiles.isEmpty());
}

void MainWindow::on_acFileNew_triggered()
{
    if (!maybeSave())
        return;
    removeAllPanes();
    createPane(newPaneSettings());
    rebuildLayout();
    setCurrentFile({});
}

void MainWindow::on_acFileOpen_triggered()
{
    if (!maybeSave())
        return;
    QSettings settings;
    const QString folder = m_currentFile.isEmpty() ? ConfigFolder::stored(settings) : QFileInfo(m_currentFile).absolutePath();
    const QString fileName = QFileDialog::getOpenFileName(this, tr("Open Settings"), folder, tr("Tessaline files (*.tsl)"));
    if (!fileName.isEmpty())
        openProject(fileName);
}

void MainWindow::on_acFileSave_triggered()
{
    if (m_currentFile.isEmpty())
        saveAs();
    else
        saveProjectTo(m_currentFile);
}

void MainWindow::on_acFileSaveAs_triggered()
{
    saveAs();
}

void MainWindow::on_acSettingSavePath_triggered()
{
    QSettings settings;
    const QString folder =
        QFileDialog::getExistingDirectory(this, tr("Save Path"), ConfigFolder::proposal(settings));
    if (folder.isEmpty())
        return;
    const Result r = ConfigFolder::accept(settings, folder);
    if (!r)
        QMessageBox::warning(this, QStringLiteral("Tessaline"), r.errorText());
    else
        statusBar()->showMessage(tr("Settings files are saved in %1").arg(QDir::toNativeSeparators(folder)), 3000);
}

void MainWindow::on_acFileRecordDataLog_toggled(bool on)
{
    for (SerialPortWidget *pane : std::as_const(m_panes)) {
        PaneOptions options = pane->paneOptions();
        if (options.logSaveFlag == on)
            continue;
        options.logSaveFlag = on;
        pane->applySettings(pane->connectionConfig(), options, pane->sendHistory());
        saveLastUsed(pane);
    }
    markModified();
}

void MainWindow::on_acFileViewCurrentDataLog_triggered()
{
    SerialPortWidget *pane = currentPane();
    const QString file = pane ? pane->currentLogFile() : QString();
    if (file.isEmpty()) {
        statusBar()->showMessage(tr("No data log is being recorded."), 3000);
        return;
    }
    m_lastUsed.lastLogFile = file;
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(file)))
        statusBar()->showMessage(tr("Cannot open %1").arg(QDir::toNativeSeparators(file)), 5000);
}

void MainWindow::on_acFileOpenLogFolder_triggered()
{
    SerialPortWidget *pane = currentPane();
    const QString folder = pane ? pane->paneOptions().logFilePath : PaneOptions::defaultLogFolder();
    QDir().mkpath(folder);
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(folder)))
        statusBar()->showMessage(tr("Cannot open %1").arg(QDir::toNativeSeparators(folder)), 5000);
}

void MainWindow::on_actionNew_Connection_triggered()
{
    SerialPortWidget *pane = currentPane();
    const ConnectionConfig current = pane ? pane->connectionConfig() : m_lastUsed.connection;
    NewConnectionDialog dialog(current, current, this);
    if (current.mode != ConnectionMode::Serial)
        dialog.showNetworkPage();
    if (dialog.exec() != QDialog::Accepted)
        return;
    // An idle pane takes the connection; a busy one keeps its own and the
    // connection gets a pane of its own.
    if (!pane || pane->isConnectionOpen() || pane->isReconnecting()) {
        pane = addPane();
        markModified();
    }
    pane->applySettings(dialog.config(), pane->paneOptions(), pane->sendHistory());
    saveLastUsed(pane);
    markModified();
    pane->openConnection();
}

void MainWindow::on_acEditAdd_triggered()
{
    addPane();
    markModified();
}

void MainWindow::on_acEditRemove_triggered()
{
    if (m_panes.size() <= 1) {
        statusBar()->showMessage(tr("The last port cannot be removed."), 3000);
        return;
    }
    removePane(currentPane());
    rebuildLayout();
    qCDebug(lcApp) << "on_acEditRemove_triggered: Port Number =" << m_panes.size();
    markModified();
}

void MainWindow::on_acViewColumnNumber_triggered()
{
    bool ok = false;
    const int value = QInputDialog::getInt(this, tr("Set Port Number Per Column"), tr("Port Number Per Column:"),
                                           m_columnNumber, Project::kMinColumnNumber, Project::kMaxColumnNumber, 1, &ok);
    if (!ok || value == m_columnNumber)
        return;
    setColumnNumber(value);
    markModified();
}

void MainWindow::applyQuickSettings()
{
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->applyQuickSettings(m_lastUsed.quickSettings, m_quickView);
}

void MainWindow::on_acViewQuickSettings_toggled(bool closed)
{
    m_quickView = !closed;
    applyQuickSettings();
    markModified();
}

void MainWindow::on_acViewQuickSettingsEdit_triggered()
{
    QuickSettingsDialog dialog(m_lastUsed.quickSettings, this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    m_lastUsed.quickSettings = dialog.layout();
    QSettings settings;
    m_lastUsed.quickSettings.save(settings);
    applyQuickSettings();
    markModified();
}

void MainWindow::on_acViewAlwaysTop_toggled(bool on)
{
    setWindowFlag(Qt::WindowStaysOnTopHint, on);
    show();
}

void MainWindow::on_actionAbout_triggered()
{
    QMessageBox::about(this, tr("About Tessaline"),
                       tr("Tessaline %1\nA terminal for serial ports and networks.")
                           .arg(QString::fromLatin1(AppIdentity::kVersion)));
}

void MainWindow::on_acHelpHomepage_triggered()
{
    QDesktopServices::openUrl(QUrl(QStringLiteral("https://%1/tessaline").arg(QLatin1String(AppIdentity::kOrganisationDomain))));
}

void MainWindow::on_acHelpOnline_triggered()
{
    QDesktopServices::openUrl(QUrl(QStringLiteral("https://%1/tessaline/help").arg(QLatin1String(AppIdentity::kOrganisationDomain))));
}

void MainWindow::on_acDebugResizeAppStore_triggered()
{
    resize(1280, 800);
}

SerialPortWidget *MainWindow::currentPane() const
{
    for (SerialPortWidget *pane : m_panes) {
        if (pane->isAncestorOf(QApplication::focusWidget()))
            return pane;
    }
    if (m_lastFocusedPane && m_panes.contains(m_lastFocusedPane.data()))
        return m_lastFocusedPane;
    return m_panes.isEmpty() ? nullptr : m_panes.constFirst();
}

void MainWindow::saveLastUsed(const SerialPortWidget *pane)
{
    m_lastUsed.connection = pane->connectionConfig();
    m_lastUsed.pane = pane->paneOptions();
    m_lastUsed.sendList = pane->sendHistory();
    QSettings settings;
    m_lastUsed.save(settings);
}

bool MainWindow::openPortFromCommandLine(const QString &portName)
{
    SerialPortWidget *pane = currentPane();
    if (!pane)
        return false;
    ConnectionConfig config = pane->connectionConfig();
    if (config.mode != ConnectionMode::Serial) {
        config.mode = ConnectionMode::Serial;
        pane->applySettings(config, pane->paneOptions(), pane->sendHistory());
    }
    if (pane->openConnection(portName))
        return true;
    QMessageBox::warning(this, tr("Tessaline"), tr("Serial Port %1 OPEN FAILED").arg(portName));
    return false;
}

void MainWindow::restoreLastConnection()
{
    if (!ui->acControlOpen->isChecked() || !m_lastUsed.lastConnectionOpen)
        return;
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->openConnection({}, true);
}

void MainWindow::on_acMonStart_triggered()
{
    for (SerialPortWidget *pane : std::as_const(m_panes)) {
        if (!pane->isConnectionOpen())
            pane->openConnection();
    }
}

void MainWindow::on_acMonStop_triggered()
{
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->closeConnection();
}

void MainWindow::on_acControlOpen_toggled(bool on)
{
    m_lastUsed.openLastConnection = on;
    QSettings settings;
    settings.setValue(QStringLiteral("OpenLastConnection"), on);
}

void MainWindow::on_acAutoReconnect_toggled(bool on)
{
    m_lastUsed.autoReconnect = on;
    QSettings settings;
    settings.setValue(QStringLiteral("AutoReconnect"), on);
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->setAutoReconnect(on);
}

void MainWindow::on_acEditClear_triggered()
{
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->clearDisplay();
}

void MainWindow::on_acEditPause_toggled(bool on)
{
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->setPaused(on);
}

void MainWindow::on_actionClearSendHistory_triggered()
{
    for (SerialPortWidget *pane : std::as_const(m_panes))
        pane->clearSendHistory();
}

void MainWindow::raiseDialog(QWidget *dialog)
{
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

void MainWindow::on_acToolsSetting_triggered()
{
    QPointer<SerialPortWidget> pane = currentPane();
    if (!pane)
        return;
    PortSettingsDialog dialog(PaneSettings{pane->connectionConfig(), pane->paneOptions()}, this);
    connect(&dialog, &PortSettingsDialog::restoreDefaultsRequested, this, &MainWindow::restoreDefaults);
    if (dialog.exec() != QDialog::Accepted || !pane)
        return;
    const PaneSettings chosen = dialog.settings();
    pane->applySettings(chosen.connection, chosen.options, pane->sendHistory());
    saveLastUsed(pane);
    markModified();
}

void MainWindow::restoreDefaults()
{
    const PaneSettings defaults;
    for (SerialPortWidget *pane : std::as_const(m_panes)) {
        pane->disarmReconnect();
        pane->closeConnection();
        pane->applySettings(defaults.connection, defaults.options, pane->sendHistory());
    }
    m_lastUsed.connection = defaults.connection;
    m_lastUsed.pane = defaults.options;
    m_lastUsed.quickSettings = QuickSettingsLayout{};
    QSettings settings;
    m_lastUsed.save(settings);
    applyQuickSettings();
    {
        const QSignalBlocker blocker(ui->acFileRecordDataLog);
        ui->acFileRecordDataLog->setChecked(defaults.options.logSaveFlag);
    }
    statusBar()->showMessage(tr("Default settings restored."), 3000);
    markModified();
}

void MainWindow::on_acToolCalc_triggered()
{
    if (!m_toolBox) {
        m_toolBox = new ToolBox(this);
        connect(m_toolBox, &ToolBox::insertRequested, this,
                [this](const QByteArray &frame) { insertFrameIntoSend(frame, ToolBox::sendChecksumNote()); });
    }
    raiseDialog(m_toolBox);
}

void MainWindow::on_acToolsAscii_triggered()
{
    if (!m_asciiCode)
        m_asciiCode = new AsciiCode(this);
    raiseDialog(m_asciiCode);
}

void MainWindow::on_acToolsModbus_triggered()
{
    if (!m_modbusBuilder) {
        m_modbusBuilder = new ModbusBuilderDialog(this);
        connect(m_modbusBuilder, &ModbusBuilderDialog::insertRequested, this, [this](const QByteArray &frame) {
            insertFrameIntoSend(frame, ModbusBuilderDialog::sendChecksumNote());
        });
    }
    raiseDialog(m_modbusBuilder);
}

void MainWindow::on_acXferSend_triggered()
{
    m_transfers->openDialog(currentPane(), FileTransferSession::Direction::Send);
}

void MainWindow::on_acXferReceive_triggered()
{
    m_transfers->openDialog(currentPane(), FileTransferSession::Direction::Receive);
}

void MainWindow::on_acXferCancel_triggered()
{
    m_transfers->cancel(currentPane());
}

void MainWindow::updateTransferActions()
{
    ui->acXferCancel->setEnabled(m_transfers->running(currentPane()) != nullptr);
}

void MainWindow::insertFrameIntoSend(const QByteArray &frame, const QString &checksumNote)
{
    SerialPortWidget *pane = currentPane();
    if (!pane)
        return;
    PaneOptions options = pane->paneOptions();
    if (options.sendFormat != MessageFormat::Hex) {
        options.sendFormat = MessageFormat::Hex;
        pane->applySettings(pane->connectionConfig(), options, pane->sendHistory());
        saveLastUsed(pane);
    }
    pane->setSendText(HexParser::toHexText(frame));
    if (options.sendChecksum != 0)
        statusBar()->showMessage(checksumNote, 15000);
}

MainWindow::~MainWindow()
{
    // Children change the focus as they go; by then the members are gone.
    disconnect(m_focusConnection);
    delete ui;
}

void MainWindow::restoreGeometryFrom(const QSettings &settings)
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    const QSize size = WindowPlacement::fittedSize(WindowPlacement::storedSize(settings),
                                                   screen ? screen->availableGeometry().size() : QSize());
    const QPoint position = WindowPlacement::storedPosition(settings);
    qCDebug(lcApp) << "### last window position:" << position;
    resize(size);

    if (screen && WindowPlacement::isRestorable(position, screen->availableGeometry().size())) {
        move(position);
        qCDebug(lcApp) << "### set geometry:" << position.x() << position.y() << size.width() << size.height();
        setGeometry(QRect(position, size));
    }
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    // A firmware image half sent is worse than a window left open.
    if (m_transfers->anyRunning()
        && QMessageBox::question(this, tr("Tessaline"),
                                 tr("A file transfer is running. Closing stops it, and the device may be left with an "
                                    "incomplete file.\nClose anyway?"))
               != QMessageBox::Yes) {
        event->ignore();
        return;
    }
    if (!maybeSave()) {
        event->ignore();
        return;
    }
    QSettings settings;
    LastUsedRecord::saveLastFiles(settings, m_currentFile, m_lastUsed.lastLogFile);
    qCDebug(lcApp) << "### position:" << pos();
    WindowPlacement::store(settings, size(), pos());
    bool anyOpen = false;
    for (SerialPortWidget *pane : std::as_const(m_panes)) {
        const bool open = pane->isConnectionOpen() || pane->isReconnecting();
        anyOpen |= open;
        if (open) {
            pane->disarmReconnect();
            pane->closeConnection();
        }
    }
    settings.setValue(QStringLiteral("LastConnectionOpen"), anyOpen);
    event->accept();
}

void MainWindow::on_acFileExit_triggered()
{
    close();
}

void MainWindow::on_actionEnglish_triggered()
{
    chooseLanguage(LanguageChoice::English);
}

void MainWindow::on_actionChinese_triggered()
{
    chooseLanguage(LanguageChoice::SimplifiedChinese);
}

SessionState MainWindow::cloudSessionState() const
{
    const QSettings settings;
    return SessionStateMapping::fromRecords(m_lastUsed.connection, m_lastUsed.pane, ui->acAutoReconnect->isChecked(),
                                            ui->acControlOpen->isChecked(), LanguageChoice::stored(settings),
                                            m_lastUsed.sendList,
                                            settings.value(SessionSyncCoordinator::kSendHistoryKey, false).toBool());
}

void MainWindow::applyCloudSessionState(const SessionState &state, int language)
{
    SessionStateMapping::toRecords(state, m_lastUsed.connection, m_lastUsed.pane);
    if (state.hasSendHistory)
        m_lastUsed.sendList = state.sendHistory;
    // Through the actions, so that every pane and the stored flags follow.
    ui->acAutoReconnect->setChecked(state.autoReconnect);
    ui->acControlOpen->setChecked(state.restoreLastConnection);
    QSettings settings;
    // Takes effect at the next start, like a choice in the menu; the
    // status bar already says the settings were applied.
    if (language != LanguageChoice::stored(settings))
        LanguageChoice::store(settings, language);
    m_lastUsed.save(settings);
    for (SerialPortWidget *pane : std::as_const(m_panes)) {
        if (pane->isConnectionOpen() || pane->isReconnecting())
            continue;
        pane->applySettings(m_lastUsed.connection, m_lastUsed.pane,
                            state.hasSendHistory ? state.sendHistory : pane->sendHistory());
    }
    markModified();
}

void MainWindow::chooseLanguage(int value)
{
    QSettings settings;
    LanguageChoice::store(settings, value);
    QMessageBox::information(this, tr("Tessaline"),
                             tr("The changes will take effect when the program is restarted."));
}
