#pragma once

#include "apireply.h"
#include "servicetime.h"

#include <QJsonObject>

class QuotaService;
class Storage;
struct Caller;
struct SyncItemRow;

struct SyncPolicy
{
    int maxItemsPerAccount = 64;
    int maxPayloadBytes = 256 * 1024;  // compact JSON of one item
};

// Items a user keeps in the cloud, each a JSON object with a revision that
// grows by one with every write. A write names the revision it was based
// on; a stale base is refused with the stored item so the writer can
// decide.
class SyncService
{
public:
    SyncService(Storage &storage, QuotaService &quota, SyncPolicy policy, ServiceClock clock);

    ApiReply list(const Caller &caller, const QString &ns);
    ApiReply put(const Caller &caller, const QString &ns, const QString &key, const QJsonObject &body);

    static bool isValidName(const QString &name);

private:
    Storage &m_storage;
    QuotaService &m_quota;
    SyncPolicy m_policy;
    ServiceClock m_clock;
};

QJsonObject syncItemJson(const SyncItemRow &item);
