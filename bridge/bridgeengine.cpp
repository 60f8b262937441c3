#include "bridge/bridgeengine.h"

#include "bridge/bridgeend.h"
#include "bridge/forwardpath.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/modbusgatewaypath.h"
#include "bridge/panebridgeend.h"
#include "bridge/rfc2217sharepath.h"
#include "bridge/udpbridgeend.h"
#include "common/logging.h"

#include <QTimer>

BridgeEngine::BridgeEngine(const BridgeRecord &record, PaneDirectory *panes, QObject *parent)
    : QObject(parent)
    , m_record(record)
    , m_panes(panes)
    , m_guard(record.flood)
    , m_captureTimer(new QTimer(this))
{
    m_captureTimer->setInterval(kCaptureSaveIntervalMs);
    connect(m_captureTimer, &QTimer::timeout, this, [this] { noteCaptureResult(m_capture.flush()); });
}

BridgeEngine::~BridgeEngine()
{
    teardown();
}

QString BridgeEngine::stateName(State state)
{
    switch (state) {
    case State::Disabled: return tr("Disabled");
    case State::Waiting: return tr("Waiting");
    case State::Running: return tr("Running");
    case State::Suspended: return tr("Suspended");
    case State::Failed: return tr("Stopped");
    }
    return {};
}

QString BridgeEngine::stateText() const
{
    switch (m_state) {
    case State::Disabled: return tr("Disabled");
    case State::Waiting: return tr("Waiting: %1").arg(m_reason);
    case State::Running: return tr("Running");
    case State::Suspended: return m_reason;
    case State::Failed: return tr("Stopped: %1").arg(m_reason);
    }
    return {};
}

void BridgeEngine::setRecord(const BridgeRecord &record)
{
    const bool running = m_state == State::Waiting || m_state == State::Running;
    if (running)
        stop();
    m_record = record;
    if (running)
        start();
}

BridgeEnd *BridgeEngine::makeEnd(int index)
{
    const BridgeEndSpec &spec = m_record.ends[size_t(index)];
    switch (spec.kind) {
    case BridgeEndSpec::Kind::Pane:
        return new PaneBridgeEnd(m_panes, spec.pane, m_record.name, this);
    case BridgeEndSpec::Kind::Listener:
        return new ListenerBridgeEnd(QHostAddress(spec.listenAddress.trimmed()), quint16(spec.listenPort),
                                     spec.allowlist, spec.exclusive, this);
    case BridgeEndSpec::Kind::Udp:
        return new UdpBridgeEnd(spec.udpTargets, this);
    }
    return nullptr;
}

BridgeEnd *BridgeEngine::end(int index) const
{
    return index == 0 || index == 1 ? m_ends[size_t(index)] : nullptr;
}

void BridgeEngine::start()
{
    if (m_state == State::Waiting || m_state == State::Running)
        return;
    teardown();
    m_halting = false;
    m_counters = {};
    m_gatewayCounters = {};
    for (RateHistory &rate : m_rates)
        rate.clear();
    m_rateCheckedSecond = {{-1, -1}};
    m_guard = FloodGuard(m_record.flood);
    m_lastNotice.clear();

    for (int i : {0, 1}) {
        BridgeEnd *e = makeEnd(i);
        m_ends[size_t(i)] = e;
        connect(e, &BridgeEnd::received, this,
                [this, i](const QByteArray &bytes, const QString &source) { onReceived(i, bytes, source); });
        connect(e, &BridgeEnd::sourceGone, this, [this, i](const QString &source) {
            for (BridgePath *path : std::as_const(m_paths))
                path->sourceGone(i, source);
        });
        const auto changed = [this, i] {
            for (BridgePath *path : std::as_const(m_paths))
                path->endChanged(i);
            updateState();
        };
        connect(e, &BridgeEnd::outletsChanged, this, changed);
        connect(e, &BridgeEnd::readyChanged, this, changed);
        connect(e, &BridgeEnd::drained, this, [this, i] {
            for (BridgePath *path : std::as_const(m_paths))
                path->drained(i);
        });
        connect(e, &BridgeEnd::notice, this, &BridgeEngine::postNotice);
    }

    // The kind decides what runs between the ends.
    switch (m_record.kind) {
    case BridgeKind::Forward:
        for (int direction : {BridgeRecord::kAToB, BridgeRecord::kBToA}) {
            if (m_record.forwardsFrom(direction == BridgeRecord::kAToB ? BridgeRecord::kA : BridgeRecord::kB)) {
                m_paths.append(new ForwardPath(this, direction, m_record.framing[size_t(direction)], m_record.egress,
                                               this));
            }
        }
        break;
    case BridgeKind::ModbusGateway: {
        auto *gateway = new ModbusGatewayPath(this, m_record.modbus, this);
        connect(gateway, &ModbusGatewayPath::clientClosed, this, &BridgeEngine::postNotice);
        m_gateway = gateway;
        m_paths.append(gateway);
        break;
    }
    case BridgeKind::Rfc2217Share: {
        auto *share = new Rfc2217SharePath(this, this);
        connect(share, &Rfc2217SharePath::clientNotice, this, &BridgeEngine::postNotice);
        m_paths.append(share);
        break;
    }
    }

    if (m_record.capture.enabled) {
        const Result opened = m_capture.open(m_record.capture, m_record.name);
        if (opened) {
            m_capture.note(tr("%1 started: %2 and %3").arg(m_record.name, m_ends[0]->description(), m_ends[1]->description()));
            m_captureTimer->start();
        } else {
            postNotice(opened.errorText());
        }
    }

    // Waiting until both ends report ready.
    m_state = State::Waiting;
    m_reason = tr("starting");
    for (BridgeEnd *e : m_ends) {
        const Result started = e->start();
        if (!started) {
            teardown();
            setState(State::Failed, started.errorText());
            return;
        }
    }
    updateState();
}

void BridgeEngine::stop()
{
    m_halting = false;
    teardown();
    setState(State::Disabled);
}

void BridgeEngine::teardown()
{
    if (m_gateway)
        m_gatewayCounters = gatewayCounters();
    m_gateway = nullptr;
    const QList<BridgePath *> paths = std::exchange(m_paths, {});
    for (BridgePath *path : paths)
        path->stop();
    qDeleteAll(paths);
    for (BridgeEnd *&e : m_ends) {
        if (!e)
            continue;
        e->disconnect(this);
        e->stop();
        delete e;
        e = nullptr;
    }
    m_captureTimer->stop();
    if (m_capture.isOpen()) {
        m_capture.note(tr("%1 stopped").arg(m_record.name));
        m_capture.close();
    }
}

void BridgeEngine::updateState()
{
    if (!m_ends[0] || !m_ends[1] || m_halting)
        return;
    QStringList waiting;
    for (BridgeEnd *e : m_ends) {
        if (!e->isReady())
            waiting.append(e->waitingText());
    }
    if (waiting.isEmpty())
        setState(State::Running);
    else
        setState(State::Waiting, waiting.join(QStringLiteral("; ")));
}

void BridgeEngine::setState(State state, const QString &reason)
{
    if (state == m_state && reason == m_reason)
        return;
    m_state = state;
    m_reason = reason;
    qCInfo(lcCore).noquote() << "bridge" << m_record.name << stateText();
    emit stateChanged();
}

void BridgeEngine::onReceived(int end, const QByteArray &bytes, const QString &source)
{
    if (m_halting)
        return;
    if (m_record.forwardsFrom(end)) {
        if (const auto trip = m_guard.noteReceived(end, bytes, nowMs())) {
            tripped(*trip);
            return;
        }
    }
    for (BridgePath *path : std::as_const(m_paths))
        path->received(end, bytes, source);
}

void BridgeEngine::framed(int direction, const QByteArray &frame)
{
    Counters &c = m_counters[size_t(direction)];
    ++c.frames;
    c.bytes += quint64(frame.size());
    const qint64 now = nowMs();
    RateHistory &rate = m_rates[size_t(direction)];
    rate.add(frame.size(), now);
    if (m_capture.isOpen())
        noteCaptureResult(m_capture.frame(direction, frame));
    // The rate is looked at once a second: it changes no faster.
    const qint64 second = now / 1000;
    if (second != m_rateCheckedSecond[size_t(direction)]) {
        m_rateCheckedSecond[size_t(direction)] = second;
        if (const auto trip = m_guard.checkRate(direction, rate, now))
            tripped(*trip);
    }
}

void BridgeEngine::written(int end, const QByteArray &bytes)
{
    m_guard.noteWritten(end, bytes);
}

void BridgeEngine::dropped(int direction, qint64 frames, qint64 bytes, const QString &outlet, const QString &why)
{
    Counters &c = m_counters[size_t(direction)];
    c.droppedFrames += quint64(frames);
    c.droppedBytes += quint64(bytes);
    if (m_capture.isOpen())
        noteCaptureResult(m_capture.drop(direction, frames, bytes, outlet, why));
}

void BridgeEngine::unrouted(int direction, qint64 bytes)
{
    m_counters[size_t(direction)].unroutedBytes += quint64(bytes);
}

void BridgeEngine::fail(const QString &text)
{
    halt(State::Failed, text);
}

void BridgeEngine::tripped(const FloodGuard::Trip &trip)
{
    QString text;
    if (trip.kind == FloodGuard::Trip::Kind::Echo) {
        text = tr("Suspended: %1 sends back what this bridge writes to it, as a looped cable would. "
                  "Remove the loop, then choose Enable to resume.")
                   .arg(m_ends[size_t(trip.end)]->description());
    } else {
        text = tr("Suspended: %1 carried more than %L2 bytes/s for %3 s, as a loop or a flood would. "
                  "Check the wiring, then choose Enable to resume.")
                   .arg(BridgeRecord::directionName(trip.direction))
                   .arg(m_record.flood.rateLimit)
                   .arg(m_record.flood.seconds);
    }
    halt(State::Suspended, text);
}

void BridgeEngine::halt(State state, const QString &reason)
{
    if (m_halting)
        return;
    m_halting = true;
    m_haltState = state;
    m_haltReason = reason;
    if (m_capture.isOpen())
        m_capture.note(reason);
    QMetaObject::invokeMethod(this, &BridgeEngine::applyHalt, Qt::QueuedConnection);
}

void BridgeEngine::applyHalt()
{
    if (!m_halting)
        return;
    teardown();
    m_halting = false;
    setState(m_haltState, m_haltReason);
}

void BridgeEngine::postNotice(const QString &text)
{
    m_lastNotice = text;
    emit notice(text);
}

void BridgeEngine::noteCaptureResult(const Result &result)
{
    if (!result && result.errorText() != m_lastNotice)
        postNotice(result.errorText());
}

BridgeEngine::Counters BridgeEngine::counters(int direction) const
{
    Counters c = m_counters[size_t(direction)];
    for (const BridgePath *path : m_paths)
        c.queuedBytes += path->queuedBytes(direction);
    return c;
}

QList<qint64> BridgeEngine::ratePoints(int direction) const
{
    return m_rates[size_t(direction)].points(m_clock());
}

qint64 BridgeEngine::rate(int direction) const
{
    return m_rates[size_t(direction)].lastSecond(m_clock());
}

BridgeEngine::GatewayCounters BridgeEngine::gatewayCounters() const
{
    if (!m_gateway)
        return m_gatewayCounters;
    const ModbusArbiter &arbiter = m_gateway->arbiter();
    return {arbiter.clientCounters(), arbiter.unitCounters(), arbiter.discardedReplies()};
}
