#include "app/cloudconsolemenu.h"

#include "cloud/accountsession.h"
#include "cloud/networkservices.h"

#include <QAction>
#include <QLabel>
#include <QMessageBox>
#include <QSettings>
#include <QStatusBar>

namespace {
const QString kConsoleKey = QStringLiteral("LastCloudConsole");
const QString kAllowSendKey = QStringLiteral("CloudConsoleAllowRemoteSend");
const QString kAllowPortControlKey = QStringLiteral("CloudConsoleAllowPortControl");
constexpr int kStatusMs = 5000;
} // namespace

CloudConsoleMenu::CloudConsoleMenu(const Actions &actions, QStatusBar *statusBar, CloudConsoleService::PortList ports,
                                   QWidget *window)
    : QObject(window)
    , m_actions(actions)
    , m_statusBar(statusBar)
    , m_window(window)
    , m_service(new CloudConsoleService(NetworkServices::instance(), AccountSession::instance(), std::move(ports), this))
    , m_badge(new QLabel(watchedText(), statusBar))
{
    m_badge->setObjectName(QStringLiteral("consoleBadge"));
    m_badge->setToolTip(watchedHint());
    m_badge->setStyleSheet(QStringLiteral("QLabel { color: #c0392b; font-weight: bold; }"));
    m_badge->hide();
    statusBar->addPermanentWidget(m_badge);

    const QSettings settings;
    const std::pair<QAction *, QString> switches[] = {
        {m_actions.console, kConsoleKey},
        {m_actions.allowSend, kAllowSendKey},
        {m_actions.allowPortControl, kAllowPortControlKey},
    };
    for (const auto &[action, key] : switches) {
        action->setCheckable(true);
        const QSignalBlocker blocker(action);
        action->setChecked(settings.value(key, false).toBool());
    }
    connect(m_actions.console, &QAction::toggled, this, &CloudConsoleMenu::setConsole);
    connect(m_actions.allowSend, &QAction::toggled, this, [this](bool on) { setConsent(kAllowSendKey, on); });
    connect(m_actions.allowPortControl, &QAction::toggled, this,
            [this](bool on) { setConsent(kAllowPortControlKey, on); });
    connect(m_service, &CloudConsoleService::watchingChanged, this, &CloudConsoleMenu::showWatching);
    connect(m_service, &CloudConsoleService::stoppedItself, this, &CloudConsoleMenu::showStopped);

    // The switch comes back as the user left it.
    m_service->setEnabled(m_actions.console->isChecked());
}

QString CloudConsoleMenu::watchedText()
{
    return tr("Being watched");
}

QString CloudConsoleMenu::watchedHint()
{
    return tr("Live Console · somebody is watching now") + QLatin1Char('\n') + tr("Cloud > Live Console to stop");
}

void CloudConsoleMenu::portsChanged()
{
    m_service->portsChanged();
}

void CloudConsoleMenu::setConsole(bool on)
{
    QSettings().setValue(kConsoleKey, on);
    m_service->setEnabled(on);
    if (on && !AccountSession::instance()->isSignedIn())
        m_statusBar->showMessage(tr("Live Console starts once you sign in."), kStatusMs);
}

void CloudConsoleMenu::setConsent(const QString &key, bool on)
{
    QSettings().setValue(key, on);
    m_service->consentChanged();
}

void CloudConsoleMenu::showWatching(bool watching)
{
    m_badge->setVisible(watching);
    if (watching)
        m_statusBar->showMessage(tr("Live Console · somebody is watching now"), kStatusMs);
}

void CloudConsoleMenu::showStopped(const QString &reason)
{
    {
        const QSignalBlocker blocker(m_actions.console);
        m_actions.console->setChecked(false);
    }
    QSettings().setValue(kConsoleKey, false);
    // Not exec(): a box that waits here would hold up the replies behind it.
    auto *box = new QMessageBox(QMessageBox::Warning, m_actions.console->text(), reason, QMessageBox::Ok, m_window);
    box->setObjectName(QStringLiteral("consoleStoppedBox"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}
