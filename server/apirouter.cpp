#include "apirouter.h"

#include "accountservice.h"
#include "consoleservice.h"
#include "passwordhasher.h"
#include "quotaservice.h"
#include "shareservice.h"
#include "relayservice.h"
#include "syncservice.h"

#include <QJsonDocument>
#include <QJsonParseError>

struct Route
{
    const char *method;
    QStringList pattern;  // "*" matches one segment
    bool needsSignIn;
    bool signIn;  // takes a password guess
    ApiOutcome (*call)(ServiceSet &, const Caller &, const QStringList &args, const QJsonObject &body,
                       const ApiRequest &);
};

namespace {

// Where two patterns fit a path, the first in the table wins.
const QList<Route> &routes()
{
    static const QList<Route> table = {
        {"POST", {"account", "register", "code"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &r) -> ApiOutcome {
             return s.accounts.requestCode(body, r.remoteAddress);
         }},
        {"POST", {"account", "register"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &r) {
             return s.accounts.registerAccount(body, r.remoteAddress);
         }},
        {"POST", {"account", "login"}, false, true,
         [](ServiceSet &s, const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &r) {
             return s.accounts.login(body, r.remoteAddress);
         }},
        {"POST", {"account", "token", "refresh"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.accounts.refresh(body);
         }},
        {"POST", {"account", "logout"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.accounts.logout(body);
         }},
        {"GET", {"account", "me"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.accounts.me(caller);
         }},
        {"GET", {"account", "devices"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.accounts.devices(caller);
         }},
        {"POST", {"account", "devices", "bind"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.accounts.bindDevice(caller, body);
         }},
        {"DELETE", {"account", "devices", "*"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.accounts.removeDevice(caller, args[0]);
         }},
        {"GET", {"cloud", "quota"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.quota.status(caller.userId);
         }},
        {"GET", {"sync", "items"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &r) -> ApiOutcome {
             return s.sync.list(caller, r.query.queryItemValue(QStringLiteral("namespace"), QUrl::FullyDecoded));
         }},
        {"PUT", {"sync", "items", "*", "*"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.sync.put(caller, args[0], args[1], body);
         }},
        // Live Console: the computer's side.
        {"POST", {"console", "heartbeat"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.console.heartbeat(caller, body);
         }},
        {"GET", {"console", "commands", "poll"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &r) -> ApiOutcome {
             return s.console.poll(caller, r.query.queryItemValue(QStringLiteral("cid"), QUrl::FullyDecoded),
                                   r.query.queryItemValue(QStringLiteral("limit")));
         }},
        {"POST", {"console", "commands", "*", "ack"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.console.acknowledge(caller, args[0], body);
         }},
        {"POST", {"console", "commands", "*", "result"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.console.result(caller, args[0], body);
         }},
        {"POST", {"console", "events"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.console.events(caller, body);
         }},
        {"POST", {"console", "ports", "snapshot"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.console.snapshot(caller, body);
         }},
        // Live Console: the browser's side.
        {"GET", {"console", "computers"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.console.computers(caller);
         }},
        {"GET", {"console", "computers", "*", "ports"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.console.ports(caller, args[0]);
         }},
        {"POST", {"console", "computers", "*", "commands"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.console.issue(caller, args[0], body);
         }},
        {"GET", {"console", "commands", "*"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.console.command(caller, args[0]);
         }},
        // Guest shares: the owner's side.
        {"POST", {"relay", "shares"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.shares.create(caller, body);
         }},
        {"GET", {"relay", "shares"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &r) -> ApiOutcome {
             if (r.query.hasQueryItem(QStringLiteral("cid")))
                 return s.shares.listForComputer(caller, r.query.queryItemValue(QStringLiteral("cid"), QUrl::FullyDecoded));
             return s.shares.listForAccount(caller);
         }},
        {"DELETE", {"relay", "shares", "*"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &args, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.shares.revoke(caller, args[0]);
         }},
        // Guest shares: the guest's side, signed in nowhere.
        {"POST", {"relay", "join"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &, const QJsonObject &body, const ApiRequest &r) -> ApiOutcome {
             return s.shares.joinRelay(body, r.remoteAddress);
         }},
        {"GET", {"relay", "join", "*"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &args, const QJsonObject &, const ApiRequest &) -> ApiOutcome {
             return s.shares.peek(args[0]);
         }},
        {"POST", {"relay", "join", "*", "web"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &args, const QJsonObject &body, const ApiRequest &r) -> ApiOutcome {
             return s.shares.joinWeb(args[0], body, r.remoteAddress);
         }},
        // Live Relay.
        {"GET", {"relay", "targets"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &, const ApiRequest &r) -> ApiOutcome {
             return s.relay.targets(caller, r.query.queryItemValue(QStringLiteral("cid"), QUrl::FullyDecoded));
         }},
        {"POST", {"relay", "sessions"}, true, false,
         [](ServiceSet &s, const Caller &caller, const QStringList &, const QJsonObject &body, const ApiRequest &) -> ApiOutcome {
             return s.relay.openSession(caller, body);
         }},
        // The owner signs in; a guest, who may have no account, shows the
        // token its join handed out instead.
        {"DELETE", {"relay", "sessions", "*"}, false, false,
         [](ServiceSet &s, const Caller &, const QStringList &args, const QJsonObject &, const ApiRequest &r) -> ApiOutcome {
             if (r.authorization.isEmpty())
                 return s.relay.end(nullptr, QString::fromLatin1(r.relayGuestToken), args[0]);
             auto outcome = s.accounts.authenticate(r.authorization, QStringLiteral("relay"));
             if (auto *refusal = std::get_if<ApiReply>(&outcome))
                 return *refusal;
             const Caller owner = std::get<Caller>(outcome);
             return s.relay.end(&owner, QString(), args[0]);
         }},
    };
    return table;
}

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

bool RouteMatch::isSignIn() const
{
    return route && route->signIn;
}

namespace ApiRouter {

QString familyOf(const QString &path)
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

std::variant<ApiReply, RouteMatch> resolve(const ApiRequest &request)
{
    const QString type = familyOf(request.path);
    const QStringList segments = request.path.startsWith(QLatin1String(kPrefix)) ? segmentsOf(request.path) : QStringList();
    bool pathKnown = false;
    QStringList args;
    for (const Route &candidate : routes()) {
        if (!matches(candidate.pattern, segments, args))
            continue;
        pathKnown = true;
        if (request.method == candidate.method)
            return RouteMatch{&candidate, args, type};
    }
    if (pathKnown)
        return ApiReply::failure(type, Http::MethodNotAllowed, QStringLiteral("method_not_allowed"),
                                 QStringLiteral("This address does not take %1 requests.")
                                     .arg(QString::fromLatin1(request.method)));
    return ApiReply::failure(type, Http::NotFound, QStringLiteral("not_found"),
                             QStringLiteral("This service offers nothing at %1.").arg(request.path.left(200)));
}

ApiOutcome execute(const RouteMatch &match, const ApiRequest &request, ServiceSet &services)
{
    QJsonObject body;
    if ((request.method == "POST" || request.method == "PUT") && !request.body.trimmed().isEmpty()) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(request.body, &error);
        if (error.error != QJsonParseError::NoError || !document.isObject())
            return ApiReply::failure(match.family, Http::BadRequest, QStringLiteral("invalid_json"),
                                     QStringLiteral("The request body is not a JSON object."));
        body = document.object();
    }
    Caller caller;
    if (match.route->needsSignIn) {
        auto outcome = services.accounts.authenticate(request.authorization, match.family);
        if (auto *refusal = std::get_if<ApiReply>(&outcome))
            return *refusal;
        caller = std::get<Caller>(outcome);
    }
    return match.route->call(services, caller, match.args, body, request);
}

ApiReply finish(ApiOutcome outcome, ServiceSet &services, const PasswordHasher &hasher)
{
    while (auto *step = std::get_if<PasswordStep>(&outcome)) {
        const PasswordStep current = std::move(*step);
        outcome = current.then(services, hasher.run(current.work));
    }
    return std::get<ApiReply>(outcome);
}

} // namespace ApiRouter
