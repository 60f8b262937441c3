#pragma once

#include "common/codecstep.h"
#include "connection/serialparameters.h"
#include "connection/telnetcodec.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

// The server end of a serial port shared over Telnet with serial port
// control, one per network client, in the codec shape: the owner writes
// `write` to the client, acts on the events and calls tick() at `wakeAtMs`.
// It owns no socket and no timer. What the client asks of the port (data for
// the line, new settings, control lines, purges) goes to the Port it is fed
// with, in the order the client sent it, and every setting is answered with
// the value the port then holds, not the one asked for.
//
// Telnet or raw: a serial port control client speaks first (it offers the
// option the moment it connects), so the session says nothing until the
// client does. A first byte that is IAC makes the connection Telnet and the
// session answers with its own offer; any other first byte, or silence for
// kDecisionWaitMs, makes it a raw TCP stream with nothing escaped either way,
// so a plain TCP tool sees the line's bytes and nothing else.
class Rfc2217ServerSession
{
public:
    enum class Mode { Undecided, Telnet, Raw };
    enum class Line { Dtr, Rts, Break };

    // The shared port as the session acts on it.
    class Port
    {
    public:
        virtual ~Port() = default;
        // The client's payload for the line.
        virtual void write(const QByteArray &data) = 0;
        virtual SerialParameters parameters() const = 0;
        // Applies what it can and returns what is in force afterwards.
        virtual SerialParameters apply(const SerialParameters &wanted) = 0;
        virtual bool level(Line line) const = 0;
        // Returns the level in force afterwards.
        virtual bool setLevel(Line line, bool on) = 0;
        // Forgets what the line received and not yet delivered, and what
        // waits to be sent on it.
        virtual void purge(bool received, bool toSend) = 0;
        // The modem-state byte's high nibble (CTS 0x10, DSR 0x20, RI 0x40,
        // CD 0x80) and the line-state byte.
        virtual quint8 modemLines() const = 0;
        virtual quint8 lineState() const = 0;
    };

    struct Event
    {
        enum class Kind {
            Decided,    // value: the Mode reached
            Agreed,     // the client took serial port control
            Suspended,  // the client asks for no more data for now
            Resumed,
            Signature,  // text: the client's signature
        };
        Kind kind = Kind::Decided;
        qint64 value = 0;
        QString text;

        bool operator==(const Event &other) const = default;
    };
    using Step = CodecStep<Event>;

    // A client of serial port control offers it on connect; a raw client
    // that only listens is given the stream once this has passed in silence.
    static constexpr qint64 kDecisionWaitMs = 500;
    static constexpr char kSignature[] = "Tessaline";
    // Until the client sets its masks: every modem line, no line-state bit.
    static constexpr quint8 kDefaultModemStateMask = 0xFF;
    static constexpr quint8 kDefaultLineStateMask = 0x00;

    Step start(qint64 nowMs);
    Step feed(const QByteArray &bytes, qint64 nowMs, Port &port);
    Step tick(qint64 nowMs);

    // Line data for the client: 0xFF doubled under Telnet, as is when raw.
    // Only for a decided session (canTakeData()).
    QByteArray encode(const QByteArray &data) const;
    // The port's modem lines or line state may have changed: a notice for
    // the client when a bit within its mask did.
    QByteArray portStateChanged(const Port &port);

    Mode mode() const { return m_mode; }
    bool isAgreed() const { return m_agreed; }
    bool isSuspended() const { return m_suspended; }
    bool canTakeData() const { return m_mode != Mode::Undecided && !m_suspended; }
    quint8 modemStateMask() const { return m_modemMask; }
    quint8 lineStateMask() const { return m_lineMask; }
    QString clientSignature() const { return m_clientSignature; }

private:
    Step finish(Step &&step) const;
    void decide(Mode mode, Step &step);
    void onCodecEvent(const TelnetCodec::Event &event, Port &port, Step &step);
    void answerParameter(TelnetCodec::Command command, const SerialParameters &inForce, Step &step) const;
    void answerQuestion(TelnetCodec::Command command, qint64 value, const Port &port, Step &step) const;
    QByteArray lineReply(Line line, bool on) const;
    QByteArray modemStateNotice(quint8 lines, bool always);

    TelnetCodec m_codec{TelnetCodec::Role::Server};
    Mode m_mode = Mode::Undecided;
    bool m_started = false;
    qint64 m_deadlineMs = 0;
    bool m_agreed = false;
    bool m_suspended = false;
    quint8 m_modemMask = kDefaultModemStateMask;
    quint8 m_lineMask = kDefaultLineStateMask;
    // The levels last told, to report changes (the low nibble's deltas).
    int m_toldModemLines = -1;
    int m_toldLineState = -1;
    QString m_clientSignature;
};
