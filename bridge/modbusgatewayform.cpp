#include "bridge/modbusgatewayform.h"

#include "bridge/bridgerecord.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QSpinBox>

ModbusGatewayForm::ModbusGatewayForm(QWidget *parent)
    : QWidget(parent)
{
    auto *layout = new QFormLayout(this);
    m_framing = new QComboBox(this);
    m_framing->setObjectName(QStringLiteral("modbusFramingBox"));
    m_framing->addItem(tr("Modbus RTU"), int(ModbusFraming::Rtu));
    m_framing->addItem(tr("Modbus ASCII"), int(ModbusFraming::Ascii));
    layout->addRow(tr("Serial line speaks"), m_framing);
    m_timeout = new QSpinBox(this);
    m_timeout->setObjectName(QStringLiteral("modbusTimeoutBox"));
    m_timeout->setRange(1, BridgeRecord::kMaxModbusTimeoutMs);
    m_timeout->setSuffix(tr(" ms"));
    m_timeout->setToolTip(tr("A unit silent this long is answered with exception 0x0B and the next request goes"));
    layout->addRow(tr("Response timeout"), m_timeout);
    m_turnaround = new QSpinBox(this);
    m_turnaround->setObjectName(QStringLiteral("modbusTurnaroundBox"));
    m_turnaround->setRange(0, BridgeRecord::kMaxModbusTurnaroundMs);
    m_turnaround->setSuffix(tr(" ms"));
    m_turnaround->setToolTip(tr("Extra quiet time after each reply and broadcast, beyond 3.5 characters"));
    layout->addRow(tr("Turnaround delay"), m_turnaround);
    m_retry = new QCheckBox(tr("Send a request again once when its reply is damaged or from another unit"), this);
    m_retry->setObjectName(QStringLiteral("modbusRetryBox"));
    layout->addRow(QString(), m_retry);
    m_clientQueue = new QSpinBox(this);
    m_clientQueue->setObjectName(QStringLiteral("modbusClientQueueBox"));
    m_clientQueue->setRange(1, BridgeRecord::kMaxModbusClientQueue);
    m_clientQueue->setSuffix(tr(" requests"));
    m_clientQueue->setToolTip(tr("Requests beyond this are answered with exception 0x06 (server device busy)"));
    layout->addRow(tr("Queue per client"), m_clientQueue);
    m_totalQueue = new QSpinBox(this);
    m_totalQueue->setObjectName(QStringLiteral("modbusTotalQueueBox"));
    m_totalQueue->setRange(1, BridgeRecord::kMaxModbusTotalQueue);
    m_totalQueue->setSuffix(tr(" requests"));
    layout->addRow(tr("Queue in total"), m_totalQueue);
}

void ModbusGatewayForm::setOptions(const ModbusArbiter::Options &options)
{
    m_framing->setCurrentIndex(m_framing->findData(int(options.framing)));
    m_timeout->setValue(options.responseTimeoutMs);
    m_turnaround->setValue(options.turnaroundMs);
    m_retry->setChecked(options.retryOnce);
    m_clientQueue->setValue(options.perClientLimit);
    m_totalQueue->setValue(options.totalLimit);
}

ModbusArbiter::Options ModbusGatewayForm::options() const
{
    ModbusArbiter::Options o;
    o.framing = ModbusFraming(m_framing->currentData().toInt());
    o.responseTimeoutMs = m_timeout->value();
    o.turnaroundMs = m_turnaround->value();
    o.retryOnce = m_retry->isChecked();
    o.perClientLimit = m_clientQueue->value();
    o.totalLimit = m_totalQueue->value();
    return o;
}
