#include "terminal/serialportwidget.h"

#include "common/logging.h"
#include "terminal/panequicksettings.h"
#include "connection/connectioncontroller.h"
#include "connection/serialportwatcher.h"
#include "settings/connectionsettingswidget.h"
#include "terminal/controllinelights.h"
#include "terminal/drainshare.h"
#include "terminal/ledindicator.h"
#include "terminal/paneoptionsform.h"
#include "terminal/receivefindbar.h"
#include "terminal/receiveview.h"
#include "terminal/sendframebuilder.h"
#include "common/wiretextcodecregistry.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSaveFile>
#include <QShortcut>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QSplitter>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>


SerialPortWidget::SerialPortWidget(int paneId, QWidget *parent)
    : QWidget(parent)
    , m_session(new PortSession(paneId, this))
    , m_refreshTimer(new QTimer(this))
    , m_targetTimer(new QTimer(this))
{
    ui.setupUi(this);
    setObjectName(QStringLiteral("SerialPortWidget%1").arg(paneId));

    connect(m_refreshTimer, &QTimer::timeout, this, &SerialPortWidget::onRefreshDisplay);
    m_targetTimer->setSingleShot(true);
    m_targetTimer->setInterval(kTargetRefreshMs);
    connect(m_targetTimer, &QTimer::timeout, this, [this] {
        if (std::exchange(m_targetsStale, false)) {
            updateTargets();
            m_targetTimer->start();
        }
    });
    connect(ui.receiveView, &ReceiveView::trimmed, ui.findBar, &ReceiveFindBar::shiftMatches);
    connect(ui.receiveView, &QWidget::customContextMenuRequested, this, &SerialPortWidget::onReceiveContextMenuRequested);
    connect(ui.receiveView, &ReceiveView::textTyped, this, &SerialPortWidget::onTerminalKeys);
    connect(ui.receiveView, &ReceiveView::enterPressed, this, [this] {
        onTerminalKeys(SendFrameBuilder::lineEndingText(paneOptions().terminalEnterMode));
    });
    connect(ui.sendTextEdit, &QPlainTextEdit::textChanged, this,
            [this] { m_session->setSendText(ui.sendTextEdit->toPlainText()); });
    connect(ui.targetBox, &QComboBox::currentIndexChanged, this, &SerialPortWidget::updateSendTarget);
    auto *find = new QShortcut(QKeySequence::Find, this);
    find->setContext(Qt::WidgetWithChildrenShortcut);
    connect(find, &QShortcut::activated, this, &SerialPortWidget::openFindBar);
    auto *sendShortcut = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Return), ui.sendTextEdit);
    sendShortcut->setContext(Qt::WidgetShortcut);
    connect(sendShortcut, &QShortcut::activated, this, &SerialPortWidget::on_sendButton_clicked);

    connectSession();
    connectOptionWidgets();
    QMetaObject::connectSlotsByName(this);

    SerialPortWatcher *watcher = SerialPortWatcher::instance();
    connect(watcher, &SerialPortWatcher::portsChanged, this, &SerialPortWidget::onRefreshAvalablePorts);
    watcher->subscribe(this);
    onRefreshAvalablePorts();
    applySettings(m_session->config(), m_session->options(), {});
    changeConnState(false);

    m_sinceStart.start();
    m_refreshTimer->start(kRefreshIntervalMs);
}

SerialPortWidget::~SerialPortWidget()
{
    DrainShare::setWaiting(this, false);
}

ReceiveView *SerialPortWidget::receiveView() const
{
    return ui.receiveView;
}

// ---------------------------------------------------------------- settings

void SerialPortWidget::applySettings(const ConnectionConfig &config, const PaneOptions &options,
                                     const QStringList &sendHistory)
{
    m_loading = true;
    ConnectionConfig chosen = config;
    // With no port chosen yet the form offers the first one; that is the one
    // an open uses.
    if (chosen.mode == ConnectionMode::Serial && chosen.portName.isEmpty()) {
        ui.connectionSettings->setConfig(chosen);
        chosen.portName = ui.connectionSettings->config().portName;
    }
    m_session->applySettings(chosen, options, sendHistory);
    showOptions();
    updateOpenState();
    updateTargets();
    m_loading = false;
}

void SerialPortWidget::showOptions()
{
    PaneOptions options = m_session->options();
    if (!PaneOptionsForm::show(ui, options)) {
        qCWarning(lcTerminal) << "updateDisplay: SendChecksum mode not found:" << options.sendChecksum;
        options.sendChecksum = 0;
        m_session->setOptions(options);
    }
    ui.connectionSettings->setConfig(m_session->config());
    ui.indicatorLights->setLevels(m_session->config().dtrOn, m_session->config().rtsOn);
    showSendHistory();
}

void SerialPortWidget::showSendHistory()
{
    const QSignalBlocker blocker(ui.sendBox);
    ui.sendBox->clear();
    ui.sendBox->addItems(m_session->sendHistory());
    ui.sendBox->setCurrentIndex(-1);
}

PaneOptions SerialPortWidget::optionsFromWidgets() const
{
    return PaneOptionsForm::read(ui, m_session->options());
}

void SerialPortWidget::takeOptionsFromWidgets()
{
    const PaneOptions before = m_session->options();
    if (const Result r = m_session->setOptions(optionsFromWidgets()); !r) {
        showFailure(r.errorText());
        PaneOptionsForm::showEncodings(ui, before.receiveEncoding, before.sendEncoding);
    }
}

void SerialPortWidget::connectOptionWidgets()
{
    auto changed = [this] {
        if (m_loading)
            return;
        const PaneOptions before = m_session->options();
        takeOptionsFromWidgets();
        if (!(m_session->options() == before))
            announceSettingsChange();
    };
    for (QComboBox *box : {ui.receiveFormatBox, ui.rxLineEndingBox, ui.txLineEndingBox, ui.sendTimeUnitBox,
                           ui.receiveEncodingBox, ui.sendEncodingBox})
        connect(box, &QComboBox::activated, this, changed);
    for (QCheckBox *box : {ui.displayTimeBox, ui.displaySendBox, ui.hexSendBox, ui.appendLineEndingBox,
                           ui.localEchoBox})
        connect(box, &QCheckBox::toggled, this, changed);
    connect(ui.autoFeedIntervalSB, &QSpinBox::valueChanged, this, changed);
    connect(ui.displayBufferSB, &QSpinBox::editingFinished, this, changed);
    connect(ui.sendTimeUnitBox, &QComboBox::activated, this, [this] { m_session->restartAutoSend(); });
    connect(ui.splitter, &QSplitter::splitterMoved, this, changed);
    // A running log follows a new folder at once (the session restarts it).
    connect(ui.logFolderEdit, &QLineEdit::editingFinished, this, changed);
    connect(ui.logSaveBox, &QCheckBox::toggled, this, [this](bool on) {
        if (m_loading)
            return;
        m_session->setLogEnabled(on);
        announceSettingsChange();
    });

    connect(ui.connectionSettings, &ConnectionSettingsWidget::serialParametersEdited, this,
            &SerialPortWidget::onSerialParamsEdited);
    connect(ui.connectionSettings, &ConnectionSettingsWidget::connectionEdited, this,
            &SerialPortWidget::onConnectionConfigChanged);
    connect(ui.connectionSettings, &ConnectionSettingsWidget::relayTargetRequested, this,
            &SerialPortWidget::relayTargetRequested);

    auto lineToggled = [this](bool dtr, bool on) {
        m_session->setControlLine(dtr, on);
        // A refused change (a transfer runs) shows the levels kept.
        ui.indicatorLights->setLevels(connectionConfig().dtrOn, connectionConfig().rtsOn);
    };
    connect(ui.indicatorLights, &ControlLineLights::dtrToggled, this, [lineToggled](bool on) { lineToggled(true, on); });
    connect(ui.indicatorLights, &ControlLineLights::rtsToggled, this, [lineToggled](bool on) { lineToggled(false, on); });
    connect(ui.indicatorLights, &ControlLineLights::breakPressed, this, [this] { m_session->sendBreak(true); });
    connect(ui.indicatorLights, &ControlLineLights::breakReleased, this, [this] { m_session->sendBreak(false); });
}

void SerialPortWidget::announceSettingsChange()
{
    if (!m_loading)
        Q_EMIT settingsChanged();
}

void SerialPortWidget::connectSession()
{
    PortSession *s = m_session;
    connect(s, &PortSession::statusMessage, this, &SerialPortWidget::statusMessage);
    connect(s, &PortSession::bridgeLinksChanged, this, &SerialPortWidget::updateBridgeBadge);
    connect(s, &PortSession::failure, this, &SerialPortWidget::showFailure);
    connect(s, &PortSession::failureCleared, ui.errorLabel, &QWidget::hide);
    connect(s, &PortSession::waiting, this, [this](const QString &text) {
        ui.errorLabel->setText(text);
        ui.errorLabel->show();
    });
    connect(s, &PortSession::logFailed, this, [this](const QString &text) {
        // Not modal: the port keeps running while the box is up.
        auto *box = new QMessageBox(QMessageBox::Warning, tr("Warning"), text, QMessageBox::Ok, this);
        box->setObjectName(QStringLiteral("logWarning"));
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
    });
    connect(s, &PortSession::stateChanged, this, [this] { changeConnState(m_session->isStarted()); });
    connect(s, &PortSession::targetsChanged, this, &SerialPortWidget::scheduleTargetUpdate);
    connect(s, &PortSession::peerArrived, this, &SerialPortWidget::peerArrived);
    connect(s, &PortSession::peerLost, this, &SerialPortWidget::peerLost);
    connect(s, &PortSession::settingsChanged, this, &SerialPortWidget::announceSettingsChange);
    connect(s, &PortSession::transferStateChanged, this, &SerialPortWidget::onTransferStateChanged);
    connect(s, &PortSession::echoQueued, this, [this] {
        if (viewState() == ViewState::Normal)
            drain(-1);
    });
    connect(s, &PortSession::flushViewRequested, this, [this] { drain(-1); });
    connect(s, &PortSession::historyChanged, this, &SerialPortWidget::showSendHistory);
    connect(s, &PortSession::configChanged, this, [this] {
        const bool wasLoading = std::exchange(m_loading, true);
        ui.connectionSettings->setConfig(m_session->config());
        m_loading = wasLoading;
    });
    connect(s, &PortSession::received, ui.indicatorLights->rxLight(), &LedIndicator::blink);
    connect(s, &PortSession::sent, ui.indicatorLights->txLight(), &LedIndicator::blink);
    connect(s, &PortSession::rxTapped, this, &SerialPortWidget::rxTapped);
    connect(s, &PortSession::note, this, [this](const QString &text) {
        // After what arrived before it, not in the middle of the queue.
        if (viewState() == ViewState::Normal)
            drain(-1);
        writeNote(text);
    });
    connect(s, &PortSession::remoteLinesChanged, this, [this] {
        using Bit = Rfc2217ClientSession::ModemStateBit;
        const quint8 state = m_session->remoteModemState();
        ui.indicatorLights->setInputLevels(state & Bit::Cts, state & Bit::Dsr, state & Bit::RingIndicator,
                                           state & Bit::CarrierDetect);
    });
}

// ------------------------------------------------------------ receive path

void SerialPortWidget::onReadData()
{
    m_session->readPending();
}

void SerialPortWidget::onRefreshDisplay()
{
    // The three options the tick keeps current: time display, the automatic
    // line-feed interval and the receive line-ending mode.
    const PaneOptions &o = m_session->options();
    const bool time = ui.displayTimeBox->isChecked();
    const int interval = ui.autoFeedIntervalSB->value();
    const auto ending = LineEnding(ui.rxLineEndingBox->currentData().toInt());
    if (time != o.displayTime || interval != o.autoFeedInterval || ending != o.rxLineEnding)
        takeOptionsFromWidgets();
    if (viewState() == ViewState::Normal)
        displayPortBuffer(ReceiveIngest::kRefreshByteBudget);
    else
        DrainShare::setWaiting(this, false);  // a paused view takes no share
    updateCounters();
    if (m_memoryReturn.update(qint64(m_session->rxCount() + m_session->txCount()), m_sinceStart.elapsed()))
        IdleMemoryReturn::release();
}

void SerialPortWidget::displayPortBuffer(qint64 byteBudget)
{
    drain(byteBudget);
}

void SerialPortWidget::drain(qint64 byteBudget)
{
    QElapsedTimer clock;
    clock.start();
    const bool everything = byteBudget < 0;
    const qint64 limitMs = DrainShare::limitMs(kDrainTimeLimitMs);
    // New chunks are formatted only once what was formatted before is in,
    // so the view shows everything in order.
    if (m_viewBacklog.isEmpty() || everything) {
        const QList<DisplayChunk> chunks = m_session->takeForView(byteBudget, everything ? -1 : limitMs);
        m_drainSegments = &m_viewBacklog;
        for (const DisplayChunk &chunk : chunks)
            decodeBufferForUi(chunk);
        m_drainSegments = nullptr;
        m_backlogChars = 0;
        for (const ReceiveView::Segment &segment : std::as_const(m_viewBacklog))
            m_backlogChars += segment.text.size();
    }
    if (!m_viewBacklog.isEmpty()) {
        const QList<ReceiveView::Segment> segments = takeBacklog(everything ? m_backlogChars : m_charBudget);
        qsizetype inserted = 0;
        for (const ReceiveView::Segment &segment : segments)
            inserted += segment.text.size();
        ui.receiveView->appendSegments(segments);
        ui.receiveView->trimIfOver(m_session->options().displayBufferSize);
        if (ui.findBar->isActive())
            ui.findBar->refreshMatches();
        if (!everything) {
            // Formatting is bounded by the time limit, laying out is not:
            // adapt the next insert to how long this one took in all, with
            // the paint that laid out what the one before brought.
            const qint64 took = clock.elapsed() + ui.receiveView->takeSlowestPaintMs();
            if (took > limitMs)  // down to what half the limit would have laid out
                m_charBudget = qMax(inserted * limitMs / (2 * took), kMinCharBudget);
            else if (took * 2 < limitMs)
                m_charBudget = qMin(m_charBudget * 2, kMaxCharBudget);
        }
    }
    DrainShare::setWaiting(this, pendingDisplayBytes() > 0);
}

QList<ReceiveView::Segment> SerialPortWidget::takeBacklog(qsizetype maxChars)
{
    QList<ReceiveView::Segment> taken;
    qsizetype room = maxChars;
    while (!m_viewBacklog.isEmpty() && room > 0) {
        ReceiveView::Segment &first = m_viewBacklog.first();
        if (first.text.size() <= room) {
            room -= first.text.size();
            taken.append(m_viewBacklog.takeFirst());
            continue;
        }
        qsizetype cut = room;
        if (first.text.at(cut - 1).isHighSurrogate())
            --cut;  // a character is never split
        if (cut == 0)
            break;
        taken.append(ReceiveView::Segment{first.text.left(cut), first.color});
        first.text.remove(0, cut);
        room -= cut;
        break;
    }
    if (taken.isEmpty() && !m_viewBacklog.isEmpty())
        taken.append(m_viewBacklog.takeFirst());
    for (const ReceiveView::Segment &segment : std::as_const(taken))
        m_backlogChars -= segment.text.size();
    return taken;
}

QString SerialPortWidget::decodeBufferForUi(const DisplayChunk &rxData)
{
    DisplayFormatter::StampPlaces stamps;
    const QString formatted = m_session->viewFormatter().format(rxData, &stamps);
    if (formatted.isEmpty())
        return formatted;
    const PaneOptions &o = m_session->options();
    const QColor color = viewColor(rxData.isReceived() ? o.receiveTextColor : o.sendTextColor);
    const QColor stampColor = viewColor(o.formatDisplayColor);
    if (stamps.starts.isEmpty() || stampColor == color)
        return addToView(formatted, color);
    // Timestamps in their own colour, the text between them in its
    // direction's; the line breaker sees the pieces in order.
    QString shown;
    qsizetype pos = 0;
    for (const qsizetype start : std::as_const(stamps.starts)) {
        if (start > pos)
            shown += addToView(QStringView(formatted).mid(pos, start - pos), color);
        shown += addToView(QStringView(formatted).mid(start, stamps.length), stampColor);
        pos = start + stamps.length;
    }
    if (pos < formatted.size())
        shown += addToView(QStringView(formatted).mid(pos), color);
    return shown;
}

QColor SerialPortWidget::viewColor(const QString &name)
{
    const QColor color(name);
    // Black is the view's own text colour (a dark theme shows it light).
    return color == QColor(Qt::black) ? QColor() : color;
}

QString SerialPortWidget::addToView(QStringView formatted, const QColor &color)
{
    const QString text = m_lineBreaker.apply(formatted);
    if (text.isEmpty())
        return text;
    if (!m_drainSegments) {
        ui.receiveView->appendSegments({ReceiveView::Segment{text, color}});
    } else if (!m_drainSegments->isEmpty() && m_drainSegments->constLast().color == color) {
        m_drainSegments->last().text += text;
    } else {
        m_drainSegments->append(ReceiveView::Segment{text, color});
    }
    return text;
}

QString SerialPortWidget::decodeBufferForLog(const DisplayChunk &buffer)
{
    return m_session->formatForLog(buffer);
}

// --------------------------------------------------------------- send path

void SerialPortWidget::on_sendButton_clicked()
{
    if (!m_session->isStarted()) {
        openConnection();
        return;
    }
    if (isTransferActive()) {
        Q_EMIT statusMessage(tr("A file transfer is using this port. Sending data now would corrupt it."), 5000);
        return;
    }
    QString normalised;
    const QString text = ui.sendTextEdit->toPlainText();
    if (m_session->sendText(text, &normalised) && !normalised.isEmpty())
        ui.sendTextEdit->setPlainText(normalised);
}

void SerialPortWidget::onTerminalKeys(const QString &text)
{
    if (text.isEmpty())
        return;
    if (!m_session->isStarted()) {
        Q_EMIT statusMessage(tr("The connection is not open."), 3000);
        return;
    }
    if (isTransferActive()) {
        Q_EMIT statusMessage(tr("A file transfer is using this port. Sending data now would corrupt it."), 5000);
        return;
    }
    const auto codec = WireTextCodecRegistry::resolve(paneOptions().sendEncoding);
    if (!codec) {
        showFailure(codec.errorText());
        return;
    }
    const auto bytes = codec.value().encode(text);
    if (!bytes) {
        showFailure(bytes.errorText());
        return;
    }
    m_session->sendBytes(bytes.value(), paneOptions().localEcho);
}

void SerialPortWidget::onSendData()
{
    m_session->onSendData();
}

void SerialPortWidget::on_autoSendBox_clicked()
{
    m_refreshTimer->setInterval(kRefreshIntervalMs);
    qCDebug(lcTerminal) << "Change refresh timer to" << kRefreshIntervalMs;
    takeOptionsFromWidgets();
    m_session->resetLineStepper();
    m_session->restartAutoSend();
    announceSettingsChange();
}

void SerialPortWidget::on_sendIntervelSB_valueChanged(int value)
{
    Q_UNUSED(value);
    if (m_loading)
        return;
    takeOptionsFromWidgets();
    announceSettingsChange();
}

void SerialPortWidget::on_cbLinebyLine_stateChanged(int state)
{
    Q_UNUSED(state);
    if (m_loading)
        return;
    takeOptionsFromWidgets();
    m_session->resetLineStepper();
    announceSettingsChange();
}

void SerialPortWidget::on_sendChecksumBox_activated(int index)
{
    Q_UNUSED(index);
    takeOptionsFromWidgets();
    announceSettingsChange();
}

void SerialPortWidget::on_terminalEnterBox_currentIndexChanged(int index)
{
    Q_UNUSED(index);
    if (m_loading)
        return;
    takeOptionsFromWidgets();
    announceSettingsChange();
}

void SerialPortWidget::on_sendBox_activated(int index)
{
    const QStringList &history = m_session->sendHistory();
    if (index < 0 || index >= history.size())
        return;
    ui.sendTextEdit->setPlainText(history.at(index));
    if (m_session->isStarted() && !isTransferActive())
        on_sendButton_clicked();
}

void SerialPortWidget::setSendText(const QString &text)
{
    ui.sendTextEdit->setPlainText(text);
}

QString SerialPortWidget::sendText() const
{
    return ui.sendTextEdit->toPlainText();
}

// ------------------------------------------------------------ pane control

bool SerialPortWidget::openConnection(const QString &portName, bool silent)
{
    return m_session->openConnection(portName, silent);
}

void SerialPortWidget::closeConnection()
{
    m_session->closeConnection();
}

void SerialPortWidget::on_closeButton_clicked()
{
    closeConnection();
}

void SerialPortWidget::onSerialPortLost()
{
    m_session->onSerialPortLost();
}

void SerialPortWidget::disconnectTcpClient()
{
    m_session->onStreamDisconnected();
}

void SerialPortWidget::onReconnectTick()
{
    m_session->onReconnectTick();
}

void SerialPortWidget::disarmReconnect()
{
    m_session->disarmReconnect();
    updateOpenState();
}

void SerialPortWidget::changeConnState(bool open)
{
    if (!open || isReconnecting()) {
        ui.indicatorLights->txLight()->switchOff();
        ui.indicatorLights->rxLight()->switchOff();
    }
    updateOpenState();
}

void SerialPortWidget::updateOpenState()
{
    const bool open = m_session->isStarted();
    ui.sendButton->setText(open ? tr("Send") : tr("Open"));
    ui.closeButton->setEnabled(open);
    ui.statusLabel->setText(m_session->statusLine());
    ui.statusLabel->setToolTip(ui.statusLabel->text());
    updateControlLineAvailability();
}

void SerialPortWidget::onRefreshAvalablePorts()
{
    QList<ConnectionSettingsWidget::PortEntry> ports;
    for (const SerialPortWatcher::Port &port : SerialPortWatcher::instance()->ports())
        ports.append({port.name, port.description});
    QStringList names;
    for (const auto &p : ports)
        names.append(p.name);
    if (ports.isEmpty())
        names.append(ConnectionSettingsWidget::defaultPortName());
    if (names == ui.connectionSettings->listedPortNames())
        return;
    qCDebug(lcTerminal) << "Refill Ports Info.";
    ui.connectionSettings->setAvailablePorts(ports);
}

void SerialPortWidget::setRelayTarget(const ConnectionConfig &target)
{
    m_session->setConnectionConfig(target);
    const bool wasLoading = std::exchange(m_loading, true);
    ui.connectionSettings->setConfig(m_session->config());
    m_loading = wasLoading;
}

void SerialPortWidget::onSerialParamsEdited()
{
    m_loading = true;
    const Result applied = m_session->setSerialParameters(ui.connectionSettings->config());
    m_loading = false;
    if (!applied)
        ui.connectionSettings->setConfig(m_session->config());
}

void SerialPortWidget::onConnectionConfigChanged()
{
    const ConnectionConfig edited = ui.connectionSettings->config();
    if (isTransferActive()) {
        m_session->setConnectionConfig(edited);  // refused, with its message
        ui.connectionSettings->setConfig(m_session->config());
        return;
    }
    if (edited.mode == ConnectionMode::TcpServer && viewState() == ViewState::Normal)
        drain(-1);
    m_session->setConnectionConfig(edited);
}

void SerialPortWidget::changeUdpConnState()
{
    scheduleTargetUpdate();
}

void SerialPortWidget::scheduleTargetUpdate()
{
    // The first change shows at once; a stream of them is gathered into one
    // refill per interval, so a thousand clients cost a few refills.
    if (m_targetTimer->isActive()) {
        m_targetsStale = true;
        return;
    }
    updateTargets();
    m_targetTimer->start();
}

void SerialPortWidget::updateTargets()
{
    QStringList labels;
    QString allText;
    const ConnectionMode mode = connectionConfig().mode;
    if (mode == ConnectionMode::TcpServer) {
        labels = controller()->serverClientLabels();
        allText = tr("All clients");
    } else if (mode == ConnectionMode::UdpServer) {
        for (const auto &peer : controller()->udpPeers())
            labels.append(peer.key());
        allText = tr("Last peer heard");
    }
    const bool show = !allText.isEmpty();
    ui.targetBox->setVisible(show);
    if (!show) {
        m_session->setSendTarget({});
        return;
    }
    const QString current = ui.targetBox->currentText();
    {
        const QSignalBlocker blocker(ui.targetBox);
        ui.targetBox->clear();
        ui.targetBox->addItem(allText);
        ui.targetBox->addItems(labels);
        const int keep = ui.targetBox->findText(current);
        ui.targetBox->setCurrentIndex(keep >= 0 ? keep : 0);
    }
    updateSendTarget();
}

void SerialPortWidget::updateSendTarget()
{
    SendTarget target;
    if (!ui.targetBox->isHidden() && ui.targetBox->currentIndex() > 0) {
        if (connectionConfig().mode == ConnectionMode::TcpServer)
            target.clientLabel = ui.targetBox->currentText();
        else
            target.index = ui.targetBox->currentIndex() - 1;
    }
    m_session->setSendTarget(target);
}

void SerialPortWidget::updateControlLineAvailability()
{
    using A = ControlLineLights::Availability;
    const ConnectionConfig &config = m_session->config();
    A availability = A::NoSerialPort;
    switch (config.mode) {
    case ConnectionMode::Serial:
        availability = config.flowControl == QSerialPort::HardwareControl ? A::RtsByFlowControl : A::SerialPort;
        break;
    case ConnectionMode::RemoteSerialRfc2217:
        availability = config.useRemoteSerialConfig ? A::RemoteOwnConfig : A::RemoteSerialPort;
        break;
    case ConnectionMode::RemoteSerialRelay:
        availability = A::RelayedPort;
        break;
    default:
        break;
    }
    ui.indicatorLights->setAvailability(availability);
}

// -------------------------------------------------------------------- view

void SerialPortWidget::setPaused(bool paused)
{
    if (paused == (viewState() == ViewState::Paused) || isTransferActive())
        return;
    {
        const QSignalBlocker blocker(ui.pauseButton);
        ui.pauseButton->setChecked(paused);
    }
    m_session->setPaused(paused);
    if (!paused)
        drain(-1);  // what was kept is shown now
}

void SerialPortWidget::on_pauseButton_toggled(bool checked)
{
    setPaused(checked);
}

void SerialPortWidget::clearDisplay()
{
    // Queued bytes are taken off first, so they do not show up after.
    if (viewState() == ViewState::Normal)
        drain(-1);
    ui.receiveView->clear();
    m_session->viewFormatter().setEndsWithLineFeed(true);
    m_lineBreaker.reset();
    if (ui.findBar->isVisible())
        ui.findBar->setPattern(ui.findBar->pattern());
}

void SerialPortWidget::on_clearButton_clicked()
{
    clearDisplay();
}

void SerialPortWidget::writeNote(const QString &note)
{
    ui.receiveView->writeNote(note);
    m_session->viewFormatter().setEndsWithLineFeed(true);
    m_lineBreaker.reset();
}

void SerialPortWidget::openFindBar()
{
    ui.findBar->open();
}

void SerialPortWidget::on_findButton_clicked()
{
    openFindBar();
}

void SerialPortWidget::resetCounters()
{
    m_session->resetCounters();
    updateCounters();
}

void SerialPortWidget::on_resetCountersButton_clicked()
{
    resetCounters();
}

void SerialPortWidget::updateCounters()
{
    ui.txCountLabel->setText(tr("Tx: %L1 Bytes").arg(txCount()));
    ui.rxCountLabel->setText(tr("Rx: %L1 Bytes").arg(rxCount()));
}

void SerialPortWidget::onReceiveContextMenuRequested(const QPoint &pos)
{
    QMenu *menu = ui.receiveView->createStandardContextMenu(pos);
    menu->addSeparator();
    menu->addAction(QIcon(QStringLiteral(":/images/resource/find.png")), tr("Find..."), this,
                    &SerialPortWidget::openFindBar);
    const bool paused = viewState() == ViewState::Paused;
    QAction *pause = menu->addAction(QIcon(QStringLiteral(":/images/resource/pause.png")),
                                     paused ? tr("Resume") : tr("Pause"));
    pause->setEnabled(!isTransferActive());
    connect(pause, &QAction::triggered, this, [this, paused] { setPaused(!paused); });
    menu->addAction(QIcon(QStringLiteral(":/images/resource/cleanport.png")), tr("Clear"), this,
                    &SerialPortWidget::clearDisplay);
    menu->addAction(QIcon(QStringLiteral(":/images/resource/save_as.png")), tr("Save View As..."), this, [this] {
        const QString path = QFileDialog::getSaveFileName(this, tr("Save View As"), QString(),
                                                          tr("Text files (*.txt);;All files (*)"));
        if (path.isEmpty())
            return;
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(ui.receiveView->toPlainText().toUtf8()) < 0
            || !file.commit())
            showFailure(tr("Could not save '%1': %2").arg(path, file.errorString()));
    });
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(ui.receiveView->viewport()->mapToGlobal(pos));
}

void SerialPortWidget::showFailure(const QString &text)
{
    ui.errorLabel->setText(text);
    ui.errorLabel->show();
    Q_EMIT statusMessage(text, 5000);
}

// ----------------------------------------------------------- transfer lock

void SerialPortWidget::updateBridgeBadge()
{
    const QStringList links = m_session->bridgeLinks();
    ui.bridgeBadge->setVisible(!links.isEmpty());
    if (links.isEmpty())
        return;
    ui.bridgeBadge->setText(tr("⇄ Bridged: %1").arg(links.join(QStringLiteral(", "))));
    ui.bridgeBadge->setToolTip(tr("This port is part of a bridge link (Tools > Bridges...): what it receives is "
                                  "forwarded, and file transfers are refused while the link runs."));
}

void SerialPortWidget::addStrip(QWidget *strip)
{
    ui.stripLayout->addWidget(strip);
}

void SerialPortWidget::onTransferStateChanged(bool active)
{
    ui.connectionSettings->setLocked(active);
    ui.indicatorLights->setLocked(active);
    ui.pauseButton->setEnabled(!active);
    if (!active)
        ui.indicatorLights->setLevels(connectionConfig().dtrOn, connectionConfig().rtsOn);
    Q_EMIT transferStateChanged(active);
}

// ---------------------------------------------------------------- data log

void SerialPortWidget::on_logFolderButton_clicked()
{
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Log Folder"), paneOptions().logFilePath);
    if (folder.isEmpty())
        return;
    ui.logFolderEdit->setText(folder);
    Q_EMIT ui.logFolderEdit->editingFinished();
}

void SerialPortWidget::applyQuickSettings(const QuickSettingsLayout &layout, bool shown)
{
    PaneQuickSettings::apply(ui, layout, shown);
    ui.indicatorLights->setVisible(m_session->options().showControlLineLeds && PaneQuickSettings::lightsWanted(ui));
}
