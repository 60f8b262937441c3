#pragma once

#include "tools/modbusrequest.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QHash>
#include <QList>
#include <QString>

#include <array>
#include <optional>

// The request arbiter of a Modbus gateway: requests from many TCP clients,
// one at a time on a serial line. Pure: its owner feeds it requests, the
// line's bytes and the time (microseconds: the silence between frames at
// 115200 baud is a third of a millisecond), writes `Step::write` to the line,
// sends `Step::replies` to their clients and calls tick() at `wakeAtUs`.
class ModbusArbiter
{
    Q_DECLARE_TR_FUNCTIONS(ModbusArbiter)

public:
    static constexpr qint64 kNoWake = -1;
    // Exceptions the gateway answers itself.
    static constexpr quint8 kServerBusy = 0x06;
    static constexpr quint8 kTargetFailedToRespond = 0x0B;
    // Clients that left whose counters are still shown.
    static constexpr int kMaxClientsGone = 64;
    // A reply of a function whose length its bytes do not say ends at a
    // silence; an adapter may split a reply by a few milliseconds.
    static constexpr qint64 kMinEndSilenceUs = 5000;
    // Longest frame the line carries (ASCII: ":", 2 x 255 hex digits, CR LF).
    static constexpr int kMaxLineFrame = 513;

    struct Options
    {
        ModbusFraming framing = ModbusFraming::Rtu;
        int responseTimeoutMs = 1000;
        int turnaroundMs = 0;
        bool retryOnce = false;
        int perClientLimit = 8;
        int totalLimit = 32;

        bool operator==(const Options &other) const = default;
    };

    struct Reply
    {
        QString client;
        quint16 transactionId = 0;
        quint8 unit = 0;
        QByteArray pdu;
    };

    struct Step
    {
        QByteArray write;
        QList<Reply> replies;
        qint64 wakeAtUs = kNoWake;
    };

    struct Counters
    {
        quint64 requests = 0;
        quint64 replies = 0;
        quint64 timeouts = 0;
        // Exception replies from the unit and the gateway's own "busy".
        quint64 exceptions = 0;

        bool operator==(const Counters &other) const = default;
    };

    explicit ModbusArbiter(const Options &options);

    // The line's speed, for the silence between frames and the time a frame
    // takes; 0 when the line has no such speed (no silence is kept).
    void setBaudRate(int baud) { m_baud = baud; }

    Step request(const QString &client, quint16 transactionId, quint8 unit, const QByteArray &pdu, qint64 nowUs);
    Step lineBytes(QByteArrayView bytes, qint64 nowUs);
    Step tick(qint64 nowUs);
    // The client's waiting requests go; a request of it on the line is
    // finished without a reply.
    void clientGone(const QString &client);

    int queuedRequests() const { return m_queued; }
    qint64 queuedBytes() const { return m_queuedBytes; }
    bool isAwaitingReply() const { return m_current.has_value(); }

    // Connected clients first, then those that left, by label.
    QList<std::pair<QString, Counters>> clientCounters() const;
    // Units that saw a request, in order.
    QList<std::pair<int, Counters>> unitCounters() const;
    // Replies thrown away: bad CRC or LRC, wrong unit or function, or bytes
    // with no request on the line.
    quint64 discardedReplies() const { return m_discarded; }

    // 3.5 characters of 11 bits.
    static qint64 silenceUs(int baud);
    // The time `bytes` characters of 11 bits take on the line.
    static qint64 lineTimeUs(int baud, qint64 bytes);

private:
    struct Pending
    {
        QString client;
        quint16 transactionId = 0;
        quint8 unit = 0;
        QByteArray pdu;
        bool retried = false;
    };

    void pump(Step &step, qint64 nowUs);
    void send(Step &step, Pending pending, qint64 nowUs);
    void takeLineFrames(Step &step, qint64 nowUs, bool silent);
    void judge(Step &step, QByteArrayView frame, qint64 nowUs);
    void finish(Step &step, const QByteArray &pdu, qint64 nowUs, qint64 quietUs);
    void answer(Step &step, const Pending &pending, const QByteArray &pdu);
    void answerException(Step &step, const Pending &pending, quint8 code);
    Counters &clientCounter(const QString &client);
    void count(const Pending &pending, quint64 Counters::*field);
    qint64 endSilenceUs() const;
    void wake(Step &step) const;
    qint64 lineSilenceUs() const;

    Options m_options;
    int m_baud = 0;

    QHash<QString, QList<Pending>> m_queues;
    // Clients with waiting requests, in the order they are served.
    QList<QString> m_turns;
    int m_queued = 0;
    qint64 m_queuedBytes = 0;
    // Served before any queue: a request sent again after a bad reply.
    std::optional<Pending> m_retry;

    std::optional<Pending> m_current;
    bool m_currentClientGone = false;
    qint64 m_deadlineUs = 0;
    QByteArray m_rx;
    qint64 m_lastRxUs = 0;
    // The line is free for the next request from this time on.
    qint64 m_quietUntilUs = 0;

    struct ClientEntry
    {
        Counters counters;
        bool gone = false;
    };
    QHash<QString, ClientEntry> m_clients;
    // Clients that left, oldest first.
    QList<QString> m_gone;
    std::array<Counters, 256> m_units{};
    std::array<bool, 256> m_unitSeen{};
    quint64 m_discarded = 0;
};
