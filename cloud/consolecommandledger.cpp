#include "cloud/consolecommandledger.h"

ConsoleCommandLedger::ConsoleCommandLedger(qsizetype handledLimit, qsizetype pendingLimit)
    : m_handledLimit(qMax<qsizetype>(1, handledLimit))
    , m_pendingLimit(qMax<qsizetype>(1, pendingLimit))
{
}

bool ConsoleCommandLedger::markHandled(const QString &commandId)
{
    if (m_handled.contains(commandId))
        return false;
    m_handled.insert(commandId);
    m_handledOrder.push_back(commandId);
    while (qsizetype(m_handledOrder.size()) > m_handledLimit) {
        m_handled.remove(m_handledOrder.front());
        m_handledOrder.pop_front();
    }
    return true;
}

void ConsoleCommandLedger::addResult(const QString &commandId, const QJsonObject &result)
{
    if (!m_pending.contains(commandId))
        m_pendingOrder.append(commandId);
    m_pending.insert(commandId, result);
    while (m_pendingOrder.size() > m_pendingLimit) {
        m_pending.remove(m_pendingOrder.takeFirst());
        ++m_givenUp;
    }
}

bool ConsoleCommandLedger::confirm(const QString &commandId)
{
    if (!m_pending.remove(commandId))
        return false;
    m_pendingOrder.removeOne(commandId);
    return true;
}

std::optional<QJsonObject> ConsoleCommandLedger::pendingResult(const QString &commandId) const
{
    const auto it = m_pending.constFind(commandId);
    if (it == m_pending.constEnd())
        return std::nullopt;
    return *it;
}

QList<std::pair<QString, QJsonObject>> ConsoleCommandLedger::pending() const
{
    QList<std::pair<QString, QJsonObject>> list;
    list.reserve(m_pendingOrder.size());
    for (const QString &id : m_pendingOrder)
        list.append({id, m_pending.value(id)});
    return list;
}

void ConsoleCommandLedger::clearPending()
{
    m_pendingOrder.clear();
    m_pending.clear();
}

void ConsoleCommandLedger::clear()
{
    clearPending();
    m_handledOrder.clear();
    m_handled.clear();
}
