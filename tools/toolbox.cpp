#include "tools/toolbox.h"

#include "tools/bulkinputedit.h"
#include "tools/crccatalogue.h"
#include "tools/crccustomparams.h"
#include "tools/crcformat.h"
#include "tools/crctable.h"
#include "tools/hexparser.h"

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFontDatabase>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpressionValidator>
#include <QSignalBlocker>
#include <QTabWidget>
#include <QVBoxLayout>

namespace {

const QString errorStyle = QStringLiteral("color: #b00020;");

QString hexField(quint64 value)
{
    return QString::number(value, 16).toUpper();
}

} // namespace

ToolBox::ToolBox(QWidget *parent)
    : QDialog(parent)
{
    setObjectName(QStringLiteral("ToolBox"));
    setWindowTitle(tr("ToolBox"));
    resize(640, 600);

    tabWidget = new QTabWidget(this);
    tabWidget->setObjectName(QStringLiteral("tabWidget"));
    tabWidget->addTab(setupConverterTab(), tr("Converter"));
    tabWidget->addTab(setupCrcTab(), tr("CRC Calculator"));
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(tabWidget);

    QMetaObject::connectSlotsByName(this);

    connect(inputText, &QPlainTextEdit::textChanged, this, [this] { converterErrorLabel->clear(); });
    connect(outputText, &QPlainTextEdit::textChanged, this,
            [this] { btnCopyConverted->setEnabled(!outputText->document()->isEmpty()); });
    connect(inputCrc, &BulkInputEdit::bulkPasted, this, &ToolBox::setBulkCrcText);
    // Typing replaces a held-aside input; the box itself is only read on
    // Calculate.
    connect(inputCrc, &QPlainTextEdit::textChanged, this, [this] {
        if (m_bulk != Bulk::None && !inputCrc->document()->isEmpty())
            clearBulk();
    });

    cbName->setCurrentIndex(CrcModelId::Crc16Modbus);
    btnCopyConverted->setEnabled(false);
    updateResultButtons();
}

QWidget *ToolBox::setupConverterTab()
{
    auto *page = new QWidget;
    page->setObjectName(QStringLiteral("converterTab"));
    const QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);

    inputText = new QPlainTextEdit(page);
    inputText->setObjectName(QStringLiteral("inputText"));
    inputText->setFont(fixed);
    hexToText = new QPushButton(tr("Hex to Text"), page);
    hexToText->setObjectName(QStringLiteral("hexToText"));
    textToHex = new QPushButton(tr("Text to Hex"), page);
    textToHex->setObjectName(QStringLiteral("textToHex"));
    auto *note = new QLabel(tr("Always UTF-8. This tool is independent of the encoding a port is configured with."),
                            page);
    note->setWordWrap(true);
    outputText = new QPlainTextEdit(page);
    outputText->setObjectName(QStringLiteral("outputText"));
    outputText->setReadOnly(true);
    outputText->setFont(fixed);
    btnCopyConverted = new QPushButton(tr("Copy Output"), page);
    btnCopyConverted->setObjectName(QStringLiteral("btnCopyConverted"));
    converterErrorLabel = new QLabel(page);
    converterErrorLabel->setObjectName(QStringLiteral("converterErrorLabel"));
    converterErrorLabel->setStyleSheet(errorStyle);
    converterErrorLabel->setWordWrap(true);

    auto *convertRow = new QHBoxLayout;
    convertRow->addWidget(hexToText);
    convertRow->addWidget(textToHex);
    convertRow->addStretch(1);
    auto *copyRow = new QHBoxLayout;
    copyRow->addWidget(converterErrorLabel, 1);
    copyRow->addWidget(btnCopyConverted);

    auto *layout = new QVBoxLayout(page);
    layout->addWidget(new QLabel(tr("Input"), page));
    layout->addWidget(inputText, 1);
    layout->addLayout(convertRow);
    layout->addWidget(note);
    layout->addWidget(new QLabel(tr("Output"), page));
    layout->addWidget(outputText, 1);
    layout->addLayout(copyRow);
    return page;
}

QWidget *ToolBox::setupCrcTab()
{
    auto *page = new QWidget;
    page->setObjectName(QStringLiteral("crcTab"));
    const QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);

    rbAscii = new QRadioButton(tr("Text (UTF-8)"), page);
    rbAscii->setObjectName(QStringLiteral("rbAscii"));
    rbAscii->setChecked(true);
    rbHex = new QRadioButton(tr("Hex"), page);
    rbHex->setObjectName(QStringLiteral("rbHex"));
    auto *formatGroup = new QButtonGroup(page);
    formatGroup->addButton(rbAscii);
    formatGroup->addButton(rbHex);
    btnLoadFile = new QPushButton(tr("Load File..."), page);
    btnLoadFile->setObjectName(QStringLiteral("btnLoadFile"));
    btnLoadFile->setToolTip(tr("Calculate over the bytes of a file"));
    auto *formatRow = new QHBoxLayout;
    formatRow->addWidget(new QLabel(tr("Input format"), page));
    formatRow->addWidget(rbAscii);
    formatRow->addWidget(rbHex);
    formatRow->addStretch(1);
    formatRow->addWidget(btnLoadFile);

    inputCrc = new BulkInputEdit(page);
    inputCrc->setObjectName(QStringLiteral("inputCrc"));
    inputCrc->setFont(fixed);
    crcErrorLabel = new QLabel(page);
    crcErrorLabel->setObjectName(QStringLiteral("crcErrorLabel"));
    crcErrorLabel->setStyleSheet(errorStyle);
    crcErrorLabel->setWordWrap(true);

    // Parameters
    auto *parameters = new QGroupBox(tr("Parameters"), page);
    parameters->setObjectName(QStringLiteral("parametersGroup"));
    cbName = new QComboBox(parameters);
    cbName->setObjectName(QStringLiteral("cbName"));
    for (const CrcModel &model : crcCatalogue())
        cbName->addItem(model.displayName(), model.id);
    leWidth = new QLineEdit(parameters);
    leWidth->setObjectName(QStringLiteral("leWidth"));
    leWidth->setMaxLength(11);
    lePoly = new QLineEdit(parameters);
    lePoly->setObjectName(QStringLiteral("lePoly"));
    leInit = new QLineEdit(parameters);
    leInit->setObjectName(QStringLiteral("leInit"));
    leXorout = new QLineEdit(parameters);
    leXorout->setObjectName(QStringLiteral("leXorout"));
    const QRegularExpression hexDigits(QStringLiteral("[0-9A-Fa-f]{1,16}"));
    for (QLineEdit *field : {lePoly, leInit, leXorout}) {
        field->setValidator(new QRegularExpressionValidator(hexDigits, field));
        field->setFont(fixed);
    }
    cbRefin = new QCheckBox(tr("Reflect input"), parameters);
    cbRefin->setObjectName(QStringLiteral("cbRefin"));
    cbRefout = new QCheckBox(tr("Reflect output"), parameters);
    cbRefout->setObjectName(QStringLiteral("cbRefout"));

    auto *paramGrid = new QGridLayout(parameters);
    paramGrid->addWidget(new QLabel(tr("Algorithm"), parameters), 0, 0);
    paramGrid->addWidget(cbName, 0, 1);
    paramGrid->addWidget(new QLabel(tr("Width"), parameters), 0, 2);
    paramGrid->addWidget(leWidth, 0, 3);
    paramGrid->addWidget(new QLabel(tr("Polynomial (hex)"), parameters), 1, 0);
    paramGrid->addWidget(lePoly, 1, 1);
    paramGrid->addWidget(new QLabel(tr("Initial value (hex)"), parameters), 1, 2);
    paramGrid->addWidget(leInit, 1, 3);
    paramGrid->addWidget(new QLabel(tr("Final XOR (hex)"), parameters), 2, 0);
    paramGrid->addWidget(leXorout, 2, 1);
    auto *reflectRow = new QHBoxLayout;
    reflectRow->addWidget(cbRefin);
    reflectRow->addWidget(cbRefout);
    reflectRow->addStretch(1);
    paramGrid->addLayout(reflectRow, 2, 2, 1, 2);
    paramGrid->setColumnStretch(1, 1);
    paramGrid->setColumnStretch(3, 1);

    // Result
    auto *result = new QGroupBox(tr("Result"), page);
    result->setObjectName(QStringLiteral("resultGroup"));
    leResult = new QLineEdit(result);
    leResult->setObjectName(QStringLiteral("leResult"));
    leResult->setReadOnly(true);
    leResult->setFont(fixed);
    cbResultBase = new QComboBox(result);
    cbResultBase->setObjectName(QStringLiteral("cbResultBase"));
    cbResultBase->addItem(tr("Hex"), 16);
    cbResultBase->addItem(tr("Dec"), 10);
    cbResultBase->addItem(tr("Oct"), 8);
    cbResultBase->addItem(tr("Bin"), 2);
    btnCopyResult = new QPushButton(tr("Copy Value"), result);
    btnCopyResult->setObjectName(QStringLiteral("btnCopyResult"));
    leWireBytes = new QLineEdit(result);
    leWireBytes->setObjectName(QStringLiteral("leWireBytes"));
    leWireBytes->setReadOnly(true);
    leWireBytes->setFont(fixed);
    cbByteOrder = new QComboBox(result);
    cbByteOrder->setObjectName(QStringLiteral("cbByteOrder"));
    cbByteOrder->addItem(tr("Big-endian"), int(CrcByteOrder::BigEndian));
    cbByteOrder->addItem(tr("Little-endian"), int(CrcByteOrder::LittleEndian));
    btnCopyWire = new QPushButton(tr("Copy Bytes"), result);
    btnCopyWire->setObjectName(QStringLiteral("btnCopyWire"));

    auto *resultGrid = new QGridLayout(result);
    resultGrid->addWidget(leResult, 0, 0, 1, 2);
    resultGrid->addWidget(new QLabel(tr("Base"), result), 0, 2);
    resultGrid->addWidget(cbResultBase, 0, 3);
    resultGrid->addWidget(btnCopyResult, 0, 4);
    resultGrid->addWidget(new QLabel(tr("Wire bytes"), result), 1, 0);
    resultGrid->addWidget(leWireBytes, 1, 1);
    resultGrid->addWidget(new QLabel(tr("Byte order"), result), 1, 2);
    resultGrid->addWidget(cbByteOrder, 1, 3);
    resultGrid->addWidget(btnCopyWire, 1, 4);
    resultGrid->setColumnStretch(1, 1);

    btnInsertFrame = new QPushButton(tr("Insert Frame into Send"), page);
    btnInsertFrame->setObjectName(QStringLiteral("btnInsertFrame"));
    calculateCRC = new QPushButton(tr("Calculate"), page);
    calculateCRC->setObjectName(QStringLiteral("calculateCRC"));
    calculateCRC->setDefault(true);
    auto *actionRow = new QHBoxLayout;
    actionRow->addStretch(1);
    actionRow->addWidget(btnInsertFrame);
    actionRow->addWidget(calculateCRC);

    auto *layout = new QVBoxLayout(page);
    layout->addLayout(formatRow);
    layout->addWidget(inputCrc, 1);
    layout->addWidget(crcErrorLabel);
    layout->addWidget(parameters);
    layout->addWidget(result);
    layout->addLayout(actionRow);
    return page;
}

void ToolBox::showCrcCalculator()
{
    tabWidget->setCurrentIndex(1);
}

// ---------------------------------------------------------------- converter

void ToolBox::showConverterError(const QString &text)
{
    outputText->clear();
    converterErrorLabel->setText(text);
}

void ToolBox::on_hexToText_clicked()
{
    const ValueResult<QByteArray> bytes = HexParser::parse(inputText->toPlainText());
    if (!bytes)
        return showConverterError(bytes.errorText());
    converterErrorLabel->clear();
    outputText->setPlainText(QString::fromUtf8(bytes.value()));
}

void ToolBox::on_textToHex_clicked()
{
    converterErrorLabel->clear();
    outputText->setPlainText(HexParser::toHexText(inputText->toPlainText().toUtf8()));
}

void ToolBox::on_btnCopyConverted_clicked()
{
    QApplication::clipboard()->setText(outputText->toPlainText());
}

// ------------------------------------------------------------ CRC parameters

void ToolBox::on_cbName_currentIndexChanged(int index)
{
    if (m_shownModel == CrcModelId::Custom)
        m_customFields = customFieldsShown();
    const std::optional<CrcModel> model = findCrcModel(cbName->itemData(index).toInt());
    if (!model)
        return;
    m_shownModel = model->id;
    const bool custom = model->id == CrcModelId::Custom;
    if (custom && !m_customFields.width.isEmpty()) {
        showCustomFields(m_customFields);
    } else {
        showCustomFields({QString::number(model->width), hexField(model->poly), hexField(model->init),
                          hexField(model->xorout), model->refin, model->refout});
    }
    // Only "Custom" takes its parameters from the fields.
    for (QWidget *field : std::initializer_list<QWidget *>{leWidth, lePoly, leInit, leXorout, cbRefin, cbRefout})
        field->setEnabled(custom);
}

void ToolBox::showCustomFields(const CustomFields &fields)
{
    leWidth->setText(fields.width);
    lePoly->setText(fields.poly);
    leInit->setText(fields.init);
    leXorout->setText(fields.xorout);
    cbRefin->setChecked(fields.refin);
    cbRefout->setChecked(fields.refout);
}

ToolBox::CustomFields ToolBox::customFieldsShown() const
{
    return {leWidth->text(), lePoly->text(), leInit->text(), leXorout->text(), cbRefin->isChecked(),
            cbRefout->isChecked()};
}

int ToolBox::enteredWidth() const
{
    bool ok = false;
    const int width = leWidth->text().trimmed().toInt(&ok);
    return ok ? width : 0;
}

// ------------------------------------------------------------- CRC input

void ToolBox::setBulkCrcText(const QString &text)
{
    {
        const QSignalBlocker blocker(inputCrc);
        inputCrc->clear();
    }
    m_bulk = Bulk::Text;
    m_bulkText = text;
    m_bulkBytes.clear();
    rbAscii->setEnabled(true);
    rbHex->setEnabled(true);
    inputCrc->setPlaceholderText(tr("Pasted text of %1 characters, kept out of view. Type or paste to replace it.")
                                     .arg(QLocale().toString(text.size())));
}

Result ToolBox::loadCrcInputFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Result::failure(tr("Cannot open %1: %2").arg(QDir::toNativeSeparators(path), file.errorString()));
    if (file.size() > kMaxFileBytes)
        return Result::failure(tr("%1 is larger than %2 MiB and was not loaded.")
                                   .arg(QDir::toNativeSeparators(path))
                                   .arg(kMaxFileBytes >> 20));
    QByteArray bytes = file.read(kMaxFileBytes + 1);
    if (file.error() != QFileDevice::NoError)
        return Result::failure(tr("Cannot read %1: %2").arg(QDir::toNativeSeparators(path), file.errorString()));
    if (bytes.size() > kMaxFileBytes)
        return Result::failure(tr("%1 is larger than %2 MiB and was not loaded.")
                                   .arg(QDir::toNativeSeparators(path))
                                   .arg(kMaxFileBytes >> 20));
    {
        const QSignalBlocker blocker(inputCrc);
        inputCrc->clear();
    }
    m_bulk = Bulk::File;
    m_bulkBytes = std::move(bytes);
    m_bulkText.clear();
    // A file is hashed as it is; the input format applies to typed text.
    rbAscii->setEnabled(false);
    rbHex->setEnabled(false);
    inputCrc->setPlaceholderText(tr("File %1: %2 bytes, hashed as they are. Type or paste to replace it.")
                                     .arg(QFileInfo(path).fileName(), QLocale().toString(m_bulkBytes.size())));
    return Result::success();
}

void ToolBox::clearBulk()
{
    m_bulk = Bulk::None;
    m_bulkText.clear();
    m_bulkBytes.clear();
    rbAscii->setEnabled(true);
    rbHex->setEnabled(true);
    inputCrc->setPlaceholderText(QString());
}

void ToolBox::on_btnLoadFile_clicked()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Load File"));
    if (path.isEmpty())
        return;
    if (const Result r = loadCrcInputFile(path); !r)
        failCalculation(r.errorText());
    else
        crcErrorLabel->clear();
}

ValueResult<QByteArray> ToolBox::crcInputBytes() const
{
    if (m_bulk == Bulk::File)
        return m_bulkBytes;
    const QString text = m_bulk == Bulk::Text ? m_bulkText : inputCrc->toPlainText();
    if (rbHex->isChecked())
        return HexParser::parse(text);
    return text.toUtf8();
}

// ------------------------------------------------------------- CRC result

void ToolBox::on_calculateCRC_clicked()
{
    ValueResult<QByteArray> input = crcInputBytes();
    if (!input)
        return failCalculation(input.errorText());

    const int id = cbName->currentData().toInt();
    quint64 value = 0;
    int width = 0;
    if (id == CrcModelId::Custom) {
        const ValueResult<CrcParams> params = validateCustomCrcParams(
            leWidth->text(), lePoly->text(), leInit->text(), leXorout->text(), cbRefin->isChecked(),
            cbRefout->isChecked());
        if (!params)
            return failCalculation(params.errorText());
        value = CrcTable(params.value()).compute(input.value());
        width = params.value().width;
    } else {
        value = computeCatalogueCrc(id, input.value());
        width = findCrcModel(id) ? findCrcModel(id)->width : enteredWidth();
    }
    m_lastInput = std::move(input.value());
    m_lastValue = value;
    // The result keeps the width it was computed with: choosing another
    // algorithm afterwards re-renders nothing with a width not its own.
    m_lastWidth = width;
    m_resultValid = true;
    crcErrorLabel->clear();
    renderResult();
}

void ToolBox::failCalculation(const QString &text)
{
    m_resultValid = false;
    m_lastInput.clear();
    m_lastValue = 0;
    crcErrorLabel->setText(text);
    renderResult();
}

void ToolBox::renderResult()
{
    if (m_resultValid) {
        leResult->setText(formatCrcValue(m_lastValue, cbResultBase->currentData().toInt(), m_lastWidth));
        leWireBytes->setText(HexParser::toHexText(
            crcWireBytes(m_lastValue, m_lastWidth, CrcByteOrder(cbByteOrder->currentData().toInt()))));
    } else {
        leResult->clear();
        leWireBytes->clear();
    }
    updateResultButtons();
}

void ToolBox::updateResultButtons()
{
    const bool tooLarge = m_lastInput.size() > kMaxInsertBytes;
    btnInsertFrame->setEnabled(m_resultValid && !tooLarge);
    btnInsertFrame->setToolTip(m_resultValid && tooLarge
                                   ? tr("The input is larger than %1 KiB: too large to insert into a send box.")
                                         .arg(kMaxInsertBytes >> 10)
                                   : QString());
    btnCopyResult->setEnabled(m_resultValid);
    btnCopyWire->setEnabled(m_resultValid);
}

void ToolBox::on_cbResultBase_currentIndexChanged(int)
{
    renderResult();
}

void ToolBox::on_cbByteOrder_currentIndexChanged(int)
{
    renderResult();
}

void ToolBox::on_btnCopyResult_clicked()
{
    QApplication::clipboard()->setText(leResult->text());
}

void ToolBox::on_btnCopyWire_clicked()
{
    QApplication::clipboard()->setText(leWireBytes->text());
}

void ToolBox::on_btnInsertFrame_clicked()
{
    if (!m_resultValid || m_lastInput.size() > kMaxInsertBytes)
        return;
    const QByteArray wire =
        crcWireBytes(m_lastValue, m_lastWidth, CrcByteOrder(cbByteOrder->currentData().toInt()));
    Q_EMIT insertRequested(m_lastInput + wire);
}

QString ToolBox::sendChecksumNote()
{
    return tr("Note: this port appends a checksum on send; the inserted frame already includes its CRC.");
}
