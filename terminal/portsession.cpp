#include "terminal/portsession.h"

#include "common/logging.h"
#include "common/peerlabel.h"
#include "connection/connectioncontroller.h"
#include "connection/serialparametertext.h"
#include "terminal/sendframebuilder.h"
#include "common/wiretextcodecregistry.h"

#include <QJsonArray>
#include <QMetaMethod>
#include <QTimer>

#include <atomic>

namespace {

QString flowWord(QSerialPort::FlowControl flow)
{
    switch (flow) {
    case QSerialPort::HardwareControl: return QStringLiteral("Hardware");
    case QSerialPort::SoftwareControl: return QStringLiteral("Xon/Xoff");
    default: return QStringLiteral("NONE");
    }
}

WireTextDecoder decoderFor(const QString &encoding)
{
    const auto codec = WireTextCodecRegistry::resolve(encoding);
    return codec ? WireTextDecoder(codec.value()) : WireTextDecoder();
}

QString nextPortKey()
{
    static std::atomic<quint64> serial{0};
    return QStringLiteral("p%1").arg(++serial);
}

} // namespace

PortSession::PortSession(int paneId, QObject *parent)
    : QObject(parent)
    , m_paneId(paneId)
    , m_portKey(nextPortKey())
    , m_controller(new ConnectionController(this))
    , m_sendTimer(new QTimer(this))
    , m_reconnectTimer(new QTimer(this))
    , m_saveTimer(new QTimer(this))
{
    connect(m_sendTimer, &QTimer::timeout, this, &PortSession::onSendData);
    m_reconnectTimer->setInterval(int(ReconnectPolicy::kIntervalMs));
    connect(m_reconnectTimer, &QTimer::timeout, this, &PortSession::onReconnectTick);
    m_saveTimer->setInterval(kSaveIntervalMs);
    connect(m_saveTimer, &QTimer::timeout, this, &PortSession::onSaveTick);
    connectController();
    applySettings(m_config, m_options, {});
}

PortSession::~PortSession()
{
    // Whatever the log still holds is written before the session goes.
    if (m_logActive) {
        m_log.writePending();
        m_log.close();
    }
}

QString PortSession::connectionLabel() const
{
    return ::connectionLabel(m_config.mode, m_paneId);
}

bool PortSession::isConsoleListening() const
{
    static const QMetaMethod consoleSignal = QMetaMethod::fromSignal(&PortSession::consoleTraffic);
    return isSignalConnected(consoleSignal);
}

QJsonObject PortSession::snapshotEntry() const
{
    QJsonObject entry{
        {QStringLiteral("port_key"), m_portKey},
        {QStringLiteral("connection_mode"), toInt(m_config.mode)},
        {QStringLiteral("mode_tag"), connectionModeTag(m_config.mode)},
        {QStringLiteral("port_name"), currentRealPortName()},
        {QStringLiteral("label"), connectionLabel()},
        {QStringLiteral("open"), isConnectionOpen()},
    };
    if (m_config.mode == ConnectionMode::Serial) {
        using namespace SerialParameterText;
        entry.insert(QLatin1String(kBaudRateKey), m_config.baudRate);
        entry.insert(QLatin1String(kDataBitsKey), int(m_config.dataBits));
        entry.insert(QLatin1String(kParityKey), parityWord(m_config.parity));
        entry.insert(QLatin1String(kStopBitsKey), stopBitsNumber(m_config.stopBits));
        entry.insert(QLatin1String(kFlowControlKey), flowControlWord(m_config.flowControl));
    }
    return entry;
}

// ---------------------------------------------------------------- settings

void PortSession::applySettings(const ConnectionConfig &config, const PaneOptions &options,
                                const QStringList &sendHistory)
{
    const PaneOptions before = m_options;
    const QString portStamp = currentRealPortName();
    m_config = config;
    m_options = options;
    m_history.setEntries(sendHistory);
    m_controller->setStoredLineLevels(config.dtrOn, config.rtsOn);
    m_ingest.setDisplayBufferSize(m_options.displayBufferSize);
    const DisplayFormatter::Options display = DisplayFormatter::Options::fromPaneOptions(m_options);
    for (DisplayFormatter *f : {&m_viewFormatter, &m_logFormatter}) {
        f->setOptions(display);
        if (const Result r = f->setReceiveEncoding(m_options.receiveEncoding); !r && f == &m_viewFormatter)
            reportFailure(r.errorText());
        f->setSendEncoding(m_options.sendEncoding);
    }
    m_consoleDecoder = decoderFor(m_options.receiveEncoding);
    followLogOptions(before, portStamp);
    // Loop send switched or retimed on an open port takes effect at once.
    if (m_open && (before.autoSend != m_options.autoSend || autoSendIntervalOf(before) != autoSendIntervalMs()))
        restartAutoSend();
}

Result PortSession::setOptions(const PaneOptions &options)
{
    const DisplayFormatter::Options display = DisplayFormatter::Options::fromPaneOptions(options);
    const bool rxEncoding = options.receiveEncoding != m_options.receiveEncoding;
    const bool txEncoding = options.sendEncoding != m_options.sendEncoding;
    if (rxEncoding || txEncoding || !(display == m_viewFormatter.options())) {
        // Queued bytes are shown with the formatting they arrived under.
        emit flushViewRequested();
        for (DisplayFormatter *f : {&m_viewFormatter, &m_logFormatter}) {
            const Result rx = rxEncoding ? f->setReceiveEncoding(options.receiveEncoding) : Result::success();
            const Result tx = txEncoding ? f->setSendEncoding(options.sendEncoding) : Result::success();
            if (!rx || !tx) {
                // Both formatters keep the old names: an unknown name is
                // refused before anything changed.
                return rx ? tx : rx;
            }
            f->setOptions(display);
        }
        if (rxEncoding)
            m_consoleDecoder = decoderFor(options.receiveEncoding);
    }
    const PaneOptions before = m_options;
    m_options = options;
    followLogOptions(before, currentRealPortName());
    m_ingest.setDisplayBufferSize(m_options.displayBufferSize);
    if (m_sendTimer->isActive())
        m_sendTimer->setInterval(autoSendIntervalMs());
    return Result::success();
}

void PortSession::setConnectionConfig(const ConnectionConfig &config)
{
    if (refuseDuringTransfer(tr("A file transfer is using this port. Changing the port settings would interrupt it.")))
        return;
    const bool reopen = m_open;
    if (reopen)
        closeConnection();
    m_config = config;
    emit stateChanged();
    emit targetsChanged();
    if (reopen)
        openConnection();
    emit settingsChanged();
}

Result PortSession::setSerialParameters(const ConnectionConfig &edited)
{
    const QString busy = tr("A file transfer is using this port. Changing the port settings would interrupt it.");
    if (refuseDuringTransfer(busy))
        return Result::failure(busy);
    if (m_config.mode == ConnectionMode::RemoteSerialRfc2217) {
        // The remote's replies come later, as notes; nothing waits for them.
        m_controller->setRemoteSerialParameters(edited);
    } else if (m_config.mode == ConnectionMode::Serial && isConnectionOpen()) {
        const Result applied = m_controller->applySerialParameters(edited);
        if (!applied) {
            const QString text = tr("The port keeps its previous settings: %1").arg(applied.errorText());
            emit statusMessage(text, 5000);
            return Result::failure(text);
        }
    }
    m_config = edited;
    emit stateChanged();
    // The form follows parameters set from elsewhere (the Live Console).
    emit configChanged();
    emit settingsChanged();
    return Result::success();
}

QString PortSession::relayControlLineText()
{
    return tr("Live Relay carries only the data of the remote port: its control lines and Break stay with the "
              "computer that shares it.");
}

QString PortSession::controlLineRefusal() const
{
    return m_config.mode == ConnectionMode::RemoteSerialRelay ? relayControlLineText() : QString();
}

bool PortSession::setControlLine(bool dtr, bool on)
{
    if (refuseDuringTransfer(tr("A file transfer is using this port. Changing the control lines would interrupt it.")))
        return false;
    if (const QString refusal = controlLineRefusal(); !refusal.isEmpty()) {
        // Never the local serial port: it has nothing to do with this pane.
        emit statusMessage(refusal, 3000);
        return false;
    }
    (dtr ? m_config.dtrOn : m_config.rtsOn) = on;
    const auto line = dtr ? ConnectionController::ControlLine::Dtr : ConnectionController::ControlLine::Rts;
    const bool taken = m_config.mode == ConnectionMode::RemoteSerialRfc2217
                           ? m_controller->setRemoteControlLine(line, on)  // no answer is awaited
                           : m_controller->setControlLine(line, on);
    emit settingsChanged();
    return taken;
}

bool PortSession::sendBreak(bool on)
{
    if (m_config.mode == ConnectionMode::RemoteSerialRfc2217)
        return sendRemoteBreak(on);
    if (const QString refusal = controlLineRefusal(); !refusal.isEmpty()) {
        if (on)
            emit statusMessage(refusal, 3000);
        return false;
    }
    if (!on) {
        return !m_controller->breakLevel()
            || m_controller->setControlLine(ConnectionController::ControlLine::Break, false);
    }
    if (!isConnectionOpen()) {
        emit statusMessage(tr("Could not send Break: the connection is not open."), 3000);
        return false;
    }
    return m_controller->setControlLine(ConnectionController::ControlLine::Break, true);
}

bool PortSession::sendRemoteBreak(bool on)
{
    using Line = ConnectionController::ControlLine;
    if (!on)
        return !m_controller->remoteBreakLevel() || m_controller->setRemoteControlLine(Line::Break, false);
    if (!isConnectionOpen()) {
        emit statusMessage(tr("Could not send Break: the connection is not open."), 3000);
        return false;
    }
    if (m_controller->remoteNegotiation() != ConnectionController::RemoteNegotiation::Rfc2217
        || !m_controller->setRemoteControlLine(Line::Break, true)) {
        emit statusMessage(tr("The remote peer did not accept RFC 2217 com-port control, so Break cannot be sent."), 5000);
        return false;
    }
    emit statusMessage(tr("Sent Break to the remote port; it is released when you let go."), 3000);
    return true;
}

void PortSession::onRemoteNotice(const QString &text)
{
    emit note(text);
    emit statusMessage(text, 5000);
}

void PortSession::onRemoteSetting(Rfc2217ClientSession::Event::Kind kind, qint64 value)
{
    if (!m_config.useRemoteSerialConfig)
        return;  // a confirmation of what we asked for
    using Kind = Rfc2217ClientSession::Event::Kind;
    ConnectionConfig adopted = m_config;
    switch (kind) {
    case Kind::RemoteBaudRate: adopted.baudRate = qint32(value); break;
    case Kind::RemoteDataBits: adopted.dataBits = QSerialPort::DataBits(value); break;
    case Kind::RemoteParity: adopted.parity = QSerialPort::Parity(value); break;
    case Kind::RemoteStopBits: adopted.stopBits = QSerialPort::StopBits(value); break;
    case Kind::RemoteFlowControl: adopted.flowControl = QSerialPort::FlowControl(value); break;
    case Kind::RemoteDtr: adopted.dtrOn = value != 0; break;
    case Kind::RemoteRts: adopted.rtsOn = value != 0; break;
    default: return;
    }
    if (adopted == m_config)
        return;
    m_config = adopted;
    emit configChanged();
    emit stateChanged();
    emit settingsChanged();
}

void PortSession::onRemoteLineState(quint8 lineState)
{
    m_remoteLineState = lineState;
    emit remoteLinesChanged();
}

void PortSession::onRemoteModemState(quint8 modemState)
{
    m_remoteModemState = modemState;
    emit remoteLinesChanged();
}

void PortSession::clearSendHistory()
{
    m_history.clear();
    emit historyChanged();
    emit settingsChanged();
}

bool PortSession::refuseDuringTransfer(const QString &what)
{
    if (!isTransferActive())
        return false;
    emit statusMessage(what, 5000);
    return true;
}

void PortSession::reportFailure(const QString &text)
{
    emit failure(text);
}

// ------------------------------------------------------------- connection

void PortSession::connectController()
{
    ConnectionController *c = m_controller;
    connect(c, &ConnectionController::received, this, &PortSession::ingestReceived);
    connect(c, &ConnectionController::serialPortLost, this, &PortSession::onSerialPortLost);
    connect(c, &ConnectionController::tcpClientDisconnected, this, &PortSession::onStreamDisconnected);
    connect(c, &ConnectionController::statusMessage, this, &PortSession::statusMessage);
    connect(c, &ConnectionController::errorOccurred, this, &PortSession::onControllerError);
    connect(c, &ConnectionController::peerArrived, this, &PortSession::onPeerArrived);
    connect(c, &ConnectionController::peerLost, this, [this](const QString &peer) {
        emit targetsChanged();
        emit peerLost(peer);
    });
    connect(c, &ConnectionController::serverConnectionsChanged, this, &PortSession::targetsChanged);
    connect(c, &ConnectionController::udpPeersChanged, this, &PortSession::targetsChanged);
    connect(c, &ConnectionController::cloudRelayEnded, this, &PortSession::onRelayEnded);
    connect(c, &ConnectionController::remoteNotice, this, &PortSession::onRemoteNotice);
    connect(c, &ConnectionController::remoteSetting, this, &PortSession::onRemoteSetting);
    connect(c, &ConnectionController::remoteLineState, this, &PortSession::onRemoteLineState);
    connect(c, &ConnectionController::remoteModemState, this, &PortSession::onRemoteModemState);
}

void PortSession::onControllerError(const QString &message)
{
    reportFailure(message);
    // A stream connection that failed before or after connecting has no
    // socket any more: the session ends unless a reconnect is waiting.
    if (isStreamMode(m_config.mode) && m_open && !isReconnecting() && !isConnectionOpen()) {
        if (m_autoReconnect && m_wasConnected) {
            startReconnecting();
            return;
        }
        changeConnState(false);
    }
}

void PortSession::onRelayEnded(const QString &reason)
{
    // A relay does not come back by itself: its end is the connection's
    // error and the session closes.
    reportFailure(reason);
    if (m_open && !m_userClosing)
        changeConnState(false);
}

void PortSession::onPeerArrived(const QString &peer)
{
    if (peer.isEmpty() && m_config.mode == ConnectionMode::RemoteSerialRelay) {
        emit failureCleared();
        emit stateChanged();
    }
    if (peer.isEmpty() && isStreamMode(m_config.mode)) {
        m_wasConnected = true;
        emit failureCleared();
        if (isReconnecting()) {
            disarmReconnect();
            emit statusMessage(tr("TCP connection RESTORED"), 3000);
        }
        emit stateChanged();
    }
    emit targetsChanged();
    emit peerArrived(peer);
}

bool PortSession::isConnectionOpen() const
{
    return m_controller->isOpen(m_config.mode);
}

bool PortSession::openConnection(const QString &portName, bool silent)
{
    if (isTransferActive()) {
        emit statusMessage(tr("A file transfer is running."), 5000);
        return false;
    }
    emit failureCleared();
    m_wasConnected = false;
    m_controller->setWatchForLoss(m_config.mode == ConnectionMode::Serial);
    m_controller->setStoredLineLevels(m_config.dtrOn, m_config.rtsOn);
    if (!portName.isEmpty() && m_config.mode == ConnectionMode::Serial) {
        m_config.portName = portName;
        emit configChanged();
    }
    if (!m_controller->open(m_config, portName, silent)) {
        if (silent && m_config.mode == ConnectionMode::Serial)
            emit statusMessage(tr("Serial Port %1 OPEN FAILED").arg(currentRealPortName()), 15000);
        changeConnState(false);
        return false;
    }
    if (m_config.mode == ConnectionMode::TcpClient || m_config.mode == ConnectionMode::RemoteSerialRfc2217
        || m_config.mode == ConnectionMode::UdpClient) {
        rememberTargetHost();
        if (m_config.mode != ConnectionMode::UdpClient)
            emit statusMessage(tr("Connecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort), 3000);
    }
    changeConnState(true);
    // A hold taken while closed, perhaps under another mode, holds this
    // transport too.
    m_controller->setReadPaused(m_config.mode, m_readPauseApplied);
    emit settingsChanged();
    return true;
}

void PortSession::rememberTargetHost()
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
    emit configChanged();
}

void PortSession::closeConnection()
{
    if (isTransferActive()) {
        emit statusMessage(tr("A file transfer is running."), 5000);
        return;
    }
    // A server pane shows what its clients sent before they go.
    if (m_config.mode == ConnectionMode::TcpServer && m_viewState == ViewState::Normal)
        emit flushViewRequested();
    m_userClosing = true;
    if (isReconnecting())
        emit failureCleared();  // nothing is waited for any more
    disarmReconnect();
    m_controller->close(m_config.mode, m_config.portName);
    m_ingest.readThrottle().reset();
    // The next open (perhaps of another mode) starts unpaused; holds that
    // remain are applied to it again.
    if (m_readPauseApplied) {
        m_readPauseApplied = false;
        m_controller->setReadPaused(m_config.mode, false);
    }
    changeConnState(false);
    m_userClosing = false;
}

void PortSession::changeConnState(bool open)
{
    const bool changed = open != m_open;
    m_open = open;
    if (open) {
        if (changed) {
            qCDebug(lcTerminal) << "Start saveTimer";
            startLog();
            restartAutoSend();
        }
    } else {
        m_sendTimer->stop();
        if (changed)
            stopLog();
    }
    emit stateChanged();
    emit targetsChanged();
}

void PortSession::startReconnecting()
{
    m_reconnect.arm(m_clock());
    m_reconnectTimer->start();
    emit stateChanged();
}

void PortSession::onSerialPortLost()
{
    if (!m_autoReconnect) {
        changeConnState(false);
        return;
    }
    startReconnecting();
    const QString text = tr("Serial Port %1 lost, waiting for it to come back...").arg(currentRealPortName());
    emit statusMessage(text, 3000);
    // The pane keeps saying so until the port is back or the user closes it.
    emit waiting(text);
}

void PortSession::onStreamDisconnected()
{
    if (m_remoteLineState || m_remoteModemState) {
        // The next connection reports its own.
        m_remoteLineState = m_remoteModemState = 0;
        emit remoteLinesChanged();
    }
    if (m_userClosing || !m_open || !isStreamMode(m_config.mode))
        return;
    if (m_autoReconnect) {
        startReconnecting();
        emit statusMessage(tr("Reconnecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort), 2000);
        return;
    }
    changeConnState(false);
}

void PortSession::onReconnectTick()
{
    if (isConnectionOpen()) {
        emit failureCleared();
        disarmReconnect();
        emit stateChanged();
        return;
    }
    if (!m_reconnect.takeAttempt(m_clock()))
        return;
    if (m_config.mode == ConnectionMode::Serial) {
        if (m_controller->open(m_config, {}, true)) {
            disarmReconnect();
            emit failureCleared();
            emit statusMessage(tr("Serial Port %1 RECONNECTED").arg(currentRealPortName()), 3000);
            emit stateChanged();
        }
        return;
    }
    if (isStreamMode(m_config.mode)) {
        emit statusMessage(tr("Reconnecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort), 2000);
        m_controller->open(m_config, {}, true);
        return;
    }
    // Other modes have nothing to come back to on their own.
    disarmReconnect();
    changeConnState(false);
}

void PortSession::disarmReconnect()
{
    m_reconnectTimer->stop();
    m_reconnect.disarm();
}

QString PortSession::endpointText() const
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

QString PortSession::currentRealPortName() const
{
    if (m_config.mode == ConnectionMode::Serial) {
        const QString open = m_controller->serialPortName();
        return open.isEmpty() ? m_config.portName : open;
    }
    return endpointText();
}

QString PortSession::statusLine() const
{
    if (!m_open)
        return QStringLiteral("<font color = red> %1 CLOSED </font>").arg(endpointText().toHtmlEscaped());
    if (isReconnecting()) {
        return QStringLiteral("<font color = #b9770e> %1 </font>")
            .arg(tr("%1 waiting to reconnect").arg(endpointText()).toHtmlEscaped());
    }
    if (!isConnectionOpen() && isStreamMode(m_config.mode)) {
        return QStringLiteral("<font color = #b9770e> %1 </font>")
            .arg(tr("Connecting to %1:%2 ...").arg(m_config.targetHost).arg(m_config.targetPort).toHtmlEscaped());
    }
    if (!isConnectionOpen() && m_config.mode == ConnectionMode::RemoteSerialRelay) {
        return QStringLiteral("<font color = #b9770e> %1 </font>")
            .arg(tr("Waiting for the remote port %1 ...").arg(endpointText()).toHtmlEscaped());
    }
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

// ----------------------------------------------------------------- receive

void PortSession::readPending()
{
    ingestReceived(m_controller->readAll(m_config.mode));
}

void PortSession::ingestReceived(const QByteArray &data, const QString &peer)
{
    Q_UNUSED(peer);
    if (data.isEmpty())
        return;
    if (isTransferActive() && m_receiveTaker && m_receiveTaker(data)) {
        m_ingest.countTaken(data.size());  // as Tx counts what the transfer sent
        return;
    }
    emit received();
    const QDateTime now = QDateTime::currentDateTime();
    logChunk(DisplayChunk{now, ChunkDirection::Received, data});
    m_ingest.ingestReceived(data, now);
    emit rxTapped(data);
    if (isConsoleListening()) {
        if (!std::exchange(m_consoleDecoderLive, true))
            m_consoleDecoder = decoderFor(m_options.receiveEncoding);
        emit consoleTraffic(m_portKey, false, m_consoleDecoder.decode(data));
    } else {
        m_consoleDecoderLive = false;
    }
    applyReadThrottle();
}

void PortSession::applyReadThrottle()
{
    if (m_ingest.readThrottleAction() == ReadThrottle::Action::PauseReading)
        qCDebug(lcTerminal) << "display behind, pausing reads at" << m_ingest.pendingBytes() << "bytes";
    updateReadPause();
}

void PortSession::updateReadPause()
{
    const bool paused = m_ingest.readThrottle().isReadingPaused() || !m_readHolds.isEmpty();
    if (paused == m_readPauseApplied)
        return;
    m_readPauseApplied = paused;
    m_controller->setReadPaused(m_config.mode, paused);
}

void PortSession::setReadHold(const QObject *holder, bool held)
{
    if (held == m_readHolds.contains(holder))
        return;
    if (held)
        m_readHolds.append(holder);
    else
        m_readHolds.removeAll(holder);
    updateReadPause();
}

QList<DisplayChunk> PortSession::takeForView(qint64 byteBudget, qint64 timeLimitMs)
{
    QList<DisplayChunk> taken;
    if (!m_ingest.hasPending())
        return taken;
    QElapsedTimer clock;
    clock.start();
    qint64 total = 0;
    do {
        // One chunk at a time, so the time limit can end a long drain.
        const QList<DisplayChunk> chunk = m_ingest.takeBatch(0);
        for (const DisplayChunk &c : chunk)
            total += c.bytes.size();
        taken += chunk;
        if (byteBudget >= 0 && total >= byteBudget)
            break;
        if (timeLimitMs >= 0 && clock.elapsed() >= timeLimitMs)
            break;
    } while (m_ingest.hasPending());
    applyReadThrottle();
    return taken;
}

quint64 PortSession::txCount() const
{
    const quint64 waiting = quint64(qMax<qint64>(m_controller->writeBacklog(), 0));
    return m_txAccepted > waiting ? m_txAccepted - waiting : 0;
}

qint64 PortSession::peerBacklog() const
{
    // A send to one client of a server waits on that client alone, and a
    // send to all only while no client takes anything: one that is slow to
    // read is passed by and holds no other back.
    if (m_config.mode == ConnectionMode::TcpServer)
        return m_controller->bytesToWrite(m_config.mode, m_target);
    return m_controller->writeBacklog();
}

bool PortSession::isPeerBacklogged() const
{
    return peerBacklog() >= PortTransport::kWriteHighWatermark;
}

void PortSession::resetCounters()
{
    m_txAccepted = 0;
    m_ingest.resetRxCount();
}

void PortSession::setPaused(bool paused)
{
    if (paused == (m_viewState == ViewState::Paused) || isTransferActive())
        return;
    if (paused) {
        emit flushViewRequested();
        m_ingest.pause();
        m_viewState = ViewState::Paused;
        return;
    }
    m_viewState = ViewState::Normal;
    m_ingest.resume(QDateTime::currentDateTime());
}

// -------------------------------------------------------------------- send

Result PortSession::sendText(const QString &text, QString *normalisedHex)
{
    const auto built = SendFrameBuilder::build(text, SendFrameBuilder::Options::fromPaneOptions(m_options));
    if (!built) {
        reportFailure(built.errorText());
        return Result::failure(built.errorText());
    }
    const SendFrameBuilder::Frame &frame = built.value();
    if (frame.isEmpty())
        return Result::success();
    if (normalisedHex && m_options.sendFormat == MessageFormat::Hex)
        *normalisedHex = frame.normalisedHex;

    const QStringList before = m_history.entries();
    m_history.record(text, m_options.sendFormat);
    if (m_history.entries() != before) {
        emit historyChanged();
        emit settingsChanged();
    }
    sendBytes(frame.bytes);
    return Result::success();
}

bool PortSession::sendBytes(const QByteArray &data, bool echo)
{
    return send(data, echo, true);
}

bool PortSession::forwardBytes(const QByteArray &data)
{
    return send(data, true, false);
}

bool PortSession::send(const QByteArray &data, bool echo, bool showEchoAtOnce)
{
    if (data.isEmpty())
        return false;
    if (isPeerBacklogged()) {
        emit statusMessage(tr("The peer is not reading: %L1 bytes are still waiting to be sent.")
                               .arg(peerBacklog()),
                           5000);
        return false;
    }
    if (echo && m_options.displaySendMsg) {
        const DisplayChunk chunk{QDateTime::currentDateTime(), ChunkDirection::Sent, data};
        logChunk(chunk);
        m_ingest.queueSent(data, chunk.time);
        if (showEchoAtOnce)
            emit echoQueued();
    }
    const bool wasOpen = isConnectionOpen();
    if (!m_controller->send(m_config, data, m_target))
        return false;
    m_txAccepted += quint64(data.size());
    emit sent();
    if (isConsoleListening()) {
        WireTextDecoder decoder = decoderFor(m_options.sendEncoding);
        emit consoleTraffic(m_portKey, true, decoder.decode(data));
    }
    // Writing to a closed serial port opens it.
    if (!wasOpen && isConnectionOpen() && !m_open)
        changeConnState(true);
    return true;
}

void PortSession::onSendData()
{
    // A peer that is not reading gets nothing more until it catches up.
    if (!isConnectionOpen() || isTransferActive() || !m_options.autoSend || isPeerBacklogged())
        return;
    if (m_options.lineByLine)
        sendText(m_lineStepper.next(m_sendText));
    else
        sendText(m_sendText);
}

int PortSession::autoSendIntervalMs() const
{
    return autoSendIntervalOf(m_options);
}

int PortSession::autoSendIntervalOf(const PaneOptions &options)
{
    const int factor = options.sendTimeUnit == SendTimeUnit::Seconds ? 1000 : 1;
    return int(qMin<qint64>(qint64(options.sendInterval) * factor, std::numeric_limits<int>::max()));
}

void PortSession::restartAutoSend()
{
    if (m_options.autoSend && !isTransferActive()) {
        m_sendTimer->setInterval(autoSendIntervalMs());
        m_sendTimer->start();
        qCDebug(lcTerminal) << "Update sendTimer interval to" << autoSendIntervalMs();
    } else {
        m_sendTimer->stop();
    }
}

// ----------------------------------------------------------- transfer lock

void PortSession::setTransferActive(bool active)
{
    if (active == isTransferActive())
        return;
    if (active) {
        if (m_viewState == ViewState::Normal)
            emit flushViewRequested();
        m_autoSendBeforeTransfer = m_sendTimer->isActive();
        m_sendTimer->stop();
        m_viewState = ViewState::Transfer;
    } else {
        m_viewState = ViewState::Normal;
        m_receiveTaker = {};
        if (m_autoSendBeforeTransfer && isConnectionOpen())
            restartAutoSend();
        m_autoSendBeforeTransfer = false;
    }
    emit transferStateChanged(active);
}

QString PortSession::transferRefusal(ClientChoice clientChoice) const
{
    if (isTransferActive())
        return tr("A file transfer is already running on this port.");
    if (isUdpMode(m_config.mode))
        return tr("File transfer needs an ordered, reliable connection. UDP cannot provide one.");
    if (!isConnectionOpen())
        return tr("The connection is not open.");
    if (!m_bridgeLinks.isEmpty())
        return tr("This port is part of a bridge link. Remove the link before transferring a file.");
    if (m_viewState == ViewState::Paused)
        return tr("The view is paused. Resume it before transferring a file.");
    if (m_config.mode == ConnectionMode::TcpServer) {
        const int clients = m_controller->serverClientCount();
        if (clients == 0)
            return tr("No client is connected yet.");
        if (clients > 1 && clientChoice == ClientChoice::Required && m_target.clientLabel.isEmpty()
            && m_target.index < 0)
            return tr("Several clients are connected. Select the one to transfer with.");
    }
    return QString();
}

void PortSession::setBridgeLink(const QObject *bridge, const QString &name)
{
    for (auto &link : m_bridgeLinks) {
        if (link.first == bridge) {
            if (link.second == name)
                return;
            link.second = name;
            emit bridgeLinksChanged();
            return;
        }
    }
    m_bridgeLinks.append({bridge, name});
    emit bridgeLinksChanged();
}

void PortSession::clearBridgeLink(const QObject *bridge)
{
    if (m_bridgeLinks.removeIf([bridge](const auto &link) { return link.first == bridge; }) > 0)
        emit bridgeLinksChanged();
}

QStringList PortSession::bridgeLinks() const
{
    QStringList names;
    for (const auto &link : m_bridgeLinks)
        names.append(link.second);
    return names;
}

// ---------------------------------------------------------------- data log

void PortSession::logChunk(const DisplayChunk &chunk)
{
    // The writer's file may be closed for a while (a full disk); the text
    // still goes to it and waits there, within its bound.
    if (!m_logActive)
        return;
    const QString text = m_logFormatter.format(chunk);
    if (text.isEmpty())
        return;
    noteLogResult(m_log.append(text));
}

void PortSession::noteLogResult(const Result &result)
{
    if (!result) {
        const QString text = result.errorText().isEmpty() ? LogWriter::invalidNameText() : result.errorText();
        // A disk that stays full fails every tick with the same words: say
        // them again only now and then, a new text at once.
        if (text != m_logFailureText || !m_logFailureShown.isValid()
            || m_logFailureShown.hasExpired(kLogFailureRepeatMs)) {
            m_logFailureText = text;
            m_logFailureShown.start();
            reportFailure(text);
        }
        // Asked once per run of failures: the box does not come back every
        // save tick while the disk stays full.
        if (!std::exchange(m_logFailing, true))
            emit logFailed(text);
        return;
    }
    // The disk took the text again: the old error no longer holds.
    if (m_logFailing && m_log.pendingBytes() == 0) {
        m_logFailing = false;
        m_logFailureText.clear();
        m_logFailureShown.invalidate();
        emit failureCleared();
        emit statusMessage(tr("The data log is being written again."), 3000);
    }
}

void PortSession::startLog()
{
    if (!m_options.logSaveFlag || m_logActive)
        return;
    const Result opened = m_log.open(LogWriter::Options::fromPaneOptions(m_options, currentRealPortName()));
    if (!opened) {
        noteLogResult(opened);
        return;
    }
    // A new log starts at a line start with fresh decoders.
    m_logFormatter.reset();
    m_logActive = true;
    m_saveTimer->start();
}

void PortSession::stopLog()
{
    m_saveTimer->stop();
    if (!m_logActive)
        return;
    m_logActive = false;
    noteLogResult(m_log.writePending());
    m_log.close();
}

void PortSession::restartLog()
{
    if (!m_logActive)
        return;
    stopLog();
    startLog();
}

void PortSession::setLogEnabled(bool on)
{
    const PaneOptions before = m_options;
    m_options.logSaveFlag = on;
    followLogOptions(before, currentRealPortName());
}

void PortSession::followLogOptions(const PaneOptions &before, const QString &portStampBefore)
{
    // A running log takes new options at once: switched off, on, or to a
    // new file under the new name, folder, stamps or rotation.
    if (!m_options.logSaveFlag) {
        stopLog();
        return;
    }
    if (!m_open)
        return;
    if (!m_logActive) {
        startLog();
        return;
    }
    if (!(LogWriter::Options::fromPaneOptions(before, portStampBefore)
          == LogWriter::Options::fromPaneOptions(m_options, currentRealPortName())))
        restartLog();
}

void PortSession::onSaveTick()
{
    noteLogResult(m_log.writePending());
}
