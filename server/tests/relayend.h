#pragma once

#include "cloud/websocketcodec.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSslSocket>

#include <functional>

class QSslCertificate;

// One relay end as the program speaks it: WebSocket through WebSocketCodec
// over a plain (or, through a proxy, TLS) socket, masked frames, binary
// messages of at most 8192 bytes. It keeps every control text, the bytes
// received and the close code.
class RelayEnd : public QObject
{
public:
    QSslSocket socket;
    WebSocketCodec codec{WebSocketCodec::Role::Client};
    QList<QJsonObject> texts;
    QByteArray received;
    int closeCode = 0;
    QString closeReason;
    bool opened = false;
    // While false, nothing is read: the socket's buffer fills and TCP holds the sender.
    bool reading = true;

    RelayEnd();
    // Connects to "/ws/relay/v1?ticket=..." on a loopback port; with
    // `authority`, over TLS trusting that certificate for "localhost".
    void open(quint16 port, const QString &ticket, const QSslCertificate *authority = nullptr);
    void read();
    void send(QByteArrayView bytes);
    void close(int code = 1000);

    bool hasText(const QString &type) const { return indexOf(type) >= 0; }
    int indexOf(const QString &type) const;
    QJsonObject text(const QString &type) const { return texts.value(indexOf(type)); }
    bool waitForText(const QString &type, int timeoutMs = 10000);
    bool waitForClose(int timeoutMs = 10000);
};

// Runs the event loop until `done` holds or `timeoutMs` passed, without
// QTest::qWaitFor's pauses between turns (they would cap bulk traffic).
bool pumpUntil(const std::function<bool()> &done, int timeoutMs);

// Reproducible random bytes.
QByteArray randomBytes(qsizetype size, quint32 seed = 1);
