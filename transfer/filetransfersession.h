#pragma once

#include "common/monotonicclock.h"
#include "transfer/xmodemcodec.h"

#include <QObject>
#include <QTimer>

#include <memory>

class XferFileSink;
class XferFileSource;
class XferPort;

// One XMODEM/YMODEM transfer on one port: drives the codec with the port's
// received bytes, its completed writes and one single-shot timer, moves the
// file through an XferFileSource or XferFileSink, holds the port's transfer
// lock while it runs and ends in exactly one summary line.
class FileTransferSession : public QObject
{
    Q_OBJECT

public:
    enum class Direction { Send, Receive };
    // Persisted order: never change the numbers.
    enum class StopReason { UserCancel = 0, DeviceCancel = 1, ProtocolError = 2, ConnectionClosed = 3, ConnectionLost = 4 };
    enum class RunState { Idle, Running, Stopping, Ended };

    struct Request
    {
        XmodemVariant protocol = XmodemVariant::Ymodem;
        Direction direction = Direction::Send;
        QString filePath;   // sending
        QString folder;     // receiving
        QString fileName;   // receiving under XMODEM (YMODEM takes the sender's)
        qint64 receiveCapBytes = 0;  // 0: no limit
        int blockSize = 1024;        // 128 forces short blocks when sending
    };

    // Progress reports come at most this often (and once at the end).
    static constexpr qint64 kProgressIntervalMs = 100;
    // A write that makes no progress at all for this long means the peer
    // stopped taking data: the transfer ends instead of waiting for ever.
    static constexpr qint64 kWriteStallMs = 60000;

    FileTransferSession(XferPort *port, const Request &request, QObject *parent = nullptr,
                        MonotonicClock clock = systemMonotonicClock());
    ~FileTransferSession() override;

    // Takes the port and sends the codec's first bytes. A file that cannot
    // be opened ends the session at once (finished is emitted from here).
    void start();

    static QString protocolName(XmodemVariant protocol);

    XmodemVariant protocol() const { return m_request.protocol; }
    Direction direction() const { return m_request.direction; }
    RunState runState() const { return m_runState; }
    bool isRunning() const { return m_runState == RunState::Running; }
    QString title() const;
    // The file's name as far as known: the file sent, the name the device
    // announced or the name typed; empty when none is known yet.
    QString fileName() const;
    // Where the received file goes once known.
    QString destinationPath() const;
    QString requestedName() const;
    QString partialPath() const;
    XmodemProgress progressSnapshot() const;
    qint64 elapsedMs() const;
    StopReason stopReason() const { return m_stopReason; }
    int errorCode() const { return m_errorCode; }
    QString failureMessage() const { return m_failureMessage; }
    QString summary() const { return m_summary; }

public slots:
    void feedReceived(const QByteArray &bytes);
    void onPortBytesWritten();
    // The session's timer fired (tests with a virtual clock call it too).
    void onTick();
    void stop(FileTransferSession::StopReason reason, const QString &detail = QString());

signals:
    void progress(qint64 bytesDone, qint64 totalBytes, int totalRetries, qint64 elapsedMs);
    void finished(bool success, const QString &summary);

private:
    void execute(const XmodemAction &action);
    bool writeToPort(const QByteArray &bytes);
    void reportProgress(bool force);
    void end(bool success, int code, const QString &message);
    QString failureText(const QString &message) const;
    QStringList namingNotes() const;

    XferPort *m_port;
    Request m_request;
    MonotonicClock m_clock;
    std::unique_ptr<XferFileSource> m_source;
    std::unique_ptr<XferFileSink> m_sink;
    std::unique_ptr<XmodemCodec> m_codec;
    QTimer m_timer;

    RunState m_runState = RunState::Idle;
    StopReason m_stopReason = StopReason::UserCancel;
    int m_errorCode = 0;
    QString m_failureMessage;
    QString m_summary;
    qint64 m_startMs = 0;
    qint64 m_endMs = -1;
    qint64 m_lastProgressMs = -1;
    bool m_awaitingWritten = false;
    // When the port last reported bytes going out while a write waited.
    qint64 m_writeProgressMs = -1;
    bool m_locked = false;
};

Q_DECLARE_METATYPE(FileTransferSession::StopReason)
