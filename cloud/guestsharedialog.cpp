#include "cloud/guestsharedialog.h"

#include "cloud/consolecommandtable.h"
#include "cloud/guestsharekeeper.h"
#include "terminal/portsession.h"

#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSettings>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>

namespace {
const QString kWebLevelKey = QStringLiteral("remoteAssist/webLevel");
const QString kAllowRelayKey = QStringLiteral("remoteAssist/allowRelay");
constexpr int kClockMs = 1000;

QString clockText(qint64 ms, qint64 nowMs)
{
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(ms);
    const bool today = when.date() == QDateTime::fromMSecsSinceEpoch(nowMs).date();
    return when.toString(today ? QStringLiteral("HH:mm") : QStringLiteral("MM-dd HH:mm"));
}

QLabel *noteLabel(const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setStyleSheet(QStringLiteral("QLabel { color: palette(mid); }"));
    return label;
}
} // namespace

GuestShareDialog::GuestShareDialog(GuestShareKeeper *keeper, const QString &portKey, QWidget *parent)
    : QDialog(parent)
    , m_keeper(keeper)
    , m_pages(new QStackedWidget(this))
    , m_clockTimer(new QTimer(this))
    , m_refreshTimer(new QTimer(this))
{
    setWindowTitle(tr("Share Port with a Guest"));
    auto *layout = new QVBoxLayout(this);
    auto *formPage = new QWidget(m_pages);
    auto *livePage = new QWidget(m_pages);
    buildForm(formPage);
    buildLive(livePage);
    m_pages->addWidget(formPage);
    m_pages->addWidget(livePage);
    layout->addWidget(m_pages);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("shareStatus"));
    m_status->setWordWrap(true);
    layout->addWidget(m_status);

    m_others = new QListWidget(this);
    m_others->setObjectName(QStringLiteral("otherShares"));
    m_others->setVisible(false);
    m_others->setMaximumHeight(110);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    m_othersButton = buttons->addButton(tr("Other shares on this computer"), QDialogButtonBox::HelpRole);
    m_othersButton->setObjectName(QStringLiteral("otherSharesButton"));
    m_othersButton->setCheckable(true);
    m_othersButton->setAutoDefault(false);
    connect(m_othersButton, &QPushButton::toggled, this, [this](bool on) {
        m_others->setVisible(on);
        if (!on)
            return;
        // What is known shows at once; the service's answer follows.
        const bool asked = m_keeper->refreshShares();
        showOthers();
        if (asked && m_keeper->table().listing().isEmpty()) {
            m_others->clear();
            m_others->addItem(tr("Loading…"));
        }
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(m_others);
    layout->addWidget(buttons);

    m_clockTimer->setInterval(kClockMs);
    connect(m_clockTimer, &QTimer::timeout, this, &GuestShareDialog::showTimeLeft);
    m_refreshTimer->setInterval(kGuestRefreshMs);
    connect(m_refreshTimer, &QTimer::timeout, m_keeper, &GuestShareKeeper::refreshShares);

    connect(m_keeper, &GuestShareKeeper::shareCreated, this, &GuestShareDialog::onCreated);
    connect(m_keeper, &GuestShareKeeper::shareChanged, this, &GuestShareDialog::onChanged);
    connect(m_keeper, &GuestShareKeeper::shareEnded, this, &GuestShareDialog::onEnded);
    connect(m_keeper, &GuestShareKeeper::shareFailed, this, &GuestShareDialog::onFailed);
    connect(m_keeper, &GuestShareKeeper::listingChanged, this, [this] {
        if (m_others->isVisible())
            showOthers();
    });

    fillPorts(portKey);
    restoreChoices();
    setStage(Stage::Form);
    resize(520, sizeHint().height());
}

void GuestShareDialog::buildForm(QWidget *page)
{
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    auto *form = new QFormLayout;
    m_port = new QComboBox(page);
    m_port->setObjectName(QStringLiteral("sharePort"));
    m_port->setPlaceholderText(tr("No open serial port"));
    m_validFor = new QComboBox(page);
    m_validFor->setObjectName(QStringLiteral("shareValidFor"));
    for (int seconds : GuestShare::validForSeconds())
        m_validFor->addItem(GuestShare::validForText(seconds), seconds);
    m_passcodeEdit = new QLineEdit(page);
    m_passcodeEdit->setObjectName(QStringLiteral("sharePasscode"));
    m_passcodeEdit->setPlaceholderText(tr("Optional, 4–16 characters"));
    m_passcodeEdit->setMaxLength(64);
    m_label = new QLineEdit(page);
    m_label->setObjectName(QStringLiteral("shareLabel"));
    m_label->setPlaceholderText(tr("What the guest sees"));
    m_label->setMaxLength(80);
    m_web = new QComboBox(page);
    m_web->setObjectName(QStringLiteral("shareWebLevel"));
    for (const QString &level : GuestShare::levels())
        m_web->addItem(GuestShare::levelText(level), level);
    m_relay = new QCheckBox(tr("Also as a real serial port in Tessaline (Live Relay)"), page);
    m_relay->setObjectName(QStringLiteral("shareRelay"));
    form->addRow(tr("Port"), m_port);
    form->addRow(tr("Valid for"), m_validFor);
    form->addRow(tr("Passcode"), m_passcodeEdit);
    form->addRow(tr("Label"), m_label);
    form->addRow(tr("In a browser"), m_web);
    form->addRow(QString(), m_relay);
    layout->addLayout(form);
    layout->addWidget(noteLabel(tr("A browser guest sees decoded text that passes through the cloud; a relay moves "
                                   "raw bytes the cloud never reads."),
                                page));
    layout->addWidget(noteLabel(tr("The guest needs no account and pays nothing. Traffic counts toward your cloud "
                                   "allowance: about 81 MB per hour at 115200 baud full rate."),
                                page));
    auto *row = new QHBoxLayout;
    row->addStretch(1);
    m_create = new QPushButton(tr("Create Invite"), page);
    m_create->setObjectName(QStringLiteral("createInviteButton"));
    m_create->setDefault(true);
    connect(m_create, &QPushButton::clicked, this, &GuestShareDialog::createInvite);
    row->addWidget(m_create);
    layout->addLayout(row);
}

void GuestShareDialog::buildLive(QWidget *page)
{
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    m_code = new QLabel(page);
    m_code->setObjectName(QStringLiteral("shareCode"));
    m_code->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QFont big(QStringLiteral("DejaVu Sans Mono"));
    big.setPointSizeF(font().pointSizeF() * 1.8);
    big.setBold(true);
    m_code->setFont(big);
    m_code->setAlignment(Qt::AlignCenter);
    m_link = new QLabel(page);
    m_link->setObjectName(QStringLiteral("shareLink"));
    m_link->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_link->setAlignment(Qt::AlignCenter);
    m_rights = new QLabel(page);
    m_rights->setObjectName(QStringLiteral("shareRights"));
    m_rights->setWordWrap(true);
    m_timeLeft = new QLabel(page);
    m_timeLeft->setObjectName(QStringLiteral("shareTimeLeft"));
    m_guests = new QListWidget(page);
    m_guests->setObjectName(QStringLiteral("shareGuests"));
    m_guests->setMaximumHeight(90);
    m_guests->setSelectionMode(QAbstractItemView::NoSelection);
    m_guests->setFocusPolicy(Qt::NoFocus);
    m_ended = new QLabel(page);
    m_ended->setObjectName(QStringLiteral("shareEnded"));
    m_ended->setWordWrap(true);
    m_ended->setStyleSheet(QStringLiteral("QLabel { color: #c0392b; font-weight: bold; }"));

    layout->addWidget(m_code);
    layout->addWidget(m_link);
    layout->addWidget(m_rights);
    layout->addWidget(m_timeLeft);
    layout->addWidget(m_guests);
    layout->addWidget(m_ended);

    auto *row = new QHBoxLayout;
    m_copyCode = new QPushButton(tr("Copy Code"), page);
    m_copyCode->setObjectName(QStringLiteral("copyCodeButton"));
    m_copyLink = new QPushButton(tr("Copy Link"), page);
    m_copyLink->setObjectName(QStringLiteral("copyLinkButton"));
    m_disconnect = new QPushButton(tr("Disconnect Guest"), page);
    m_disconnect->setObjectName(QStringLiteral("disconnectGuestButton"));
    m_stop = new QPushButton(tr("Stop Sharing"), page);
    m_stop->setObjectName(QStringLiteral("stopSharingButton"));
    m_again = new QPushButton(tr("Share Again"), page);
    m_again->setObjectName(QStringLiteral("shareAgainButton"));
    for (QPushButton *button : {m_copyCode, m_copyLink, m_disconnect, m_stop, m_again}) {
        button->setAutoDefault(false);
        row->addWidget(button);
    }
    row->addStretch(1);
    layout->addLayout(row);
    connect(m_copyCode, &QPushButton::clicked, this, [this] {
        QGuiApplication::clipboard()->setText(m_share.code);
        setStatus(tr("Code copied."));
    });
    connect(m_copyLink, &QPushButton::clicked, this, [this] {
        QGuiApplication::clipboard()->setText(m_share.link);
        setStatus(tr("Link copied."));
    });
    connect(m_disconnect, &QPushButton::clicked, this, &GuestShareDialog::disconnectGuest);
    connect(m_stop, &QPushButton::clicked, this, &GuestShareDialog::stopSharing);
    connect(m_again, &QPushButton::clicked, this, &GuestShareDialog::shareAgain);
}

void GuestShareDialog::fillPorts(const QString &portKey)
{
    const QString current = portKey.isEmpty() ? m_port->currentData().toString() : portKey;
    m_port->clear();
    for (const PortSession *session : m_keeper->shareablePorts())
        m_port->addItem(session->currentRealPortName(), session->portKey());
    if (const int index = m_port->findData(current); index >= 0)
        m_port->setCurrentIndex(index);
}

void GuestShareDialog::restoreChoices()
{
    const QSettings settings;
    const int level = m_web->findData(settings.value(kWebLevelKey, QStringLiteral("view")).toString());
    m_web->setCurrentIndex(level >= 0 ? level : m_web->findData(QStringLiteral("view")));
    // A guest in Tessaline comes in through Live Relay, which the owner allows
    // in the Cloud menu.
    const bool relayAllowed = ConsoleConsent::fromSettings().relay;
    m_relay->setEnabled(relayAllowed);
    m_relay->setChecked(relayAllowed && settings.value(kAllowRelayKey, false).toBool());
    m_relay->setToolTip(relayAllowed ? QString() : tr("Switch on Cloud > Live Relay to offer this."));
}

// ---------------------------------------------------------------- actions

void GuestShareDialog::createInvite()
{
    if (m_stage != Stage::Form)
        return;
    GuestShareTable::Request request;
    request.portKey = m_port->currentData().toString();
    request.ttlSeconds = m_validFor->currentData().toInt();
    request.passcode = m_passcodeEdit->text();
    request.label = m_label->text().trimmed();
    request.web = m_web->currentData().toString();
    request.relay = m_relay->isChecked();
    if (const Result checked = GuestShareTable::check(request); !checked) {
        setStatus(checked.errorText());
        return;
    }
    if (request.portKey.isEmpty()) {
        setStatus(GuestShareKeeper::openSerialPortFirstText());
        return;
    }
    QSettings settings;
    settings.setValue(kWebLevelKey, request.web);
    settings.setValue(kAllowRelayKey, request.relay);
    m_passcode = request.passcode;
    setStage(Stage::Creating);
    setStatus(tr("Creating the invite…"));
    if (const Result asked = m_keeper->requestShare(request); !asked) {
        setStage(Stage::Form);
        setStatus(tr("Could not create the invite: %1").arg(asked.errorText()));
    }
}

void GuestShareDialog::stopSharing()
{
    if (m_stage == Stage::Live)
        m_keeper->stopShare(m_share.shareId);
}

void GuestShareDialog::disconnectGuest()
{
    if (m_stage == Stage::Live && m_keeper->disconnectGuest(m_share.shareId))
        setStatus(tr("Disconnected by the owner."));
}

void GuestShareDialog::shareAgain()
{
    fillPorts(m_share.portKey);
    m_share = GuestShare();
    setStatus({});
    setStage(Stage::Form);
}

bool GuestShareDialog::watchShare(const QString &shareId)
{
    const std::optional<GuestShare> share = m_keeper->share(shareId);
    if (!share)
        return false;
    watchShare(*share);
    return true;
}

void GuestShareDialog::watchShare(const GuestShare &share)
{
    m_share = share;
    m_passcode.clear();
    setStatus({});
    setStage(Stage::Live);
}

// ---------------------------------------------------------------- keeper

void GuestShareDialog::onCreated(const GuestShare &share)
{
    if (m_stage != Stage::Creating)
        return;
    m_share = share;
    setStatus({});
    setStage(Stage::Live);
}

void GuestShareDialog::onChanged(const GuestShare &share)
{
    if (m_stage == Stage::Live && share.shareId == m_share.shareId) {
        m_share = share;
        showShare();
    }
}

void GuestShareDialog::onEnded(const QString &shareId, const QString &reason)
{
    if (m_stage != Stage::Live || shareId != m_share.shareId)
        return;
    // The owner's own stop says so in its own words.
    const bool own = reason == GuestShare::stoppedText();
    m_ended->setText(own ? reason : tr("Sharing ended: %1").arg(reason));
    setStatus(own ? reason : QString());
    setStage(Stage::Ended);
}

void GuestShareDialog::onFailed(const QString &message)
{
    if (m_stage != Stage::Creating)
        return;
    setStage(Stage::Form);
    setStatus(tr("Could not create the invite: %1").arg(message));
}

// ---------------------------------------------------------------- showing

void GuestShareDialog::setStage(Stage stage)
{
    m_stage = stage;
    const bool form = stage == Stage::Form || stage == Stage::Creating;
    m_pages->setCurrentIndex(form ? 0 : 1);
    for (QWidget *field : {static_cast<QWidget *>(m_port), static_cast<QWidget *>(m_validFor),
                           static_cast<QWidget *>(m_passcodeEdit), static_cast<QWidget *>(m_label),
                           static_cast<QWidget *>(m_web)})
        field->setEnabled(stage == Stage::Form);
    m_create->setEnabled(stage == Stage::Form);
    if (stage == Stage::Form)
        restoreChoices();
    else
        m_relay->setEnabled(false);
    if (stage == Stage::Live) {
        m_clockTimer->start();
        m_refreshTimer->start();
        m_keeper->refreshShares();
    } else {
        m_clockTimer->stop();
        m_refreshTimer->stop();
    }
    if (!form)
        showShare();
}

void GuestShareDialog::showShare()
{
    const bool live = m_stage == Stage::Live;
    m_code->setText(m_share.code);
    m_link->setText(m_share.link);
    QStringList rights;
    if (!m_passcode.isEmpty())
        rights.append(tr("Passcode: %1").arg(m_passcode));
    if (const QString browser = GuestShare::browserRightText(m_share.web); !browser.isEmpty())
        rights.append(browser);
    if (m_share.relay)
        rights.append(tr("Tessaline: real serial port"));
    m_rights->setText(rights.join(QLatin1Char('\n')));
    m_guests->clear();
    m_guests->addItems(guestLines(m_share));
    m_guests->setVisible(live);
    m_ended->setVisible(!live);
    m_copyCode->setEnabled(live);
    m_copyLink->setEnabled(live && !m_share.link.isEmpty());
    m_disconnect->setEnabled(live && m_share.guest && !m_share.guest->relayId.isEmpty());
    m_stop->setVisible(live);
    showTimeLeft();
}

void GuestShareDialog::showTimeLeft()
{
    const qint64 now = m_keeper->now();
    const bool expired = m_share.expiresAt > 0 && m_share.expiresAt <= now;
    m_timeLeft->setVisible(m_stage == Stage::Live);
    m_timeLeft->setText(m_share.expiresAt > 0 ? expiryText(m_share.expiresAt, now) : QString());
    // Past its time the share admits nobody new; another can be made at once.
    m_again->setVisible(m_stage == Stage::Ended || expired);
}

void GuestShareDialog::showOthers()
{
    m_others->clear();
    for (const GuestShare &share : m_keeper->table().listing()) {
        if (share.shareId != m_share.shareId || m_stage != Stage::Live)
            m_others->addItem(otherShareLine(share));
    }
    if (m_others->count() == 0)
        m_others->addItem(tr("Nothing is shared right now."));
}

void GuestShareDialog::setStatus(const QString &text)
{
    m_status->setText(text);
    m_status->setVisible(!text.isEmpty());
}

// ------------------------------------------------------------------ texts

QString GuestShareDialog::timeLeftText(qint64 msLeft)
{
    const qint64 minutes = qMax<qint64>(0, (msLeft + 59999) / 60000);
    if (minutes >= 60)
        return tr("%1 h %2 min").arg(minutes / 60).arg(minutes % 60);
    return tr("%1 min").arg(minutes);
}

QString GuestShareDialog::expiryText(qint64 expiresAtMs, qint64 nowMs)
{
    if (expiresAtMs <= nowMs)
        return tr("Expired — the share admits no new guests.");
    return tr("Expires at %1 (in %2)").arg(clockText(expiresAtMs, nowMs), timeLeftText(expiresAtMs - nowMs));
}

QStringList GuestShareDialog::guestLines(const GuestShare &share)
{
    QStringList lines;
    if (share.guest) {
        const QString since = share.guest->since > 0
            ? QDateTime::fromMSecsSinceEpoch(share.guest->since).toString(QStringLiteral("HH:mm"))
            : QString();
        lines.append(tr("%1 connected since %2").arg(share.guest->name, since));
    }
    if (share.webGuests > 0)
        lines.append(tr("Watching in a browser: %1").arg(share.webGuests));
    if (lines.isEmpty())
        lines.append(tr("Waiting for a guest…"));
    return lines;
}

QString GuestShareDialog::otherShareLine(const GuestShare &share)
{
    const QString what = QStringLiteral("%1 · %2").arg(share.portName, share.code);
    if (share.ended)
        return tr("%1: the share ended (%2).").arg(what, GuestShare::endWordText(share.endReason));
    return tr("%1 · expires %2")
        .arg(what, QDateTime::fromMSecsSinceEpoch(share.expiresAt).toString(QStringLiteral("MM-dd HH:mm")));
}
