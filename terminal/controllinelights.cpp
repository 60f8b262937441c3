#include "terminal/controllinelights.h"

#include "terminal/ledindicator.h"
#include "terminal/portsession.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QToolButton>

ControlLineLights::ControlLineLights(QWidget *parent)
    : QWidget(parent)
{
    setObjectName(QStringLiteral("indicatorLights"));
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);

    auto makeToggle = [this](const QString &name, const QString &text) {
        auto *button = new QToolButton(this);
        button->setObjectName(name);
        button->setText(text);
        button->setCheckable(true);
        button->setAutoRaise(false);
        return button;
    };
    m_dtrButton = makeToggle(QStringLiteral("dtrButton"), QStringLiteral("DTR"));
    m_rtsButton = makeToggle(QStringLiteral("rtsButton"), QStringLiteral("RTS"));
    m_breakButton = new QToolButton(this);
    m_breakButton->setObjectName(QStringLiteral("breakButton"));
    m_breakButton->setText(tr("Break"));
    m_breakButton->setIcon(QIcon(QStringLiteral(":/images/resource/break_signal.png")));
    m_breakButton->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);

    m_txLight = new LedIndicator(QColor(0x27, 0xae, 0x60), this);
    m_txLight->setObjectName(QStringLiteral("txLight"));
    m_rxLight = new LedIndicator(QColor(0xf3, 0x9c, 0x12), this);
    m_rxLight->setObjectName(QStringLiteral("rxLight"));
    for (LedIndicator *light : {m_txLight, m_rxLight})
        light->setToolTip(tr("Lights while data is being sent or received"));

    layout->addWidget(m_dtrButton);
    layout->addWidget(m_rtsButton);
    layout->addWidget(m_breakButton);
    layout->addSpacing(8);
    layout->addWidget(new QLabel(QStringLiteral("TX"), this));
    layout->addWidget(m_txLight);
    layout->addWidget(new QLabel(QStringLiteral("RX"), this));
    layout->addWidget(m_rxLight);

    // The remote port's inputs, as it reports them.
    m_inputRow = new QWidget(this);
    auto *inputs = new QHBoxLayout(m_inputRow);
    inputs->setContentsMargins(8, 0, 0, 0);
    inputs->setSpacing(6);
    const struct {
        const char *name;
        const char *label;
        QString tip;
    } inputLines[] = {
        {"ctsLight", "CTS", tr("Clear To Send at the remote port")},
        {"dsrLight", "DSR", tr("Data Set Ready at the remote port")},
        {"ringLight", "RI", tr("Ring Indicator at the remote port")},
        {"carrierLight", "CD", tr("Carrier Detect at the remote port")},
    };
    for (int i = 0; i < 4; ++i) {
        auto *light = new LedIndicator(QColor(0x2e, 0x86, 0xc1), m_inputRow);
        light->setObjectName(QLatin1String(inputLines[i].name));
        light->setToolTip(inputLines[i].tip);
        auto *label = new QLabel(QLatin1String(inputLines[i].label), m_inputRow);
        label->setToolTip(inputLines[i].tip);
        inputs->addWidget(label);
        inputs->addWidget(light);
        m_inputLights[i] = light;
    }
    layout->addWidget(m_inputRow);
    layout->addStretch(1);

    connect(m_dtrButton, &QToolButton::toggled, this, &ControlLineLights::dtrToggled);
    connect(m_rtsButton, &QToolButton::toggled, this, &ControlLineLights::rtsToggled);
    connect(m_breakButton, &QToolButton::pressed, this, &ControlLineLights::breakPressed);
    connect(m_breakButton, &QToolButton::released, this, &ControlLineLights::breakReleased);
    m_inputRow->setVisible(false);
    refreshTips();
}

void ControlLineLights::setAvailability(Availability availability)
{
    m_availability = availability;
    m_inputRow->setVisible(availability == Availability::RemoteSerialPort
                           || availability == Availability::RemoteOwnConfig);
    refreshTips();
}

void ControlLineLights::setLevels(bool dtr, bool rts)
{
    const QSignalBlocker b1(m_dtrButton);
    const QSignalBlocker b2(m_rtsButton);
    m_dtrButton->setChecked(dtr);
    m_rtsButton->setChecked(rts);
}

void ControlLineLights::setInputLevels(bool cts, bool dsr, bool ring, bool carrier)
{
    const bool levels[] = {cts, dsr, ring, carrier};
    for (int i = 0; i < 4; ++i)
        m_inputLights[i]->setLit(levels[i]);
}

void ControlLineLights::setLocked(bool locked)
{
    m_locked = locked;
    refreshTips();
}

void ControlLineLights::refreshTips()
{
    QString dtrTip = tr("Click to toggle the DTR output");
    QString rtsTip = tr("Click to toggle the RTS output");
    QString breakTip = tr("Click to send a serial break (hold for longer)");
    bool dtr = true;
    bool rts = true;
    bool brk = true;
    switch (m_availability) {
    case Availability::SerialPort:
    case Availability::RemoteSerialPort:
        break;
    case Availability::RtsByFlowControl:
        rts = false;
        rtsTip = tr("RTS is driven by RTS/CTS flow control and cannot be set by hand.");
        break;
    case Availability::NoSerialPort:
        dtr = rts = brk = false;
        dtrTip = rtsTip = breakTip = tr("Control lines belong to a serial port. This connection does not have one.");
        break;
    case Availability::RemoteOwnConfig:
        dtr = rts = brk = false;
        dtrTip = rtsTip = breakTip = tr("The remote port is left under its own configuration. Clear \"Keep the remote port's own config\" to drive RTS, DTR and Break from here.");
        break;
    case Availability::RelayedPort:
        dtr = rts = brk = false;
        dtrTip = rtsTip = breakTip = PortSession::relayControlLineText();
        break;
    }
    if (m_locked) {
        dtr = rts = brk = false;
        dtrTip = rtsTip = breakTip = tr("A file transfer is using this port. Changing the control lines would interrupt it.");
    }
    m_dtrButton->setEnabled(dtr);
    m_rtsButton->setEnabled(rts);
    m_breakButton->setEnabled(brk);
    m_dtrButton->setToolTip(dtrTip);
    m_rtsButton->setToolTip(rtsTip);
    m_breakButton->setToolTip(breakTip);
}
