#include "toolstests.h"

#include "tools/crccatalogue.h"
#include "tools/modbuscodec.h"
#include "tools/modbusvaluesparser.h"

#include <QtTest>

namespace {

ModbusRequest request(int slave, int function, int address, int quantity, QList<quint16> values = {})
{
    ModbusRequest r;
    r.slaveId = quint8(slave);
    r.functionCode = quint8(function);
    r.startAddress = quint16(address);
    r.quantity = quint16(quantity);
    r.values = std::move(values);
    return r;
}

QList<quint16> repeated(int count, quint16 value)
{
    return QList<quint16>(count, value);
}

} // namespace

Q_DECLARE_METATYPE(ModbusRequest)

class ModbusTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pdu_data();
    void pdu();
    void framesAroundThePdu_data();
    void framesAroundThePdu();
    void knownFrames();
    void errors_data();
    void errors();
    void asciiPreview();
    void values_data();
    void values();
};

void ModbusTest::pdu_data()
{
    QTest::addColumn<ModbusRequest>("request");
    QTest::addColumn<QByteArray>("pdu");

    // The request examples of the Modbus application protocol document.
    QTest::newRow("01 read coils") << request(0x11, 0x01, 0x13, 0x13) << QByteArray::fromHex("0100130013");
    QTest::newRow("02 read discrete inputs") << request(0x11, 0x02, 0xC4, 0x16) << QByteArray::fromHex("0200C40016");
    QTest::newRow("03 read holding registers") << request(0x11, 0x03, 0x6B, 3) << QByteArray::fromHex("03006B0003");
    QTest::newRow("04 read input registers") << request(0x11, 0x04, 0x08, 1) << QByteArray::fromHex("0400080001");
    QTest::newRow("05 coil on") << request(0x11, 0x05, 0xAC, 0, {1}) << QByteArray::fromHex("0500ACFF00");
    QTest::newRow("05 coil off") << request(0x11, 0x05, 0xAC, 0, {0}) << QByteArray::fromHex("0500AC0000");
    QTest::newRow("05 any value above 0 is on") << request(1, 0x05, 1, 0, {7}) << QByteArray::fromHex("050001FF00");
    QTest::newRow("06 write register") << request(0x11, 0x06, 1, 0, {3}) << QByteArray::fromHex("0600010003");
    QTest::newRow("0F ten coils from 19")
        << request(1, 0x0F, 19, 0, {1, 0, 1, 1, 0, 0, 1, 1, 1, 0}) << QByteArray::fromHex("0F0013000A02CD01");
    QTest::newRow("0F eight coils fill one byte")
        << request(1, 0x0F, 0, 0, {1, 1, 1, 1, 0, 0, 0, 1}) << QByteArray::fromHex("0F00000008018F");
    QTest::newRow("0F nine coils take two") << request(1, 0x0F, 0, 0, repeated(9, 1))
                                           << QByteArray::fromHex("0F00000009 02FF01");
    QTest::newRow("10 two registers") << request(0x11, 0x10, 1, 0, {0x000A, 0x0102})
                                      << QByteArray::fromHex("100001000204000A0102");
    QTest::newRow("quantity ignored by writes") << request(1, 0x06, 0xFFFF, 999, {0xBEEF})
                                                << QByteArray::fromHex("06FFFFBEEF");
    QTest::newRow("values ignored by reads") << request(1, 0x03, 0, 1, {1, 2, 3}) << QByteArray::fromHex("0300000001");
    QTest::newRow("slave 0 broadcast") << request(0, 0x06, 0, 0, {1}) << QByteArray::fromHex("0600000001");
    QTest::newRow("slave 247") << request(247, 0x03, 0, 125) << QByteArray::fromHex("030000007D");
    QTest::newRow("read 2000 coils") << request(1, 0x01, 0, 2000) << QByteArray::fromHex("01000007D0");
    QTest::newRow("address 65530 quantity 6") << request(1, 0x03, 65530, 6) << QByteArray::fromHex("03FFFA0006");
    QTest::newRow("last coil address") << request(1, 0x0F, 65535, 0, {1}) << QByteArray::fromHex("0FFFFF00010101");
}

void ModbusTest::pdu()
{
    QFETCH(ModbusRequest, request);
    QFETCH(QByteArray, pdu);
    const ValueResult<QByteArray> built = ModbusCodec::buildPdu(request);
    QVERIFY2(built.isOk(), qPrintable(built.errorText()));
    QCOMPARE(built.value().toHex(' '), pdu.toHex(' '));
}

void ModbusTest::framesAroundThePdu_data()
{
    pdu_data();
}

void ModbusTest::framesAroundThePdu()
{
    QFETCH(ModbusRequest, request);
    QFETCH(QByteArray, pdu);

    // RTU: slave, PDU, CRC low byte first. A CRC-16/MODBUS over a whole frame
    // with its CRC in that order leaves 0, which checks the CRC and its order
    // without restating them.
    const ValueResult<QByteArray> rtu = ModbusCodec::buildRtuFrame(request);
    QVERIFY(rtu.isOk());
    QCOMPARE(rtu.value().size(), pdu.size() + 3);
    QCOMPARE(quint8(rtu.value().at(0)), request.slaveId);
    QCOMPARE(rtu.value().mid(1, pdu.size()), pdu);
    QCOMPARE(computeCatalogueCrc(CrcModelId::Crc16Modbus, rtu.value()), quint64(0));
    QCOMPARE(ModbusCodec::buildFrame(request, ModbusFraming::Rtu).value(), rtu.value());

    // ASCII: ':' and upper-case hex of slave, PDU and LRC, then CR LF; every
    // byte including the LRC sums to 0.
    const ValueResult<QByteArray> ascii = ModbusCodec::buildAsciiFrame(request);
    QVERIFY(ascii.isOk());
    const QByteArray frame = ascii.value();
    QVERIFY(frame.startsWith(':'));
    QVERIFY(frame.endsWith("\r\n"));
    const QByteArray hex = frame.mid(1, frame.size() - 3);
    QCOMPARE(hex, hex.toUpper());
    QCOMPARE(hex.size(), 2 * (pdu.size() + 2));
    const QByteArray body = QByteArray::fromHex(hex);
    QCOMPARE(body.left(body.size() - 1), rtu.value().left(rtu.value().size() - 2));
    quint8 sum = 0;
    for (char c : body)
        sum = quint8(sum + quint8(c));
    QCOMPARE(sum, quint8(0));
    QCOMPARE(ModbusCodec::buildFrame(request, ModbusFraming::Ascii).value(), frame);
}

void ModbusTest::knownFrames()
{
    const ModbusRequest read10 = request(1, 0x03, 0, 10);
    QCOMPARE(ModbusCodec::buildRtuFrame(read10).value(), QByteArray::fromHex("01030000000AC5CD"));
    QCOMPARE(ModbusCodec::buildAsciiFrame(read10).value(), QByteArray(":01030000000AF2\r\n"));
    // The serial-line document's example read.
    QCOMPARE(ModbusCodec::buildRtuFrame(request(0x11, 0x03, 0x6B, 3)).value(), QByteArray::fromHex("1103006B00037687"));
    QCOMPARE(ModbusCodec::buildAsciiFrame(request(0x11, 0x03, 0x6B, 3)).value(), QByteArray(":1103006B00037E\r\n"));
    QCOMPARE(ModbusCodec::lrc(QByteArray()), quint8(0));
}

void ModbusTest::errors_data()
{
    QTest::addColumn<ModbusRequest>("request");
    QTest::addColumn<QString>("error");

    const QString slave = "Slave ID must be between 0 and 247.";
    const QString registers125 = "Register count must be between 1 and 125.";
    const QString coils2000 = "Coil count must be between 1 and 2000.";
    const QString coils1968 = "Coil count must be between 1 and 1968.";
    const QString registers123 = "Register count must be between 1 and 123.";

    QTest::newRow("slave 248") << request(248, 0x03, 0, 1) << slave;
    QTest::newRow("slave 255 before function") << request(255, 0x99, 0, 1) << slave;
    QTest::newRow("03 quantity 0") << request(1, 0x03, 0, 0) << registers125;
    QTest::newRow("03 quantity 126") << request(1, 0x03, 0, 126) << registers125;
    QTest::newRow("04 quantity 126") << request(1, 0x04, 0, 126) << registers125;
    QTest::newRow("01 quantity 0") << request(1, 0x01, 0, 0) << coils2000;
    QTest::newRow("02 quantity 2001") << request(1, 0x02, 0, 2001) << coils2000;
    QTest::newRow("count before address") << request(1, 0x03, 65535, 200) << registers125;
    QTest::newRow("03 address 65530 quantity 7")
        << request(1, 0x03, 65530, 7) << "Address 65530 plus count 7 exceeds the 65536 address space.";
    QTest::newRow("01 address 65535 quantity 2")
        << request(1, 0x01, 65535, 2) << "Address 65535 plus count 2 exceeds the 65536 address space.";
    QTest::newRow("05 no value") << request(1, 0x05, 0, 1) << "Write Single Coil needs exactly one value.";
    QTest::newRow("05 two values") << request(1, 0x05, 0, 1, {1, 0}) << "Write Single Coil needs exactly one value.";
    QTest::newRow("06 no value") << request(1, 0x06, 0, 1) << "Write Single Register needs exactly one value.";
    QTest::newRow("06 two values") << request(1, 0x06, 0, 1, {1, 2})
                                   << "Write Single Register needs exactly one value.";
    QTest::newRow("0F no values") << request(1, 0x0F, 0, 1) << coils1968;
    QTest::newRow("0F 1969 values") << request(1, 0x0F, 0, 1, repeated(1969, 1)) << coils1968;
    QTest::newRow("0F past the address space")
        << request(1, 0x0F, 65530, 0, repeated(7, 1)) << "Address 65530 plus count 7 exceeds the 65536 address space.";
    QTest::newRow("10 no values") << request(1, 0x10, 0, 1) << registers123;
    QTest::newRow("10 124 values") << request(1, 0x10, 0, 1, repeated(124, 1)) << registers123;
    QTest::newRow("10 past the address space")
        << request(1, 0x10, 65535, 0, {1, 2}) << "Address 65535 plus count 2 exceeds the 65536 address space.";
    QTest::newRow("function 00") << request(1, 0x00, 0, 1) << "Unsupported function code 0x00.";
    QTest::newRow("function 07") << request(1, 0x07, 0, 1) << "Unsupported function code 0x07.";
    QTest::newRow("function 2B") << request(1, 0x2B, 0, 1) << "Unsupported function code 0x2B.";
    QTest::newRow("function FF") << request(1, 0xFF, 0, 1) << "Unsupported function code 0xFF.";
}

void ModbusTest::errors()
{
    QFETCH(ModbusRequest, request);
    QFETCH(QString, error);
    const ValueResult<QByteArray> pdu = ModbusCodec::buildPdu(request);
    QVERIFY(!pdu.isOk());
    QCOMPARE(pdu.errorText(), error);
    for (ModbusFraming framing : {ModbusFraming::Rtu, ModbusFraming::Ascii}) {
        const ValueResult<QByteArray> frame = ModbusCodec::buildFrame(request, framing);
        QVERIFY(!frame.isOk());
        QCOMPARE(frame.errorText(), error);
    }
}

void ModbusTest::asciiPreview()
{
    const QByteArray frame = ModbusCodec::buildAsciiFrame(request(1, 0x03, 0, 10)).value();
    QCOMPARE(ModbusCodec::asciiPreviewText(frame), QString(":01030000000AF2<CR><LF>"));
}

void ModbusTest::values_data()
{
    QTest::addColumn<int>("function");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QList<quint16>>("values");
    QTest::addColumn<QString>("error");

    using L = QList<quint16>;
    QTest::newRow("0F spaces") << 0x0F << "1 0 1 1" << L{1, 0, 1, 1} << QString();
    QTest::newRow("0F commas and runs") << 0x0F << " 1,0,, 1\t\n0 " << L{1, 0, 1, 0} << QString();
    QTest::newRow("0F empty") << 0x0F << "  " << L{} << QString();
    QTest::newRow("0F state 2") << 0x0F << "1 2" << L{} << "Coil states must be 0 or 1, got \"2\".";
    QTest::newRow("0F state 01") << 0x0F << "01" << L{} << "Coil states must be 0 or 1, got \"01\".";
    QTest::newRow("0F glued states") << 0x0F << "1 0 11" << L{} << "Coil states must be 0 or 1, got \"11\".";
    QTest::newRow("10 two values") << 0x10 << "000A 0102" << L{0x000A, 0x0102} << QString();
    QTest::newRow("10 mixed case") << 0x10 << "ffff,Ab" << L{0xFFFF, 0xAB} << QString();
    QTest::newRow("10 leading zeros") << 0x10 << "0000FFFF" << L{0xFFFF} << QString();
    QTest::newRow("10 too wide") << 0x10 << "1 10000" << L{} << "\"10000\" is not a 16-bit HEX value.";
    QTest::newRow("10 not hex") << 0x10 << "12G4" << L{} << "\"12G4\" is not a 16-bit HEX value.";
    QTest::newRow("10 prefix") << 0x10 << "0x10" << L{} << "\"0x10\" is not a 16-bit HEX value.";
    QTest::newRow("10 sign") << 0x10 << "-1" << L{} << "\"-1\" is not a 16-bit HEX value.";
    QTest::newRow("10 empty") << 0x10 << "" << L{} << QString();
    QTest::newRow("06 one value") << 0x06 << " 0a " << L{0x000A} << QString();
    QTest::newRow("06 two parts") << 0x06 << "00 0A" << L{} << "Write Single Register takes exactly one value.";
    QTest::newRow("06 nothing") << 0x06 << ", ," << L{} << "Write Single Register takes exactly one value.";
    QTest::newRow("06 bad part before count") << 0x06 << "zz 1" << L{} << "\"zz\" is not a 16-bit HEX value.";
    QTest::newRow("03 ignores the field") << 0x03 << "anything" << L{} << QString();
    QTest::newRow("05 ignores the field") << 0x05 << "zz" << L{} << QString();
}

void ModbusTest::values()
{
    QFETCH(int, function);
    QFETCH(QString, text);
    QFETCH(QList<quint16>, values);
    QFETCH(QString, error);
    const ValueResult<QList<quint16>> r = ModbusValuesParser::parse(quint8(function), text);
    if (error.isEmpty()) {
        QVERIFY2(r.isOk(), qPrintable(r.errorText()));
        QCOMPARE(r.value(), values);
    } else {
        QVERIFY(!r.isOk());
        QCOMPARE(r.errorText(), error);
    }
}

int runModbusTests(int argc, char **argv)
{
    ModbusTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_modbus.moc"
