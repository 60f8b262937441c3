#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

class NetworkServices;

// The client side of a Live Relay: asks the service for a ticket to one
// end of a relay, either to a port of one of the account's own computers
// (the relay targets, then a session on the chosen port) or to an invite
// code (the invite join). Each connector asks once and answers once:
// ready with the ticket, or failed with the text to show.
class RelayConnector : public QObject
{
    Q_OBJECT

public:
    // Why it failed: the remembered target no longer exists (the computer
    // left the account, or the port is not shared any more), or anything else.
    enum class Failure { None, TargetGone, Other };

    explicit RelayConnector(NetworkServices *network, QObject *parent = nullptr);

    // A port of one of the account's computers. ownCid leaves this
    // computer out of the targets (empty: leave none out).
    // portName: how the user knows the port, for the texts.
    void connectToPort(const QString &accessToken, const QString &ownCid, const QString &cid, const QString &portKey,
                       const QString &portName = {});
    // An invite code or link.
    void joinInvite(const QString &accessToken, const QString &text, const QString &passcode,
                    const QString &guestName);

    QString requestTag() const { return m_tag; }
    Failure failure() const { return m_failure; }
    // What the remote computer is called, once the targets said so.
    QString deviceName() const { return m_deviceName; }

    // The pane's text for a failure: a target remembered by a project that
    // is gone reads "The port this project used (%1) is not available
    // right now."; everything else keeps the connector's own text.
    static QString paneText(Failure failure, const QString &reason, bool rememberedTarget, const QString &portName);

public Q_SLOTS:
    void onRelayResponse(const QJsonObject &response);
    void onRelayOperationResponse(const QString &requestTag, const QJsonObject &response);
    void onNetworkError(const QString &domain, const QString &message, const QString &detail);

Q_SIGNALS:
    void ready(const QString &ticket, const QString &relayId, const QString &portKey, const QString &guestToken);
    void failed(const QString &reason);

private:
    enum class Stage { Idle, Targets, Opening, Done };
    void fail(Failure failure, const QString &reason);

    NetworkServices *m_network;
    Stage m_stage = Stage::Idle;
    QString m_tag;
    QString m_accessToken;
    QString m_cid;
    QString m_portKey;
    QString m_portName;
    QString m_deviceName;
    Failure m_failure = Failure::None;
};
