#pragma once

#include "connection/porttransport.h"

#include <QByteArray>

class QTcpSocket;

// A TCP client connection (also the carrier of a remote serial port). Bytes
// written before the socket connects wait, in order, and go out first once
// it does; they are dropped if the attempt fails.
class StreamClientTransport : public PortTransport
{
    Q_OBJECT

public:
    explicit StreamClientTransport(QObject *parent = nullptr);
    ~StreamClientTransport() override;

    // Does nothing while a previous attempt is still connecting or connected.
    void connectTo(const QString &host, quint16 port);
    void close() override;
    bool isOpen() const override;
    bool hasSocket() const { return m_socket != nullptr; }
    bool send(const QByteArray &data, const SendTarget &target) override;
    bool write(const QByteArray &data);
    qint64 bytesToWrite() const override;
    QByteArray takeAvailable() override;
    void setLowDelay(bool on);

Q_SIGNALS:
    void connected();
    // The socket was closed, by the remote or by a close.
    void disconnected();

protected:
    void applyReadPaused(bool paused) override;
    bool hasWaitingData() const override;

private:
    void applyOptions();
    void flushPending();
    void onConnected(QTcpSocket *socket);
    void onDisconnected(QTcpSocket *socket);
    void onError(QTcpSocket *socket);

    QTcpSocket *m_socket = nullptr;
    QByteArray m_pending;
    bool m_lowDelay = false;
};
