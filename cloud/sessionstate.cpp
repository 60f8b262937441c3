#include "cloud/sessionstate.h"

#include <QJsonArray>

namespace {

QJsonArray toArray(const QStringList &list)
{
    return QJsonArray::fromStringList(list);
}

QStringList toList(const QJsonValue &value)
{
    QStringList list;
    for (const QJsonValue &entry : value.toArray()) {
        if (entry.isString())
            list.append(entry.toString());
    }
    return list;
}

void read(const QJsonObject &o, const char *name, int &out)
{
    const QJsonValue v = o.value(QLatin1String(name));
    if (v.isDouble())
        out = v.toInt(out);
}

void read(const QJsonObject &o, const char *name, bool &out)
{
    const QJsonValue v = o.value(QLatin1String(name));
    if (v.isBool())
        out = v.toBool();
}

void read(const QJsonObject &o, const char *name, QString &out)
{
    const QJsonValue v = o.value(QLatin1String(name));
    if (v.isString())
        out = v.toString();
}

QStringList joined(const QStringList &ours, const QStringList &theirs)
{
    QStringList result = ours;
    for (const QString &entry : theirs) {
        if (!result.contains(entry))
            result.append(entry);
    }
    return result;
}

} // namespace

QJsonObject SessionState::toJson() const
{
    const QJsonObject serial{{"baud_rate", baudRate}, {"data_bits", dataBits}, {"stop_bits", stopBits},
                             {"parity", parity},      {"flow_control", flowControl}};
    const QJsonObject network{{"target_host", targetHost},
                              {"target_hosts", toArray(targetHosts)},
                              {"target_port", targetPort},
                              {"udp_local_port", udpLocalPort},
                              {"udp_server_port", udpServerPort}};
    const QJsonObject connection{{"conn_mode", connMode}, {"port_name", portName}, {"serial", serial}, {"network", network}};
    const QJsonObject display{{"receive_msg_format", receiveMsgFormat},
                              {"send_msg_format", sendMsgFormat},
                              {"receive_encoding", receiveEncoding},
                              {"send_encoding", sendEncoding},
                              {"send_checksum", sendChecksum},
                              {"rx_auto_feed_line", rxAutoFeedLine},
                              {"rx_line_ending_mode", rxLineEndingMode},
                              {"tx_auto_feed_line", txAutoFeedLine},
                              {"tx_line_ending_mode", txLineEndingMode},
                              {"terminal_enter_mode", terminalEnterMode},
                              {"auto_feed_interval", autoFeedInterval},
                              {"splitter_left", splitterLeft},
                              {"splitter_right", splitterRight},
                              {"display_send_msg", displaySendMsg},
                              {"local_echo", localEcho},
                              {"display_msg_time", displayMsgTime},
                              {"rx_time_format", rxTimeFormat},
                              {"tx_time_format", txTimeFormat},
                              {"display_buffer_size", displayBufferSize},
                              {"font", QJsonObject{{"family", fontFamily}, {"point_size", fontPointSize}}},
                              {"format_display_color", formatDisplayColor},
                              {"colors", QJsonObject{{"send_text", sendTextColor}, {"receive_text", receiveTextColor}}}};
    const QJsonObject behavior{{"auto_reconnect", autoReconnect},
                               {"restore_last_connection", restoreLastConnection},
                               {"language", language}};
    QJsonObject settings{{"connection", connection}, {"display", display}, {"behavior", behavior}};
    if (hasSendHistory)
        settings.insert(QStringLiteral("send_history"), toArray(sendHistory));
    return settings;
}

SessionState SessionState::fromJson(const QJsonObject &settings)
{
    SessionState s;
    const QJsonObject connection = settings.value(QLatin1String("connection")).toObject();
    read(connection, "conn_mode", s.connMode);
    read(connection, "port_name", s.portName);
    const QJsonObject serial = connection.value(QLatin1String("serial")).toObject();
    read(serial, "baud_rate", s.baudRate);
    read(serial, "data_bits", s.dataBits);
    read(serial, "stop_bits", s.stopBits);
    read(serial, "parity", s.parity);
    read(serial, "flow_control", s.flowControl);
    const QJsonObject network = connection.value(QLatin1String("network")).toObject();
    read(network, "target_host", s.targetHost);
    s.targetHosts = toList(network.value(QLatin1String("target_hosts")));
    read(network, "target_port", s.targetPort);
    read(network, "udp_local_port", s.udpLocalPort);
    read(network, "udp_server_port", s.udpServerPort);

    const QJsonObject d = settings.value(QLatin1String("display")).toObject();
    read(d, "receive_msg_format", s.receiveMsgFormat);
    read(d, "send_msg_format", s.sendMsgFormat);
    read(d, "receive_encoding", s.receiveEncoding);
    read(d, "send_encoding", s.sendEncoding);
    read(d, "send_checksum", s.sendChecksum);
    read(d, "rx_auto_feed_line", s.rxAutoFeedLine);
    read(d, "rx_line_ending_mode", s.rxLineEndingMode);
    read(d, "tx_auto_feed_line", s.txAutoFeedLine);
    read(d, "tx_line_ending_mode", s.txLineEndingMode);
    read(d, "terminal_enter_mode", s.terminalEnterMode);
    read(d, "auto_feed_interval", s.autoFeedInterval);
    read(d, "splitter_left", s.splitterLeft);
    read(d, "splitter_right", s.splitterRight);
    read(d, "display_send_msg", s.displaySendMsg);
    read(d, "local_echo", s.localEcho);
    read(d, "display_msg_time", s.displayMsgTime);
    read(d, "rx_time_format", s.rxTimeFormat);
    read(d, "tx_time_format", s.txTimeFormat);
    read(d, "display_buffer_size", s.displayBufferSize);
    const QJsonObject font = d.value(QLatin1String("font")).toObject();
    read(font, "family", s.fontFamily);
    read(font, "point_size", s.fontPointSize);
    read(d, "format_display_color", s.formatDisplayColor);
    const QJsonObject colors = d.value(QLatin1String("colors")).toObject();
    read(colors, "send_text", s.sendTextColor);
    read(colors, "receive_text", s.receiveTextColor);

    const QJsonObject b = settings.value(QLatin1String("behavior")).toObject();
    read(b, "auto_reconnect", s.autoReconnect);
    read(b, "restore_last_connection", s.restoreLastConnection);
    read(b, "language", s.language);

    s.hasSendHistory = settings.value(QLatin1String("send_history")).isArray();
    s.sendHistory = toList(settings.value(QLatin1String("send_history")));
    return s;
}

SessionState SessionState::mergeLists(const SessionState &ours, const SessionState &theirs)
{
    SessionState merged = ours;
    merged.targetHosts = joined(ours.targetHosts, theirs.targetHosts);
    if (ours.hasSendHistory || theirs.hasSendHistory) {
        merged.hasSendHistory = true;
        merged.sendHistory = joined(ours.sendHistory, theirs.sendHistory);
    }
    return merged;
}
