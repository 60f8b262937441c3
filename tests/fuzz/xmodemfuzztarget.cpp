#include "xmodemfuzztarget.h"

#include "transfer/xfersink.h"
#include "transfer/xmodemcodec.h"

#include <QByteArray>
#include <QList>

namespace {

constexpr char SOH = 0x01, STX = 0x02;

// The device's bytes stay well below the codec's input buffer bound, so
// every block it parses is one contiguous piece of them (past the bound it
// drops bytes on purpose, and a block could then be spliced together).
constexpr qsizetype kMaxPayload = XmodemCodec::kMaxInputBuffer / 2;
// Timer calls the codec may take to end once the device has gone quiet:
// a minute of start requests 3 s apart, the quiet waits, ten retries.
constexpr int kMaxTicksAfterInput = 64;

constexpr qsizetype kChunkLengths[16] = {0, 1, 2, 3, 5, 8, 31, 64, 128, 132, 133, 134, 500, 1028, 1029, 1030};
constexpr qint64 kTimeSteps[8] = {0, 1, 249, 250, 999, 1000, 3000, 10000};

// Written out bit by bit here rather than taken from the codec, so a wrong
// table there cannot agree with itself.
quint16 crc16(QByteArrayView data)
{
    quint16 crc = 0;
    for (char c : data) {
        crc ^= quint16(quint8(c) << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? quint16((crc << 1) ^ 0x1021) : quint16(crc << 1);
    }
    return crc;
}

quint8 sum8(QByteArrayView data)
{
    quint8 sum = 0;
    for (char c : data)
        sum = quint8(sum + quint8(c));
    return sum;
}

// Gives everything shaped like a block a right complement and check, so the
// fuzzer reaches what lies behind them.
void repairBlocks(QByteArray &payload, bool crc)
{
    for (qsizetype i = 0; i < payload.size();) {
        const char c = payload.at(i);
        const qsizetype n = c == SOH ? 128 : c == STX ? 1024 : 0;
        const qsizetype end = i + 3 + n + (crc ? 2 : 1);
        if (n == 0 || end > payload.size()) {
            ++i;
            continue;
        }
        payload[i + 2] = char(~payload.at(i + 1));
        const QByteArrayView data = QByteArrayView(payload).sliced(i + 3, n);
        if (crc) {
            const quint16 value = crc16(data);
            payload[end - 2] = char(value >> 8);
            payload[end - 1] = char(value & 0xFF);
        } else {
            payload[end - 1] = char(sum8(data));
        }
        i = end;
    }
}

struct SinkWrite
{
    QByteArray bytes;
    qsizetype fedBefore = 0;  // device bytes the codec had been given by then
};

// Holds the codec to the sink's contract: one open, then writes, then one
// finish; never past the announced size; nothing more once over the cap.
class CheckingSink : public XferSink
{
public:
    enum class Fault { None, Open, Write, Finish };

    Fault fault = Fault::None;
    qint64 cap = 0;
    const qsizetype *fed = nullptr;

    int opens = 0;
    bool opened = false;
    bool openFailed = false;
    qint64 openedSize = -1;
    int finishes = 0;
    bool finishFailed = false;
    bool writeFailed = false;
    QByteArray data;
    QList<SinkWrite> writes;
    QString violation;

    bool open(const QString &name, qint64 expectedSize) override
    {
        if (++opens > 1)
            note("opened twice");
        if (name.isEmpty())
            note("opened without a name");
        if (cap > 0 && expectedSize > cap)
            note("opened for a file announced over the cap");
        if (fault == Fault::Open) {
            openFailed = true;
            return false;
        }
        opened = true;
        openedSize = expectedSize;
        return true;
    }

    bool write(const QByteArray &bytes) override
    {
        if (!opened)
            note("written before a successful open");
        if (finishes > 0)
            note("written after finish");
        if (bytes.isEmpty())
            note("an empty write");
        if (cap > 0 && data.size() > cap)
            note("written after the cap was exceeded");
        if (openedSize >= 0 && data.size() + bytes.size() > openedSize)
            note("written beyond the announced size");
        writes.append({bytes, *fed});
        if (fault == Fault::Write) {
            writeFailed = true;
            return false;
        }
        data += bytes;
        return true;
    }

    bool finish(qint64 finalSize) override
    {
        if (!opened)
            note("finished without a successful open");
        if (++finishes > 1)
            note("finished twice");
        if (finalSize != data.size())
            note("finished with a size other than what was written");
        if (fault == Fault::Finish) {
            finishFailed = true;
            return false;
        }
        return true;
    }

    void abort(bool keepPartial) override { Q_UNUSED(keepPartial); }

private:
    void note(const char *what)
    {
        if (violation.isEmpty())
            violation = QStringLiteral("sink: ") + QLatin1String(what);
    }
};

// Every write the sink saw must be the data of an intact block, numbered in
// turn from 1, that the device sent after the previous one and before the
// write; only a block cut by the announced size may give less than all.
QString checkWritesCameFromIntactBlocks(const QByteArray &stream, const CheckingSink &sink)
{
    qsizetype from = 0;
    qint64 total = 0;
    for (qsizetype i = 0; i < sink.writes.size(); ++i) {
        const SinkWrite &w = sink.writes.at(i);
        const int number = int((i + 1) & 0xFF);
        qsizetype next = -1;
        for (qsizetype p = from; p + 3 < w.fedBefore && next < 0; ++p) {
            const char c = stream.at(p);
            if (c != SOH && c != STX)
                continue;
            const qsizetype n = c == SOH ? 128 : 1024;
            const qsizetype checkAt = p + 3 + n;
            if (quint8(stream.at(p + 1)) != number || quint8(stream.at(p + 2)) != (~number & 0xFF)
                || checkAt + 1 > w.fedBefore)
                continue;
            const QByteArrayView data = QByteArrayView(stream).sliced(p + 3, n);
            if (!data.startsWith(w.bytes))
                continue;
            if (w.bytes.size() != n && !(sink.openedSize >= 0 && total + w.bytes.size() == sink.openedSize))
                continue;
            if (quint8(stream.at(checkAt)) == sum8(data))
                next = checkAt + 1;
            else if (checkAt + 2 <= w.fedBefore
                     && quint16((quint8(stream.at(checkAt)) << 8) | quint8(stream.at(checkAt + 1))) == crc16(data))
                next = checkAt + 2;
        }
        if (next < 0)
            return QStringLiteral("write %1 (%2 bytes) was not carried by an intact block %3")
                .arg(i + 1)
                .arg(w.bytes.size())
                .arg(number);
        from = next;
        total += w.bytes.size();
    }
    return {};
}

// The codec plus what its owner knows of it: whether our bytes are still
// on their way, when it wants a timer call, and how it ended.
class Receiver
{
public:
    Receiver(XmodemVariant variant, CheckingSink *sink) : codec(variant, sink) {}

    XmodemCodec codec;
    qint64 now = 1000;
    bool pending = false;
    qint64 wake = -1;
    bool ended = false;
    bool cancelled = false;  // by the user, through cancel()
    XmodemEnd end;
    QByteArray lastWrite;
    QString violation;

    void take(const XmodemAction &a)
    {
        if (ended) {
            if (!a.write.isEmpty() || a.ended() || a.wantsWake())
                note(QStringLiteral("the codec answered after it had ended"));
            return;
        }
        if (a.events.size() > 1)
            note(QStringLiteral("one call ended the transfer twice"));
        for (char c : a.write) {
            if (!QByteArrayView("CG\x15\x06\x18\x08").contains(c))
                note(QStringLiteral("the receiver wrote the byte %1").arg(quint8(c), 2, 16, QLatin1Char('0')));
        }
        if (!a.write.isEmpty()) {
            pending = true;
            lastWrite = a.write;
        }
        if (a.ended()) {
            ended = true;
            pending = false;
            end = a.events.first();
            checkEnd(a);
        } else {
            wake = a.wakeAtMs;
            // A running codec with nothing in flight must want a call back,
            // or the transfer would hang for good.
            if (!pending && !a.wantsWake())
                note(QStringLiteral("running, nothing in flight, and no wake time"));
        }
        if (codec.isEnded() != ended)
            note(QStringLiteral("the state and the actions disagree about the end"));
    }

    // Reports our bytes as written until the codec has nothing more to say.
    void settle(int limit)
    {
        for (int i = 0; pending && !ended && i < limit; ++i) {
            pending = false;
            take(codec.onBytesWritten(now));
        }
        if (pending && !ended)
            note(QStringLiteral("writes never settled"));
    }

    void note(const QString &what)
    {
        if (violation.isEmpty())
            violation = what;
    }

private:
    void checkEnd(const XmodemAction &a)
    {
        if (a.wantsWake())
            note(QStringLiteral("a wake time with the end"));
        if (end.success) {
            if (end.code != XmodemError::None || !end.message.isEmpty() || codec.state() != XmodemCodec::State::Done)
                note(QStringLiteral("a success with a code, a message or the wrong state"));
            return;
        }
        static const QList<int> receiveCodes = {XmodemError::NeverStarted, XmodemError::RetriesExhausted,
                                                XmodemError::DeviceCancelled, XmodemError::CreateFailed,
                                                XmodemError::WriteFailed, XmodemError::SaveFailed,
                                                XmodemError::SizeCap, XmodemError::OutOfStep};
        if (!receiveCodes.contains(end.code) && !(cancelled && end.code == XmodemError::LocalCancel))
            note(QStringLiteral("a receiver failure with code %1").arg(end.code));
        if (end.message.isEmpty())
            note(QStringLiteral("a failure (code %1) without a message").arg(end.code));
        if (codec.state() != XmodemCodec::State::Failed)
            note(QStringLiteral("a failure outside the Failed state"));
        // The device is told to stop unless it stopped, never began, or the
        // data all arrived and only saving failed.
        const bool tellDevice = end.code != XmodemError::NeverStarted && end.code != XmodemError::DeviceCancelled
                                && end.code != XmodemError::SaveFailed;
        if (a.write.endsWith(XmodemCodec::cancelSequence()) != tellDevice)
            note(QStringLiteral("code %1 %2 the cancel sequence")
                     .arg(end.code)
                     .arg(tellDevice ? QStringLiteral("without") : QStringLiteral("with")));
    }
};

} // namespace

QString fuzzXmodemReceiver(const uint8_t *data, size_t size)
{
    if (size < 3)
        return {};
    const uint8_t mode = data[0];
    const auto variant = XmodemVariant((mode & 7) % 5);
    const qint64 cap = (mode & 0x80) ? 1 + 37 * qint64(data[1]) : 0;
    const qsizetype cancelAfter = (mode & 0x80) ? 0 : data[1];
    const qsizetype k = qMin<qsizetype>(data[2], qsizetype(size) - 3);
    const QByteArray pacing(reinterpret_cast<const char *>(data + 3), k);
    QByteArray payload(reinterpret_cast<const char *>(data + 3 + k), qMin<qsizetype>(qsizetype(size) - 3 - k, kMaxPayload));
    if (mode & 8)
        repairBlocks(payload, variant != XmodemVariant::Xmodem);

    qsizetype fed = 0;
    CheckingSink sink;
    sink.cap = cap;
    sink.fed = &fed;
    switch ((mode >> 4) & 7) {
    case 1: sink.fault = CheckingSink::Fault::Open; break;
    case 2: sink.fault = CheckingSink::Fault::Write; break;
    case 3: sink.fault = CheckingSink::Fault::Finish; break;
    default: break;
    }
    Receiver r(variant, &sink);
    r.codec.setReceiveSizeCap(cap);
    r.take(r.codec.startReceive(QStringLiteral("received.bin"), r.now));
    const int settleLimit = int(payload.size()) + 16;

    // The device's bytes in chunks, time passing between them and the timer
    // called after each, due or early; our writes reported done at once or
    // held back.
    for (qsizetype at = 0, chunk = 0; at < payload.size(); ++chunk) {
        const uint8_t pace = k > 0 ? quint8(pacing.at(chunk % k)) : 0;
        const qsizetype wanted = kChunkLengths[pace & 15];
        const qsizetype n = wanted == 0 ? payload.size() - at : qMin(wanted, payload.size() - at);
        fed += n;
        r.take(r.codec.onBytes(QByteArrayView(payload).sliced(at, n), r.now));
        at += n;
        const bool hold = pace & 0x80;
        if (!hold)
            r.settle(settleLimit);
        r.now += kTimeSteps[(pace >> 4) & 7];
        if (!r.pending)
            r.take(r.codec.tick(r.now));
        if (!hold)
            r.settle(settleLimit);
        if (chunk + 1 == cancelAfter && !r.ended) {
            r.cancelled = true;
            r.take(r.codec.cancel(r.now));
            if (!r.ended || r.end.code != XmodemError::LocalCancel)
                r.note(QStringLiteral("cancelling a running transfer did not end it as cancelled"));
        }
    }

    // The device has gone quiet: the codec must end on its own.
    r.settle(settleLimit);
    for (int ticks = 0; !r.ended && !r.pending && r.wake >= 0 && ticks < kMaxTicksAfterInput; ++ticks) {
        r.now = qMax(r.now, r.wake);
        r.take(r.codec.tick(r.now));
        r.settle(settleLimit);
    }
    if (!r.ended)
        r.note(QStringLiteral("still running %1 timer calls after the device went quiet").arg(kMaxTicksAfterInput));

    // An ended codec stays silent, and leaves the sink alone.
    const qsizetype writesAtEnd = sink.writes.size();
    const int finishesAtEnd = sink.finishes;
    const int opensAtEnd = sink.opens;
    r.take(r.codec.onBytes(QByteArray("\x01\x18\x18\x04", 4), r.now));
    r.take(r.codec.onBytesWritten(r.now));
    r.take(r.codec.tick(r.now + 1000000));
    r.take(r.codec.cancel(r.now));
    if (sink.writes.size() != writesAtEnd || sink.finishes != finishesAtEnd || sink.opens != opensAtEnd)
        r.note(QStringLiteral("the sink was used after the end"));

    if (!r.violation.isEmpty())
        return r.violation;
    if (!sink.violation.isEmpty())
        return sink.violation;

    // How it ended agrees with what happened to the sink.
    const int code = r.end.success ? XmodemError::None : r.end.code;
    if (sink.openFailed != (code == XmodemError::CreateFailed))
        return QStringLiteral("open failed: %1, ended with code %2").arg(sink.openFailed).arg(code);
    if (sink.writeFailed != (code == XmodemError::WriteFailed))
        return QStringLiteral("write failed: %1, ended with code %2").arg(sink.writeFailed).arg(code);
    if (sink.finishFailed != (code == XmodemError::SaveFailed))
        return QStringLiteral("finish failed: %1, ended with code %2").arg(sink.finishFailed).arg(code);
    if (cap > 0 && sink.data.size() > cap && code != XmodemError::SizeCap)
        return QStringLiteral("%1 bytes over a cap of %2, ended with code %3").arg(sink.data.size()).arg(cap).arg(code);
    if (code == XmodemError::SizeCap && sink.data.size() <= cap && sink.opens > 0)
        return QStringLiteral("a cap failure with %1 bytes under a cap of %2").arg(sink.data.size()).arg(cap);
    if (r.end.success) {
        if (sink.opened && sink.finishes != 1)
            return QStringLiteral("finished the transfer without finishing the file");
        if (!sink.opened && (!isYmodemVariant(variant) || !sink.writes.isEmpty()))
            return QStringLiteral("finished the transfer without a file");
        if (sink.openedSize >= 0 && sink.data.size() != sink.openedSize)
            return QStringLiteral("finished with %1 of %2 announced bytes").arg(sink.data.size()).arg(sink.openedSize);
        if (sink.openedSize < 0 && sink.data.size() % 128 != 0)
            return QStringLiteral("finished with %1 bytes, not whole blocks").arg(sink.data.size());
    }
    if (r.codec.progress().bytesDone != sink.data.size())
        return QStringLiteral("progress says %1 bytes, the sink has %2").arg(r.codec.progress().bytesDone).arg(sink.data.size());
    return checkWritesCameFromIntactBlocks(payload, sink);
}
