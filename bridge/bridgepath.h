#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <QtGlobal>

class BridgeEnd;

// What a path reports to the bridge that runs it: the bookkeeping every
// kind of bridge shares (counters, rates, capture, the flood guard, the
// state).
class BridgePathHost
{
public:
    virtual ~BridgePathHost() = default;

    virtual BridgeEnd *end(int index) const = 0;
    virtual qint64 nowMs() const = 0;
    // The bridge is about to stop: take nothing more.
    virtual bool isHalting() const = 0;

    // A frame left a source in `direction` (0 A to B, 1 B to A).
    virtual void framed(int direction, const QByteArray &frame) = 0;
    // Bytes handed to an end's outlet.
    virtual void written(int end, const QByteArray &bytes) = 0;
    virtual void dropped(int direction, qint64 frames, qint64 bytes, const QString &outlet, const QString &why) = 0;
    // Framed bytes with no outlet to go to (a listener without clients).
    virtual void unrouted(int direction, qint64 bytes) = 0;
    // The bridge cannot go on; the text says why.
    virtual void fail(const QString &text) = 0;
};

// What runs between the two ends of a bridge; its kind decides which. A
// path is told everything the ends report and moves bytes between them.
class BridgePath : public QObject
{
    Q_OBJECT

public:
    explicit BridgePath(BridgePathHost *host, QObject *parent = nullptr)
        : QObject(parent)
        , m_host(host)
    {
    }

    virtual void received(int end, const QByteArray &bytes, const QString &source) = 0;
    virtual void sourceGone(int end, const QString &source) = 0;
    // An end's outlets or readiness changed.
    virtual void endChanged(int end) = 0;
    // An end's outlets took bytes off their backlog.
    virtual void drained(int end) = 0;
    // Bytes waiting in the path's queues for `direction`.
    virtual qint64 queuedBytes(int direction) const = 0;
    // Lets go of everything held; what was still waiting is reported as
    // dropped.
    virtual void stop() = 0;

protected:
    BridgePathHost *host() const { return m_host; }

private:
    BridgePathHost *m_host;
};
