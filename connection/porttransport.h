#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

// Where a send goes in the modes with several peers.
struct SendTarget
{
    // TCP server: a client's label; wins over index when not empty.
    QString clientLabel;
    // TCP server: client index, or -1 for every client.
    // UDP server: peer row, or -1 for the peer heard from last.
    int index = -1;
};

// One kind of transport behind a pane (serial port, TCP client, TCP server,
// UDP socket, cloud relay), as the connection controller drives it. Received
// bytes are pushed: a transport reads its device when told it has data and
// emits received() with the bytes and the sender's "%1:%2" label (empty
// where there is only one peer). Before it reads it emits readable(), so a
// caller that prefers to pull may take the bytes with takeAvailable() first.
class PortTransport : public QObject
{
    Q_OBJECT

public:
    // A paused transport holds at most this much in its read buffer, so the
    // sender is held back by the line's own flow control.
    static constexpr qint64 kPausedReadBufferSize = 4096;
    // Otherwise at most this much is read per notification: a fast sender
    // cannot pour more than this into one read, and the rest waits in the
    // kernel, where the line's flow control holds the sender back.
    static constexpr qint64 kReadBufferSize = 1024 * 1024;
    // A peer that leaves this much unsent is not reading: sends wait (auto
    // send) or are refused with a message until it takes some, so memory
    // stays flat however long it refuses.
    static constexpr qint64 kWriteHighWatermark = 1024 * 1024;

    using QObject::QObject;

    virtual bool isOpen() const = 0;
    // Ends the connection; emits what the kind emits on a close.
    virtual void close() = 0;
    // The transport's one write path; what "target" means depends on the kind.
    virtual bool send(const QByteArray &data, const SendTarget &target) = 0;
    virtual qint64 bytesToWrite() const = 0;
    // What still waits for one send target (one client of a server); the
    // kinds with one peer have only bytesToWrite().
    virtual qint64 bytesToWriteFor(const SendTarget &target) const
    {
        Q_UNUSED(target);
        return bytesToWrite();
    }
    // What counts against the write watermark: for a kind with several
    // peers, the most any one of them still has to take.
    virtual qint64 writeBacklog() const { return bytesToWrite(); }

    // While paused nothing is read or pushed; resuming pushes what waits.
    // A kind that cannot hold its sender back ignores a pause.
    void setReadPaused(bool paused);
    virtual bool canPause() const { return true; }
    bool isReadPaused() const { return m_readPaused; }
    // Everything readable right now, in arrival order, as one byte array
    // (empty while paused). The datagram kinds answer through their own API.
    virtual QByteArray takeAvailable() { return {}; }

Q_SIGNALS:
    void statusMessage(const QString &message, int timeoutMs);
    void errorOccurred(const QString &message);
    void readable();
    void received(const QByteArray &data, const QString &peer);
    void bytesWritten(qint64 bytes);

protected:
    // Subclasses call this when their device reports new data.
    void announceData();
    // Reads everything waiting and emits received() for it.
    virtual void deliverAvailable();
    // Applies the pause to the device (read-buffer limits and the like).
    virtual void applyReadPaused(bool paused) { Q_UNUSED(paused); }
    // Whether bytes wait in the device without a new notification coming.
    virtual bool hasWaitingData() const { return false; }
    void reportFailure(const QString &text);

    static constexpr int kOpenedTimeout = 1000;
    static constexpr int kNoticeTimeout = 3000;
    static constexpr int kFailureTimeout = 5000;

private:
    bool m_readPaused = false;
};
