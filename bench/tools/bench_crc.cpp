// Prints CRC throughput over a 64 MiB buffer, one line per figure:
// name, value, unit. zlib's crc32 runs in the same process as the yardstick.

#include "tools/crccatalogue.h"
#include "tools/crcengine.h"
#include "tools/sendchecksum.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QRandomGenerator>

#include <zlib.h>

#include <cstdio>
#include <functional>

namespace {

constexpr qsizetype bufferSize = 64 * 1024 * 1024;
constexpr int rounds = 3;

// Best of a few rounds: the machine is shared, the best is the least disturbed.
double megabytesPerSecond(qsizetype bytes, const std::function<quint64()> &run, quint64 *result)
{
    qint64 best = -1;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        *result = run();
        const qint64 ns = timer.nsecsElapsed();
        if (best < 0 || ns < best)
            best = ns;
    }
    return double(bytes) / 1e6 / (double(best) / 1e9);
}

void print(const char *name, double value, const char *unit)
{
    std::printf("%s %.2f %s\n", name, value, unit);
    std::fflush(stdout);
}

} // namespace

int main()
{
    QByteArray data(bufferSize, Qt::Uninitialized);
    QRandomGenerator rng(0xB3);
    rng.fillRange(reinterpret_cast<quint32 *>(data.data()), data.size() / 4);

    quint64 ours = 0;
    quint64 theirs = 0;
    quint64 other = 0;
    const double zlibSpeed = megabytesPerSecond(data.size(), [&] {
        return quint64(crc32(0L, reinterpret_cast<const Bytef *>(data.constData()), uInt(data.size())));
    }, &theirs);
    const double crc32Speed = megabytesPerSecond(data.size(), [&] {
        return computeCatalogueCrc(CrcModelId::Crc32, data);
    }, &ours);
    if (ours != theirs) {
        std::fprintf(stderr, "CRC-32 differs from zlib: %llx against %llx\n", ours, theirs);
        return 1;
    }
    const double modbusSpeed = megabytesPerSecond(data.size(), [&] {
        return computeCatalogueCrc(CrcModelId::Crc16Modbus, data);
    }, &other);

    // The reference engine goes one bit at a time; a smaller slice is enough.
    const QByteArrayView slice(data.constData(), 4 * 1024 * 1024);
    const CrcParams crc32Params = findCrcModel(CrcModelId::Crc32)->params();
    const double engineSpeed = megabytesPerSecond(slice.size(), [&] {
        return computeCrc(slice, crc32Params);
    }, &other);

    print("crc32_zlib", zlibSpeed, "MB/s");
    print("crc32", crc32Speed, "MB/s");
    print("crc32_vs_zlib", crc32Speed / zlibSpeed, "ratio");
    print("crc16_modbus", modbusSpeed, "MB/s");
    print("crc32_bitwise_engine", engineSpeed, "MB/s");
    return 0;
}
