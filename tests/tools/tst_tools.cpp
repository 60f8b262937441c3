#include "support/fuzzseeds.h"
#include "toolstests.h"

#include "fuzztargets.h"
#include "tools/crccatalogue.h"
#include "tools/crccustomparams.h"
#include "tools/crcengine.h"
#include "tools/crcformat.h"
#include "tools/crctable.h"
#include "tools/hexparser.h"
#include "tools/modbuscodec.h"
#include "tools/modbusvaluesparser.h"
#include "tools/sendchecksum.h"

#include <QDir>
#include <QFile>
#include <QtTest>

namespace {

const QByteArray checkInput = QByteArrayLiteral("123456789");

// Fixed so that a failure can be replayed; printed with every failure.
constexpr quint32 propertySeed = 0x7E55A11E;

} // namespace

class ToolsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void catalogue_data()
    {
        QTest::addColumn<int>("id");  // -1: not a catalogue row
        QTest::addColumn<CrcParams>("params");
        QTest::addColumn<quint64>("check");
        auto row = [](const char *name, int id, CrcParams p, quint64 crc) { QTest::newRow(name) << id << p << crc; };
        // {width, poly, init, xorout, refin, refout}, the CRC of "123456789"
        row("CRC-4/ITU", 0, {4, 0x3, 0x0, 0x0, true, true}, 0x7);
        row("CRC-5/ITU", 1, {5, 0x15, 0x00, 0x00, true, true}, 0x07);
        row("CRC-5/USB", 2, {5, 0x05, 0x1F, 0x1F, true, true}, 0x19);
        row("CRC-6/ITU", 3, {6, 0x03, 0x00, 0x00, true, true}, 0x06);
        row("CRC-8", 4, {8, 0x07, 0x00, 0x00, false, false}, 0xF4);
        row("CRC-16/MODBUS", 5, {16, 0x8005, 0xFFFF, 0x0000, true, true}, 0x4B37);
        row("CRC-16/USB", 6, {16, 0x8005, 0xFFFF, 0xFFFF, true, true}, 0xB4C8);
        row("CRC-32", 7, {32, 0x04C11DB7, 0xFFFFFFFF, 0xFFFFFFFF, true, true}, 0xCBF43926);
        row("Custom", 8, {16, 0x1021, 0xFFFF, 0x0000, false, false}, 0x29B1);
        // Reflected input starts the register at init as given (python3-crcmod
        // agrees); reversing init to 0x8000 would give 0xEA6B.
        row("reflected init 0001 is not reversed", -1, {16, 0x1021, 0x0001, 0x0000, true, true}, 0x6C74);
    }

    void catalogue()
    {
        QFETCH(int, id);
        QFETCH(CrcParams, params);
        QFETCH(quint64, check);
        QCOMPARE(computeCrc(checkInput, params), check);
        QCOMPARE(CrcTable(params).compute(checkInput), check);
        if (id < 0)
            return;
        QCOMPARE(crcCatalogue().size(), 9);
        const CrcModel &row = crcCatalogue().at(id);
        QCOMPARE(row.id, id);
        QCOMPARE(row.name, QString::fromLatin1(QTest::currentDataTag()));
        QCOMPARE(row.params(), params);
        QCOMPARE(findCrcModel(id).value_or(CrcModel()).name, row.name);
        QCOMPARE(computeCatalogueCrc(id, checkInput), check);
        QCOMPARE(computeCatalogueCrc(id, QByteArray()), (params.init ^ params.xorout) & params.mask());
    }

    void unknownCatalogueIds()
    {
        for (int id : {-1, 9, 100}) {
            QVERIFY(!findCrcModel(id));
            QCOMPARE(computeCatalogueCrc(id, checkInput), quint64(0));
        }
    }

    // The table-driven code gives what the bit-at-a-time engine gives, for the
    // catalogue and for random parameters of every width: short lengths run
    // the tails, longer ones the 16-byte steps and the interleaved lanes.
    void tablesEqualEngine()
    {
        QRandomGenerator rng(propertySeed);
        struct Subject { CrcParams p; int id; bool lanes; };  // id: catalogue row or -1
        QList<Subject> subjects;
        for (const CrcModel &model : crcCatalogue())
            subjects.append({model.params(), model.id, true});
        for (int width = 1; width <= 64; ++width) {
            for (int round = 0; round < 12; ++round) {
                // Every pair of reflections, each once with long inputs; once
                // a poly of all ones.
                CrcParams p = randomParams(rng, width, round & 1, round & 2);
                if (round == 4)
                    p.poly = p.mask();
                subjects.append({p, -1, round < 4});
            }
        }
        for (const auto &[p, id, lanes] : subjects) {
            const CrcTable table(p);
            QList<qsizetype> lengths{0, 1, 7, 8, 15, 16, 17, 33, rng.bounded(200)};
            if (lanes)
                lengths << 3 * CrcTable::LaneBytes << 6 * CrcTable::LaneBytes + 1 + rng.bounded(100);
            for (qsizetype length : lengths) {
                const QByteArray data = randomBytes(rng, length);
                const quint64 fast = id >= 0 ? computeCatalogueCrc(id, data) : table.compute(data);
                const quint64 slow = computeCrc(data, p);
                QVERIFY2(fast == slow && slow <= p.mask(),
                         qPrintable(QStringLiteral("seed %1, %2 (%3 bytes): table %4, engine %5")
                                        .arg(propertySeed).arg(crcCaseLine(p, data.left(32))).arg(length)
                                        .arg(fast, 0, 16).arg(slow, 0, 16)));
            }
        }
    }

    void sendChecksum_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("appended");
        QTest::newRow("none") << checkInput << 0 << QByteArray();
        QTest::newRow("sum") << checkInput << 1 << QByteArray("\xDD");
        QTest::newRow("xor") << checkInput << 2 << QByteArray("\x31");
        QTest::newRow("crc-8") << checkInput << 3 << QByteArray("\xF4");
        QTest::newRow("crc-16/modbus low byte first") << checkInput << 4 << QByteArray("\x37\x4B");
        QTest::newRow("crc-32 least significant first") << checkInput << 5 << QByteArray("\x26\x39\xF4\xCB");
        QTest::newRow("sum wraps without complement") << QByteArray("\xFF\x02\x80\x80") << 1 << QByteArray("\x01");
        QTest::newRow("xor starts from zero") << QByteArray("\xF0") << 2 << QByteArray("\xF0");
        QTest::newRow("unknown kind 6") << checkInput << 6 << QByteArray();
        QTest::newRow("unknown kind -1") << checkInput << -1 << QByteArray();
    }

    void sendChecksum()
    {
        QFETCH(QByteArray, payload);
        QFETCH(int, kind);
        QFETCH(QByteArray, appended);
        QCOMPARE(appendSendChecksum(payload, kind), payload + appended);
        QCOMPARE(appendSendChecksum(QByteArray(), kind), QByteArray());  // nothing for an empty payload
        QCOMPARE(isKnownSendChecksum(kind), kind >= 0 && kind <= 5);
    }

    void sendChecksumLabels()
    {
        const QStringList expected{"None", "Checksum-8 (SUM)", "XOR (BCC)", "CRC-8", "CRC-16/MODBUS", "CRC-32"};
        QCOMPARE(::sendChecksumLabels(), expected);
        QCOMPARE(translatedSendChecksumLabels(), expected);  // no translation installed
    }

    void customParams_data()
    {
        QTest::addColumn<QString>("fields");  // width|poly|init|xorout
        QTest::addColumn<QString>("error");   // none: accepted
        const QString width = "Width must be between 1 and 64.";
        const QString poly = "Polynomial must be a hexadecimal value that fits the width.";
        const QString init = "Initial value must be a hexadecimal value that fits the width.";
        const QString xorout = "Final XOR must be a hexadecimal value that fits the width.";
        const QString zero = "Polynomial must not be zero.";
        const std::pair<const char *, QString> rows[] = {
            // Widths 1, 8, 63 and 64 at and past their limits.
            {"1|1|1|1", {}}, {"1|2|0|0", poly}, {"1|0|0|0", zero}, {"1|1|2|0", init}, {"1|1|0|2", xorout},
            {"8|FF|ff|Ff", {}}, {"8|100|0|0", poly}, {"8|07|100|0", init}, {"8|07|0|100", xorout},
            {"8|0000000000000007|00FF|0", {}}, {"8| 07 | 0|0", {}},
            {"63|7FFFFFFFFFFFFFFF|7FFFFFFFFFFFFFFF|0", {}}, {"63|8000000000000000|0|0", poly},
            {"63|1|8000000000000000|0", init}, {"63|1|0|FFFFFFFFFFFFFFFF", xorout},
            {"64|FFFFFFFFFFFFFFFF|FFFFFFFFFFFFFFFF|FFFFFFFFFFFFFFFF", {}}, {"64|1FFFFFFFFFFFFFFFF|0|0", poly},
            {"64|0FFFFFFFFFFFFFFFF|0|0", {}}, {"64|0000|0|0", zero},
            // Fields that are not numbers, and the order of the checks.
            {"0|1|0|0", width}, {"65|1|0|0", width}, {"|1|0|0", width}, {"0x10|1|0|0", width},
            {"4294967312|1|0|0", width}, {"16||0|0", poly}, {"16|0x1021|0|0", poly}, {"16|10G1|0|0", poly},
            {"16|1021||0", init}, {"16|1021|0|-1", xorout}, {"65|zz|zz|zz", width}, {"8|1FF|zz|zz", poly},
            {"8|0|zz|zz", zero}, {"8|7|zz|zz", init}};
        for (const auto &[fields, error] : rows)
            QTest::newRow(fields) << QString::fromLatin1(fields) << error;
    }

    void customParams()
    {
        QFETCH(QString, fields);
        QFETCH(QString, error);
        const QStringList f = fields.split(u'|');
        for (const bool refin : {false, true}) {
            for (const bool refout : {false, true}) {
                const ValueResult<CrcParams> r = validateCustomCrcParams(f[0], f[1], f[2], f[3], refin, refout);
                QCOMPARE(r.errorText(), error);
                if (!error.isEmpty())
                    continue;
                QVERIFY(r.isOk());
                const CrcParams expected{f[0].toInt(), f[1].trimmed().toULongLong(nullptr, 16),
                                         f[2].trimmed().toULongLong(nullptr, 16),
                                         f[3].trimmed().toULongLong(nullptr, 16), refin, refout};
                QCOMPARE(r.value(), expected);
            }
        }
    }

    // How a CRC value is shown (leading zeros fill the digits the width
    // needs, never in decimal) and sent (ceil(width / 8) bytes).
    void valueTextAndBytes_data()
    {
        QTest::addColumn<quint64>("value");
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("base");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("bigEndian");  // in hex; little-endian is the reverse
        const std::tuple<quint64, int, int, QString, QByteArray> rows[] = {
            {0xCBF43926, 32, 16, "CBF43926", "CBF43926"}, {0xCBF43926, 32, 10, "3421780262", "CBF43926"},
            {0xCBF43926, 32, 8, "31375034446", "CBF43926"}, {0x7, 4, 2, "0111", "07"}, {0x7, 4, 16, "7", "07"},
            {0xCBF43926, 32, 2, "11001011111101000011100100100110", "CBF43926"}, {0x4B37, 16, 16, "4B37", "4B37"},
            {0x7, 5, 16, "07", "07"}, {0x7, 5, 8, "07", "07"}, {0x37, 16, 16, "0037", "0037"},
            {0x37, 16, 8, "000067", "0037"}, {0x1AB, 9, 16, "1AB", "01AB"}, {0x123456, 24, 16, "123456", "123456"},
            {7, 64, 10, "7", "0000000000000007"}, {0, 8, 16, "00", "00"},
            {~quint64(0), 64, 16, "FFFFFFFFFFFFFFFF", "FFFFFFFFFFFFFFFF"},
            {0x0102030405060708, 64, 16, "0102030405060708", "0102030405060708"},
            {1, 64, 8, "0000000000000000000001", "0000000000000001"},
            // An unparsable width field (0), a value wider than the width, a
            // huge width (taken as 64), an unknown base (taken as hex).
            {0x7, 0, 2, "111", ""}, {0x1FF, 4, 16, "1FF", "FF"}, {0xAB, 8, 7, "AB", "AB"},
            {1, 2000000000, 2, QString(63, u'0') + u'1', "0000000000000001"}};
        for (const auto &[value, width, base, text, bytes] : rows)
            QTest::addRow("%llX width %d base %d", value, width, base) << value << width << base << text << bytes;
    }

    void valueTextAndBytes()
    {
        QFETCH(quint64, value);
        QFETCH(int, width);
        QFETCH(int, base);
        QFETCH(QString, text);
        QFETCH(QByteArray, bigEndian);
        QCOMPARE(formatCrcValue(value, base, width), text);
        QCOMPARE(crcWireBytes(value, width, CrcByteOrder::BigEndian).toHex().toUpper(), bigEndian);
        QByteArray littleEndian = QByteArray::fromHex(bigEndian);
        std::reverse(littleEndian.begin(), littleEndian.end());
        QCOMPARE(crcWireBytes(value, width, CrcByteOrder::LittleEndian), littleEndian);
    }

    void modbusRequests_data()
    {
        QTest::addColumn<ModbusRequest>("request");
        QTest::addColumn<QByteArray>("pdu");
        QTest::addColumn<QString>("error");
        auto ok = [](const char *name, const ModbusRequest &r, const char *pdu) {
            QTest::newRow(name) << r << QByteArray::fromHex(pdu) << QString();
        };
        auto bad = [](const char *name, const ModbusRequest &r, const QString &error) {
            QTest::newRow(name) << r << QByteArray() << error;
        };
        // The request examples of the Modbus application protocol document.
        ok("01 read coils", request(0x11, 0x01, 0x13, 0x13), "0100130013");
        ok("03 read holding registers", request(0x11, 0x03, 0x6B, 3), "03006B0003");
        ok("05 coil on", request(0x11, 0x05, 0xAC, 0, {1}), "0500ACFF00");
        ok("05 coil off", request(0x11, 0x05, 0xAC, 0, {0}), "0500AC0000");
        ok("05 any value above 0 is on", request(1, 0x05, 1, 0, {7}), "050001FF00");
        ok("06 write register", request(0x11, 0x06, 1, 0, {3}), "0600010003");
        ok("0F ten coils from 19", request(1, 0x0F, 19, 0, {1, 0, 1, 1, 0, 0, 1, 1, 1, 0}), "0F0013000A02CD01");
        ok("0F eight coils fill one byte", request(1, 0x0F, 0, 0, {1, 1, 1, 1, 0, 0, 0, 1}), "0F00000008018F");
        ok("0F nine coils take two", request(1, 0x0F, 0, 0, QList<quint16>(9, 1)), "0F0000000902FF01");
        ok("10 two registers", request(0x11, 0x10, 1, 0, {0x000A, 0x0102}), "100001000204000A0102");
        ok("quantity ignored by writes", request(1, 0x06, 0xFFFF, 999, {0xBEEF}), "06FFFFBEEF");
        ok("values ignored by reads", request(1, 0x03, 0, 1, {1, 2, 3}), "0300000001");
        ok("slave 247", request(247, 0x03, 0, 125), "030000007D");
        ok("read 2000 coils", request(1, 0x01, 0, 2000), "01000007D0");
        ok("address 65530 quantity 6", request(1, 0x03, 65530, 6), "03FFFA0006");
        ok("last coil address", request(1, 0x0F, 65535, 0, {1}), "0FFFFF00010101");

        const QString slave = "Slave ID must be between 0 and 247.";
        const QString registers125 = "Register count must be between 1 and 125.";
        const QString coils1968 = "Coil count must be between 1 and 1968.";
        const QString registers123 = "Register count must be between 1 and 123.";
        const QString oneCoil = "Write Single Coil needs exactly one value.";
        const QString oneRegister = "Write Single Register needs exactly one value.";
        auto space = [](int address, int count) {
            return QString("Address %1 plus count %2 exceeds the 65536 address space.").arg(address).arg(count);
        };
        bad("slave 248", request(248, 0x03, 0, 1), slave);
        bad("slave 255 before function", request(255, 0x99, 0, 1), slave);
        bad("03 quantity 0", request(1, 0x03, 0, 0), registers125);
        bad("03 quantity 126", request(1, 0x03, 0, 126), registers125);
        bad("04 quantity 126", request(1, 0x04, 0, 126), registers125);
        bad("02 quantity 2001", request(1, 0x02, 0, 2001), "Coil count must be between 1 and 2000.");
        bad("count before address", request(1, 0x03, 65535, 200), registers125);
        bad("03 address 65530 quantity 7", request(1, 0x03, 65530, 7), space(65530, 7));
        bad("05 no value", request(1, 0x05, 0, 1), oneCoil);
        bad("05 two values", request(1, 0x05, 0, 1, {1, 0}), oneCoil);
        bad("06 no value", request(1, 0x06, 0, 1), oneRegister);
        bad("06 two values", request(1, 0x06, 0, 1, {1, 2}), oneRegister);
        bad("0F no values", request(1, 0x0F, 0, 1), coils1968);
        bad("0F 1969 values", request(1, 0x0F, 0, 1, QList<quint16>(1969, 1)), coils1968);
        bad("0F past the address space", request(1, 0x0F, 65530, 0, QList<quint16>(7, 1)), space(65530, 7));
        bad("10 no values", request(1, 0x10, 0, 1), registers123);
        bad("10 124 values", request(1, 0x10, 0, 1, QList<quint16>(124, 1)), registers123);
        bad("10 past the address space", request(1, 0x10, 65535, 0, {1, 2}), space(65535, 2));
        bad("function 00", request(1, 0x00, 0, 1), "Unsupported function code 0x00.");
        bad("function 07", request(1, 0x07, 0, 1), "Unsupported function code 0x07.");
        bad("function 2B", request(1, 0x2B, 0, 1), "Unsupported function code 0x2B.");
    }

    void modbusRequests()
    {
        QFETCH(ModbusRequest, request);
        QFETCH(QByteArray, pdu);
        QFETCH(QString, error);
        const ValueResult<QByteArray> built = ModbusCodec::buildPdu(request);
        QCOMPARE(built.errorText(), error);
        QCOMPARE(ModbusCodec::buildFrame(request, ModbusFraming::Rtu).errorText(), error);
        QCOMPARE(ModbusCodec::buildFrame(request, ModbusFraming::Ascii).errorText(), error);
        if (!error.isEmpty())
            return;
        QCOMPARE(built.value().toHex(' '), pdu.toHex(' '));
        // RTU: slave, PDU and CRC-16/MODBUS low byte first (which makes the
        // CRC over the whole frame 0); ASCII: slave, PDU and LRC in upper-case
        // hex between ':' and CR LF.
        const QByteArray body = char(request.slaveId) + pdu;
        const QByteArray rtu = ModbusCodec::buildFrame(request, ModbusFraming::Rtu).value();
        QCOMPARE(rtu.chopped(2).toHex(' '), body.toHex(' '));
        QCOMPARE(computeCatalogueCrc(CrcModelId::Crc16Modbus, rtu), quint64(0));
        const QByteArray ascii = ':' + (body + char(ModbusCodec::lrc(body))).toHex().toUpper() + "\r\n";
        QCOMPARE(ModbusCodec::buildFrame(request, ModbusFraming::Ascii).value(), ascii);
    }

    void knownModbusFrames()
    {
        const ModbusRequest read10 = request(1, 0x03, 0, 10);
        QCOMPARE(ModbusCodec::buildRtuFrame(read10).value(), QByteArray::fromHex("01030000000AC5CD"));
        const QByteArray ascii = ModbusCodec::buildAsciiFrame(read10).value();
        QCOMPARE(ascii, QByteArray(":01030000000AF2\r\n"));
        QCOMPARE(ModbusCodec::asciiPreviewText(ascii), QString(":01030000000AF2<CR><LF>"));
        // The serial-line document's example read.
        const ModbusRequest example = request(0x11, 0x03, 0x6B, 3);
        QCOMPARE(ModbusCodec::buildRtuFrame(example).value(), QByteArray::fromHex("1103006B00037687"));
        QCOMPARE(ModbusCodec::buildAsciiFrame(example).value(), QByteArray(":1103006B00037E\r\n"));
    }

    void modbusValues_data()
    {
        QTest::addColumn<int>("function");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QList<quint16>>("values");
        QTest::addColumn<QString>("error");
        using L = QList<quint16>;
        const QString oneValue = "Write Single Register takes exactly one value.";
        auto notHex = [](const char *part) { return QString("\"%1\" is not a 16-bit HEX value.").arg(part); };
        auto notCoil = [](const char *part) { return QString("Coil states must be 0 or 1, got \"%1\".").arg(part); };
        QTest::newRow("0F commas and runs") << 0x0F << " 1,0,, 1\t\n0 " << L{1, 0, 1, 0} << QString();
        QTest::newRow("0F state 2") << 0x0F << "1 2" << L{} << notCoil("2");
        QTest::newRow("0F state 01") << 0x0F << "01" << L{} << notCoil("01");
        QTest::newRow("0F glued states") << 0x0F << "1 0 11" << L{} << notCoil("11");
        QTest::newRow("10 two values") << 0x10 << "000A 0102" << L{0x000A, 0x0102} << QString();
        QTest::newRow("10 mixed case") << 0x10 << "ffff,Ab" << L{0xFFFF, 0xAB} << QString();
        QTest::newRow("10 leading zeros") << 0x10 << "0000FFFF" << L{0xFFFF} << QString();
        QTest::newRow("10 too wide") << 0x10 << "1 10000" << L{} << notHex("10000");
        QTest::newRow("10 not hex") << 0x10 << "12G4" << L{} << notHex("12G4");
        QTest::newRow("10 prefix") << 0x10 << "0x10" << L{} << notHex("0x10");
        QTest::newRow("10 nothing") << 0x10 << " " << L{} << QString();
        QTest::newRow("06 one value") << 0x06 << " 0a " << L{0x000A} << QString();
        QTest::newRow("06 two parts") << 0x06 << "00 0A" << L{} << oneValue;
        QTest::newRow("06 nothing") << 0x06 << ", ," << L{} << oneValue;
        QTest::newRow("06 bad part before count") << 0x06 << "zz 1" << L{} << notHex("zz");
        QTest::newRow("05 ignores the field") << 0x05 << "zz" << L{} << QString();
    }

    void modbusValues()
    {
        QFETCH(int, function);
        QFETCH(QString, text);
        QFETCH(QList<quint16>, values);
        QFETCH(QString, error);
        const ValueResult<QList<quint16>> r = ModbusValuesParser::parse(quint8(function), text);
        QCOMPARE(r.errorText(), error);
        QCOMPARE(r.isOk(), error.isEmpty());
        if (r.isOk())
            QCOMPARE(r.value(), values);
    }

    void hexParse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<HexParser::Grouping>("grouping");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("error");
        const auto stream = HexParser::Grouping::DigitStream;
        const auto tokens = HexParser::Grouping::Tokens;
        const QString odd = "Hex input must contain complete bytes.";
        auto at = [](int position) { return QString("Invalid hex character at position %1.").arg(position); };
        // The converter and the CRC input: a stream of digits.
        QTest::newRow("stream: hello") << "48 65 6C 6C 6F" << stream << QByteArray("Hello") << QString();
        QTest::newRow("stream: space inside a byte") << "4 8" << stream << QByteArray("H") << QString();
        QTest::newRow("stream: tab to carriage return") << "\t4\n8\v6\f5\r" << stream << QByteArray("He") << QString();
        QTest::newRow("stream: U+0085, U+00A0, U+3000") << "4\u00858\u00A06\u30005" << stream << QByteArray("He")
                                                         << QString();
        QTest::newRow("stream: G at 3") << "48G" << stream << QByteArray() << at(3);
        QTest::newRow("stream: comma is not white space") << "48,65" << stream << QByteArray() << at(3);
        QTest::newRow("stream: prefix") << "0x48" << stream << QByteArray() << at(2);
        QTest::newRow("stream: odd digits, the last one 0") << "480" << stream << QByteArray() << odd;
        QTest::newRow("stream: invalid wins over odd") << "4 8 6 z" << stream << QByteArray() << at(7);
        QTest::newRow("stream: fullwidth digit") << "4\uFF18" << stream << QByteArray() << at(2);
        QTest::newRow("stream: an emoji") << "4 8\U0001F600" << stream << QByteArray() << at(4);
        // The send box: tokens, one digit alone is a byte.
        QTest::newRow("tokens: 1 a ff") << "1 a ff" << tokens << QByteArray("\x01\x0A\xFF") << QString();
        QTest::newRow("tokens: ABC") << "ABC" << tokens << QByteArray() << odd;
        QTest::newRow("tokens: long token") << "0102" << tokens << QByteArray("\x01\x02") << QString();
        QTest::newRow("tokens: prefixed") << "0x1F 0Xa" << tokens << QByteArray("\x1F\x0A") << QString();
        QTest::newRow("tokens: commas") << "1,2,,3" << tokens << QByteArray("\x01\x02\x03") << QString();
        QTest::newRow("tokens: unicode spaces") << "\u00A0ff\u3000e\n" << tokens << QByteArray("\xFF\x0E") << QString();
        QTest::newRow("tokens: bad digit") << "12 3g" << tokens << QByteArray() << at(5);
        QTest::newRow("tokens: bare prefix") << "0x" << tokens << QByteArray() << at(2);
        QTest::newRow("tokens: odd after prefix") << "0x123" << tokens << QByteArray() << odd;
        QTest::newRow("tokens: the first bad token decides") << "ABC zz" << tokens << QByteArray() << odd;
    }

    void hexParse()
    {
        QFETCH(QString, text);
        QFETCH(HexParser::Grouping, grouping);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, error);
        const ValueResult<QByteArray> r = HexParser::parse(text, grouping);
        QCOMPARE(r.errorText(), error);
        QCOMPARE(r.isOk(), error.isEmpty());
        if (r.isOk())
            QCOMPARE(r.value().toHex(' '), bytes.toHex(' '));
    }

    // What the send box shows after a send reads back as the same bytes.
    void hexRoundTrip()
    {
        QCOMPARE(HexParser::toHexText(QByteArray("\x01\xAB\xFF\x00", 4)), QString("01 AB FF 00"));
        QRandomGenerator rng(0x4E58);
        for (int size = 0; size < 300; size += 7) {
            const QByteArray data = randomBytes(rng, size);
            const QString text = HexParser::toHexText(data);
            QCOMPARE(HexParser::parse(text, HexParser::Grouping::Tokens).value(), data);
            QCOMPARE(HexParser::parse(text).value(), data);
            QCOMPARE(HexParser::parse(text.toLower().remove(u' ')).value(), data);
        }
    }

    // The fuzzers' seed inputs (tests/fuzz/corpus) through the same target
    // bodies, so the ordinary build keeps them passing.
    void fuzzSeeds()
    {
        const std::pair<QString, FuzzSeeds::Target> targets[] = {
            {"hexparser", fuzzHexParser}, {"modbusvalues", fuzzModbusValues}, {"crcparams", fuzzCustomCrcParams}};
        for (const auto &[name, target] : targets) {
            const QString failure = FuzzSeeds::replay(name, target);
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
        }
    }
};

QTEST_GUILESS_MAIN(ToolsTest)
#include "tst_tools.moc"
