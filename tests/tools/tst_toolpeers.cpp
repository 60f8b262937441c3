// Checks our CRCs and Modbus frames against independent implementations:
// python3-crcmod, Perl's Digest::CRC, zlib, and libmodbus writing its frames
// to a socat pseudo-terminal pair.

#include "toolstests.h"

#include "support/ptypair.h"
#include "tools/crccatalogue.h"
#include "tools/crcengine.h"
#include "tools/crctable.h"
#include "tools/modbuscodec.h"
#include "tools/sendchecksum.h"

#include <QProcess>
#include <QSerialPort>
#include <QtTest>

#include <modbus.h>
#include <zlib.h>

namespace {

// Fixed so that a failure can be replayed; printed with every failure.
constexpr quint32 peerSeed = 0x9EE75EED;

using CrcCase = std::pair<CrcParams, QByteArray>;

CrcCase randomCase(QRandomGenerator &rng, int width, bool refin, bool refout)
{
    const CrcParams params = randomParams(rng, width, refin, refout);
    return {params, randomBytes(rng, rng.bounded(80))};
}

// Runs a peer script over the cases (one line each) and holds the engine and
// the table to its answers.
void compareWithPeer(const QString &program, const QString &script, const QList<CrcCase> &cases)
{
    QProcess peer;
    peer.start(program, {script});
    QVERIFY2(peer.waitForStarted(10000),
             qPrintable(program + " cannot start (run scripts/setup.sh): " + peer.errorString()));
    for (const auto &[params, data] : cases)
        peer.write(crcCaseLine(params, data).toLatin1() + '\n');
    peer.closeWriteChannel();
    const bool finished = peer.waitForFinished(60000);
    if (!finished)
        peer.kill();
    QVERIFY2(finished && peer.exitCode() == 0, qPrintable(program + " failed: " + peer.readAllStandardError()));
    const QList<QByteArray> answers = peer.readAllStandardOutput().trimmed().split('\n');
    QCOMPARE(answers.size(), cases.size());
    for (qsizetype i = 0; i < cases.size(); ++i) {
        const auto &[params, data] = cases[i];
        const quint64 expected = answers[i].toULongLong(nullptr, 16);
        const quint64 engine = computeCrc(data, params);
        const quint64 table = CrcTable(params).compute(data);
        QVERIFY2(engine == expected && table == expected,
                 qPrintable(QStringLiteral("seed %1, case \"%2\": peer %3, engine %4, table %5")
                                .arg(peerSeed).arg(crcCaseLine(params, data))
                                .arg(expected, 0, 16).arg(engine, 0, 16).arg(table, 0, 16)));
    }
}

// Sends the request through libmodbus. Nobody answers, so every call ends in
// a timeout; only the request on the line matters.
bool sendWithLibmodbus(modbus_t *ctx, const ModbusRequest &r)
{
    const int count = r.functionCode >= 0x05 ? int(r.values.size()) : r.quantity;
    std::vector<uint8_t> bits(size_t(qMax(count, 1)));
    std::vector<uint16_t> registers(bits.size());
    for (qsizetype i = 0; i < r.values.size(); ++i) {
        bits[size_t(i)] = uint8_t(r.values[i]);
        registers[size_t(i)] = r.values[i];
    }
    if (modbus_set_slave(ctx, r.slaveId) != 0)
        return false;
    switch (r.functionCode) {
    case 0x01: modbus_read_bits(ctx, r.startAddress, count, bits.data()); break;
    case 0x02: modbus_read_input_bits(ctx, r.startAddress, count, bits.data()); break;
    case 0x03: modbus_read_registers(ctx, r.startAddress, count, registers.data()); break;
    case 0x04: modbus_read_input_registers(ctx, r.startAddress, count, registers.data()); break;
    case 0x05: modbus_write_bit(ctx, r.startAddress, r.values.first()); break;
    case 0x06: modbus_write_register(ctx, r.startAddress, r.values.first()); break;
    case 0x0F: modbus_write_bits(ctx, r.startAddress, count, bits.data()); break;
    case 0x10: modbus_write_registers(ctx, r.startAddress, count, registers.data()); break;
    default: return false;
    }
    return true;
}

} // namespace

class ToolPeersTest : public QObject
{
    Q_OBJECT

    PtyPair m_pty;
    modbus_t *m_modbus = nullptr;
    QSerialPort m_line;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_pty.start(), qPrintable(m_pty.errorText()));
        m_modbus = modbus_new_rtu(m_pty.pathA().toLocal8Bit().constData(), 9600, 'N', 8, 1);
        QVERIFY(m_modbus);
        modbus_set_response_timeout(m_modbus, 0, 20000);  // nobody answers
        QVERIFY2(modbus_connect(m_modbus) == 0, modbus_strerror(errno));
        m_line.setPortName(m_pty.pathB());
        QVERIFY2(m_line.open(QIODevice::ReadWrite), qPrintable(m_line.errorString()));
    }

    void cleanupTestCase()
    {
        m_line.close();
        if (m_modbus) {
            modbus_close(m_modbus);
            modbus_free(m_modbus);
        }
    }

    void crcmodAgrees()
    {
        // crcmod takes widths 8, 16, 24, 32 and 64 with both reflections alike;
        // its register starts at init as given, so this also checks that a
        // reflected init is not reversed.
        QRandomGenerator rng(peerSeed);
        QList<CrcCase> cases;
        for (int width : {8, 16, 24, 32, 64}) {
            for (int i = 0; i < 60; ++i)
                cases.append(randomCase(rng, width, i & 1, i & 1));
        }
        for (const CrcModel &model : crcCatalogue()) {
            if (model.width % 8 == 0)
                cases.append({model.params(), randomBytes(rng, rng.bounded(300))});
        }
        // Debian's python, which has the python3-crcmod module.
        compareWithPeer("/usr/bin/python3", QFINDTESTDATA("peers/crcmod_batch.py"), cases);
    }

    void digestCrcAgrees()
    {
        // Digest::CRC covers widths crcmod does not. It reverses a reflected
        // init itself (the script passes ours reversed), and has gaps of its
        // own that are left out: normal widths below 8, width 64, and
        // reflected input with unreflected output.
        QRandomGenerator rng(peerSeed + 1);
        QList<CrcCase> cases;
        for (int width = 1; width <= 63; ++width) {
            for (int i = 0; i < 6; ++i) {
                if (i % 3 == 1 || width >= 8)
                    cases.append(randomCase(rng, width, i % 3 == 1, i % 3 != 0));
            }
        }
        compareWithPeer("perl", QFINDTESTDATA("peers/digest_crc_batch.pl"), cases);
    }

    void zlibCrc32Agrees()
    {
        QRandomGenerator rng(peerSeed + 2);
        for (int size : {0, 1, 3, 15, 16, 17, 255, 4096, 65537, 1 << 20}) {
            const QByteArray data = randomBytes(rng, size);
            const quint32 crc = quint32(crc32(0L, reinterpret_cast<const Bytef *>(data.constData()), uInt(size)));
            QCOMPARE(computeCatalogueCrc(CrcModelId::Crc32, data), quint64(crc));
            const char le[4] = {char(crc), char(crc >> 8), char(crc >> 16), char(crc >> 24)};
            if (size > 0)
                QCOMPARE(appendSendChecksum(data, SendChecksumKind::Crc32).right(4), QByteArray(le, 4));
        }
    }

    void libmodbusFrames_data()
    {
        QTest::addColumn<ModbusRequest>("request");
        // The limits; random requests below cover every function.
        QTest::newRow("01 2000 coils") << request(17, 0x01, 0, 2000);
        QTest::newRow("02 slave 247") << request(247, 0x02, 0xC4, 0x16);
        QTest::newRow("03 125 at the top") << request(2, 0x03, 65411, 125);
        QTest::newRow("05 off at the top") << request(1, 0x05, 0xFFFF, 0, {0});
        QTest::newRow("06 broadcast") << request(0, 0x06, 0x1234, 0, {0xBEEF});
        QTest::newRow("0F 1968 coils") << request(3, 0x0F, 0, 0, QList<quint16>(1968, 1));
        QTest::newRow("10 123 registers") << request(9, 0x10, 100, 0, QList<quint16>(123, 0xA55A));
        QRandomGenerator rng(peerSeed + 3);
        const int functions[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0F, 0x10};
        const int limits[] = {2000, 2000, 125, 125, 1, 1, 1968, 123};
        for (int i = 0; i < 40; ++i) {
            const int f = int(rng.bounded(8));
            const int count = 1 + int(rng.bounded(limits[f]));
            ModbusRequest r = request(int(rng.bounded(248)), functions[f], int(rng.bounded(65536 - count + 1)), count);
            const bool coils = functions[f] == 0x05 || functions[f] == 0x0F;
            for (int k = 0; functions[f] >= 0x05 && k < count; ++k)
                r.values.append(quint16(coils ? rng.bounded(2) : rng.bounded(65536)));
            QTest::addRow("random %d: function %02X, %d", i, functions[f], count) << r;
        }
    }

    void libmodbusFrames()
    {
        QFETCH(ModbusRequest, request);
        const ValueResult<QByteArray> ours = ModbusCodec::buildRtuFrame(request);
        QVERIFY2(ours.isOk(), qPrintable(ours.errorText()));
        m_line.readAll();
        QVERIFY(sendWithLibmodbus(m_modbus, request));
        QByteArray theirs;
        QTRY_VERIFY_WITH_TIMEOUT((theirs += m_line.readAll()).size() >= ours.value().size(), 3000);
        // Anything more than our frame would show up here.
        if (m_line.waitForReadyRead(30))
            theirs += m_line.readAll();
        QCOMPARE(theirs.toHex(' '), ours.value().toHex(' '));
    }
};

QTEST_GUILESS_MAIN(ToolPeersTest)
#include "tst_toolpeers.moc"
