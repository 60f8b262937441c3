#include "apirouter.h"

#include "accountservice.h"
#include "quotaservice.h"
#include "syncservice.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QStringList>

#include <functional>

namespace {

struct Route
{
    const char *method;
    QStringList pattern;  // "*" matches one segment
    bool needsSignIn;
    // args: the matched "*" segments
    std::function<ApiReply(const Caller &, const QStringList &args, const QJsonObject &body, const ApiRequest &)> call;
};

QStringList segmentsOf(const QString &path)
{
    return path.mid(qsizetype(qstrlen(ApiRouter::kPrefix))).split(u'/');
}

bool matches(const QStringList &pattern, const QStringList &segments, QStringList &args)
{
    if (pattern.size() != segments.size())
        return false;
    args.clear();
    for (qsizetype i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == QLatin1String("*")) {
            if (segments[i].isEmpty())
                return false;
            args.append(segments[i]);
        } else if (pattern[i] != segments[i]) {
            return false;
        }
    }
    return true;
}

} // namespace

ApiRouter::ApiRouter(AccountService &accounts, SyncService &sync, QuotaService &quota)
    : m_accounts(accounts), m_sync(sync), m_quota(quota)
{
}

QString ApiRouter::familyOf(const QString &path)
{
    if (!path.startsWith(QLatin1String(kPrefix)))
        return QStringLiteral("error");
    const QString first = segmentsOf(path).value(0);
    if (first == QLatin1String("account") || first == QLatin1String("sync") || first == QLatin1String("console")
        || first == QLatin1String("relay"))
        return first;
    if (first == QLatin1String("cloud"))
        return QStringLiteral("quota");
    return QStringLiteral("error");
}

ApiReply ApiRouter::handle(const ApiRequest &request)
{
    const QString type = familyOf(request.path);
    AccountService &accounts = m_accounts;
    SyncService &sync = m_sync;
    QuotaService &quota = m_quota;
    const QString remote = request.remoteAddress;
    // Console, relay and share endpoints join this table when their
    // services exist; until then their paths answer "not_found" in their
    // own family.
    const Route routes[] = {
        {"POST", {"account", "register", "code"}, false,
         [&](const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) {
             return accounts.requestCode(body, remote);
         }},
        {"POST", {"account", "register"}, false,
         [&](const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) {
             return accounts.registerAccount(body, remote);
         }},
        {"POST", {"account", "login"}, false,
         [&](const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) {
             return accounts.login(body, remote);
         }},
        {"POST", {"account", "token", "refresh"}, false,
         [&](const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) {
             return accounts.refresh(body);
         }},
        {"POST", {"account", "logout"}, false,
         [&](const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) {
             return accounts.logout(body);
         }},
        {"GET", {"account", "me"}, true,
         [&](const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) {
             return accounts.me(caller);
         }},
        {"GET", {"account", "devices"}, true,
         [&](const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) {
             return accounts.devices(caller);
         }},
        {"POST", {"account", "devices", "bind"}, true,
         [&](const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) {
             return accounts.bindDevice(caller, body);
         }},
        {"DELETE", {"account", "devices", "*"}, true,
         [&](const Caller &caller, const QStringList &args, const QJsonObject &, const ApiRequest &) {
             return accounts.removeDevice(caller, args[0]);
         }},
        {"GET", {"cloud", "quota"}, true,
         [&](const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) {
             return quota.status(caller.userId);
         }},
        {"GET", {"sync", "items"}, true,
         [&](const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &r) {
             return sync.list(caller, r.query.queryItemValue(QStringLiteral("namespace"), QUrl::FullyDecoded));
         }},
        {"PUT", {"sync", "items", "*", "*"}, true,
         [&](const Caller &caller, const QStringList &args, const QJsonObject &body, const ApiRequest &) {
             return sync.put(caller, args[0], args[1], body);
         }},
    };

    const QStringList segments = request.path.startsWith(QLatin1String(kPrefix)) ? segmentsOf(request.path) : QStringList();
    const Route *route = nullptr;
    QStringList args;
    bool pathKnown = false;
    for (const Route &candidate : routes) {
        if (!matches(candidate.pattern, segments, args))
            continue;
        pathKnown = true;
        if (request.method == candidate.method) {
            route = &candidate;
            break;
        }
    }
    if (!route) {
        if (pathKnown)
            return ApiReply::failure(type, Http::MethodNotAllowed, QStringLiteral("method_not_allowed"),
                                     QStringLiteral("This address does not take %1 requests.")
                                         .arg(QString::fromLatin1(request.method)));
        return ApiReply::failure(type, Http::NotFound, QStringLiteral("not_found"),
                                 QStringLiteral("This service offers nothing at %1.").arg(request.path.left(200)));
    }
    matches(route->pattern, segments, args);

    QJsonObject body;
    if ((request.method == "POST" || request.method == "PUT") && !request.body.trimmed().isEmpty()) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(request.body, &error);
        if (error.error != QJsonParseError::NoError || !document.isObject())
            return ApiReply::failure(type, Http::BadRequest, QStringLiteral("invalid_json"),
                                     QStringLiteral("The request body is not a JSON object."));
        body = document.object();
    }

    Caller caller;
    if (route->needsSignIn) {
        auto outcome = m_accounts.authenticate(request.authorization, type);
        if (auto *refusal = std::get_if<ApiReply>(&outcome))
            return *refusal;
        caller = std::get<Caller>(outcome);
    }
    return route->call(caller, args, body, request);
}
