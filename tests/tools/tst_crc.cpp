#include "toolstests.h"

#include "tools/crccatalogue.h"
#include "tools/crccustomparams.h"
#include "tools/crcengine.h"
#include "tools/crcformat.h"
#include "tools/crctable.h"
#include "tools/sendchecksum.h"

#include <QRandomGenerator>
#include <QtTest>

namespace {

const QByteArray checkInput = QByteArrayLiteral("123456789");

// Fixed so that a failure can be replayed; printed with every failure.
constexpr quint32 propertySeed = 0x7E55A11E;

QString describe(const CrcParams &p)
{
    return QStringLiteral("width %1 poly %2 init %3 xorout %4 refin %5 refout %6")
        .arg(p.width)
        .arg(p.poly, 0, 16)
        .arg(p.init, 0, 16)
        .arg(p.xorout, 0, 16)
        .arg(p.refin)
        .arg(p.refout);
}

QByteArray randomBytes(QRandomGenerator &rng, int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (char &c : data)
        c = char(rng.bounded(256));
    return data;
}

CrcParams randomParams(QRandomGenerator &rng, int width)
{
    CrcParams p;
    p.width = width;
    p.poly = rng.generate64() & p.mask();
    if (p.poly == 0)
        p.poly = 1;
    p.init = rng.generate64() & p.mask();
    p.xorout = rng.generate64() & p.mask();
    p.refin = rng.bounded(2);
    p.refout = rng.bounded(2);
    return p;
}

} // namespace

class CrcTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void catalogueRows_data();
    void catalogueRows();
    void unknownCatalogueIds();
    void sendChecksum_data();
    void sendChecksum();
    void sendChecksumKindsAreCatalogueRows();
    void sendChecksumLabels();
    void fastPathsEqualEngine();
    void tableEqualsEngineAtEveryWidth();
    void reflectedInitIsNotReversed();
    void customParams_data();
    void customParams();
    void formatValue_data();
    void formatValue();
    void wireBytes_data();
    void wireBytes();
};

void CrcTest::catalogueRows_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("width");
    QTest::addColumn<quint64>("poly");
    QTest::addColumn<quint64>("init");
    QTest::addColumn<bool>("refin");
    QTest::addColumn<bool>("refout");
    QTest::addColumn<quint64>("xorout");
    QTest::addColumn<quint64>("check");
    auto row = [](int id, const char *name, int width, quint64 poly, quint64 init, bool refin, bool refout,
                  quint64 xorout, quint64 check) {
        QTest::newRow(name) << id << QString::fromLatin1(name) << width << poly << init << refin << refout << xorout
                            << check;
    };
    row(0, "CRC-4/ITU", 4, 0x3, 0x0, true, true, 0x0, 0x7);
    row(1, "CRC-5/ITU", 5, 0x15, 0x00, true, true, 0x00, 0x07);
    row(2, "CRC-5/USB", 5, 0x05, 0x1F, true, true, 0x1F, 0x19);
    row(3, "CRC-6/ITU", 6, 0x03, 0x00, true, true, 0x00, 0x06);
    row(4, "CRC-8", 8, 0x07, 0x00, false, false, 0x00, 0xF4);
    row(5, "CRC-16/MODBUS", 16, 0x8005, 0xFFFF, true, true, 0x0000, 0x4B37);
    row(6, "CRC-16/USB", 16, 0x8005, 0xFFFF, true, true, 0xFFFF, 0xB4C8);
    row(7, "CRC-32", 32, 0x04C11DB7, 0xFFFFFFFF, true, true, 0xFFFFFFFF, 0xCBF43926);
    row(8, "Custom", 16, 0x1021, 0xFFFF, false, false, 0x0000, 0x29B1);
}

void CrcTest::catalogueRows()
{
    QFETCH(int, id);
    QFETCH(QString, name);
    QFETCH(int, width);
    QFETCH(quint64, poly);
    QFETCH(quint64, init);
    QFETCH(bool, refin);
    QFETCH(bool, refout);
    QFETCH(quint64, xorout);
    QFETCH(quint64, check);

    QCOMPARE(crcCatalogue().size(), 9);
    const CrcModel &row = crcCatalogue().at(id);
    QCOMPARE(row.id, id);
    QCOMPARE(row.name, name);
    const CrcParams expected{width, poly, init, xorout, refin, refout};
    QCOMPARE(row.params(), expected);

    const std::optional<CrcModel> found = findCrcModel(id);
    QVERIFY(found.has_value());
    QCOMPARE(found->name, name);

    QCOMPARE(computeCatalogueCrc(id, checkInput), check);
    QCOMPARE(computeCrc(checkInput, expected), check);
    QCOMPARE(CrcTable(expected).compute(checkInput), check);
    // Empty input: init, reflected when the reflections differ, then xorout.
    QCOMPARE(computeCatalogueCrc(id, QByteArray()), computeCrc(QByteArray(), expected));
    QCOMPARE(computeCrc(QByteArray(), expected), (init ^ xorout) & expected.mask());
}

void CrcTest::unknownCatalogueIds()
{
    for (int id : {-1, 9, 100}) {
        QVERIFY(!findCrcModel(id).has_value());
        QCOMPARE(computeCatalogueCrc(id, checkInput), quint64(0));
    }
    // The catalogue is one shared instance.
    QCOMPARE(&crcCatalogue(), &crcCatalogue());
}

void CrcTest::sendChecksum_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QByteArray>("appended");

    for (int kind = 0; kind <= 6; ++kind)
        QTest::addRow("empty payload, kind %d", kind) << QByteArray() << kind << QByteArray();
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

void CrcTest::sendChecksum()
{
    QFETCH(QByteArray, payload);
    QFETCH(int, kind);
    QFETCH(QByteArray, appended);
    QCOMPARE(appendSendChecksum(payload, kind), payload + appended);
    QCOMPARE(isKnownSendChecksum(kind), kind >= 0 && kind <= 5);
}

void CrcTest::sendChecksumKindsAreCatalogueRows()
{
    // Kinds 3, 4 and 5 compute the catalogue's rows of the same names; here
    // against the bit-at-a-time engine, on lengths around the 8-byte steps.
    QRandomGenerator rng(propertySeed);
    for (int length = 1; length <= 40; ++length) {
        const QByteArray payload = randomBytes(rng, length);
        auto engine = [&payload](int id) { return computeCrc(payload, findCrcModel(id)->params()); };
        const quint64 c8 = engine(CrcModelId::Crc8);
        const quint64 c16 = engine(CrcModelId::Crc16Modbus);
        const quint64 c32 = engine(CrcModelId::Crc32);
        QCOMPARE(appendSendChecksum(payload, SendChecksumKind::Crc8), payload + char(c8));
        QCOMPARE(appendSendChecksum(payload, SendChecksumKind::Crc16Modbus),
                 payload + char(c16 & 0xFF) + char(c16 >> 8));
        QCOMPARE(appendSendChecksum(payload, SendChecksumKind::Crc32),
                 payload + char(c32 & 0xFF) + char((c32 >> 8) & 0xFF) + char((c32 >> 16) & 0xFF) + char(c32 >> 24));
    }
}

void CrcTest::sendChecksumLabels()
{
    const QStringList expected{"None", "Checksum-8 (SUM)", "XOR (BCC)", "CRC-8", "CRC-16/MODBUS", "CRC-32"};
    QCOMPARE(::sendChecksumLabels(), expected);
    // Without an installed translation the shown labels are the same.
    QCOMPARE(translatedSendChecksumLabels(), expected);
}

void CrcTest::fastPathsEqualEngine()
{
    QRandomGenerator rng(propertySeed);
    for (const CrcModel &model : crcCatalogue()) {
        for (int round = 0; round < 60; ++round) {
            // Short lengths exercise the tails, longer ones the 16-byte steps
            // and the interleaved lanes.
            const int length = round < 40 ? round : int(rng.bounded(8 * CrcTable::LaneBytes));
            const QByteArray data = randomBytes(rng, length);
            const quint64 fast = computeCatalogueCrc(model.id, data);
            const quint64 slow = computeCrc(data, model.params());
            QVERIFY2(fast == slow, qPrintable(QStringLiteral("seed %1, %2, %3 bytes: table %4, engine %5")
                                                  .arg(propertySeed)
                                                  .arg(model.name)
                                                  .arg(length)
                                                  .arg(fast, 0, 16)
                                                  .arg(slow, 0, 16)));
        }
    }
}

void CrcTest::tableEqualsEngineAtEveryWidth()
{
    QRandomGenerator rng(propertySeed);
    for (int width = 1; width <= 64; ++width) {
        for (int round = 0; round < 12; ++round) {
            CrcParams p = randomParams(rng, width);
            // Every combination of the reflections at every width.
            p.refin = round & 1;
            p.refout = round & 2;
            if (round == 4)
                p.poly = p.mask();  // all ones, the top bit included
            const CrcTable table(p);
            QList<int> lengths{0, 1, 7, 8, 15, 16, 17, 33, int(rng.bounded(200))};
            // Long inputs take the interleaved lanes; once per reflection pair.
            if (round < 4)
                lengths << 3 * CrcTable::LaneBytes << 6 * CrcTable::LaneBytes + 1 + int(rng.bounded(100));
            for (int length : lengths) {
                const QByteArray data = randomBytes(rng, length);
                const quint64 fast = table.compute(data);
                const quint64 slow = computeCrc(data, p);
                QVERIFY2(fast == slow, qPrintable(QStringLiteral("seed %1, %2, %3 bytes from %4: table %5, engine %6")
                                                      .arg(propertySeed)
                                                      .arg(describe(p))
                                                      .arg(length)
                                                      .arg(QString::fromLatin1(data.left(32).toHex()))
                                                      .arg(fast, 0, 16)
                                                      .arg(slow, 0, 16)));
                QVERIFY(slow <= p.mask());
            }
        }
    }
}

void CrcTest::reflectedInitIsNotReversed()
{
    // Width 16, poly 0x1021, reflected, init 0x0001: the register starts at
    // 0x0001. The two values come from python3-crcmod (whose reflected
    // register starts at its initCrc as given): 0x6C74 with 0x0001, 0xEA6B
    // with 0x8000, the textbook reading of init 0x0001.
    const CrcParams p{16, 0x1021, 0x0001, 0x0000, true, true};
    QCOMPARE(computeCrc(checkInput, p), quint64(0x6C74));
    QCOMPARE(CrcTable(p).compute(checkInput), quint64(0x6C74));
    CrcParams textbook = p;
    textbook.init = reflectBits(p.init, 16);
    QCOMPARE(textbook.init, quint64(0x8000));
    QCOMPARE(computeCrc(checkInput, textbook), quint64(0xEA6B));
}

void CrcTest::customParams_data()
{
    QTest::addColumn<QString>("width");
    QTest::addColumn<QString>("poly");
    QTest::addColumn<QString>("init");
    QTest::addColumn<QString>("xorout");
    QTest::addColumn<QString>("error");

    const QString widthText = "Width must be between 1 and 64.";
    const QString polyFits = "Polynomial must be a hexadecimal value that fits the width.";
    const QString initFits = "Initial value must be a hexadecimal value that fits the width.";
    const QString xorFits = "Final XOR must be a hexadecimal value that fits the width.";
    const QString polyZero = "Polynomial must not be zero.";
    const QString F16 = "FFFFFFFFFFFFFFFF";

    QTest::newRow("1: smallest") << "1" << "1" << "1" << "1" << QString();
    QTest::newRow("1: poly 2") << "1" << "2" << "0" << "0" << polyFits;
    QTest::newRow("1: poly 0") << "1" << "0" << "0" << "0" << polyZero;
    QTest::newRow("1: init 2") << "1" << "1" << "2" << "0" << initFits;
    QTest::newRow("1: xorout 2") << "1" << "1" << "0" << "2" << xorFits;
    QTest::newRow("8: FF everywhere") << "8" << "FF" << "ff" << "Ff" << QString();
    QTest::newRow("8: poly 100") << "8" << "100" << "0" << "0" << polyFits;
    QTest::newRow("8: init 100") << "8" << "07" << "100" << "0" << initFits;
    QTest::newRow("8: xorout 100") << "8" << "07" << "0" << "100" << xorFits;
    QTest::newRow("8: leading zeros") << "8" << "0000000000000007" << "00FF" << "0" << QString();
    QTest::newRow("63: largest") << "63" << "7FFFFFFFFFFFFFFF" << "7FFFFFFFFFFFFFFF" << "0" << QString();
    QTest::newRow("63: poly top bit") << "63" << "8000000000000000" << "0" << "0" << polyFits;
    QTest::newRow("63: init top bit") << "63" << "1" << "8000000000000000" << "0" << initFits;
    QTest::newRow("63: xorout top bit") << "63" << "1" << "0" << F16 << xorFits;
    QTest::newRow("64: sixteen F") << "64" << F16 << F16 << F16 << QString();
    QTest::newRow("64: seventeen digits") << "64" << "1" + F16 << "0" << "0" << polyFits;
    QTest::newRow("64: zero-padded past sixteen") << "64" << "0" + F16 << "0" << "0" << QString();
    QTest::newRow("64: poly 0") << "64" << "0000" << "0" << "0" << polyZero;
    QTest::newRow("width 0") << "0" << "1" << "0" << "0" << widthText;
    QTest::newRow("width 65") << "65" << "1" << "0" << "0" << widthText;
    QTest::newRow("width -8") << "-8" << "1" << "0" << "0" << widthText;
    QTest::newRow("width not a number") << "eight" << "1" << "0" << "0" << widthText;
    QTest::newRow("width empty") << "" << "1" << "0" << "0" << widthText;
    QTest::newRow("width 16 hex") << "0x10" << "1" << "0" << "0" << widthText;
    QTest::newRow("width beyond 32 bits") << "4294967312" << "1" << "0" << "0" << widthText;
    QTest::newRow("poly empty") << "16" << "" << "0" << "0" << polyFits;
    QTest::newRow("poly with prefix") << "16" << "0x1021" << "0" << "0" << polyFits;
    QTest::newRow("poly not hex") << "16" << "10G1" << "0" << "0" << polyFits;
    QTest::newRow("init empty") << "16" << "1021" << "" << "0" << initFits;
    QTest::newRow("xorout not hex") << "16" << "1021" << "0" << "-1" << xorFits;
    QTest::newRow("width checked first") << "65" << "zz" << "zz" << "zz" << widthText;
    QTest::newRow("poly before init") << "8" << "1FF" << "zz" << "zz" << polyFits;
    QTest::newRow("zero poly before init") << "8" << "0" << "zz" << "zz" << polyZero;
    QTest::newRow("init before xorout") << "8" << "7" << "zz" << "zz" << initFits;
}

void CrcTest::customParams()
{
    QFETCH(QString, width);
    QFETCH(QString, poly);
    QFETCH(QString, init);
    QFETCH(QString, xorout);
    QFETCH(QString, error);

    for (int flags = 0; flags < 4; ++flags) {
        const bool refin = flags & 1;
        const bool refout = flags & 2;
        const ValueResult<CrcParams> r = validateCustomCrcParams(width, poly, init, xorout, refin, refout);
        if (!error.isEmpty()) {
            QVERIFY(!r.isOk());
            QCOMPARE(r.errorText(), error);
            continue;
        }
        QVERIFY2(r.isOk(), qPrintable(r.errorText()));
        const CrcParams &p = r.value();
        QCOMPARE(p.width, width.toInt());
        QCOMPARE(p.poly, poly.toULongLong(nullptr, 16));
        QCOMPARE(p.init, init.toULongLong(nullptr, 16));
        QCOMPARE(p.xorout, xorout.toULongLong(nullptr, 16));
        QCOMPARE(p.refin, refin);
        QCOMPARE(p.refout, refout);
    }
}

void CrcTest::formatValue_data()
{
    QTest::addColumn<quint64>("value");
    QTest::addColumn<int>("base");
    QTest::addColumn<int>("width");
    QTest::addColumn<QString>("text");

    QTest::newRow("crc-32 hex") << quint64(0xCBF43926) << 16 << 32 << "CBF43926";
    QTest::newRow("crc-32 dec") << quint64(0xCBF43926) << 10 << 32 << "3421780262";
    QTest::newRow("crc-32 oct") << quint64(0xCBF43926) << 8 << 32 << "31375034446";
    QTest::newRow("crc-32 bin") << quint64(0xCBF43926) << 2 << 32 << "11001011111101000011100100100110";
    QTest::newRow("crc-4 bin") << quint64(0x7) << 2 << 4 << "0111";
    QTest::newRow("crc-4 hex") << quint64(0x7) << 16 << 4 << "7";
    QTest::newRow("width 5 hex") << quint64(0x7) << 16 << 5 << "07";
    QTest::newRow("width 5 oct") << quint64(0x7) << 8 << 5 << "07";
    QTest::newRow("width 16 hex") << quint64(0x4B37) << 16 << 16 << "4B37";
    QTest::newRow("width 16 small value") << quint64(0x37) << 16 << 16 << "0037";
    QTest::newRow("width 16 oct") << quint64(0x37) << 8 << 16 << "000067";
    QTest::newRow("dec never filled") << quint64(7) << 10 << 64 << "7";
    QTest::newRow("zero in hex") << quint64(0) << 16 << 8 << "00";
    QTest::newRow("width 64 all ones") << ~quint64(0) << 16 << 64 << "FFFFFFFFFFFFFFFF";
    QTest::newRow("width 64 oct") << quint64(1) << 8 << 64 << "0000000000000000000001";
    QTest::newRow("width field unparsable") << quint64(0x7) << 2 << 0 << "111";
    QTest::newRow("negative width") << quint64(0x7) << 16 << -4 << "7";
    QTest::newRow("value wider than width") << quint64(0x1FF) << 16 << 4 << "1FF";
    QTest::newRow("huge width fills as 64") << quint64(1) << 2 << 2000000000
                                            << QString(63, u'0') + u'1';
    QTest::newRow("unknown base as hex") << quint64(0xAB) << 7 << 8 << "AB";
}

void CrcTest::formatValue()
{
    QFETCH(quint64, value);
    QFETCH(int, base);
    QFETCH(int, width);
    QFETCH(QString, text);
    QCOMPARE(formatCrcValue(value, base, width), text);
}

void CrcTest::wireBytes_data()
{
    QTest::addColumn<quint64>("value");
    QTest::addColumn<int>("width");
    QTest::addColumn<QByteArray>("bigEndian");
    QTest::addColumn<QByteArray>("littleEndian");

    QTest::newRow("crc-16/modbus") << quint64(0x4B37) << 16 << QByteArray("\x4B\x37") << QByteArray("\x37\x4B");
    QTest::newRow("crc-32") << quint64(0xCBF43926) << 32 << QByteArray("\xCB\xF4\x39\x26")
                            << QByteArray("\x26\x39\xF4\xCB");
    QTest::newRow("width 4") << quint64(0x7) << 4 << QByteArray("\x07") << QByteArray("\x07");
    QTest::newRow("width 9") << quint64(0x1AB) << 9 << QByteArray("\x01\xAB") << QByteArray("\xAB\x01");
    QTest::newRow("width 24") << quint64(0x123456) << 24 << QByteArray("\x12\x34\x56")
                              << QByteArray("\x56\x34\x12");
    QTest::newRow("width 64") << quint64(0x0102030405060708) << 64 << QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08")
                              << QByteArray("\x08\x07\x06\x05\x04\x03\x02\x01");
    QTest::newRow("width 0") << quint64(0x7) << 0 << QByteArray() << QByteArray();
    QTest::newRow("negative width") << quint64(0x7) << -1 << QByteArray() << QByteArray();
    QTest::newRow("zero value keeps its bytes") << quint64(0) << 16 << QByteArray(2, '\0') << QByteArray(2, '\0');
}

void CrcTest::wireBytes()
{
    QFETCH(quint64, value);
    QFETCH(int, width);
    QFETCH(QByteArray, bigEndian);
    QFETCH(QByteArray, littleEndian);
    QCOMPARE(crcWireBytes(value, width, CrcByteOrder::BigEndian), bigEndian);
    QCOMPARE(crcWireBytes(value, width, CrcByteOrder::LittleEndian), littleEndian);
}

int runCrcTests(int argc, char **argv)
{
    CrcTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_crc.moc"
