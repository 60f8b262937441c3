#include "connection/rfc2217clientsession.h"

#include "connection/connectionconfig.h"

#include <QStringList>

#include <cstring>

using Command = TelnetCodec::Command;
using Control = TelnetCodec::Control;

Rfc2217ClientSession::Rfc2217ClientSession(const SerialParameters &parameters, bool useRemoteSerialConfig)
    : m_wanted(parameters)
    , m_useRemoteSerialConfig(useRemoteSerialConfig)
{
}

Rfc2217ClientSession::Step Rfc2217ClientSession::start(qint64 nowMs)
{
    TelnetCodec::Step offer = m_codec.start();
    m_offer = offer.write;
    m_started = true;
    m_negotiation = Negotiation::Undecided;
    m_deadlineMs = nowMs + kDecisionWaitMs;
    m_echoed.clear();
    m_watchEcho = true;
    m_held.clear();
    m_remoteSignature.clear();
    m_confirmedBaudRate.reset();
    m_confirmedDataBits.reset();
    m_confirmedParity.reset();
    m_confirmedStopBits.reset();
    m_confirmedFlowControl.reset();
    Step step;
    step.write = m_offer;
    return finish(std::move(step));
}

Rfc2217ClientSession::Step Rfc2217ClientSession::feed(const QByteArray &bytes, qint64 nowMs)
{
    Q_UNUSED(nowMs);
    Step step;
    if (bytes.isEmpty())
        return finish(std::move(step));
    if (m_negotiation == Negotiation::TransparentTcp) {
        addPayload(step, bytes);
        return finish(std::move(step));
    }

    QByteArray input = bytes;
    if (m_negotiation == Negotiation::Undecided && m_watchEcho) {
        // A device that mirrors what it receives sends our offer back byte
        // for byte; to the receiver that would read as the remote agreeing.
        // No Telnet peer answers that way (it answers WILL with DO), so hold
        // what matches the offer until it is clearly one or the other.
        qsizetype matched = 0;
        while (matched < input.size() && m_echoed.size() + matched < m_offer.size()
               && input.at(matched) == m_offer.at(m_echoed.size() + matched))
            ++matched;
        if (m_echoed.size() + matched == m_offer.size()) {
            addPayload(step, m_echoed + input);
            m_echoed.clear();
            decide(Negotiation::TransparentTcp, step);
            return finish(std::move(step));
        }
        if (matched == input.size()) {
            m_echoed += input;
            return finish(std::move(step));
        }
        m_watchEcho = false;
        if (!m_echoed.isEmpty()) {
            input.prepend(m_echoed);
            m_echoed.clear();
        }
    }

    takeCodecStep(m_codec.feed(input), step);
    if (m_negotiation == Negotiation::Undecided && m_codec.remoteSpokeTelnet() && !m_held.isEmpty()) {
        // Telnet either way: doubling 0xFF is right whatever the outcome.
        step.write += TelnetCodec::escape(m_held);
        m_held.clear();
    }
    return finish(std::move(step));
}

Rfc2217ClientSession::Step Rfc2217ClientSession::tick(qint64 nowMs)
{
    Step step;
    if (m_started && m_negotiation == Negotiation::Undecided && nowMs >= m_deadlineMs)
        decideWithoutAnswer(step);
    return finish(std::move(step));
}

Rfc2217ClientSession::Step Rfc2217ClientSession::send(const QByteArray &data, qint64 nowMs)
{
    Q_UNUSED(nowMs);
    Step step;
    if (data.isEmpty())
        return finish(std::move(step));
    switch (m_negotiation) {
    case Negotiation::TransparentTcp:
        step.write = data;
        break;
    case Negotiation::Rfc2217:
    case Negotiation::PlainTelnet:
        step.write = TelnetCodec::escape(data);
        break;
    case Negotiation::Undecided:
        if (m_codec.remoteSpokeTelnet()) {
            step.write = TelnetCodec::escape(data);
        } else if (m_held.isEmpty() && std::memchr(data.constData(), TelnetCodec::kIac, size_t(data.size())) == nullptr) {
            step.write = data;  // the same bytes under every outcome
        } else {
            m_held += data;
            if (m_held.size() > kMaxHeldBytes)
                decideWithoutAnswer(step);
        }
        break;
    }
    return finish(std::move(step));
}

Rfc2217ClientSession::Step Rfc2217ClientSession::setSerialParameters(const SerialParameters &parameters)
{
    m_wanted = parameters;
    Step step;
    if (m_negotiation == Negotiation::Rfc2217 && !m_useRemoteSerialConfig)
        pushChangedParameters(step);
    return finish(std::move(step));
}

Rfc2217ClientSession::Step Rfc2217ClientSession::setBreak(bool on)
{
    return control(on ? Control::BreakOn : Control::BreakOff);
}

Rfc2217ClientSession::Step Rfc2217ClientSession::setDtr(bool on)
{
    return control(on ? Control::DtrOn : Control::DtrOff);
}

Rfc2217ClientSession::Step Rfc2217ClientSession::setRts(bool on)
{
    return control(on ? Control::RtsOn : Control::RtsOff);
}

Rfc2217ClientSession::Step Rfc2217ClientSession::control(Control control)
{
    Step step;
    if (m_negotiation == Negotiation::Rfc2217)
        step.write = m_codec.controlCommand(control);
    return finish(std::move(step));
}

Rfc2217ClientSession::Step Rfc2217ClientSession::finish(Step &&step) const
{
    step.wakeAtMs = m_started && m_negotiation == Negotiation::Undecided ? m_deadlineMs : Step::kNoWake;
    return std::move(step);
}

void Rfc2217ClientSession::decideWithoutAnswer(Step &step)
{
    // A partial echo of our offer is still only our own bytes coming back.
    if (!m_echoed.isEmpty()) {
        addPayload(step, m_echoed);
        m_echoed.clear();
    }
    decide(m_codec.remoteSpokeTelnet() ? Negotiation::PlainTelnet : Negotiation::TransparentTcp, step);
}

void Rfc2217ClientSession::decide(Negotiation negotiation, Step &step)
{
    m_negotiation = negotiation;
    m_watchEcho = false;
    QString notice;
    switch (negotiation) {
    case Negotiation::Rfc2217:
        notice = tr("The remote port accepted serial parameter control.");
        break;
    case Negotiation::PlainTelnet:
        notice = tr("The remote does not support serial parameter control; continuing as plain Telnet.");
        break;
    case Negotiation::TransparentTcp:
        notice = tr("The remote is not an RFC 2217 server; continuing as transparent TCP. The handshake bytes may have reached the remote serial line.");
        break;
    case Negotiation::Undecided:
        return;
    }
    step.events.append(Event{Event::Kind::ModeDecided, int(negotiation), {}, notice});

    if (negotiation == Negotiation::Rfc2217) {
        step.write += m_codec.subcommand(Command::Signature, QByteArrayView(kSignature));
        step.write += m_codec.subcommand(Command::SetModemStateMask, kModemStateMask);
        if (m_useRemoteSerialConfig)
            queryRemoteParameters(step);
        else
            pushChangedParameters(step);
    }
    // Data the user sent while we waited goes after the parameters, so that
    // it leaves the remote port at the pane's settings.
    if (!m_held.isEmpty()) {
        step.write += negotiation == Negotiation::TransparentTcp ? m_held : TelnetCodec::escape(m_held);
        m_held.clear();
    }
}

void Rfc2217ClientSession::takeCodecStep(TelnetCodec::Step &&codecStep, Step &step)
{
    step.write += codecStep.write;
    for (const TelnetCodec::Event &event : std::as_const(codecStep.events)) {
        switch (event.kind) {
        case TelnetCodec::Event::Kind::Data:
            addPayload(step, event.bytes);
            break;
        case TelnetCodec::Event::Kind::OptionAgreed:
            if (m_negotiation == Negotiation::Undecided)
                decide(Negotiation::Rfc2217, step);
            break;
        case TelnetCodec::Event::Kind::OptionRefused:
            if (m_negotiation == Negotiation::Undecided)
                decide(Negotiation::PlainTelnet, step);
            break;
        default:
            onSubcommand(event, step);
            break;
        }
    }
}

void Rfc2217ClientSession::onSubcommand(const TelnetCodec::Event &event, Step &step)
{
    using Kind = TelnetCodec::Event::Kind;
    auto report = [&step](Event::Kind kind, qint64 value, QString text = {}) {
        step.events.append(Event{kind, value, {}, std::move(text)});
    };
    switch (event.kind) {
    case Kind::Signature:
        m_remoteSignature = QString::fromUtf8(event.bytes);
        report(Event::Kind::RemoteSignature, 0, m_remoteSignature);
        break;
    case Kind::BaudRate:
        m_confirmedBaudRate = qint32(event.value);
        report(Event::Kind::RemoteBaudRate, event.value, tr("The remote port is now at %1 baud.").arg(event.value));
        break;
    case Kind::DataSize:
        m_confirmedDataBits = QSerialPort::DataBits(event.value);
        report(Event::Kind::RemoteDataBits, event.value);
        break;
    case Kind::Parity:
        m_confirmedParity = QSerialPort::Parity(event.value);
        report(Event::Kind::RemoteParity, event.value);
        break;
    case Kind::StopSize:
        m_confirmedStopBits = QSerialPort::StopBits(event.value);
        report(Event::Kind::RemoteStopBits, event.value);
        break;
    case Kind::FlowControl:
        m_confirmedFlowControl = QSerialPort::FlowControl(event.value);
        report(Event::Kind::RemoteFlowControl, event.value);
        break;
    case Kind::Break:
        report(Event::Kind::RemoteBreak, event.value);
        break;
    case Kind::Dtr:
        report(Event::Kind::RemoteDtr, event.value);
        break;
    case Kind::Rts:
        report(Event::Kind::RemoteRts, event.value);
        break;
    case Kind::LineState:
        report(Event::Kind::LineState, event.value, lineStateNote(quint8(event.value)));
        break;
    case Kind::ModemState:
        report(Event::Kind::ModemState, event.value);
        break;
    case Kind::InvalidValue: {
        QString what;
        switch (event.command) {
        case Command::SetBaudRate: what = tr("baud rate"); break;
        case Command::SetDataSize: what = tr("data size"); break;
        case Command::SetParity: what = tr("parity"); break;
        case Command::SetStopSize: what = tr("stop size"); break;
        case Command::SetControl: what = tr("control"); break;
        case Command::NotifyLineState: what = tr("line state"); break;
        case Command::NotifyModemState: what = tr("modem state"); break;
        case Command::SetModemStateMask: what = tr("modem-state mask"); break;
        default: what = QString::number(int(event.command)); break;
        }
        const QString value = event.bytes.isEmpty() ? QStringLiteral("-") : QString::fromLatin1(event.bytes.toHex(' '));
        const QString text = tr("The remote port sent an invalid %1 value (%2); the setting is kept.").arg(what, value);
        report(Event::Kind::InvalidReply, 0, text);
        break;
    }
    default:
        break;  // the mask is kept by the codec; questions and purges are for servers
    }
}

void Rfc2217ClientSession::pushChangedParameters(Step &step)
{
    if (m_wanted.baudRate > 0 && m_confirmedBaudRate != m_wanted.baudRate)
        step.write += m_codec.baudRateCommand(quint32(m_wanted.baudRate));
    if (m_confirmedDataBits != m_wanted.dataBits)
        step.write += m_codec.subcommand(Command::SetDataSize, TelnetCodec::dataSizeToWire(m_wanted.dataBits));
    if (m_confirmedParity != m_wanted.parity)
        step.write += m_codec.subcommand(Command::SetParity, TelnetCodec::parityToWire(m_wanted.parity));
    if (m_confirmedStopBits != m_wanted.stopBits)
        step.write += m_codec.subcommand(Command::SetStopSize, TelnetCodec::stopSizeToWire(m_wanted.stopBits));
    if (m_confirmedFlowControl != m_wanted.flowControl)
        step.write += m_codec.controlCommand(TelnetCodec::flowControlToWire(m_wanted.flowControl));
}

void Rfc2217ClientSession::queryRemoteParameters(Step &step)
{
    step.write += m_codec.baudRateCommand(0);
    step.write += m_codec.subcommand(Command::SetDataSize, quint8(0));
    step.write += m_codec.subcommand(Command::SetParity, quint8(0));
    step.write += m_codec.subcommand(Command::SetStopSize, quint8(0));
    step.write += m_codec.controlCommand(Control::FlowControlQuestion);
    step.write += m_codec.controlCommand(Control::DtrQuestion);
    step.write += m_codec.controlCommand(Control::RtsQuestion);
}

QString Rfc2217ClientSession::lineStateNote(quint8 lineState) const
{
    QStringList faults;
    if (lineState & OverrunError)
        faults << tr("overrun error");
    if (lineState & ParityError)
        faults << tr("parity error");
    if (lineState & FramingError)
        faults << tr("framing error");
    if (lineState & BreakDetected)
        faults << tr("break detected");
    if (lineState & TimeoutError)
        faults << tr("time-out error");
    if (faults.isEmpty())
        return {};
    return tr("The remote port reports: %1.").arg(faults.join(QStringLiteral(", ")));
}

void Rfc2217ClientSession::addPayload(Step &step, const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    // Consecutive payload stays one event: the pane gets one chunk per read.
    if (!step.events.isEmpty() && step.events.last().kind == Event::Kind::Payload)
        step.events.last().bytes += bytes;
    else
        step.events.append(Event{Event::Kind::Payload, 0, bytes, {}});
}
