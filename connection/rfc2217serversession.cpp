#include "connection/rfc2217serversession.h"

using Command = TelnetCodec::Command;
using Control = TelnetCodec::Control;

Rfc2217ServerSession::Step Rfc2217ServerSession::start(qint64 nowMs)
{
    *this = Rfc2217ServerSession();
    m_started = true;
    m_deadlineMs = nowMs + kDecisionWaitMs;
    return finish(Step());
}

Rfc2217ServerSession::Step Rfc2217ServerSession::finish(Step &&step) const
{
    step.wakeAtMs = m_started && m_mode == Mode::Undecided ? m_deadlineMs : Step::kNoWake;
    return std::move(step);
}

void Rfc2217ServerSession::decide(Mode mode, Step &step)
{
    m_mode = mode;
    step.events.append(Event{Event::Kind::Decided, qint64(mode), {}});
}

Rfc2217ServerSession::Step Rfc2217ServerSession::tick(qint64 nowMs)
{
    Step step;
    if (m_started && m_mode == Mode::Undecided && nowMs >= m_deadlineMs)
        decide(Mode::Raw, step);
    return finish(std::move(step));
}

Rfc2217ServerSession::Step Rfc2217ServerSession::feed(const QByteArray &bytes, qint64 nowMs, Port &port)
{
    Q_UNUSED(nowMs);
    Step step;
    if (bytes.isEmpty())
        return finish(std::move(step));
    if (m_mode == Mode::Undecided) {
        if (quint8(bytes.at(0)) == TelnetCodec::kIac) {
            // Our offer goes before any answer to theirs: a client reads our
            // DO COM-PORT as the request and its WILL as the agreement.
            step.write = m_codec.start().write;
            decide(Mode::Telnet, step);
        } else {
            decide(Mode::Raw, step);
        }
    }
    if (m_mode == Mode::Raw) {
        port.write(bytes);
        return finish(std::move(step));
    }
    TelnetCodec::Step codecStep = m_codec.feed(bytes);
    step.write += codecStep.write;
    for (const TelnetCodec::Event &event : std::as_const(codecStep.events))
        onCodecEvent(event, port, step);
    return finish(std::move(step));
}

void Rfc2217ServerSession::onCodecEvent(const TelnetCodec::Event &event, Port &port, Step &step)
{
    using Kind = TelnetCodec::Event::Kind;
    SerialParameters wanted = port.parameters();
    switch (event.kind) {
    case Kind::Data:
        port.write(event.bytes);
        return;
    case Kind::OptionAgreed:
        m_agreed = true;
        step.events.append(Event{Event::Kind::Agreed, 0, {}});
        // The lines as they stand, so a client knows them before the first change.
        step.write += modemStateNotice(port.modemLines(), true);
        return;
    case Kind::OptionRefused:
        return;
    case Kind::Signature:
        if (event.bytes.isEmpty()) {
            step.write += m_codec.subcommand(Command::Signature, QByteArrayView(kSignature));
        } else {
            m_clientSignature = QString::fromUtf8(event.bytes);
            step.events.append(Event{Event::Kind::Signature, 0, m_clientSignature});
        }
        return;
    case Kind::BaudRate:
        wanted.baudRate = qint32(event.value);
        return answerParameter(Command::SetBaudRate, port.apply(wanted), step);
    case Kind::DataSize:
        wanted.dataBits = QSerialPort::DataBits(event.value);
        return answerParameter(Command::SetDataSize, port.apply(wanted), step);
    case Kind::Parity:
        wanted.parity = QSerialPort::Parity(event.value);
        return answerParameter(Command::SetParity, port.apply(wanted), step);
    case Kind::StopSize:
        wanted.stopBits = QSerialPort::StopBits(event.value);
        return answerParameter(Command::SetStopSize, port.apply(wanted), step);
    case Kind::FlowControl:
        wanted.flowControl = QSerialPort::FlowControl(event.value);
        return answerParameter(Command::SetControl, port.apply(wanted), step);
    case Kind::Break:
        step.write += lineReply(Line::Break, port.setLevel(Line::Break, event.value != 0));
        return;
    case Kind::Dtr:
        step.write += lineReply(Line::Dtr, port.setLevel(Line::Dtr, event.value != 0));
        return;
    case Kind::Rts:
        step.write += lineReply(Line::Rts, port.setLevel(Line::Rts, event.value != 0));
        return;
    case Kind::Question:
        return answerQuestion(event.command, event.value, port, step);
    case Kind::InvalidValue:
        // A value off the map changes nothing; the reply says what holds.
        if (event.command == Command::SetControl)
            return answerParameter(Command::SetControl, wanted, step);
        return answerQuestion(event.command, 0, port, step);
    case Kind::PurgeData: {
        const qint64 what = event.value;
        if (what < 1 || what > 3)
            return;  // not a purge the option defines
        port.purge(what == 1 || what == 3, what == 2 || what == 3);
        step.write += m_codec.subcommand(Command::PurgeData, quint8(what));
        return;
    }
    case Kind::ModemStateMask:
        m_modemMask = quint8(event.value);
        step.write += m_codec.subcommand(Command::SetModemStateMask, m_modemMask);
        return;
    case Kind::LineStateMask:
        m_lineMask = quint8(event.value);
        step.write += m_codec.subcommand(Command::SetLineStateMask, m_lineMask);
        return;
    case Kind::ModemState:
        // A client asking for the lines now (some poll this way).
        step.write += modemStateNotice(port.modemLines(), true);
        return;
    case Kind::LineState:
        step.write += m_codec.subcommand(Command::NotifyLineState, quint8(port.lineState() & m_lineMask));
        return;
    case Kind::FlowSuspend:
        if (!m_suspended) {
            m_suspended = true;
            step.events.append(Event{Event::Kind::Suspended, 0, {}});
        }
        return;
    case Kind::FlowResume:
        if (m_suspended) {
            m_suspended = false;
            step.events.append(Event{Event::Kind::Resumed, 0, {}});
        }
        return;
    }
}

void Rfc2217ServerSession::answerParameter(Command command, const SerialParameters &inForce, Step &step) const
{
    switch (command) {
    case Command::SetBaudRate:
        step.write += m_codec.baudRateCommand(quint32(std::max(inForce.baudRate, 0)));
        return;
    case Command::SetDataSize:
        step.write += m_codec.subcommand(command, TelnetCodec::dataSizeToWire(inForce.dataBits));
        return;
    case Command::SetParity:
        step.write += m_codec.subcommand(command, TelnetCodec::parityToWire(inForce.parity));
        return;
    case Command::SetStopSize:
        step.write += m_codec.subcommand(command, TelnetCodec::stopSizeToWire(inForce.stopBits));
        return;
    case Command::SetControl:
        step.write += m_codec.controlCommand(TelnetCodec::flowControlToWire(inForce.flowControl));
        return;
    default:
        return;
    }
}

void Rfc2217ServerSession::answerQuestion(Command command, qint64 value, const Port &port, Step &step) const
{
    if (command != Command::SetControl)
        return answerParameter(command, port.parameters(), step);
    switch (Control(value)) {
    case Control::BreakQuestion:
        step.write += lineReply(Line::Break, port.level(Line::Break));
        return;
    case Control::DtrQuestion:
        step.write += lineReply(Line::Dtr, port.level(Line::Dtr));
        return;
    case Control::RtsQuestion:
        step.write += lineReply(Line::Rts, port.level(Line::Rts));
        return;
    default:
        return answerParameter(Command::SetControl, port.parameters(), step);
    }
}

QByteArray Rfc2217ServerSession::lineReply(Line line, bool on) const
{
    switch (line) {
    case Line::Dtr: return m_codec.controlCommand(on ? Control::DtrOn : Control::DtrOff);
    case Line::Rts: return m_codec.controlCommand(on ? Control::RtsOn : Control::RtsOff);
    case Line::Break: return m_codec.controlCommand(on ? Control::BreakOn : Control::BreakOff);
    }
    return {};
}

QByteArray Rfc2217ServerSession::encode(const QByteArray &data) const
{
    return m_mode == Mode::Telnet ? TelnetCodec::escape(data) : data;
}

QByteArray Rfc2217ServerSession::modemStateNotice(quint8 lines, bool always)
{
    lines &= 0xF0;
    quint8 deltas = 0;
    if (m_toldModemLines >= 0) {
        const quint8 was = quint8(m_toldModemLines);
        const quint8 changed = was ^ lines;
        if (changed & 0x10)
            deltas |= 0x01;  // CTS
        if (changed & 0x20)
            deltas |= 0x02;  // DSR
        if ((was & 0x40) && !(lines & 0x40))
            deltas |= 0x04;  // the trailing edge of a ring
        if (changed & 0x80)
            deltas |= 0x08;  // carrier detect
    }
    m_toldModemLines = lines;
    const quint8 masked = quint8((lines | deltas) & m_modemMask);
    if (!always && !(deltas & m_modemMask))
        return {};
    return m_codec.subcommand(Command::NotifyModemState, masked);
}

QByteArray Rfc2217ServerSession::portStateChanged(const Port &port)
{
    if (m_mode != Mode::Telnet || !m_agreed)
        return {};
    QByteArray out = modemStateNotice(port.modemLines(), false);
    const quint8 line = quint8(port.lineState() & m_lineMask);
    if (line != (m_toldLineState < 0 ? 0 : m_toldLineState)) {
        out += m_codec.subcommand(Command::NotifyLineState, line);
    }
    m_toldLineState = line;
    return out;
}
