#pragma once

// Memory stand-ins for the file source and sink, and a link that joins two
// codecs on a virtual clock, optionally damaging what one side sends.

#include "transfer/xfersink.h"
#include "transfer/xfersource.h"
#include "transfer/xmodemcodec.h"

#include <QRandomGenerator>

#include <functional>

class MemorySource : public XferSource
{
public:
    explicit MemorySource(QByteArray data) : m_data(std::move(data)) {}

    qint64 size() const override { return m_data.size(); }
    QByteArray read(qint64 offset, qint64 length) override
    {
        ++reads;
        m_failed = failReads;
        return failReads ? QByteArray() : m_data.mid(offset, length);
    }
    bool lastReadFailed() const override { return m_failed; }
    bool unchanged() const override { return !changed; }

    bool failReads = false;
    bool changed = false;
    int reads = 0;

private:
    QByteArray m_data;
    bool m_failed = false;
};

class MemorySink : public XferSink
{
public:
    bool open(const QString &name, qint64 expectedSize) override
    {
        ++opens;
        openedName = name;
        openedSize = expectedSize;
        return !failOpen;
    }
    bool write(const QByteArray &bytes) override
    {
        if (failWrite)
            return false;
        data += bytes;
        return true;
    }
    bool finish(qint64 finalSize) override
    {
        ++finishes;
        finishedSize = finalSize;
        return !failFinish;
    }
    void abort(bool keepPartial) override { aborted = keepPartial ? 2 : 1; }
    void setModificationTime(qint64 secs) override { mtime = secs; }

    bool failOpen = false;
    bool failWrite = false;
    bool failFinish = false;
    int opens = 0;
    int finishes = 0;
    int aborted = 0;
    QString openedName;
    qint64 openedSize = -2;
    qint64 finishedSize = -2;
    qint64 mtime = 0;
    QByteArray data;
};

// One codec and what it has written but the peer has not yet read.
struct LinkEnd
{
    XmodemCodec *codec = nullptr;
    QByteArray outbox;
    QByteArray everythingWritten;
    bool writtenDue = false;
    qint64 wakeAt = -1;
    bool ended = false;
    XmodemEnd end;

    void take(const XmodemAction &a)
    {
        if (!a.write.isEmpty()) {
            outbox += a.write;
            everythingWritten += a.write;
            writtenDue = !a.ended();
        }
        wakeAt = a.wakeAtMs;
        if (a.ended()) {
            ended = true;
            end = a.events.first();
            wakeAt = -1;
        }
    }
};

// Joins two codecs. Bytes travel in chunks of random size (1 byte when
// `byteByByte`); `damage` may alter, drop or repeat the sender's bytes on
// their way. Every round in which bytes move takes a millisecond, so a
// reply is always written later than what it answers, as on a real line.
class CodecLink
{
public:
    CodecLink(XmodemCodec *a, XmodemCodec *b, quint32 seed) : m_rng(seed) { m_ends[0].codec = a; m_ends[1].codec = b; }

    LinkEnd &end(int i) { return m_ends[i]; }
    // What crossed the link, one line per chunk, for failure reports.
    QStringList trace;
    qint64 now() const { return m_now; }

    bool byteByByte = false;
    // Called with the bytes end 0 sends; returns what arrives.
    std::function<QByteArray(const QByteArray &, QRandomGenerator &)> damage;

    void start(const XmodemAction &a0, const XmodemAction &a1)
    {
        m_ends[0].take(a0);
        m_ends[1].take(a1);
    }

    // Runs until both ended, or one ended and nothing more moves, or the
    // step limit. Returns false on the limit.
    bool run(int maxSteps = 5000000)
    {
        for (int step = 0; step < maxSteps; ++step) {
            if (m_ends[0].ended && m_ends[1].ended)
                return true;
            bool moved = false;
            for (int i = 0; i < 2; ++i) {
                LinkEnd &me = m_ends[i];
                LinkEnd &peer = m_ends[1 - i];
                if (me.outbox.isEmpty())
                    continue;
                const qsizetype n = byteByByte ? 1 : 1 + m_rng.bounded(qMin<qsizetype>(me.outbox.size(), 1100));
                QByteArray chunk = me.outbox.left(n);
                me.outbox.remove(0, n);
                const QByteArray sentChunk = chunk;
                if (i == 0 && damage)
                    chunk = damage(chunk, m_rng);
                trace << QStringLiteral("%1 %2 %3 %4%5")
                             .arg(m_now)
                             .arg(i == 0 ? "A>B" : "B>A")
                             .arg(chunk.size())
                             .arg(QString::fromLatin1(chunk.left(4).toHex()))
                             .arg(chunk == sentChunk ? QString() : QStringLiteral(" DAMAGED"));
                if (!peer.ended && !chunk.isEmpty())
                    peer.take(peer.codec->onBytes(chunk, m_now));
                moved = true;
            }
            for (LinkEnd &me : m_ends) {
                if (me.writtenDue && me.outbox.isEmpty() && !me.ended) {
                    me.writtenDue = false;
                    me.take(me.codec->onBytesWritten(m_now));
                    moved = true;
                }
            }
            if (moved) {
                ++m_now;
                for (LinkEnd &me : m_ends) {
                    if (!me.ended && me.wakeAt >= 0 && me.wakeAt <= m_now)
                        me.take(me.codec->tick(m_now));
                }
                continue;
            }
            qint64 next = -1;
            for (const LinkEnd &me : m_ends) {
                if (!me.ended && me.wakeAt >= 0 && (next < 0 || me.wakeAt < next))
                    next = me.wakeAt;
            }
            if (next < 0)
                return m_ends[0].ended || m_ends[1].ended;
            m_now = qMax(m_now, next);
            for (LinkEnd &me : m_ends) {
                if (!me.ended && me.wakeAt >= 0 && me.wakeAt <= m_now) {
                    trace << QStringLiteral("%1 tick %2").arg(m_now).arg(&me == &m_ends[0] ? "A" : "B");
                    me.take(me.codec->tick(m_now));
                }
            }
        }
        return false;
    }

private:
    LinkEnd m_ends[2];
    qint64 m_now = 0;
    QRandomGenerator m_rng;
};
