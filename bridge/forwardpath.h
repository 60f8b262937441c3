#pragma once

#include "bridge/bridgeframer.h"
#include "bridge/bridgepath.h"
#include "bridge/egressqueue.h"

#include <QHash>

#include <memory>
#include <unordered_map>

class QTimer;

// One direction of a forwarding bridge: what the source end receives is
// framed per source (a listener's clients never interleave inside a frame),
// every frame is pushed to the queue of each outlet of the target end, and
// the queues are written out while an outlet holds less than a small window,
// so that the watermarks act on the bridge's own queues and not on socket
// buffers. Under the pause-source policy the source is held while any queue
// is above its high watermark or the target is not ready.
class ForwardPath : public BridgePath
{
    Q_OBJECT

public:
    // Most an outlet is handed before it has taken what it holds.
    static constexpr qint64 kOutletWindowBytes = 256 * 1024;

    ForwardPath(BridgePathHost *host, int direction, const BridgeFramer::Options &framing,
                const EgressQueue::Options &egress, QObject *parent = nullptr);
    ~ForwardPath() override;

    void received(int end, const QByteArray &bytes, const QString &source) override;
    void sourceGone(int end, const QString &source) override;
    void endChanged(int end) override;
    void drained(int end) override;
    qint64 queuedBytes(int direction) const override;
    void stop() override;

    bool isHoldingSource() const { return m_holding; }

private:
    struct Source;

    Source &sourceFor(const QString &label);
    void take(Source &source, BridgeFramer::Step step);
    void forward(const BridgeFramer::Frame &frame);
    void push(const QString &outlet, EgressQueue &queue, const QByteArray &frame);
    void pump(const QString &outlet);
    void pumpAll();
    void syncOutlets();
    void updateHold();
    void report(const EgressQueue::PushResult &result, const QString &outlet, const QString &why);
    // Writes can make an outlet go at once (a client that fails); the
    // outlets are brought up to date only once the path is out of its loops.
    class Busy;
    void settle();

    int m_direction;
    int m_from;
    int m_to;
    BridgeFramer::Options m_framing;
    EgressQueue::Options m_egress;
    std::unordered_map<QString, std::unique_ptr<Source>> m_sources;
    QHash<QString, EgressQueue> m_queues;
    bool m_holding = false;
    bool m_stopped = false;
    int m_busy = 0;
    bool m_syncPending = false;
    bool m_settling = false;
};
