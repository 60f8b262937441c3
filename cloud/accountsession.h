#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QObject>

#include <functional>

class NetworkServices;

// The signed-in cloud account of this process: who it is, the short-lived
// access token every cloud request carries (memory only) and the refresh
// token that renews it (stored, protected, only with remember-me).
class AccountSession : public QObject
{
    Q_OBJECT
public:
    // A refresh sent less than this long ago is taken to be in flight.
    static constexpr qint64 kRefreshThrottleMs = 15000;
    // The access token counts as expired this long before its expiry.
    static constexpr qint64 kExpiryMarginSeconds = 30;

    using Clock = std::function<QDateTime()>;  // current UTC time

    // Loads from the settings store.
    explicit AccountSession(NetworkServices *network, QObject *parent = nullptr);
    // The process-wide session, created on first call.
    static AccountSession *instance();

    void setClock(Clock clock) { m_clock = std::move(clock); }

    qint32 userId() const { return m_userId; }
    QString email() const { return m_email; }
    QString username() const { return m_username; }
    QString accessToken() const { return m_accessToken; }
    QString refreshToken() const { return m_refreshToken; }
    bool rememberMe() const { return m_rememberMe; }
    QDateTime accessExpiry() const { return m_accessExpiry; }
    bool isSignedIn() const { return m_userId != 0; }

    bool isAccessTokenValid() const;
    bool requestRefresh();
    bool isRefreshPending() const;
    QString displayName() const;

    void applyLogin(const QJsonObject &response);
    void setRememberMe(bool on);
    void clear();

    // The installation's `ValueD` (0 when unset), used as "device_name" and
    // in the stored token's key.
    static int deviceValue();
    // Writes a random `ValueD` when the store has none; run once at start.
    static void ensureDeviceValue();

signals:
    void changed();

private:
    void load();
    void save();

    NetworkServices *m_network;
    Clock m_clock;
    qint32 m_userId = 0;
    QString m_email;
    QString m_username;
    QString m_accessToken;
    QString m_refreshToken;
    bool m_rememberMe = true;
    QDateTime m_accessExpiry;
    QDateTime m_lastRefreshRequest;
};
