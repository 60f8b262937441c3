#include "terminal/sendhistory.h"

SendHistory::SendHistory(QStringList entries)
    : m_entries(std::move(entries))
{
}

void SendHistory::record(const QString &text, MessageFormat format)
{
    if (text.isEmpty())
        return;
    const QString entry = format == MessageFormat::Hex ? text.toUpper() : text;
    if (m_entries.size() > kDropAbove)
        m_entries.removeLast();
    m_entries.removeAll(entry);
    m_entries.prepend(entry);
}
