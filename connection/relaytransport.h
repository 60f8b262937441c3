#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

// The byte pipe to a serial port on another computer, as the connection
// controller sees it. The cloud relay implements it; the controller needs
// nothing beyond what is declared here, so tests can stand in for the cloud.
class RelayTransport : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // True once both ends are paired and bytes can flow.
    virtual bool isConnected() const = 0;
    // Queues the bytes for the remote port; returns how many were accepted,
    // or -1 when the relay cannot take them.
    virtual qint64 write(const QByteArray &data) = 0;
    // Bytes accepted by write() that have not left this computer yet.
    virtual qint64 bytesToWrite() const = 0;
    // Ends the session from this side. Emits nothing: the caller already
    // knows it is closing.
    virtual void close() = 0;
    // While paused the relay stops taking bytes from the far end, which is
    // then held back, instead of delivering them faster than they are read.
    virtual void setReadPaused(bool paused) { Q_UNUSED(paused); }

Q_SIGNALS:
    void connected();
    void dataReceived(const QByteArray &data);
    // The remote end is now known by another name (the host or guest).
    void peerChanged(const QString &peer);
    // The session is over; reason is the text to show the user.
    void ended(const QString &reason);
};
