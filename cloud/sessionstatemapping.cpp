#include "cloud/sessionstatemapping.h"

#include "settings/panesettings.h"

#include <type_traits>

namespace SessionStateMapping {

namespace {

// One member of the synced document tied to the pane field it carries.
// Values go through the field table, so what comes from the cloud is
// range-checked like what comes from any other store.
struct Link
{
    const char *fieldId;
    QVariant (*get)(const SessionState &state);
    void (*put)(SessionState &state, const QVariant &value);
};

template <auto Member>
Link link(const char *fieldId)
{
    return {fieldId,
            [](const SessionState &s) { return QVariant::fromValue(s.*Member); },
            [](SessionState &s, const QVariant &v) {
                using T = std::remove_cvref_t<decltype(s.*Member)>;
                s.*Member = v.value<T>();
            }};
}

const QList<Link> &links()
{
    using S = SessionState;
    static const QList<Link> all{
        link<&S::connMode>("mode"),
        link<&S::portName>("portName"),
        link<&S::baudRate>("baudRate"),
        link<&S::dataBits>("dataBits"),
        link<&S::stopBits>("stopBits"),
        link<&S::parity>("parity"),
        link<&S::flowControl>("flowControl"),
        link<&S::targetHost>("targetHost"),
        link<&S::targetHosts>("recentTargetHosts"),
        link<&S::targetPort>("targetPort"),
        link<&S::udpLocalPort>("udpLocalPort"),
        link<&S::udpServerPort>("udpServerPort"),
        link<&S::receiveMsgFormat>("receiveFormat"),
        link<&S::sendMsgFormat>("sendFormat"),
        link<&S::receiveEncoding>("receiveEncoding"),
        link<&S::sendEncoding>("sendEncoding"),
        link<&S::sendChecksum>("sendChecksum"),
        link<&S::rxAutoFeedLine>("rxAutoFeedLine"),
        link<&S::rxLineEndingMode>("rxLineEnding"),
        link<&S::txAutoFeedLine>("txAutoFeedLine"),
        link<&S::txLineEndingMode>("txLineEnding"),
        link<&S::terminalEnterMode>("terminalEnterMode"),
        link<&S::autoFeedInterval>("autoFeedInterval"),
        link<&S::splitterLeft>("splitterLeft"),
        link<&S::splitterRight>("splitterRight"),
        link<&S::displaySendMsg>("displaySendMsg"),
        link<&S::localEcho>("localEcho"),
        link<&S::displayMsgTime>("displayTime"),
        link<&S::rxTimeFormat>("rxTimeFormat"),
        link<&S::txTimeFormat>("txTimeFormat"),
        link<&S::displayBufferSize>("displayBufferSize"),
        link<&S::fontFamily>("fontFamily"),
        link<&S::fontPointSize>("fontSize"),
        link<&S::sendTextColor>("sendTextColor"),
        link<&S::receiveTextColor>("receiveTextColor"),
    };
    return all;
}

} // namespace

SessionState fromRecords(const ConnectionConfig &connection, const PaneOptions &pane, bool autoReconnect,
                         bool restoreLastConnection, int language, const QStringList &sendHistory,
                         bool withSendHistory)
{
    const PaneSettings settings{connection, pane};
    SessionState s;
    for (const Link &l : links())
        l.put(s, PaneFields::find(QLatin1String(l.fieldId))->get(settings));
    // The document carries a flag here, not the colour: format marks are
    // coloured whenever a colour is set.
    s.formatDisplayColor = !pane.formatDisplayColor.isEmpty();

    s.autoReconnect = autoReconnect;
    s.restoreLastConnection = restoreLastConnection;
    s.language = language;
    s.hasSendHistory = withSendHistory;
    if (withSendHistory)
        s.sendHistory = sendHistory;
    return s;
}

void toRecords(const SessionState &s, ConnectionConfig &connection, PaneOptions &pane)
{
    PaneSettings settings{connection, pane};
    // A value the field refuses keeps what the record had.
    for (const Link &l : links())
        PaneFields::find(QLatin1String(l.fieldId))->set(settings, l.get(s));
    connection = settings.connection;
    pane = settings.options;
}

} // namespace SessionStateMapping
