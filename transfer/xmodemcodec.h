#pragma once

#include "common/codecstep.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

class XferSink;
class XferSource;

// The persisted protocol numbers (settings, dialog item data): never change.
enum class XmodemVariant : int {
    Xmodem = 0,     // 128-byte blocks, arithmetic checksum
    XmodemCrc = 1,  // 128-byte blocks, CRC-16
    Xmodem1K = 2,   // 1024-byte blocks, CRC-16
    Ymodem = 3,     // block 0 header, 1024-byte blocks, CRC-16
    YmodemG = 4,    // as YMODEM, streaming without acknowledgements
};

inline int toInt(XmodemVariant v) { return static_cast<int>(v); }
bool isValidXmodemVariant(int value);
bool isYmodemVariant(XmodemVariant v);
// The variants that can put 1024 bytes in a block.
bool canSendLongBlocks(XmodemVariant v);

// Why a transfer failed; the numbers are what the summary and logs carry.
struct XmodemError
{
    static constexpr int None = 0;
    static constexpr int NeverStarted = 1;
    static constexpr int RetriesExhausted = 2;  // also any YMODEM-G error
    static constexpr int DeviceCancelled = 3;
    static constexpr int LocalCancel = 4;
    static constexpr int ConnectionGone = 5;    // set by the session, never by the codec
    static constexpr int ReadFailed = 8;
    static constexpr int FileChanged = 9;
    static constexpr int CreateFailed = 10;
    static constexpr int WriteFailed = 11;
    static constexpr int SaveFailed = 12;
    static constexpr int SizeCap = 14;
    static constexpr int OutOfStep = 16;
};

// How a transfer ended; an action carries at most one.
struct XmodemEnd
{
    bool success = false;
    int code = XmodemError::None;
    QString message;  // translated; empty on success
};

// What every call of the codec returns: the bytes to write (in order, before
// anything a later call returns), the end of the transfer if it came, and
// when to call tick() again. While written bytes are in flight there is no
// wake time: the owner reports onBytesWritten() and the wait starts then.
struct XmodemAction : CodecStep<XmodemEnd>
{
    bool finished() const { return !events.isEmpty() && events.first().success; }
    bool failed() const { return !events.isEmpty() && !events.first().success; }
    bool ended() const { return !events.isEmpty(); }
    int errorCode() const { return events.isEmpty() ? 0 : events.first().code; }
    QString message() const { return events.isEmpty() ? QString() : events.first().message; }
    // Milliseconds from `nowMs` until tick() is wanted, -1 for none.
    qint64 timeoutMs(qint64 nowMs) const { return wantsWake() ? qMax<qint64>(0, wakeAtMs - nowMs) : -1; }
};

struct XmodemProgress
{
    QString fileName;
    qint64 bytesDone = 0;
    qint64 totalBytes = -1;  // -1 unknown
    int totalRetries = 0;
};

// XMODEM, XMODEM-CRC, XMODEM-1K, YMODEM and YMODEM-G, sender or receiver of
// one file. Pure state machine: no I/O, no timers, no clock of its own.
// File data go through XferSource / XferSink, which the codec does not own.
class XmodemCodec
{
    Q_DECLARE_TR_FUNCTIONS(XmodemCodec)

public:
    enum class Direction { Send, Receive };
    enum class State {
        Idle,
        SendWaitRequest,
        SendWaitAck,
        SendWaitDataStart,
        SendWaitBatchEnd,
        SendStreaming,
        RecvStarting,
        RecvBlocks,
        RecvWaitBatchEnd,
        Done,
        Failed,
    };

    static constexpr qint64 kFirstRequestMs = 60000;
    static constexpr qint64 kWaitMs = 10000;
    static constexpr qint64 kCrcStartRepeatMs = 3000;
    static constexpr qint64 kChecksumStartRepeatMs = 10000;
    static constexpr qint64 kStartLimitMs = 60000;
    static constexpr int kMaxRetries = 10;
    // A receiver holding part of a block that hears nothing more for this
    // long takes a byte as lost: the block can never complete, so it is
    // dropped and asked for again at once instead of after kWaitMs.
    static constexpr qint64 kCharTimeoutMs = 1000;
    // From this start attempt on an XMODEM CRC receiver asks for checksums.
    static constexpr int kChecksumFallbackAttempt = 7;
    // Received bytes waiting to be parsed. A peer that keeps sending while
    // our own write is still in flight cannot grow it further: bytes beyond
    // this are dropped as line noise, which the block checks then catch.
    static constexpr qsizetype kMaxInputBuffer = 64 * 1024;

    static constexpr char SOH = 0x01, STX = 0x02, EOT = 0x04, ACK = 0x06, BS = 0x08,
                          NAK = 0x15, CAN = 0x18, SUB = 0x1A, CRC_REQUEST = 'C', STREAM_REQUEST = 'G';

    XmodemCodec(XmodemVariant variant, XferSource *source);
    XmodemCodec(XmodemVariant variant, XferSink *sink);

    // Before starting a send: the name and time carried by a YMODEM header,
    // and the "Block size:" choice of 128.
    void setSendFileInfo(const QString &name, qint64 modificationTimeSecs);
    void setForceShortBlocks(bool on) { m_forceShortBlocks = on; }
    // Before starting a receive: at most this many bytes (0 or less: no limit).
    void setReceiveSizeCap(qint64 bytes) { m_recvCap = bytes; }

    XmodemAction startSend(qint64 nowMs);
    XmodemAction startReceive(const QString &fileName, qint64 nowMs);
    XmodemAction onBytes(QByteArrayView data, qint64 nowMs);
    XmodemAction onBytesWritten(qint64 nowMs);
    XmodemAction tick(qint64 nowMs);
    XmodemAction cancel(qint64 nowMs);

    XmodemProgress progress() const;
    Direction direction() const { return m_direction; }
    XmodemVariant variant() const { return m_variant; }
    State state() const { return m_state; }
    bool isEnded() const { return m_state == State::Done || m_state == State::Failed; }
    bool crcMode() const { return m_crcMode; }
    bool streaming() const { return m_streaming; }
    // Receiving: what the YMODEM header announced.
    QString fileName() const { return m_fileName; }
    qint64 fileSize() const { return m_fileSize; }
    qint64 modificationTime() const { return m_mtime; }

    // The wire pieces, shared with tests.
    static QByteArray cancelSequence();
    static quint16 crc16(QByteArrayView data);
    static quint8 checksum8(QByteArrayView data);
    static QByteArray makeBlock(int number, QByteArrayView data, bool crc);
    static QByteArray makeHeaderData(const QString &name, qint64 size, qint64 mtime);

private:
    enum class Packet { None, Header, Data, Eot, BatchEnd };
    static constexpr qint64 kKeepDeadline = -2;

    // The call being answered: bytes gathered, the timeout that follows
    // them and the end if one came.
    struct Pending
    {
        QByteArray write;
        qint64 timeoutMs = kKeepDeadline;
        bool ended = false;
        XmodemEnd end;
    };

    XmodemAction conclude(qint64 nowMs);
    void emitBytes(const QByteArray &bytes, qint64 timeoutMs);
    void succeed();
    void fail(int code, const QString &message, bool sendCancel);
    bool retryAllowed();
    QString gaveUpText() const;

    void process(qint64 nowMs);
    bool countCan(char byte);

    // Sending.
    void processSend(char byte);
    void sendHeader();
    void sendDataBlock();
    void sendBatchEnd();
    void resendPacket();
    void advanceAfterData();
    void sendTimeout();

    // Receiving.
    char startChar() const;
    qint64 startRepeatMs() const;
    void processReceive(qint64 nowMs, bool *needMore);
    void handleBlock(int number, const QByteArray &data);
    void handleHeader(const QByteArray &data);
    void handleEot();
    void acceptEot();
    static bool endsWithCancel(const QByteArray &bytes);
    void failDeviceCancelled();
    void badBlock();
    void receiveTimeout(qint64 nowMs);
    // Part of a block waits for bytes that may never come.
    bool holdsPartialBlock() const;

    Direction m_direction;
    XmodemVariant m_variant;
    XferSource *m_source = nullptr;
    XferSink *m_sink = nullptr;
    bool m_forceShortBlocks = false;
    bool m_crcMode = true;
    bool m_streaming = false;
    State m_state = State::Idle;

    QString m_fileName;
    qint64 m_fileSize = -1;
    qint64 m_mtime = 0;
    qint64 m_recvCap = 0;

    qint64 m_offset = 0;
    qint64 m_blockLength = 0;
    int m_blockNumber = 1;
    Packet m_lastPacket = Packet::None;
    bool m_headerSent = false;
    QByteArray m_packet;

    qint64 m_written = 0;
    int m_expectedBlock = 1;
    int m_lastAccepted = -1;
    int m_startAttempts = 0;
    qint64 m_startMs = 0;
    bool m_headerReceived = false;

    int m_retries = 0;
    int m_totalRetries = 0;
    int m_canCount = 0;

    qint64 m_deadline = -1;
    qint64 m_lastInputMs = 0;
    qint64 m_pendingTimeout = -1;
    bool m_writePending = false;

    QByteArray m_input;
    Pending m_out;
};
