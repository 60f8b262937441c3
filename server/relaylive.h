#pragma once

#include <QObject>
#include <QString>

// What the database threads tell the relay sockets of this instance: a
// relay was ended by a request (its owner or guest asked), so the other end
// hears "peer_gone" at once. Relays held by another instance learn it from
// the database (RelayHub looks every kWatchIntervalMs).
class RelayLive : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

signals:
    void relayEnded(const QString &relayId, const QString &kind, const QString &reason);
};
