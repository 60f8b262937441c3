#pragma once

#include "cloud/consolebackoff.h"

#include <QJsonObject>
#include <QObject>
#include <QRandomGenerator>
#include <QUrl>

class QTimer;
class QWebSocket;

// The Live Console's own WebSocket to "/ws/console/v1": it says hello on
// every connect, reports the service's messages as they come, and while it
// is wanted comes back after every loss with a full-jitter back-off. Ready
// means the service answered the hello with "status" true.
class ConsoleSocket : public QObject
{
    Q_OBJECT
public:
    // A message larger than this is refused by the socket (and the
    // connection dropped): no command batch comes near it.
    static constexpr qint64 kMaxMessageBytes = 1024 * 1024;

    explicit ConsoleSocket(QObject *parent = nullptr);
    ~ConsoleSocket() override;

    // "wss" for an "https" base URL, else "ws"; the path "/ws/console/v1".
    static QUrl socketUrl(const QString &baseUrl);

    // Tests shorten the waits; the shape stays.
    void setBackoff(const ConsoleBackoff &backoff) { m_backoff = backoff; }
    void setRandomSeed(quint32 seed) { m_random.seed(seed); }

    void start(const QString &baseUrl, const QString &accessToken, const QJsonObject &hello);
    void stop();
    // A renewed token, for the next attempt.
    void setAccessToken(const QString &accessToken) { m_accessToken = accessToken; }
    // Sends only while ready; false otherwise.
    bool send(const QJsonObject &object);

    bool isReady() const { return m_ready; }
    // Started and busy: connecting, connected or waiting to retry. A socket
    // started without a token, or stopped, is not.
    bool isRunning() const;
    int attempt() const { return m_backoff.attempt(); }
    bool isReconnectPending() const;

signals:
    void ready();
    void disconnected();
    void consoleResponse(const QJsonObject &response);
    // The next attempt is due in delayMs.
    void reconnectScheduled(qint64 delayMs);

private slots:
    void onConnected();
    void onTextMessage(const QString &message);
    void onDisconnected();
    void onReconnectTimeout();

private:
    void open();

    QWebSocket *m_socket;
    QTimer *m_reconnectTimer;
    ConsoleBackoff m_backoff;
    QRandomGenerator m_random;
    bool m_enabled = false;
    bool m_ready = false;
    // An attempt is under way: its end (a close, a refusal, an error) is
    // handled once, however many signals report it.
    bool m_attemptOpen = false;
    QUrl m_url;
    QString m_accessToken;
    QJsonObject m_hello;
};
