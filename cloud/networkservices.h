#pragma once

#include <QJsonObject>
#include <QNetworkRequest>
#include <QObject>
#include <QUrlQuery>

class QNetworkAccessManager;
class QNetworkReply;

// The one REST client of every cloud feature. Each call sends one request
// without waiting; each reply comes back as exactly one signal: a typed
// response carrying the reply's JSON object, or networkError. Callers never
// see a reply object.
class NetworkServices : public QObject
{
    Q_OBJECT
public:
    static constexpr int kTransferTimeoutMs = 10000;
    // Request attribute that carries the request tag.
    static constexpr QNetworkRequest::Attribute kTagAttribute = QNetworkRequest::User;

    explicit NetworkServices(QObject *parent = nullptr);
    // The program's shared client, created on first use.
    static NetworkServices *instance();

    // "TSL_HOST" when set to anything but blanks, else the setting
    // `HostAddress`, else defaultHostAddress(). Read anew for every request.
    static QString baseUrl();
    // Where tessaline-cloud listens by default on this machine, so a locally
    // started service works with no configuration.
    static QString defaultHostAddress();
    // The "Accept-Language" value for the interface-language setting.
    static QByteArray acceptLanguage();

    // The manager's transfer time-out (10 s unless a test shortens it).
    void setTransferTimeout(int ms);

    void fetchCloudQuota(const QString &accessToken);
    void fetchRelayTargets(const QString &accessToken, const QString &cid);
    void peekInvite(const QString &accessToken, const QString &code);
    void fetchShares(const QString &accessToken, const QString &cid);
    void fetchAllShares(const QString &accessToken);
    void pollConsoleCommands(const QString &accessToken, const QString &cid);
    void fetchAccountProfile(const QString &accessToken);
    void fetchAccountDevices(const QString &accessToken);
    void listSyncItems(const QString &accessToken, const QString &ns);
    void writeSyncItem(const QString &accessToken, const QString &ns, const QString &key, qint64 baseRevision,
                       const QJsonObject &payload);
    void endRelaySession(const QString &accessToken, const QString &session);
    void endRelaySessionAsGuest(const QString &guestToken, const QString &session);
    void revokeShare(const QString &accessToken, const QString &share);
    void removeAccountDevice(const QString &accessToken, const QString &device);
    void sendConsoleHeartbeat(const QString &accessToken, const QJsonObject &body);
    void sendPortSnapshot(const QString &accessToken, const QJsonObject &body);
    void acknowledgeCommand(const QString &accessToken, const QString &commandId, const QJsonObject &body);
    void reportCommandResult(const QString &accessToken, const QString &commandId, const QJsonObject &body);
    void sendConsoleEvents(const QString &accessToken, const QJsonObject &body);
    void openRelaySession(const QString &accessToken, const QString &cid, const QString &sessionId,
                          const QString &portKey, const QString &tag = {});
    void joinByInvite(const QString &accessToken, const QString &code, const QString &passcode,
                      const QString &guestName, const QString &tag = {});
    void createShare(const QString &accessToken, const QJsonObject &body);
    void requestRegistrationCode(const QString &accessToken, const QString &email);
    void registerAccount(const QString &accessToken, const QString &email, const QString &username,
                         const QString &password, const QString &code, const QString &deviceName,
                         const QString &clientVersion);
    void signIn(const QString &accessToken, const QString &email, const QString &password, const QString &deviceName,
                const QString &clientVersion);
    void refreshToken(const QString &accessToken, const QString &refreshToken);
    void signOut(const QString &accessToken, const QString &refreshToken);
    void bindDevice(const QString &accessToken, const QString &deviceName, const QString &clientVersion);

    // POST with its own transfer time-out, applied when greater than 0.
    void postWithTimeout(const QString &path, const QJsonObject &body, const QString &tag,
                         const QString &accessToken, int timeoutMs);

signals:
    void cloudQuotaResponse(const QJsonObject &response);
    void consoleResponse(const QJsonObject &response);
    void relayResponse(const QJsonObject &response);
    void relayOperationResponse(const QString &requestTag, const QJsonObject &response);
    void relayShareResponse(const QJsonObject &response);
    void relayShareOverviewResponse(const QJsonObject &response);
    void relayPeekResponse(const QString &code, const QJsonObject &response);
    void accountResponse(const QJsonObject &response);
    void syncResponse(const QJsonObject &response);
    void networkError(const QString &domain, const QString &message, const QString &detail);

private slots:
    void onReplyFinished(QNetworkReply *reply);

private:
    QNetworkRequest buildRequest(const QString &path, const QUrlQuery &query, const QString &tag,
                                 const QString &accessToken, const QString &guestToken = {}) const;
    void get(const QString &path, const QUrlQuery &query, const QString &tag, const QString &accessToken);
    void post(const QString &path, const QJsonObject &body, const QString &tag, const QString &accessToken,
              int timeoutMs = 0);
    void put(const QString &path, const QJsonObject &body, const QString &tag, const QString &accessToken);
    void deleteResource(const QString &path, const QString &tag, const QString &accessToken,
                        const QString &guestToken = {});
    void dispatch(const QString &type, const QString &tag, const QJsonObject &object);
    static QString errorMessage(QNetworkReply *reply);
    static QString errorDetail(QNetworkReply *reply);

    QNetworkAccessManager *m_manager;
};
