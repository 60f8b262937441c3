#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>

// One HTTP/1.1 exchange over a fresh loopback connection, written and read
// byte for byte so the tests see exactly what the service sends.
struct RawResponse
{
    int status = 0;  // 0: no complete response in time
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    QJsonObject json;  // the body when it is a JSON object
    bool closedEarly = false;

    QString code() const { return json.value(QLatin1String("code")).toString(); }
    QString type() const { return json.value(QLatin1String("type")).toString(); }
    bool ok() const { return json.value(QLatin1String("status")).toBool(); }
};

// Sends `raw` as is and reads one response; waits at most `timeoutMs`.
RawResponse rawExchange(quint16 port, const QByteArray &raw, int timeoutMs = 5000);

// Builds a request with Host, Content-Length and an optional bearer token.
RawResponse httpRequest(quint16 port, const QByteArray &method, const QByteArray &path,
                        const QByteArray &body = {}, const QString &token = {});
RawResponse httpJson(quint16 port, const QByteArray &method, const QByteArray &path, const QJsonObject &body,
                     const QString &token = {});
