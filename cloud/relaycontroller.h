#pragma once

#include "cloud/relaypacer.h"
#include "cloud/relaysocket.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>

class PortSession;
class QTimer;

// The host side of one Live Relay: started by the Live Console's
// "open_relay" command, it binds a relay to one open port of this computer.
// Once the other end has joined, what the port receives goes to the relay,
// and what the relay brings goes to the port through a pacing guard that
// never lets the port's driver or this object hold more than a bounded
// amount (the relay is held back instead). It lives as a child of the port
// session, one per port at most, and deletes itself when the relay ends.
class RelayController : public QObject
{
    Q_OBJECT

public:
    // The command's payload.
    struct Request
    {
        QString portKey;
        QString relayId;
        QString ticket;
        QString shareId;
        QString guestName;
        static Request fromPayload(const QJsonObject &payload);
    };
    // How "open_relay" ended: a controller, or the wire word and message
    // the command's result carries.
    struct Opening
    {
        RelayController *controller = nullptr;
        QString errorCode;
        QString message;
        bool isRefused() const { return controller == nullptr; }
    };

    // Port bytes waiting to go out on the relay: above kHoldHigh the port's
    // reading is held (where the port can be held back) until they fall
    // below kHoldLow; past kSendLimit (a port that cannot be held) what the
    // port sends is dropped and counted, and the host is told.
    static constexpr qint64 kHoldHigh = 256 * 1024;
    static constexpr qint64 kHoldLow = 64 * 1024;
    static constexpr qint64 kSendLimit = 4 * 1024 * 1024;

    // `CloudConsoleAllowRelay`: whether the owner allows Live Relay here.
    static bool isAllowed();
    // The relay bound to a port, if any.
    static RelayController *of(const PortSession *session);
    // Checks the request and starts the relay on the session's port, or
    // says why not (see Opening). relayAddress is the cloud's base URL.
    static Opening open(const Request &request, PortSession *session, const QString &relayAddress, bool allowed);
    // A port that goes away ends its relay.
    ~RelayController() override;

    const Request &request() const { return m_request; }
    PortSession *session() const { return m_session; }
    RelaySocket *socket() const { return m_socket; }
    const RelayPacer &pacer() const { return m_pacer; }
    bool isEngaged() const { return m_engaged; }
    qint64 droppedBytes() const { return m_droppedTotal; }
    // Ends the relay from this computer with a reason.
    void end(const QString &reason);

    static QString portClosedText();

Q_SIGNALS:
    void engaged(const QString &relayId);
    void ended(const QString &reason);
    void noticed(const QString &text);

public Q_SLOTS:
    void onPaired(const QString &relayId, const QString &portKey);
    void onBinary(const QByteArray &bytes);
    void onPortBytes(const QByteArray &bytes, const QString &peer);
    void onStopped(RelaySocket::Stop reason, const QString &detail);
    void onTick();

private:
    RelayController(const Request &request, PortSession *session);
    void start(const QString &relayAddress);
    void onPortStateChanged();
    void updateHold();
    void reportDropped();

    Request m_request;
    QPointer<PortSession> m_session;
    RelaySocket *m_socket;
    RelayPacer m_pacer;
    QTimer *m_tick;
    QMetaObject::Connection m_tap;
    bool m_engaged = false;
    bool m_ended = false;
    bool m_holdingPort = false;
    qint64 m_dropped = 0;  // in the drop episode going on
    qint64 m_droppedTotal = 0;
};
