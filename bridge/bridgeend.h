#pragma once

#include "common/result.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>

// One end of a running bridge, as the engine sees it: it delivers what its
// sources send, offers outlets to write to, reports how much each outlet
// still has to take, holds its sources back on request and says whether it
// is ready. A pane is one source and one outlet (named ""); a listener has
// a source and an outlet per client (named by its "%1:%2" label); UDP
// targets are outlets only.
class BridgeEnd : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // Listens, opens or looks for what the end needs. A failure that will
    // not go away by waiting (a port in use) is returned; the end is then
    // not ready.
    virtual Result start() = 0;
    // Lets go of everything: holds, listeners, marks on panes.
    virtual void stop() = 0;

    // Able to take and give bytes now.
    virtual bool isReady() const = 0;
    // Why not, for the bridge's state line; empty when ready.
    virtual QString waitingText() const = 0;
    // For the state line and the capture log ("ser-/dev/ttyUSB0", ...).
    virtual QString description() const = 0;

    virtual QStringList outlets() const = 0;
    // Hands bytes to an outlet; false when it did not take them.
    virtual bool write(const QString &outlet, const QByteArray &bytes) = 0;
    // What the outlet still holds unsent.
    virtual qint64 backlog(const QString &outlet) const = 0;
    // Outlets that send each write as one datagram: frames stay apart.
    virtual bool keepsFramesApart() const { return false; }
    // The line's speed in baud when the end is a serial line; 0 otherwise.
    virtual int lineBaudRate() const { return 0; }
    // Drops an outlet (the disconnect policy). An end that cannot drop an
    // outlet returns false; the engine then stops with a message.
    virtual bool dropOutlet(const QString &outlet) { Q_UNUSED(outlet); return false; }

    // While held no source delivers; the sender is held back by its own
    // flow control (a pane's read pause, TCP's window).
    virtual void setReadPaused(bool paused) = 0;

Q_SIGNALS:
    void received(const QByteArray &bytes, const QString &source);
    // A source left: its partial frame goes with it.
    void sourceGone(const QString &source);
    void outletsChanged();
    void readyChanged();
    // An outlet took bytes off its backlog: queues may move on.
    void drained();
    // Something the user should read (a refused client, say).
    void notice(const QString &text);
};
