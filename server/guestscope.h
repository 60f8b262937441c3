#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

// What a browser guest of a share may see of its computer's messages: the
// traffic and snapshot entry of the shared port alone, the results of its
// own commands, presence; nothing of other ports, other watchers or other
// people's commands. Pure: fed the watcher messages the owner's page gets.
class GuestScope
{
public:
    // Own commands remembered for their results; older ones are forgotten
    // (their results then go unseen, nothing else).
    static constexpr int kMaxCommands = 64;

    GuestScope() = default;
    GuestScope(qint64 shareId, QString portKey) : m_shareId(shareId), m_portKey(std::move(portKey)) {}

    bool isGuest() const { return m_shareId != 0; }
    qint64 shareId() const { return m_shareId; }
    const QString &portKey() const { return m_portKey; }

    void addCommand(const QString &commandId);
    // The message as the guest sees it, or nothing when it sees none of it.
    std::optional<QJsonObject> view(const QJsonObject &message) const;

private:
    qint64 m_shareId = 0;
    QString m_portKey;
    QStringList m_commands;
};
