#include "cloudservice.h"

#include "apirouter.h"
#include "codemailer.h"
#include "passwordhasher.h"
#include "quotaservice.h"
#include "servicelog.h"
#include "storage.h"

#include <QTimer>

CloudService::CloudService(QObject *parent) : QObject(parent) {}

CloudService::~CloudService()
{
    // The front goes first: nothing may reach the services while they die.
    delete m_http;
    m_http = nullptr;
}

bool CloudService::start(const ServiceConfig &config, QString *error, ServiceClock clock, CodeMailer *mailer,
                         AccountPolicy policy, SyncPolicy syncPolicy)
{
    m_storage = std::make_unique<Storage>();
    if (!m_storage->open(config.database, error))
        return false;
    m_hasher = std::make_unique<PasswordHasher>(config.pbkdf2Iterations);
    if (!mailer) {
        if (config.smtp.isConfigured())
            m_ownMailer = std::make_unique<SmtpCodeMailer>(config.smtp);
        else
            m_ownMailer = std::make_unique<LogCodeMailer>();
        mailer = m_ownMailer.get();
    }
    policy.accessTtlMs = qint64(config.accessTtlSeconds) * 1000;
    policy.approvalMode = config.approvalMode;
    m_quota = std::make_unique<QuotaService>(*m_storage, config.monthlyQuotaBytes, clock);
    m_accounts = std::make_unique<AccountService>(*m_storage, *m_hasher, *mailer, policy, clock);
    m_sync = std::make_unique<SyncService>(*m_storage, *m_quota, syncPolicy, clock);
    m_router = std::make_unique<ApiRouter>(*m_accounts, *m_sync, *m_quota);

    HttpLimits limits;
    limits.maxBodyBytes = config.maxBodyBytes;
    m_http = new CloudHttpServer(*m_router, limits, this);
    m_port = m_http->start(config.listenAddress, config.port, error);
    if (m_port == 0)
        return false;

    m_prune = new QTimer(this);
    m_prune->setInterval(kPruneIntervalMs);
    connect(m_prune, &QTimer::timeout, this, [this, clock, policy] {
        m_storage->pruneExpired(clock(), policy.attemptWindowMs);
    });
    m_prune->start();
    m_storage->pruneExpired(clock(), policy.attemptWindowMs);
    return true;
}
