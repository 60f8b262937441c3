// The two guest-share dialogs and the Cloud menu's share entries, driven
// through their widgets against a loopback stand-in of the service's share
// and console API, with a pty pair behind the shared port: the form's
// refusals and what it sends, the live share with its copy buttons, guests,
// time left and ends, Share Again; the list of every share of the account;
// the questions before sharing and the status-bar badge.
#include "app/cloudsharemenu.h"
#include "app/screenshotdialogs.h"
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/guestsharedialog.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/manageguestsharesdialog.h"
#include "cloud/networkservices.h"
#include "consolepeer.h"
#include "sharepeer.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDateTime>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QTimer>
#include <QTreeWidget>
#include <QtTest>

namespace {

constexpr int kWait = 10000;

template <typename T>
T *child(QWidget *parent, const char *name)
{
    T *found = parent->findChild<T *>(QString::fromLatin1(name));
    if (!found)
        qWarning() << "no child" << name;
    return found;
}

QStringList items(const QListWidget *list)
{
    QStringList lines;
    for (int i = 0; i < list->count(); ++i)
        lines.append(list->item(i)->text());
    return lines;
}

QMessageBox *openBox(const QString &name)
{
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (widget->objectName() == name && widget->isVisible())
            return qobject_cast<QMessageBox *>(widget);
    }
    return nullptr;
}

} // namespace

class GuestShareDialogsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void formRefusesWhatCannotBeShared_data();
    void formRefusesWhatCannotBeShared();
    void formSendsTheChoicesAndKeepsThem();
    void liveShareShowsAndCopiesTheInvite();
    void guestsShowAndTheOwnerSendsOneAway();
    void expiryEndsTheShareAndShareAgainStartsOver();
    void stoppingAndFailing();
    void manageListsEverySharesOfTheAccount();
    void manageStopsAShareAndSaysWhatWentWrong();
    void menuAsksBeforeSharingAndTheBadgeFollows();
    void bothDialogsHaveTheirPictures();

private:
    GuestShareDialog *openDialog();
    GuestShare createThroughForm(GuestShareDialog *dialog, const QString &passcode = "abcd");

    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<ConsolePeer> m_peer;
    std::unique_ptr<SharePeer> m_shares;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PortSession> m_port;
    std::unique_ptr<CloudConsoleService> m_service;
    std::unique_ptr<QWidget> m_window;
    GuestShareKeeper *m_keeper = nullptr;
    qint64 m_now = 0;
};

void GuestShareDialogsTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void GuestShareDialogsTest::init()
{
    m_sandbox->clear();
    m_peer = std::make_unique<ConsolePeer>();
    QVERIFY(m_peer->listen());
    qputenv("TSL_HOST", m_peer->baseUrl().toUtf8());
    m_shares = std::make_unique<SharePeer>(*m_peer);
    m_now = m_shares->now;

    m_network = std::make_unique<NetworkServices>();
    m_account = std::make_unique<AccountSession>(m_network.get());
    m_account->applyLogin({{"user", QJsonObject{{"id", 7}, {"email", "a@example.com"}}},
                           {"access_token", "token-7"},
                           {"expires_in", 3600}});

    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_port = std::make_unique<PortSession>(1);
    ConnectionConfig config;
    config.portName = m_pty->pathA();
    config.baudRate = 115200;
    m_port->applySettings(config, {}, {});
    m_port->setAutoReconnect(false);
    QVERIFY(m_port->openConnection());

    m_service = std::make_unique<CloudConsoleService>(m_network.get(), m_account.get(), [this] {
        return m_port ? QList<PortSession *>{m_port.get()} : QList<PortSession *>{};
    });
    CloudConsoleService::Timing timing;
    timing.heartbeatMs = 60000;
    timing.pollMs = {60000, 60000, 60000, 60000};
    timing.watchdogMs = 60000;
    timing.shareCreateMs = 20;
    timing.shareSweepMs = 60000;  // the tests sweep when they mean to
    m_service->setTiming(timing);
    m_keeper = m_service->shares();
    m_keeper->setClock([this] { return m_now; });
    m_service->setEnabled(true);
    m_window = std::make_unique<QWidget>();
}

void GuestShareDialogsTest::cleanup()
{
    m_window.reset();
    m_service.reset();
    m_port.reset();
    m_pty.reset();
    m_account.reset();
    m_network.reset();
    m_shares.reset();
    m_peer.reset();
    qunsetenv("TSL_HOST");
}

GuestShareDialog *GuestShareDialogsTest::openDialog()
{
    auto *dialog = new GuestShareDialog(m_keeper, m_port->portKey(), m_window.get());
    dialog->show();
    return dialog;
}

GuestShare GuestShareDialogsTest::createThroughForm(GuestShareDialog *dialog, const QString &passcode)
{
    QSignalSpy created(m_service.get(), &CloudConsoleService::shareCreated);
    child<QLineEdit>(dialog, "sharePasscode")->setText(passcode);
    QComboBox *web = child<QComboBox>(dialog, "shareWebLevel");
    web->setCurrentIndex(web->findData("send"));
    child<QPushButton>(dialog, "createInviteButton")->click();
    if (!created.wait(kWait))
        return {};
    return created.first().first().value<GuestShare>();
}

void GuestShareDialogsTest::formRefusesWhatCannotBeShared_data()
{
    QTest::addColumn<QString>("passcode");
    QTest::addColumn<QString>("web");
    QTest::addColumn<QString>("refusal");
    QTest::newRow("3-character passcode") << "abc" << "view" << "A passcode is 4–16 characters.";
    QTest::newRow("17-character passcode") << "abcdefghijklmnopq" << "send" << "A passcode is 4–16 characters.";
    QTest::newRow("browser none without relay") << "" << "none"
                                                << "Allow at least one way in: the browser, Tessaline, or both.";
}

void GuestShareDialogsTest::formRefusesWhatCannotBeShared()
{
    QFETCH(QString, passcode);
    QFETCH(QString, web);
    QFETCH(QString, refusal);
    GuestShareDialog *dialog = openDialog();
    child<QLineEdit>(dialog, "sharePasscode")->setText(passcode);
    QComboBox *level = child<QComboBox>(dialog, "shareWebLevel");
    level->setCurrentIndex(level->findData(web));
    QVERIFY(!child<QCheckBox>(dialog, "shareRelay")->isChecked());
    child<QPushButton>(dialog, "createInviteButton")->click();

    QCOMPARE(child<QLabel>(dialog, "shareStatus")->text(), refusal);
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Form);
    QVERIFY(!m_keeper->isCreating());
    QVERIFY(!QSettings().contains("remoteAssist/webLevel"));  // nothing stored for a refused form
    QVERIFY(m_shares->creations().isEmpty());
}

void GuestShareDialogsTest::formSendsTheChoicesAndKeepsThem()
{
    QSettings().setValue("CloudConsoleAllowRelay", true);
    GuestShareDialog *dialog = openDialog();
    QComboBox *validFor = child<QComboBox>(dialog, "shareValidFor");
    QStringList offered;
    for (int i = 0; i < validFor->count(); ++i)
        offered.append(validFor->itemText(i));
    QCOMPARE(offered, (QStringList{"1 hour", "4 hours", "12 hours", "24 hours"}));
    validFor->setCurrentIndex(validFor->findText("24 hours"));
    QComboBox *web = child<QComboBox>(dialog, "shareWebLevel");
    QCOMPARE(web->currentData().toString(), QString("view"));  // nothing chosen before
    web->setCurrentIndex(web->findData("control"));
    child<QCheckBox>(dialog, "shareRelay")->setChecked(true);
    child<QLineEdit>(dialog, "shareLabel")->setText("  Field unit 12 ");
    child<QLineEdit>(dialog, "sharePasscode")->clear();  // an empty passcode is allowed

    QSignalSpy created(m_service.get(), &CloudConsoleService::shareCreated);
    child<QPushButton>(dialog, "createInviteButton")->click();
    QCOMPARE(child<QLabel>(dialog, "shareStatus")->text(), QString("Creating the invite…"));
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Creating);
    QVERIFY(!child<QPushButton>(dialog, "createInviteButton")->isEnabled());
    QVERIFY(created.wait(kWait));

    const QJsonObject body = m_shares->creations().first().body;
    QCOMPARE(body.value("ttl_seconds"), QJsonValue(86400));
    QCOMPARE(body.value("web").toString(), QString("control"));
    QCOMPARE(body.value("relay"), QJsonValue(true));
    QCOMPARE(body.value("label").toString(), QString("Field unit 12"));
    QCOMPARE(body.value("passcode").toString(), QString());
    QCOMPARE(body.value("port_key").toString(), m_port->portKey());
    QCOMPARE(QSettings().value("remoteAssist/webLevel").toString(), QString("control"));
    QCOMPARE(QSettings().value("remoteAssist/allowRelay").toBool(), true);

    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Live);
    QCOMPARE(child<QLabel>(dialog, "shareRights")->text(),
             QString("browser: view, send and port control\nTessaline: real serial port"));
    QVERIFY(!child<QLabel>(dialog, "shareStatus")->isVisible());

    // The next form starts from the last choices.
    auto *next = openDialog();
    QCOMPARE(child<QComboBox>(next, "shareWebLevel")->currentData().toString(), QString("control"));
    QVERIFY(child<QCheckBox>(next, "shareRelay")->isChecked());
    // Without Live Relay allowed the relay choice is not offered at all.
    QSettings().setValue("CloudConsoleAllowRelay", false);
    auto *third = openDialog();
    QVERIFY(!child<QCheckBox>(third, "shareRelay")->isChecked());
    QVERIFY(!child<QCheckBox>(third, "shareRelay")->isEnabled());
}

void GuestShareDialogsTest::liveShareShowsAndCopiesTheInvite()
{
    GuestShareDialog *dialog = openDialog();
    const GuestShare share = createThroughForm(dialog, "s3cret");
    QVERIFY(!share.shareId.isEmpty());
    QCOMPARE(child<QLabel>(dialog, "shareCode")->text(), share.code);
    QCOMPARE(child<QLabel>(dialog, "shareLink")->text(), share.link);
    QCOMPARE(child<QLabel>(dialog, "shareRights")->text(), QString("Passcode: s3cret\nbrowser: view and send"));
    const QDateTime expires = QDateTime::fromMSecsSinceEpoch(share.expiresAt);
    const bool today = expires.date() == QDateTime::fromMSecsSinceEpoch(m_now).date();
    const QString expiresAt = expires.toString(today ? "HH:mm" : "MM-dd HH:mm");
    QCOMPARE(child<QLabel>(dialog, "shareTimeLeft")->text(), QString("Expires at %1 (in 1 h 0 min)").arg(expiresAt));
    QCOMPARE(items(child<QListWidget>(dialog, "shareGuests")), QStringList{"Waiting for a guest…"});
    QVERIFY(!child<QPushButton>(dialog, "disconnectGuestButton")->isEnabled());
    QVERIFY(!child<QPushButton>(dialog, "shareAgainButton")->isVisible());

    child<QPushButton>(dialog, "copyCodeButton")->click();
    QCOMPARE(QGuiApplication::clipboard()->text(), share.code);
    QCOMPARE(child<QLabel>(dialog, "shareStatus")->text(), QString("Code copied."));
    child<QPushButton>(dialog, "copyLinkButton")->click();
    QCOMPARE(QGuiApplication::clipboard()->text(), share.link);
    QCOMPARE(child<QLabel>(dialog, "shareStatus")->text(), QString("Link copied."));

    // A second request while this share lives is a new share; one being made is refused.
    QVERIFY(m_keeper->requestShare({m_port->portKey(), 3600, {}, {}, "view", false}));
    const Result second = m_keeper->requestShare({m_port->portKey(), 3600, {}, {}, "view", false});
    QCOMPARE(second.errorText(), QString("A share is still being created; wait for it."));
}

void GuestShareDialogsTest::guestsShowAndTheOwnerSendsOneAway()
{
    GuestShareDialog *dialog = openDialog();
    const GuestShare share = createThroughForm(dialog);
    QVERIFY(!share.shareId.isEmpty());
    const qint64 since = m_now - 5 * 60000;
    m_shares->share(share.shareId)["guest"] = QJsonObject{{"name", "mei"}, {"since", since}, {"relay_id", "r7"}};
    m_shares->share(share.shareId)["web_guests"] = 2;
    QVERIFY(m_keeper->refreshShares());
    const QStringList expected{
        QString("mei connected since %1").arg(QDateTime::fromMSecsSinceEpoch(since).toString("HH:mm")),
        "Watching in a browser: 2"};
    QTRY_COMPARE_WITH_TIMEOUT(items(child<QListWidget>(dialog, "shareGuests")), expected, kWait);

    QPushButton *disconnect = child<QPushButton>(dialog, "disconnectGuestButton");
    QVERIFY(disconnect->isEnabled());
    disconnect->click();
    QCOMPARE(child<QLabel>(dialog, "shareStatus")->text(), QString("Disconnected by the owner."));
    QCOMPARE(items(child<QListWidget>(dialog, "shareGuests")), QStringList{"Watching in a browser: 2"});
    QVERIFY(!disconnect->isEnabled());
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->count("DELETE", "/relay/sessions/r7"), 1, kWait);
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Live);  // the share itself goes on
}

void GuestShareDialogsTest::expiryEndsTheShareAndShareAgainStartsOver()
{
    GuestShareDialog *dialog = openDialog();
    const GuestShare share = createThroughForm(dialog);
    QVERIFY(!share.shareId.isEmpty());

    // The time passes (the dialog reads the keeper's clock every second).
    m_now = share.expiresAt - 90 * 60000 + 1;
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareTimeLeft")->text().section('(', 1),
                              QString("in 1 h 30 min)"), kWait);
    m_now = share.expiresAt;
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareTimeLeft")->text(),
                              QString("Expired — the share admits no new guests."), kWait);
    QVERIFY(child<QPushButton>(dialog, "shareAgainButton")->isVisible());

    m_keeper->onShareSweepTick();
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Ended);
    QCOMPARE(child<QLabel>(dialog, "shareEnded")->text(), QString("Sharing ended: The share expired."));
    QVERIFY(!child<QPushButton>(dialog, "copyCodeButton")->isEnabled());
    QVERIFY(!child<QPushButton>(dialog, "stopSharingButton")->isVisible());

    child<QPushButton>(dialog, "shareAgainButton")->click();
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Form);
    QVERIFY(child<QPushButton>(dialog, "createInviteButton")->isEnabled());
    QCOMPARE(child<QComboBox>(dialog, "sharePort")->currentData().toString(), m_port->portKey());
    const GuestShare again = createThroughForm(dialog);
    QVERIFY(!again.shareId.isEmpty());
    QVERIFY(again.shareId != share.shareId);
}

void GuestShareDialogsTest::stoppingAndFailing()
{
    GuestShareDialog *dialog = openDialog();
    GuestShare share = createThroughForm(dialog);
    QVERIFY(!share.shareId.isEmpty());
    child<QPushButton>(dialog, "stopSharingButton")->click();
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Ended);
    QCOMPARE(child<QLabel>(dialog, "shareEnded")->text(), QString("You stopped sharing."));
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->count("DELETE", "/relay/shares/" + share.shareId), 1, kWait);

    // The port closes under a live share.
    child<QPushButton>(dialog, "shareAgainButton")->click();
    share = createThroughForm(dialog);
    QVERIFY(!share.shareId.isEmpty());
    m_port->closeConnection();
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareEnded")->text(),
                              QString("Sharing ended: The shared port was closed."), kWait);

    // The service refuses, in its own words.
    QVERIFY(m_port->openConnection());
    child<QPushButton>(dialog, "shareAgainButton")->click();
    m_shares->refuseNextCreate = {{"status", false}, {"code", "share_limit"},
                                  {"description", "This account already shares 20 ports."}};
    child<QPushButton>(dialog, "createInviteButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareStatus")->text(),
                              QString("Could not create the invite: This account already shares 20 ports."), kWait);
    QCOMPARE(dialog->stage(), GuestShareDialog::Stage::Form);

    // Live Console switched off before the invite was made.
    m_service->setEnabled(false);
    child<QPushButton>(dialog, "createInviteButton")->click();
    QCOMPARE(child<QLabel>(dialog, "shareStatus")->text(),
             QString("Could not create the invite: Switch Live Console on first: the share travels over its "
                     "channel."));
}

void GuestShareDialogsTest::manageListsEverySharesOfTheAccount()
{
    const GuestShare mine = createThroughForm(openDialog());
    QVERIFY(!mine.shareId.isEmpty());
    m_shares->share(mine.shareId)["web_guests"] = 1;
    m_shares->shares.insert("elsewhere", QJsonObject{{"share_id", "elsewhere"}, {"code", "RXP4-8GQH-MZ2K"},
                                                     {"cid", "other-cid"}, {"device_name", "lab-gateway"},
                                                     {"port_name", "ttyS0"}, {"expires_at", m_now + 3600000},
                                                     {"guest", QJsonObject{{"name", "mei"}}}, {"state", "live"}});
    m_shares->revoked = 2;

    auto *dialog = new ManageGuestSharesDialog(m_keeper, m_window.get());
    QCOMPARE(dialog->windowTitle(), QString("Manage Guest Shares"));
    dialog->show();
    QCOMPARE(child<QLabel>(dialog, "shareListStatus")->text(), QString("Loading…"));
    QTreeWidget *list = dialog->list();
    QTRY_COMPARE_WITH_TIMEOUT(list->topLevelItemCount(), 2, kWait);
    QCOMPARE(child<QLabel>(dialog, "shareListStatus")->text(), QString());
    const QStringList headers{list->headerItem()->text(0), list->headerItem()->text(1), list->headerItem()->text(2),
                              list->headerItem()->text(3)};
    QCOMPARE(headers, (QStringList{"Device / Port", "Code", "Guest", "Expires"}));

    // This computer first, marked.
    const QTreeWidgetItem *own = list->topLevelItem(0);
    QCOMPARE(own->text(0), QString("bench-pc (this computer)"));
    QCOMPARE(own->child(0)->text(1), mine.code);
    QCOMPARE(own->child(0)->text(2), QString("1 (browser)"));
    QCOMPARE(own->child(0)->text(3), QDateTime::fromMSecsSinceEpoch(mine.expiresAt).toString("MM-dd HH:mm"));
    const QTreeWidgetItem *other = list->topLevelItem(1);
    QCOMPARE(other->text(0), QString("lab-gateway"));
    QCOMPARE(other->child(0)->text(0), QString("ttyS0"));
    QCOMPARE(other->child(0)->text(2), QString("mei"));
    QVERIFY(child<QLabel>(dialog, "shareListRevoked")->isVisible());
    QVERIFY(child<QLabel>(dialog, "shareListRevoked")->text().endsWith(": 2"));

    // Asked again every ten seconds while open, not while hidden.
    QTimer *refresh = nullptr;
    for (QTimer *timer : dialog->findChildren<QTimer *>()) {
        if (timer->interval() == 10000)
            refresh = timer;
    }
    QVERIFY(refresh && refresh->isActive());
    const qsizetype asked = m_peer->count("GET", "/relay/shares");
    QVERIFY(QMetaObject::invokeMethod(refresh, "timeout"));
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->count("GET", "/relay/shares"), asked + 1, kWait);
    dialog->hide();
    QVERIFY(!refresh->isActive());

    // Nothing left.
    m_shares->shares.clear();
    dialog->show();
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareListStatus")->text(),
                              QString("Nothing is shared right now."), kWait);
    QCOMPARE(list->topLevelItemCount(), 0);
}

void GuestShareDialogsTest::manageStopsAShareAndSaysWhatWentWrong()
{
    m_shares->shares.insert("elsewhere", QJsonObject{{"share_id", "elsewhere"}, {"code", "RXP4-8GQH-MZ2K"},
                                                     {"cid", "other-cid"}, {"device_name", "lab-gateway"},
                                                     {"state", "live"}});
    auto *dialog = new ManageGuestSharesDialog(m_keeper, m_window.get());
    dialog->show();
    QTreeWidget *list = dialog->list();
    QTRY_COMPARE_WITH_TIMEOUT(list->topLevelItemCount(), 1, kWait);
    QVERIFY(!child<QPushButton>(dialog, "stopShareButton")->isEnabled());
    list->setCurrentItem(list->topLevelItem(0)->child(0));

    child<QPushButton>(dialog, "copyShareCodeButton")->click();
    QCOMPARE(QGuiApplication::clipboard()->text(), QString("RXP4-8GQH-MZ2K"));
    QCOMPARE(child<QLabel>(dialog, "shareListStatus")->text(), QString("Code copied."));

    child<QPushButton>(dialog, "stopShareButton")->click();
    QCOMPARE(child<QLabel>(dialog, "shareListStatus")->text(), QString("Stopping RXP4-8GQH-MZ2K…"));
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareListStatus")->text(), QString("You stopped sharing."),
                              kWait);
    QCOMPARE(m_peer->count("DELETE", "/relay/shares/elsewhere"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(list->topLevelItemCount(), 0, kWait);

    // The service refuses the list.
    m_peer->reply = [](const ConsolePeer::Request &) {
        return QJsonObject{{"type", "relay"}, {"status", false}, {"code", "unauthorized"},
                           {"description", "Sign in again."}};
    };
    child<QPushButton>(dialog, "refreshSharesButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(child<QLabel>(dialog, "shareListStatus")->text(),
                              QString("Could not load the share list: Sign in again."), kWait);

    // Signed out, nothing is asked.
    const qsizetype asked = m_peer->count("GET", "/relay/shares");
    m_account->clear();
    child<QPushButton>(dialog, "refreshSharesButton")->click();
    QCOMPARE(child<QLabel>(dialog, "shareListStatus")->text(), QString("Sign in to see your shares."));
    QCOMPARE(m_peer->count("GET", "/relay/shares"), asked);
}

void GuestShareDialogsTest::menuAsksBeforeSharingAndTheBadgeFollows()
{
    QMainWindow window;
    QAction share("Share Port with a Guest…"), manage("Manage Guest Shares…"), console("Live Console");
    console.setCheckable(true);
    connect(&console, &QAction::toggled, m_service.get(), &CloudConsoleService::setEnabled);
    m_service->setEnabled(false);
    auto *menu = new CloudShareMenu({&share, &manage, &console}, m_service.get(), window.statusBar(), &window);
    window.show();
    QVERIFY(!menu->badge()->isVisible());

    // No open serial port: nothing to share.
    m_port->closeConnection();
    share.trigger();
    QMessageBox *box = openBox("shareNeedsPortBox");
    QVERIFY(box);
    QCOMPARE(box->text(), QString("Open a serial port connection first: only an open serial port can be shared."));
    box->close();
    QVERIFY(!menu->shareDialog());

    // Live Console off: asked first; "No" leaves everything as it was.
    QVERIFY(m_port->openConnection());
    share.trigger();
    box = openBox("shareNeedsConsoleBox");
    QVERIFY(box);
    QCOMPARE(box->text(), QString("Sharing needs Live Console switched on. Switch it on now?"));
    box->button(QMessageBox::No)->click();
    QVERIFY(!m_service->isEnabled());
    QVERIFY(!menu->shareDialog());
    share.trigger();
    openBox("shareNeedsConsoleBox")->button(QMessageBox::Yes)->click();
    QVERIFY(m_service->isEnabled());
    QVERIFY(console.isChecked());
    QVERIFY(menu->shareDialog() && menu->shareDialog()->isVisible());

    const GuestShare created = createThroughForm(menu->shareDialog());
    QVERIFY(!created.shareId.isEmpty());
    QVERIFY(menu->badge()->isVisible());
    QCOMPARE(menu->badge()->text(), QString("Live Share · waiting for a guest"));
    m_shares->share(created.shareId)["web_guests"] = 1;
    QVERIFY(m_keeper->refreshShares());
    const QString expires = QDateTime::fromMSecsSinceEpoch(created.expiresAt).toString("HH:mm");
    QTRY_COMPARE_WITH_TIMEOUT(menu->badge()->text(), QString("Live Share · expires %1").arg(expires), kWait);

    // Opened again on the shared port, the dialog shows that share.
    menu->shareDialog()->close();
    QTRY_VERIFY_WITH_TIMEOUT(!menu->shareDialog(), kWait);  // deleted on close
    share.trigger();
    QVERIFY(menu->shareDialog());
    QCOMPARE(menu->shareDialog()->stage(), GuestShareDialog::Stage::Live);
    QCOMPARE(menu->shareDialog()->shareId(), created.shareId);

    manage.trigger();
    QVERIFY(menu->manageDialog() && menu->manageDialog()->isVisible());

    // Live Console off ends the share, and the badge goes.
    console.setChecked(false);
    QVERIFY(!menu->badge()->isVisible());
}

void GuestShareDialogsTest::bothDialogsHaveTheirPictures()
{
    const ScreenshotDialogs pictures = ScreenshotDialogs::standard();
    QWidget *form = pictures.create("guest-share", m_window.get());
    QVERIFY(form);
    QCOMPARE(form->windowTitle(), QString("Share Port with a Guest"));
    auto *live = qobject_cast<GuestShareDialog *>(pictures.create("guest-share-live", m_window.get()));
    QVERIFY(live);
    QCOMPARE(live->stage(), GuestShareDialog::Stage::Live);
    QVERIFY(items(child<QListWidget>(live, "shareGuests")).contains("Watching in a browser: 2"));
    auto *manage = qobject_cast<ManageGuestSharesDialog *>(pictures.create("manage-shares", m_window.get()));
    QVERIFY(manage);
    manage->show();
    QTRY_COMPARE_WITH_TIMEOUT(manage->list()->topLevelItemCount(), 2, kWait);
}

QTEST_MAIN(GuestShareDialogsTest)
#include "tst_guestsharedialogs.moc"