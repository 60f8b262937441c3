#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QPair>
#include <QString>

// What one connection may send and how long it may take. Every byte a peer
// sends is held against one of these bounds.
struct HttpLimits
{
    qint64 maxBodyBytes = 1024 * 1024;  // whatever the headers say: 413 beyond
    int maxHeadBytes = 16 * 1024;       // request line and headers: 431 beyond
    int maxTargetBytes = 8 * 1024;      // the request target alone: 414 beyond
    int maxHeaderCount = 100;           // 431 beyond
    int headTimeoutMs = 10000;          // a whole request head, from its first byte (or the connection's start)
    int bodyTimeoutMs = 30000;          // a whole body, from the end of its head
    int idleTimeoutMs = 60000;          // between requests on a kept-alive connection
};

// One complete request as it arrived. Header names are lower case; values
// are as sent, without surrounding white space.
struct HttpRequest
{
    QByteArray method;
    QByteArray target;
    int minorVersion = 1;  // HTTP/1.<minorVersion>
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool keepAlive = true;

    // The first value of the header `name` (lower case), or empty.
    QByteArray header(QByteArrayView name) const;
    bool hasHeader(QByteArrayView name) const;
    // Whether any value of the comma-separated header `name` holds `token`,
    // compared without case ("Connection: keep-alive, Upgrade").
    bool hasToken(QByteArrayView name, QByteArrayView token) const;
    // The path of the target ("/a/b" of "/a/b?c=d" or of "http://host/a/b?c").
    QByteArray path() const;
    QByteArray query() const;
};

// HTTP/1.1 requests read from a byte stream, as a state machine fed bytes
// and the time: no socket, no timer. It reads one request at a time: once
// a request is complete it takes no more bytes until its owner has answered
// (answered()), so pipelined requests are answered in order and whatever
// follows a request stays with the owner (still in the socket, for a
// WebSocket hand-over). Everything is bounded by HttpLimits; a request that
// breaks a rule ends the connection with a refusal the owner sends.
class HttpRequestParser
{
public:
    static constexpr qint64 kNoWake = -1;

    enum class EventKind {
        Request,  // `request` is complete; answer it, then call answered()
        Refuse,   // answer `status` with `code`, then close the connection
        Close,    // close without an answer (an idle connection timed out)
    };
    struct Event
    {
        EventKind kind = EventKind::Request;
        HttpRequest request;  // Request; for Refuse what is known (the target, if read)
        int status = 0;
        QString code;
        QString description;
    };
    struct Step
    {
        QByteArray write;    // interim answers ("100 Continue"), sent before anything else
        QList<Event> events;
        qint64 wakeAtMs = kNoWake;
        qsizetype consumed = 0;  // how many of the bytes fed were taken
    };

    enum class State { Idle, Head, Body, AwaitingAnswer, Closed };

    explicit HttpRequestParser(HttpLimits limits = {});

    // The connection opened at `nowMs`: its first request head is due
    // within the head time.
    Step start(qint64 nowMs);
    // Bytes as they arrived, split anywhere. Takes bytes only while a
    // request is being read; `consumed` says how many.
    Step feed(QByteArrayView bytes, qint64 nowMs);
    // Called at (or after) `wakeAtMs`.
    Step tick(qint64 nowMs);
    // The request in hand was answered: the connection goes on (or, when
    // the request asked for it, closes).
    Step answered(qint64 nowMs);

    State state() const { return m_state; }
    // True before the first byte of a request: nothing is owed either way.
    bool isIdle() const { return m_state == State::Idle && m_head.isEmpty(); }
    bool isReadingHead() const { return m_state == State::Idle || m_state == State::Head; }

private:
    enum class BodyMode { Length, ChunkSize, ChunkData, ChunkDataEnd, Trailers };

    Step refuse(int status, const QString &code, const QString &description);
    Step afterHead(qint64 nowMs, Step step);
    bool parseHead(Step &step);
    qsizetype feedBody(QByteArrayView bytes, Step &step);
    qint64 deadline() const;
    Step wake(Step step) const;

    HttpLimits m_limits;
    State m_state = State::Idle;
    QByteArray m_head;          // the head as read so far (bounded by maxHeadBytes)
    qsizetype m_scanFrom = 0;   // where the search for the head's end goes on
    qint64 m_phaseStartMs = 0;  // when the current deadline started counting
    bool m_firstRequest = true;
    HttpRequest m_request;
    BodyMode m_bodyMode = BodyMode::Length;
    qint64 m_bodyLeft = 0;      // of the declared length or of the current chunk
    QByteArray m_line;          // a chunk-size or trailer line being read
    qint64 m_trailerBytes = 0;
};
