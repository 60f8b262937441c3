#include "settings/connectionsettingswidget.h"

#include "settings/formrows.h"

#include "common/logging.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIntValidator>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSpinBox>

namespace {

// Item data roles of the port box.
constexpr int kPortNameRole = Qt::UserRole;
constexpr int kPortKindRole = Qt::UserRole + 1;

} // namespace

ConnectionSettingsWidget::ConnectionSettingsWidget(QWidget *parent)
    : QWidget(parent)
{
    buildForm();
    fillPortBox({}, QString());
    setConfig(ConnectionConfig());
}

QString ConnectionSettingsWidget::defaultPortLabel()
{
    return tr("Default (COM2)");
}

QList<qint32> ConnectionSettingsWidget::standardBaudRates()
{
    return {9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600};
}

void ConnectionSettingsWidget::buildForm()
{
    m_form = new QFormLayout(this);
    m_form->setContentsMargins(0, 0, 0, 0);
    m_form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);

    m_portBox = new QComboBox(this);
    m_portBox->setObjectName(QStringLiteral("portBox"));
    m_portBox->setEditable(true);
    m_portBox->setInsertPolicy(QComboBox::NoInsert);
    m_portBox->setToolTip(tr("A serial port of this computer (a path such as /dev/ttyUSB0 can be typed), or a network connection"));
    m_form->addRow(tr("Port"), m_portBox);

    m_modeBox = new QComboBox(this);
    m_modeBox->setObjectName(QStringLiteral("modeBox"));
    m_modeBox->addItem(tr("TCP Client"), toInt(ConnectionMode::TcpClient));
    m_modeBox->addItem(tr("TCP Server"), toInt(ConnectionMode::TcpServer));
    m_modeBox->addItem(tr("UDP Client"), toInt(ConnectionMode::UdpClient));
    m_modeBox->addItem(tr("UDP Server"), toInt(ConnectionMode::UdpServer));
    m_form->addRow(tr("Mode"), m_modeBox);

    m_hostBox = new QComboBox(this);
    m_hostBox->setObjectName(QStringLiteral("hostBox"));
    m_hostBox->setEditable(true);
    m_hostBox->setInsertPolicy(QComboBox::NoInsert);
    m_form->addRow(tr("Host"), m_hostBox);

    m_listenAddress = new QComboBox(this);
    m_listenAddress->setObjectName(QStringLiteral("listenAddressBox"));
    m_listenAddress->addItem(tr("Any"), int(QHostAddress::Any));
    m_listenAddress->addItem(tr("AnyIPv4"), int(QHostAddress::AnyIPv4));
    m_listenAddress->addItem(tr("LocalHost"), int(QHostAddress::LocalHost));
    m_listenAddress->addItem(tr("LocalHostIPv6"), int(QHostAddress::LocalHostIPv6));
    m_form->addRow(tr("Listen on"), m_listenAddress);

    m_targetPort = new QSpinBox(this);
    m_targetPort->setObjectName(QStringLiteral("targetPortBox"));
    m_targetPort->setRange(ConnectionConfig::kMinTargetPort, ConnectionConfig::kMaxTargetPort);
    m_form->addRow(tr("Remote port"), m_targetPort);

    m_udpRemotePort = new QSpinBox(this);
    m_udpRemotePort->setObjectName(QStringLiteral("udpRemotePortBox"));
    m_udpRemotePort->setRange(1, 65535);
    m_form->addRow(tr("Remote port"), m_udpRemotePort);

    m_udpLocalPort = new QSpinBox(this);
    m_udpLocalPort->setObjectName(QStringLiteral("udpLocalPortBox"));
    m_udpLocalPort->setRange(0, 65535);
    m_form->addRow(tr("Local port"), m_udpLocalPort);

    m_baudBox = new QComboBox(this);
    m_baudBox->setObjectName(QStringLiteral("baudRateBox"));
    for (qint32 rate : standardBaudRates())
        m_baudBox->addItem(QString::number(rate), rate);
    m_baudBox->addItem(tr("Custom"), 0);
    m_form->addRow(tr("Baudrate"), m_baudBox);

    m_dataBitsBox = new QComboBox(this);
    m_dataBitsBox->setObjectName(QStringLiteral("dataBitsBox"));
    for (int bits : {5, 6, 7, 8})
        m_dataBitsBox->addItem(QString::number(bits), bits);
    m_form->addRow(tr("Data Bits"), m_dataBitsBox);

    m_parityBox = new QComboBox(this);
    m_parityBox->setObjectName(QStringLiteral("parityBox"));
    m_parityBox->addItem(tr("None"), int(QSerialPort::NoParity));
    m_parityBox->addItem(tr("Even"), int(QSerialPort::EvenParity));
    m_parityBox->addItem(tr("Odd"), int(QSerialPort::OddParity));
    m_parityBox->addItem(tr("Mark"), int(QSerialPort::MarkParity));
    m_parityBox->addItem(tr("Space"), int(QSerialPort::SpaceParity));
    m_form->addRow(tr("Parity"), m_parityBox);

    m_stopBitsBox = new QComboBox(this);
    m_stopBitsBox->setObjectName(QStringLiteral("stopBitsBox"));
    m_stopBitsBox->addItem(QStringLiteral("1"), int(QSerialPort::OneStop));
    m_stopBitsBox->addItem(QStringLiteral("1.5"), int(QSerialPort::OneAndHalfStop));
    m_stopBitsBox->addItem(QStringLiteral("2"), int(QSerialPort::TwoStop));
    m_form->addRow(tr("Stop Bits"), m_stopBitsBox);

    m_flowBox = new QComboBox(this);
    m_flowBox->setObjectName(QStringLiteral("flowControlBox"));
    m_flowBox->addItem(tr("None"), int(QSerialPort::NoFlowControl));
    m_flowBox->addItem(tr("RTS/CTS"), int(QSerialPort::HardwareControl));
    m_flowBox->addItem(tr("XON/XOFF"), int(QSerialPort::SoftwareControl));
    m_form->addRow(tr("Flow Type"), m_flowBox);

    m_useRemoteConfig = new QCheckBox(tr("Keep the remote port's own config"), this);
    m_useRemoteConfig->setObjectName(QStringLiteral("useRemoteConfigBox"));
    m_form->addRow(QString(), m_useRemoteConfig);

    // The remote port is picked in the target dialog, never typed.
    m_relayRow = new QWidget(this);
    auto *relayLayout = new QHBoxLayout(m_relayRow);
    relayLayout->setContentsMargins(0, 0, 0, 0);
    m_relayTarget = new QLabel(m_relayRow);
    m_relayTarget->setObjectName(QStringLiteral("relayTargetLabel"));
    m_relayTarget->setTextInteractionFlags(Qt::TextSelectableByMouse);
    relayLayout->addWidget(m_relayTarget, 1);
    auto *choose = new QPushButton(tr("Choose…"), m_relayRow);
    choose->setObjectName(QStringLiteral("relayChooseButton"));
    relayLayout->addWidget(choose);
    connect(choose, &QPushButton::clicked, this, &ConnectionSettingsWidget::relayTargetRequested);
    m_form->addRow(tr("Remote port"), m_relayRow);

    connect(m_portBox, &QComboBox::currentIndexChanged, this, [this] {
        updateVisibility();
        announceConnectionEdit();
    });
    connect(m_portBox->lineEdit(), &QLineEdit::editingFinished, this, [this] {
        updateVisibility();
        announceConnectionEdit();
    });
    connect(m_modeBox, &QComboBox::currentIndexChanged, this, [this] {
        updateVisibility();
        announceConnectionEdit();
    });
    connect(m_hostBox->lineEdit(), &QLineEdit::editingFinished, this, &ConnectionSettingsWidget::announceConnectionEdit);
    connect(m_hostBox, &QComboBox::activated, this, &ConnectionSettingsWidget::announceConnectionEdit);
    connect(m_listenAddress, &QComboBox::activated, this, &ConnectionSettingsWidget::announceConnectionEdit);
    connect(m_targetPort, &QSpinBox::editingFinished, this, &ConnectionSettingsWidget::announceConnectionEdit);
    connect(m_udpLocalPort, &QSpinBox::editingFinished, this, &ConnectionSettingsWidget::announceConnectionEdit);
    connect(m_udpRemotePort, &QSpinBox::editingFinished, this, &ConnectionSettingsWidget::announceConnectionEdit);
    connect(m_useRemoteConfig, &QCheckBox::toggled, this, &ConnectionSettingsWidget::announceConnectionEdit);

    connect(m_baudBox, &QComboBox::activated, this, &ConnectionSettingsWidget::onBaudChosen);
    for (QComboBox *box : {m_dataBitsBox, m_parityBox, m_stopBitsBox, m_flowBox})
        connect(box, &QComboBox::activated, this, &ConnectionSettingsWidget::announceSerialEdit);
}

void ConnectionSettingsWidget::onBaudChosen(int index)
{
    if (m_baudBox->itemData(index).toInt() == 0) {
        // "Custom": the box becomes editable and takes any positive rate.
        if (!m_baudBox->isEditable()) {
            m_baudBox->setEditable(true);
            m_baudBox->setInsertPolicy(QComboBox::NoInsert);
            m_baudBox->lineEdit()->setValidator(new QIntValidator(1, 0x7fffffff, m_baudBox));
            connect(m_baudBox->lineEdit(), &QLineEdit::editingFinished, this,
                    &ConnectionSettingsWidget::announceSerialEdit);
        }
        m_baudBox->lineEdit()->clear();
        m_baudBox->lineEdit()->setFocus();
        return;
    }
    announceSerialEdit();
}

void ConnectionSettingsWidget::fillPortBox(const QList<PortEntry> &ports, const QString &keepText)
{
    const QSignalBlocker blocker(m_portBox);
    m_portBox->clear();
    if (ports.isEmpty()) {
        m_portBox->addItem(defaultPortLabel());
        m_portBox->setItemData(0, defaultPortName(), kPortNameRole);
        m_portBox->setItemData(0, int(PortKind::Serial), kPortKindRole);
    }
    for (const PortEntry &port : ports) {
        m_portBox->addItem(port.name);
        const int row = m_portBox->count() - 1;
        m_portBox->setItemData(row, port.name, kPortNameRole);
        m_portBox->setItemData(row, int(PortKind::Serial), kPortKindRole);
        if (!port.description.isEmpty())
            m_portBox->setItemData(row, port.description, Qt::ToolTipRole);
    }
    const std::pair<QString, PortKind> specials[] = {
        {tr("TCP/UDP"), PortKind::Network},
        {tr("Remote Serial (RFC 2217)"), PortKind::Rfc2217},
        {tr("Remote Serial (Live Relay)"), PortKind::Relay},
    };
    for (const auto &[label, kind] : specials) {
        m_portBox->addItem(label);
        m_portBox->setItemData(m_portBox->count() - 1, int(kind), kPortKindRole);
    }
    const int keep = m_portBox->findText(keepText);
    if (keep >= 0)
        m_portBox->setCurrentIndex(keep);
    else
        m_portBox->setEditText(keepText);
}

void ConnectionSettingsWidget::setAvailablePorts(const QList<PortEntry> &ports)
{
    const bool wasLoading = m_loading;
    m_loading = true;
    fillPortBox(ports, m_portBox->currentText());
    m_loading = wasLoading;
}

QStringList ConnectionSettingsWidget::listedPortNames() const
{
    QStringList names;
    for (int i = 0; i < m_portBox->count(); ++i) {
        if (m_portBox->itemData(i, kPortKindRole).toInt() == int(PortKind::Serial))
            names.append(m_portBox->itemData(i, kPortNameRole).toString());
    }
    return names;
}

ConnectionSettingsWidget::PortKind ConnectionSettingsWidget::currentKind() const
{
    const int index = m_portBox->findText(m_portBox->currentText());
    if (index < 0)
        return PortKind::Serial;  // a typed port name
    return PortKind(m_portBox->itemData(index, kPortKindRole).toInt());
}

ConnectionMode ConnectionSettingsWidget::currentMode() const
{
    switch (currentKind()) {
    case PortKind::Serial: return ConnectionMode::Serial;
    case PortKind::Rfc2217: return ConnectionMode::RemoteSerialRfc2217;
    case PortKind::Relay: return ConnectionMode::RemoteSerialRelay;
    case PortKind::Network: break;
    }
    return connectionModeFromInt(m_modeBox->currentData().toInt());
}

void ConnectionSettingsWidget::setRowVisible(QWidget *field, bool visible)
{
    m_form->setRowVisible(field, visible);
}

void ConnectionSettingsWidget::setHiddenFields(const QStringList &ids)
{
    m_quickHidden = ids;
    updateVisibility();
}

void ConnectionSettingsWidget::setFieldOrder(const QStringList &ids)
{
    const std::pair<const char *, QWidget *> fields[] = {
        {"baudRate", m_baudBox}, {"dataBits", m_dataBitsBox}, {"parity", m_parityBox},
        {"stopBits", m_stopBitsBox}, {"flowControl", m_flowBox}};
    QList<QWidget *> order;
    for (const QString &id : ids) {
        for (const auto &[fieldId, widget] : fields) {
            if (id == QLatin1String(fieldId))
                order.append(widget);
        }
    }
    if (order.size() != std::size(fields))
        return;
    FormRows::arrange(m_form, order);
    updateVisibility();
}

void ConnectionSettingsWidget::updateVisibility()
{
    const PortKind kind = currentKind();
    const ConnectionMode mode = currentMode();
    const bool network = kind == PortKind::Network;
    const bool serialParams = kind != PortKind::Network;
    const bool remote = kind == PortKind::Rfc2217 || kind == PortKind::Relay;
    setRowVisible(m_modeBox, network);
    setRowVisible(m_hostBox, mode == ConnectionMode::TcpClient || mode == ConnectionMode::UdpClient
                                 || mode == ConnectionMode::RemoteSerialRfc2217);
    setRowVisible(m_listenAddress, mode == ConnectionMode::TcpServer);
    setRowVisible(m_targetPort, mode == ConnectionMode::TcpClient || mode == ConnectionMode::TcpServer
                                    || mode == ConnectionMode::RemoteSerialRfc2217);
    setRowVisible(m_udpRemotePort, mode == ConnectionMode::UdpClient);
    setRowVisible(m_udpLocalPort, isUdpMode(mode));
    const std::pair<QWidget *, const char *> serialRows[] = {
        {m_baudBox, "baudRate"}, {m_dataBitsBox, "dataBits"}, {m_parityBox, "parity"},
        {m_stopBitsBox, "stopBits"}, {m_flowBox, "flowControl"}};
    for (const auto &[w, id] : serialRows)
        setRowVisible(w, serialParams && !m_quickHidden.contains(QLatin1String(id)));
    setRowVisible(m_useRemoteConfig, remote);
    setRowVisible(m_relayRow, kind == PortKind::Relay);
}

void ConnectionSettingsWidget::setConfig(const ConnectionConfig &config)
{
    m_loading = true;
    m_hidden = config;

    QString portText;
    switch (config.mode) {
    case ConnectionMode::Serial:
        // No port chosen yet: offer the first one the system has.
        portText = config.portName.isEmpty() ? m_portBox->itemText(0) : config.portName;
        if (config.portName == defaultPortName() && m_portBox->findText(defaultPortLabel()) >= 0)
            portText = defaultPortLabel();
        break;
    case ConnectionMode::RemoteSerialRfc2217: portText = tr("Remote Serial (RFC 2217)"); break;
    case ConnectionMode::RemoteSerialRelay: portText = tr("Remote Serial (Live Relay)"); break;
    default: portText = tr("TCP/UDP"); break;
    }
    {
        const QSignalBlocker blocker(m_portBox);
        const int index = m_portBox->findText(portText);
        if (index >= 0)
            m_portBox->setCurrentIndex(index);
        else
            m_portBox->setEditText(portText);
    }
    {
        const QSignalBlocker blocker(m_modeBox);
        const int index = m_modeBox->findData(toInt(config.mode));
        if (index >= 0)
            m_modeBox->setCurrentIndex(index);
    }
    m_hostBox->clear();
    m_hostBox->addItems(config.recentTargetHosts);
    m_hostBox->setEditText(config.targetHost);
    m_listenAddress->setCurrentIndex(qMax(0, m_listenAddress->findData(int(config.listenAddress))));
    m_targetPort->setValue(config.targetPort);
    m_udpLocalPort->setValue(config.udpLocalPort);
    m_udpRemotePort->setValue(config.udpServerPort);

    const int baudIndex = m_baudBox->findData(config.baudRate);
    if (baudIndex >= 0) {
        m_baudBox->setCurrentIndex(baudIndex);
    } else {
        onBaudChosen(m_baudBox->findData(0));
        m_baudBox->setEditText(QString::number(config.baudRate));
    }
    m_dataBitsBox->setCurrentIndex(qMax(0, m_dataBitsBox->findData(int(config.dataBits))));
    m_parityBox->setCurrentIndex(qMax(0, m_parityBox->findData(int(config.parity))));
    m_stopBitsBox->setCurrentIndex(qMax(0, m_stopBitsBox->findData(int(config.stopBits))));
    m_flowBox->setCurrentIndex(qMax(0, m_flowBox->findData(int(config.flowControl))));
    {
        const QSignalBlocker blocker(m_useRemoteConfig);
        m_useRemoteConfig->setChecked(config.useRemoteSerialConfig);
    }
    if (!config.relayShareLabel.isEmpty())
        m_relayTarget->setText(config.relayShareLabel);
    else if (!config.relayPortName.isEmpty())
        m_relayTarget->setText(config.relayPortName);
    else
        m_relayTarget->setText(tr("None chosen yet"));
    updateVisibility();
    m_loading = false;
}

ConnectionConfig ConnectionSettingsWidget::config() const
{
    ConnectionConfig c = m_hidden;
    c.mode = currentMode();
    if (c.mode == ConnectionMode::Serial) {
        const int index = m_portBox->findText(m_portBox->currentText());
        c.portName = index >= 0 ? m_portBox->itemData(index, kPortNameRole).toString()
                                : m_portBox->currentText().trimmed();
    }
    c.targetHost = m_hostBox->currentText().trimmed();
    c.listenAddress = QHostAddress::SpecialAddress(m_listenAddress->currentData().toInt());
    c.targetPort = m_targetPort->value();
    c.udpLocalPort = quint16(m_udpLocalPort->value());
    c.udpServerPort = quint16(m_udpRemotePort->value());

    const int baudIndex = m_baudBox->findText(m_baudBox->currentText());
    if (baudIndex >= 0 && m_baudBox->itemData(baudIndex).toInt() > 0) {
        c.baudRate = m_baudBox->itemData(baudIndex).toInt();
    } else {
        bool ok = false;
        const int custom = m_baudBox->currentText().toInt(&ok);
        if (ok && custom > 0)
            c.baudRate = custom;  // otherwise the previous rate stays
    }
    c.dataBits = QSerialPort::DataBits(m_dataBitsBox->currentData().toInt());
    c.parity = QSerialPort::Parity(m_parityBox->currentData().toInt());
    c.stopBits = QSerialPort::StopBits(m_stopBitsBox->currentData().toInt());
    c.flowControl = QSerialPort::FlowControl(m_flowBox->currentData().toInt());
    c.useRemoteSerialConfig = m_useRemoteConfig->isChecked();
    return c;
}

void ConnectionSettingsWidget::setLocked(bool locked)
{
    for (QWidget *w : findChildren<QWidget *>(Qt::FindDirectChildrenOnly))
        w->setEnabled(!locked);
}

void ConnectionSettingsWidget::announceConnectionEdit()
{
    if (m_loading)
        return;
    const ConnectionConfig now = config();
    if (now == m_hidden)
        return;
    const bool onlySerial = now.differsOnlyInSerialParameters(m_hidden);
    m_hidden = now;
    if (onlySerial)
        Q_EMIT serialParametersEdited();
    else
        Q_EMIT connectionEdited();
}

void ConnectionSettingsWidget::announceSerialEdit()
{
    if (m_loading)
        return;
    const ConnectionConfig now = config();
    if (now.baudRate != m_hidden.baudRate && m_baudBox->findData(now.baudRate) < 0)
        qCInfo(lcSettings) << "Customer baud rate! " << now.baudRate;
    announceConnectionEdit();
}
