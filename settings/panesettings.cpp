#include "settings/panesettings.h"

#include <QTime>

#include <limits>
#include <type_traits>

namespace {

using Kind = PaneField::Kind;
constexpr qint64 kIntMax = std::numeric_limits<int>::max();
// Texts a user types (names, formats, folders); hosts are far shorter.
constexpr qint64 kTextMax = 4096;
constexpr qint64 kHostMax = 255;

// A field on one member of one of the two records. Enumerations are kept
// as their persisted integers.
template <auto Group, auto Member>
PaneField field(const char *id, Kind kind, qint64 min = 0, qint64 max = 0, QList<int> allowed = {})
{
    PaneField f;
    f.id = QString::fromLatin1(id);
    f.kind = kind;
    f.min = min;
    f.max = max;
    f.allowed = std::move(allowed);
    f.read = [](const PaneSettings &s) -> QVariant {
        const auto &value = (s.*Group).*Member;
        using T = std::remove_cvref_t<decltype(value)>;
        // Stores keep plain ints: a quint16 would be written as a binary
        // variant by some of them.
        if constexpr (std::is_enum_v<T> || (std::is_integral_v<T> && !std::is_same_v<T, bool>))
            return int(value);
        else
            return QVariant::fromValue(value);
    };
    f.write = [](PaneSettings &s, const QVariant &v) {
        auto &value = (s.*Group).*Member;
        using T = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_enum_v<T>)
            value = T(v.toInt());
        else
            value = v.value<T>();
    };
    return f;
}

constexpr auto C = &PaneSettings::connection;
constexpr auto O = &PaneSettings::options;

QList<PaneField> makeFields()
{
    const QList<int> formats{int(MessageFormat::Hex), int(MessageFormat::Text)};
    const QList<int> endings{0, 1, 2, 3, 4};
    return {
        field<C, &ConnectionConfig::mode>("mode", Kind::Int, std::numeric_limits<int>::min(), kIntMax),
        field<C, &ConnectionConfig::portName>("portName", Kind::String, 0, kTextMax),
        field<C, &ConnectionConfig::baudRate>("baudRate", Kind::Int, 1, kIntMax),
        field<C, &ConnectionConfig::dataBits>("dataBits", Kind::Enum, 0, 0, {5, 6, 7, 8}),
        field<C, &ConnectionConfig::stopBits>("stopBits", Kind::Enum, 0, 0, {1, 2, 3}),
        field<C, &ConnectionConfig::parity>("parity", Kind::Enum, 0, 0, {0, 2, 3, 4, 5}),
        field<C, &ConnectionConfig::flowControl>("flowControl", Kind::Enum, 0, 0, {0, 1, 2}),
        field<C, &ConnectionConfig::dtrOn>("dtrOn", Kind::Bool),
        field<C, &ConnectionConfig::rtsOn>("rtsOn", Kind::Bool),
        field<C, &ConnectionConfig::targetHost>("targetHost", Kind::String, 0, kHostMax),
        field<C, &ConnectionConfig::recentTargetHosts>("recentTargetHosts", Kind::StringList, 0, kHostMax),
        field<C, &ConnectionConfig::targetPort>("targetPort", Kind::Int, ConnectionConfig::kMinTargetPort,
                                                ConnectionConfig::kMaxTargetPort),
        field<C, &ConnectionConfig::udpLocalPort>("udpLocalPort", Kind::Int, 0, 65535),
        field<C, &ConnectionConfig::udpServerPort>("udpServerPort", Kind::Int, 0, 65535),
        field<C, &ConnectionConfig::listenAddress>("listenAddress", Kind::Enum, 0, 0,
                                                   {int(QHostAddress::Any), int(QHostAddress::AnyIPv4),
                                                    int(QHostAddress::LocalHost), int(QHostAddress::LocalHostIPv6)}),
        field<C, &ConnectionConfig::useRemoteSerialConfig>("useRemoteSerialConfig", Kind::Bool),
        field<C, &ConnectionConfig::relayCid>("relayCid", Kind::String, 0, kTextMax),
        field<C, &ConnectionConfig::relayPortName>("relayPortName", Kind::String, 0, kTextMax),
        field<C, &ConnectionConfig::relayPortKey>("relayPortKey", Kind::String, 0, kTextMax),
        field<C, &ConnectionConfig::relayShareLabel>("relayShareLabel", Kind::String, 0, kTextMax),
        field<C, &ConnectionConfig::relayGuestName>("relayGuestName", Kind::String, 0, kTextMax),

        field<O, &PaneOptions::receiveFormat>("receiveFormat", Kind::Enum, 0, 0, formats),
        field<O, &PaneOptions::receiveEncoding>("receiveEncoding", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::rxAutoFeedLine>("rxAutoFeedLine", Kind::Bool),
        field<O, &PaneOptions::rxLineEnding>("rxLineEnding", Kind::Enum, 0, 0, endings),
        field<O, &PaneOptions::autoFeedInterval>("autoFeedInterval", Kind::Int, 1, 600000),
        field<O, &PaneOptions::displaySendMsg>("displaySendMsg", Kind::Bool),
        field<O, &PaneOptions::displayTime>("displayTime", Kind::Bool),
        field<O, &PaneOptions::rxTimeFormat>("rxTimeFormat", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::txTimeFormat>("txTimeFormat", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::displayBufferSize>("displayBufferSize", Kind::Int, 1000, 100000000),
        field<O, &PaneOptions::sendFormat>("sendFormat", Kind::Enum, 0, 0, formats),
        field<O, &PaneOptions::sendEncoding>("sendEncoding", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::sendChecksum>("sendChecksum", Kind::Enum, 0, 0, {0, 1, 2, 3, 4, 5}),
        field<O, &PaneOptions::txAutoFeedLine>("txAutoFeedLine", Kind::Bool),
        field<O, &PaneOptions::txLineEnding>("txLineEnding", Kind::Enum, 0, 0, endings),
        field<O, &PaneOptions::terminalEnterMode>("terminalEnterMode", Kind::Enum, 0, 0, endings),
        field<O, &PaneOptions::localEcho>("localEcho", Kind::Bool),
        field<O, &PaneOptions::autoSend>("autoSend", Kind::Bool),
        field<O, &PaneOptions::sendInterval>("sendInterval", Kind::Int, 1, 86400000),
        field<O, &PaneOptions::sendTimeUnit>("sendTimeUnit", Kind::Enum, 0, 0, {0, 1}),
        field<O, &PaneOptions::lineByLine>("lineByLine", Kind::Bool),
        field<O, &PaneOptions::supportComment>("supportComment", Kind::Bool),
        field<O, &PaneOptions::formatSend>("formatSend", Kind::Bool),
        field<O, &PaneOptions::splitterLeft>("splitterLeft", Kind::Int, 0, 1000000),
        field<O, &PaneOptions::splitterRight>("splitterRight", Kind::Int, 0, 1000000),
        field<O, &PaneOptions::fontFamily>("fontFamily", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::fontSize>("fontSize", Kind::Int, 1, 200),
        field<O, &PaneOptions::fontWeight>("fontWeight", Kind::Int, 1, 1000),
        field<O, &PaneOptions::formatDisplayColor>("formatDisplayColor", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::sendTextColor>("sendTextColor", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::receiveTextColor>("receiveTextColor", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::showControlLineLeds>("showControlLineLeds", Kind::Bool),
        field<O, &PaneOptions::logSaveFlag>("logSaveFlag", Kind::Bool),
        field<O, &PaneOptions::logFilePath>("logFilePath", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::logFileName>("logFileName", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::logTimestampEnabled>("logTimestampEnabled", Kind::Bool),
        field<O, &PaneOptions::logTimestamp>("logTimestamp", Kind::String, 0, kTextMax),
        field<O, &PaneOptions::logRotateAtSize>("logRotateAtSize", Kind::Bool),
        field<O, &PaneOptions::logRotateSize>("logRotateSize", Kind::Int, 1, 1024 * 1024),
        field<O, &PaneOptions::logRotateAtTime>("logRotateAtTime", Kind::Bool),
        field<O, &PaneOptions::logRotateTime>("logRotateTime", Kind::Time),
        field<O, &PaneOptions::needHourTimeStamp>("needHourTimeStamp", Kind::Bool),
    };
}

} // namespace

bool PaneField::set(PaneSettings &settings, const QVariant &value) const
{
    if (!value.isValid())
        return false;
    switch (kind) {
    case Kind::Int:
    case Kind::Enum: {
        bool ok = false;
        const qint64 number = value.toLongLong(&ok);
        if (!ok)
            return false;
        if (kind == Kind::Enum) {
            if (!allowed.contains(int(number)) || number != int(number))
                return false;
            write(settings, int(number));
        } else {
            write(settings, int(qBound(min, number, max)));
        }
        return true;
    }
    case Kind::Bool: {
        // Stores hand back "true"/"false" or numbers; anything else is not
        // a yes or no.
        const QString text = value.toString().trimmed().toLower();
        if (value.typeId() == QMetaType::Bool || text == u"true" || text == u"false" || text == u"1" || text == u"0") {
            write(settings, value.toBool());
            return true;
        }
        return false;
    }
    case Kind::String: {
        if (!value.canConvert<QString>() || value.typeId() == QMetaType::QStringList)
            return false;
        const QString text = value.toString();
        if (text.size() > max)
            return false;
        write(settings, text);
        return true;
    }
    case Kind::StringList: {
        const QStringList list = value.toStringList();
        for (const QString &entry : list) {
            if (entry.size() > max)
                return false;
        }
        write(settings, list);
        return true;
    }
    case Kind::Time: {
        const QTime time = value.toTime();
        if (!time.isValid())
            return false;
        write(settings, time);
        return true;
    }
    }
    return false;
}

namespace PaneFields {

const QList<PaneField> &all()
{
    static const QList<PaneField> fields = makeFields();
    return fields;
}

const PaneField *find(const QString &id)
{
    for (const PaneField &f : all()) {
        if (f.id == id)
            return &f;
    }
    return nullptr;
}

} // namespace PaneFields
