#include "guestscope.h"

#include <QJsonArray>

void GuestScope::addCommand(const QString &commandId)
{
    if (m_commands.size() >= kMaxCommands)
        m_commands.removeFirst();
    m_commands.append(commandId);
}

std::optional<QJsonObject> GuestScope::view(const QJsonObject &message) const
{
    const QString type = message.value(QLatin1String("type")).toString();
    const auto onlyOurPort = [this](const QJsonArray &items) {
        QJsonArray kept;
        for (const QJsonValue &item : items) {
            if (item.toObject().value(QLatin1String("port_key")).toString() == m_portKey)
                kept.append(item);
        }
        return kept;
    };
    if (type == QLatin1String("events")) {
        const QJsonArray events = onlyOurPort(message.value(QLatin1String("events")).toArray());
        if (events.isEmpty())
            return std::nullopt;
        QJsonObject out = message;
        out.insert(QStringLiteral("events"), events);
        return out;
    }
    if (type == QLatin1String("snapshot")) {
        QJsonObject out = message;
        out.insert(QStringLiteral("ports"), onlyOurPort(message.value(QLatin1String("ports")).toArray()));
        return out;
    }
    if (type == QLatin1String("result")) {
        const QJsonValue id = message.value(QLatin1String("command_id"));
        const QString text = id.isDouble() ? QString::number(qint64(id.toDouble())) : id.toString();
        if (!m_commands.contains(text))
            return std::nullopt;
        return message;
    }
    if (type == QLatin1String("presence") || type == QLatin1String("lost"))
        return message;
    return std::nullopt;
}
