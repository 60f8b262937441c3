#pragma once

#include "accountservice.h"
#include "cloudhttpserver.h"
#include "serviceconfig.h"
#include "servicetime.h"
#include "syncservice.h"

#include <QObject>

#include <memory>

class CodeMailer;
class ConsoleBus;
class ConsoleHub;
class ConsoleLive;
class LoopWatch;
class PasswordHasher;
class RelayHub;
class RelayLive;
class QTimer;
class WorkerPool;

// The whole service, wired from its configuration: the schema migrated
// once, the worker pool with a database connection per database thread and
// the domain services over each, the HTTP front on the event loop, and the
// housekeeping timer.
class CloudService : public QObject
{
    Q_OBJECT
public:
    // How often expired tokens, codes and attempt windows are dropped.
    static constexpr int kPruneIntervalMs = 60000;

    explicit CloudService(QObject *parent = nullptr);
    ~CloudService() override;

    // `clock` and `mailer` are for tests; by default the system clock, and
    // SMTP when configured, else the log. `clock` is read from the worker
    // threads.
    bool start(const ServiceConfig &config, QString *error, ServiceClock clock = systemServiceClock(),
               CodeMailer *mailer = nullptr, AccountPolicy policy = {}, SyncPolicy syncPolicy = {});
    quint16 port() const { return m_port; }

    CloudHttpServer &http() { return *m_http; }
    WorkerPool &pool() { return *m_pool; }
    ConsoleHub &console() { return *m_console; }
    RelayHub &relays() { return *m_relays; }
    // The name relay tickets carry; a proxy routes relay sockets by it.
    const QString &instanceId() const { return m_instanceId; }
    ConsoleBus *consoleBus() { return m_bus; }
    // The longest time the event loop was held up so far.
    qint64 longestStallMs() const;

private:
    std::unique_ptr<PasswordHasher> m_hasher;
    std::unique_ptr<CodeMailer> m_ownMailer;
    std::unique_ptr<CodeMailer> m_queuedMailer;
    std::unique_ptr<WorkerPool> m_pool;
    CloudHttpServer *m_http = nullptr;
    ConsoleLive *m_live = nullptr;
    ConsoleBus *m_bus = nullptr;  // several instances on PostgreSQL
    ConsoleHub *m_console = nullptr;
    RelayLive *m_relayLive = nullptr;
    RelayHub *m_relays = nullptr;
    QString m_instanceId;
    LoopWatch *m_loopWatch = nullptr;
    QTimer *m_prune = nullptr;
    quint16 m_port = 0;
};
