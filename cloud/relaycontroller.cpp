#include "cloud/relaycontroller.h"

#include "cloud/consolecommandtable.h"
#include "common/logging.h"
#include "connection/connectioncontroller.h"
#include "terminal/portsession.h"

#include <QSettings>
#include <QTimer>

RelayController::Request RelayController::Request::fromPayload(const QJsonObject &payload)
{
    auto text = [&payload](const char *key) { return payload.value(QLatin1String(key)).toString(); };
    return Request{text("port_key"), text("relay_id"), text("ticket"), text("share_id"), text("guest_name")};
}

bool RelayController::isAllowed()
{
    return QSettings().value(QStringLiteral("CloudConsoleAllowRelay"), false).toBool();
}

RelayController *RelayController::of(const PortSession *session)
{
    if (!session)
        return nullptr;
    const QList<RelayController *> relays = session->findChildren<RelayController *>(Qt::FindDirectChildrenOnly);
    for (RelayController *relay : relays) {
        if (!relay->m_ended)
            return relay;
    }
    return nullptr;
}

QString RelayController::portClosedText()
{
    return tr("the shared port was closed");
}

RelayController::Opening RelayController::open(const Request &request, PortSession *session,
                                               const QString &relayAddress, bool allowed)
{
    if (!allowed)
        return {nullptr, QString::fromLatin1(ConsoleError::kPermissionDenied), QStringLiteral("cloud relay is disabled on the device")};
    if (request.relayId.isEmpty() || request.ticket.isEmpty())
        return {nullptr, QString::fromLatin1(ConsoleError::kInvalidPayload), QStringLiteral("open_relay needs a relay_id and a ticket")};
    if (!session)
        return {nullptr, QString::fromLatin1(ConsoleError::kPortNotFound), QStringLiteral("no such port: %1").arg(request.portKey)};
    if (of(session))
        return {nullptr, QString::fromLatin1(ConsoleError::kRelayBusy), QStringLiteral("this port already has a relay")};
    // Only a port that is open is shared; a relay never opens one.
    if (!session->isConnectionOpen())
        return {nullptr, QString::fromLatin1(ConsoleError::kPortClosed), QStringLiteral("the port is not open")};
    if (session->config().mode == ConnectionMode::RemoteSerialRelay)
        return {nullptr, QString::fromLatin1(ConsoleError::kInternalError), QStringLiteral("a relayed port cannot be relayed again")};
    auto *controller = new RelayController(request, session);
    controller->start(relayAddress);
    return {controller, {}, {}};
}

RelayController::RelayController(const Request &request, PortSession *session)
    : QObject(session)
    , m_request(request)
    , m_session(session)
    , m_socket(new RelaySocket(this))
    , m_tick(new QTimer(this))
{
    m_tick->setSingleShot(true);
    connect(m_tick, &QTimer::timeout, this, &RelayController::onTick);
    connect(m_socket, &RelaySocket::paired, this, &RelayController::onPaired);
    connect(m_socket, &RelaySocket::binaryReceived, this, &RelayController::onBinary);
    connect(m_socket, &RelaySocket::stopped, this, &RelayController::onStopped);
    connect(m_socket, &RelaySocket::noticed, this, &RelayController::noticed);
    connect(m_socket, &RelaySocket::bytesWritten, this, &RelayController::updateHold);
    connect(session, &PortSession::stateChanged, this, &RelayController::onPortStateChanged);
    connect(session->controller(), &ConnectionController::bytesWritten, this, &RelayController::onTick);
    const ConnectionConfig &config = session->config();
    // About ten bits a byte on the line.
    m_pacer.setLineRate(config.mode == ConnectionMode::Serial ? qMax(config.baudRate, 1) / 10 : 0);
}

RelayController::~RelayController()
{
    if (!m_ended) {
        m_ended = true;
        emit ended(portClosedText());
    }
}

void RelayController::start(const QString &relayAddress)
{
    qCInfo(lcCloud).noquote() << "[RelayController] relay" << m_request.relayId << "on" << m_request.portKey;
    m_socket->open(relayAddress, m_request.ticket);
}

void RelayController::onPaired(const QString &relayId, const QString &portKey)
{
    Q_UNUSED(portKey);
    if (m_ended || !m_session)
        return;
    m_engaged = true;
    m_tap = connect(m_session, &PortSession::rxTapped, this,
                    [this](const QByteArray &bytes) { onPortBytes(bytes, QString()); });
    const QString who = m_request.guestName.isEmpty() ? tr("another computer") : m_request.guestName;
    m_session->writeNote(tr("Live Relay: %1 now uses this port.").arg(who));
    emit engaged(relayId);
}

void RelayController::onBinary(const QByteArray &bytes)
{
    m_pacer.push(bytes);
    onTick();
}

void RelayController::onTick()
{
    if (m_ended || !m_session)
        return;
    ConnectionController *port = m_session->controller();
    const RelayPacer::Step step = m_pacer.step(port->bytesToWrite(), !m_session->isTransferActive());
    if (step.read == RelayPacer::Read::Pause)
        m_socket->setReadPaused(true);
    else if (step.read == RelayPacer::Read::Resume)
        m_socket->setReadPaused(false);
    if (!step.write.isEmpty() && !m_session->sendBytes(step.write)) {
        end(tr("the shared port did not take the data"));
        return;
    }
    if (step.wakeInMs == RelayPacer::kNoWake)
        m_tick->stop();
    else
        m_tick->start(int(step.wakeInMs));
}

void RelayController::onPortBytes(const QByteArray &bytes, const QString &peer)
{
    Q_UNUSED(peer);
    if (!m_engaged || m_ended)
        return;
    if (m_socket->bytesToWrite() >= kSendLimit) {
        m_dropped += bytes.size();
        m_droppedTotal += bytes.size();
        return;
    }
    m_socket->send(bytes);
    updateHold();
}

void RelayController::updateHold()
{
    if (!m_session)
        return;
    const qint64 backlog = m_socket->bytesToWrite();
    if (!m_holdingPort && backlog > kHoldHigh) {
        m_holdingPort = true;
        m_session->setReadHold(this, true);
    } else if (m_holdingPort && backlog < kHoldLow) {
        m_holdingPort = false;
        m_session->setReadHold(this, false);
    }
    if (m_dropped > 0 && backlog < kHoldLow)
        reportDropped();
}

void RelayController::reportDropped()
{
    const QString text = tr("The relay could not keep up with the port: %L1 bytes from the port were dropped.")
                             .arg(std::exchange(m_dropped, 0));
    if (m_session)
        m_session->writeNote(text);
    emit noticed(text);
}

void RelayController::onPortStateChanged()
{
    if (m_session && !m_session->isStarted())
        end(portClosedText());
}

void RelayController::onStopped(RelaySocket::Stop reason, const QString &detail)
{
    Q_UNUSED(reason);
    end(detail);
}

void RelayController::end(const QString &reason)
{
    if (m_ended)
        return;
    m_ended = true;
    m_tick->stop();
    disconnect(m_tap);
    m_socket->close();  // nothing more is reported from it
    m_pacer.clear();
    if (m_dropped > 0)
        reportDropped();
    if (m_session) {
        if (m_holdingPort)
            m_session->setReadHold(this, false);
        if (m_engaged)
            m_session->writeNote(tr("Live Relay ended: %1").arg(reason));
    }
    qCInfo(lcCloud).noquote() << "[RelayController] relay" << m_request.relayId << "ended:" << reason;
    emit ended(reason);
    deleteLater();
}
