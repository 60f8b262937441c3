#include "relayend.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSslConfiguration>
#include <QTest>
#include <QUrl>

RelayEnd::RelayEnd()
{
    connect(&socket, &QSslSocket::readyRead, this, [this] { read(); });
}

void RelayEnd::open(quint16 port, const QString &ticket, const QSslCertificate *authority)
{
    const QByteArray target = "/ws/relay/v1?ticket=" + QUrl::toPercentEncoding(ticket);
    const QByteArray handshake = codec.start(QStringLiteral("localhost:%1").arg(port), target).write;
    // The handshake goes once the connection (and its TLS) stands.
    if (authority) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setCaCertificates({*authority});
        socket.setSslConfiguration(tls);
        connect(&socket, &QSslSocket::encrypted, this, [this, handshake] { socket.write(handshake); });
        socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port, QStringLiteral("localhost"));
    } else {
        connect(&socket, &QTcpSocket::connected, this, [this, handshake] { socket.write(handshake); });
        socket.connectToHost(QHostAddress::LocalHost, port);
    }
}

void RelayEnd::read()
{
    if (!reading)
        return;
    const auto step = codec.feed(socket.readAll());
    socket.write(step.write);
    for (const auto &event : step.events) {
        switch (event.kind) {
        case WebSocketCodec::Event::Kind::Opened:
            opened = true;
            break;
        case WebSocketCodec::Event::Kind::Text:
            texts.append(QJsonDocument::fromJson(event.payload).object());
            break;
        case WebSocketCodec::Event::Kind::Binary:
            received += event.payload;
            break;
        case WebSocketCodec::Event::Kind::Closed:
        case WebSocketCodec::Event::Kind::Failed:
            closeCode = event.closeCode;
            closeReason = event.text;
            break;
        }
    }
}

void RelayEnd::send(QByteArrayView bytes)
{
    for (qsizetype at = 0; at < bytes.size(); at += 8192)
        socket.write(codec.binaryMessage(bytes.sliced(at, qMin<qsizetype>(8192, bytes.size() - at))));
}

void RelayEnd::close(int code)
{
    socket.write(codec.close(code));
}

int RelayEnd::indexOf(const QString &type) const
{
    for (int i = 0; i < texts.size(); ++i) {
        if (texts[i].value(QLatin1String("type")).toString() == type)
            return i;
    }
    return -1;
}

bool RelayEnd::waitForText(const QString &type, int timeoutMs)
{
    return QTest::qWaitFor([&] { return hasText(type); }, timeoutMs);
}

bool RelayEnd::waitForClose(int timeoutMs)
{
    return QTest::qWaitFor([&] { return closeCode != 0; }, timeoutMs);
}

bool pumpUntil(const std::function<bool()> &done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    for (qsizetype i = size / 4 * 4; i < size; ++i)
        bytes[i] = char(generator.generate());
    return bytes;
}
