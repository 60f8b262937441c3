#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QSet>
#include <QString>

#include <deque>
#include <optional>
#include <utility>

// What the Live Console remembers of the commands it received: which it has
// run, so that one delivered twice (by the socket and again by a poll) runs
// once, and the results the service has not confirmed yet, which are sent
// again until it does. Both are bounded by what a peer could otherwise make
// grow: the newest kHandledLimit command ids are remembered (an id older
// than that would run again, long after any redelivery), and at most
// kPendingLimit results wait (when more do, the oldest is given up and
// counted).
class ConsoleCommandLedger
{
public:
    static constexpr qsizetype kHandledLimit = 1024;
    static constexpr qsizetype kPendingLimit = 256;

    explicit ConsoleCommandLedger(qsizetype handledLimit = kHandledLimit, qsizetype pendingLimit = kPendingLimit);

    // True the first time an id comes; false when it was handled already.
    bool markHandled(const QString &commandId);
    bool isHandled(const QString &commandId) const { return m_handled.contains(commandId); }

    void addResult(const QString &commandId, const QJsonObject &result);
    // The service confirmed it: it need not be sent again.
    bool confirm(const QString &commandId);
    std::optional<QJsonObject> pendingResult(const QString &commandId) const;
    // Every unconfirmed result, oldest first.
    QList<std::pair<QString, QJsonObject>> pending() const;
    qsizetype pendingCount() const { return m_pendingOrder.size(); }
    quint64 givenUpResults() const { return m_givenUp; }

    void clearPending();
    // A different account or device: nothing carries over.
    void clear();

private:
    qsizetype m_handledLimit;
    qsizetype m_pendingLimit;
    std::deque<QString> m_handledOrder;
    QSet<QString> m_handled;
    QList<QString> m_pendingOrder;
    QHash<QString, QJsonObject> m_pending;
    quint64 m_givenUp = 0;
};
