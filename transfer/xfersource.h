#pragma once

#include <QByteArray>
#include <QtGlobal>

// Where the bytes of a file being sent come from. The codec asks only for
// these four things, so tests can hand it memory instead of a file.
class XferSource
{
public:
    virtual ~XferSource() = default;

    virtual qint64 size() const = 0;
    // Up to `length` bytes at `offset`; fewer at the end of the data.
    virtual QByteArray read(qint64 offset, qint64 length) = 0;
    virtual bool lastReadFailed() const = 0;
    // True while the data still looks as it did when opened.
    virtual bool unchanged() const = 0;
};
