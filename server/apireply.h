#pragma once

#include <QJsonObject>
#include <QString>

// One answer of the API: the HTTP status and the envelope. Every envelope
// names its family in "type" and its outcome in "status"; failures add a
// stable machine word in "code" and a user text in "description".
struct ApiReply
{
    int httpStatus = 200;
    QJsonObject body;
    int retryAfterSeconds = 0;  // sent as Retry-After when above 0

    bool isOk() const { return body.value(QLatin1String("status")).toBool(); }
    QString code() const { return body.value(QLatin1String("code")).toString(); }

    static ApiReply ok(const QString &type, QJsonObject members = {});
    static ApiReply failure(const QString &type, int httpStatus, const QString &code,
                            const QString &description, QJsonObject members = {});
};

// HTTP statuses the service answers with.
namespace Http {
inline constexpr int Ok = 200;
inline constexpr int BadRequest = 400;
inline constexpr int Unauthorized = 401;
inline constexpr int Forbidden = 403;
inline constexpr int NotFound = 404;
inline constexpr int MethodNotAllowed = 405;
inline constexpr int Conflict = 409;
inline constexpr int Gone = 410;
inline constexpr int PayloadTooLarge = 413;
inline constexpr int TooManyRequests = 429;
inline constexpr int InternalError = 500;
inline constexpr int Unavailable = 503;
} // namespace Http

// The reply for a storage failure: the details go to the service log, the
// client reads only that something went wrong on our side.
ApiReply internalError(const QString &type);
// The database cannot be reached just now (it is restarting, say); the
// request may be repeated.
ApiReply databaseUnavailable(const QString &type);
// Too much is waiting already; the request may be repeated in a moment.
ApiReply busy(const QString &type);
