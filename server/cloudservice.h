#pragma once

#include "accountservice.h"
#include "cloudhttpserver.h"
#include "serviceconfig.h"
#include "servicetime.h"
#include "syncservice.h"

#include <QObject>

#include <memory>

class ApiRouter;
class CodeMailer;
class PasswordHasher;
class QTimer;
class QuotaService;
class Storage;

// The whole service, wired from its configuration: storage, domain
// services, router and the HTTP front, plus the housekeeping timer.
class CloudService : public QObject
{
    Q_OBJECT
public:
    // How often expired tokens, codes and attempt windows are dropped.
    static constexpr int kPruneIntervalMs = 60000;

    explicit CloudService(QObject *parent = nullptr);
    ~CloudService() override;

    // `clock` and `mailer` are for tests; by default the system clock, and
    // SMTP when configured, else the log.
    bool start(const ServiceConfig &config, QString *error, ServiceClock clock = systemServiceClock(),
               CodeMailer *mailer = nullptr, AccountPolicy policy = {}, SyncPolicy syncPolicy = {});
    quint16 port() const { return m_port; }

    Storage &storage() { return *m_storage; }
    AccountService &accounts() { return *m_accounts; }
    CloudHttpServer &http() { return *m_http; }

private:
    std::unique_ptr<Storage> m_storage;
    std::unique_ptr<PasswordHasher> m_hasher;
    std::unique_ptr<CodeMailer> m_ownMailer;
    std::unique_ptr<QuotaService> m_quota;
    std::unique_ptr<AccountService> m_accounts;
    std::unique_ptr<SyncService> m_sync;
    std::unique_ptr<ApiRouter> m_router;
    CloudHttpServer *m_http = nullptr;
    QTimer *m_prune = nullptr;
    quint16 m_port = 0;
};
