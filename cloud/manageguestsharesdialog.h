#pragma once

#include "cloud/guestshare.h"

#include <QDialog>
#include <QSet>

class GuestShareKeeper;
class QLabel;
class QPushButton;
class QTimer;
class QTreeWidget;
class QTreeWidgetItem;

// "Manage Guest Shares": every live invite of the account, on whichever
// computer, grouped by computer with this one marked, with who is on each;
// the owner stops one or copies its code. The list is asked for again every
// ten seconds while the dialog is open.
class ManageGuestSharesDialog : public QDialog
{
    Q_OBJECT
public:
    enum Column { PortColumn, CodeColumn, GuestColumn, ExpiresColumn };
    static constexpr int kRefreshMs = 10000;

    explicit ManageGuestSharesDialog(GuestShareKeeper *keeper, QWidget *parent = nullptr);

    QTreeWidget *list() const { return m_list; }

    // "waiting", "%1 (browser)" and the relay guest's name.
    static QString guestText(const GuestShare &share);
    static QString expiresText(qint64 expiresAtMs);

public Q_SLOTS:
    void refresh();
    void stopSelected();
    void copySelectedCode();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void showShares(const QList<GuestShare> &shares, int revoked);
    void onEnded(const QString &shareId, const QString &reason);
    const QTreeWidgetItem *selectedShare() const;
    void updateButtons();

    GuestShareKeeper *m_keeper;
    QTreeWidget *m_list;
    QLabel *m_status;
    QLabel *m_revoked;
    QPushButton *m_stop;
    QPushButton *m_copy;
    QTimer *m_refreshTimer;
    QSet<QString> m_stopping;
    // Said once more over the listing that follows a stop.
    QString m_notice;
};
