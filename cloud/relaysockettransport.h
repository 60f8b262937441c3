#pragma once

#include "cloud/relaysocket.h"
#include "connection/relaytransport.h"

#include <functional>

// The relay transport of a pane in mode 8: a RelaySocket to the service,
// opened with a ticket in hand or once a RelayConnector fetched one. Its
// end, whatever the kind, reaches the pane as the stop's text.
class RelaySocketTransport : public RelayTransport
{
    Q_OBJECT

public:
    // Told when the user ends a relay that was opened: the service is asked
    // to end the session (as the owner, or with the guest token).
    using EndHook = std::function<void(const QString &relayId, const QString &guestToken)>;

    explicit RelaySocketTransport(QObject *parent = nullptr);

    RelaySocket *socket() const { return m_socket; }
    void setPairDeadline(int ms) { m_socket->setPairDeadline(ms); }
    void setEndHook(EndHook hook) { m_endHook = std::move(hook); }

    // Opens the socket with a ticket for a relay; guestToken ends the
    // session as a guest.
    void open(const QString &relayAddress, const QString &ticket, const QString &relayId = {},
              const QString &guestToken = {});
    // Ends the relay before it opened (a connector failed).
    void fail(const QString &reason);

    bool isConnected() const override { return m_socket->isPaired(); }
    qint64 write(const QByteArray &data) override { return m_socket->send(data); }
    qint64 bytesToWrite() const override { return m_socket->bytesToWrite(); }
    void close() override;
    void setReadPaused(bool paused) override { m_socket->setReadPaused(paused); }

private:
    RelaySocket *m_socket;
    EndHook m_endHook;
    QString m_guestToken;
    QString m_relayId;
    bool m_ended = false;
};
