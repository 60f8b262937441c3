#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

// Where the bytes of a file being received go.
class XferSink
{
public:
    virtual ~XferSink() = default;

    // `expectedSize` is -1 when the sender did not say.
    virtual bool open(const QString &name, qint64 expectedSize) = 0;
    virtual bool write(const QByteArray &bytes) = 0;
    // The data are complete: cut to `finalSize` and put in place.
    virtual bool finish(qint64 finalSize) = 0;
    // The transfer failed; the data so far are deleted or kept aside.
    virtual void abort(bool keepPartial) = 0;
    // The sender's modification time (seconds since 1970, 0 none), told
    // before open() when the sender gives one.
    virtual void setModificationTime(qint64 secondsSinceEpoch) { Q_UNUSED(secondsSinceEpoch); }
};
