#include "syncservice.h"

#include "accountservice.h"
#include "jsonfields.h"
#include "quotaservice.h"
#include "storage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {
const QString kType = QStringLiteral("sync");
}

QJsonObject syncItemJson(const SyncItemRow &item)
{
    return {{QStringLiteral("namespace"), item.ns},
            {QStringLiteral("item_key"), item.key},
            {QStringLiteral("revision"), item.revision},
            {QStringLiteral("payload"), QJsonDocument::fromJson(item.payload.toUtf8()).object()},
            {QStringLiteral("updated_at"), item.updatedAt / 1000}};
}

SyncService::SyncService(Storage &storage, QuotaService &quota, SyncPolicy policy, ServiceClock clock)
    : m_storage(storage), m_quota(quota), m_policy(policy), m_clock(std::move(clock))
{
}

bool SyncService::isValidName(const QString &name)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9._-]{1,64}$"));
    return pattern.match(name).hasMatch();
}

ApiReply SyncService::list(const Caller &caller, const QString &ns)
{
    if (!ns.isEmpty() && !isValidName(ns))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_namespace"),
                                 QStringLiteral("A namespace has 1 to 64 letters, digits, dots, dashes or underscores."));
    QList<SyncItemRow> rows;
    if (!m_storage.syncItems(caller.userId, ns, rows))
        return internalError(kType);
    QJsonArray items;
    for (const SyncItemRow &row : std::as_const(rows))
        items.append(syncItemJson(row));
    return ApiReply::ok(kType, {{QStringLiteral("items"), items}});
}

ApiReply SyncService::put(const Caller &caller, const QString &ns, const QString &key, const QJsonObject &body)
{
    if (!isValidName(ns) || !isValidName(key))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_item"),
                                 QStringLiteral("Namespace and key have 1 to 64 letters, digits, dots, dashes or underscores."));
    JsonFields fields(body, kType);
    const qint64 base = fields.integer("base_revision");
    const QJsonObject payload = fields.object("payload");
    if (fields.failed())
        return fields.failure();
    if (base < 0)
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_field"),
                                 QStringLiteral("\"base_revision\" must not be negative."));
    const QByteArray text = QJsonDocument(payload).toJson(QJsonDocument::Compact);
    if (text.size() > m_policy.maxPayloadBytes)
        return ApiReply::failure(kType, Http::PayloadTooLarge, QStringLiteral("payload_too_large"),
                                 QStringLiteral("The item is larger than %1 KiB.").arg(m_policy.maxPayloadBytes / 1024));
    bool ok = true;
    if (!m_quota.allows(caller.userId, text.size(), ok)) {
        if (!ok)
            return internalError(kType);
        return ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("quota_exceeded"),
                                 QStringLiteral("This month's cloud traffic allowance is used up."));
    }
    SyncItemRow stored;
    switch (m_storage.writeSyncItem(caller.userId, ns, key, base, QString::fromUtf8(text), m_clock(),
                                    m_policy.maxItemsPerAccount, m_quota.currentMonth(), text.size(), stored)) {
    case Storage::SyncWrite::Error:
        return internalError(kType);
    case Storage::SyncWrite::LimitReached:
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("sync_item_limit"),
                                 QStringLiteral("This account already keeps %1 items.").arg(m_policy.maxItemsPerAccount));
    case Storage::SyncWrite::Conflict:
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("revision_conflict"),
                                 QStringLiteral("The item changed in the cloud since this computer last read it."),
                                 {{QStringLiteral("server_item"), syncItemJson(stored)}});
    case Storage::SyncWrite::Written:
        break;
    }
    return ApiReply::ok(kType, {{QStringLiteral("item"), syncItemJson(stored)}});
}
