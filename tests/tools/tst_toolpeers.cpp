// Checks our CRCs and Modbus frames against independent implementations:
// python3-crcmod, Perl's Digest::CRC, zlib, and libmodbus writing its frames
// to a socat pseudo-terminal pair.

#include "tools/crccatalogue.h"
#include "tools/crcengine.h"
#include "tools/crctable.h"
#include "tools/modbuscodec.h"
#include "tools/sendchecksum.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QSerialPort>
#include <QTemporaryDir>
#include <QtTest>

#include <modbus.h>
#include <zlib.h>

namespace {

// Fixed so that a failure can be replayed; printed with every failure.
constexpr quint32 peerSeed = 0x9EE75EED;

struct CrcCase
{
    CrcParams params;
    QByteArray data;
};

QString caseLine(const CrcCase &c)
{
    const CrcParams &p = c.params;
    return QStringLiteral("%1 %2 %3 %4 %5 %6 %7")
        .arg(p.width)
        .arg(p.poly, 0, 16)
        .arg(p.init, 0, 16)
        .arg(p.xorout, 0, 16)
        .arg(int(p.refin))
        .arg(int(p.refout))
        .arg(c.data.isEmpty() ? QStringLiteral("-") : QString::fromLatin1(c.data.toHex()));
}

QByteArray randomBytes(QRandomGenerator &rng, int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (char &ch : data)
        ch = char(rng.bounded(256));
    return data;
}

CrcCase randomCase(QRandomGenerator &rng, int width, bool refin, bool refout)
{
    CrcCase c;
    c.params.width = width;
    c.params.poly = rng.generate64() & c.params.mask();
    if (c.params.poly == 0)
        c.params.poly = 1;
    c.params.init = rng.generate64() & c.params.mask();
    c.params.xorout = rng.generate64() & c.params.mask();
    c.params.refin = refin;
    c.params.refout = refout;
    c.data = randomBytes(rng, int(rng.bounded(80)));
    return c;
}

// Runs a peer over the cases (one line each) and returns its answers.
QList<quint64> runPeer(const QString &program, const QString &script, const QList<CrcCase> &cases, QString *error)
{
    QProcess peer;
    peer.start(program, {script});
    if (!peer.waitForStarted(10000)) {
        *error = QStringLiteral("cannot start %1 (run scripts/setup.sh): %2").arg(program, peer.errorString());
        return {};
    }
    QByteArray input;
    for (const CrcCase &c : cases)
        input += caseLine(c).toLatin1() + '\n';
    peer.write(input);
    peer.closeWriteChannel();
    if (!peer.waitForFinished(60000) || peer.exitCode() != 0) {
        peer.kill();
        *error = QStringLiteral("%1 failed: %2").arg(program, QString::fromLocal8Bit(peer.readAllStandardError()));
        return {};
    }
    QList<quint64> results;
    for (const QByteArray &line : peer.readAllStandardOutput().split('\n')) {
        if (!line.isEmpty())
            results.append(line.toULongLong(nullptr, 16));
    }
    if (results.size() != cases.size())
        *error = QStringLiteral("%1 answered %2 of %3 cases").arg(program).arg(results.size()).arg(cases.size());
    return results;
}

void compareWithPeer(const QString &program, const QString &script, const QList<CrcCase> &cases)
{
    QString error;
    const QList<quint64> expected = runPeer(program, script, cases, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    for (qsizetype i = 0; i < cases.size(); ++i) {
        const quint64 engine = computeCrc(cases[i].data, cases[i].params);
        const quint64 table = CrcTable(cases[i].params).compute(cases[i].data);
        QVERIFY2(engine == expected[i] && table == expected[i],
                 qPrintable(QStringLiteral("seed %1, case \"%2\": peer %3, engine %4, table %5")
                                .arg(peerSeed)
                                .arg(caseLine(cases[i]))
                                .arg(expected[i], 0, 16)
                                .arg(engine, 0, 16)
                                .arg(table, 0, 16)));
    }
}

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

} // namespace

Q_DECLARE_METATYPE(ModbusRequest)

class ToolPeersTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void crcmodAgrees();
    void digestCrcAgrees();
    void zlibCrc32Agrees();
    void libmodbusFrames_data();
    void libmodbusFrames();

private:
    bool sendWithLibmodbus(const ModbusRequest &r);

    QTemporaryDir m_dir;
    QProcess m_socat;
    modbus_t *m_modbus = nullptr;
    QSerialPort m_line;
};

void ToolPeersTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    const QString master = m_dir.filePath("master");
    const QString device = m_dir.filePath("device");
    m_socat.start("socat", {"pty,raw,echo=0,link=" + master, "pty,raw,echo=0,link=" + device});
    QVERIFY2(m_socat.waitForStarted(10000), "socat is missing: run scripts/setup.sh");
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(master) && QFile::exists(device), 5000);

    m_modbus = modbus_new_rtu(master.toLocal8Bit().constData(), 9600, 'N', 8, 1);
    QVERIFY(m_modbus);
    // Nobody answers: libmodbus sends the request and gives up quickly.
    modbus_set_response_timeout(m_modbus, 0, 20000);
    QVERIFY2(modbus_connect(m_modbus) == 0, modbus_strerror(errno));

    m_line.setPortName(device);
    QVERIFY2(m_line.open(QIODevice::ReadWrite), qPrintable(m_line.errorString()));
}

void ToolPeersTest::cleanupTestCase()
{
    m_line.close();
    if (m_modbus) {
        modbus_close(m_modbus);
        modbus_free(m_modbus);
    }
    if (m_socat.state() != QProcess::NotRunning) {
        m_socat.terminate();
        if (!m_socat.waitForFinished(3000)) {
            m_socat.kill();
            m_socat.waitForFinished(3000);
        }
    }
}

void ToolPeersTest::crcmodAgrees()
{
    // crcmod takes widths 8, 16, 24, 32 and 64 with both reflections alike;
    // its register starts at init as given, so this also checks that a
    // reflected init is not reversed.
    QRandomGenerator rng(peerSeed);
    QList<CrcCase> cases;
    for (int width : {8, 16, 24, 32, 64}) {
        for (int i = 0; i < 60; ++i) {
            const bool reflected = i & 1;
            cases.append(randomCase(rng, width, reflected, reflected));
        }
    }
    for (const CrcModel &model : crcCatalogue()) {
        if (model.width % 8 == 0)
            cases.append({model.params(), randomBytes(rng, int(rng.bounded(300)))});
    }
    // Debian's python, which has the python3-crcmod module.
    compareWithPeer("/usr/bin/python3", QFINDTESTDATA("peers/crcmod_batch.py"), cases);
}

void ToolPeersTest::digestCrcAgrees()
{
    // Digest::CRC covers widths crcmod does not. It reverses a reflected init
    // itself (the script passes ours reversed), and has gaps of its own that
    // are left out: normal widths below 8, width 64, and reflected input with
    // unreflected output.
    QRandomGenerator rng(peerSeed + 1);
    QList<CrcCase> cases;
    for (int width = 1; width <= 63; ++width) {
        for (int i = 0; i < 6; ++i) {
            const bool refin = i % 3 == 1;
            const bool refout = i % 3 != 0;
            if (!refin && width < 8)
                continue;
            cases.append(randomCase(rng, width, refin, refout));
        }
    }
    compareWithPeer("perl", QFINDTESTDATA("peers/digest_crc_batch.pl"), cases);
}

void ToolPeersTest::zlibCrc32Agrees()
{
    QRandomGenerator rng(peerSeed + 2);
    for (int size : {0, 1, 3, 15, 16, 17, 255, 4096, 65537, 1 << 20}) {
        const QByteArray data = randomBytes(rng, size);
        const quint32 expected = quint32(crc32(0L, reinterpret_cast<const Bytef *>(data.constData()), uInt(size)));
        QCOMPARE(computeCatalogueCrc(CrcModelId::Crc32, data), quint64(expected));
        if (size > 0) {
            const QByteArray sent = appendSendChecksum(data, SendChecksumKind::Crc32);
            const char le[4] = {char(expected), char(expected >> 8), char(expected >> 16), char(expected >> 24)};
            QCOMPARE(sent.right(4), QByteArray(le, 4));
        }
    }
}

void ToolPeersTest::libmodbusFrames_data()
{
    QTest::addColumn<ModbusRequest>("request");

    QTest::newRow("01 read coils") << request(1, 0x01, 0x13, 0x13);
    QTest::newRow("01 2000 coils") << request(17, 0x01, 0, 2000);
    QTest::newRow("02 discrete inputs") << request(247, 0x02, 0xC4, 0x16);
    QTest::newRow("03 ten registers") << request(1, 0x03, 0, 10);
    QTest::newRow("03 125 at the top") << request(2, 0x03, 65411, 125);
    QTest::newRow("04 input register") << request(0x11, 0x04, 8, 1);
    QTest::newRow("05 on") << request(1, 0x05, 0xAC, 0, {1});
    QTest::newRow("05 off") << request(1, 0x05, 0xFFFF, 0, {0});
    QTest::newRow("06 register") << request(1, 0x06, 1, 0, {0x0003});
    QTest::newRow("06 broadcast") << request(0, 0x06, 0x1234, 0, {0xBEEF});
    QTest::newRow("0F ten coils") << request(1, 0x0F, 19, 0, {1, 0, 1, 1, 0, 0, 1, 1, 1, 0});
    QTest::newRow("0F 1968 coils") << request(3, 0x0F, 0, 0, QList<quint16>(1968, 1));
    QTest::newRow("10 two registers") << request(1, 0x10, 1, 0, {0x000A, 0x0102});
    QTest::newRow("10 123 registers") << request(9, 0x10, 100, 0, QList<quint16>(123, 0xA55A));

    QRandomGenerator rng(peerSeed + 3);
    static const int functions[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0F, 0x10};
    static const int limits[] = {2000, 2000, 125, 125, 1, 1, 1968, 123};
    for (int i = 0; i < 40; ++i) {
        const int f = int(rng.bounded(8));
        const int count = 1 + int(rng.bounded(limits[f]));
        ModbusRequest r = request(int(rng.bounded(248)), functions[f], int(rng.bounded(65536 - count + 1)), count);
        if (functions[f] >= 0x05) {
            for (int k = 0; k < count; ++k)
                r.values.append(functions[f] == 0x05 || functions[f] == 0x0F ? quint16(rng.bounded(2))
                                                                                : quint16(rng.bounded(65536)));
        }
        QTest::addRow("random %d: function %02X, %d", i, functions[f], count) << r;
    }
}

bool ToolPeersTest::sendWithLibmodbus(const ModbusRequest &r)
{
    if (modbus_set_slave(m_modbus, r.slaveId) != 0)
        return false;
    const int count = r.functionCode >= 0x05 ? int(r.values.size()) : r.quantity;
    std::vector<uint8_t> bits(size_t(qMax(count, 1)));
    std::vector<uint16_t> registers(size_t(qMax(count, 1)));
    for (int i = 0; i < int(r.values.size()); ++i) {
        bits[size_t(i)] = uint8_t(r.values[i]);
        registers[size_t(i)] = r.values[i];
    }
    // Every call ends in a timeout (nobody answers); only the request matters.
    switch (r.functionCode) {
    case 0x01:
        modbus_read_bits(m_modbus, r.startAddress, count, bits.data());
        break;
    case 0x02:
        modbus_read_input_bits(m_modbus, r.startAddress, count, bits.data());
        break;
    case 0x03:
        modbus_read_registers(m_modbus, r.startAddress, count, registers.data());
        break;
    case 0x04:
        modbus_read_input_registers(m_modbus, r.startAddress, count, registers.data());
        break;
    case 0x05:
        modbus_write_bit(m_modbus, r.startAddress, r.values.first());
        break;
    case 0x06:
        modbus_write_register(m_modbus, r.startAddress, r.values.first());
        break;
    case 0x0F:
        modbus_write_bits(m_modbus, r.startAddress, count, bits.data());
        break;
    case 0x10:
        modbus_write_registers(m_modbus, r.startAddress, count, registers.data());
        break;
    default:
        return false;
    }
    return true;
}

void ToolPeersTest::libmodbusFrames()
{
    QFETCH(ModbusRequest, request);
    const ValueResult<QByteArray> ours = ModbusCodec::buildRtuFrame(request);
    QVERIFY2(ours.isOk(), qPrintable(ours.errorText()));

    m_line.readAll();
    QVERIFY(sendWithLibmodbus(request));
    QByteArray theirs;
    QElapsedTimer timer;
    timer.start();
    while (theirs.size() < ours.value().size() && timer.elapsed() < 3000) {
        if (m_line.bytesAvailable() > 0 || m_line.waitForReadyRead(200))
            theirs += m_line.readAll();
    }
    // Anything more than our frame would show up here.
    if (m_line.waitForReadyRead(30))
        theirs += m_line.readAll();
    QCOMPARE(theirs.toHex(' '), ours.value().toHex(' '));

    // The ASCII frame carries the same request: its body is the RTU frame
    // without the CRC.
    const QByteArray ascii = ModbusCodec::buildAsciiFrame(request).value();
    const QByteArray body = QByteArray::fromHex(ascii.mid(1, ascii.size() - 3));
    QCOMPARE(body.chopped(1).toHex(' '), theirs.chopped(2).toHex(' '));
}

QTEST_GUILESS_MAIN(ToolPeersTest)
#include "tst_toolpeers.moc"
