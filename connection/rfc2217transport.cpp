#include "connection/rfc2217transport.h"

#include "common/logging.h"

#include <QTimer>

#include <limits>
#include <utility>

using Kind = Rfc2217ClientSession::Event::Kind;

Rfc2217Transport::Rfc2217Transport(QObject *parent)
    : StreamClientTransport(parent)
    , m_timer(new QTimer(this))
{
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, &Rfc2217Transport::onTick);
    // Connected before anyone outside can connect: the offer is written
    // before listeners hear of the connection.
    connect(this, &StreamClientTransport::connected, this, &Rfc2217Transport::onConnected);
    connect(this, &StreamClientTransport::disconnected, this, &Rfc2217Transport::forget);
    connect(this, &PortTransport::errorOccurred, this, &Rfc2217Transport::forget);
}

Rfc2217Transport::~Rfc2217Transport() = default;

void Rfc2217Transport::setConfiguration(const SerialParameters &parameters, bool useRemoteSerialConfig)
{
    m_parameters = parameters;
    m_useRemoteSerialConfig = useRemoteSerialConfig;
}

void Rfc2217Transport::onConnected()
{
    m_session.emplace(m_parameters, m_useRemoteSerialConfig);
    m_break = false;
    QByteArray payload = apply(m_session->start(now()));
    if (!m_waiting.isEmpty())
        payload += apply(m_session->send(std::exchange(m_waiting, QByteArray()), now()));
    if (!payload.isEmpty())
        emit received(payload, QString());
}

void Rfc2217Transport::onTick()
{
    if (!m_session)
        return;
    const QByteArray payload = apply(m_session->tick(now()));
    if (!payload.isEmpty())
        emit received(payload, QString());
}

void Rfc2217Transport::forget()
{
    m_timer->stop();
    m_session.reset();
    m_waiting.clear();
    m_break = false;
}

void Rfc2217Transport::close()
{
    forget();
    StreamClientTransport::close();
}

bool Rfc2217Transport::send(const QByteArray &data, const SendTarget &target)
{
    Q_UNUSED(target);
    if (data.isEmpty() || !hasSocket())
        return false;
    if (!m_session) {
        if (m_waiting.size() + data.size() > kMaxWaitingBytes) {
            qCWarning(lcTerminal) << "remote serial port: not connected yet, send of" << data.size() << "bytes refused";
            return false;
        }
        m_waiting += data;
        return true;
    }
    const QByteArray payload = apply(m_session->send(data, now()));
    if (!payload.isEmpty())
        emit received(payload, QString());
    return true;
}

qint64 Rfc2217Transport::bytesToWrite() const
{
    return StreamClientTransport::bytesToWrite() + m_waiting.size();
}

QByteArray Rfc2217Transport::takeAvailable()
{
    const QByteArray raw = StreamClientTransport::takeAvailable();
    if (raw.isEmpty() || !m_session)
        return raw;
    return apply(m_session->feed(raw, now()));
}

void Rfc2217Transport::setSerialParameters(const SerialParameters &parameters)
{
    m_parameters = parameters;
    if (m_session)
        apply(m_session->setSerialParameters(parameters));
}

bool Rfc2217Transport::setControlLine(SerialPortTransport::ControlLine line, bool on)
{
    if (!m_session || m_session->negotiation() != Negotiation::Rfc2217)
        return false;
    using Line = SerialPortTransport::ControlLine;
    switch (line) {
    case Line::Dtr: apply(m_session->setDtr(on)); break;
    case Line::Rts: apply(m_session->setRts(on)); break;
    case Line::Break:
        apply(m_session->setBreak(on));
        m_break = on;
        break;
    }
    return true;
}

Rfc2217Transport::Negotiation Rfc2217Transport::negotiation() const
{
    return m_session ? m_session->negotiation() : Negotiation::Undecided;
}

QByteArray Rfc2217Transport::apply(Rfc2217ClientSession::Step &&step)
{
    if (!step.write.isEmpty())
        write(step.write);
    QByteArray payload;
    for (const Rfc2217ClientSession::Event &event : std::as_const(step.events)) {
        if (event.kind != Kind::Payload && !payload.isEmpty()) {
            // Payload that came before a notice reaches the pane before it.
            emit received(std::exchange(payload, QByteArray()), QString());
        }
        switch (event.kind) {
        case Kind::Payload:
            payload += event.bytes;
            break;
        case Kind::ModeDecided:
            qCInfo(lcTerminal) << "remote serial port:" << event.text;
            emit notice(event.text);
            break;
        case Kind::RemoteSignature:
            qCDebug(lcTerminal) << "remote serial port signature:" << event.text;
            break;
        case Kind::LineState:
            if (!event.text.isEmpty())
                emit notice(event.text);
            emit lineStateChanged(quint8(event.value));
            break;
        case Kind::ModemState:
            emit modemStateChanged(quint8(event.value));
            break;
        case Kind::InvalidReply:
            // Common and harmless (ser2net on a pty answers the DTR and RTS
            // questions with the questions): logged, not put in the view.
            qCInfo(lcTerminal) << "remote serial port:" << event.text;
            break;
        default:
            if (!event.text.isEmpty())
                emit notice(event.text);
            emit remoteSetting(event.kind, event.value);
            break;
        }
    }
    if (step.wantsWake())
        m_timer->start(int(qBound<qint64>(0, step.wakeAtMs - now(), qint64(std::numeric_limits<int>::max()))));
    else
        m_timer->stop();
    return payload;
}
