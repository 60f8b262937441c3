#pragma once

#include <optional>

#include "apireply.h"
#include "servicetime.h"

class Storage;

// The monthly traffic allowance of each account. A limit of 0 means
// unlimited: traffic is still counted, nothing is refused.
class QuotaService
{
public:
    QuotaService(Storage &storage, qint64 monthlyLimitBytes, ServiceClock clock);

    bool isEnforced() const { return m_limit > 0; }
    // Whether `bytes` more fit this month; false in `ok` on a storage failure.
    bool allows(qint64 userId, qint64 bytes, bool &ok);
    bool record(qint64 userId, qint64 bytes);
    // Bytes left this month when a limit is enforced (never below 0);
    // nothing when unlimited or on a storage failure (`ok` false).
    std::optional<qint64> remaining(qint64 userId, bool &ok);
    ApiReply status(qint64 userId);
    // "yyyy-MM" of the current UTC month.
    QString currentMonth() const;

private:
    Storage &m_storage;
    qint64 m_limit;
    ServiceClock m_clock;
};
