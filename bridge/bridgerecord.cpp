#include "bridge/bridgerecord.h"

#include <QPair>

namespace {

template <typename Enum, size_t N>
struct WordTable
{
    std::array<std::pair<Enum, const char *>, N> entries;

    QString word(Enum value) const
    {
        for (const auto &[v, w] : entries) {
            if (v == value)
                return QString::fromLatin1(w);
        }
        return QString::fromLatin1(entries.front().second);
    }
    bool parse(const QString &word, Enum *value) const
    {
        for (const auto &[v, w] : entries) {
            if (word == QLatin1String(w)) {
                *value = v;
                return true;
            }
        }
        return false;
    }
};

constexpr WordTable<BridgeKind, 3> kKinds{{{
    {BridgeKind::Forward, "forward"},
    {BridgeKind::ModbusGateway, "modbus"},
    {BridgeKind::Rfc2217Share, "rfc2217"},
}}};
constexpr WordTable<ModbusFraming, 2> kModbusFramings{{{
    {ModbusFraming::Rtu, "rtu"},
    {ModbusFraming::Ascii, "ascii"},
}}};
constexpr WordTable<BridgeDirection, 3> kDirections{{{
    {BridgeDirection::AToB, "a-to-b"},
    {BridgeDirection::BToA, "b-to-a"},
    {BridgeDirection::Both, "both"},
}}};
constexpr WordTable<BridgeEndSpec::Kind, 3> kEndKinds{{{
    {BridgeEndSpec::Kind::Pane, "pane"},
    {BridgeEndSpec::Kind::Listener, "listener"},
    {BridgeEndSpec::Kind::Udp, "udp"},
}}};
constexpr WordTable<BridgeFramer::Mode, 4> kFramings{{{
    {BridgeFramer::Mode::None, "none"},
    {BridgeFramer::Mode::IdleGap, "idle-gap"},
    {BridgeFramer::Mode::Delimiter, "delimiter"},
    {BridgeFramer::Mode::FixedLength, "fixed-length"},
}}};
constexpr WordTable<EgressQueue::Policy, 4> kPolicies{{{
    {EgressQueue::Policy::PauseSource, "pause-source"},
    {EgressQueue::Policy::DropOldest, "drop-oldest"},
    {EgressQueue::Policy::DropNewest, "drop-newest"},
    {EgressQueue::Policy::Disconnect, "disconnect"},
}}};

bool isAddressOrSubnet(const QString &rawEntry)
{
    const QString entry = rawEntry.trimmed();
    if (entry.contains(QLatin1Char('/'))) {
        const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(entry);
        return !subnet.first.isNull() && subnet.second >= 0;
    }
    return !QHostAddress(entry).isNull();
}

} // namespace

QString BridgeRecord::kindWord(BridgeKind kind) { return kKinds.word(kind); }
bool BridgeRecord::kindFromWord(const QString &word, BridgeKind *kind) { return kKinds.parse(word, kind); }
QString BridgeRecord::directionWord(BridgeDirection direction) { return kDirections.word(direction); }
bool BridgeRecord::directionFromWord(const QString &word, BridgeDirection *direction)
{
    return kDirections.parse(word, direction);
}
QString BridgeRecord::endKindWord(BridgeEndSpec::Kind kind) { return kEndKinds.word(kind); }
bool BridgeRecord::endKindFromWord(const QString &word, BridgeEndSpec::Kind *kind) { return kEndKinds.parse(word, kind); }
QString BridgeRecord::framingWord(BridgeFramer::Mode mode) { return kFramings.word(mode); }
bool BridgeRecord::framingFromWord(const QString &word, BridgeFramer::Mode *mode) { return kFramings.parse(word, mode); }
QString BridgeRecord::modbusFramingWord(ModbusFraming framing) { return kModbusFramings.word(framing); }
bool BridgeRecord::modbusFramingFromWord(const QString &word, ModbusFraming *framing)
{
    return kModbusFramings.parse(word, framing);
}
QString BridgeRecord::policyWord(EgressQueue::Policy policy) { return kPolicies.word(policy); }
bool BridgeRecord::policyFromWord(const QString &word, EgressQueue::Policy *policy)
{
    return kPolicies.parse(word, policy);
}

QString BridgeRecord::endName(int end)
{
    return end == kA ? QStringLiteral("A") : QStringLiteral("B");
}

QString BridgeRecord::directionName(int direction)
{
    return direction == kAToB ? QStringLiteral("A → B") : QStringLiteral("B → A");
}

QString BridgeRecord::kindText(BridgeKind kind)
{
    switch (kind) {
    case BridgeKind::Forward: return tr("Forward data");
    case BridgeKind::ModbusGateway: return tr("Modbus TCP gateway");
    case BridgeKind::Rfc2217Share: return tr("RFC 2217 port sharing");
    }
    return {};
}

QString BridgeRecord::directionText(BridgeDirection direction)
{
    switch (direction) {
    case BridgeDirection::AToB: return directionName(kAToB);
    case BridgeDirection::BToA: return directionName(kBToA);
    case BridgeDirection::Both: return tr("Both ways");
    }
    return {};
}

QString BridgeRecord::endKindText(BridgeEndSpec::Kind kind)
{
    switch (kind) {
    case BridgeEndSpec::Kind::Pane: return tr("Pane");
    case BridgeEndSpec::Kind::Listener: return tr("TCP listener");
    case BridgeEndSpec::Kind::Udp: return tr("UDP targets");
    }
    return {};
}

QString BridgeRecord::framingText(BridgeFramer::Mode mode)
{
    switch (mode) {
    case BridgeFramer::Mode::None: return tr("None (as received)");
    case BridgeFramer::Mode::IdleGap: return tr("Idle gap");
    case BridgeFramer::Mode::Delimiter: return tr("Delimiter");
    case BridgeFramer::Mode::FixedLength: return tr("Fixed length");
    }
    return {};
}

QString BridgeRecord::policyText(EgressQueue::Policy policy)
{
    switch (policy) {
    case EgressQueue::Policy::PauseSource: return tr("Pause the source");
    case EgressQueue::Policy::DropOldest: return tr("Drop oldest");
    case EgressQueue::Policy::DropNewest: return tr("Drop newest");
    case EgressQueue::Policy::Disconnect: return tr("Disconnect the target");
    }
    return {};
}

bool BridgeRecord::parseUdpTarget(const QString &rawText, QHostAddress *address, quint16 *port)
{
    const QString text = rawText.trimmed();
    QString host;
    QString portText;
    if (text.startsWith(QLatin1Char('['))) {
        const qsizetype close = text.indexOf(QLatin1String("]:"));
        if (close < 0)
            return false;
        host = text.mid(1, close - 1);
        portText = text.mid(close + 2);
    } else {
        const qsizetype colon = text.lastIndexOf(QLatin1Char(':'));
        if (colon <= 0 || text.indexOf(QLatin1Char(':')) != colon)
            return false;
        host = text.left(colon);
        portText = text.mid(colon + 1);
    }
    const QHostAddress parsed(host);
    bool ok = false;
    const uint value = portText.toUInt(&ok);
    if (parsed.isNull() || !ok || value == 0 || value > 65535)
        return false;
    if (address)
        *address = parsed;
    if (port)
        *port = quint16(value);
    return true;
}

bool BridgeRecord::forwardsFrom(int from) const
{
    // A gateway carries requests one way and replies the other.
    if (kind != BridgeKind::Forward)
        return true;
    switch (direction) {
    case BridgeDirection::AToB: return from == kA;
    case BridgeDirection::BToA: return from == kB;
    case BridgeDirection::Both: return true;
    }
    return false;
}

Result BridgeRecord::validate() const
{
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty())
        return Result::failure(tr("Give the bridge a name."));
    if (trimmed.size() > kMaxNameLength)
        return Result::failure(tr("A bridge name has at most %1 characters.").arg(kMaxNameLength));
    for (int end : {kA, kB}) {
        if (const Result r = validateEnd(end); !r)
            return r;
    }
    if (kind == BridgeKind::ModbusGateway) {
        if (const Result r = validateModbus(); !r)
            return r;
    }
    if (kind == BridgeKind::Rfc2217Share) {
        if (const Result r = validateShare(); !r)
            return r;
    }
    const BridgeEndSpec &a = ends[kA];
    const BridgeEndSpec &b = ends[kB];
    if (a.kind == BridgeEndSpec::Kind::Pane && b.kind == BridgeEndSpec::Kind::Pane && a.pane.trimmed() == b.pane.trimmed())
        return Result::failure(tr("Both ends name the same pane."));
    if (a.kind == BridgeEndSpec::Kind::Listener && b.kind == BridgeEndSpec::Kind::Listener && a.listenPort != 0
        && a.listenPort == b.listenPort)
        return Result::failure(tr("Both ends listen on port %1.").arg(a.listenPort));

    qint64 largestFrame = 0;
    for (int d : {kAToB, kBToA}) {
        if (!forwardsFrom(d == kAToB ? kA : kB))
            continue;
        if (const Result r = validateFraming(d); !r)
            return r;
        largestFrame = std::max<qint64>(largestFrame, framing[size_t(d)].maxFrameSize);
    }

    if (egress.highWatermark < 1 || egress.highWatermark > kMaxWatermark)
        return Result::failure(tr("The high watermark must be between 1 and %L1 bytes.").arg(kMaxWatermark));
    if (egress.lowWatermark < 0 || egress.lowWatermark >= egress.highWatermark)
        return Result::failure(tr("The low watermark must be below the high watermark."));
    if (egress.highWatermark < largestFrame)
        return Result::failure(tr("The high watermark must hold at least one whole frame (%L1 bytes).").arg(largestFrame));

    if (flood.seconds < 1 || flood.seconds > RateHistory::kSeconds)
        return Result::failure(tr("The flood guard's time must be between 1 and %1 s.").arg(RateHistory::kSeconds));
    if (flood.rateLimit < 0)
        return Result::failure(tr("The flood guard's rate limit cannot be negative."));
    if (capture.rotateSizeBytes < 0)
        return Result::failure(tr("The capture log's rotation size cannot be negative."));
    return Result::success();
}

Result BridgeRecord::validateModbus() const
{
    if (ends[kA].kind != BridgeEndSpec::Kind::Listener || ends[kB].kind != BridgeEndSpec::Kind::Pane)
        return Result::failure(tr("A Modbus gateway takes its clients on a listener as end A and its line on a pane as end B."));
    if (modbus.responseTimeoutMs < 1 || modbus.responseTimeoutMs > kMaxModbusTimeoutMs)
        return Result::failure(tr("The response timeout must be between 1 and %L1 ms.").arg(kMaxModbusTimeoutMs));
    if (modbus.turnaroundMs < 0 || modbus.turnaroundMs > kMaxModbusTurnaroundMs)
        return Result::failure(tr("The turnaround delay must be between 0 and %L1 ms.").arg(kMaxModbusTurnaroundMs));
    if (modbus.perClientLimit < 1 || modbus.perClientLimit > kMaxModbusClientQueue)
        return Result::failure(tr("A client's queue holds between 1 and %1 requests.").arg(kMaxModbusClientQueue));
    if (modbus.totalLimit < 1 || modbus.totalLimit > kMaxModbusTotalQueue)
        return Result::failure(tr("The gateway's queue holds between 1 and %1 requests.").arg(kMaxModbusTotalQueue));
    if (modbus.perClientLimit > modbus.totalLimit)
        return Result::failure(tr("A client's queue cannot hold more than the gateway's queue."));
    return Result::success();
}

Result BridgeRecord::validateShare() const
{
    if (ends[kA].kind != BridgeEndSpec::Kind::Listener || ends[kB].kind != BridgeEndSpec::Kind::Pane)
        return Result::failure(tr("RFC 2217 port sharing takes its clients on a listener as end A and the shared port on a pane as end B."));
    return Result::success();
}

Result BridgeRecord::validateEnd(int end) const
{
    const BridgeEndSpec &spec = ends[size_t(end)];
    const QString name = endName(end);
    switch (spec.kind) {
    case BridgeEndSpec::Kind::Pane:
        if (spec.pane.trimmed().isEmpty())
            return Result::failure(tr("End %1: choose a pane.").arg(name));
        break;
    case BridgeEndSpec::Kind::Listener:
        if (QHostAddress(spec.listenAddress.trimmed()).isNull())
            return Result::failure(tr("End %1: \"%2\" is not an IP address to listen on.").arg(name, spec.listenAddress));
        if (spec.listenPort < 0 || spec.listenPort > 65535)
            return Result::failure(tr("End %1: the port must be between 0 (any free port) and 65535.").arg(name));
        for (const QString &entry : spec.allowlist) {
            if (!isAddressOrSubnet(entry)) {
                return Result::failure(
                    tr("End %1: the allowlist entry \"%2\" is neither an address nor a subnet such as 192.168.1.0/24.")
                        .arg(name, entry));
            }
        }
        break;
    case BridgeEndSpec::Kind::Udp:
        if (spec.udpTargets.isEmpty())
            return Result::failure(tr("End %1: list at least one UDP target as address:port.").arg(name));
        if (spec.udpTargets.size() > kMaxUdpTargets)
            return Result::failure(tr("End %1: at most %2 UDP targets.").arg(name).arg(kMaxUdpTargets));
        for (const QString &target : spec.udpTargets) {
            if (!parseUdpTarget(target)) {
                return Result::failure(
                    tr("End %1: \"%2\" is not a UDP target; write address:port, such as 192.168.1.20:5000.")
                        .arg(name, target));
            }
        }
        if (forwardsFrom(end))
            return Result::failure(tr("End %1 only sends UDP datagrams; choose a direction toward it.").arg(name));
        break;
    }
    return Result::success();
}

Result BridgeRecord::validateFraming(int direction) const
{
    const BridgeFramer::Options &f = framing[size_t(direction)];
    const QString name = directionName(direction);
    if (f.maxFrameSize < 1 || f.maxFrameSize > kMaxFrameSize)
        return Result::failure(tr("%1: the maximum frame size must be between 1 and %L2 bytes.").arg(name).arg(kMaxFrameSize));
    const int target = direction == kAToB ? kB : kA;
    if (ends[size_t(target)].kind == BridgeEndSpec::Kind::Udp && f.maxFrameSize > kMaxUdpDatagram) {
        return Result::failure(
            tr("%1: a frame for UDP targets must fit one datagram, at most %L2 bytes.").arg(name).arg(kMaxUdpDatagram));
    }
    if (f.holdMs < 0 || f.holdMs > kMaxTimeMs)
        return Result::failure(tr("%1: the hold time must be between 0 (no hold) and %L2 ms.").arg(name).arg(kMaxTimeMs));
    switch (f.mode) {
    case BridgeFramer::Mode::None:
        break;
    case BridgeFramer::Mode::IdleGap:
        if (f.idleGapMs < 1 || f.idleGapMs > kMaxTimeMs)
            return Result::failure(tr("%1: the idle gap must be between 1 and %L2 ms.").arg(name).arg(kMaxTimeMs));
        break;
    case BridgeFramer::Mode::Delimiter:
        if (f.delimiter.isEmpty() || f.delimiter.size() > kMaxDelimiterBytes)
            return Result::failure(tr("%1: the delimiter must be 1 to %2 bytes.").arg(name).arg(kMaxDelimiterBytes));
        break;
    case BridgeFramer::Mode::FixedLength:
        if (f.fixedLength < 1 || f.fixedLength > f.maxFrameSize) {
            return Result::failure(tr("%1: the fixed length must be between 1 and the maximum frame size (%L2 bytes).")
                                       .arg(name)
                                       .arg(f.maxFrameSize));
        }
        break;
    }
    return Result::success();
}
