#include "cloud/websocketcodec.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QList>
#include <QRandomGenerator>
#include <QStringDecoder>
#include <QtEndian>

namespace {

constexpr quint8 kContinuation = 0x0;
constexpr quint8 kText = 0x1;
constexpr quint8 kBinary = 0x2;
constexpr quint8 kClose = 0x8;
constexpr quint8 kPing = 0x9;
constexpr quint8 kPong = 0xA;
constexpr qsizetype kMaxControlPayload = 125;

QString tr(const char *text)
{
    return QCoreApplication::translate("WebSocketCodec", text);
}

bool decodeUtf8(QByteArrayView bytes, QString *text)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    *text = decoder(bytes);
    return !decoder.hasError();
}

// Header lines after the first, by lower-case name.
QList<std::pair<QByteArray, QByteArray>> headerFields(const QList<QByteArray> &lines)
{
    QList<std::pair<QByteArray, QByteArray>> fields;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines.at(i).indexOf(':');
        if (colon > 0)
            fields.append({lines.at(i).left(colon).trimmed().toLower(), lines.at(i).mid(colon + 1).trimmed()});
    }
    return fields;
}

QByteArray field(const QList<std::pair<QByteArray, QByteArray>> &fields, const char *name)
{
    for (const auto &[key, value] : fields) {
        if (key == name)
            return value;
    }
    return {};
}

bool hasToken(const QByteArray &value, const char *token)
{
    const QList<QByteArray> parts = value.toLower().split(',');
    for (const QByteArray &part : parts) {
        if (part.trimmed() == token)
            return true;
    }
    return false;
}

} // namespace

WebSocketCodec::WebSocketCodec(Role role)
    : m_role(role)
    , m_random([] { return QRandomGenerator::global()->generate(); })
{
}

quint32 WebSocketCodec::random()
{
    return m_random();
}

QByteArray WebSocketCodec::acceptFor(const QByteArray &key)
{
    return QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11", QCryptographicHash::Sha1)
        .toBase64();
}

bool WebSocketCodec::isValidCloseCode(int code)
{
    // 1004 to 1006 and 1015 are never sent on the wire; 1013 and the other
    // later registrations are.
    return code >= 1000 && code <= 4999 && code != 1004 && code != 1005 && code != 1006 && code != 1015;
}

WebSocketCodec::Step WebSocketCodec::start(const QString &host, const QByteArray &target)
{
    Step step;
    if (m_role != Role::Client || m_state != State::Handshake || !m_key.isEmpty())
        return step;
    QByteArray nonce(16, Qt::Uninitialized);
    for (qsizetype i = 0; i < nonce.size(); i += 4)
        qToBigEndian(random(), nonce.data() + i);
    m_key = nonce.toBase64();
    step.write = "GET " + (target.isEmpty() ? QByteArray("/") : target) + " HTTP/1.1\r\n"
                 "Host: " + host.toUtf8() + "\r\n"
                 "Upgrade: websocket\r\n"
                 "Connection: Upgrade\r\n"
                 "Sec-WebSocket-Key: " + m_key + "\r\n"
                 "Sec-WebSocket-Version: 13\r\n\r\n";
    return step;
}

WebSocketCodec::Step WebSocketCodec::feed(QByteArrayView bytes)
{
    if (m_state == State::Closed)
        return {};
    m_in.append(bytes.data(), bytes.size());
    if (m_state == State::Handshake)
        return feedHandshake();
    return feedFrames();
}

WebSocketCodec::Step WebSocketCodec::feedHandshake()
{
    Step step;
    const qsizetype end = m_in.indexOf("\r\n\r\n");
    if (end < 0) {
        if (m_in.size() > kMaxHandshakeBytes)
            fail(step, kProtocolError, tr("the WebSocket handshake is too long"));
        return step;
    }
    const QList<QByteArray> lines = m_in.left(end).split('\n');
    const auto fields = headerFields(lines);
    const QList<QByteArray> first = lines.constFirst().trimmed().split(' ');
    if (m_role == Role::Client) {
        if (first.size() < 2 || !first.at(0).startsWith("HTTP/")) {
            fail(step, kProtocolError, tr("the server did not answer with HTTP"));
            return step;
        }
        if (first.at(1) != "101") {
            fail(step, kProtocolError,
                 tr("the server answered %1 instead of opening a WebSocket")
                     .arg(QString::fromLatin1(lines.constFirst().trimmed().mid(first.at(0).size() + 1))));
            return step;
        }
        if (field(fields, "upgrade").toLower() != "websocket" || !hasToken(field(fields, "connection"), "upgrade")
            || field(fields, "sec-websocket-accept") != acceptFor(m_key)) {
            fail(step, kProtocolError, tr("the server's WebSocket handshake is not valid"));
            return step;
        }
    } else {
        const QByteArray key = field(fields, "sec-websocket-key");
        if (first.size() != 3 || first.at(0) != "GET" || key.isEmpty()
            || field(fields, "upgrade").toLower() != "websocket" || field(fields, "sec-websocket-version") != "13") {
            step.write = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
            fail(step, kProtocolError, tr("the request is not a WebSocket handshake"));
            return step;
        }
        m_target = first.at(1);
        step.write = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                     "Sec-WebSocket-Accept: " + acceptFor(key) + "\r\n\r\n";
    }
    m_offset = end + 4;
    m_state = State::Open;
    step.events.append(Event{Event::Kind::Opened, {}, 0, {}});
    Step frames = feedFrames();
    step.append(std::move(frames));
    return step;
}

WebSocketCodec::Step WebSocketCodec::feedFrames()
{
    Step step;
    while (m_state == State::Open || m_state == State::Closing) {
        const qsizetype available = m_in.size() - m_offset;
        if (available < 2)
            break;
        const auto *p = reinterpret_cast<const uchar *>(m_in.constData() + m_offset);
        const bool fin = p[0] & 0x80;
        const quint8 opcode = p[0] & 0x0f;
        const bool masked = p[1] & 0x80;
        quint64 length = p[1] & 0x7f;
        qsizetype header = 2;
        if (length == 126) {
            if (available < 4)
                break;
            length = qFromBigEndian<quint16>(p + 2);
            header = 4;
        } else if (length == 127) {
            if (available < 10)
                break;
            length = qFromBigEndian<quint64>(p + 2);
            header = 10;
        }
        const bool control = opcode & 0x08;
        if ((p[0] & 0x70) != 0 || masked != (m_role == Role::Server)
            || (control && (length > quint64(kMaxControlPayload) || !fin))) {
            fail(step, kProtocolError, tr("a malformed WebSocket frame arrived"));
            break;
        }
        if (!control && length + quint64(m_message.size()) > quint64(m_maxMessage)) {
            fail(step, kMessageTooBig, tr("a message larger than %L1 bytes arrived").arg(m_maxMessage));
            break;
        }
        if (masked)
            header += 4;
        if (available < header + qsizetype(length))
            break;  // the rest of the frame is still on its way
        QByteArray payload(m_in.constData() + m_offset + header, qsizetype(length));
        if (masked) {
            const uchar *mask = p + header - 4;
            char *data = payload.data();
            for (qsizetype i = 0; i < payload.size(); ++i)
                data[i] = char(data[i] ^ mask[i & 3]);
        }
        m_offset += header + qsizetype(length);
        if (!handleFrame(opcode, fin, std::move(payload), step))
            break;
    }
    if (m_offset >= m_in.size()) {
        m_in.clear();
        m_offset = 0;
    } else if (m_offset > 0) {
        m_in.remove(0, m_offset);  // at most one frame stays
        m_offset = 0;
    }
    return step;
}

bool WebSocketCodec::handleFrame(quint8 opcode, bool fin, QByteArray payload, Step &step)
{
    auto deliver = [&](quint8 kind, QByteArray message) {
        if (m_state != State::Open)
            return true;  // after our close only the peer's close matters
        if (kind == kText) {
            QString text;
            if (!decodeUtf8(message, &text)) {
                fail(step, kInvalidPayload, tr("a text message that is not UTF-8 arrived"));
                return false;
            }
            step.events.append(Event{Event::Kind::Text, std::move(message), 0, {}});
        } else {
            step.events.append(Event{Event::Kind::Binary, std::move(message), 0, {}});
        }
        return true;
    };

    switch (opcode) {
    case kContinuation:
        if (m_messageOpcode == 0) {
            fail(step, kProtocolError, tr("a malformed WebSocket frame arrived"));
            return false;
        }
        m_message += payload;
        if (!fin)
            return true;
        return deliver(std::exchange(m_messageOpcode, 0), std::exchange(m_message, QByteArray()));
    case kText:
    case kBinary:
        if (m_messageOpcode != 0) {
            fail(step, kProtocolError, tr("a malformed WebSocket frame arrived"));
            return false;
        }
        if (fin)
            return deliver(opcode, std::move(payload));
        m_messageOpcode = opcode;
        m_message = std::move(payload);
        return true;
    case kClose: {
        int code = kNoStatus;
        QString reason;
        if (payload.size() == 1) {
            fail(step, kProtocolError, tr("a malformed WebSocket frame arrived"));
            return false;
        }
        if (payload.size() >= 2) {
            code = qFromBigEndian<quint16>(payload.constData());
            if (!isValidCloseCode(code)) {
                fail(step, kProtocolError, tr("a malformed WebSocket frame arrived"));
                return false;
            }
            if (!decodeUtf8(QByteArrayView(payload).sliced(2), &reason)) {
                fail(step, kInvalidPayload, tr("a text message that is not UTF-8 arrived"));
                return false;
            }
        }
        if (m_state == State::Open) {
            // Answered with the same code, as the closing handshake asks.
            step.write += code == kNoStatus ? frame(kClose, {}) : frame(kClose, payload.left(2));
        }
        m_state = State::Closed;
        step.events.append(Event{Event::Kind::Closed, {}, code, reason});
        return false;
    }
    case kPing:
        if (m_state == State::Open)
            step.write += frame(kPong, payload);
        return true;
    case kPong:
        return true;
    default:
        fail(step, kProtocolError, tr("a malformed WebSocket frame arrived"));
        return false;
    }
}

void WebSocketCodec::fail(Step &step, int code, const QString &text)
{
    if (m_state == State::Open) {
        QByteArray payload(2, Qt::Uninitialized);
        qToBigEndian(quint16(code), payload.data());
        step.write += frame(kClose, payload);
    }
    m_state = State::Closed;
    m_in.clear();
    m_offset = 0;
    m_message.clear();
    step.events.append(Event{Event::Kind::Failed, {}, code, text});
}

QByteArray WebSocketCodec::frame(quint8 opcode, QByteArrayView payload)
{
    const bool mask = m_role == Role::Client;
    QByteArray out;
    out.reserve(payload.size() + 14);
    out.append(char(0x80 | opcode));
    const quint8 maskBit = mask ? 0x80 : 0;
    if (payload.size() < 126) {
        out.append(char(maskBit | payload.size()));
    } else if (payload.size() <= 0xffff) {
        out.append(char(maskBit | 126));
        char length[2];
        qToBigEndian(quint16(payload.size()), length);
        out.append(length, 2);
    } else {
        out.append(char(maskBit | 127));
        char length[8];
        qToBigEndian(quint64(payload.size()), length);
        out.append(length, 8);
    }
    if (!mask) {
        out.append(payload.data(), payload.size());
        return out;
    }
    char key[4];
    qToBigEndian(random(), key);
    out.append(key, 4);
    const qsizetype start = out.size();
    out.append(payload.data(), payload.size());
    char *data = out.data() + start;
    for (qsizetype i = 0; i < payload.size(); ++i)
        data[i] = char(data[i] ^ key[i & 3]);
    return out;
}

QByteArray WebSocketCodec::binaryMessage(QByteArrayView payload)
{
    return isOpen() ? frame(kBinary, payload) : QByteArray();
}

QByteArray WebSocketCodec::textMessage(const QString &text)
{
    return isOpen() ? frame(kText, text.toUtf8()) : QByteArray();
}

QByteArray WebSocketCodec::close(int code, const QString &reason)
{
    if (m_state != State::Open) {
        if (m_state == State::Handshake)
            m_state = State::Closed;
        return {};
    }
    QByteArray payload(2, Qt::Uninitialized);
    qToBigEndian(quint16(code), payload.data());
    payload += reason.toUtf8().left(kMaxControlPayload - 2);
    m_state = State::Closing;
    return frame(kClose, payload);
}
