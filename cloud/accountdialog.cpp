#include "cloud/accountdialog.h"

#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "common/appidentity.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTabWidget>
#include <QTimer>
#include <QVBoxLayout>

namespace {
QLineEdit *passwordEdit(QWidget *parent)
{
    auto *edit = new QLineEdit(parent);
    edit->setEchoMode(QLineEdit::Password);
    return edit;
}
} // namespace

AccountDialog::AccountDialog(NetworkServices *network, AccountSession *session, QWidget *parent)
    : QDialog(parent), m_network(network), m_session(session), m_replyTimer(new QTimer(this))
{
    setWindowTitle(tr("Account"));
    setModal(true);
    m_replyTimer->setSingleShot(true);
    m_replyTimer->setInterval(kReplyTimeoutMs);
    connect(m_replyTimer, &QTimer::timeout, this, &AccountDialog::onReplyTimeout);

    auto *layout = new QVBoxLayout(this);
    auto *serverRow = new QFormLayout;
    m_server = new QLineEdit(NetworkServices::baseUrl(), this);
    m_server->setObjectName(QStringLiteral("serverEdit"));
    // "TSL_HOST" wins over the setting; the field then only shows it.
    m_server->setReadOnly(!qEnvironmentVariable("TSL_HOST").trimmed().isEmpty());
    connect(m_server, &QLineEdit::editingFinished, this, &AccountDialog::applyServer);
    serverRow->addRow(tr("Server"), m_server);
    layout->addLayout(serverRow);

    m_tabs = new QTabWidget(this);
    layout->addWidget(m_tabs);

    auto *loginTab = new QWidget(m_tabs);
    auto *loginForm = new QFormLayout(loginTab);
    m_loginEmail = new QLineEdit(m_session->email(), loginTab);
    m_loginEmail->setObjectName(QStringLiteral("loginEmail"));
    m_loginPassword = passwordEdit(loginTab);
    m_loginPassword->setObjectName(QStringLiteral("loginPassword"));
    m_keepSignedIn = new QCheckBox(tr("Keep me signed in"), loginTab);
    m_keepSignedIn->setObjectName(QStringLiteral("keepSignedIn"));
    m_keepSignedIn->setChecked(m_session->rememberMe());
    m_signInButton = new QPushButton(tr("Sign In"), loginTab);
    m_signInButton->setObjectName(QStringLiteral("signInButton"));
    m_signInButton->setDefault(true);
    m_loginStatus = new QLabel(loginTab);
    m_loginStatus->setObjectName(QStringLiteral("loginStatus"));
    m_loginStatus->setWordWrap(true);
    loginForm->addRow(tr("Email"), m_loginEmail);
    loginForm->addRow(tr("Password"), m_loginPassword);
    loginForm->addRow(QString(), m_keepSignedIn);
    loginForm->addRow(QString(), m_signInButton);
    loginForm->addRow(m_loginStatus);
    m_tabs->addTab(loginTab, tr("Sign In"));

    auto *registerTab = new QWidget(m_tabs);
    auto *registerForm = new QFormLayout(registerTab);
    m_registerEmail = new QLineEdit(registerTab);
    m_registerEmail->setObjectName(QStringLiteral("registerEmail"));
    m_sendCodeButton = new QPushButton(tr("Send Code"), registerTab);
    m_sendCodeButton->setObjectName(QStringLiteral("sendCodeButton"));
    m_username = new QLineEdit(registerTab);
    m_username->setObjectName(QStringLiteral("registerUsername"));
    m_registerPassword = passwordEdit(registerTab);
    m_registerPassword->setObjectName(QStringLiteral("registerPassword"));
    m_confirm = passwordEdit(registerTab);
    m_confirm->setObjectName(QStringLiteral("registerConfirm"));
    m_code = new QLineEdit(registerTab);
    m_code->setObjectName(QStringLiteral("registerCode"));
    m_registerButton = new QPushButton(tr("Register"), registerTab);
    m_registerButton->setObjectName(QStringLiteral("registerButton"));
    m_registerStatus = new QLabel(registerTab);
    m_registerStatus->setObjectName(QStringLiteral("registerStatus"));
    m_registerStatus->setWordWrap(true);
    registerForm->addRow(tr("Email"), m_registerEmail);
    registerForm->addRow(QString(), m_sendCodeButton);
    registerForm->addRow(tr("Username"), m_username);
    registerForm->addRow(tr("Password"), m_registerPassword);
    registerForm->addRow(tr("Confirm"), m_confirm);
    registerForm->addRow(tr("Code"), m_code);
    registerForm->addRow(QString(), m_registerButton);
    registerForm->addRow(m_registerStatus);
    m_tabs->addTab(registerTab, tr("Register"));

    connect(m_signInButton, &QPushButton::clicked, this, &AccountDialog::signIn);
    connect(m_sendCodeButton, &QPushButton::clicked, this, &AccountDialog::sendCode);
    connect(m_registerButton, &QPushButton::clicked, this, &AccountDialog::registerAccount);
    connect(m_network, &NetworkServices::accountResponse, this, &AccountDialog::handleAccountResponse);
    connect(m_network, &NetworkServices::networkError, this, &AccountDialog::handleNetworkError);
}

void AccountDialog::applyServer()
{
    const QString server = m_server->text().trimmed();
    if (m_server->isReadOnly() || server.isEmpty())
        return;
    QString normalised = server;
    while (normalised.endsWith(u'/'))
        normalised.chop(1);
    QSettings().setValue(QStringLiteral("HostAddress"), normalised);
    m_server->setText(normalised);
}

QLabel *AccountDialog::activeStatus() const
{
    return m_tabs->currentIndex() == 0 ? m_loginStatus : m_registerStatus;
}

void AccountDialog::setInputsEnabled(bool enabled)
{
    m_tabs->currentWidget()->setEnabled(enabled);
    m_server->setEnabled(enabled);
}

void AccountDialog::startRequest(QLabel *status, const QString &text)
{
    applyServer();
    status->setText(text);
    setInputsEnabled(false);
    m_awaitingReply = true;
    m_replyTimer->start();
}

void AccountDialog::showMessage(QMessageBox::Icon icon, const QString &text)
{
    // From a zero-delay timer, so the reply handler returns first.
    QTimer::singleShot(0, this, [this, icon, text] {
        auto *box = new QMessageBox(icon, tr("Account"), text, QMessageBox::Ok, this);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
        emit messageShown(icon, text);
    });
}

void AccountDialog::sendCode()
{
    const QString email = m_registerEmail->text().trimmed();
    if (email.isEmpty()) {
        showMessage(QMessageBox::Warning, tr("Please enter an email address."));
        return;
    }
    startRequest(m_registerStatus, tr("Sending the code…"));
    m_network->requestRegistrationCode(m_session->accessToken(), email);
}

void AccountDialog::signIn()
{
    const QString email = m_loginEmail->text().trimmed();
    const QString password = m_loginPassword->text();
    if (email.isEmpty() || password.isEmpty()) {
        showMessage(QMessageBox::Warning, tr("Please enter your email and password."));
        return;
    }
    m_session->setRememberMe(m_keepSignedIn->isChecked());
    startRequest(m_loginStatus, tr("Signing in…"));
    m_network->signIn(m_session->accessToken(), email, password, QString::number(AccountSession::deviceValue()),
                      QString::fromLatin1(AppIdentity::kVersion));
}

void AccountDialog::registerAccount()
{
    if (m_registerPassword->text() != m_confirm->text()) {
        showMessage(QMessageBox::Warning, tr("Passwords do not match."));
        return;
    }
    startRequest(m_registerStatus, tr("Creating the account…"));
    m_network->registerAccount(m_session->accessToken(), m_registerEmail->text().trimmed(), m_username->text().trimmed(),
                               m_registerPassword->text(), m_code->text().trimmed(),
                               QString::number(AccountSession::deviceValue()), QString::fromLatin1(AppIdentity::kVersion));
}

void AccountDialog::handleAccountResponse(const QJsonObject &response)
{
    // Only the answer to what this dialog asked: a token refresh or a
    // profile fetched elsewhere meanwhile is none of its business.
    if (!m_awaitingReply || response.value(QLatin1String("type")).toString() != QLatin1String("account"))
        return;
    m_awaitingReply = false;
    m_replyTimer->stop();
    setInputsEnabled(true);
    const bool ok = response.value(QLatin1String("status")).toBool();
    if (ok && !response.value(QLatin1String("access_token")).toString().isEmpty()) {
        m_session->applyLogin(response);
        accept();
        return;
    }
    QString message = response.value(QLatin1String("description")).toString();
    if (message.isEmpty())
        message = ok ? tr("Request completed.") : tr("Request failed.");
    activeStatus()->setText(message);
    if (!ok && response.value(QLatin1String("code")).toString() == QLatin1String("account_pending_review"))
        showMessage(QMessageBox::Information, message);
    else
        showMessage(ok ? QMessageBox::Information : QMessageBox::Warning, message);
}

void AccountDialog::handleNetworkError(const QString &domain, const QString &message, const QString &detail)
{
    Q_UNUSED(detail);
    if (!m_awaitingReply || domain != QLatin1String("account"))
        return;
    m_awaitingReply = false;
    m_replyTimer->stop();
    setInputsEnabled(true);
    activeStatus()->setText(message);
    showMessage(QMessageBox::Warning, message);
}

void AccountDialog::onReplyTimeout()
{
    setInputsEnabled(true);
    activeStatus()->setText(tr("No reply from the server. Please try again."));
}
