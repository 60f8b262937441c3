#include "app/cloudaccountmenu.h"

#include "cloud/accountdialog.h"
#include "cloud/accountreplyhandler.h"
#include "cloud/accountsession.h"
#include "cloud/myaccountdialog.h"
#include "cloud/networkservices.h"
#include "cloud/sessionsynccoordinator.h"
#include "cloud/syncsettingsdialog.h"

#include <QAction>
#include <QJsonObject>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStatusBar>

namespace {
constexpr int kStatusMs = 5000;
} // namespace

CloudAccountMenu::CloudAccountMenu(const Actions &actions, QStatusBar *statusBar, LocalState localState,
                                   ApplyState applyState, QWidget *window)
    : QObject(window)
    , m_actions(actions)
    , m_statusBar(statusBar)
    , m_applyState(std::move(applyState))
    , m_window(window)
    , m_network(NetworkServices::instance())
    , m_session(AccountSession::instance())
    , m_sync(new SessionSyncCoordinator(m_network, m_session, std::move(localState), this))
    , m_replies(new AccountReplyHandler(m_network, m_session, m_sync, this))
    , m_badge(new QLabel(statusBar))
{
    m_badge->setObjectName(QStringLiteral("accountBadge"));
    statusBar->addPermanentWidget(m_badge);

    connect(m_actions.signIn, &QAction::triggered, this, &CloudAccountMenu::openSignIn);
    connect(m_actions.myAccount, &QAction::triggered, this, &CloudAccountMenu::openMyAccount);
    connect(m_actions.syncNow, &QAction::triggered, this, &CloudAccountMenu::syncNow);
    connect(m_actions.syncSettings, &QAction::triggered, this, &CloudAccountMenu::openSyncSettings);
    connect(m_actions.signOut, &QAction::triggered, m_replies, &AccountReplyHandler::signOut);

    connect(m_session, &AccountSession::changed, this, &CloudAccountMenu::updateState);
    connect(m_replies, &AccountReplyHandler::statusMessage, this, &CloudAccountMenu::showStatus);
    connect(m_replies, &AccountReplyHandler::notice, this,
            [this](const QString &title, const QString &text) {
                // The sign-in dialog words the failures of its own requests.
                if (!m_signInDialog)
                    showNotice(title, text);
            });
    connect(m_network, &NetworkServices::accountResponse, this, &CloudAccountMenu::takeDevice);
    connect(m_network, &NetworkServices::networkError, this,
            [this](const QString &domain, const QString &message) {
                // The sign-in dialog and My Account word their own errors.
                if (domain == QLatin1String("account") && !m_signInDialog && !m_myAccountDialog)
                    showStatus(message, kStatusMs);
            });
    connectSync();
    updateState();
}

void CloudAccountMenu::connectSync()
{
    connect(m_sync, &SessionSyncCoordinator::began, this, [this] {
        m_applying = false;
        m_actions.syncNow->setEnabled(false);
    });
    connect(m_sync, &SessionSyncCoordinator::succeeded, this, [this] {
        showStatus(m_applying ? SessionSyncCoordinator::appliedText() : SessionSyncCoordinator::syncedText(),
                   kStatusMs);
        updateState();
    });
    connect(m_sync, &SessionSyncCoordinator::failed, this, [this](const QString &message) {
        showStatus(message, kStatusMs);
        updateState();
    });
    connect(m_sync, &SessionSyncCoordinator::cancelled, this, &CloudAccountMenu::updateState);
    connect(m_sync, &SessionSyncCoordinator::conflictDeferred, this, [this] {
        showStatus(SessionSyncCoordinator::deferredText(), 0);
        updateState();
    });
    connect(m_sync, &SessionSyncCoordinator::conflictChoiceNeeded, this, &CloudAccountMenu::askConflictChoice);
    connect(m_sync, &SessionSyncCoordinator::cloudApplied, this,
            [this](const SessionState &state, int language, bool) {
                m_applying = true;
                m_applyState(state, language);
                showStatus(SessionSyncCoordinator::appliedText(), kStatusMs);
            });
    connect(m_sync, &SessionSyncCoordinator::incompatible, this, [this] {
        showStatus(tr("The cloud settings come from an incompatible version and were not applied."), kStatusMs);
        updateState();
    });
    connect(m_sync, &SessionSyncCoordinator::signInExpired, this, [this](bool wasAutomatic) {
        updateState();
        if (wasAutomatic)
            showStatus(tr("Sign in has expired."), kStatusMs);
        else
            showNotice(AccountReplyHandler::myAccountTitle(), tr("Sign in has expired."));
    });
}

AccountDialog *CloudAccountMenu::signInDialog() const
{
    return m_signInDialog;
}

MyAccountDialog *CloudAccountMenu::myAccountDialog() const
{
    return m_myAccountDialog;
}

void CloudAccountMenu::resumeSignIn()
{
    AccountSession::ensureDeviceValue();
    if (m_session->isSignedIn() && !m_session->isAccessTokenValid())
        m_session->requestRefresh();
}

void CloudAccountMenu::updateState()
{
    const bool signedIn = m_session->isSignedIn();
    if (!signedIn)
        m_cid.clear();
    m_actions.signIn->setEnabled(!signedIn);
    m_actions.myAccount->setEnabled(signedIn);
    m_actions.syncNow->setEnabled(signedIn && !m_sync->isBusy());
    m_actions.signOut->setEnabled(signedIn);
    m_badge->setText(m_session->displayName());
    m_badge->setToolTip(signedIn ? tr("Signed in at %1\n%2").arg(NetworkServices::baseUrl(),
                                                                  SessionSyncCoordinator::lastSyncedText())
                                 : tr("Cloud server: %1").arg(NetworkServices::baseUrl()));
    if (!signedIn && m_myAccountDialog)
        m_myAccountDialog->close();
}

void CloudAccountMenu::showStatus(const QString &text, int timeoutMs)
{
    m_statusBar->showMessage(text, timeoutMs);
}

void CloudAccountMenu::showNotice(const QString &title, const QString &text)
{
    // Not exec(): a box that waits here would hold up the replies behind it.
    auto *box = new QMessageBox(QMessageBox::Warning, title, text,
                                QMessageBox::Ok, m_window);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void CloudAccountMenu::openSignIn()
{
    if (m_signInDialog) {
        m_signInDialog->raise();
        m_signInDialog->activateWindow();
        return;
    }
    m_signInDialog = new AccountDialog(m_network, m_session, m_window);
    m_signInDialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(m_signInDialog, &QDialog::accepted, this, [this] {
        showStatus(tr("Signed in as %1").arg(m_session->displayName()), kStatusMs);
    });
    m_signInDialog->open();
}

void CloudAccountMenu::openMyAccount()
{
    if (!m_session->isSignedIn())
        return openSignIn();
    if (!m_myAccountDialog) {
        m_myAccountDialog = new MyAccountDialog(m_network, m_session, m_window);
        m_myAccountDialog->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_myAccountDialog->show();
    m_myAccountDialog->raise();
    m_myAccountDialog->activateWindow();
    if (m_session->isAccessTokenValid())
        m_myAccountDialog->refresh();
    else if (m_session->requestRefresh())
        // The dialog asks once the renewed token is here.
        connect(m_session, &AccountSession::changed, m_myAccountDialog, &MyAccountDialog::refresh,
                Qt::SingleShotConnection);
}

void CloudAccountMenu::openSyncSettings()
{
    auto *dialog = new SyncSettingsDialog(m_window);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QDialog::accepted, m_sync, &SessionSyncCoordinator::reloadAutoSync);
    dialog->open();
}

void CloudAccountMenu::syncNow()
{
    if (!m_session->isSignedIn())
        return openSignIn();
    m_sync->syncNow();
}

void CloudAccountMenu::askConflictChoice()
{
    auto *box = new QMessageBox(QMessageBox::Question, SessionSyncCoordinator::conflictTitle(),
                                SessionSyncCoordinator::conflictText(), QMessageBox::Cancel, m_window);
    box->setObjectName(QStringLiteral("syncConflictBox"));
    box->setInformativeText(SessionSyncCoordinator::conflictQuestion());
    box->setAttribute(Qt::WA_DeleteOnClose);
    const std::pair<QString, SessionSyncCoordinator::Choice> choices[] = {
        {tr("Use Cloud"), SessionSyncCoordinator::Choice::UseCloud},
        {tr("Keep Local"), SessionSyncCoordinator::Choice::KeepLocal},
        {tr("Merge Lists"), SessionSyncCoordinator::Choice::MergeLists},
    };
    for (const auto &[text, choice] : choices) {
        QPushButton *button = box->addButton(text, QMessageBox::AcceptRole);
        connect(button, &QPushButton::clicked, m_sync, [this, choice = choice] { m_sync->resolveConflict(choice); });
    }
    // Cancel or closing the box: nothing changes (a no-op once a choice
    // has been made).
    connect(box, &QMessageBox::rejected, m_sync, &SessionSyncCoordinator::cancelConflict);
    box->open();
}

void CloudAccountMenu::takeDevice(const QJsonObject &response)
{
    // The server names this computer in sign-in and binding replies; the
    // sync document says which computer wrote it.
    const QJsonObject device = response.value(QLatin1String("device")).toObject();
    const QString cid = device.value(QLatin1String("cid")).toString();
    if (!cid.isEmpty()) {
        m_cid = cid;
        m_sync->setWriter(cid, QString::number(AccountSession::deviceValue()));
        return;
    }
    // A renewed sign-in names no computer: ask the profile once.
    const QString token = response.value(QLatin1String("access_token")).toString();
    if (m_cid.isEmpty() && !token.isEmpty())
        m_network->fetchAccountProfile(token);
}
