#include "bridge/forwardpath.h"

#include "bridge/bridgeend.h"

#include <QTimer>

#include <algorithm>

struct ForwardPath::Source
{
    BridgeFramer framer;
    QTimer timer;
};

class ForwardPath::Busy
{
public:
    explicit Busy(ForwardPath *path) : m_path(path) { ++m_path->m_busy; }
    ~Busy()
    {
        if (--m_path->m_busy == 0 && !m_path->m_settling)
            m_path->settle();
    }
    Busy(const Busy &) = delete;
    Busy &operator=(const Busy &) = delete;

private:
    ForwardPath *m_path;
};

ForwardPath::ForwardPath(BridgePathHost *host, int direction, const BridgeFramer::Options &framing,
                         const EgressQueue::Options &egress, QObject *parent)
    : BridgePath(host, parent)
    , m_direction(direction)
    , m_from(direction == 0 ? 0 : 1)
    , m_to(direction == 0 ? 1 : 0)
    , m_framing(framing)
    , m_egress(egress)
{
    syncOutlets();
    updateHold();
}

ForwardPath::~ForwardPath() = default;

ForwardPath::Source &ForwardPath::sourceFor(const QString &label)
{
    auto it = m_sources.find(label);
    if (it != m_sources.end())
        return *it->second;
    auto source = std::make_unique<Source>();
    source->framer = BridgeFramer(m_framing);
    source->timer.setSingleShot(true);
    Source *raw = source.get();
    connect(&source->timer, &QTimer::timeout, this, [this, raw] {
        const Busy busy(this);
        take(*raw, raw->framer.tick(host()->nowMs()));
    });
    return *m_sources.emplace(label, std::move(source)).first->second;
}

void ForwardPath::received(int end, const QByteArray &bytes, const QString &source)
{
    if (end != m_from || m_stopped || host()->isHalting())
        return;
    const Busy busy(this);
    Source &s = sourceFor(source);
    take(s, s.framer.feed(bytes, host()->nowMs()));
}

void ForwardPath::take(Source &source, BridgeFramer::Step step)
{
    for (const BridgeFramer::Frame &frame : std::as_const(step.events)) {
        if (m_stopped)
            return;
        forward(frame);
    }
    if (step.wantsWake())
        source.timer.start(int(std::clamp<qint64>(step.wakeAtMs - host()->nowMs(), 0, 24 * 3600 * 1000)));
    else
        source.timer.stop();
    updateHold();
}

void ForwardPath::forward(const BridgeFramer::Frame &frame)
{
    host()->framed(m_direction, frame.bytes);
    if (m_queues.isEmpty()) {
        host()->unrouted(m_direction, frame.bytes.size());
        return;
    }
    // Every outlet gets its own copy of the frame (shared until written).
    for (auto it = m_queues.begin(); it != m_queues.end(); ++it) {
        push(it.key(), it.value(), frame.bytes);
        if (m_stopped)
            return;
    }
}

void ForwardPath::push(const QString &outlet, EgressQueue &queue, const QByteArray &frame)
{
    BridgeEnd *to = host()->end(m_to);
    if (!to->isReady() && m_egress.policy != EgressQueue::Policy::PauseSource) {
        report({1, frame.size(), false}, outlet, tr("%1 is not ready").arg(to->description()));
        return;
    }
    const EgressQueue::PushResult result = queue.push(frame);
    if (result.disconnect) {
        // The queue is empty now; the outlet goes with what it held.
        report(result, outlet, tr("the target fell behind by more than %L1 bytes").arg(m_egress.highWatermark));
        if (!to->dropOutlet(outlet)) {
            m_stopped = true;
            host()->fail(tr("%1 fell behind by more than %L2 bytes (overflow policy: disconnect)")
                             .arg(to->description())
                             .arg(m_egress.highWatermark));
        }
        return;
    }
    report(result, outlet, tr("the queue reached its high watermark"));
    pump(outlet);
}

void ForwardPath::report(const EgressQueue::PushResult &result, const QString &outlet, const QString &why)
{
    if (result.droppedFrames > 0 || result.droppedBytes > 0)
        host()->dropped(m_direction, result.droppedFrames, result.droppedBytes, outlet, why);
}

void ForwardPath::pump(const QString &outlet)
{
    BridgeEnd *to = host()->end(m_to);
    auto it = m_queues.find(outlet);
    if (it == m_queues.end() || !to->isReady())
        return;
    EgressQueue &queue = it.value();
    const bool apart = to->keepsFramesApart();
    while (!queue.isEmpty()) {
        const qint64 room = kOutletWindowBytes - to->backlog(outlet);
        if (room <= 0)
            break;
        const qsizetype before = queue.frames();
        const QByteArray block = apart ? queue.takeFrame() : queue.takeUpTo(room);
        const qint64 frames = before - queue.frames();
        if (!to->write(outlet, block)) {
            host()->dropped(m_direction, frames, block.size(), outlet, tr("%1 did not take them").arg(outlet.isEmpty() ? to->description() : outlet));
            continue;
        }
        host()->written(m_to, block);
        // A write may make a client leave at once.
        it = m_queues.find(outlet);
        if (it == m_queues.end())
            return;
    }
}

void ForwardPath::pumpAll()
{
    const QStringList outlets = m_queues.keys();
    for (const QString &outlet : outlets) {
        if (m_stopped)
            return;
        pump(outlet);
    }
}

void ForwardPath::drained(int end)
{
    if (end != m_to || m_stopped)
        return;
    const Busy busy(this);
    pumpAll();
    updateHold();
}

void ForwardPath::syncOutlets()
{
    BridgeEnd *to = host()->end(m_to);
    const QStringList outlets = to->outlets();
    for (const QString &outlet : outlets) {
        if (!m_queues.contains(outlet))
            m_queues.insert(outlet, EgressQueue(m_egress));
    }
    for (auto it = m_queues.begin(); it != m_queues.end();) {
        if (outlets.contains(it.key())) {
            ++it;
            continue;
        }
        report(it.value().clear(), it.key(), tr("%1 went away").arg(it.key().isEmpty() ? to->description() : it.key()));
        it = m_queues.erase(it);
    }
}

void ForwardPath::endChanged(int end)
{
    if (m_stopped)
        return;
    if (end == m_to)
        m_syncPending = true;
    if (m_busy > 0)
        return;
    const Busy busy(this);
    updateHold();
}

void ForwardPath::settle()
{
    m_settling = true;
    while (m_syncPending && !m_stopped) {
        m_syncPending = false;
        const Busy busy(this);
        syncOutlets();
        pumpAll();
        updateHold();
    }
    m_settling = false;
}

void ForwardPath::sourceGone(int end, const QString &source)
{
    if (end != m_from || m_stopped)
        return;
    auto it = m_sources.find(source);
    if (it == m_sources.end())
        return;
    const Busy busy(this);
    // What the source said before it left still goes out.
    std::unique_ptr<Source> gone = std::move(it->second);
    m_sources.erase(it);
    gone->timer.stop();
    take(*gone, gone->framer.flush());
}

void ForwardPath::updateHold()
{
    if (m_stopped)
        return;
    bool hold = false;
    if (m_egress.policy == EgressQueue::Policy::PauseSource) {
        if (!host()->end(m_to)->isReady()) {
            hold = true;
        } else {
            for (const EgressQueue &queue : std::as_const(m_queues)) {
                if (m_holding ? !queue.letsSourceResume() : queue.wantsSourcePaused()) {
                    hold = true;
                    break;
                }
            }
        }
    }
    if (hold == m_holding)
        return;
    m_holding = hold;
    host()->end(m_from)->setReadPaused(hold);
}

qint64 ForwardPath::queuedBytes(int direction) const
{
    if (direction != m_direction)
        return 0;
    qint64 total = 0;
    for (const EgressQueue &queue : m_queues)
        total += queue.bytes();
    return total;
}

void ForwardPath::stop()
{
    if (m_stopped)
        return;
    const QString why = tr("the bridge stopped");
    for (auto it = m_queues.begin(); it != m_queues.end(); ++it)
        report(it.value().clear(), it.key(), why);
    m_queues.clear();
    for (auto &entry : m_sources) {
        entry.second->timer.stop();
        const qsizetype partial = entry.second->framer.discard();
        if (partial > 0)
            host()->dropped(m_direction, 1, partial, QString(), why);
    }
    m_sources.clear();
    if (m_holding) {
        m_holding = false;
        host()->end(m_from)->setReadPaused(false);
    }
    m_stopped = true;
}
