#pragma once

#include "bridge/modbusarbiter.h"

#include <QWidget>

class QCheckBox;
class QComboBox;
class QSpinBox;

// The Modbus gateway's own options in the bridge's edit dialog.
class ModbusGatewayForm : public QWidget
{
    Q_OBJECT

public:
    explicit ModbusGatewayForm(QWidget *parent = nullptr);

    void setOptions(const ModbusArbiter::Options &options);
    ModbusArbiter::Options options() const;

private:
    QComboBox *m_framing;
    QSpinBox *m_timeout;
    QSpinBox *m_turnaround;
    QCheckBox *m_retry;
    QSpinBox *m_clientQueue;
    QSpinBox *m_totalQueue;
};
