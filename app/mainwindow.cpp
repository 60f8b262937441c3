#include "app/mainwindow.h"

#include "app/languagechoice.h"
#include "common/logging.h"
#include "app/windowplacement.h"
#include "terminal/serialportwidget.h"
#include "tools/asciicode.h"
#include "tools/hexparser.h"
#include "tools/modbusbuilderdialog.h"
#include "tools/toolbox.h"
#include "ui_mainwindow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QGuiApplication>
#include <QMessageBox>
#include <QScreen>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QVBoxLayout>

MainWindow::MainWindow(QWidget *parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
{
    ui->setupUi(this);
    auto *layout = new QVBoxLayout(ui->portArea);
    layout->setContentsMargins(0, 0, 0, 0);
    m_portSplitter = new QSplitter(Qt::Vertical, ui->portArea);
    m_portSplitter->setObjectName(QStringLiteral("portSplitter"));
    m_portSplitter->setHandleWidth(8);
    m_portSplitter->setChildrenCollapsible(false);
    layout->addWidget(m_portSplitter);

    QSettings settings;
    m_lastUsed.load(settings);
    {
        const QSignalBlocker b1(ui->acControlOpen);
        const QSignalBlocker b2(ui->acAutoReconnect);
        ui->acControlOpen->setChecked(LastUsedRecord::readOpenLastConnection(settings));
        ui->acAutoReconnect->setChecked(LastUsedRecord::readAutoReconnect(settings));
    }
    m_lastUsed.openLastConnection = ui->acControlOpen->isChecked();
    m_lastUsed.autoReconnect = ui->acAutoReconnect->isChecked();
    addPane();
    m_focusConnection = connect(qApp, &QApplication::focusChanged, this, [this](QWidget *, QWidget *now) {
        for (QWidget *w = now; w; w = w->parentWidget()) {
            if (auto *pane = qobject_cast<SerialPortWidget *>(w)) {
                m_lastFocusedPane = pane;
                return;
            }
        }
    });
}

SerialPortWidget *MainWindow::addPane()
{
    auto *pane = new SerialPortWidget(int(m_panes.size()) + 1, m_portSplitter);
    pane->applySettings(m_lastUsed.connection, m_lastUsed.pane, m_lastUsed.sendList);
    pane->setAutoReconnect(ui->acAutoReconnect->isChecked());
    m_portSplitter->addWidget(pane);
    m_panes.append(pane);
    connect(pane, &SerialPortWidget::statusMessage, this,
            [this](const QString &text, int timeoutMs) { statusBar()->showMessage(text, timeoutMs); });
    connect(pane, &SerialPortWidget::settingsChanged, this, [this, pane] { saveLastUsed(pane); });
    return pane;
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
    QSettings settings;
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

void MainWindow::chooseLanguage(int value)
{
    QSettings settings;
    LanguageChoice::store(settings, value);
    QMessageBox::information(this, tr("Tessaline"),
                             tr("The changes will take effect when the program is restarted."));
}
