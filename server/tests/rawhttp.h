#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QJsonObject>
#include <QList>
#include <QPair>

class QSslCertificate;

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
    QByteArray header(const QByteArray &name) const;
    QString type() const { return json.value(QLatin1String("type")).toString(); }
    bool ok() const { return json.value(QLatin1String("status")).toBool(); }
};

// Sends `raw` as is and reads one response; waits at most `timeoutMs`.
// `from` picks the client's own loopback address (any of 127.0.0.0/8), so
// one test can be several clients.
// With `authority`, the exchange runs over TLS and trusts that certificate
// alone, for the name "localhost".
RawResponse rawExchange(quint16 port, const QByteArray &raw, int timeoutMs = 5000,
                        const QHostAddress &from = QHostAddress(), const QSslCertificate *authority = nullptr);

// Builds a request with Host, Content-Length, an optional bearer token and
// any extra header lines ("Name: value\r\n" each).
RawResponse httpRequest(quint16 port, const QByteArray &method, const QByteArray &path,
                        const QByteArray &body = {}, const QString &token = {}, const QByteArray &extraHeaders = {},
                        const QHostAddress &from = QHostAddress(), const QSslCertificate *authority = nullptr);
RawResponse httpJson(quint16 port, const QByteArray &method, const QByteArray &path, const QJsonObject &body,
                     const QString &token = {}, const QByteArray &extraHeaders = {},
                     const QHostAddress &from = QHostAddress(), const QSslCertificate *authority = nullptr);
