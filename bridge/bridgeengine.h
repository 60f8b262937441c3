#pragma once

#include "bridge/bridgecapturelog.h"
#include "bridge/bridgepath.h"
#include "bridge/bridgerecord.h"
#include "bridge/floodguard.h"
#include "bridge/modbusarbiter.h"
#include "bridge/ratehistory.h"
#include "common/monotonicclock.h"

#include <QList>
#include <QObject>
#include <QPointer>

#include <array>

class BridgeEnd;
class ModbusGatewayPath;
class PaneDirectory;
class QTimer;

// One bridge at work, without any widget: it makes the two ends its record
// names, runs its kind's path between them and keeps what every kind
// shares: the state and the text that explains it, the counters, the rates,
// the capture log and the flood guard. Everything runs on the GUI thread.
class BridgeEngine : public QObject, private BridgePathHost
{
    Q_OBJECT

public:
    enum class State {
        Disabled,
        Waiting,    // an end is not ready; the state text says which and why
        Running,
        Suspended,  // the flood guard stopped it; Enable resumes
        Failed,     // it cannot run as set up; the state text says why
    };

    struct Counters
    {
        quint64 frames = 0;
        quint64 bytes = 0;
        quint64 droppedFrames = 0;
        quint64 droppedBytes = 0;
        // Framed with no outlet to go to (a listener without clients).
        quint64 unroutedBytes = 0;
        qint64 queuedBytes = 0;
    };

    // A Modbus gateway's counters per client and per unit.
    struct GatewayCounters
    {
        QList<std::pair<QString, ModbusArbiter::Counters>> clients;
        QList<std::pair<int, ModbusArbiter::Counters>> units;
        quint64 discardedReplies = 0;
    };

    static constexpr int kCaptureSaveIntervalMs = 5000;

    BridgeEngine(const BridgeRecord &record, PaneDirectory *panes, QObject *parent = nullptr);
    ~BridgeEngine() override;

    // Tests pass a virtual clock; it must be set before start().
    void setClock(MonotonicClock clock) { m_clock = std::move(clock); }

    const BridgeRecord &record() const { return m_record; }
    // A changed record restarts a running bridge under it.
    void setRecord(const BridgeRecord &record);

    // Starts (or resumes after a suspension) and stops the bridge.
    void start();
    void stop();

    State state() const { return m_state; }
    QString stateText() const;
    // The last thing the user should read that is not a state (a refused
    // client, a capture log that cannot be written).
    QString lastNotice() const { return m_lastNotice; }

    Counters counters(int direction) const;
    QList<qint64> ratePoints(int direction) const;
    qint64 rate(int direction) const;
    BridgeEnd *end(int index) const override;
    // Kept after the bridge stops, until it starts again.
    GatewayCounters gatewayCounters() const;
    QString captureFile() const { return m_capture.filePath(); }

    static QString stateName(State state);

Q_SIGNALS:
    void stateChanged();
    void notice(const QString &text);

private:
    // BridgePathHost
    qint64 nowMs() const override { return m_clock(); }
    bool isHalting() const override { return m_halting; }
    void framed(int direction, const QByteArray &frame) override;
    void written(int end, const QByteArray &bytes) override;
    void dropped(int direction, qint64 frames, qint64 bytes, const QString &outlet, const QString &why) override;
    void unrouted(int direction, qint64 bytes) override;
    void fail(const QString &text) override;

    BridgeEnd *makeEnd(int index);
    void teardown();
    void updateState();
    void setState(State state, const QString &reason = QString());
    void onReceived(int end, const QByteArray &bytes, const QString &source);
    void halt(State state, const QString &reason);
    void applyHalt();
    void tripped(const FloodGuard::Trip &trip);
    void postNotice(const QString &text);
    void noteCaptureResult(const Result &result);

    BridgeRecord m_record;
    PaneDirectory *m_panes;
    MonotonicClock m_clock = systemMonotonicClock();
    State m_state = State::Disabled;
    QString m_reason;
    QString m_lastNotice;

    std::array<BridgeEnd *, 2> m_ends{};
    QList<BridgePath *> m_paths;
    ModbusGatewayPath *m_gateway = nullptr;
    GatewayCounters m_gatewayCounters;
    std::array<Counters, 2> m_counters{};
    std::array<RateHistory, 2> m_rates;
    std::array<qint64, 2> m_rateCheckedSecond{{-1, -1}};
    FloodGuard m_guard;
    BridgeCaptureLog m_capture;
    QTimer *m_captureTimer;

    // A halt asked for from inside a path's loop is carried out once the
    // event loop is back, so no path or end goes while it runs.
    bool m_halting = false;
    State m_haltState = State::Disabled;
    QString m_haltReason;
};
