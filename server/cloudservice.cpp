#include "cloudservice.h"

#include "codemailer.h"
#include "consolebus.h"
#include "consolehub.h"
#include "consolelive.h"
#include "consoleservice.h"
#include "loopwatch.h"
#include "passwordhasher.h"
#include "quotaservice.h"
#include "relayhub.h"
#include "relaylive.h"
#include "relayservice.h"
#include "servicelog.h"
#include "shareservice.h"
#include "storage.h"
#include "tokens.h"
#include "workerpool.h"

#include <QThread>
#include <QTimer>
#include <QTcpSocket>
#include <QWebSocket>

namespace {

// A database thread's connection and the domain services over it.
class ServiceContext : public WorkerContext
{
public:
    ServiceContext(const PasswordHasher &hasher, CodeMailer &mailer, const AccountPolicy &policy,
                   const SyncPolicy &syncPolicy, qint64 monthlyQuotaBytes, const ServiceClock &clock,
                   ConsoleLive &live, const ConsolePolicy &consolePolicy, const SharePolicy &sharePolicy,
                   RelayLive &relayLive, const QString &instanceId)
        : m_quota(m_storage, monthlyQuotaBytes, clock),
          m_accounts(m_storage, hasher, mailer, policy, clock),
          m_sync(m_storage, m_quota, syncPolicy, clock),
          m_console(m_storage, m_quota, live, consolePolicy, clock),
          m_relay(m_storage, m_quota, live, relayLive, RelayPolicy(), instanceId, clock),
          m_shares(m_storage, m_console, live, sharePolicy, clock),
          m_services{m_accounts, m_sync, m_quota, m_console, m_shares, m_relay}
    {
        // A relay guest's join ends in a relay session like the owner's own.
        m_shares.setRelayOpener([this](const ShareRow &share, const QString &guestName) {
            RelayOpening opening;
            opening.ownerId = share.userId;
            opening.cid = share.cid;
            opening.sessionId = share.sessionId;
            opening.portKey = share.portKey;
            opening.shareId = QString::number(share.id);
            opening.guestName = guestName;
            opening.guest = true;
            return m_relay.open(opening);
        });
        m_shares.setRelayEnder([this](const QString &relayId) { return m_relay.endSession(relayId); });
    }

    bool open(const QString &database, QString *error) { return m_storage.open(database, error, false); }
    Storage &storage() override { return m_storage; }
    ServiceSet &services() override { return m_services; }

private:
    Storage m_storage;
    QuotaService m_quota;
    AccountService m_accounts;
    SyncService m_sync;
    ConsoleService m_console;
    RelayService m_relay;
    ShareService m_shares;
    ServiceSet m_services;
};

} // namespace

CloudService::CloudService(QObject *parent) : QObject(parent) {}

CloudService::~CloudService()
{
    // Relay ends hear that the service stops while it still can tell them.
    if (m_relays)
        m_relays->shutdown();
    // The pool goes first: its threads finish what they run, and answers
    // still queued for the front are dropped with it. Then the front.
    m_pool.reset();
    delete m_http;
    m_http = nullptr;
    if (m_loopWatch)
        qCInfo(lcService) << "longest event-loop stall:" << m_loopWatch->longestStallMs() << "ms";
}

qint64 CloudService::longestStallMs() const
{
    return m_loopWatch ? m_loopWatch->longestStallMs() : 0;
}

bool CloudService::start(const ServiceConfig &config, QString *error, ServiceClock clock, CodeMailer *mailer,
                         AccountPolicy policy, SyncPolicy syncPolicy)
{
    SqlDialect dialect = SqlDialect::Sqlite;
    {
        // The schema is migrated once, before any database thread connects.
        Storage storage;
        if (!storage.open(config.database, error))
            return false;
        dialect = storage.dialect();
    }
    m_hasher = std::make_unique<PasswordHasher>(config.argon2);
    if (!mailer) {
        if (config.smtp.isConfigured())
            m_ownMailer = std::make_unique<SmtpCodeMailer>(config.smtp);
        else
            m_ownMailer = std::make_unique<LogCodeMailer>();
        mailer = m_ownMailer.get();
    }
    m_queuedMailer = std::make_unique<QueuedCodeMailer>(*mailer, this);
    policy.accessTtlMs = qint64(config.accessTtlSeconds) * 1000;
    policy.approvalMode = config.approvalMode;

    PoolLimits limits;
    limits.databaseThreads = config.databaseThreads > 0 ? config.databaseThreads
                                                        : (dialect == SqlDialect::Postgres ? 8 : 2);
    limits.hashThreads = config.hashThreads > 0 ? config.hashThreads : qMax(1, QThread::idealThreadCount());
    const QString database = config.database;
    const qint64 quota = config.monthlyQuotaBytes;
    const PasswordHasher &hasher = *m_hasher;
    CodeMailer &queuedMailer = *m_queuedMailer;
    m_live = new ConsoleLive(this);
    ConsoleLive &live = *m_live;
    const ConsolePolicy consolePolicy;
    SharePolicy sharePolicy;
    std::shared_ptr<QString> publicUrl = sharePolicy.publicUrl;
    m_relayLive = new RelayLive(this);
    RelayLive &relayLive = *m_relayLive;
    m_instanceId = config.instanceId.isEmpty() ? Tokens::random(6).replace(u'-', u'x').replace(u'_', u'y')
                                               : config.instanceId;
    const QString instanceId = m_instanceId;
    m_pool = std::make_unique<WorkerPool>(
        limits,
        [database, &hasher, &queuedMailer, policy, syncPolicy, quota, clock, &live, consolePolicy, sharePolicy,
         &relayLive, instanceId](QString *openError) {
            auto context = std::make_unique<ServiceContext>(hasher, queuedMailer, policy, syncPolicy, quota, clock,
                                                            live, consolePolicy, sharePolicy, relayLive, instanceId);
            if (!context->open(database, openError))
                context.reset();
            return std::unique_ptr<WorkerContext>(std::move(context));
        },
        *m_hasher);
    if (!m_pool->start(error))
        return false;

    FrontLimits front;
    front.http.maxBodyBytes = config.maxBodyBytes;
    front.http.headTimeoutMs = config.headTimeoutSeconds * 1000;
    front.http.bodyTimeoutMs = config.bodyTimeoutSeconds * 1000;
    front.http.idleTimeoutMs = config.idleTimeoutSeconds * 1000;
    front.maxConnections = config.maxConnections;
    front.maxConnectionsPerAddress = config.maxConnectionsPerAddress;
    front.maxWaitingSignIns = config.maxConnectionsPerAddress;  // each waits on a connection of its own
    TrustedProxies proxies;
    for (const QString &proxy : config.trustedProxies)
        proxies.add(proxy);
    m_http = new CloudHttpServer(*m_pool, front, proxies, this);
    m_port = m_http->start(config.listenAddress, config.port, error);
    if (m_port == 0)
        return false;
    // Before the loop serves anything: no database thread reads it yet.
    *publicUrl = config.publicUrl;
    if (publicUrl->isEmpty()) {
        const QString host = config.listenAddress.protocol() == QAbstractSocket::IPv6Protocol
                                 ? QStringLiteral("[%1]").arg(config.listenAddress.toString())
                                 : config.listenAddress.toString();
        *publicUrl = QStringLiteral("http://%1:%2").arg(host).arg(m_port);
    }
    if (dialect == SqlDialect::Postgres) {
        // Instances on one database reach each other's console sockets.
        m_bus = new ConsoleBus(*m_pool, m_instanceId, this);
        if (!m_bus->start(config.database, error))
            return false;
    }
    m_console = new ConsoleHub(*m_pool, *m_live, consolePolicy, m_bus, clock, this);
    m_http->addSocketEndpoint(QLatin1String(ConsoleHub::kComputerPath),
                              [this](std::unique_ptr<QWebSocket> socket) { m_console->addComputer(std::move(socket)); });
    m_relays = new RelayHub(*m_pool, *m_relayLive, config.relayRateLimit, this);
    m_http->addRawSocketEndpoint(QLatin1String(RelayHub::kPath), [this](QTcpSocket *socket) { m_relays->addSocket(socket); });
    m_http->addSocketEndpoint(QLatin1String(ConsoleHub::kWatchPath),
                              [this](std::unique_ptr<QWebSocket> socket) { m_console->addWatcher(std::move(socket)); });

    const auto prune = [this, clock, policy, consolePolicy] {
        m_pool->submit(QStringLiteral("error"),
                       [clock, policy, consolePolicy](WorkerContext &context) -> ApiOutcome {
                           context.storage().pruneExpired(clock(), policy.attemptWindowMs, policy.refreshGraceMs,
                                                          consolePolicy.commandKeepMs);
                           return ApiReply::ok(QStringLiteral("error"));
                       },
                       {});
    };
    m_prune = new QTimer(this);
    m_prune->setInterval(kPruneIntervalMs);
    connect(m_prune, &QTimer::timeout, this, prune);
    m_prune->start();
    prune();
    m_loopWatch = new LoopWatch(this);
    return true;
}
