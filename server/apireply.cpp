#include "apireply.h"

ApiReply ApiReply::ok(const QString &type, QJsonObject members)
{
    members.insert(QLatin1String("type"), type);
    members.insert(QLatin1String("status"), true);
    return ApiReply{Http::Ok, members};
}

ApiReply ApiReply::failure(const QString &type, int httpStatus, const QString &code,
                           const QString &description, QJsonObject members)
{
    members.insert(QLatin1String("type"), type);
    members.insert(QLatin1String("status"), false);
    members.insert(QLatin1String("code"), code);
    members.insert(QLatin1String("description"), description);
    return ApiReply{httpStatus, members};
}

ApiReply internalError(const QString &type)
{
    return ApiReply::failure(type, Http::InternalError, QStringLiteral("internal_error"),
                             QStringLiteral("The service hit an internal error. Please try again later."));
}

ApiReply databaseUnavailable(const QString &type)
{
    ApiReply reply = ApiReply::failure(type, Http::Unavailable, QStringLiteral("database_unavailable"),
                                       QStringLiteral("The service cannot reach its database just now. Please try "
                                                      "again in a moment."));
    reply.retryAfterSeconds = 1;
    return reply;
}

ApiReply busy(const QString &type)
{
    ApiReply reply = ApiReply::failure(type, Http::Unavailable, QStringLiteral("busy"),
                                       QStringLiteral("The service is busy. Please try again in a moment."));
    reply.retryAfterSeconds = 1;
    return reply;
}
