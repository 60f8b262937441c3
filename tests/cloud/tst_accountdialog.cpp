// The account dialog against the real service: the server field, the code
// from the service log, registration, sign-in and the refusals' texts.
#include "cloudservicerunner.h"

#include "app/cloudaccountmenu.h"
#include "app/mainwindow.h"
#include "cloud/accountdialog.h"
#include "cloud/myaccountdialog.h"
#include "terminal/serialportwidget.h"
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "support/settingssandbox.h"

#include <QAction>
#include <QCheckBox>
#include <QStatusBar>
#include <QTreeWidget>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QSysInfo>
#include <QJsonObject>
#include <QtTest>

class TestAccountDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void registersThroughTheServerItWasGiven();
    void refusalsAreShownAsWarnings_data();
    void refusalsAreShownAsWarnings();
    void takesOnlyRepliesItAskedFor();
    void aSecondComputerStartsWithTheSyncedSettings();

private:
    template <typename T>
    static T *child(QObject &dialog, const char *name)
    {
        T *widget = dialog.findChild<T *>(QString::fromLatin1(name));
        if (!widget)
            qFatal("no widget %s", name);
        return widget;
    }

    CloudServiceRunner m_service;
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void TestAccountDialog::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
    qunsetenv("TSL_HOST");
    QVERIFY(m_service.start());
    QSettings().setValue("ValueD", 77);
}

void TestAccountDialog::registersThroughTheServerItWasGiven()
{
    NetworkServices network;
    AccountSession session(&network);
    AccountDialog dialog(&network, &session);
    QSignalSpy shown(&dialog, &AccountDialog::messageShown);
    // Nothing configured: the dialog shows the local default; the user
    // points it at the service, which is written to `HostAddress`.
    auto *server = child<QLineEdit>(dialog, "serverEdit");
    QCOMPARE(server->text(), QStringLiteral("http://127.0.0.1:8437"));
    server->setText(m_service.baseUrl() + "/");
    emit server->editingFinished();
    QCOMPARE(QSettings().value("HostAddress").toString(), m_service.baseUrl());

    const QString email = QStringLiteral("dialog@example.org");
    child<QLineEdit>(dialog, "registerEmail")->setText(email);
    child<QPushButton>(dialog, "sendCodeButton")->click();
    QCOMPARE(child<QLabel>(dialog, "registerStatus")->text(), QStringLiteral("Sending the code…"));
    QTRY_COMPARE_WITH_TIMEOUT(shown.size(), 1, 5000);
    QCOMPARE(shown.at(0).at(0).value<QMessageBox::Icon>(), QMessageBox::Information);
    QVERIFY(shown.at(0).at(1).toString().startsWith(QStringLiteral("We sent a code to ")));

    child<QLineEdit>(dialog, "registerUsername")->setText(QStringLiteral("Dia"));
    child<QLineEdit>(dialog, "registerPassword")->setText(QStringLiteral("long password"));
    child<QLineEdit>(dialog, "registerConfirm")->setText(QStringLiteral("long password"));
    child<QLineEdit>(dialog, "registerCode")->setText(m_service.codeFor(email));
    QSignalSpy accepted(&dialog, &QDialog::accepted);
    child<QPushButton>(dialog, "registerButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(accepted.size(), 1, 5000);
    QCOMPARE(session.displayName(), QStringLiteral("Dia"));
    QVERIFY(session.isAccessTokenValid());
}

void TestAccountDialog::refusalsAreShownAsWarnings_data()
{
    QTest::addColumn<QString>("email");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("text");
    QTest::newRow("empty password") << "dialog@example.org" << "" << "Please enter your email and password.";
    QTest::newRow("wrong password") << "dialog@example.org" << "not it" << "The e-mail address or the password is wrong.";
}

void TestAccountDialog::refusalsAreShownAsWarnings()
{
    QFETCH(QString, email);
    QFETCH(QString, password);
    QFETCH(QString, text);
    QSettings().setValue("HostAddress", m_service.baseUrl());
    NetworkServices network;
    AccountSession session(&network);
    AccountDialog dialog(&network, &session);
    QSignalSpy shown(&dialog, &AccountDialog::messageShown);
    child<QLineEdit>(dialog, "loginEmail")->setText(email);
    child<QLineEdit>(dialog, "loginPassword")->setText(password);
    child<QCheckBox>(dialog, "keepSignedIn")->setChecked(false);
    child<QPushButton>(dialog, "signInButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(shown.size(), 1, 5000);
    QCOMPARE(shown.at(0).at(0).value<QMessageBox::Icon>(), QMessageBox::Warning);
    QCOMPARE(shown.at(0).at(1).toString(), text);
    QVERIFY(child<QPushButton>(dialog, "signInButton")->isEnabled());
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
}

// Account replies for others (a token refresh, a profile) pass the dialog
// by; the answer to its own request does not.
void TestAccountDialog::takesOnlyRepliesItAskedFor()
{
    QSettings().setValue("HostAddress", m_service.baseUrl());
    NetworkServices network;
    AccountSession session(&network);
    AccountDialog dialog(&network, &session);
    QSignalSpy shown(&dialog, &AccountDialog::messageShown);
    const QJsonObject foreign{{"type", "account"}, {"status", false}, {"code", "refresh_token_expired"},
                              {"description", "not yours"}};
    emit network.accountResponse(foreign);
    emit network.networkError(QStringLiteral("account"), QStringLiteral("not yours either"), QString());
    QTest::qWait(20);
    QCOMPARE(shown.size(), 0);
    QVERIFY(child<QLabel>(dialog, "loginStatus")->text().isEmpty());

    child<QLineEdit>(dialog, "loginEmail")->setText(QStringLiteral("nobody@example.org"));
    child<QLineEdit>(dialog, "loginPassword")->setText(QStringLiteral("wrong"));
    child<QPushButton>(dialog, "signInButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(shown.size(), 1, 5000);
    QCOMPARE(shown.at(0).at(1).toString(), QStringLiteral("The e-mail address or the password is wrong."));
    emit network.accountResponse(foreign);  // after its answer, others pass by again
    QTest::qWait(20);
    QCOMPARE(shown.size(), 1);
}

namespace {

QAction *action(MainWindow &window, const char *name)
{
    auto *found = window.findChild<QAction *>(QLatin1String(name));
    if (!found)
        qFatal("no action %s", name);
    return found;
}

// Opens the sign-in dialog from the Cloud menu.
AccountDialog *signInDialogOf(MainWindow &window)
{
    action(window, "acAccountSignIn")->trigger();
    return window.cloudMenu()->signInDialog();
}

} // namespace

// One computer registers from the Cloud menu, changes its settings and
// syncs; the service restarts; a second computer (a fresh settings store)
// signs in to the same account, syncs, takes the cloud copy and starts
// with those settings.
void TestAccountDialog::aSecondComputerStartsWithTheSyncedSettings()
{
    const QString email = QStringLiteral("two.computers@example.org");
    const QString password = QStringLiteral("a long password");
    {
        m_sandbox->clear();
        QSettings().setValue("HostAddress", m_service.baseUrl());
        QSettings().setValue("ValueD", 101);
        MainWindow first;
        first.show();
        QVERIFY(!action(first, "acAccountSyncNow")->isEnabled());
        QCOMPARE(first.cloudMenu()->badge()->text(), QStringLiteral("Not signed in"));

        AccountDialog *dialog = signInDialogOf(first);
        QVERIFY(dialog);
        child<QLineEdit>(*dialog, "registerEmail")->setText(email);
        QSignalSpy shown(dialog, &AccountDialog::messageShown);
        child<QPushButton>(*dialog, "sendCodeButton")->click();
        QTRY_COMPARE_WITH_TIMEOUT(shown.size(), 1, 5000);
        child<QLineEdit>(*dialog, "registerUsername")->setText(QStringLiteral("Bench"));
        child<QLineEdit>(*dialog, "registerPassword")->setText(password);
        child<QLineEdit>(*dialog, "registerConfirm")->setText(password);
        child<QLineEdit>(*dialog, "registerCode")->setText(m_service.codeFor(email));
        child<QPushButton>(*dialog, "registerButton")->click();
        QTRY_COMPARE_WITH_TIMEOUT(first.cloudMenu()->badge()->text(), QStringLiteral("Bench"), 5000);
        QVERIFY(action(first, "acAccountSyncNow")->isEnabled());
        QVERIFY(!action(first, "acAccountSignIn")->isEnabled());

        // My Account lists this computer, bound at registration.
        action(first, "acAccountMe")->trigger();
        MyAccountDialog *account = first.cloudMenu()->myAccountDialog();
        QVERIFY(account);
        auto *devices = account->findChild<QTreeWidget *>(QStringLiteral("deviceList"));
        QTRY_COMPARE_WITH_TIMEOUT(devices->topLevelItemCount(), 1, 5000);
        // Named as people know it; the number the service keeps shows on hover.
        QCOMPARE(devices->topLevelItem(0)->text(0),
                 QStringLiteral("%1 (this computer)").arg(QSysInfo::machineHostName()));
        QCOMPARE(devices->topLevelItem(0)->toolTip(0), QStringLiteral("101"));
        QTRY_VERIFY_WITH_TIMEOUT(account->findChild<QLabel *>(QStringLiteral("accountQuota"))->text().contains(
                                     QStringLiteral("no limit")), 5000);
        account->close();

        SerialPortWidget *pane = first.panes().constFirst();
        ConnectionConfig config = pane->connectionConfig();
        config.baudRate = 57600;
        config.targetHost = QStringLiteral("10.20.30.40");
        pane->applySettings(config, pane->paneOptions(), pane->sendHistory());
        emit pane->settingsChanged();  // as an edit in the pane would
        action(first, "acAutoReconnect")->setChecked(false);

        action(first, "acAccountSyncNow")->trigger();
        QTRY_COMPARE_WITH_TIMEOUT(first.statusBar()->currentMessage(), QStringLiteral("Settings synced"), 5000);
        QVERIFY(QSettings().contains("AccountSyncRevision"));

        action(first, "acAccountSignOut")->trigger();
        QCOMPARE(first.statusBar()->currentMessage(), QStringLiteral("You signed out."));
        QVERIFY(!QSettings().contains("AccountSyncRevision"));
        QCOMPARE(first.cloudMenu()->badge()->text(), QStringLiteral("Not signed in"));
    }

    // The service restarted in between keeps the account and the item.
    m_service.stop();
    QVERIFY(m_service.start());
    m_sandbox->clear();
    QSettings().setValue("HostAddress", m_service.baseUrl());
    QSettings().setValue("ValueD", 202);
    MainWindow second;
    second.show();
    SerialPortWidget *pane = second.panes().constFirst();
    QCOMPARE(pane->connectionConfig().baudRate, 9600);
    AccountDialog *dialog = signInDialogOf(second);
    QVERIFY(dialog);
    child<QLineEdit>(*dialog, "loginEmail")->setText(email);
    child<QLineEdit>(*dialog, "loginPassword")->setText(password);
    child<QPushButton>(*dialog, "signInButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(second.cloudMenu()->badge()->text(), QStringLiteral("Bench"), 5000);

    // Nothing synced here yet: the cloud copy is newer, and a manual sync asks.
    action(second, "acAccountSyncNow")->trigger();
    QMessageBox *box = nullptr;
    QTRY_VERIFY_WITH_TIMEOUT((box = second.findChild<QMessageBox *>(QStringLiteral("syncConflictBox"))), 5000);
    QCOMPARE(box->windowTitle(), QStringLiteral("Sync Settings"));
    QCOMPARE(box->text(), QStringLiteral("Cloud settings are different from this computer."));
    QPushButton *useCloud = nullptr;
    for (QAbstractButton *button : box->buttons()) {
        if (button->text() == QStringLiteral("Use Cloud"))
            useCloud = qobject_cast<QPushButton *>(button);
    }
    QVERIFY(useCloud);
    useCloud->click();
    QTRY_COMPARE_WITH_TIMEOUT(pane->connectionConfig().baudRate, 57600, 5000);
    QCOMPARE(pane->connectionConfig().targetHost, QStringLiteral("10.20.30.40"));
    QVERIFY(!action(second, "acAutoReconnect")->isChecked());
    QCOMPARE(second.statusBar()->currentMessage(), QStringLiteral("Cloud settings applied"));
    QVERIFY(QSettings().contains("AccountSyncRevision"));
    // And a new pane starts from them too.
    QCOMPARE(second.addPane()->connectionConfig().baudRate, 57600);
    action(second, "acAccountSignOut")->trigger();
}

QTEST_MAIN(TestAccountDialog)
#include "tst_accountdialog.moc"
