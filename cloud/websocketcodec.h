#pragma once

#include "common/codecstep.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <functional>

// The WebSocket protocol (RFC 6455) as a pure state machine, for either end
// of a connection: the opening handshake, framing with masking, fragmented
// messages, ping and pong, and the closing handshake. It owns no socket, so
// its owner decides when to read: a relay that must not run ahead of a slow
// serial port simply stops reading its TCP socket, and the sender is held
// back by TCP itself. It also reports the peer's close code as sent, 1013
// included (Qt 6.4's QWebSocket turns that one into 1002).
//
// Memory is bounded: at most one frame and one message of at most
// maxMessageSize() bytes, and a handshake of at most kMaxHandshakeBytes.
class WebSocketCodec
{
public:
    enum class Role { Client, Server };
    enum class State { Handshake, Open, Closing, Closed };

    struct Event
    {
        enum class Kind {
            Opened,  // the handshake is done
            Text,    // a whole text message, as UTF-8
            Binary,  // a whole binary message
            Closed,  // the peer closed: code (kNoStatus when it gave none) and reason
            Failed,  // the peer broke the protocol or refused the handshake
        };
        Kind kind;
        QByteArray payload;
        int closeCode = 0;
        QString text;  // Closed: the reason; Failed: what went wrong, for the user
    };
    using Step = CodecStep<Event>;

    static constexpr qsizetype kMaxHandshakeBytes = 16 * 1024;
    static constexpr qsizetype kDefaultMaxMessageSize = 1024 * 1024;
    // The code a close frame without a payload stands for.
    static constexpr int kNoStatus = 1005;
    static constexpr int kProtocolError = 1002;
    static constexpr int kInvalidPayload = 1007;
    static constexpr int kMessageTooBig = 1009;

    explicit WebSocketCodec(Role role);

    // Random bytes for the handshake key and the client's masks; tests
    // hand in a fixed source.
    void setRandomSource(std::function<quint32()> source) { m_random = std::move(source); }
    void setMaxMessageSize(qsizetype bytes) { m_maxMessage = bytes; }
    qsizetype maxMessageSize() const { return m_maxMessage; }

    // Client: the opening request for a host ("host:port") and a target
    // ("/path?query"). A server waits for the request in feed().
    Step start(const QString &host, const QByteArray &target);
    // Bytes as they arrived from the peer, split anywhere.
    Step feed(QByteArrayView bytes);
    // One whole message as one frame; nothing while not open.
    QByteArray binaryMessage(QByteArrayView payload);
    QByteArray textMessage(const QString &text);
    // Our close frame; afterwards only the peer's close is awaited.
    QByteArray close(int code, const QString &reason = {});

    Role role() const { return m_role; }
    State state() const { return m_state; }
    bool isOpen() const { return m_state == State::Open; }
    // Server: the request target the client asked for ("/path?query").
    const QByteArray &requestTarget() const { return m_target; }
    // The Sec-WebSocket-Accept value for a key.
    static QByteArray acceptFor(const QByteArray &key);
    static bool isValidCloseCode(int code);

private:
    Step feedHandshake();
    Step feedFrames();
    bool handleFrame(quint8 opcode, bool fin, QByteArray payload, Step &step);
    void fail(Step &step, int code, const QString &text);
    QByteArray frame(quint8 opcode, QByteArrayView payload);
    quint32 random();

    Role m_role;
    State m_state = State::Handshake;
    std::function<quint32()> m_random;
    qsizetype m_maxMessage = kDefaultMaxMessageSize;
    QByteArray m_key;
    QByteArray m_target;
    // Bytes received and not yet parsed, from m_offset on.
    QByteArray m_in;
    qsizetype m_offset = 0;
    // A fragmented message being put together.
    QByteArray m_message;
    quint8 m_messageOpcode = 0;
};
