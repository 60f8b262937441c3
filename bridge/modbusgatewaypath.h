#pragma once

#include "bridge/bridgepath.h"
#include "bridge/modbusarbiter.h"
#include "bridge/modbustcpreader.h"

#include <QElapsedTimer>
#include <QHash>

#include <functional>

class QTimer;

// A Modbus gateway between the bridge's ends: Modbus TCP clients on end A (a
// listener), the RTU or ASCII line on end B (a pane), one request on the
// line at a time through a ModbusArbiter. Requests count as A → B frames
// (as the line carries them), replies as B → A frames (as the client gets
// them). What it writes is not offered to the flood guard's echo check: the
// reply to a Modbus write repeats its request byte for byte.
class ModbusGatewayPath : public BridgePath
{
    Q_OBJECT

public:
    // A client whose replies pile up unread beyond this asks faster than it
    // reads: it is closed.
    static constexpr qint64 kMaxClientBacklog = 64 * 1024;

    ModbusGatewayPath(BridgePathHost *host, const ModbusArbiter::Options &options, QObject *parent = nullptr);
    ~ModbusGatewayPath() override;

    void received(int end, const QByteArray &bytes, const QString &source) override;
    void sourceGone(int end, const QString &source) override;
    void endChanged(int end) override;
    void drained(int end) override { Q_UNUSED(end); }
    qint64 queuedBytes(int direction) const override;
    void stop() override;

    const ModbusArbiter &arbiter() const { return m_arbiter; }

Q_SIGNALS:
    // A client was closed; the text names it and says why.
    void clientClosed(const QString &text);

private:
    qint64 nowUs() const;
    void apply(const ModbusArbiter::Step &step);
    void closeClient(const QString &client, const QString &why);
    void updateBaudRate();

    ModbusArbiter m_arbiter;
    QHash<QString, ModbusTcpReader> m_readers;
    QElapsedTimer m_elapsed;
    QTimer *m_timer;
    bool m_stopped = false;
};
