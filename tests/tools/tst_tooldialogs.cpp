// The tool dialogs driven the way a user drives them: typing into fields,
// picking from boxes, clicking buttons; then what is shown, what is
// emitted for insertion and which buttons are disabled.

#include "app/mainwindow.h"
#include "app/screenshotdialogs.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/serialportwidget.h"
#include "tools/asciicode.h"
#include "tools/bulkinputedit.h"
#include "tools/crccatalogue.h"
#include "tools/modbusbuilderdialog.h"
#include "tools/toolbox.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSerialPort>
#include <QSignalSpy>
#include <QSpinBox>
#include <QStatusBar>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

template <typename T>
T *child(QWidget *parent, const char *name)
{
    T *w = parent->findChild<T *>(QString::fromLatin1(name));
    if (!w)
        qFatal("no widget %s", name);
    return w;
}

void typeInto(QLineEdit *edit, const QString &text)
{
    edit->selectAll();
    QTest::keyClick(edit, Qt::Key_Delete);
    QTest::keyClicks(edit, text);
}

void typeInto(QSpinBox *box, int value)
{
    box->selectAll();
    QTest::keyClicks(box, QString::number(value));
}

// Any character, as a keyboard layout or input method would deliver it.
void typeInto(QPlainTextEdit *edit, const QString &text)
{
    edit->selectAll();
    QTest::keyClick(edit, Qt::Key_Delete);
    for (const QChar c : text) {
        if (c == u'\n')
            QTest::keyClick(edit, Qt::Key_Return);
        else
            QTest::sendKeyEvent(QTest::Click, edit, Qt::Key_unknown, QString(c), Qt::NoModifier);
    }
}

void pick(QComboBox *box, int data)
{
    const int index = box->findData(data);
    QVERIFY2(index >= 0, qPrintable(QStringLiteral("no item with data %1").arg(data)));
    box->setCurrentIndex(index);
}

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(text);
}

} // namespace

class ToolDialogsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_sandbox = std::make_unique<SettingsSandbox>(); }
    void init() { m_sandbox->clear(); }

    void modbusPreview_data();
    void modbusPreview();
    void modbusFieldsFollowFunction();
    void modbusCopiesHex();

    void converter_data();
    void converter();

    void crcCatalogueRow_data();
    void crcCatalogueRow();
    void crcRerendersWithoutRecalculating();
    void crcCustomParams_data();
    void crcCustomParams();
    void crcFailureClearsEarlierResult();
    void crcRowsFillFieldsAndKeepCustom();
    void crcLargePasteIsHeldAside();
    void crcLoadsFile();

    void asciiChartHasEveryCode();

    void menuInsertsFramesIntoCurrentPane();
    void insertGoesToPaneLastWorkedIn();
    void dialogsHaveScreenshotNames();
    void insertedModbusFrameReachesPeer();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

// ------------------------------------------------------------------ Modbus

void ToolDialogsTest::modbusPreview_data()
{
    QTest::addColumn<int>("protocol");
    QTest::addColumn<int>("slave");
    QTest::addColumn<int>("function");
    QTest::addColumn<int>("address");
    QTest::addColumn<int>("quantity");
    QTest::addColumn<int>("coil");  // cbCoilValue index
    QTest::addColumn<QString>("values");
    QTest::addColumn<QByteArray>("frame");  // empty: expect the error
    QTest::addColumn<QString>("asciiPreview");
    QTest::addColumn<QString>("error");

    QTest::newRow("read holding registers, RTU")
        << 0 << 1 << 0x03 << 0 << 10 << 0 << QString() << hex("0103 0000 000A C5CD") << QString() << QString();
    QTest::newRow("read holding registers, ASCII")
        << 1 << 1 << 0x03 << 0 << 10 << 0 << QString() << QByteArray(":01030000000AF2\r\n")
        << QStringLiteral(":01030000000AF2<CR><LF>") << QString();
    QTest::newRow("write multiple coils packs bits")
        << 0 << 1 << 0x0F << 19 << 1 << 0 << QStringLiteral("1 0 1 1 0 0 1 1 1 0")
        << hex("010F0013000A02CD0172CB") << QString() << QString();
    QTest::newRow("write multiple registers, commas")
        << 0 << 1 << 0x10 << 0 << 1 << 0 << QStringLiteral("0102, ffff") << hex("011000000002040102FFFF5223")
        << QString() << QString();
    QTest::newRow("broadcast single coil off")
        << 0 << 0 << 0x05 << 10 << 1 << 1 << QString() << hex("0005000A0000EC19") << QString() << QString();
    QTest::newRow("single register")
        << 0 << 1 << 0x06 << 1 << 1 << 0 << QStringLiteral("00 0A") << QByteArray() << QString()
        << QStringLiteral("Write Single Register takes exactly one value.");
    QTest::newRow("single register, one value") << 0 << 1 << 0x06 << 1 << 1 << 0 << QStringLiteral("000A")
                                                << hex("01060001000A580D") << QString() << QString();
    QTest::newRow("address space exceeded") << 0 << 1 << 0x03 << 65530 << 7 << 0 << QString() << QByteArray()
                                            << QString()
                                            << QStringLiteral("Address 65530 plus count 7 exceeds the 65536 address space.");
    QTest::newRow("register count too high") << 1 << 1 << 0x03 << 0 << 126 << 0 << QString() << QByteArray()
                                             << QString() << QStringLiteral("Register count must be between 1 and 125.");
    QTest::newRow("register value too wide") << 0 << 1 << 0x10 << 0 << 1 << 0 << QStringLiteral("1 10000")
                                             << QByteArray() << QString()
                                             << QStringLiteral("\"10000\" is not a 16-bit HEX value.");
}

void ToolDialogsTest::modbusPreview()
{
    QFETCH(int, protocol);
    QFETCH(int, slave);
    QFETCH(int, function);
    QFETCH(int, address);
    QFETCH(int, quantity);
    QFETCH(int, coil);
    QFETCH(QString, values);
    QFETCH(QByteArray, frame);
    QFETCH(QString, asciiPreview);
    QFETCH(QString, error);

    ModbusBuilderDialog dialog;
    dialog.show();
    QSignalSpy inserted(&dialog, &ModbusBuilderDialog::insertRequested);
    child<QComboBox>(&dialog, "cbProtocol")->setCurrentIndex(protocol);
    typeInto(child<QSpinBox>(&dialog, "sbSlaveId"), slave);
    pick(child<QComboBox>(&dialog, "cbFunction"), function);
    typeInto(child<QSpinBox>(&dialog, "sbAddress"), address);
    if (child<QSpinBox>(&dialog, "sbQuantity")->isEnabled())
        typeInto(child<QSpinBox>(&dialog, "sbQuantity"), quantity);
    if (child<QComboBox>(&dialog, "cbCoilValue")->isEnabled())
        child<QComboBox>(&dialog, "cbCoilValue")->setCurrentIndex(coil);
    if (child<QLineEdit>(&dialog, "leValues")->isEnabled())
        typeInto(child<QLineEdit>(&dialog, "leValues"), values);

    auto *preview = child<QLineEdit>(&dialog, "lePreview");
    auto *copy = child<QPushButton>(&dialog, "btnCopy");
    auto *insert = child<QPushButton>(&dialog, "btnInsert");
    QCOMPARE(child<QLabel>(&dialog, "errorLabel")->text(), error);
    QCOMPARE(child<QLineEdit>(&dialog, "leAsciiPreview")->text(), asciiPreview);
    QCOMPARE(copy->isEnabled(), !frame.isEmpty());
    QCOMPARE(insert->isEnabled(), !frame.isEmpty());
    QCOMPARE(QByteArray::fromHex(preview->text().toLatin1()), frame);
    if (frame.isEmpty())
        QVERIFY(preview->text().isEmpty());
    else
        QCOMPARE(preview->text(), QString::fromLatin1(frame.toHex(' ').toUpper()));

    QTest::mouseClick(insert, Qt::LeftButton);
    if (frame.isEmpty()) {
        QCOMPARE(inserted.count(), 0);
    } else {
        QCOMPARE(inserted.count(), 1);
        QCOMPARE(inserted.at(0).at(0).toByteArray(), frame);
    }
}

void ToolDialogsTest::modbusFieldsFollowFunction()
{
    ModbusBuilderDialog dialog;
    auto *function = child<QComboBox>(&dialog, "cbFunction");
    auto *quantity = child<QSpinBox>(&dialog, "sbQuantity");
    auto *coil = child<QComboBox>(&dialog, "cbCoilValue");
    auto *values = child<QLineEdit>(&dialog, "leValues");
    struct Expect { int code; bool quantity, coil, values; };
    for (const Expect &e : {Expect{0x01, true, false, false}, Expect{0x04, true, false, false},
                            Expect{0x05, false, true, false}, Expect{0x06, false, false, true},
                            Expect{0x0F, false, false, true}, Expect{0x10, false, false, true}}) {
        pick(function, e.code);
        const QByteArray where = "function " + QByteArray::number(e.code, 16);
        QVERIFY2(quantity->isEnabled() == e.quantity, where);
        QVERIFY2(coil->isEnabled() == e.coil, where);
        QVERIFY2(values->isEnabled() == e.values, where);
        QVERIFY2(values->placeholderText().isEmpty() == !e.values, where);
    }
    // The ASCII text line is only in use for ASCII framing.
    auto *ascii = child<QLineEdit>(&dialog, "leAsciiPreview");
    QVERIFY(!ascii->isEnabled());
    child<QComboBox>(&dialog, "cbProtocol")->setCurrentIndex(1);
    QVERIFY(ascii->isEnabled());
}

void ToolDialogsTest::modbusCopiesHex()
{
    ModbusBuilderDialog dialog;
    dialog.show();
    typeInto(child<QSpinBox>(&dialog, "sbQuantity"), 10);
    QApplication::clipboard()->clear();
    QTest::mouseClick(child<QPushButton>(&dialog, "btnCopy"), Qt::LeftButton);
    QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("01 03 00 00 00 0A C5 CD"));

    QVERIFY(dialog.isVisible());
    QTest::mouseClick(child<QPushButton>(&dialog, "btnClose"), Qt::LeftButton);
    QVERIFY(!dialog.isVisible());
}

// --------------------------------------------------------------- converter

void ToolDialogsTest::converter_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("error");

    QTest::newRow("hex to text") << "48 65 6C 6C 6F" << "hexToText" << "Hello" << "";
    QTest::newRow("space inside a byte") << "4 8" << "hexToText" << "H" << "";
    QTest::newRow("UTF-8 multibyte") << "e4bda0 E5A5BD" << "hexToText" << QStringLiteral("你好") << "";
    QTest::newRow("invalid character") << "48G" << "hexToText" << "" << "Invalid hex character at position 3.";
    QTest::newRow("odd digits") << "486" << "hexToText" << "" << "Hex input must contain complete bytes.";
    QTest::newRow("text to hex") << QStringLiteral("Grüße\n") << "textToHex" << "47 72 C3 BC C3 9F 65 0A" << "";
}

void ToolDialogsTest::converter()
{
    QFETCH(QString, input);
    QFETCH(QString, button);
    QFETCH(QString, output);
    QFETCH(QString, error);

    ToolBox box;
    box.show();
    auto *out = child<QPlainTextEdit>(&box, "outputText");
    auto *copy = child<QPushButton>(&box, "btnCopyConverted");
    auto *errorLabel = child<QLabel>(&box, "converterErrorLabel");
    QVERIFY(!copy->isEnabled());
    // A stale output must not survive a failed conversion.
    out->setPlainText(QStringLiteral("earlier"));

    typeInto(child<QPlainTextEdit>(&box, "inputText"), input);
    QTest::mouseClick(child<QPushButton>(&box, button.toLatin1().constData()), Qt::LeftButton);
    QCOMPARE(out->toPlainText(), output);
    QCOMPARE(errorLabel->text(), error);
    QCOMPARE(copy->isEnabled(), !output.isEmpty());
    if (!output.isEmpty()) {
        QTest::mouseClick(copy, Qt::LeftButton);
        QCOMPARE(QApplication::clipboard()->text(), output);
    }
}

// ------------------------------------------------------------------- CRC

void ToolDialogsTest::crcCatalogueRow_data()
{
    QTest::addColumn<int>("model");
    QTest::addColumn<bool>("hexInput");
    QTest::addColumn<QString>("input");
    QTest::addColumn<int>("base");   // cbResultBase index
    QTest::addColumn<int>("order");  // cbByteOrder index
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("wire");

    QTest::newRow("MODBUS hex, little-endian")
        << int(CrcModelId::Crc16Modbus) << false << "123456789" << 0 << 1 << "4B37" << "37 4B";
    QTest::newRow("CRC-32 decimal") << int(CrcModelId::Crc32) << false << "123456789" << 1 << 0 << "3421780262"
                                    << "CB F4 39 26";
    QTest::newRow("CRC-4 binary is filled") << int(CrcModelId::Crc4Itu) << false << "123456789" << 3 << 0 << "0111"
                                            << "07";
    QTest::newRow("hex input") << int(CrcModelId::Crc16Modbus) << true << "31 32 33 34 35\t36 37 38 39" << 0 << 1
                               << "4B37" << "37 4B";
    QTest::newRow("empty input") << int(CrcModelId::Crc16Usb) << false << "" << 0 << 0 << "0000" << "00 00";
}

void ToolDialogsTest::crcCatalogueRow()
{
    QFETCH(int, model);
    QFETCH(bool, hexInput);
    QFETCH(QString, input);
    QFETCH(int, base);
    QFETCH(int, order);
    QFETCH(QString, result);
    QFETCH(QString, wire);

    ToolBox box;
    box.show();
    box.showCrcCalculator();
    QSignalSpy inserted(&box, &ToolBox::insertRequested);
    auto *insert = child<QPushButton>(&box, "btnInsertFrame");
    QVERIFY(!insert->isEnabled());

    pick(child<QComboBox>(&box, "cbName"), model);
    QTest::mouseClick(child<QRadioButton>(&box, hexInput ? "rbHex" : "rbAscii"), Qt::LeftButton);
    typeInto(child<QPlainTextEdit>(&box, "inputCrc"), input);
    child<QComboBox>(&box, "cbResultBase")->setCurrentIndex(base);
    child<QComboBox>(&box, "cbByteOrder")->setCurrentIndex(order);
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);

    QCOMPARE(child<QLabel>(&box, "crcErrorLabel")->text(), QString());
    QCOMPARE(child<QLineEdit>(&box, "leResult")->text(), result);
    QCOMPARE(child<QLineEdit>(&box, "leWireBytes")->text(), wire);
    QVERIFY(insert->isEnabled());

    QTest::mouseClick(insert, Qt::LeftButton);
    QCOMPARE(inserted.count(), 1);
    const QByteArray inputBytes = hexInput ? QByteArray::fromHex(input.toLatin1()) : input.toUtf8();
    QCOMPARE(inserted.at(0).at(0).toByteArray(), inputBytes + QByteArray::fromHex(wire.toLatin1()));

    QTest::mouseClick(child<QPushButton>(&box, "btnCopyResult"), Qt::LeftButton);
    QCOMPARE(QApplication::clipboard()->text(), result);
    QTest::mouseClick(child<QPushButton>(&box, "btnCopyWire"), Qt::LeftButton);
    QCOMPARE(QApplication::clipboard()->text(), wire);
}

void ToolDialogsTest::crcRerendersWithoutRecalculating()
{
    ToolBox box;
    box.show();
    box.showCrcCalculator();
    QSignalSpy inserted(&box, &ToolBox::insertRequested);
    auto *input = child<QPlainTextEdit>(&box, "inputCrc");
    typeInto(input, QStringLiteral("123456789"));
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);
    // Editing the input afterwards changes nothing until the next Calculate:
    // base and order only re-render the stored value, and the insert uses
    // the bytes that were calculated.
    typeInto(input, QStringLiteral("other"));
    child<QComboBox>(&box, "cbResultBase")->setCurrentIndex(1);
    QCOMPARE(child<QLineEdit>(&box, "leResult")->text(), QStringLiteral("19255"));
    child<QComboBox>(&box, "cbByteOrder")->setCurrentIndex(1);
    QCOMPARE(child<QLineEdit>(&box, "leWireBytes")->text(), QStringLiteral("37 4B"));
    QTest::mouseClick(child<QPushButton>(&box, "btnInsertFrame"), Qt::LeftButton);
    QCOMPARE(inserted.count(), 1);
    QCOMPARE(inserted.at(0).at(0).toByteArray(), QByteArray("123456789\x37\x4B"));

    // Choosing a wider algorithm without calculating keeps the result's
    // own width: the shown value and the inserted frame stay as computed.
    auto *name = child<QComboBox>(&box, "cbName");
    int wide = -1;
    for (int i = 0; i < name->count() && wide < 0; ++i) {
        const auto model = findCrcModel(name->itemData(i).toInt());
        if (model && model->width == 32)
            wide = i;
    }
    QVERIFY(wide >= 0);
    name->setCurrentIndex(wide);
    child<QComboBox>(&box, "cbResultBase")->setCurrentIndex(0);
    QCOMPARE(child<QLineEdit>(&box, "leResult")->text(), QStringLiteral("4B37"));
    child<QComboBox>(&box, "cbByteOrder")->setCurrentIndex(0);
    QCOMPARE(child<QLineEdit>(&box, "leWireBytes")->text(), QStringLiteral("4B 37"));
    QTest::mouseClick(child<QPushButton>(&box, "btnInsertFrame"), Qt::LeftButton);
    QCOMPARE(inserted.count(), 2);
    QCOMPARE(inserted.at(1).at(0).toByteArray(), QByteArray("123456789\x4B\x37"));
}

void ToolDialogsTest::crcCustomParams_data()
{
    QTest::addColumn<QString>("width");
    QTest::addColumn<QString>("poly");
    QTest::addColumn<QString>("init");
    QTest::addColumn<QString>("xorout");
    QTest::addColumn<bool>("refin");
    QTest::addColumn<QString>("result");  // empty: expect the error
    QTest::addColumn<QString>("error");

    QTest::newRow("defaults") << "16" << "1021" << "FFFF" << "0" << false << "29B1" << "";
    QTest::newRow("reflected init is taken as entered") << "16" << "1021" << "0001" << "0" << true << "6C74" << "";
    QTest::newRow("width 64 takes sixteen digits")
        << "64" << "FFFFFFFFFFFFFFFF" << "FFFFFFFFFFFFFFFF" << "FFFFFFFFFFFFFFFF" << false << "*" << "";
    QTest::newRow("width 0") << "0" << "7" << "0" << "0" << false << "" << "Width must be between 1 and 64.";
    QTest::newRow("poly zero") << "8" << "0" << "0" << "0" << false << "" << "Polynomial must not be zero.";
    QTest::newRow("poly too wide") << "8" << "100" << "0" << "0" << false << ""
                                   << "Polynomial must be a hexadecimal value that fits the width.";
    QTest::newRow("init too wide") << "8" << "7" << "100" << "0" << false << ""
                                   << "Initial value must be a hexadecimal value that fits the width.";
    QTest::newRow("xorout too wide") << "8" << "7" << "0" << "100" << false << ""
                                     << "Final XOR must be a hexadecimal value that fits the width.";
}

void ToolDialogsTest::crcCustomParams()
{
    QFETCH(QString, width);
    QFETCH(QString, poly);
    QFETCH(QString, init);
    QFETCH(QString, xorout);
    QFETCH(bool, refin);
    QFETCH(QString, result);
    QFETCH(QString, error);

    ToolBox box;
    box.show();
    box.showCrcCalculator();
    pick(child<QComboBox>(&box, "cbName"), CrcModelId::Custom);
    typeInto(child<QPlainTextEdit>(&box, "inputCrc"), QStringLiteral("123456789"));
    typeInto(child<QLineEdit>(&box, "leWidth"), width);
    typeInto(child<QLineEdit>(&box, "lePoly"), poly);
    typeInto(child<QLineEdit>(&box, "leInit"), init);
    typeInto(child<QLineEdit>(&box, "leXorout"), xorout);
    auto *refinBox = child<QCheckBox>(&box, "cbRefin");
    auto *refoutBox = child<QCheckBox>(&box, "cbRefout");
    if (refinBox->isChecked() != refin)
        QTest::mouseClick(refinBox, Qt::LeftButton);
    if (refoutBox->isChecked() != refin)
        QTest::mouseClick(refoutBox, Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);

    QCOMPARE(child<QLabel>(&box, "crcErrorLabel")->text(), error);
    const QString shown = child<QLineEdit>(&box, "leResult")->text();
    if (result == u"*")
        QCOMPARE(shown.size(), 16);
    else
        QCOMPARE(shown, result);
    QCOMPARE(child<QPushButton>(&box, "btnInsertFrame")->isEnabled(), error.isEmpty());
}

void ToolDialogsTest::crcFailureClearsEarlierResult()
{
    ToolBox box;
    box.show();
    box.showCrcCalculator();
    auto *input = child<QPlainTextEdit>(&box, "inputCrc");
    auto *calculate = child<QPushButton>(&box, "calculateCRC");
    typeInto(input, QStringLiteral("31 32"));
    QTest::mouseClick(child<QRadioButton>(&box, "rbHex"), Qt::LeftButton);
    QTest::mouseClick(calculate, Qt::LeftButton);
    QVERIFY(!child<QLineEdit>(&box, "leResult")->text().isEmpty());

    typeInto(input, QStringLiteral("31 3"));
    QTest::mouseClick(calculate, Qt::LeftButton);
    QCOMPARE(child<QLabel>(&box, "crcErrorLabel")->text(), QStringLiteral("Hex input must contain complete bytes."));
    QVERIFY(child<QLineEdit>(&box, "leResult")->text().isEmpty());
    QVERIFY(child<QLineEdit>(&box, "leWireBytes")->text().isEmpty());
    for (const char *name : {"btnInsertFrame", "btnCopyResult", "btnCopyWire"})
        QVERIFY2(!child<QPushButton>(&box, name)->isEnabled(), name);

    // Switching the base after a failure shows nothing rather than the old value.
    child<QComboBox>(&box, "cbResultBase")->setCurrentIndex(1);
    QVERIFY(child<QLineEdit>(&box, "leResult")->text().isEmpty());
}

void ToolDialogsTest::crcRowsFillFieldsAndKeepCustom()
{
    ToolBox box;
    box.show();
    box.showCrcCalculator();
    auto *name = child<QComboBox>(&box, "cbName");
    auto *width = child<QLineEdit>(&box, "leWidth");
    auto *poly = child<QLineEdit>(&box, "lePoly");
    auto *init = child<QLineEdit>(&box, "leInit");
    auto *xorout = child<QLineEdit>(&box, "leXorout");
    auto *refin = child<QCheckBox>(&box, "cbRefin");

    pick(name, CrcModelId::Crc32);
    QCOMPARE(width->text(), QStringLiteral("32"));
    QCOMPARE(poly->text(), QStringLiteral("4C11DB7"));
    QCOMPARE(init->text(), QStringLiteral("FFFFFFFF"));
    QCOMPARE(xorout->text(), QStringLiteral("FFFFFFFF"));
    QVERIFY(refin->isChecked());
    // Fixed rows are not edited; only "Custom" reads the fields.
    for (QWidget *w : std::initializer_list<QWidget *>{width, poly, init, xorout, refin})
        QVERIFY(!w->isEnabled());

    pick(name, CrcModelId::Custom);
    QVERIFY(poly->isEnabled());
    QCOMPARE(poly->text(), QStringLiteral("1021"));
    // The hexadecimal fields take hex digits only, sixteen at most.
    typeInto(poly, QStringLiteral("0x8G005"));
    QCOMPARE(poly->text(), QStringLiteral("08005"));
    typeInto(init, QStringLiteral("123456789ABCDEF01"));
    QCOMPARE(init->text(), QStringLiteral("123456789ABCDEF0"));

    // What the user typed for "Custom" survives a look at another row.
    pick(name, CrcModelId::Crc8);
    QCOMPARE(poly->text(), QStringLiteral("7"));
    pick(name, CrcModelId::Custom);
    QCOMPARE(poly->text(), QStringLiteral("08005"));
}

void ToolDialogsTest::crcLargePasteIsHeldAside()
{
    ToolBox box;
    box.show();
    box.showCrcCalculator();
    QSignalSpy inserted(&box, &ToolBox::insertRequested);
    auto *input = child<QPlainTextEdit>(&box, "inputCrc");
    const QString big = QString(BulkInputEdit::kInlineLimit / 2 + 1, u'5') + QStringLiteral("é")
                        + QString(BulkInputEdit::kInlineLimit / 2 + 1, u'A');
    QApplication::clipboard()->setText(big);
    input->setFocus();
    QTest::keyClick(input, Qt::Key_V, Qt::ControlModifier);
    QVERIFY(box.hasBulkCrcInput());
    QVERIFY(input->document()->isEmpty());
    QVERIFY(!input->placeholderText().isEmpty());

    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);
    const QByteArray bytes = big.toUtf8();
    const quint64 expected = computeCatalogueCrc(CrcModelId::Crc16Modbus, bytes);
    QCOMPARE(child<QLineEdit>(&box, "leResult")->text(),
             QStringLiteral("%1").arg(expected, 4, 16, QLatin1Char('0')).toUpper());
    // Far too large for a send box.
    QVERIFY(!child<QPushButton>(&box, "btnInsertFrame")->isEnabled());
    QTest::mouseClick(child<QPushButton>(&box, "btnInsertFrame"), Qt::LeftButton);
    QCOMPARE(inserted.count(), 0);

    // In hex mode the held text is read as hex: "é" is not a digit.
    QTest::mouseClick(child<QRadioButton>(&box, "rbHex"), Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);
    QCOMPARE(child<QLabel>(&box, "crcErrorLabel")->text(),
             QStringLiteral("Invalid hex character at position %1.").arg(BulkInputEdit::kInlineLimit / 2 + 2));

    // Typing replaces the held text.
    QTest::keyClicks(input, QStringLiteral("31"));
    QVERIFY(!box.hasBulkCrcInput());
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);
    QCOMPARE(child<QLabel>(&box, "crcErrorLabel")->text(), QString());
    const quint64 one = computeCatalogueCrc(CrcModelId::Crc16Modbus, QByteArray("1"));
    const QByteArray oneWire = QByteArray().append(char(one >> 8)).append(char(one & 0xFF));
    QCOMPARE(child<QLineEdit>(&box, "leWireBytes")->text(), QString::fromLatin1(oneWire.toHex(' ').toUpper()));

    // A small paste lands in the box as usual.
    QApplication::clipboard()->setText(QStringLiteral("32"));
    QTest::keyClick(input, Qt::Key_V, Qt::ControlModifier);
    QCOMPARE(input->toPlainText(), QStringLiteral("3132"));
}

void ToolDialogsTest::crcLoadsFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("data.bin"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QByteArray data("123456789\x00\xFF", 11);
    file.write(data);
    file.close();

    ToolBox box;
    box.show();
    box.showCrcCalculator();
    QSignalSpy inserted(&box, &ToolBox::insertRequested);
    QVERIFY(!box.loadCrcInputFile(dir.filePath(QStringLiteral("missing.bin"))));
    QVERIFY(!box.hasBulkCrcInput());

    QVERIFY(box.loadCrcInputFile(path));
    // The file is hashed as it is, whatever the text format says.
    QVERIFY(!child<QRadioButton>(&box, "rbHex")->isEnabled());
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);
    QTest::mouseClick(child<QPushButton>(&box, "btnInsertFrame"), Qt::LeftButton);
    QCOMPARE(inserted.count(), 1);
    const quint64 crc = computeCatalogueCrc(CrcModelId::Crc16Modbus, data);
    const QByteArray wire = QByteArray().append(char(crc >> 8)).append(char(crc & 0xFF));
    QCOMPARE(inserted.at(0).at(0).toByteArray(), data + wire);

    QTest::keyClicks(child<QPlainTextEdit>(&box, "inputCrc"), QStringLiteral("x"));
    QVERIFY(!box.hasBulkCrcInput());
    QVERIFY(child<QRadioButton>(&box, "rbHex")->isEnabled());

    // A result over a large input is shown, but is no frame for a send box.
    QFile large(dir.filePath(QStringLiteral("large.bin")));
    QVERIFY(large.open(QIODevice::WriteOnly));
    large.write(QByteArray(ToolBox::kMaxInsertBytes + 1, 'x'));
    large.close();
    QVERIFY(box.loadCrcInputFile(large.fileName()));
    QTest::mouseClick(child<QPushButton>(&box, "calculateCRC"), Qt::LeftButton);
    QVERIFY(!child<QLineEdit>(&box, "leResult")->text().isEmpty());
    QVERIFY(!child<QPushButton>(&box, "btnInsertFrame")->isEnabled());
    QVERIFY(child<QPushButton>(&box, "btnCopyWire")->isEnabled());
}

// ------------------------------------------------------------------ ASCII

void ToolDialogsTest::asciiChartHasEveryCode()
{
    AsciiCode chart;
    auto *table = child<QTableWidget>(&chart, "asciiTable");
    QCOMPARE(table->rowCount(), 128);
    for (int code = 0; code < 128; ++code) {
        QCOMPARE(table->item(code, AsciiCode::DecimalColumn)->text().toInt(), code);
        QCOMPARE(table->item(code, AsciiCode::HexColumn)->text().toInt(nullptr, 16), code);
        QCOMPARE(table->item(code, AsciiCode::BinaryColumn)->text().toInt(nullptr, 2), code);
        const QString glyph = table->item(code, AsciiCode::GlyphColumn)->text();
        if (code > 32 && code < 127)
            QCOMPARE(glyph, QString(QChar(code)));
        else
            QVERIFY2(!table->item(code, AsciiCode::DescriptionColumn)->text().isEmpty(), qPrintable(glyph));
    }
    // Read-only: no cell can be edited.
    QCOMPARE(table->editTriggers(), QAbstractItemView::NoEditTriggers);
}

// ------------------------------------------------------------ main window

void ToolDialogsTest::menuInsertsFramesIntoCurrentPane()
{
    MainWindow window;
    window.show();
    SerialPortWidget *pane = window.currentPane();
    QVERIFY(pane);
    QCOMPARE(pane->paneOptions().sendFormat, MessageFormat::Text);

    window.findChild<QAction *>(QStringLiteral("acToolsModbus"))->trigger();
    auto *builder = window.findChild<ModbusBuilderDialog *>();
    QVERIFY(builder && builder->isVisible());
    QCOMPARE(builder->windowTitle(), QStringLiteral("Modbus Request Builder"));
    typeInto(child<QSpinBox>(builder, "sbQuantity"), 10);
    QTest::mouseClick(child<QPushButton>(builder, "btnInsert"), Qt::LeftButton);
    QCOMPARE(pane->sendText(), QStringLiteral("01 03 00 00 00 0A C5 CD"));
    QCOMPARE(pane->paneOptions().sendFormat, MessageFormat::Hex);
    QVERIFY(window.statusBar()->currentMessage().isEmpty());

    // A pane that appends its own checksum gets the frame all the same, with a note.
    PaneOptions options = pane->paneOptions();
    options.sendChecksum = 4;
    pane->applySettings(pane->connectionConfig(), options, pane->sendHistory());
    typeInto(child<QSpinBox>(builder, "sbAddress"), 1);
    QTest::mouseClick(child<QPushButton>(builder, "btnInsert"), Qt::LeftButton);
    QCOMPARE(pane->sendText(), QStringLiteral("01 03 00 01 00 0A 94 0D"));
    QCOMPARE(window.statusBar()->currentMessage(), ModbusBuilderDialog::sendChecksumNote());

    window.findChild<QAction *>(QStringLiteral("acToolCalc"))->trigger();
    auto *toolBox = window.findChild<ToolBox *>();
    QVERIFY(toolBox && toolBox->isVisible());
    toolBox->showCrcCalculator();
    typeInto(child<QPlainTextEdit>(toolBox, "inputCrc"), QStringLiteral("AB"));
    QTest::mouseClick(child<QPushButton>(toolBox, "calculateCRC"), Qt::LeftButton);
    window.statusBar()->clearMessage();
    QTest::mouseClick(child<QPushButton>(toolBox, "btnInsertFrame"), Qt::LeftButton);
    const QString wire = child<QLineEdit>(toolBox, "leWireBytes")->text();
    QCOMPARE(pane->sendText(), QStringLiteral("41 42 ") + wire);
    QCOMPARE(window.statusBar()->currentMessage(), ToolBox::sendChecksumNote());

    // Opening again reuses the one dialog.
    window.findChild<QAction *>(QStringLiteral("acToolCalc"))->trigger();
    QCOMPARE(window.findChildren<ToolBox *>().size(), 1);
    window.findChild<QAction *>(QStringLiteral("acToolsAscii"))->trigger();
    auto *chart = window.findChild<AsciiCode *>();
    QVERIFY(chart && chart->isVisible());
}

void ToolDialogsTest::insertGoesToPaneLastWorkedIn()
{
    MainWindow window;
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    SerialPortWidget *first = window.currentPane();
    SerialPortWidget *second = window.addPane();
    child<QPlainTextEdit>(second, "sendTextEdit")->setFocus();
    QTRY_COMPARE_WITH_TIMEOUT(window.currentPane(), second, 2000);

    window.findChild<QAction *>(QStringLiteral("acToolsModbus"))->trigger();
    auto *builder = window.findChild<ModbusBuilderDialog *>();
    child<QSpinBox>(builder, "sbAddress")->setFocus();
    typeInto(child<QSpinBox>(builder, "sbQuantity"), 10);
    QTest::mouseClick(child<QPushButton>(builder, "btnInsert"), Qt::LeftButton);
    QCOMPARE(second->sendText(), QStringLiteral("01 03 00 00 00 0A C5 CD"));
    QVERIFY(first->sendText().isEmpty());
    QCOMPARE(first->paneOptions().sendFormat, MessageFormat::Text);
}

void ToolDialogsTest::dialogsHaveScreenshotNames()
{
    const ScreenshotDialogs table = ScreenshotDialogs::standard();
    QWidget parent;
    const std::unique_ptr<QWidget> toolBox(table.create(QStringLiteral("toolbox"), &parent));
    QVERIFY(qobject_cast<ToolBox *>(toolBox.get()));
    const std::unique_ptr<QWidget> crc(table.create(QStringLiteral("toolbox-crc"), &parent));
    QVERIFY(qobject_cast<ToolBox *>(crc.get()));
    QVERIFY(child<QWidget>(crc.get(), "crcTab")->isVisibleTo(crc.get()));
    const std::unique_ptr<QWidget> ascii(table.create(QStringLiteral("ascii"), &parent));
    QVERIFY(qobject_cast<AsciiCode *>(ascii.get()));
    const std::unique_ptr<QWidget> modbus(table.create(QStringLiteral("modbus"), &parent));
    QVERIFY(qobject_cast<ModbusBuilderDialog *>(modbus.get()));
}

// The frame built in the dialog goes out of a real port unchanged.
void ToolDialogsTest::insertedModbusFrameReachesPeer()
{
    PtyPair pty;
    QVERIFY2(pty.start(), qPrintable(pty.errorText()));
    QSerialPort far;
    far.setPortName(pty.pathB());
    QVERIFY2(far.open(QIODevice::ReadWrite), qPrintable(far.errorString()));

    MainWindow window;
    window.show();
    SerialPortWidget *pane = window.currentPane();
    QVERIFY(pane->openConnection(pty.pathA()));
    QTRY_VERIFY_WITH_TIMEOUT(pane->isConnectionOpen(), 5000);

    window.findChild<QAction *>(QStringLiteral("acToolsModbus"))->trigger();
    auto *builder = window.findChild<ModbusBuilderDialog *>();
    QVERIFY(builder);
    pick(child<QComboBox>(builder, "cbFunction"), 0x03);
    typeInto(child<QSpinBox>(builder, "sbSlaveId"), 1);
    typeInto(child<QSpinBox>(builder, "sbAddress"), 0);
    typeInto(child<QSpinBox>(builder, "sbQuantity"), 10);
    QTest::mouseClick(child<QPushButton>(builder, "btnInsert"), Qt::LeftButton);
    QVERIFY(pane->isConnectionOpen());  // switching to hex sending kept the port open
    QTest::mouseClick(child<QPushButton>(pane, "sendButton"), Qt::LeftButton);

    QByteArray received;
    QTRY_VERIFY_WITH_TIMEOUT((received += far.readAll()).size() >= 8, 5000);
    QCOMPARE(received, hex("01030000000AC5CD"));
    pane->closeConnection();
}

QTEST_MAIN(ToolDialogsTest)
#include "tst_tooldialogs.moc"
