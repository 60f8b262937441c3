#pragma once

#include "connection/porttransport.h"

#include <QHostAddress>
#include <QStringList>

class MultiClientServer;

// The listening side of a pane: a multi-client server, the options it gets
// at each start, and writes to one client, a named client or all of them.
class TcpServerTransport : public PortTransport
{
    Q_OBJECT

public:
    explicit TcpServerTransport(QObject *parent = nullptr);
    ~TcpServerTransport() override;

    // Stops a running server, hands it the options, listens. On failure
    // reports "TCP server listen on port %1 FAILED: %2".
    bool listen(quint16 port, const QHostAddress &address);
    void close() override;
    bool isOpen() const override;
    // target.clientLabel, else target.index (-1: every client).
    bool send(const QByteArray &data, const SendTarget &target) override;
    // An index outside the client list means the first client.
    bool sendToClient(const QByteArray &data, int index);
    bool sendToClient(const QByteArray &data, const QString &clientLabel);
    qint64 sendToAll(const QByteArray &data);
    qint64 bytesToWrite() const override;
    qint64 bytesToWriteFor(const SendTarget &target) const override;
    qint64 writeBacklog() const override;

    void setExclusive(bool on) { m_exclusive = on; }
    bool isExclusive() const { return m_exclusive; }
    void setAllowlist(const QStringList &entries) { m_allowlist = entries; }
    QStringList allowlist() const { return m_allowlist; }
    void setLowDelay(bool on);

    QString addressText() const;
    QStringList clientLabels() const;
    int clientCount() const;

Q_SIGNALS:
    void connectionsChanged();
    void clientArrived(const QString &peer);
    void clientGone(const QString &peer);

protected:
    void applyReadPaused(bool paused) override;

private:
    MultiClientServer *m_server;
    QStringList m_allowlist;
    bool m_exclusive = false;
    bool m_lowDelay = false;
};
