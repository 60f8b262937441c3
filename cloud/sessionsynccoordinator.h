#pragma once

#include "cloud/sessionstate.h"

#include <QDateTime>
#include <QJsonObject>
#include <QObject>

#include <functional>

class AccountSession;
class NetworkServices;
class QTimer;

// Keeps one document of the user's session settings in the cloud as the
// sync item "settings.session"/"default": builds it from the local
// settings, detects conflicts by revision, and hands a cloud copy back to
// the application to apply. The window owns menus and status texts.
class SessionSyncCoordinator : public QObject
{
    Q_OBJECT
public:
    enum class Choice { UseCloud, KeepLocal, MergeLists };

    static constexpr int kDefaultAutoSyncMinutes = 30;
    static inline const QString kNamespace = QStringLiteral("settings.session");
    static inline const QString kKey = QStringLiteral("default");
    static inline const QString kSchema = QStringLiteral("tsl.session-settings");
    // The user's sync choices in the settings store.
    static inline const QString kSendHistoryKey = QStringLiteral("AccountSyncSendHistory");
    static inline const QString kAutoSyncKey = QStringLiteral("AccountAutoSync");
    static inline const QString kIntervalKey = QStringLiteral("AccountAutoSyncIntervalMinutes");

    using LocalState = std::function<SessionState()>;

    SessionSyncCoordinator(NetworkServices *network, AccountSession *session, LocalState localState,
                           QObject *parent = nullptr);

    // Who writes: this device's cloud identifier and its `ValueD` name.
    void setWriter(const QString &cid, const QString &deviceName);

    bool isBusy() const { return m_phase != Phase::Idle; }
    void syncNow();              // manual
    void syncAutomatically();    // from the interval timer
    // The user's answer to conflictChoiceNeeded; cancelConflict() leaves
    // everything as it was.
    void resolveConflict(Choice choice);
    void cancelConflict();
    // Re-reads `AccountAutoSync` and `AccountAutoSyncIntervalMinutes`.
    void reloadAutoSync();

    // The document as it is written to the cloud.
    QJsonObject buildDocument(const SessionState &state) const;

    // The texts of the window's status bar and of the conflict dialog.
    static QString syncedText();
    static QString appliedText();
    static QString deferredText();
    static QString lastSyncedText();
    static QString conflictTitle();
    static QString conflictText();
    static QString conflictQuestion();

signals:
    void began();
    void succeeded(bool wasManual);
    void failed(const QString &message);
    void cancelled();
    void conflictDeferred();
    void conflictChoiceNeeded();
    void cloudApplied(const SessionState &state, int language, bool listsMerged);
    void incompatible();
    void signInExpired(bool wasAutomatic);

public slots:
    void handleSyncResponse(const QJsonObject &response);
    // Domain "sync", and domain "account" while a sync waits for its token.
    void handleNetworkError(const QString &domain, const QString &message, const QString &detail);
    // Every account reply passes here, so a sync waiting for a token goes on
    // (or ends, when the refresh failed).
    void handleAccountResponse(const QJsonObject &response);

private:
    enum class Phase { Idle, WaitingForToken, Listing, Writing, AwaitingChoice };

    void start(bool manual);
    void write(const SessionState &state, qint64 baseRevision);
    void onCloudNewer(const QJsonObject &item);
    void finishSucceeded(qint64 revision);
    void fail(const QString &message);
    void refreshFailed(const QString &message);
    qint64 storedRevision() const;
    bool includeSendHistory() const;

    NetworkServices *m_network;
    AccountSession *m_session;
    LocalState m_localState;
    QString m_cid;
    QString m_deviceName;
    Phase m_phase = Phase::Idle;
    bool m_manual = false;
    QJsonObject m_cloudItem;  // the newer cloud copy while a choice is pending
    QString m_refreshFailure; // why the last refresh this sync waited for failed
    QTimer *m_autoTimer;
};
