#include "bridge/bridgestore.h"

#include "tools/hexparser.h"

#include <QSettings>

#include <functional>
#include <limits>

namespace {

const QString kGroup = QStringLiteral("Bridge");
const QString kCountKey = QStringLiteral("Bridge/Count");

// One stored field: how it is written, and how stored text is read back.
// read() returns false, leaving the record as it was, when the text is not
// a value of the field.
struct Field
{
    QString key;
    std::function<QString(const BridgeRecord &)> write;
    std::function<bool(BridgeRecord &, const QString &)> read;
};

bool readBool(const QString &text, bool *value)
{
    if (text == QLatin1String("true") || text == QLatin1String("1")) {
        *value = true;
        return true;
    }
    if (text == QLatin1String("false") || text == QLatin1String("0")) {
        *value = false;
        return true;
    }
    return false;
}

template <typename Int>
bool readInt(const QString &text, qint64 min, qint64 max, Int *value)
{
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok);
    if (!ok || v < min || v > max)
        return false;
    *value = Int(v);
    return true;
}

QString boolText(bool on)
{
    return on ? QStringLiteral("true") : QStringLiteral("false");
}

// A comma-separated list; entries are trimmed, empty ones dropped.
QStringList listFrom(const QString &text)
{
    QStringList result;
    for (const QString &part : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        if (!part.trimmed().isEmpty())
            result.append(part.trimmed());
    }
    return result;
}

void addEndFields(QList<Field> &fields, int end)
{
    const QString prefix = QStringLiteral("End") + BridgeRecord::endName(end);
    const auto e = [end](BridgeRecord &r) -> BridgeEndSpec & { return r.ends[size_t(end)]; };
    const auto ce = [end](const BridgeRecord &r) -> const BridgeEndSpec & { return r.ends[size_t(end)]; };
    fields.append({prefix + QStringLiteral("Kind"),
                   [ce](const BridgeRecord &r) { return BridgeRecord::endKindWord(ce(r).kind); },
                   [e](BridgeRecord &r, const QString &t) { return BridgeRecord::endKindFromWord(t, &e(r).kind); }});
    fields.append({prefix + QStringLiteral("Pane"), [ce](const BridgeRecord &r) { return ce(r).pane; },
                   [e](BridgeRecord &r, const QString &t) {
                       e(r).pane = t;
                       return t.size() <= 1024;
                   }});
    fields.append({prefix + QStringLiteral("Address"), [ce](const BridgeRecord &r) { return ce(r).listenAddress; },
                   [e](BridgeRecord &r, const QString &t) {
                       e(r).listenAddress = t;
                       return t.size() <= 64;
                   }});
    fields.append({prefix + QStringLiteral("Port"), [ce](const BridgeRecord &r) { return QString::number(ce(r).listenPort); },
                   [e](BridgeRecord &r, const QString &t) { return readInt(t, 0, 65535, &e(r).listenPort); }});
    fields.append({prefix + QStringLiteral("Allowlist"),
                   [ce](const BridgeRecord &r) { return ce(r).allowlist.join(QLatin1Char(',')); },
                   [e](BridgeRecord &r, const QString &t) {
                       e(r).allowlist = listFrom(t);
                       return e(r).allowlist.size() <= 256;
                   }});
    fields.append({prefix + QStringLiteral("Exclusive"), [ce](const BridgeRecord &r) { return boolText(ce(r).exclusive); },
                   [e](BridgeRecord &r, const QString &t) { return readBool(t, &e(r).exclusive); }});
    fields.append({prefix + QStringLiteral("Targets"),
                   [ce](const BridgeRecord &r) { return ce(r).udpTargets.join(QLatin1Char(',')); },
                   [e](BridgeRecord &r, const QString &t) {
                       e(r).udpTargets = listFrom(t);
                       return e(r).udpTargets.size() <= BridgeRecord::kMaxUdpTargets;
                   }});
}

void addFramingFields(QList<Field> &fields, int direction)
{
    const QString prefix = direction == BridgeRecord::kAToB ? QStringLiteral("AToB") : QStringLiteral("BToA");
    const auto f = [direction](BridgeRecord &r) -> BridgeFramer::Options & { return r.framing[size_t(direction)]; };
    const auto cf = [direction](const BridgeRecord &r) -> const BridgeFramer::Options & {
        return r.framing[size_t(direction)];
    };
    constexpr qint64 maxTime = BridgeRecord::kMaxTimeMs;
    fields.append({prefix + QStringLiteral("Framing"),
                   [cf](const BridgeRecord &r) { return BridgeRecord::framingWord(cf(r).mode); },
                   [f](BridgeRecord &r, const QString &t) { return BridgeRecord::framingFromWord(t, &f(r).mode); }});
    fields.append({prefix + QStringLiteral("IdleGapMs"), [cf](const BridgeRecord &r) { return QString::number(cf(r).idleGapMs); },
                   [f](BridgeRecord &r, const QString &t) { return readInt(t, 1, maxTime, &f(r).idleGapMs); }});
    fields.append({prefix + QStringLiteral("Delimiter"),
                   [cf](const BridgeRecord &r) { return HexParser::toHexText(cf(r).delimiter); },
                   [f](BridgeRecord &r, const QString &t) {
                       const auto bytes = HexParser::parse(t, HexParser::Grouping::Tokens);
                       if (!bytes || bytes.value().isEmpty() || bytes.value().size() > BridgeRecord::kMaxDelimiterBytes)
                           return false;
                       f(r).delimiter = bytes.value();
                       return true;
                   }});
    fields.append({prefix + QStringLiteral("KeepDelimiter"),
                   [cf](const BridgeRecord &r) { return boolText(cf(r).keepDelimiter); },
                   [f](BridgeRecord &r, const QString &t) { return readBool(t, &f(r).keepDelimiter); }});
    fields.append({prefix + QStringLiteral("FixedLength"),
                   [cf](const BridgeRecord &r) { return QString::number(cf(r).fixedLength); },
                   [f](BridgeRecord &r, const QString &t) {
                       return readInt(t, 1, BridgeRecord::kMaxFrameSize, &f(r).fixedLength);
                   }});
    fields.append({prefix + QStringLiteral("MaxFrameSize"),
                   [cf](const BridgeRecord &r) { return QString::number(cf(r).maxFrameSize); },
                   [f](BridgeRecord &r, const QString &t) {
                       return readInt(t, 1, BridgeRecord::kMaxFrameSize, &f(r).maxFrameSize);
                   }});
    fields.append({prefix + QStringLiteral("HoldMs"), [cf](const BridgeRecord &r) { return QString::number(cf(r).holdMs); },
                   [f](BridgeRecord &r, const QString &t) { return readInt(t, 0, maxTime, &f(r).holdMs); }});
}

const QList<Field> &fields()
{
    static const QList<Field> table = [] {
        QList<Field> t;
        t.append({QStringLiteral("Name"), [](const BridgeRecord &r) { return r.name; },
                  [](BridgeRecord &r, const QString &v) {
                      r.name = v;
                      return v.size() <= BridgeRecord::kMaxNameLength;
                  }});
        t.append({QStringLiteral("Kind"), [](const BridgeRecord &r) { return BridgeRecord::kindWord(r.kind); },
                  [](BridgeRecord &r, const QString &v) { return BridgeRecord::kindFromWord(v, &r.kind); }});
        t.append({QStringLiteral("Enabled"), [](const BridgeRecord &r) { return boolText(r.enabled); },
                  [](BridgeRecord &r, const QString &v) { return readBool(v, &r.enabled); }});
        t.append({QStringLiteral("Direction"), [](const BridgeRecord &r) { return BridgeRecord::directionWord(r.direction); },
                  [](BridgeRecord &r, const QString &v) { return BridgeRecord::directionFromWord(v, &r.direction); }});
        addEndFields(t, BridgeRecord::kA);
        addEndFields(t, BridgeRecord::kB);
        addFramingFields(t, BridgeRecord::kAToB);
        addFramingFields(t, BridgeRecord::kBToA);
        t.append({QStringLiteral("HighWatermark"), [](const BridgeRecord &r) { return QString::number(r.egress.highWatermark); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 1, BridgeRecord::kMaxWatermark, &r.egress.highWatermark);
                  }});
        t.append({QStringLiteral("LowWatermark"), [](const BridgeRecord &r) { return QString::number(r.egress.lowWatermark); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 0, BridgeRecord::kMaxWatermark, &r.egress.lowWatermark);
                  }});
        t.append({QStringLiteral("OverflowPolicy"), [](const BridgeRecord &r) { return BridgeRecord::policyWord(r.egress.policy); },
                  [](BridgeRecord &r, const QString &v) { return BridgeRecord::policyFromWord(v, &r.egress.policy); }});
        t.append({QStringLiteral("EchoCheck"), [](const BridgeRecord &r) { return boolText(r.flood.echoCheck); },
                  [](BridgeRecord &r, const QString &v) { return readBool(v, &r.flood.echoCheck); }});
        t.append({QStringLiteral("RateLimit"), [](const BridgeRecord &r) { return QString::number(r.flood.rateLimit); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 0, std::numeric_limits<qint64>::max() / 2, &r.flood.rateLimit);
                  }});
        t.append({QStringLiteral("FloodSeconds"), [](const BridgeRecord &r) { return QString::number(r.flood.seconds); },
                  [](BridgeRecord &r, const QString &v) { return readInt(v, 1, RateHistory::kSeconds, &r.flood.seconds); }});
        t.append({QStringLiteral("ModbusFraming"),
                  [](const BridgeRecord &r) { return BridgeRecord::modbusFramingWord(r.modbus.framing); },
                  [](BridgeRecord &r, const QString &v) { return BridgeRecord::modbusFramingFromWord(v, &r.modbus.framing); }});
        t.append({QStringLiteral("ModbusTimeoutMs"), [](const BridgeRecord &r) { return QString::number(r.modbus.responseTimeoutMs); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 1, BridgeRecord::kMaxModbusTimeoutMs, &r.modbus.responseTimeoutMs);
                  }});
        t.append({QStringLiteral("ModbusTurnaroundMs"), [](const BridgeRecord &r) { return QString::number(r.modbus.turnaroundMs); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 0, BridgeRecord::kMaxModbusTurnaroundMs, &r.modbus.turnaroundMs);
                  }});
        t.append({QStringLiteral("ModbusRetry"), [](const BridgeRecord &r) { return boolText(r.modbus.retryOnce); },
                  [](BridgeRecord &r, const QString &v) { return readBool(v, &r.modbus.retryOnce); }});
        t.append({QStringLiteral("ModbusClientQueue"), [](const BridgeRecord &r) { return QString::number(r.modbus.perClientLimit); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 1, BridgeRecord::kMaxModbusClientQueue, &r.modbus.perClientLimit);
                  }});
        t.append({QStringLiteral("ModbusTotalQueue"), [](const BridgeRecord &r) { return QString::number(r.modbus.totalLimit); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 1, BridgeRecord::kMaxModbusTotalQueue, &r.modbus.totalLimit);
                  }});
        t.append({QStringLiteral("Capture"), [](const BridgeRecord &r) { return boolText(r.capture.enabled); },
                  [](BridgeRecord &r, const QString &v) { return readBool(v, &r.capture.enabled); }});
        t.append({QStringLiteral("CaptureFolder"), [](const BridgeRecord &r) { return r.capture.folder; },
                  [](BridgeRecord &r, const QString &v) {
                      r.capture.folder = v;
                      return v.size() <= 4096;
                  }});
        t.append({QStringLiteral("CaptureRotateBytes"),
                  [](const BridgeRecord &r) { return QString::number(r.capture.rotateSizeBytes); },
                  [](BridgeRecord &r, const QString &v) {
                      return readInt(v, 0, std::numeric_limits<qint64>::max() / 2, &r.capture.rotateSizeBytes);
                  }});
        return t;
    }();
    return table;
}

QString shown(const QString &text)
{
    // A garbled value can be anything: the message shows a short, one-line start of it.
    QString line = text.left(40);
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return text.size() > 40 ? line + QStringLiteral("…") : line;
}

} // namespace

QString BridgeStore::key(int index, const QString &field)
{
    return QStringLiteral("Bridge/%1/%2").arg(index).arg(field);
}

QStringList BridgeStore::fieldKeys()
{
    QStringList keys;
    for (const Field &field : fields())
        keys.append(field.key);
    return keys;
}

BridgeStore::Loaded BridgeStore::load(QSettings &settings)
{
    Loaded loaded;
    if (!settings.contains(kCountKey))
        return loaded;
    const QString countText = settings.value(kCountKey).toString();
    int count = 0;
    if (!readInt(countText, 0, std::numeric_limits<int>::max(), &count)) {
        loaded.skipped.append(tr("The stored bridges were not loaded: Bridge/Count holds \"%1\", which is not a count.")
                                  .arg(shown(countText)));
        return loaded;
    }
    if (count > kMaxBridges) {
        loaded.skipped.append(tr("Only the first %1 of %2 stored bridges were loaded.").arg(kMaxBridges).arg(count));
        count = kMaxBridges;
    }
    for (int index = 0; index < count; ++index) {
        BridgeRecord record;
        QString problem;
        // The kind first: a bridge of a kind this version does not know is
        // not read further.
        const QString kindKey = key(index, QStringLiteral("Kind"));
        if (settings.contains(kindKey) && !BridgeRecord::kindFromWord(settings.value(kindKey).toString(), &record.kind)) {
            problem = tr("its kind \"%1\" is not known to this version.").arg(shown(settings.value(kindKey).toString()));
        }
        for (const Field &field : fields()) {
            if (!problem.isEmpty())
                break;
            const QString k = key(index, field.key);
            if (!settings.contains(k))
                continue;
            // A list stored by another writer may come back as a list.
            const QVariant value = settings.value(k);
            const QString text = value.typeId() == QMetaType::QStringList ? value.toStringList().join(QLatin1Char(','))
                                                                           : value.toString();
            if (!field.read(record, text))
                problem = tr("%1 holds \"%2\", which it cannot take.").arg(field.key, shown(text));
        }
        if (problem.isEmpty()) {
            if (const Result valid = record.validate(); !valid)
                problem = valid.errorText();
        }
        if (!problem.isEmpty()) {
            loaded.skipped.append(tr("Stored bridge %1 was skipped: %2").arg(index + 1).arg(problem));
            continue;
        }
        loaded.records.append(record);
    }
    return loaded;
}

void BridgeStore::save(QSettings &settings, const QList<BridgeRecord> &records)
{
    settings.remove(kGroup);
    settings.setValue(kCountKey, int(records.size()));
    for (int index = 0; index < records.size(); ++index) {
        for (const Field &field : fields())
            settings.setValue(key(index, field.key), field.write(records.at(index)));
    }
}
