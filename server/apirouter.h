#pragma once

#include "apireply.h"

#include <QByteArray>
#include <QString>
#include <QUrlQuery>

class AccountService;
class QuotaService;
class SyncService;

// A request as the API sees it, apart from any HTTP library.
struct ApiRequest
{
    QByteArray method;  // "GET", "POST", ...
    QString path;       // decoded, e.g. "/api/v3/sync/items/settings.session/default"
    QUrlQuery query;
    QByteArray authorization;
    QByteArray body;
    QString remoteAddress;
};

// Maps method and path under "/api/v3" to the domain services: parses the
// body, authenticates, calls, and hands back the envelope. Every path gets
// an envelope, unknown ones a 404 in the family their path names.
class ApiRouter
{
public:
    static constexpr const char *kPrefix = "/api/v3/";

    ApiRouter(AccountService &accounts, SyncService &sync, QuotaService &quota);

    ApiReply handle(const ApiRequest &request);

    // The envelope family of a path: "account", "sync", "quota" (for
    // "cloud"), "console", "relay", or "error" outside them.
    static QString familyOf(const QString &path);

private:
    AccountService &m_accounts;
    SyncService &m_sync;
    QuotaService &m_quota;
};
