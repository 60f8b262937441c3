#include "telnetfuzztarget.h"

#include "connection/rfc2217clientsession.h"
#include "connection/telnetcodec.h"

#include <QByteArray>
#include <QList>

namespace {

using CodecEvent = TelnetCodec::Event;
using SessionEvent = Rfc2217ClientSession::Event;

// What a codec made of an input, independent of how it was split: the
// payload joined, the bytes it wrote, and the other events in order.
struct CodecOutcome
{
    QByteArray payload;
    QByteArray written;
    QList<CodecEvent> events;
    qsizetype longestEventBytes = 0;
};

CodecOutcome runCodec(TelnetCodec::Role role, const QByteArray &input, const QList<qsizetype> &cuts)
{
    TelnetCodec codec(role);
    CodecOutcome out;
    codec.start();
    qsizetype at = 0;
    auto take = [&](TelnetCodec::Step &&step) {
        out.written += step.write;
        for (const CodecEvent &event : std::as_const(step.events)) {
            if (event.kind == CodecEvent::Kind::Data) {
                out.payload += event.bytes;
                continue;
            }
            out.longestEventBytes = qMax(out.longestEventBytes, event.bytes.size());
            out.events.append(event);
        }
    };
    for (qsizetype cut : cuts) {
        take(codec.feed(input.mid(at, cut - at)));
        at = cut;
    }
    take(codec.feed(input.mid(at)));
    return out;
}

struct SessionOutcome
{
    QByteArray payload;
    QByteArray written;
    Rfc2217ClientSession::Negotiation negotiation = Rfc2217ClientSession::Negotiation::Undecided;
    int decisions = 0;
};

// The client session fed the input in pieces, with the clock moving by the
// steering bytes, and the user sending and changing parameters in between.
SessionOutcome runSession(const QByteArray &input, const QList<qsizetype> &cuts, bool useRemote, bool withTime)
{
    Rfc2217ClientSession session({}, useRemote);
    SessionOutcome out;
    qint64 now = 0;
    auto take = [&](Rfc2217ClientSession::Step &&step) {
        out.written += step.write;
        for (const SessionEvent &event : std::as_const(step.events)) {
            if (event.kind == SessionEvent::Kind::Payload)
                out.payload += event.bytes;
            else if (event.kind == SessionEvent::Kind::ModeDecided)
                ++out.decisions;
        }
    };
    take(session.start(now));
    qsizetype at = 0;
    for (qsizetype cut : cuts) {
        take(session.feed(input.mid(at, cut - at), now));
        if (withTime) {
            now += quint8(input.at(at)) * 4;
            take(session.tick(now));
            take(session.send(input.mid(at, 3), now));
            take(session.setBreak(input.at(at) & 1));
            take(session.setSerialParameters({qint32(quint8(input.at(at))) * 300}));
        }
        at = cut;
    }
    take(session.feed(input.mid(at), now));
    take(session.tick(now + Rfc2217ClientSession::kDecisionWaitMs));
    out.negotiation = session.negotiation();
    return out;
}

} // namespace

QString fuzzTelnetReceiver(const uint8_t *data, size_t size)
{
    if (size < 1)
        return {};
    const uint8_t steer = data[0];
    const QByteArray input(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    const TelnetCodec::Role role = (steer & 1) ? TelnetCodec::Role::Server : TelnetCodec::Role::Client;

    // Cut points from the steering byte: every byte, or strides of it.
    QList<qsizetype> everyByte;
    for (qsizetype i = 1; i < input.size(); ++i)
        everyByte.append(i);
    QList<qsizetype> strides;
    const qsizetype stride = 1 + (steer >> 1);
    for (qsizetype i = stride; i < input.size(); i += stride)
        strides.append(i);

    // The codec: the same outcome however the bytes were split, never more
    // payload than input, and nothing kept beyond its bound.
    const CodecOutcome whole = runCodec(role, input, {});
    for (const QList<qsizetype> &cuts : {everyByte, strides}) {
        const CodecOutcome split = runCodec(role, input, cuts);
        if (split.payload != whole.payload)
            return QStringLiteral("codec payload depends on how the input was split");
        if (split.written != whole.written)
            return QStringLiteral("codec answers depend on how the input was split");
        if (split.events != whole.events)
            return QStringLiteral("codec events depend on how the input was split");
    }
    if (whole.payload.size() > input.size())
        return QStringLiteral("codec produced more payload than it was given");
    if (whole.longestEventBytes > TelnetCodec::kMaxSubnegotiation)
        return QStringLiteral("a subnegotiation longer than the bound was kept");

    // Escaping is undone exactly by a fresh receiver.
    const CodecOutcome escaped = runCodec(role, TelnetCodec::escape(input), {});
    if (escaped.payload != input || !escaped.events.isEmpty())
        return QStringLiteral("escaped data did not come back unchanged");

    // The session: payload independent of splitting (time standing still),
    // decided exactly once, and never more payload than input.
    const bool useRemote = steer & 0x80;
    const SessionOutcome sessionWhole = runSession(input, {}, useRemote, false);
    const SessionOutcome sessionSplit = runSession(input, everyByte, useRemote, false);
    if (sessionSplit.payload != sessionWhole.payload || sessionSplit.negotiation != sessionWhole.negotiation)
        return QStringLiteral("session outcome depends on how the input was split");
    if (sessionWhole.payload.size() > input.size())
        return QStringLiteral("session produced more payload than it was given");
    for (const SessionOutcome &s : {sessionWhole, sessionSplit, runSession(input, strides, useRemote, true)}) {
        if (s.decisions != 1 || s.negotiation == Rfc2217ClientSession::Negotiation::Undecided)
            return QStringLiteral("the session did not decide exactly once");
    }
    return {};
}
