#pragma once

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QTest>
#include <QWebSocket>

// One end of a console socket, keeping what it was sent.
class SocketClient : public QObject
{
public:
    QWebSocket socket;
    QList<QJsonObject> received;
    bool closed = false;

    SocketClient()
    {
        connect(&socket, &QWebSocket::textMessageReceived, this,
                [this](const QString &text) { received.append(QJsonDocument::fromJson(text.toUtf8()).object()); });
        connect(&socket, &QWebSocket::disconnected, this, [this] { closed = true; });
    }
    bool open(quint16 port, const char *path, const QString &token = {}, int waitMs = 5000)
    {
        QNetworkRequest request(QUrl(QStringLiteral("ws://127.0.0.1:%1%2").arg(port).arg(QLatin1String(path))));
        if (!token.isEmpty())
            request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
        socket.open(request);
        return QTest::qWaitFor([this] { return socket.state() == QAbstractSocket::ConnectedState; }, waitMs);
    }
    void send(const QJsonObject &object)
    {
        socket.sendTextMessage(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    }
    // The first message at or after `from` with `member` equal to `value`.
    int find(const QString &member, const QJsonValue &value, int from = 0) const
    {
        for (int i = from; i < received.size(); ++i) {
            if (received[i].value(member) == value)
                return i;
        }
        return -1;
    }
    QList<QJsonObject> ofType(const QString &type) const
    {
        QList<QJsonObject> out;
        for (const QJsonObject &message : received) {
            if (message.value(QLatin1String("type")).toString() == type)
                out.append(message);
        }
        return out;
    }
    bool heard(const QString &member, const QJsonValue &value) const { return find(member, value) >= 0; }
    // Every command pushed to a computer socket so far.
    QList<QJsonObject> commands() const
    {
        QList<QJsonObject> out;
        for (const QJsonObject &message : ofType(QStringLiteral("console"))) {
            for (const QJsonValue &command : message.value(QLatin1String("commands")).toArray())
                out.append(command.toObject());
        }
        return out;
    }
};

