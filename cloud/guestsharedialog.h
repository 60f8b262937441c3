#pragma once

#include "cloud/guestshare.h"
#include "cloud/guestsharetable.h"

#include <QDialog>

class GuestShareKeeper;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QStackedWidget;
class QTimer;

// "Share Port with a Guest": the form that asks for one share, then the
// share while it lives (code, link, what the guest may do, time left, who
// is on it) with what the owner can do about it, and its end.
class GuestShareDialog : public QDialog
{
    Q_OBJECT
public:
    enum class Stage { Form, Creating, Live, Ended };

    // While a share lives, who is on it is asked for this often.
    static constexpr int kGuestRefreshMs = 5000;

    GuestShareDialog(GuestShareKeeper *keeper, const QString &portKey = {}, QWidget *parent = nullptr);

    Stage stage() const { return m_stage; }
    QString shareId() const { return m_share.shareId; }
    // Shows a share this computer already holds.
    bool watchShare(const QString &shareId);
    void watchShare(const GuestShare &share);

    // "%1 h %2 min" or "%1 min", whole minutes rounded up.
    static QString timeLeftText(qint64 msLeft);
    // "Expires at %1 (in %2)", or the expired notice once the time is up.
    static QString expiryText(qint64 expiresAtMs, qint64 nowMs);
    // "Waiting for a guest…", "%1 connected since %2", "Watching in a browser: %1".
    static QStringList guestLines(const GuestShare &share);
    // One line of "Other shares on this computer".
    static QString otherShareLine(const GuestShare &share);

public Q_SLOTS:
    void createInvite();
    void stopSharing();
    void shareAgain();
    void disconnectGuest();

private:
    void buildForm(QWidget *page);
    void buildLive(QWidget *page);
    void fillPorts(const QString &portKey);
    void restoreChoices();
    void setStage(Stage stage);
    void showShare();
    void showTimeLeft();
    void showOthers();
    void setStatus(const QString &text);
    void onCreated(const GuestShare &share);
    void onChanged(const GuestShare &share);
    void onEnded(const QString &shareId, const QString &reason);
    void onFailed(const QString &message);

    GuestShareKeeper *m_keeper;
    Stage m_stage = Stage::Form;
    GuestShare m_share;
    QString m_passcode;

    QStackedWidget *m_pages;
    QComboBox *m_port;
    QComboBox *m_validFor;
    QLineEdit *m_passcodeEdit;
    QLineEdit *m_label;
    QComboBox *m_web;
    QCheckBox *m_relay;
    QPushButton *m_create;

    QLabel *m_code;
    QLabel *m_link;
    QLabel *m_rights;
    QLabel *m_timeLeft;
    QListWidget *m_guests;
    QLabel *m_ended;
    QPushButton *m_copyCode;
    QPushButton *m_copyLink;
    QPushButton *m_disconnect;
    QPushButton *m_stop;
    QPushButton *m_again;

    QLabel *m_status;
    QPushButton *m_othersButton;
    QListWidget *m_others;
    QTimer *m_clockTimer;
    QTimer *m_refreshTimer;
};
