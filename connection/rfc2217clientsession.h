#pragma once

#include "common/codecstep.h"
#include "connection/serialparameters.h"
#include "connection/telnetcodec.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QSerialPort>
#include <QString>

#include <optional>


// The client end of a serial port reached over Telnet with serial port
// control, between a pane and its TCP socket, in the codec shape: the owner
// writes `write` to the socket, shows the events and calls tick() at
// `wakeAtMs`. It owns no socket and no timer.
//
// After start() it offers serial port control and decides, once, how to talk
// to the remote: with serial port control, as plain Telnet (the remote speaks
// Telnet but refuses control) or as transparent TCP (the remote speaks no
// Telnet at all). Received payload is delivered at once; only bytes that
// repeat our own offer wait, at most until the decision.
class Rfc2217ClientSession
{
    Q_DECLARE_TR_FUNCTIONS(Rfc2217ClientSession)

public:
    enum class Negotiation : int { Undecided = 0, Rfc2217 = 1, PlainTelnet = 2, TransparentTcp = 3 };

    using SerialParameters = ::SerialParameters;

    struct Event
    {
        enum class Kind {
            Payload,            // bytes: received data for the pane
            ModeDecided,        // value: the Negotiation reached; text: the notice
            RemoteSignature,    // text: the remote's signature
            RemoteBaudRate,     // value: bits per second; text: the notice
            RemoteDataBits,     // value: a QSerialPort::DataBits
            RemoteParity,       // value: a QSerialPort::Parity
            RemoteStopBits,     // value: a QSerialPort::StopBits
            RemoteFlowControl,  // value: a QSerialPort::FlowControl
            RemoteBreak,        // value: 1 on, 0 off
            RemoteDtr,          // value: 1 on, 0 off
            RemoteRts,          // value: 1 on, 0 off
            LineState,          // value: the line-state byte; text: a note when it reports errors
            ModemState,         // value: the modem-state byte (ModemStateBit)
            InvalidReply,       // text: what was ignored; the pane keeps its setting
        };
        Kind kind = Kind::Payload;
        qint64 value = 0;
        QByteArray bytes;
        QString text;

        bool operator==(const Event &other) const = default;
    };
    using Step = CodecStep<Event>;

    // Bits of the modem-state byte: the high nibble is the lines' level.
    enum ModemStateBit : quint8 {
        DeltaCts = 0x01,
        DeltaDsr = 0x02,
        TrailingEdgeRing = 0x04,
        DeltaCarrierDetect = 0x08,
        Cts = 0x10,
        Dsr = 0x20,
        RingIndicator = 0x40,
        CarrierDetect = 0x80,
    };
    // Bits of the line-state byte that report a fault.
    enum LineStateBit : quint8 {
        OverrunError = 0x02,
        ParityError = 0x04,
        FramingError = 0x08,
        BreakDetected = 0x10,
        TimeoutError = 0x80,
    };

    // How long the remote has to answer the offer before the session decides
    // without it. A Telnet server answers on connect, within one round trip;
    // 300 ms covers a slow network path several times over. The wait costs a
    // plain TCP device nothing visible: its data is shown as it arrives and
    // ours goes out at once; only data with a 0xFF byte waits, since whether
    // to double it depends on the outcome.
    static constexpr qint64 kDecisionWaitMs = 300;
    // Outgoing data held for the decision. More than this decides at once
    // from what is known, rather than growing without end.
    static constexpr qsizetype kMaxHeldBytes = 64 * 1024;
    // Carrier detect, ring, DSR and CTS changes.
    static constexpr quint8 kModemStateMask = 0xF0;
    static constexpr char kSignature[] = "Tessaline";

    // useRemoteSerialConfig: ask the remote for its parameters and report
    // them (the pane adopts them) instead of pushing the pane's own.
    Rfc2217ClientSession(const SerialParameters &parameters, bool useRemoteSerialConfig);

    // The connection is up: forgets any earlier connection and returns the
    // offer, exactly FF FB 2C FF FB 00 FF FD 00 FF FB 03 FF FD 03.
    Step start(qint64 nowMs);
    // Bytes from the socket as they arrived, split anywhere.
    Step feed(const QByteArray &bytes, qint64 nowMs);
    // Decides without the remote's answer once the wait is over.
    Step tick(qint64 nowMs);

    // Outgoing payload: doubled 0xFF under Telnet, as is over transparent
    // TCP; data without 0xFF is never copied.
    Step send(const QByteArray &data, qint64 nowMs);

    // The pane's parameters changed. With serial port control and without
    // the remote's configuration, sends those that differ from what the
    // remote last confirmed.
    Step setSerialParameters(const SerialParameters &parameters);
    // Control lines, sent only with serial port control. Nothing waits for
    // the remote's answer: some remotes never give one (a pty refuses DTR
    // and RTS and the server stays silent).
    Step setBreak(bool on);
    Step setDtr(bool on);
    Step setRts(bool on);

    Negotiation negotiation() const { return m_negotiation; }
    bool useRemoteSerialConfig() const { return m_useRemoteSerialConfig; }
    SerialParameters serialParameters() const { return m_wanted; }
    QString remoteSignature() const { return m_remoteSignature; }
    // The modem-state mask the remote says it applies.
    quint8 remoteModemStateMask() const { return m_codec.modemStateMask(); }

private:
    Step finish(Step &&step) const;
    void decideWithoutAnswer(Step &step);
    void decide(Negotiation negotiation, Step &step);
    void takeCodecStep(TelnetCodec::Step &&codecStep, Step &step);
    void onSubcommand(const TelnetCodec::Event &event, Step &step);
    void pushChangedParameters(Step &step);
    void queryRemoteParameters(Step &step);
    Step control(TelnetCodec::Control control);
    QString lineStateNote(quint8 lineState) const;
    static void addPayload(Step &step, const QByteArray &bytes);

    TelnetCodec m_codec{TelnetCodec::Role::Client};
    SerialParameters m_wanted;
    bool m_useRemoteSerialConfig = false;
    bool m_started = false;
    Negotiation m_negotiation = Negotiation::Undecided;
    qint64 m_deadlineMs = 0;
    QByteArray m_offer;
    // While undecided: how much of our own offer has come straight back (an
    // echoing device, not a Telnet peer), and outgoing data held back.
    QByteArray m_echoed;
    bool m_watchEcho = false;
    QByteArray m_held;
    QString m_remoteSignature;
    // What the remote last confirmed, to send only changes.
    std::optional<qint32> m_confirmedBaudRate;
    std::optional<QSerialPort::DataBits> m_confirmedDataBits;
    std::optional<QSerialPort::Parity> m_confirmedParity;
    std::optional<QSerialPort::StopBits> m_confirmedStopBits;
    std::optional<QSerialPort::FlowControl> m_confirmedFlowControl;
};
