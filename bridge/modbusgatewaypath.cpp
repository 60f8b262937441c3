#include "bridge/modbusgatewaypath.h"

#include "bridge/bridgeend.h"
#include "bridge/bridgerecord.h"

#include <QTimer>

#include <algorithm>

ModbusGatewayPath::ModbusGatewayPath(BridgePathHost *host, const ModbusArbiter::Options &options, QObject *parent)
    : BridgePath(host, parent)
    , m_arbiter(options)
    , m_timer(new QTimer(this))
{
    m_elapsed.start();
    m_timer->setSingleShot(true);
    // The silence between frames is well under a millisecond at high rates.
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, [this] {
        if (!m_stopped)
            apply(m_arbiter.tick(nowUs()));
    });
    updateBaudRate();
}

ModbusGatewayPath::~ModbusGatewayPath() = default;

qint64 ModbusGatewayPath::nowUs() const
{
    return m_elapsed.nsecsElapsed() / 1000;
}

void ModbusGatewayPath::updateBaudRate()
{
    if (BridgeEnd *line = host()->end(BridgeRecord::kB))
        m_arbiter.setBaudRate(line->lineBaudRate());
}

void ModbusGatewayPath::received(int end, const QByteArray &bytes, const QString &source)
{
    if (m_stopped || host()->isHalting())
        return;
    if (end == BridgeRecord::kB) {
        apply(m_arbiter.lineBytes(bytes, nowUs()));
        return;
    }
    auto reader = m_readers.find(source);
    if (reader == m_readers.end())
        reader = m_readers.insert(source, ModbusTcpReader());
    const ModbusTcpReader::Read read = reader->feed(bytes);
    for (const ModbusTcpReader::Request &request : read.requests) {
        apply(m_arbiter.request(source, request.transactionId, request.unit, request.pdu, nowUs()));
        if (m_stopped)
            return;
    }
    if (!read.error.isEmpty())
        closeClient(source, read.error);
}

void ModbusGatewayPath::closeClient(const QString &client, const QString &why)
{
    const QString text = tr("Closed %1: %2").arg(client, why);
    m_readers.remove(client);
    m_arbiter.clientGone(client);
    if (BridgeEnd *network = host()->end(BridgeRecord::kA))
        network->dropOutlet(client);
    emit clientClosed(text);
}

void ModbusGatewayPath::sourceGone(int end, const QString &source)
{
    if (end != BridgeRecord::kA)
        return;
    m_readers.remove(source);
    m_arbiter.clientGone(source);
}

void ModbusGatewayPath::endChanged(int end)
{
    if (end == BridgeRecord::kB)
        updateBaudRate();
}

void ModbusGatewayPath::apply(const ModbusArbiter::Step &step)
{
    if (m_stopped)
        return;
    if (!step.write.isEmpty()) {
        host()->framed(BridgeRecord::kAToB, step.write);
        BridgeEnd *line = host()->end(BridgeRecord::kB);
        // A line that is not there leaves the request unanswered: the
        // client gets "target device failed to respond" when its time is up.
        if (line && line->isReady())
            line->write(QString(), step.write);
    }
    BridgeEnd *network = host()->end(BridgeRecord::kA);
    QStringList overrun;
    for (const ModbusArbiter::Reply &reply : step.replies) {
        const QByteArray frame = ModbusTcpReader::frame(reply.transactionId, reply.unit, reply.pdu);
        host()->framed(BridgeRecord::kBToA, frame);
        if (network && network->write(reply.client, frame) && network->backlog(reply.client) > kMaxClientBacklog)
            overrun.append(reply.client);
    }
    for (const QString &client : std::as_const(overrun)) {
        if (m_readers.contains(client))
            closeClient(client, tr("it sent requests faster than it read the replies."));
    }
    if (step.wakeAtUs == ModbusArbiter::kNoWake) {
        m_timer->stop();
    } else {
        // Whole milliseconds, then at once: the wait may be under one.
        const qint64 waitUs = std::max<qint64>(0, step.wakeAtUs - nowUs());
        m_timer->start(int(std::min<qint64>(waitUs / 1000, 24 * 3600 * 1000)));
    }
}

qint64 ModbusGatewayPath::queuedBytes(int direction) const
{
    return direction == BridgeRecord::kAToB ? m_arbiter.queuedBytes() : 0;
}

void ModbusGatewayPath::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    m_timer->stop();
    if (m_arbiter.queuedRequests() > 0) {
        host()->dropped(BridgeRecord::kAToB, m_arbiter.queuedRequests(), m_arbiter.queuedBytes(), QString(),
                        tr("the gateway stopped"));
    }
}
