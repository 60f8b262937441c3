#include "cloud/consoleportcommands.h"

#include "common/wiretextcodecregistry.h"
#include "connection/serialparametertext.h"
#include "terminal/portsession.h"
#include "terminal/sendframebuilder.h"

#include <QJsonValue>

namespace {

using Requirement = ConsoleCommandTable::Requirement;
using ConsolePortCommands::PortList;

ConsoleOutcome portBusy()
{
    return ConsoleOutcome::failure(ConsoleError::kPortBusy, QStringLiteral("a file transfer is using this port"));
}

std::optional<LineEnding> lineEndingFromWord(const QString &word)
{
    const QString w = word.trimmed().toLower();
    if (w.isEmpty() || w == QLatin1String("none"))
        return LineEnding::None;
    if (w == QLatin1String("cr"))
        return LineEnding::Cr;
    if (w == QLatin1String("lf"))
        return LineEnding::Lf;
    if (w == QLatin1String("crlf"))
        return LineEnding::CrLf;
    if (w == QLatin1String("lfcr"))
        return LineEnding::LfCr;
    return std::nullopt;
}

// The port a payload names, or why there is none.
struct Target
{
    PortSession *session = nullptr;
    ConsoleOutcome failure;
};

Target target(const PortList &ports, const QJsonObject &payload)
{
    const QString key = payload.value(QLatin1String("port_key")).toString();
    PortSession *session = ConsolePortCommands::find(ports(), key);
    if (!session)
        return {nullptr, ConsoleOutcome::failure(ConsoleError::kPortNotFound, QStringLiteral("no such port: %1").arg(key))};
    return {session, {}};
}

ValueResult<QByteArray> frameFor(const PortSession &session, const QString &text, LineEnding ending, bool hex)
{
    SendFrameBuilder::Options options;
    options.format = hex ? MessageFormat::Hex : MessageFormat::Text;
    options.appendLineEnding = ending != LineEnding::None;
    options.lineEnding = ending;
    options.encoding = session.options().sendEncoding;
    const auto built = SendFrameBuilder::build(text, options);
    if (!built)
        return ValueResult<QByteArray>::failure(built.errorText());
    QByteArray bytes = built.value().bytes;
    if (hex && ending != LineEnding::None) {
        // The hex builder has no line ending of its own: it is text.
        const auto codec = WireTextCodecRegistry::resolve(options.encoding);
        const auto end = codec ? codec.value().encode(SendFrameBuilder::lineEndingText(ending))
                               : ValueResult<QByteArray>::failure(codec.errorText());
        if (!end)
            return end;
        bytes += end.value();
    }
    return bytes;
}

ConsoleOutcome send(const PortList &ports, const QJsonObject &payload, bool hex)
{
    const QString text = payload.value(QLatin1String("text")).toString();
    if (text.isEmpty())
        return ConsoleOutcome::failure(ConsoleError::kInvalidPayload, QStringLiteral("empty payload"));
    const QString endingWord = payload.value(QLatin1String("line_ending")).toString();
    const std::optional<LineEnding> ending = lineEndingFromWord(endingWord);
    if (!ending)
        return ConsoleOutcome::failure(ConsoleError::kInvalidPayload,
                                       QStringLiteral("unknown line_ending: %1").arg(endingWord));
    const Target port = target(ports, payload);
    if (!port.session)
        return port.failure;
    PortSession &session = *port.session;
    if (session.isTransferActive())
        return portBusy();
    if (!session.isConnectionOpen())
        return ConsoleOutcome::failure(ConsoleError::kPortClosed, QStringLiteral("the port is not open"));
    const ValueResult<QByteArray> bytes = frameFor(session, text, *ending, hex);
    if (!bytes)
        return ConsoleOutcome::failure(ConsoleError::kInvalidPayload,
                                       hex ? QStringLiteral("the text is not hexadecimal bytes")
                                           : QStringLiteral("the text cannot be written in the port's encoding"));
    if (bytes.value().isEmpty())
        return ConsoleOutcome::failure(ConsoleError::kInvalidPayload, QStringLiteral("empty payload"));
    if (session.isPeerBacklogged())
        return ConsoleOutcome::failure(ConsoleError::kInternalError,
                                       QStringLiteral("the device is not reading what was sent before"));
    if (!session.sendBytes(bytes.value()))
        return ConsoleOutcome::failure(ConsoleError::kInternalError, QStringLiteral("the port did not take the data"));
    return ConsoleOutcome::success({{QStringLiteral("bytes"), bytes.value().size()}});
}

ConsoleOutcome portResult(const PortSession &session)
{
    return ConsoleOutcome::success({{QStringLiteral("port"), session.snapshotEntry()}});
}

ConsoleOutcome openPort(const PortList &ports, const QJsonObject &payload)
{
    const Target port = target(ports, payload);
    if (!port.session)
        return port.failure;
    PortSession &session = *port.session;
    if (session.isTransferActive())
        return portBusy();
    if (session.isStarted())
        return portResult(session);
    QString why;
    const auto listener = QObject::connect(&session, &PortSession::failure, [&why](const QString &text) { why = text; });
    const bool opened = session.openConnection();
    QObject::disconnect(listener);
    if (!opened)
        return ConsoleOutcome::failure(ConsoleError::kInternalError,
                                       why.isEmpty() ? QStringLiteral("the port could not be opened") : why);
    return portResult(session);
}

ConsoleOutcome closePort(const PortList &ports, const QJsonObject &payload)
{
    const Target port = target(ports, payload);
    if (!port.session)
        return port.failure;
    PortSession &session = *port.session;
    if (session.isTransferActive())
        return portBusy();
    if (session.isStarted())
        session.closeConnection();
    return portResult(session);
}

ConsoleOutcome setPortConfig(const PortList &ports, const QJsonObject &payload)
{
    using namespace SerialParameterText;
    const Target port = target(ports, payload);
    if (!port.session)
        return port.failure;
    PortSession &session = *port.session;
    if (session.config().mode != ConnectionMode::Serial)
        return ConsoleOutcome::failure(ConsoleError::kNotSerial, QString::fromLatin1(kNotSerialError));
    if (session.isTransferActive())
        return portBusy();

    ConnectionConfig edited = session.config();
    bool any = false;
    const auto invalid = [](const char *key, const QJsonValue &value) {
        return ConsoleOutcome::failure(ConsoleError::kInvalidPayload,
                                       QStringLiteral("invalid %1: %2")
                                           .arg(QLatin1String(key), value.toVariant().toString()));
    };
    if (const QJsonValue v = payload.value(QLatin1String(kBaudRateKey)); !v.isUndefined()) {
        const double baud = v.toDouble(-1);
        if (baud < 1 || baud > 0x7fffffff || baud != double(qint64(baud)))
            return invalid(kBaudRateKey, v);
        edited.baudRate = qint32(baud);
        any = true;
    }
    if (const QJsonValue v = payload.value(QLatin1String(kDataBitsKey)); !v.isUndefined()) {
        const int bits = v.toInt(-1);
        if (bits < 5 || bits > 8)
            return invalid(kDataBitsKey, v);
        edited.dataBits = QSerialPort::DataBits(bits);
        any = true;
    }
    if (const QJsonValue v = payload.value(QLatin1String(kParityKey)); !v.isUndefined()) {
        const auto parity = parityFromWord(v.toString());
        if (!parity)
            return invalid(kParityKey, v);
        edited.parity = *parity;
        any = true;
    }
    if (const QJsonValue v = payload.value(QLatin1String(kStopBitsKey)); !v.isUndefined()) {
        const auto stopBits = v.isString() ? stopBitsFromNumber(v.toString().toDouble()) : stopBitsFromNumber(v.toDouble());
        if (!stopBits)
            return invalid(kStopBitsKey, v);
        edited.stopBits = *stopBits;
        any = true;
    }
    if (const QJsonValue v = payload.value(QLatin1String(kFlowControlKey)); !v.isUndefined()) {
        const auto flow = flowControlFromWord(v.toString());
        if (!flow)
            return invalid(kFlowControlKey, v);
        edited.flowControl = *flow;
        any = true;
    }
    if (!any)
        return ConsoleOutcome::failure(ConsoleError::kInvalidPayload, QStringLiteral("no serial parameters given"));
    const Result applied = session.setSerialParameters(edited);
    if (!applied)
        return ConsoleOutcome::failure(QString::fromLatin1(ConsoleError::kInternalError), applied.errorText());
    return portResult(session);
}

} // namespace

PortSession *ConsolePortCommands::find(const QList<PortSession *> &ports, const QString &portKey)
{
    if (portKey.isEmpty())
        return nullptr;
    for (PortSession *session : ports) {
        if (session && session->portKey() == portKey)
            return session;
    }
    return nullptr;
}

QJsonObject ConsolePortCommands::entry(const PortSession &session, const ConsoleConsent &consent)
{
    QJsonObject e = session.snapshotEntry();
    QJsonArray capabilities;
    if (consent.remoteSend)
        capabilities.append(QStringLiteral("send"));
    if (consent.portControl)
        capabilities.append(QStringLiteral("control"));
    if (consent.relay)
        capabilities.append(QStringLiteral("open_relay"));
    e.insert(QStringLiteral("capabilities"), capabilities);
    return e;
}

QJsonArray ConsolePortCommands::entries(const QList<PortSession *> &ports, const ConsoleConsent &consent)
{
    QJsonArray list;
    for (const PortSession *session : ports) {
        if (session)
            list.append(entry(*session, consent));
    }
    return list;
}

void ConsolePortCommands::addTo(ConsoleCommandTable &table, PortList ports)
{
    table.add(QStringLiteral("send_text"), Requirement::RemoteSend,
              [ports](const QJsonObject &payload) { return send(ports, payload, false); });
    table.add(QStringLiteral("send_hex"), Requirement::RemoteSend,
              [ports](const QJsonObject &payload) { return send(ports, payload, true); });
    table.add(QStringLiteral("open_port"), Requirement::PortControl,
              [ports](const QJsonObject &payload) { return openPort(ports, payload); });
    table.add(QStringLiteral("close_port"), Requirement::PortControl,
              [ports](const QJsonObject &payload) { return closePort(ports, payload); });
    table.add(QStringLiteral("set_port_config"), Requirement::PortControl,
              [ports](const QJsonObject &payload) { return setPortConfig(ports, payload); });
}
