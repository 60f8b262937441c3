#include "connection/telnetcodec.h"

#include "common/logging.h"

#include <cstring>
#include <limits>

namespace {

bool isAcceptedOption(quint8 option)
{
    return option == TelnetCodec::kOptionBinary || option == TelnetCodec::kOptionSuppressGoAhead
           || option == TelnetCodec::kOptionComPort;
}

} // namespace

TelnetCodec::TelnetCodec(Role role)
    : m_role(role)
{
}

TelnetCodec::Step TelnetCodec::start()
{
    const Role role = m_role;
    *this = TelnetCodec(role);
    Step step;
    step.write += negotiate(role == Role::Client ? kWill : kDo, kOptionComPort);
    step.write += negotiate(kWill, kOptionBinary);
    step.write += negotiate(kDo, kOptionBinary);
    step.write += negotiate(kWill, kOptionSuppressGoAhead);
    step.write += negotiate(kDo, kOptionSuppressGoAhead);
    return step;
}

QByteArray TelnetCodec::negotiate(quint8 verb, quint8 option)
{
    // What we say first counts as our answer: the peer's reply to it is an
    // acknowledgement and must not be answered again.
    if (verb == kWill || verb == kWont)
        m_answeredLocal.set(option);
    else
        m_answeredRemote.set(option);
    const char bytes[] = {char(kIac), char(verb), char(option)};
    return QByteArray(bytes, 3);
}

TelnetCodec::Step TelnetCodec::feed(const QByteArray &bytes)
{
    Step step;
    if (m_state == State::Data && m_data.isEmpty()
        && std::memchr(bytes.constData(), kIac, size_t(bytes.size())) == nullptr) {
        if (!bytes.isEmpty())
            step.events.append(Event{Event::Kind::Data, Command::Signature, 0, bytes});
        return step;
    }

    const char *const begin = bytes.constData();
    const qsizetype size = bytes.size();
    qsizetype i = 0;
    while (i < size) {
        const quint8 byte = quint8(begin[i]);
        switch (m_state) {
        case State::Data: {
            const void *iac = std::memchr(begin + i, kIac, size_t(size - i));
            const qsizetype end = iac ? static_cast<const char *>(iac) - begin : size;
            m_data.append(begin + i, end - i);
            i = end;
            if (iac) {
                m_remoteSpokeTelnet = true;
                m_state = State::Command;
                ++i;
            }
            continue;
        }
        case State::Command:
            if (byte == kIac) {
                m_data.append(char(kIac));
                m_state = State::Data;
            } else if (byte >= kWill) {
                m_verb = byte;
                m_state = State::Option;
            } else if (byte == kSb) {
                m_subnegotiation.clear();
                m_subnegotiationOverflow = false;
                m_state = State::Subnegotiation;
            } else {
                m_state = State::Data;  // NOP, GA and the like mean nothing here
            }
            break;
        case State::Option:
            answer(m_verb, byte, step);
            m_state = State::Data;
            break;
        case State::Subnegotiation:
            if (byte == kIac) {
                m_state = State::SubnegotiationCommand;
            } else if (m_subnegotiation.size() < kMaxSubnegotiation) {
                m_subnegotiation.append(char(byte));
            } else {
                m_subnegotiationOverflow = true;
            }
            break;
        case State::SubnegotiationCommand:
            if (byte == kIac) {
                if (m_subnegotiation.size() < kMaxSubnegotiation)
                    m_subnegotiation.append(char(kIac));
                else
                    m_subnegotiationOverflow = true;
                m_state = State::Subnegotiation;
            } else {
                if (byte == kSe) {
                    if (m_subnegotiationOverflow)
                        qCWarning(lcCore) << "Telnet: dropped a subnegotiation longer than" << kMaxSubnegotiation << "bytes";
                    else
                        parseSubnegotiation(step);
                }
                // Anything but SE abandons the subnegotiation.
                m_subnegotiation.clear();
                m_state = State::Data;
            }
            break;
        }
        ++i;
    }
    flushData(step);
    return step;
}

void TelnetCodec::answer(quint8 verb, quint8 option, Step &step)
{
    const bool aboutRemote = verb == kWill || verb == kWont;
    const bool positive = verb == kWill || verb == kDo;

    if (option == kOptionComPort) {
        if (positive) {
            if (!m_agreed) {
                m_agreed = true;
                addEvent(step, Event{Event::Kind::OptionAgreed, Command::Signature, 0, {}});
            }
        } else if (verb == kWont || m_role == Role::Client) {
            if (!m_refused) {
                m_refused = true;
                addEvent(step, Event{Event::Kind::OptionRefused, Command::Signature, 0, {}});
            }
        }
    }

    // A refusal needs no answer: our side of an option is off until agreed.
    // A request is answered once, yes for the options we know, no otherwise.
    if (!positive)
        return;
    std::bitset<256> &answered = aboutRemote ? m_answeredRemote : m_answeredLocal;
    if (answered.test(option))
        return;
    answered.set(option);
    const bool yes = isAcceptedOption(option);
    const quint8 reply = aboutRemote ? (yes ? kDo : kDont) : (yes ? kWill : kWont);
    const char bytes[] = {char(kIac), char(reply), char(option)};
    step.write.append(bytes, 3);
}

void TelnetCodec::parseSubnegotiation(Step &step)
{
    if (m_subnegotiation.size() < 2 || quint8(m_subnegotiation.at(0)) != kOptionComPort)
        return;
    quint8 code = quint8(m_subnegotiation.at(1));
    if (code > 99)
        code = quint8(code - kServerCodeOffset);
    const QByteArray payload = m_subnegotiation.mid(2);
    const bool server = m_role == Role::Server;
    const Command command = Command(code);

    auto emitEvent = [&](Event::Kind kind, qint64 value, QByteArray bytes = {}) {
        addEvent(step, Event{kind, command, value, std::move(bytes)});
    };
    auto invalid = [&] { emitEvent(Event::Kind::InvalidValue, 0, payload); };
    // A server hears zero as "what is it now?"; a client never should.
    auto question = [&](quint8 value) {
        if (server)
            emitEvent(Event::Kind::Question, value);
        else
            invalid();
    };

    switch (command) {
    case Command::Signature:
        emitEvent(Event::Kind::Signature, 0, payload);
        return;
    case Command::FlowControlSuspend:
        emitEvent(Event::Kind::FlowSuspend, 0);
        return;
    case Command::FlowControlResume:
        emitEvent(Event::Kind::FlowResume, 0);
        return;
    case Command::SetBaudRate: {
        if (payload.size() != 4)
            return invalid();
        const quint32 baud = (quint32(quint8(payload[0])) << 24) | (quint32(quint8(payload[1])) << 16)
                             | (quint32(quint8(payload[2])) << 8) | quint32(quint8(payload[3]));
        if (baud == 0)
            return question(0);
        // QSerialPort and the pane keep a signed 32-bit rate.
        if (baud > quint32(std::numeric_limits<qint32>::max()))
            return invalid();
        emitEvent(Event::Kind::BaudRate, baud);
        return;
    }
    default:
        break;
    }

    switch (command) {
    case Command::SetDataSize:
    case Command::SetParity:
    case Command::SetStopSize:
    case Command::SetControl:
    case Command::NotifyLineState:
    case Command::NotifyModemState:
    case Command::SetModemStateMask:
    case Command::SetLineStateMask:
    case Command::PurgeData:
        if (payload.size() != 1)
            return invalid();
        break;
    default:
        return;  // codes we do not speak
    }
    const quint8 value = quint8(payload.at(0));
    switch (command) {
    case Command::SetDataSize:
        if (value == 0)
            return question(0);
        if (const auto bits = dataSizeFromWire(value))
            return emitEvent(Event::Kind::DataSize, *bits);
        return invalid();
    case Command::SetParity:
        if (value == 0)
            return question(0);
        if (const auto parity = parityFromWire(value))
            return emitEvent(Event::Kind::Parity, *parity);
        return invalid();
    case Command::SetStopSize:
        if (value == 0)
            return question(0);
        if (const auto stop = stopSizeFromWire(value))
            return emitEvent(Event::Kind::StopSize, *stop);
        return invalid();
    case Command::SetControl:
        switch (Control(value)) {
        case Control::FlowControlQuestion:
        case Control::BreakQuestion:
        case Control::DtrQuestion:
        case Control::RtsQuestion:
            return question(value);
        case Control::NoFlowControl:
        case Control::XonXoff:
        case Control::RtsCts:
            return emitEvent(Event::Kind::FlowControl, *flowControlFromWire(value));
        case Control::BreakOn: return emitEvent(Event::Kind::Break, 1);
        case Control::BreakOff: return emitEvent(Event::Kind::Break, 0);
        case Control::DtrOn: return emitEvent(Event::Kind::Dtr, 1);
        case Control::DtrOff: return emitEvent(Event::Kind::Dtr, 0);
        case Control::RtsOn: return emitEvent(Event::Kind::Rts, 1);
        case Control::RtsOff: return emitEvent(Event::Kind::Rts, 0);
        }
        return;  // values above 12 belong to options we do not speak
    case Command::NotifyLineState:
        return emitEvent(Event::Kind::LineState, value);
    case Command::NotifyModemState:
        return emitEvent(Event::Kind::ModemState, value);
    case Command::SetModemStateMask:
        m_modemStateMask = value;
        return emitEvent(Event::Kind::ModemStateMask, value);
    case Command::SetLineStateMask:
        m_lineStateMask = value;
        return emitEvent(Event::Kind::LineStateMask, value);
    case Command::PurgeData:
        if (server)
            emitEvent(Event::Kind::PurgeData, value);
        return;
    default:
        return;  // codes we do not speak
    }
}

void TelnetCodec::addEvent(Step &step, Event event)
{
    flushData(step);
    step.events.append(std::move(event));
}

void TelnetCodec::flushData(Step &step)
{
    if (m_data.isEmpty())
        return;
    step.events.append(Event{Event::Kind::Data, Command::Signature, 0, m_data});
    m_data.clear();
}

QByteArray TelnetCodec::escape(const QByteArray &data)
{
    const char *begin = data.constData();
    const void *first = std::memchr(begin, kIac, size_t(data.size()));
    if (!first)
        return data;
    QByteArray out;
    out.reserve(data.size() + data.size() / 8 + 1);
    const char *end = begin + data.size();
    const char *run = begin;
    const char *iac = static_cast<const char *>(first);
    while (iac) {
        out.append(run, iac - run + 1);
        out.append(char(kIac));
        run = iac + 1;
        iac = static_cast<const char *>(std::memchr(run, kIac, size_t(end - run)));
    }
    out.append(run, end - run);
    return out;
}

QByteArray TelnetCodec::subcommand(Command command, QByteArrayView payload) const
{
    const quint8 code = quint8(command) + (m_role == Role::Server ? kServerCodeOffset : 0);
    QByteArray out;
    out.reserve(payload.size() * 2 + 6);
    out.append(char(kIac)).append(char(kSb)).append(char(kOptionComPort)).append(char(code));
    for (char byte : payload) {
        out.append(byte);
        if (quint8(byte) == kIac)
            out.append(byte);
    }
    out.append(char(kIac)).append(char(kSe));
    return out;
}

QByteArray TelnetCodec::subcommand(Command command, quint8 value) const
{
    const char byte = char(value);
    return subcommand(command, QByteArrayView(&byte, 1));
}

QByteArray TelnetCodec::baudRateCommand(quint32 baudRate) const
{
    const char bytes[] = {char(baudRate >> 24), char(baudRate >> 16), char(baudRate >> 8), char(baudRate)};
    return subcommand(Command::SetBaudRate, QByteArrayView(bytes, 4));
}

QByteArray TelnetCodec::controlCommand(Control control) const
{
    return subcommand(Command::SetControl, quint8(control));
}

quint8 TelnetCodec::dataSizeToWire(QSerialPort::DataBits dataBits)
{
    const int bits = int(dataBits);
    return bits >= 5 && bits <= 8 ? quint8(bits) : 8;
}

std::optional<QSerialPort::DataBits> TelnetCodec::dataSizeFromWire(quint8 value)
{
    if (value < 5 || value > 8)
        return std::nullopt;
    return QSerialPort::DataBits(value);
}

quint8 TelnetCodec::parityToWire(QSerialPort::Parity parity)
{
    switch (parity) {
    case QSerialPort::OddParity: return 2;
    case QSerialPort::EvenParity: return 3;
    case QSerialPort::MarkParity: return 4;
    case QSerialPort::SpaceParity: return 5;
    default: return 1;
    }
}

std::optional<QSerialPort::Parity> TelnetCodec::parityFromWire(quint8 value)
{
    switch (value) {
    case 1: return QSerialPort::NoParity;
    case 2: return QSerialPort::OddParity;
    case 3: return QSerialPort::EvenParity;
    case 4: return QSerialPort::MarkParity;
    case 5: return QSerialPort::SpaceParity;
    default: return std::nullopt;
    }
}

quint8 TelnetCodec::stopSizeToWire(QSerialPort::StopBits stopBits)
{
    switch (stopBits) {
    case QSerialPort::TwoStop: return 2;
    case QSerialPort::OneAndHalfStop: return 3;
    default: return 1;
    }
}

std::optional<QSerialPort::StopBits> TelnetCodec::stopSizeFromWire(quint8 value)
{
    switch (value) {
    case 1: return QSerialPort::OneStop;
    case 2: return QSerialPort::TwoStop;
    case 3: return QSerialPort::OneAndHalfStop;
    default: return std::nullopt;
    }
}

TelnetCodec::Control TelnetCodec::flowControlToWire(QSerialPort::FlowControl flowControl)
{
    switch (flowControl) {
    case QSerialPort::SoftwareControl: return Control::XonXoff;
    case QSerialPort::HardwareControl: return Control::RtsCts;
    default: return Control::NoFlowControl;
    }
}

std::optional<QSerialPort::FlowControl> TelnetCodec::flowControlFromWire(quint8 value)
{
    switch (Control(value)) {
    case Control::NoFlowControl: return QSerialPort::NoFlowControl;
    case Control::XonXoff: return QSerialPort::SoftwareControl;
    case Control::RtsCts: return QSerialPort::HardwareControl;
    default: return std::nullopt;
    }
}
