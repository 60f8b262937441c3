#pragma once

#include "bridge/bridgerecord.h"
#include "common/result.h"
#include "terminal/logwriter.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

// A bridge's capture file: one line per forwarded frame (time, direction,
// length, the bytes in hex) and one per drop, written as UTF-8 by a
// LogWriter, so it rotates and survives a full disk like the data log.
class BridgeCaptureLog
{
    Q_DECLARE_TR_FUNCTIONS(BridgeCaptureLog)

public:
    explicit BridgeCaptureLog(LogWriter::Clock clock = LogWriter::Clock());

    Result open(const BridgeCaptureOptions &options, const QString &bridgeName);
    void close();
    bool isOpen() const { return m_open; }
    QString filePath() const { return m_writer.filePath(); }

    Result frame(int direction, const QByteArray &bytes);
    Result drop(int direction, qint64 frames, qint64 bytes, const QString &outlet, const QString &why);
    Result note(const QString &text);
    // Writes what is pending (the engine's save tick).
    Result flush();

    // The line a frame becomes (without the time stamp the writer adds).
    static QString frameLine(int direction, const QByteArray &bytes);

private:
    LogWriter m_writer;
    bool m_open = false;
};
