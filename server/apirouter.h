#pragma once

#include "apioutcome.h"
#include "apireply.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrlQuery>

#include <variant>

class PasswordHasher;
struct Caller;
struct Route;

// A request as the API sees it, apart from any HTTP library.
struct ApiRequest
{
    QByteArray method;  // "GET", "POST", ...
    QString path;       // decoded, e.g. "/api/v3/sync/items/settings.session/default"
    QUrlQuery query;
    QByteArray authorization;
    QByteArray relayGuestToken;  // "X-Relay-Guest-Token"
    QByteArray body;
    QString remoteAddress;  // the client, as the front determined it
};

// The route a request found: where its handler is and what the path held.
struct RouteMatch
{
    const Route *route = nullptr;
    QStringList args;  // the path segments matched by "*"
    QString family;
    // A password guess: the front lets only a few of these per address run at once.
    bool isSignIn() const;
};

// Maps method and path under "/api/v3" to the domain services. Finding the
// route is cheap and happens where requests are read; running it (parsing
// the body, authenticating, calling the service) happens on a database
// thread with that thread's services. Every path gets an envelope,
// unknown ones a 404 in the family their path names.
namespace ApiRouter {

inline constexpr const char *kPrefix = "/api/v3/";

// The route of `request`, or the envelope that refuses it (404, 405).
std::variant<ApiReply, RouteMatch> resolve(const ApiRequest &request);
ApiOutcome execute(const RouteMatch &match, const ApiRequest &request, ServiceSet &services);

// The envelope family of a path: "account", "sync", "quota" (for
// "cloud"), "console", "relay", or "error" outside them.
QString familyOf(const QString &path);

// Runs an outcome to its answer on the calling thread, doing password
// work on the spot: for tests and the command line, not for serving.
ApiReply finish(ApiOutcome outcome, ServiceSet &services, const PasswordHasher &hasher);

} // namespace ApiRouter
