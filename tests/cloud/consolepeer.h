#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QUrlQuery>
#include <QWebSocket>
#include <QWebSocketServer>

#include <functional>

class QTcpSocket;


// A stand-in for the cloud service's console side on one loopback port,
// speaking what the program and the service agree on: HTTP requests are
// recorded and answered by a script, and "/ws/console/v1" is a WebSocket
// that records what the program sends, answers the hello and pushes what a
// test tells it to.
class ConsolePeer : public QObject
{
    Q_OBJECT
public:
    struct Request
    {
        QByteArray method;
        QString path;
        QUrlQuery query;
        QJsonObject body;
        QByteArray authorization;
    };
    using Reply = std::function<QJsonObject(const Request &request)>;

    ConsolePeer();
    ~ConsolePeer() override;

    bool listen();
    QString baseUrl() const;

    // HTTP: every request in order, and how each is answered (by default a
    // plain {"type":"console","status":true}).
    QList<Request> requests;
    Reply reply;
    qsizetype count(const QByteArray &method, const QString &pathPart) const;
    QList<Request> matching(const QByteArray &method, const QString &pathPart) const;

    // Socket: the hello answer, everything the program sent, how sockets
    // ended (close codes the program gave), the socket now open.
    QJsonObject helloAnswer{{"type", "hello"}, {"status", true}};
    QList<QJsonObject> socketMessages;
    QList<int> closeCodes;
    int hellos = 0;
    QList<QByteArray> socketAuthorizations;
    bool isSocketOpen() const { return m_socket; }
    QList<QJsonObject> socketMessagesOfType(const QString &type) const;
    void push(const QJsonObject &message);
    // The service drops the socket without a word.
    void dropSocket();

Q_SIGNALS:
    void requestReceived();
    void socketMessage(const QJsonObject &message);

private:
    void onConnection();
    void onSocketData(QTcpSocket *socket);
    void onWebSocket();

    QTcpServer m_server;
    QWebSocketServer m_webSockets;
    QHash<QTcpSocket *, QByteArray> m_buffers;
    QPointer<QWebSocket> m_socket;
};
