#pragma once

#include "common/paneoptions.h"

#include <QString>
#include <QStringList>

// The texts sent before, newest first, offered again in the send box.
class SendHistory
{
public:
    // The oldest entry is dropped only when more than this many are held
    // before a new one goes in, so the list can reach one more than this.
    static constexpr qsizetype kDropAbove = 256;

    SendHistory() = default;
    explicit SendHistory(QStringList entries);

    // Puts the text first, removing an equal older entry; a hex text is
    // kept in upper case. Empty texts are not recorded.
    void record(const QString &text, MessageFormat format);

    const QStringList &entries() const { return m_entries; }
    void setEntries(QStringList entries) { m_entries = std::move(entries); }
    qsizetype size() const { return m_entries.size(); }
    void clear() { m_entries.clear(); }

private:
    QStringList m_entries;
};
