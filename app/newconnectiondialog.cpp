#include "app/newconnectiondialog.h"

#include "settings/connectionsettingswidget.h"

#include <QDialogButtonBox>
#include <QSerialPortInfo>
#include <QTabWidget>
#include <QVBoxLayout>

NewConnectionDialog::NewConnectionDialog(const ConnectionConfig &serial, const ConnectionConfig &network,
                                         QWidget *parent)
    : QDialog(parent)
    , m_pages(new QTabWidget(this))
    , m_serial(new ConnectionSettingsWidget)
    , m_network(new ConnectionSettingsWidget)
{
    setObjectName(QStringLiteral("NewConnectionDialog"));
    setWindowTitle(tr("New Connection"));
    QList<ConnectionSettingsWidget::PortEntry> ports;
    for (const QSerialPortInfo &info : QSerialPortInfo::availablePorts())
        ports.append({info.portName(), info.description()});
    m_serial->setAvailablePorts(ports);
    m_network->setAvailablePorts(ports);

    ConnectionConfig serialConfig = serial;
    serialConfig.mode = ConnectionMode::Serial;
    m_serial->setConfig(serialConfig);
    ConnectionConfig networkConfig = network;
    if (networkConfig.mode == ConnectionMode::Serial)
        networkConfig.mode = ConnectionMode::TcpClient;
    m_network->setConfig(networkConfig);

    m_pages->addTab(m_serial, tr("Serial Port"));
    m_pages->addTab(m_network, tr("TCP/IP"));

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_pages);
    layout->addWidget(buttons);
    resize(480, 360);
}

ConnectionConfig NewConnectionDialog::config() const
{
    return m_pages->currentIndex() == 0 ? m_serial->config() : m_network->config();
}

void NewConnectionDialog::showNetworkPage()
{
    m_pages->setCurrentIndex(1);
}
