// The account dialog against the real service: the server field, the code
// from the service log, registration, sign-in and the refusals' texts.
#include "cloudservicerunner.h"

#include "cloud/accountdialog.h"
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "support/settingssandbox.h"

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QtTest>

class TestAccountDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void registersThroughTheServerItWasGiven();
    void refusalsAreShownAsWarnings_data();
    void refusalsAreShownAsWarnings();

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

QTEST_MAIN(TestAccountDialog)
#include "tst_accountdialog.moc"
