#include "bridge/panebridgeend.h"

#include "bridge/panedirectory.h"
#include "connection/connectioncontroller.h"
#include "terminal/portsession.h"

PaneBridgeEnd::PaneBridgeEnd(PaneDirectory *directory, const QString &label, const QString &bridgeName,
                             QObject *parent)
    : BridgeEnd(parent)
    , m_directory(directory)
    , m_label(label.trimmed())
    , m_bridgeName(bridgeName)
{
}

PaneBridgeEnd::~PaneBridgeEnd()
{
    detach();
}

PortSession *PaneBridgeEnd::session() const
{
    return m_session.data();
}

Result PaneBridgeEnd::start()
{
    m_started = true;
    connect(m_directory, &PaneDirectory::changed, this, &PaneBridgeEnd::lookUp, Qt::UniqueConnection);
    lookUp();
    return Result::success();
}

void PaneBridgeEnd::stop()
{
    m_started = false;
    disconnect(m_directory, &PaneDirectory::changed, this, &PaneBridgeEnd::lookUp);
    detach();
    updateReady();
}

void PaneBridgeEnd::lookUp()
{
    if (!m_started)
        return;
    // The attached pane may have gone, or taken another connection.
    if (!m_session && !m_connections.isEmpty()) {
        m_connections.clear();
        emit outletsChanged();
    }
    if (m_session && PaneDirectory::endpointLabel(m_session->config()) != m_label)
        detach();
    if (!m_session) {
        if (PortSession *found = m_directory->find(m_label))
            attach(found);
    }
    updateReady();
}

void PaneBridgeEnd::attach(PortSession *session)
{
    m_session = session;
    session->setBridgeLink(this, m_bridgeName);
    if (m_paused)
        session->setReadHold(this, true);
    m_connections.append(connect(session, &PortSession::rxTapped, this,
                                 [this](const QByteArray &bytes) { emit received(bytes, QString()); }));
    m_connections.append(connect(session->controller(), &ConnectionController::bytesWritten, this, &BridgeEnd::drained));
    m_connections.append(connect(session, &PortSession::transferStateChanged, this, &PaneBridgeEnd::updateReady));
    m_connections.append(connect(session, &PortSession::stateChanged, this, &PaneBridgeEnd::updateReady));
    // A new baud rate changes a gateway's silences.
    m_connections.append(connect(session, &PortSession::configChanged, this, &BridgeEnd::outletsChanged));
    emit outletsChanged();
}

void PaneBridgeEnd::detach()
{
    for (const QMetaObject::Connection &c : std::as_const(m_connections))
        disconnect(c);
    m_connections.clear();
    if (m_session) {
        m_session->setReadHold(this, false);
        m_session->clearBridgeLink(this);
        m_session = nullptr;
        emit outletsChanged();
    }
}

void PaneBridgeEnd::updateReady()
{
    const bool ready = isReady();
    if (ready == m_ready)
        return;
    m_ready = ready;
    emit readyChanged();
}

bool PaneBridgeEnd::isReady() const
{
    return m_started && m_session && m_session->isConnectionOpen() && !m_session->isTransferActive();
}

QString PaneBridgeEnd::waitingText() const
{
    if (isReady())
        return {};
    if (!m_session)
        return tr("no pane has %1").arg(m_label);
    if (m_session->isTransferActive())
        return tr("a file transfer runs on %1").arg(m_label);
    return tr("%1 is closed").arg(m_label);
}

QStringList PaneBridgeEnd::outlets() const
{
    return m_session ? QStringList{QString()} : QStringList();
}

bool PaneBridgeEnd::write(const QString &outlet, const QByteArray &bytes)
{
    Q_UNUSED(outlet);
    // A closed serial port would be opened by a send: not the bridge's call.
    if (!isReady())
        return false;
    return m_session->forwardBytes(bytes);
}

qint64 PaneBridgeEnd::backlog(const QString &outlet) const
{
    Q_UNUSED(outlet);
    return m_session ? m_session->controller()->writeBacklog() : 0;
}

void PaneBridgeEnd::setReadPaused(bool paused)
{
    m_paused = paused;
    if (m_session)
        m_session->setReadHold(this, paused);
}

int PaneBridgeEnd::lineBaudRate() const
{
    if (!m_session || m_session->config().mode != ConnectionMode::Serial)
        return 0;
    return m_session->config().baudRate;
}
