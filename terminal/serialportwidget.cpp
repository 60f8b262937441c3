#include "terminal/serialportwidget.h"

#include "common/logging.h"
#include "connection/connectioncontroller.h"
#include "connection/serialparametertext.h"
#include "settings/connectionsettingswidget.h"
#include "terminal/controllinelights.h"
#include "terminal/ledindicator.h"
#include "terminal/receivefindbar.h"
#include "terminal/receiveview.h"
#include "terminal/sendframebuilder.h"
#include "terminal/wiretextcodecregistry.h"
#include "tools/sendchecksum.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMetaMethod>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSaveFile>
#include <QSerialPortInfo>
#include <QShortcut>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QSplitter>
#include <QTimer>
#include <QToolButton>

namespace {

void selectData(QComboBox *box, int value)
{
    const int index = box->findData(value);
    box->setCurrentIndex(index >= 0 ? index : 0);
}

void selectText(QComboBox *box, const QString &text)
{
    const int index = box->findText(text, Qt::MatchFixedString);
    if (index >= 0) {
        box->setCurrentIndex(index);
    } else {
        // A stored encoding the list does not offer still counts.
        box->addItem(text);
        box->setCurrentIndex(box->count() - 1);
    }
}

QString flowWord(QSerialPort::FlowControl flow)
{
    switch (flow) {
    case QSerialPort::HardwareControl: return QStringLiteral("Hardware");
    case QSerialPort::SoftwareControl: return QStringLiteral("Xon/Xoff");
    default: return QStringLiteral("NONE");
    }
}

} // namespace

SerialPortWidget::SerialPortWidget(int paneId, QWidget *parent)
    : QWidget(parent)
    , m_paneId(paneId)
    , m_controller(new ConnectionController(this))
    , m_refreshTimer(new QTimer(this))
    , m_sendTimer(new QTimer(this))
    , m_portListTimer(new QTimer(this))
    , m_reconnectTimer(new QTimer(this))
    , m_saveTimer(new QTimer(this))
{
    ui.setupUi(this);
    setObjectName(QStringLiteral("SerialPortWidget%1").arg(paneId));

    connect(m_refreshTimer, &QTimer::timeout, this, &SerialPortWidget::onRefreshDisplay);
    connect(m_sendTimer, &QTimer::timeout, this, &SerialPortWidget::onSendData);
    connect(m_portListTimer, &QTimer::timeout, this, &SerialPortWidget::onRefreshAvalablePorts);
    m_reconnectTimer->setInterval(kReconnectIntervalMs);
    connect(m_reconnectTimer, &QTimer::timeout, this, &SerialPortWidget::onReconnectTick);
    m_saveTimer->setInterval(kSaveIntervalMs);
    connect(m_saveTimer, &QTimer::timeout, this, &SerialPortWidget::onSaveTick);

    connect(ui.receiveView, &ReceiveView::trimmed, ui.findBar, &ReceiveFindBar::shiftMatches);
    connect(ui.receiveView, &QWidget::customContextMenuRequested, this, &SerialPortWidget::onReceiveContextMenuRequested);
    connect(ui.receiveView, &ReceiveView::textTyped, this, &SerialPortWidget::onTerminalKeys);
    connect(ui.receiveView, &ReceiveView::enterPressed, this, [this] {
        onTerminalKeys(SendFrameBuilder::lineEndingText(m_options.terminalEnterMode));
    });
    auto *find = new QShortcut(QKeySequence::Find, this);
    find->setContext(Qt::WidgetWithChildrenShortcut);
    connect(find, &QShortcut::activated, this, &SerialPortWidget::openFindBar);
    auto *sendShortcut = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Return), ui.sendTextEdit);
    sendShortcut->setContext(Qt::WidgetShortcut);
    connect(sendShortcut, &QShortcut::activated, this, &SerialPortWidget::on_sendButton_clicked);

    connectController();
    connectOptionWidgets();
    QMetaObject::connectSlotsByName(this);

    onRefreshAvalablePorts();
    applySettings(m_config, m_options, {});
    changeConnState(false);

    m_refreshTimer->start(kRefreshIntervalMs);
    m_portListTimer->start(kPortListIntervalMs);
}

SerialPortWidget::~SerialPortWidget()
{
    // Whatever the log still holds is written before the pane goes.
    if (m_log.isOpen())
        m_log.close();
}

QString SerialPortWidget::connectionLabel() const
{
    return ::connectionLabel(m_config.mode, m_paneId);
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
    m_config = config;
    m_options = options;
    m_history.setEntries(sendHistory);
    m_controller->setStoredLineLevels(config.dtrOn, config.rtsOn);
    showOptions();
    m_ingest.setDisplayBufferSize(m_options.displayBufferSize);
    m_viewFormatter.setOptions(DisplayFormatter::Options::fromPaneOptions(m_options));
    m_logFormatter.setOptions(DisplayFormatter::Options::fromPaneOptions(m_options));
    for (DisplayFormatter *f : {&m_viewFormatter, &m_logFormatter}) {
        if (const Result r = f->setReceiveEncoding(m_options.receiveEncoding); !r)
            showFailure(r.errorText());
        f->setSendEncoding(m_options.sendEncoding);
    }
    if (const auto codec = WireTextCodecRegistry::resolve(m_options.receiveEncoding))
        m_consoleDecoder = WireTextDecoder(codec.value());
    // With no port chosen yet the form offers the first one; that is the one
    // an open uses.
    if (m_config.mode == ConnectionMode::Serial && m_config.portName.isEmpty())
        m_config.portName = ui.connectionSettings->config().portName;
    updateOpenState();
    updateTargets();
    m_loading = false;
}

void SerialPortWidget::showOptions()
{
    const PaneOptions &o = m_options;
    const QSignalBlocker blockers[] = {
        QSignalBlocker(ui.receiveFormatBox), QSignalBlocker(ui.receiveEncodingBox),
        QSignalBlocker(ui.displayTimeBox), QSignalBlocker(ui.displaySendBox),
        QSignalBlocker(ui.rxLineEndingBox), QSignalBlocker(ui.autoFeedIntervalSB),
        QSignalBlocker(ui.displayBufferSB), QSignalBlocker(ui.logSaveBox), QSignalBlocker(ui.logFolderEdit),
        QSignalBlocker(ui.hexSendBox), QSignalBlocker(ui.sendEncodingBox),
        QSignalBlocker(ui.appendLineEndingBox), QSignalBlocker(ui.txLineEndingBox),
        QSignalBlocker(ui.sendChecksumBox), QSignalBlocker(ui.terminalEnterBox),
        QSignalBlocker(ui.localEchoBox), QSignalBlocker(ui.autoSendBox), QSignalBlocker(ui.sendIntervelSB),
        QSignalBlocker(ui.sendTimeUnitBox), QSignalBlocker(ui.cbLinebyLine), QSignalBlocker(ui.sendBox),
    };
    ui.connectionSettings->setConfig(m_config);
    ui.indicatorLights->setLevels(m_config.dtrOn, m_config.rtsOn);
    selectData(ui.receiveFormatBox, int(o.receiveFormat));
    selectText(ui.receiveEncodingBox, o.receiveEncoding);
    ui.displayTimeBox->setChecked(o.displayTime);
    ui.displaySendBox->setChecked(o.displaySendMsg);
    selectData(ui.rxLineEndingBox, int(o.rxLineEnding));
    ui.autoFeedIntervalSB->setValue(o.autoFeedInterval);
    ui.displayBufferSB->setValue(o.displayBufferSize);
    ui.logSaveBox->setChecked(o.logSaveFlag);
    ui.logFolderEdit->setText(o.logFilePath);
    ui.hexSendBox->setChecked(o.sendFormat == MessageFormat::Hex);
    selectText(ui.sendEncodingBox, o.sendEncoding);
    ui.appendLineEndingBox->setChecked(o.txAutoFeedLine);
    selectData(ui.txLineEndingBox, int(o.txLineEnding));
    if (ui.sendChecksumBox->findData(o.sendChecksum) < 0) {
        qCWarning(lcTerminal) << "updateDisplay: SendChecksum mode not found:" << o.sendChecksum;
        m_options.sendChecksum = 0;
    }
    selectData(ui.sendChecksumBox, m_options.sendChecksum);
    selectData(ui.terminalEnterBox, int(o.terminalEnterMode));
    ui.localEchoBox->setChecked(o.localEcho);
    ui.autoSendBox->setChecked(o.autoSend);
    ui.sendIntervelSB->setValue(o.sendInterval);
    selectData(ui.sendTimeUnitBox, int(o.sendTimeUnit));
    ui.cbLinebyLine->setChecked(o.lineByLine);
    ui.sendBox->clear();
    ui.sendBox->addItems(m_history.entries());
    ui.sendBox->setCurrentIndex(-1);
    QFont font(o.fontFamily.isEmpty() ? QStringLiteral("DejaVu Sans Mono") : o.fontFamily, o.fontSize);
    font.setStyleHint(QFont::Monospace);
    font.setWeight(QFont::Weight(o.fontWeight));
    ui.receiveView->setFont(font);
    ui.sendTextEdit->setFont(font);
    if (o.splitterLeft > 0 || o.splitterRight > 0)
        ui.splitter->setSizes({o.splitterLeft, o.splitterRight});
}

void SerialPortWidget::readOptionsFromWidgets()
{
    PaneOptions &o = m_options;
    o.receiveFormat = MessageFormat(ui.receiveFormatBox->currentData().toInt());
    o.displayTime = ui.displayTimeBox->isChecked();
    o.displaySendMsg = ui.displaySendBox->isChecked();
    o.rxLineEnding = LineEnding(ui.rxLineEndingBox->currentData().toInt());
    o.rxAutoFeedLine = o.rxLineEnding != LineEnding::None;
    o.autoFeedInterval = ui.autoFeedIntervalSB->value();
    o.displayBufferSize = ui.displayBufferSB->value();
    o.logFilePath = ui.logFolderEdit->text().trimmed();
    o.sendFormat = ui.hexSendBox->isChecked() ? MessageFormat::Hex : MessageFormat::Text;
    o.txAutoFeedLine = ui.appendLineEndingBox->isChecked();
    o.txLineEnding = LineEnding(ui.txLineEndingBox->currentData().toInt());
    o.sendChecksum = ui.sendChecksumBox->currentData().toInt();
    o.terminalEnterMode = LineEnding(ui.terminalEnterBox->currentData().toInt());
    o.localEcho = ui.localEchoBox->isChecked();
    o.autoSend = ui.autoSendBox->isChecked();
    o.sendInterval = ui.sendIntervelSB->value();
    o.sendTimeUnit = SendTimeUnit(ui.sendTimeUnitBox->currentData().toInt());
    o.lineByLine = ui.cbLinebyLine->isChecked();
    const QList<int> sizes = ui.splitter->sizes();
    if (sizes.size() == 2 && (sizes.at(0) > 0 || sizes.at(1) > 0)) {
        o.splitterLeft = sizes.at(0);
        o.splitterRight = sizes.at(1);
    }
    m_ingest.setDisplayBufferSize(o.displayBufferSize);
    const DisplayFormatter::Options display = DisplayFormatter::Options::fromPaneOptions(o);
    if (!(display == m_viewFormatter.options())) {
        // What is queued shows as it was received, before the change.
        drain(-1, true);
        m_viewFormatter.setOptions(display);
        m_logFormatter.setOptions(display);
    }
}

void SerialPortWidget::connectOptionWidgets()
{
    auto changed = [this] {
        if (m_loading)
            return;
        readOptionsFromWidgets();
        announceSettingsChange();
    };
    for (QComboBox *box : {ui.receiveFormatBox, ui.rxLineEndingBox, ui.txLineEndingBox, ui.sendTimeUnitBox})
        connect(box, &QComboBox::activated, this, changed);
    for (QCheckBox *box : {ui.displayTimeBox, ui.displaySendBox, ui.hexSendBox, ui.appendLineEndingBox,
                           ui.localEchoBox})
        connect(box, &QCheckBox::toggled, this, changed);
    connect(ui.autoFeedIntervalSB, &QSpinBox::valueChanged, this, changed);
    connect(ui.displayBufferSB, &QSpinBox::editingFinished, this, changed);
    connect(ui.sendTimeUnitBox, &QComboBox::activated, this, [this] { restartAutoSendTimer(); });
    connect(ui.splitter, &QSplitter::splitterMoved, this, changed);
    connect(ui.logFolderEdit, &QLineEdit::editingFinished, this, [this, changed] {
        changed();
        if (m_log.isOpen()) {
            stopLog();
            startLog();
        }
    });
    connect(ui.logSaveBox, &QCheckBox::toggled, this, [this](bool on) {
        if (m_loading)
            return;
        m_options.logSaveFlag = on;
        if (on && m_open)
            startLog();
        else if (!on)
            stopLog();
        announceSettingsChange();
    });

    auto encodingChanged = [this](bool receive) {
        if (m_loading)
            return;
        QComboBox *box = receive ? ui.receiveEncodingBox : ui.sendEncodingBox;
        const QString name = box->currentText();
        QString &stored = receive ? m_options.receiveEncoding : m_options.sendEncoding;
        if (name == stored)
            return;
        // Queued bytes are shown with the decoders they arrived under.
        drain(-1, true);
        for (DisplayFormatter *f : {&m_viewFormatter, &m_logFormatter}) {
            const Result r = receive ? f->setReceiveEncoding(name) : f->setSendEncoding(name);
            if (!r) {
                showFailure(r.errorText());
                selectText(box, stored);
                return;
            }
        }
        stored = name;
        if (receive) {
            if (const auto codec = WireTextCodecRegistry::resolve(name))
                m_consoleDecoder = WireTextDecoder(codec.value());
        }
        announceSettingsChange();
    };
    connect(ui.receiveEncodingBox, &QComboBox::activated, this, [encodingChanged] { encodingChanged(true); });
    connect(ui.sendEncodingBox, &QComboBox::activated, this, [encodingChanged] { encodingChanged(false); });

    connect(ui.connectionSettings, &ConnectionSettingsWidget::serialParametersEdited, this,
            &SerialPortWidget::onSerialParamsEdited);
    connect(ui.connectionSettings, &ConnectionSettingsWidget::connectionEdited, this,
            &SerialPortWidget::onConnectionConfigChanged);

    connect(ui.indicatorLights, &ControlLineLights::dtrToggled, this,
            [this](bool on) { onControlLineToggled(ConnectionController::ControlLine::Dtr, on); });
    connect(ui.indicatorLights, &ControlLineLights::rtsToggled, this,
            [this](bool on) { onControlLineToggled(ConnectionController::ControlLine::Rts, on); });
    connect(ui.indicatorLights, &ControlLineLights::breakPressed, this, [this] {
        if (!isConnectionOpen()) {
            showStatus(tr("Could not send Break: the connection is not open."), 3000);
            return;
        }
        m_controller->setControlLine(ConnectionController::ControlLine::Break, true);
    });
    connect(ui.indicatorLights, &ControlLineLights::breakReleased, this, [this] {
        if (m_controller->breakLevel())
            m_controller->setControlLine(ConnectionController::ControlLine::Break, false);
    });
}

void SerialPortWidget::onControlLineToggled(ConnectionController::ControlLine line, bool on)
{
    if (isTransferActive()) {
        showStatus(tr("A file transfer is using this port. Changing the control lines would interrupt it."), 5000);
        ui.indicatorLights->setLevels(m_config.dtrOn, m_config.rtsOn);
        return;
    }
    (line == ConnectionController::ControlLine::Dtr ? m_config.dtrOn : m_config.rtsOn) = on;
    m_controller->setControlLine(line, on);
    announceSettingsChange();
}

void SerialPortWidget::announceSettingsChange()
{
    if (!m_loading)
        Q_EMIT settingsChanged();
}

// --------------------------------------------------------- receive path

void SerialPortWidget::connectController()
{
    ConnectionController *c = m_controller;
    connect(c, &ConnectionController::readyRead, this, &SerialPortWidget::onReadData);
    connect(c, &ConnectionController::serverMessage, this,
            [this](const QByteArray &data, const QString &peer) { ingestReceived(data, peer); });
    connect(c, &ConnectionController::udpReadyRead, this, [this] {
        const QList<ConnectionController::UdpDatagram> datagrams = m_controller->readUdpDatagrams();
        for (const auto &datagram : datagrams)
            ingestReceived(datagram.data, datagram.peer);
    });
    connect(c, &ConnectionController::serialPortLost, this, &SerialPortWidget::onSerialPortLost);
    connect(c, &ConnectionController::tcpClientDisconnected, this, &SerialPortWidget::disconnectTcpClient);
    connect(c, &ConnectionController::statusMessage, this, &SerialPortWidget::statusMessage);
    connect(c, &ConnectionController::errorOccurred, this, [this](const QString &message) {
        showFailure(message);
        // A stream connection that failed before or after connecting has no
        // socket any more: the session ends unless a reconnect is waiting.
        if (isStreamMode(m_config.mode) && m_open && !m_reconnecting && !m_controller->isOpen(m_config.mode)) {
            if (m_autoReconnect && m_config.mode == ConnectionMode::TcpClient && m_wasConnected) {
                startReconnecting();
                return;
            }
            changeConnState(false);
        }
    });
    connect(c, &ConnectionController::peerArrived, this, [this](const QString &peer) {
        if (peer.isEmpty() && isStreamMode(m_config.mode)) {
            m_wasConnected = true;
            ui.errorLabel->hide();
            if (m_reconnecting) {
                disarmReconnect();
                showStatus(tr("TCP connection RESTORED"), 3000);
            }
            updateOpenState();
        }
        updateTargets();
        Q_EMIT peerArrived(peer);
    });
    connect(c, &ConnectionController::peerLost, this, [this](const QString &peer) {
        updateTargets();
        Q_EMIT peerLost(peer);
    });
    connect(c, &ConnectionController::serverConnectionsChanged, this, &SerialPortWidget::updateTargets);
    connect(c, &ConnectionController::udpPeersChanged, this, &SerialPortWidget::changeUdpConnState);
}

void SerialPortWidget::onReadData()
{
    ingestReceived(m_controller->readAll(m_config.mode));
}

void SerialPortWidget::ingestReceived(const QByteArray &data, const QString &peer)
{
    Q_UNUSED(peer);
    if (data.isEmpty())
        return;
    ui.indicatorLights->rxLight()->blink();
    const QDateTime now = QDateTime::currentDateTime();
    if (m_ingest.isPaused() && m_log.isOpen()) {
        // The paused buffer keeps only the newest bytes; the log keeps all.
        m_log.append(decodeBufferForLog(DisplayChunk{now, ChunkDirection::Received, data}));
    }
    m_ingest.ingestReceived(data, now);
    Q_EMIT rxTapped(data);
    static const QMetaMethod consoleSignal = QMetaMethod::fromSignal(&SerialPortWidget::consoleTraffic);
    if (isSignalConnected(consoleSignal))
        Q_EMIT consoleTraffic(connectionLabel(), false, m_consoleDecoder.decode(data));
    applyReadThrottle();
}

void SerialPortWidget::applyReadThrottle()
{
    switch (m_ingest.readThrottleAction()) {
    case ReadThrottle::Action::PauseReading:
        qCDebug(lcTerminal) << "display behind, pausing reads at" << m_ingest.pendingBytes() << "bytes";
        m_controller->setReadPaused(m_config.mode, true);
        break;
    case ReadThrottle::Action::ResumeReading:
        m_controller->setReadPaused(m_config.mode, false);
        break;
    case ReadThrottle::Action::None:
        break;
    }
}

void SerialPortWidget::onRefreshDisplay()
{
    // The three options the tick keeps current: time display, the automatic
    // line-feed interval and the receive line-ending mode.
    const bool time = ui.displayTimeBox->isChecked();
    const int interval = ui.autoFeedIntervalSB->value();
    const auto ending = LineEnding(ui.rxLineEndingBox->currentData().toInt());
    if (time != m_options.displayTime || interval != m_options.autoFeedInterval || ending != m_options.rxLineEnding)
        readOptionsFromWidgets();
    if (m_viewState == ViewState::Normal)
        displayPortBuffer(ReceiveIngest::kRefreshByteBudget);
    updateCounters();
}

void SerialPortWidget::displayPortBuffer(qint64 byteBudget)
{
    drain(byteBudget, true);
}

void SerialPortWidget::drain(qint64 byteBudget, bool toLog)
{
    if (!m_ingest.hasPending())
        return;
    m_drainClock.start();
    qint64 total = 0;
    QString batch;
    // The chunks' text goes into the view in one insert at the end.
    QList<ReceiveView::Segment> segments;
    m_drainSegments = &segments;
    do {
        // One chunk at a time, so the time limit can end a long drain.
        const QList<DisplayChunk> chunk = m_ingest.takeBatch(0);
        for (const DisplayChunk &c : chunk) {
            total += c.bytes.size();
            batch += decodeBufferForUi(c);
        }
        if (byteBudget >= 0 && (total >= byteBudget || m_drainClock.elapsed() >= kDrainTimeLimitMs))
            break;
    } while (m_ingest.hasPending());
    m_drainSegments = nullptr;
    ui.receiveView->appendSegments(segments);

    ui.receiveView->trimIfOver(m_options.displayBufferSize);
    if (ui.findBar->isActive())
        ui.findBar->refreshMatches();
    if (toLog && m_log.isOpen() && !batch.isEmpty()) {
        if (const Result r = m_log.append(batch); !r)
            showFailure(r.errorText());
    }
    applyReadThrottle();
}

QString SerialPortWidget::decodeBufferForUi(const DisplayChunk &rxData)
{
    const QString text = m_viewFormatter.format(rxData);
    if (text.isEmpty())
        return text;
    const QString &colorName = rxData.isReceived() ? m_options.receiveTextColor : m_options.sendTextColor;
    QColor color(colorName);
    if (color == QColor(Qt::black))
        color = QColor();  // the view's own text colour
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
    return m_logFormatter.format(buffer);
}

// ------------------------------------------------------------ send path

void SerialPortWidget::on_sendButton_clicked()
{
    if (!m_open) {
        openConnection();
        return;
    }
    if (isTransferActive()) {
        showStatus(tr("A file transfer is using this port. Sending data now would corrupt it."), 5000);
        return;
    }
    sendFrameText(ui.sendTextEdit->toPlainText(), true);
}

bool SerialPortWidget::sendFrameText(const QString &text, bool fromSendBox)
{
    const auto built = SendFrameBuilder::build(text, SendFrameBuilder::Options::fromPaneOptions(m_options));
    if (!built) {
        showFailure(built.errorText());
        return false;
    }
    const SendFrameBuilder::Frame &frame = built.value();
    if (frame.isEmpty())
        return false;
    if (fromSendBox && m_options.sendFormat == MessageFormat::Hex && ui.sendTextEdit->toPlainText() == text)
        ui.sendTextEdit->setPlainText(frame.normalisedHex);

    const QStringList before = m_history.entries();
    m_history.record(text, m_options.sendFormat);
    if (m_history.entries() != before) {
        const QSignalBlocker blocker(ui.sendBox);
        ui.sendBox->clear();
        ui.sendBox->addItems(m_history.entries());
        ui.sendBox->setCurrentIndex(-1);
        announceSettingsChange();
    }
    return sendBytes(frame.bytes);
}

bool SerialPortWidget::sendBytes(const QByteArray &data, bool echo)
{
    if (data.isEmpty())
        return false;
    if (echo && m_options.displaySendMsg)
        queueSentEcho(data);
    return writeToConnection(data);
}

void SerialPortWidget::queueSentEcho(const QByteArray &frame)
{
    m_ingest.queueSent(frame, QDateTime::currentDateTime());
    if (m_viewState == ViewState::Normal)
        drain(-1, true);
}

bool SerialPortWidget::writeToConnection(const QByteArray &data)
{
    ConnectionController::SendTarget target;
    if (ui.targetBox->isVisible() && ui.targetBox->currentIndex() > 0) {
        if (m_config.mode == ConnectionMode::TcpServer)
            target.clientLabel = ui.targetBox->currentText();
        else
            target.index = ui.targetBox->currentIndex() - 1;
    }
    const bool wasOpen = m_controller->isOpen(m_config.mode);
    const bool ok = m_controller->send(m_config, data, target);
    if (!ok)
        return false;
    m_txCount += quint64(data.size());
    ui.indicatorLights->txLight()->blink();
    static const QMetaMethod consoleSignal = QMetaMethod::fromSignal(&SerialPortWidget::consoleTraffic);
    if (isSignalConnected(consoleSignal)) {
        WireTextDecoder decoder;
        if (const auto codec = WireTextCodecRegistry::resolve(m_options.sendEncoding))
            decoder = WireTextDecoder(codec.value());
        Q_EMIT consoleTraffic(connectionLabel(), true, decoder.decode(data));
    }
    // Writing to a closed serial port opens it.
    if (!wasOpen && m_controller->isOpen(m_config.mode) && !m_open)
        changeConnState(true);
    return true;
}

void SerialPortWidget::onTerminalKeys(const QString &text)
{
    if (text.isEmpty())
        return;
    if (!m_open) {
        showStatus(tr("The connection is not open."), 3000);
        return;
    }
    if (isTransferActive()) {
        showStatus(tr("A file transfer is using this port. Sending data now would corrupt it."), 5000);
        return;
    }
    const auto codec = WireTextCodecRegistry::resolve(m_options.sendEncoding);
    if (!codec) {
        showFailure(codec.errorText());
        return;
    }
    const auto bytes = codec.value().encode(text);
    if (!bytes) {
        showFailure(bytes.errorText());
        return;
    }
    sendBytes(bytes.value(), m_options.localEcho);
}

void SerialPortWidget::onSendData()
{
    if (!isConnectionOpen() || isTransferActive() || !m_options.autoSend)
        return;
    const QString text = ui.sendTextEdit->toPlainText();
    if (m_options.lineByLine)
        sendFrameText(m_lineStepper.next(text), false);
    else
        sendFrameText(text, false);
}

int SerialPortWidget::autoSendIntervalMs() const
{
    const int factor = m_options.sendTimeUnit == SendTimeUnit::Seconds ? 1000 : 1;
    return int(qMin<qint64>(qint64(m_options.sendInterval) * factor, std::numeric_limits<int>::max()));
}

void SerialPortWidget::restartAutoSendTimer()
{
    if (m_options.autoSend && !isTransferActive()) {
        m_sendTimer->setInterval(autoSendIntervalMs());
        m_sendTimer->start();
        qCDebug(lcTerminal) << "Update sendTimer interval to" << autoSendIntervalMs();
    } else {
        m_sendTimer->stop();
    }
}

void SerialPortWidget::on_autoSendBox_clicked()
{
    m_options.sendInterval = ui.sendIntervelSB->value();
    m_options.autoSend = ui.autoSendBox->isChecked();
    m_refreshTimer->setInterval(kRefreshIntervalMs);
    qCDebug(lcTerminal) << "Change refresh timer to" << kRefreshIntervalMs;
    m_lineStepper.reset();
    restartAutoSendTimer();
    announceSettingsChange();
}

void SerialPortWidget::on_sendIntervelSB_valueChanged(int value)
{
    if (m_loading)
        return;
    m_options.sendInterval = value;
    if (m_sendTimer->isActive())
        m_sendTimer->setInterval(autoSendIntervalMs());
    announceSettingsChange();
}

void SerialPortWidget::on_cbLinebyLine_stateChanged(int state)
{
    if (m_loading)
        return;
    m_options.lineByLine = state == Qt::Checked;
    m_lineStepper.reset();
    announceSettingsChange();
}

void SerialPortWidget::on_sendChecksumBox_activated(int index)
{
    m_options.sendChecksum = ui.sendChecksumBox->itemData(index).toInt();
    announceSettingsChange();
}

void SerialPortWidget::on_terminalEnterBox_currentIndexChanged(int index)
{
    if (m_loading)
        return;
    m_options.terminalEnterMode = LineEnding(ui.terminalEnterBox->itemData(index).toInt());
    announceSettingsChange();
}

void SerialPortWidget::on_sendBox_activated(int index)
{
    if (index < 0 || index >= m_history.size())
        return;
    ui.sendTextEdit->setPlainText(m_history.entries().at(index));
    if (m_open && !isTransferActive())
        sendFrameText(ui.sendTextEdit->toPlainText(), true);
}

void SerialPortWidget::clearSendHistory()
{
    m_history.clear();
    ui.sendBox->clear();
    announceSettingsChange();
}

void SerialPortWidget::setSendText(const QString &text)
{
    ui.sendTextEdit->setPlainText(text);
}

QString SerialPortWidget::sendText() const
{
    return ui.sendTextEdit->toPlainText();
}

// ---------------------------------------------------------- pane control

bool SerialPortWidget::isConnectionOpen() const
{
    return m_controller->isOpen(m_config.mode);
}

QString SerialPortWidget::endpointText() const
{
    switch (m_config.mode) {
    case ConnectionMode::Serial:
        return currentRealPortName();
    case ConnectionMode::TcpServer: {
        const QString address = m_controller->serverAddressText();
        return address.isEmpty() ? QStringLiteral("*:%1").arg(m_config.targetPort) : address;
    }
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpGeneric:
        return QStringLiteral("*:%1").arg(m_controller->udpLocalPort() ? m_controller->udpLocalPort()
                                                                        : m_config.udpServerPort);
    case ConnectionMode::UdpClient:
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        return QStringLiteral("%1:%2").arg(m_config.targetHost).arg(m_config.targetPort);
    case ConnectionMode::RemoteSerialRelay:
        return m_config.relayShareLabel.isEmpty() ? m_config.relayPortName : m_config.relayShareLabel;
    }
    return connectionLabel();
}

QString SerialPortWidget::currentRealPortName() const
{
    if (m_config.mode == ConnectionMode::Serial) {
        const QString open = m_controller->serialPortName();
        return open.isEmpty() ? m_config.portName : open;
    }
    return endpointText();
}

QString SerialPortWidget::openedMessage() const
{
    if (m_config.mode == ConnectionMode::Serial) {
        return QStringLiteral("<font color = green> %1 OPENED, %2, %3, %4, %5, %6 </font>")
            .arg(currentRealPortName().toHtmlEscaped())
            .arg(m_config.baudRate)
            .arg(int(m_config.dataBits))
            .arg(SerialParameterText::parityWord(m_config.parity).toUpper(),
                 QString::number(SerialParameterText::stopBitsNumber(m_config.stopBits)),
                 flowWord(m_config.flowControl));
    }
    return QStringLiteral("<font color = green> %1 %2 OPENED </font>")
        .arg(connectionModeTag(m_config.mode).toUpper(), endpointText().toHtmlEscaped());
}

bool SerialPortWidget::openConnection(const QString &portName, bool silent)
{
    if (isTransferActive()) {
        showStatus(tr("A file transfer is running."), 5000);
        return false;
    }
    ui.errorLabel->hide();
    m_wasConnected = false;
    m_controller->setWatchForLoss(m_config.mode == ConnectionMode::Serial);
    m_controller->setStoredLineLevels(m_config.dtrOn, m_config.rtsOn);
    if (!portName.isEmpty() && m_config.mode == ConnectionMode::Serial) {
        m_config.portName = portName;
        ui.connectionSettings->setConfig(m_config);
    }
    if (!m_controller->open(m_config, portName, silent)) {
        if (silent && m_config.mode == ConnectionMode::Serial)
            Q_EMIT statusMessage(tr("Serial Port %1 OPEN FAILED").arg(currentRealPortName()), 15000);
        changeConnState(false);
        return false;
    }
    if (m_config.mode == ConnectionMode::TcpClient || m_config.mode == ConnectionMode::RemoteSerialRfc2217
        || m_config.mode == ConnectionMode::UdpClient) {
        rememberTargetHost();
        if (m_config.mode != ConnectionMode::UdpClient)
            Q_EMIT statusMessage(tr("Connecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort), 3000);
    }
    changeConnState(true);
    announceSettingsChange();
    return true;
}

void SerialPortWidget::rememberTargetHost()
{
    // The host box offers the hosts used last, newest first.
    QStringList &hosts = m_config.recentTargetHosts;
    const QString host = m_config.targetHost.trimmed();
    if (host.isEmpty() || (!hosts.isEmpty() && hosts.constFirst() == host))
        return;
    hosts.removeAll(host);
    hosts.prepend(host);
    while (hosts.size() > kRecentHostLimit)
        hosts.removeLast();
    const bool wasLoading = m_loading;
    m_loading = true;
    ui.connectionSettings->setConfig(m_config);
    m_loading = wasLoading;
}

void SerialPortWidget::closeConnection()
{
    if (isTransferActive()) {
        showStatus(tr("A file transfer is running."), 5000);
        return;
    }
    m_userClosing = true;
    disarmReconnect();
    // A server pane shows what its clients sent before they go.
    if (m_config.mode == ConnectionMode::TcpServer)
        drain(-1, true);
    m_controller->close(m_config.mode, m_config.portName);
    if (m_ingest.readThrottle().isReadingPaused()) {
        m_ingest.readThrottle().reset();
        m_controller->setReadPaused(m_config.mode, false);
    }
    changeConnState(false);
    m_userClosing = false;
}

void SerialPortWidget::on_closeButton_clicked()
{
    closeConnection();
}

void SerialPortWidget::changeConnState(bool open)
{
    const bool changed = open != m_open;
    m_open = open;
    if (open) {
        if (changed) {
            qCDebug(lcTerminal) << "Start saveTimer";
            startLog();
            restartAutoSendTimer();
        }
    } else {
        m_sendTimer->stop();
        if (changed)
            stopLog();
        ui.indicatorLights->txLight()->switchOff();
        ui.indicatorLights->rxLight()->switchOff();
    }
    updateOpenState();
    updateTargets();
}

void SerialPortWidget::updateOpenState()
{
    ui.sendButton->setText(m_open ? tr("Send") : tr("Open"));
    ui.closeButton->setEnabled(m_open);
    if (!m_open) {
        ui.statusLabel->setText(QStringLiteral("<font color = red> %1 CLOSED </font>").arg(endpointText().toHtmlEscaped()));
    } else if (m_reconnecting) {
        ui.statusLabel->setText(QStringLiteral("<font color = #b9770e> %1 </font>")
                                    .arg(tr("%1 waiting to reconnect").arg(endpointText()).toHtmlEscaped()));
    } else if (!isConnectionOpen() && isStreamMode(m_config.mode)) {
        ui.statusLabel->setText(QStringLiteral("<font color = #b9770e> %1 </font>")
                                    .arg(tr("Connecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort).toHtmlEscaped()));
    } else {
        ui.statusLabel->setText(openedMessage());
    }
    updateControlLineAvailability();
}

void SerialPortWidget::startReconnecting()
{
    ui.indicatorLights->txLight()->switchOff();
    ui.indicatorLights->rxLight()->switchOff();
    m_reconnecting = true;
    m_reconnectTimer->start();
    updateOpenState();
}

void SerialPortWidget::onSerialPortLost()
{
    if (!m_autoReconnect) {
        changeConnState(false);
        return;
    }
    startReconnecting();
    showStatus(tr("Serial Port %1 lost, waiting for it to come back...").arg(currentRealPortName()), 3000);
}

void SerialPortWidget::disconnectTcpClient()
{
    if (m_userClosing || !m_open || !isStreamMode(m_config.mode))
        return;
    if (m_autoReconnect && m_config.mode == ConnectionMode::TcpClient) {
        startReconnecting();
        showStatus(tr("Reconnecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort), 2000);
        return;
    }
    changeConnState(false);
}

void SerialPortWidget::onReconnectTick()
{
    if (isConnectionOpen()) {
        disarmReconnect();
        updateOpenState();
        return;
    }
    if (m_config.mode == ConnectionMode::Serial) {
        if (m_controller->open(m_config, {}, true)) {
            disarmReconnect();
            showStatus(tr("Serial Port %1 RECONNECTED").arg(currentRealPortName()), 3000);
            updateOpenState();
        }
        return;
    }
    if (m_config.mode == ConnectionMode::TcpClient) {
        showStatus(tr("Reconnecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort), 2000);
        m_controller->startTcpClient(m_config.targetHost, quint16(m_config.targetPort));
        return;
    }
    // Other modes have nothing to come back to on their own.
    disarmReconnect();
    changeConnState(false);
}

void SerialPortWidget::disarmReconnect()
{
    m_reconnectTimer->stop();
    m_reconnecting = false;
}

void SerialPortWidget::onRefreshAvalablePorts()
{
    QList<ConnectionSettingsWidget::PortEntry> ports;
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &info : infos) {
        const QString description = info.description().isEmpty() ? info.manufacturer() : info.description();
        ports.append({info.systemLocation(), description});
    }
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

bool SerialPortWidget::refuseSettingsChangeDuringTransfer()
{
    if (!isTransferActive())
        return false;
    showStatus(tr("A file transfer is using this port. Changing the port settings would interrupt it."), 5000);
    ui.connectionSettings->setConfig(m_config);
    return true;
}

void SerialPortWidget::onSerialParamsEdited()
{
    const ConnectionConfig edited = ui.connectionSettings->config();
    if (refuseSettingsChangeDuringTransfer())
        return;
    if (m_config.mode == ConnectionMode::Serial && isConnectionOpen()) {
        m_loading = true;
        const Result applied = m_controller->applySerialParameters(edited);
        m_loading = false;
        if (!applied) {
            showStatus(tr("The port keeps its previous settings: %1").arg(applied.errorText()), 5000);
            ui.connectionSettings->setConfig(m_config);
            return;
        }
    }
    m_config = edited;
    updateOpenState();
    announceSettingsChange();
}

void SerialPortWidget::onConnectionConfigChanged()
{
    const ConnectionConfig edited = ui.connectionSettings->config();
    if (refuseSettingsChangeDuringTransfer())
        return;
    const bool reopen = m_open;
    if (reopen)
        closeConnection();
    m_config = edited;
    updateOpenState();
    updateTargets();
    if (reopen)
        openConnection();
    announceSettingsChange();
}

void SerialPortWidget::changeUdpConnState()
{
    updateTargets();
}

void SerialPortWidget::updateTargets()
{
    QStringList labels;
    QString allText;
    if (m_config.mode == ConnectionMode::TcpServer) {
        labels = m_controller->serverClientLabels();
        allText = tr("All clients");
    } else if (m_config.mode == ConnectionMode::UdpServer) {
        for (const auto &peer : m_controller->udpPeers())
            labels.append(peer.key());
        allText = tr("Last peer heard");
    }
    const bool show = !allText.isEmpty();
    ui.targetBox->setVisible(show);
    if (!show)
        return;
    const QString current = ui.targetBox->currentText();
    const QSignalBlocker blocker(ui.targetBox);
    ui.targetBox->clear();
    ui.targetBox->addItem(allText);
    ui.targetBox->addItems(labels);
    const int keep = ui.targetBox->findText(current);
    ui.targetBox->setCurrentIndex(keep >= 0 ? keep : 0);
}

void SerialPortWidget::updateControlLineAvailability()
{
    using A = ControlLineLights::Availability;
    A availability = A::NoSerialPort;
    switch (m_config.mode) {
    case ConnectionMode::Serial:
        availability = m_config.flowControl == QSerialPort::HardwareControl ? A::RtsByFlowControl : A::SerialPort;
        break;
    case ConnectionMode::RemoteSerialRfc2217:
    case ConnectionMode::RemoteSerialRelay:
        availability = m_config.useRemoteSerialConfig ? A::RemoteOwnConfig : A::RemoteSerialPort;
        break;
    default:
        break;
    }
    ui.indicatorLights->setAvailability(availability);
}

// ------------------------------------------------------------------ view

void SerialPortWidget::setPaused(bool paused)
{
    if (paused == (m_viewState == ViewState::Paused) || isTransferActive())
        return;
    {
        const QSignalBlocker blocker(ui.pauseButton);
        ui.pauseButton->setChecked(paused);
    }
    if (paused) {
        drain(-1, true);
        m_ingest.pause();
        m_viewState = ViewState::Paused;
        return;
    }
    m_viewState = ViewState::Normal;
    drain(-1, true);
    const bool loggedWhilePaused = m_log.isOpen();
    m_ingest.resume(QDateTime::currentDateTime());
    // What was kept is shown now; the log already has it.
    drain(-1, !loggedWhilePaused);
}

void SerialPortWidget::on_pauseButton_toggled(bool checked)
{
    setPaused(checked);
}

void SerialPortWidget::clearDisplay()
{
    // Queued bytes still reach the log before the view empties.
    if (m_viewState == ViewState::Normal)
        drain(-1, true);
    ui.receiveView->clear();
    m_viewFormatter.setEndsWithLineFeed(true);
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
    m_viewFormatter.setEndsWithLineFeed(true);
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
    m_txCount = 0;
    m_ingest.resetRxCount();
    updateCounters();
}

void SerialPortWidget::on_resetCountersButton_clicked()
{
    resetCounters();
}

void SerialPortWidget::updateCounters()
{
    ui.txCountLabel->setText(tr("Tx: %L1 Bytes").arg(m_txCount));
    ui.rxCountLabel->setText(tr("Rx: %L1 Bytes").arg(m_ingest.rxCount()));
}

void SerialPortWidget::onReceiveContextMenuRequested(const QPoint &pos)
{
    QMenu *menu = ui.receiveView->createStandardContextMenu(pos);
    menu->addSeparator();
    menu->addAction(QIcon(QStringLiteral(":/images/resource/find.png")), tr("Find..."), this,
                    &SerialPortWidget::openFindBar);
    QAction *pause = menu->addAction(QIcon(QStringLiteral(":/images/resource/pause.png")),
                                     m_viewState == ViewState::Paused ? tr("Resume") : tr("Pause"));
    pause->setEnabled(!isTransferActive());
    connect(pause, &QAction::triggered, this, [this] { setPaused(m_viewState != ViewState::Paused); });
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

void SerialPortWidget::showStatus(const QString &text, int timeoutMs)
{
    Q_EMIT statusMessage(text, timeoutMs);
}

// --------------------------------------------------------- transfer lock

void SerialPortWidget::setTransferActive(bool active)
{
    if (active == isTransferActive())
        return;
    if (active) {
        if (m_viewState == ViewState::Normal)
            drain(-1, true);
        m_autoSendBeforeTransfer = m_sendTimer->isActive();
        m_sendTimer->stop();
        m_viewState = ViewState::Transfer;
    } else {
        m_viewState = ViewState::Normal;
        if (m_autoSendBeforeTransfer && isConnectionOpen())
            restartAutoSendTimer();
        m_autoSendBeforeTransfer = false;
    }
    ui.connectionSettings->setLocked(active);
    ui.indicatorLights->setLocked(active);
    ui.pauseButton->setEnabled(!active);
    Q_EMIT transferStateChanged(active);
}

QString SerialPortWidget::transferRefusal() const
{
    if (isTransferActive())
        return tr("A file transfer is already running on this port.");
    if (isUdpMode(m_config.mode))
        return tr("File transfer needs an ordered, reliable connection. UDP cannot provide one.");
    if (!isConnectionOpen())
        return tr("The connection is not open.");
    if (m_viewState == ViewState::Paused)
        return tr("The view is paused. Resume it before transferring a file.");
    if (m_config.mode == ConnectionMode::TcpServer) {
        const int clients = m_controller->serverClientCount();
        if (clients == 0)
            return tr("No client is connected yet.");
        if (clients > 1 && ui.targetBox->currentIndex() <= 0)
            return tr("Several clients are connected. Select the one to transfer with.");
    }
    return QString();
}

// ------------------------------------------------------------- data log

void SerialPortWidget::startLog()
{
    if (!m_options.logSaveFlag || m_log.isOpen())
        return;
    const Result opened = m_log.open(LogWriter::Options::fromPaneOptions(m_options, currentRealPortName()));
    if (!opened) {
        showFailure(opened.errorText());
        return;
    }
    m_saveTimer->start();
}

void SerialPortWidget::stopLog()
{
    m_saveTimer->stop();
    if (!m_log.isOpen())
        return;
    if (const Result r = m_log.writePending(); !r)
        showFailure(r.errorText());
    m_log.close();
}

void SerialPortWidget::onSaveTick()
{
    if (const Result r = m_log.writePending(); !r)
        showFailure(r.errorText());
}

void SerialPortWidget::on_logFolderButton_clicked()
{
    const QString folder = QFileDialog::getExistingDirectory(this, tr("Log Folder"), m_options.logFilePath);
    if (folder.isEmpty())
        return;
    ui.logFolderEdit->setText(folder);
    Q_EMIT ui.logFolderEdit->editingFinished();
}
