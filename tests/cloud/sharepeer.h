#pragma once

#include "consolepeer.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>

// The share side of the cloud service as the program and the service agree
// on it, answering on a ConsolePeer: shares are created, listed per
// computer and for the account, revoked, and their relay guests sent away;
// console polls hand out the commands a test queued. Tests change the
// shares (a guest arrives, the service ends one) and the service's clock.
class SharePeer
{
public:
    explicit SharePeer(ConsolePeer &peer);

    QJsonObject answer(const ConsolePeer::Request &request);

    // The service's clock, milliseconds since 1970.
    qint64 now = 0;
    // The next creation is refused with this reply when not empty.
    QJsonObject refuseNextCreate;
    // Handed out with the next console poll.
    QJsonArray commands;
    int revoked = 0;
    QHash<QString, QJsonObject> shares;

    QJsonObject &share(const QString &shareId) { return shares[shareId]; }
    QList<ConsolePeer::Request> creations() const { return m_peer.matching("POST", "/relay/shares"); }

private:
    ConsolePeer &m_peer;
    int m_next = 0;
};
