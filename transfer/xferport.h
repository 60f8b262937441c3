#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// What a transfer needs from the port it runs on. The owner of the port
// implements it and, while a session runs, hands every received chunk to
// FileTransferSession::feedReceived(), reports completed writes through
// FileTransferSession::onPortBytesWritten() and a closed or lost connection
// through FileTransferSession::stop().
class XferPort
{
public:
    virtual ~XferPort() = default;

    // Queues bytes for the peer, in order, and pushes them out without
    // waiting for the next turn of the event loop (flush()): the other end
    // answers every block, so a delayed write costs a round trip each time.
    // False when the port refused them.
    virtual bool write(const QByteArray &bytes) = 0;
    // Bytes accepted by write() that have not yet gone out.
    virtual qint64 bytesToWrite() const = 0;
    virtual bool isOpen() const = 0;
    // The pane's transfer lock: while on, nothing else writes to the port
    // and received bytes go to the session only.
    virtual void lock(bool on) = 0;
    // A note in the pane's view.
    virtual void writeNote(const QString &text) = 0;

    // A TCP server with several clients: which one takes the transfer. The
    // labels are "%1:%2" (address, port). False when that client is gone.
    virtual QStringList clientLabels() const { return {}; }
    virtual bool selectClient(const QString &label)
    {
        Q_UNUSED(label);
        return true;
    }
};
