#include "rawhttp.h"

#include <QEventLoop>
#include <QTimer>
#include <QJsonDocument>
#include <QSslConfiguration>
#include <QSslSocket>

QByteArray RawResponse::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key == name)
            return value;
    }
    return {};
}

RawResponse rawExchange(quint16 port, const QByteArray &raw, int timeoutMs, const QHostAddress &from,
                        const QSslCertificate *authority)
{
    // Driven by the event loop, so a service running in this process
    // answers while we wait.
    RawResponse response;
    QSslSocket socket;
    QEventLoop loop;
    QByteArray data;
    qsizetype headerEnd = -1;
    qint64 contentLength = -1;
    bool complete = false;
    const auto take = [&] {
        data += socket.readAll();
        if (headerEnd < 0 && (headerEnd = data.indexOf("\r\n\r\n")) >= 0) {
            const QList<QByteArray> lines = data.left(headerEnd).split('\n');
            response.status = lines.value(0).split(' ').value(1).toInt();
            for (qsizetype i = 1; i < lines.size(); ++i) {
                const qsizetype colon = lines[i].indexOf(':');
                const QByteArray name = lines[i].left(colon).trimmed().toLower();
                const QByteArray value = lines[i].mid(colon + 1).trimmed();
                response.headers.append({name, value});
                if (name == "content-length")
                    contentLength = value.toLongLong();
            }
        }
        if (headerEnd >= 0 && contentLength >= 0 && data.size() - headerEnd - 4 >= contentLength) {
            complete = true;
            loop.quit();
        }
    };
    if (authority) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setCaCertificates({*authority});
        socket.setSslConfiguration(tls);
        QObject::connect(&socket, &QSslSocket::encrypted, &loop, [&] { socket.write(raw); });
    } else {
        QObject::connect(&socket, &QTcpSocket::connected, &loop, [&] { socket.write(raw); });
    }
    QObject::connect(&socket, &QTcpSocket::readyRead, &loop, take);
    QObject::connect(&socket, &QTcpSocket::disconnected, &loop, [&] {
        take();
        response.closedEarly = !complete;
        loop.quit();
    });
    QObject::connect(&socket, &QTcpSocket::errorOccurred, &loop, [&](QAbstractSocket::SocketError error) {
        if (error != QAbstractSocket::RemoteHostClosedError)
            loop.quit();
    });
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!from.isNull())
        socket.bind(from);
    if (authority)
        socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port, QStringLiteral("localhost"));
    else
        socket.connectToHost(QHostAddress::LocalHost, port);
    loop.exec();
    if (!complete) {
        response.status = 0;
        return response;
    }
    response.body = data.mid(headerEnd + 4, contentLength);
    response.json = QJsonDocument::fromJson(response.body).object();
    return response;
}

RawResponse httpRequest(quint16 port, const QByteArray &method, const QByteArray &path, const QByteArray &body,
                        const QString &token, const QByteArray &extraHeaders, const QHostAddress &from,
                        const QSslCertificate *authority)
{
    QByteArray raw = method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + extraHeaders;
    if (!token.isEmpty())
        raw += "Authorization: Bearer " + token.toUtf8() + "\r\n";
    if (method == "POST" || method == "PUT")
        raw += "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n";
    raw += "\r\n" + body;
    return rawExchange(port, raw, 5000, from, authority);
}

RawResponse httpJson(quint16 port, const QByteArray &method, const QByteArray &path, const QJsonObject &body,
                     const QString &token, const QByteArray &extraHeaders, const QHostAddress &from,
                     const QSslCertificate *authority)
{
    return httpRequest(port, method, path, QJsonDocument(body).toJson(QJsonDocument::Compact), token, extraHeaders,
                       from, authority);
}
