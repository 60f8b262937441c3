#pragma once

#include "bridge/bridgeend.h"

#include <QHostAddress>
#include <QList>

class QUdpSocket;

// UDP targets as a bridge end: each frame goes to every target as one
// datagram. It never receives (a UDP end is only ever a target); what the
// system refuses to send is reported as not taken.
class UdpBridgeEnd : public BridgeEnd
{
    Q_OBJECT

public:
    // Targets as "address:port" texts; entries that do not parse are left out
    // (the record refuses them before).
    explicit UdpBridgeEnd(const QStringList &targets, QObject *parent = nullptr);

    Result start() override;
    void stop() override;
    bool isReady() const override;
    QString waitingText() const override;
    QString description() const override;
    QStringList outlets() const override;
    bool write(const QString &outlet, const QByteArray &bytes) override;
    qint64 backlog(const QString &outlet) const override;
    bool keepsFramesApart() const override { return true; }
    void setReadPaused(bool paused) override { Q_UNUSED(paused); }

private:
    struct Target
    {
        QString label;
        QHostAddress address;
        quint16 port = 0;
    };

    QUdpSocket *m_socket;
    QList<Target> m_targets;
    bool m_open = false;
    QString m_error;
};
