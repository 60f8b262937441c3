#include "bridge/bridgeendform.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QSpinBox>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace {

QStringList listFrom(const QString &text)
{
    QStringList result;
    for (const QString &part : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        if (!part.trimmed().isEmpty())
            result.append(part.trimmed());
    }
    return result;
}

} // namespace

BridgeEndForm::BridgeEndForm(const QString &title, const QStringList &panes, QWidget *parent)
    : QGroupBox(title, parent)
    , m_kind(new QComboBox(this))
    , m_pages(new QStackedWidget(this))
{
    auto *layout = new QFormLayout(this);
    for (auto kind : {BridgeEndSpec::Kind::Pane, BridgeEndSpec::Kind::Listener, BridgeEndSpec::Kind::Udp})
        m_kind->addItem(BridgeRecord::endKindText(kind), int(kind));
    m_kind->setObjectName(QStringLiteral("endKindBox"));
    layout->addRow(tr("Kind"), m_kind);

    auto *panePage = new QWidget(m_pages);
    auto *paneLayout = new QFormLayout(panePage);
    paneLayout->setContentsMargins(0, 0, 0, 0);
    m_pane = new QComboBox(panePage);
    m_pane->setObjectName(QStringLiteral("paneBox"));
    m_pane->setEditable(true);
    m_pane->addItems(panes);
    m_pane->setToolTip(tr("The pane whose connection this is, as its kind and port: ser-COM3, tcpc-10.0.0.5:502, "
                          "tcps-7000. The bridge waits while no pane has it."));
    paneLayout->addRow(tr("Pane"), m_pane);
    m_pages->addWidget(panePage);

    auto *listenerPage = new QWidget(m_pages);
    auto *listenerLayout = new QFormLayout(listenerPage);
    listenerLayout->setContentsMargins(0, 0, 0, 0);
    m_address = new QLineEdit(listenerPage);
    m_address->setObjectName(QStringLiteral("listenAddressEdit"));
    m_address->setToolTip(tr("0.0.0.0 listens on every IPv4 address, :: on every address, 127.0.0.1 on this computer only"));
    listenerLayout->addRow(tr("Listen address"), m_address);
    m_port = new QSpinBox(listenerPage);
    m_port->setObjectName(QStringLiteral("listenPortBox"));
    m_port->setRange(0, 65535);
    m_port->setSpecialValueText(tr("any free port"));
    listenerLayout->addRow(tr("Port"), m_port);
    m_allowlist = new QLineEdit(listenerPage);
    m_allowlist->setObjectName(QStringLiteral("allowlistEdit"));
    m_allowlist->setPlaceholderText(tr("everyone"));
    m_allowlist->setToolTip(tr("Addresses or subnets allowed to connect, separated by commas, e.g. 192.168.1.0/24, 10.0.0.7"));
    listenerLayout->addRow(tr("Allowlist"), m_allowlist);
    m_exclusive = new QCheckBox(tr("One client at a time"), listenerPage);
    m_exclusive->setObjectName(QStringLiteral("exclusiveBox"));
    listenerLayout->addRow(QString(), m_exclusive);
    m_pages->addWidget(listenerPage);

    auto *udpPage = new QWidget(m_pages);
    auto *udpLayout = new QFormLayout(udpPage);
    udpLayout->setContentsMargins(0, 0, 0, 0);
    m_targets = new QLineEdit(udpPage);
    m_targets->setObjectName(QStringLiteral("udpTargetsEdit"));
    m_targets->setPlaceholderText(QStringLiteral("192.168.1.20:5000, 192.168.1.21:5000"));
    m_targets->setToolTip(tr("Each frame goes to every target as one datagram"));
    udpLayout->addRow(tr("Targets"), m_targets);
    m_pages->addWidget(udpPage);

    layout->addRow(m_pages);
    connect(m_kind, &QComboBox::currentIndexChanged, this, [this](int index) {
        m_pages->setCurrentIndex(index);
        emit kindChanged();
    });
}

void BridgeEndForm::setSpec(const BridgeEndSpec &spec)
{
    m_kind->setCurrentIndex(m_kind->findData(int(spec.kind)));
    m_pages->setCurrentIndex(m_kind->currentIndex());
    m_pane->setCurrentText(spec.pane);
    m_address->setText(spec.listenAddress);
    m_port->setValue(spec.listenPort);
    m_allowlist->setText(spec.allowlist.join(QStringLiteral(", ")));
    m_exclusive->setChecked(spec.exclusive);
    m_targets->setText(spec.udpTargets.join(QStringLiteral(", ")));
}

BridgeEndSpec BridgeEndForm::spec() const
{
    BridgeEndSpec spec;
    spec.kind = BridgeEndSpec::Kind(m_kind->currentData().toInt());
    spec.pane = m_pane->currentText().trimmed();
    spec.listenAddress = m_address->text().trimmed();
    spec.listenPort = m_port->value();
    spec.allowlist = listFrom(m_allowlist->text());
    spec.exclusive = m_exclusive->isChecked();
    spec.udpTargets = listFrom(m_targets->text());
    return spec;
}
