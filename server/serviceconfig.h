#pragma once

#include "passwordhasher.h"

#include <QHostAddress>
#include <QString>
#include <QStringList>

class QCommandLineParser;
class QProcessEnvironment;

struct SmtpSettings
{
    enum class Security { None, StartTls, Tls };

    QString host;  // empty: codes go to the service log
    quint16 port = 587;
    Security security = Security::StartTls;
    QString user;
    QString password;
    QString from;

    bool isConfigured() const { return !host.isEmpty(); }
};

// Everything the service is told at start, from the command line, else the
// environment, else the defaults below.
struct ServiceConfig
{
    static constexpr quint16 kDefaultPort = 8437;

    QHostAddress listenAddress = QHostAddress(QHostAddress::LocalHost);
    quint16 port = kDefaultPort;
    QString database;  // SQLite file or PostgreSQL URL
    SmtpSettings smtp;
    qint64 monthlyQuotaBytes = 0;  // 0: unlimited
    bool approvalMode = false;
    QString logLevel = QStringLiteral("info");
    Argon2Cost argon2;
    int accessTtlSeconds = 900;
    qint64 maxBodyBytes = 1024 * 1024;
    int headTimeoutSeconds = 10;  // a whole request head
    int bodyTimeoutSeconds = 30;  // a whole request body
    int idleTimeoutSeconds = 60;  // a kept-alive connection between requests
    int maxConnections = 1000;
    int maxConnectionsPerAddress = 128;
    QStringList trustedProxies;  // "ADDRESS" or "ADDRESS/PREFIX"
    int databaseThreads = 0;     // 0: by database (SQLite 2, PostgreSQL 8)
    int hashThreads = 0;         // 0: one per core
    // Where people reach the service (invite links start with it); empty:
    // http://<listen address>.
    QString publicUrl;
    QString instanceId;          // empty: random at start
    qint64 relayRateLimit = 0;   // bytes per second per account, both directions; 0: unlimited

    // Administration: done instead of serving.
    QString approveEmail;
    bool listPending = false;

    static QString defaultDatabasePath();
};

namespace ServiceOptions {

// Declares every option (and --help, --version) on the parser.
void declare(QCommandLineParser &parser);
// Reads the parsed options and the environment; false with `error` set on
// a value that does not make sense.
bool read(const QCommandLineParser &parser, const QProcessEnvironment &env, ServiceConfig &config, QString *error);

} // namespace ServiceOptions
