#include "quotaservice.h"

#include "storage.h"

#include <QDateTime>

QuotaService::QuotaService(Storage &storage, qint64 monthlyLimitBytes, ServiceClock clock)
    : m_storage(storage), m_limit(monthlyLimitBytes), m_clock(std::move(clock))
{
}

QString QuotaService::currentMonth() const
{
    return QDateTime::fromMSecsSinceEpoch(m_clock(), Qt::UTC).toString(QStringLiteral("yyyy-MM"));
}

bool QuotaService::allows(qint64 userId, qint64 bytes, bool &ok)
{
    ok = true;
    if (!isEnforced())
        return true;
    qint64 used = 0;
    if (!m_storage.trafficOf(userId, currentMonth(), used)) {
        ok = false;
        return false;
    }
    return used + bytes <= m_limit;
}

std::optional<qint64> QuotaService::remaining(qint64 userId, bool &ok)
{
    ok = true;
    if (!isEnforced())
        return std::nullopt;
    qint64 used = 0;
    if (!m_storage.trafficOf(userId, currentMonth(), used)) {
        ok = false;
        return std::nullopt;
    }
    return qMax<qint64>(0, m_limit - used);
}

bool QuotaService::record(qint64 userId, qint64 bytes)
{
    return m_storage.addTraffic(userId, currentMonth(), bytes);
}

ApiReply QuotaService::status(qint64 userId)
{
    const QString type = QStringLiteral("quota");
    qint64 used = 0;
    const QString month = currentMonth();
    if (!m_storage.trafficOf(userId, month, used))
        return internalError(type);
    QJsonObject members{{QStringLiteral("period"), month},
                        {QStringLiteral("used_bytes"), used},
                        {QStringLiteral("enforced"), isEnforced()},
                        {QStringLiteral("limit_bytes"), m_limit}};
    members.insert(QStringLiteral("remaining_bytes"), isEnforced() ? qMax<qint64>(0, m_limit - used) : -1);
    return ApiReply::ok(type, members);
}
