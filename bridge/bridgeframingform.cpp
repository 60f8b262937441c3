#include "bridge/bridgeframingform.h"

#include "bridge/bridgerecord.h"
#include "tools/hexparser.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QSpinBox>

BridgeFramingForm::BridgeFramingForm(const QString &title, QWidget *parent)
    : QGroupBox(title, parent)
    , m_mode(new QComboBox(this))
    , m_gap(new QSpinBox(this))
    , m_delimiter(new QLineEdit(this))
    , m_keep(new QCheckBox(tr("Keep the delimiter in the frame"), this))
    , m_fixed(new QSpinBox(this))
    , m_max(new QSpinBox(this))
    , m_hold(new QSpinBox(this))
{
    auto *layout = new QFormLayout(this);
    for (auto mode : {BridgeFramer::Mode::None, BridgeFramer::Mode::IdleGap, BridgeFramer::Mode::Delimiter,
                      BridgeFramer::Mode::FixedLength})
        m_mode->addItem(BridgeRecord::framingText(mode), int(mode));
    m_mode->setObjectName(QStringLiteral("framingBox"));
    layout->addRow(tr("Framing"), m_mode);
    m_gap->setObjectName(QStringLiteral("idleGapBox"));
    m_gap->setRange(1, BridgeRecord::kMaxTimeMs);
    m_gap->setSuffix(tr(" ms"));
    m_gap->setToolTip(tr("A frame ends when the line has been quiet this long"));
    layout->addRow(tr("Idle gap"), m_gap);
    m_delimiter->setObjectName(QStringLiteral("delimiterEdit"));
    m_delimiter->setPlaceholderText(QStringLiteral("0D 0A"));
    m_delimiter->setToolTip(tr("The bytes that end a frame, in hex"));
    layout->addRow(tr("Delimiter"), m_delimiter);
    m_keep->setObjectName(QStringLiteral("keepDelimiterBox"));
    layout->addRow(QString(), m_keep);
    m_fixed->setObjectName(QStringLiteral("fixedLengthBox"));
    m_fixed->setRange(1, BridgeRecord::kMaxFrameSize);
    m_fixed->setSuffix(tr(" bytes"));
    layout->addRow(tr("Fixed length"), m_fixed);
    m_max->setObjectName(QStringLiteral("maxFrameBox"));
    m_max->setRange(1, BridgeRecord::kMaxFrameSize);
    m_max->setSuffix(tr(" bytes"));
    m_max->setToolTip(tr("Longer frames are cut here"));
    layout->addRow(tr("Maximum frame size"), m_max);
    m_hold->setObjectName(QStringLiteral("holdTimeBox"));
    m_hold->setRange(0, BridgeRecord::kMaxTimeMs);
    m_hold->setSuffix(tr(" ms"));
    m_hold->setSpecialValueText(tr("no hold"));
    m_hold->setToolTip(tr("A partial frame goes out this long after its first byte"));
    layout->addRow(tr("Hold time"), m_hold);
    connect(m_mode, &QComboBox::currentIndexChanged, this, &BridgeFramingForm::updateFields);
    setOptions(BridgeFramer::Options());
}

void BridgeFramingForm::updateFields()
{
    const auto mode = BridgeFramer::Mode(m_mode->currentData().toInt());
    m_gap->setEnabled(mode == BridgeFramer::Mode::IdleGap);
    m_delimiter->setEnabled(mode == BridgeFramer::Mode::Delimiter);
    m_keep->setEnabled(mode == BridgeFramer::Mode::Delimiter);
    m_fixed->setEnabled(mode == BridgeFramer::Mode::FixedLength);
    m_hold->setEnabled(mode != BridgeFramer::Mode::None);
}

void BridgeFramingForm::setOptions(const BridgeFramer::Options &options)
{
    m_mode->setCurrentIndex(m_mode->findData(int(options.mode)));
    m_gap->setValue(options.idleGapMs);
    m_delimiter->setText(HexParser::toHexText(options.delimiter));
    m_keep->setChecked(options.keepDelimiter);
    m_fixed->setValue(options.fixedLength);
    m_max->setValue(options.maxFrameSize);
    m_hold->setValue(options.holdMs);
    updateFields();
}

ValueResult<BridgeFramer::Options> BridgeFramingForm::options() const
{
    BridgeFramer::Options o;
    o.mode = BridgeFramer::Mode(m_mode->currentData().toInt());
    o.idleGapMs = m_gap->value();
    const auto delimiter = HexParser::parse(m_delimiter->text(), HexParser::Grouping::Tokens);
    if (!delimiter) {
        if (o.mode == BridgeFramer::Mode::Delimiter) {
            return ValueResult<BridgeFramer::Options>::failure(
                tr("%1: the delimiter \"%2\" is not hex bytes such as 0D 0A.").arg(title(), m_delimiter->text()));
        }
    } else {
        o.delimiter = delimiter.value();
    }
    o.keepDelimiter = m_keep->isChecked();
    o.fixedLength = m_fixed->value();
    o.maxFrameSize = m_max->value();
    o.holdMs = m_hold->value();
    return o;
}
