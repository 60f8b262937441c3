#include "tools/modbusbuilderdialog.h"

#include "tools/hexparser.h"
#include "tools/modbuscodec.h"
#include "tools/modbusvaluesparser.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace {

bool usesQuantity(quint8 code)
{
    return code >= 0x01 && code <= 0x04;
}

bool usesValuesField(quint8 code)
{
    return code == 0x06 || code == 0x0F || code == 0x10;
}

} // namespace

ModbusBuilderDialog::ModbusBuilderDialog(QWidget *parent)
    : QDialog(parent)
{
    setupUi();
    QMetaObject::connectSlotsByName(this);

    const auto refresh = [this] { updatePreview(); };
    connect(cbProtocol, &QComboBox::currentIndexChanged, this, refresh);
    connect(cbFunction, &QComboBox::currentIndexChanged, this, [this] {
        updateFields();
        updatePreview();
    });
    connect(sbSlaveId, &QSpinBox::valueChanged, this, refresh);
    connect(sbAddress, &QSpinBox::valueChanged, this, refresh);
    connect(sbQuantity, &QSpinBox::valueChanged, this, refresh);
    connect(cbCoilValue, &QComboBox::currentIndexChanged, this, refresh);
    connect(leValues, &QLineEdit::textChanged, this, refresh);

    updateFields();
    updatePreview();
}

void ModbusBuilderDialog::setupUi()
{
    setObjectName(QStringLiteral("ModbusBuilderDialog"));
    setWindowTitle(tr("Modbus Request Builder"));

    auto *form = new QFormLayout;
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);

    cbProtocol = new QComboBox(this);
    cbProtocol->setObjectName(QStringLiteral("cbProtocol"));
    cbProtocol->addItem(tr("Modbus RTU"), int(ModbusFraming::Rtu));
    cbProtocol->addItem(tr("Modbus ASCII"), int(ModbusFraming::Ascii));
    form->addRow(tr("Protocol"), cbProtocol);

    sbSlaveId = new QSpinBox(this);
    sbSlaveId->setObjectName(QStringLiteral("sbSlaveId"));
    sbSlaveId->setRange(0, 247);
    sbSlaveId->setValue(1);
    sbSlaveId->setToolTip(tr("0 is the broadcast address"));
    auto *slaveHint = new QLabel(tr("0 is the broadcast address"), this);
    slaveHint->setEnabled(false);
    auto *slaveRow = new QHBoxLayout;
    slaveRow->addWidget(sbSlaveId);
    slaveRow->addWidget(slaveHint, 1);
    form->addRow(tr("Slave ID"), slaveRow);

    cbFunction = new QComboBox(this);
    cbFunction->setObjectName(QStringLiteral("cbFunction"));
    for (const ModbusCodec::Function &f : ModbusCodec::functions())
        cbFunction->addItem(ModbusCodec::functionLabel(f), int(f.code));
    cbFunction->setCurrentIndex(cbFunction->findData(0x03));
    form->addRow(tr("Function"), cbFunction);

    sbAddress = new QSpinBox(this);
    sbAddress->setObjectName(QStringLiteral("sbAddress"));
    sbAddress->setRange(0, 65535);
    form->addRow(tr("Start address"), sbAddress);

    // Wider than any limit, so that an out-of-range count is explained
    // rather than silently clamped.
    sbQuantity = new QSpinBox(this);
    sbQuantity->setObjectName(QStringLiteral("sbQuantity"));
    sbQuantity->setRange(0, 65535);
    sbQuantity->setValue(1);
    form->addRow(tr("Quantity"), sbQuantity);

    cbCoilValue = new QComboBox(this);
    cbCoilValue->setObjectName(QStringLiteral("cbCoilValue"));
    cbCoilValue->addItem(tr("ON  (FF 00)"), 1);
    cbCoilValue->addItem(tr("OFF (00 00)"), 0);
    form->addRow(tr("Coil state"), cbCoilValue);

    leValues = new QLineEdit(this);
    leValues->setObjectName(QStringLiteral("leValues"));
    form->addRow(tr("Values"), leValues);

    const QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    previewGroup = new QGroupBox(tr("Request frame"), this);
    previewGroup->setObjectName(QStringLiteral("previewGroup"));
    lePreview = new QLineEdit(previewGroup);
    lePreview->setObjectName(QStringLiteral("lePreview"));
    lePreview->setReadOnly(true);
    lePreview->setFont(fixed);
    leAsciiPreview = new QLineEdit(previewGroup);
    leAsciiPreview->setObjectName(QStringLiteral("leAsciiPreview"));
    leAsciiPreview->setReadOnly(true);
    leAsciiPreview->setFont(fixed);
    auto *previewForm = new QFormLayout(previewGroup);
    previewForm->addRow(tr("HEX"), lePreview);
    previewForm->addRow(tr("ASCII"), leAsciiPreview);

    errorLabel = new QLabel(this);
    errorLabel->setObjectName(QStringLiteral("errorLabel"));
    errorLabel->setStyleSheet(QStringLiteral("color: red;"));
    errorLabel->setWordWrap(true);

    btnCopy = new QPushButton(tr("Copy HEX"), this);
    btnCopy->setObjectName(QStringLiteral("btnCopy"));
    btnInsert = new QPushButton(tr("Insert to Send Area"), this);
    btnInsert->setObjectName(QStringLiteral("btnInsert"));
    btnInsert->setDefault(true);
    btnClose = new QPushButton(tr("Close"), this);
    btnClose->setObjectName(QStringLiteral("btnClose"));
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(btnCopy);
    buttons->addStretch(1);
    buttons->addWidget(btnInsert);
    buttons->addWidget(btnClose);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(previewGroup);
    layout->addWidget(errorLabel);
    layout->addStretch(1);
    layout->addLayout(buttons);
    resize(520, sizeHint().height());
}

quint8 ModbusBuilderDialog::currentFunction() const
{
    return quint8(cbFunction->currentData().toInt());
}

void ModbusBuilderDialog::updateFields()
{
    const quint8 code = currentFunction();
    sbQuantity->setEnabled(usesQuantity(code));
    cbCoilValue->setEnabled(code == 0x05);
    leValues->setEnabled(usesValuesField(code));
    leValues->setPlaceholderText(ModbusValuesParser::placeholder(code));
}

ValueResult<QByteArray> ModbusBuilderDialog::buildFrame() const
{
    ModbusRequest request;
    request.slaveId = quint8(sbSlaveId->value());
    request.functionCode = currentFunction();
    request.startAddress = quint16(sbAddress->value());
    request.quantity = quint16(sbQuantity->value());
    if (request.functionCode == 0x05) {
        request.values = {quint16(cbCoilValue->currentData().toInt())};
    } else {
        const ValueResult<QList<quint16>> values = ModbusValuesParser::parse(request.functionCode, leValues->text());
        if (!values)
            return ValueResult<QByteArray>::failure(values.errorText());
        request.values = values.value();
    }
    return ModbusCodec::buildFrame(request, ModbusFraming(cbProtocol->currentData().toInt()));
}

void ModbusBuilderDialog::updatePreview()
{
    const ValueResult<QByteArray> frame = buildFrame();
    const bool ascii = ModbusFraming(cbProtocol->currentData().toInt()) == ModbusFraming::Ascii;
    leAsciiPreview->setEnabled(ascii);
    if (frame) {
        m_frame = frame.value();
        errorLabel->clear();
        lePreview->setText(HexParser::toHexText(m_frame));
        leAsciiPreview->setText(ascii ? ModbusCodec::asciiPreviewText(m_frame) : QString());
    } else {
        m_frame.clear();
        errorLabel->setText(frame.errorText());
        lePreview->clear();
        leAsciiPreview->clear();
    }
    btnCopy->setEnabled(!m_frame.isEmpty());
    btnInsert->setEnabled(!m_frame.isEmpty());
}

void ModbusBuilderDialog::on_btnCopy_clicked()
{
    if (!m_frame.isEmpty())
        QApplication::clipboard()->setText(lePreview->text());
}

void ModbusBuilderDialog::on_btnInsert_clicked()
{
    if (!m_frame.isEmpty())
        Q_EMIT insertRequested(m_frame);
}

void ModbusBuilderDialog::on_btnClose_clicked()
{
    close();
}

QString ModbusBuilderDialog::sendChecksumNote()
{
    return tr("Note: this port appends a checksum on send; the Modbus frame already includes one.");
}
