#pragma once

#include "common/codecstep.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QSerialPort>

#include <bitset>
#include <optional>

// Telnet with the COM-PORT-OPTION (serial port control) on top, as a pure
// state machine: fed the bytes a peer sent, it returns the payload, the
// answers to the peer's option requests and what the peer's serial port
// subcommands said. It holds no socket and no timer, and Telnet itself has no
// time-outs, so unlike other codecs it takes no time (the session on top
// does). The same machine serves both ends of a remote serial port: the role
// decides what it offers, how its subcommand codes are numbered and whether a
// zero value is a question (server) or a broken reply (client).
class TelnetCodec
{
public:
    enum class Role { Client, Server };

    // Telnet command bytes.
    static constexpr quint8 kSe = 240;
    static constexpr quint8 kSb = 250;
    static constexpr quint8 kWill = 251;
    static constexpr quint8 kWont = 252;
    static constexpr quint8 kDo = 253;
    static constexpr quint8 kDont = 254;
    static constexpr quint8 kIac = 255;

    // The options either end agrees to; every other one is refused.
    static constexpr quint8 kOptionBinary = 0;
    static constexpr quint8 kOptionSuppressGoAhead = 3;
    static constexpr quint8 kOptionComPort = 44;

    // Serial port subcommands as a client numbers them; a server answers with
    // the same code plus kServerCodeOffset.
    enum class Command : quint8 {
        Signature = 0,
        SetBaudRate = 1,
        SetDataSize = 2,
        SetParity = 3,
        SetStopSize = 4,
        SetControl = 5,
        NotifyLineState = 6,
        NotifyModemState = 7,
        FlowControlSuspend = 8,
        FlowControlResume = 9,
        SetLineStateMask = 10,
        SetModemStateMask = 11,
        PurgeData = 12,
    };
    static constexpr quint8 kServerCodeOffset = 100;

    // Values of SET-CONTROL. The questions (0, 4, 7, 10) only travel from a
    // client to a server.
    enum class Control : quint8 {
        FlowControlQuestion = 0,
        NoFlowControl = 1,
        XonXoff = 2,
        RtsCts = 3,
        BreakQuestion = 4,
        BreakOn = 5,
        BreakOff = 6,
        DtrQuestion = 7,
        DtrOn = 8,
        DtrOff = 9,
        RtsQuestion = 10,
        RtsOn = 11,
        RtsOff = 12,
    };

    struct Event
    {
        enum class Kind {
            Data,            // bytes: payload, unescaped
            OptionAgreed,    // the peer agreed to serial port control (once)
            OptionRefused,   // the peer refused it (once)
            Signature,       // bytes: the peer's signature text (empty: a question)
            BaudRate,        // value: bits per second
            DataSize,        // value: a QSerialPort::DataBits
            Parity,          // value: a QSerialPort::Parity
            StopSize,        // value: a QSerialPort::StopBits
            FlowControl,     // value: a QSerialPort::FlowControl
            Break,           // value: 1 on, 0 off
            Dtr,             // value: 1 on, 0 off
            Rts,             // value: 1 on, 0 off
            LineState,       // value: the line-state byte
            ModemState,      // value: the modem-state byte
            ModemStateMask,  // value: the mask byte
            PurgeData,       // value: what to purge (server role only)
            Question,        // command asks for the current value; value is
                             // the SET-CONTROL question byte, else 0 (server role only)
            InvalidValue,    // command with a value outside its map; bytes: the
                             // raw value. Nothing else changes.
            LineStateMask,   // value: the mask byte
            FlowSuspend,     // the peer asks us to stop sending it data
            FlowResume,      // ... and to go on
        };
        Kind kind = Kind::Data;
        Command command = Command::Signature;  // for subcommand events
        qint64 value = 0;
        QByteArray bytes;

        bool operator==(const Event &other) const = default;
    };
    using Step = CodecStep<Event>;

    // The longest subnegotiation kept. The longest meaningful one is a
    // signature, a line of text; longer ones are noise or a peer filling our
    // memory, and are dropped whole.
    static constexpr qsizetype kMaxSubnegotiation = 512;

    explicit TelnetCodec(Role role);

    Role role() const { return m_role; }

    // Forgets everything heard and returns the role's offer: a client offers
    // to control the port (WILL COM-PORT), a server asks for it (DO COM-PORT);
    // both offer binary transmission and suppressed go-ahead both ways.
    Step start();
    // Bytes as they arrived, split anywhere. Payload without a command byte
    // comes back as the same (implicitly shared) array.
    Step feed(const QByteArray &bytes);

    bool remoteSpokeTelnet() const { return m_remoteSpokeTelnet; }
    bool optionAgreed() const { return m_agreed; }
    bool optionRefused() const { return m_refused; }
    quint8 modemStateMask() const { return m_modemStateMask; }
    quint8 lineStateMask() const { return m_lineStateMask; }

    // Outgoing payload with every 0xFF doubled; data without one is returned
    // as is, without a copy.
    static QByteArray escape(const QByteArray &data);

    // IAC SB 44 <code> <payload, 0xFF doubled> IAC SE, the code numbered for
    // the role.
    QByteArray subcommand(Command command, QByteArrayView payload) const;
    QByteArray subcommand(Command command, quint8 value) const;
    QByteArray baudRateCommand(quint32 baudRate) const;  // four bytes, most significant first
    QByteArray controlCommand(Control control) const;

    // The wire's one-byte values for the serial library's enumerations, and
    // back; nullopt for what the wire cannot say or a value off its map.
    static quint8 dataSizeToWire(QSerialPort::DataBits dataBits);
    static std::optional<QSerialPort::DataBits> dataSizeFromWire(quint8 value);
    static quint8 parityToWire(QSerialPort::Parity parity);
    static std::optional<QSerialPort::Parity> parityFromWire(quint8 value);
    static quint8 stopSizeToWire(QSerialPort::StopBits stopBits);
    static std::optional<QSerialPort::StopBits> stopSizeFromWire(quint8 value);
    static Control flowControlToWire(QSerialPort::FlowControl flowControl);
    static std::optional<QSerialPort::FlowControl> flowControlFromWire(quint8 value);

private:
    enum class State { Data, Command, Option, Subnegotiation, SubnegotiationCommand };

    QByteArray negotiate(quint8 verb, quint8 option);
    void answer(quint8 verb, quint8 option, Step &step);
    void parseSubnegotiation(Step &step);
    void addEvent(Step &step, Event event);
    void flushData(Step &step);

    Role m_role;
    State m_state = State::Data;
    quint8 m_verb = 0;
    QByteArray m_subnegotiation;
    bool m_subnegotiationOverflow = false;
    QByteArray m_data;  // payload gathered since the last event
    bool m_remoteSpokeTelnet = false;
    bool m_agreed = false;
    bool m_refused = false;
    quint8 m_modemStateMask = 0;
    quint8 m_lineStateMask = 0;
    // Each option is answered at most once per direction (the peer's side:
    // WILL/WONT; ours: DO/DONT), so that two ends can never loop.
    std::bitset<256> m_answeredRemote;
    std::bitset<256> m_answeredLocal;
};
