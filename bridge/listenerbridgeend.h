#pragma once

#include "bridge/bridgeend.h"

#include <QHostAddress>

class MultiClientServer;

// A TCP listener owned by the bridge (a MultiClientServer with its
// allowlist and exclusive mode, Nagle off): every client is a source and an
// outlet of its own, named by its "%1:%2" label.
class ListenerBridgeEnd : public BridgeEnd
{
    Q_OBJECT

public:
    // Clients beyond this are turned away: every client costs a queue.
    static constexpr int kMaxClients = 64;

    ListenerBridgeEnd(const QHostAddress &address, quint16 port, const QStringList &allowlist, bool exclusive,
                      QObject *parent = nullptr);
    ~ListenerBridgeEnd() override;

    Result start() override;
    void stop() override;
    bool isReady() const override;
    QString waitingText() const override;
    QString description() const override;
    QStringList outlets() const override;
    bool write(const QString &outlet, const QByteArray &bytes) override;
    qint64 backlog(const QString &outlet) const override;
    bool dropOutlet(const QString &outlet) override;
    void setReadPaused(bool paused) override;

    // The port listened on (the one the system chose for port 0).
    quint16 listeningPort() const;

private:
    void onClientArrived(const QString &peer);

    MultiClientServer *m_server;
    QHostAddress m_address;
    quint16 m_port;
};
