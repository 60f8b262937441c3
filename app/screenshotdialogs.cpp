#include "app/screenshotdialogs.h"

#include "app/newconnectiondialog.h"
#include "bridge/bridgeeditdialog.h"
#include "bridge/bridgeengine.h"
#include "bridge/bridgemanager.h"
#include "bridge/bridgesdialog.h"
#include "cloud/accountdialog.h"
#include "cloud/accountsession.h"
#include "cloud/guestsharedialog.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/manageguestsharesdialog.h"
#include "cloud/myaccountdialog.h"
#include "cloud/networkservices.h"
#include "cloud/relaytargetdialog.h"
#include "cloud/syncsettingsdialog.h"
#include "app/setconfigfilepathdialog.h"
#include "settings/portsettingsdialog.h"
#include "settings/quicksettingsdialog.h"
#include "tools/asciicode.h"
#include "tools/modbusbuilderdialog.h"
#include "tools/toolbox.h"
#include "transfer/filetransferdialog.h"

#include <QDateTime>
#include <QSettings>
#include <QTabWidget>
#include <QTimer>

namespace {

// A keeper of no real computer for the share dialogs' pictures; the
// dialog takes it as its child.
GuestShareKeeper *pictureKeeper()
{
    return new GuestShareKeeper(NetworkServices::instance(), QStringLiteral("picture"),
                                {[] { return QString(); }, [] { return QStringLiteral("this-computer"); },
                                 [] { return QList<PortSession *>(); }, [] { return true; }, [] { return true; }});
}

GuestShare pictureShare(const QString &code, const QString &device, const QString &port, qint64 expiresInMs)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    GuestShare share;
    share.shareId = code;
    share.code = code;
    share.link = NetworkServices::baseUrl() + QStringLiteral("/join/") + QString(code).remove(QLatin1Char('-'));
    share.cid = QStringLiteral("this-computer");
    share.deviceName = device;
    share.portName = port;
    share.web = QStringLiteral("send");
    share.relay = true;
    share.createdAt = now - 45 * 60000;
    share.expiresAt = now + expiresInMs;
    return share;
}

} // namespace

ScreenshotDialogs ScreenshotDialogs::standard()
{
    ScreenshotDialogs table;
    table.add(QStringLiteral("config-folder"), [](QWidget *parent) -> QWidget * {
        // A settings object owned by the dialog: it lives as long as the picture.
        auto *settings = new QSettings;
        auto *dialog = new SetConfigFilePathDialog(*settings, parent);
        QObject::connect(dialog, &QObject::destroyed, [settings] { delete settings; });
        return dialog;
    });
    table.add(QStringLiteral("toolbox"), [](QWidget *parent) -> QWidget * { return new ToolBox(parent); });
    table.add(QStringLiteral("toolbox-crc"), [](QWidget *parent) -> QWidget * {
        auto *toolBox = new ToolBox(parent);
        toolBox->showCrcCalculator();
        return toolBox;
    });
    table.add(QStringLiteral("ascii"), [](QWidget *parent) -> QWidget * { return new AsciiCode(parent); });
    table.add(QStringLiteral("modbus"), [](QWidget *parent) -> QWidget * { return new ModbusBuilderDialog(parent); });
    table.add(QStringLiteral("file-transfer"), [](QWidget *parent) -> QWidget * {
        ConnectionConfig config;
        config.portName = QStringLiteral("ttyUSB0");
        return new FileTransferDialog(FileTransferSession::Direction::Receive, config, nullptr, parent);
    });
    table.add(QStringLiteral("new-connection"), [](QWidget *parent) -> QWidget * {
        return new NewConnectionDialog(ConnectionConfig{}, ConnectionConfig{}, parent);
    });
    table.add(QStringLiteral("new-connection-network"), [](QWidget *parent) -> QWidget * {
        auto *dialog = new NewConnectionDialog(ConnectionConfig{}, ConnectionConfig{}, parent);
        dialog->showNetworkPage();
        return dialog;
    });
    table.add(QStringLiteral("bridges"), [](QWidget *parent) -> QWidget * {
        // Bridges owned by the dialog, disabled, so that the picture shows a
        // list without listening on anything.
        auto *manager = new BridgeManager;
        manager->setStoring(false);
        BridgeRecord gateway;
        gateway.name = QStringLiteral("PLC gateway");
        gateway.enabled = false;
        gateway.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
        gateway.ends[BridgeRecord::kB].pane = QStringLiteral("ser-/dev/ttyUSB0");
        manager->add(gateway);
        auto *dialog = new BridgesDialog(manager, parent);
        manager->setParent(dialog);
        return dialog;
    });
    table.add(QStringLiteral("bridge-edit"), [](QWidget *parent) -> QWidget * {
        BridgeRecord gateway;
        gateway.name = QStringLiteral("PLC gateway");
        gateway.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
        gateway.ends[BridgeRecord::kB].pane = QStringLiteral("ser-/dev/ttyUSB0");
        return new BridgeEditDialog(gateway, {QStringLiteral("ser-/dev/ttyUSB0"), QStringLiteral("tcpc-10.0.0.5:502")},
                                    parent);
    });
    table.add(QStringLiteral("port-settings"), [](QWidget *parent) -> QWidget * {
        return new PortSettingsDialog(PaneSettings{}, parent);
    });
    table.add(QStringLiteral("port-settings-log"), [](QWidget *parent) -> QWidget * {
        auto *dialog = new PortSettingsDialog(PaneSettings{}, parent);
        if (auto *tabs = dialog->findChild<QTabWidget *>(QStringLiteral("settingsTabs")))
            tabs->setCurrentIndex(2);
        return dialog;
    });
    table.add(QStringLiteral("quick-settings"), [](QWidget *parent) -> QWidget * {
        return new QuickSettingsDialog(QuickSettingsLayout{}, parent);
    });
    table.add(QStringLiteral("sign-in"), [](QWidget *parent) -> QWidget * {
        return new AccountDialog(NetworkServices::instance(), AccountSession::instance(), parent);
    });
    table.add(QStringLiteral("my-account"), [](QWidget *parent) -> QWidget * {
        return new MyAccountDialog(NetworkServices::instance(), AccountSession::instance(), parent);
    });
    table.add(QStringLiteral("relay-target"), [](QWidget *parent) -> QWidget * {
        return new RelayTargetDialog(NetworkServices::instance(), AccountSession::instance(), QString(), parent);
    });
    table.add(QStringLiteral("guest-share"), [](QWidget *parent) -> QWidget * {
        GuestShareKeeper *keeper = pictureKeeper();
        auto *dialog = new GuestShareDialog(keeper, {}, parent);
        keeper->setParent(dialog);
        return dialog;
    });
    table.add(QStringLiteral("guest-share-live"), [](QWidget *parent) -> QWidget * {
        GuestShareKeeper *keeper = pictureKeeper();
        auto *dialog = new GuestShareDialog(keeper, {}, parent);
        keeper->setParent(dialog);
        GuestShare share = pictureShare(QStringLiteral("K7QM-4HXP-2RTA"), {}, QStringLiteral("ttyUSB0"),
                                        (3 * 60 + 12) * 60000);
        share.guest = GuestShare::Guest{QStringLiteral("mei"), QDateTime::currentMSecsSinceEpoch() - 12 * 60000,
                                        QStringLiteral("r1")};
        share.webGuests = 2;
        dialog->watchShare(share);
        return dialog;
    });
    table.add(QStringLiteral("manage-shares"), [](QWidget *parent) -> QWidget * {
        GuestShareKeeper *keeper = pictureKeeper();
        auto *dialog = new ManageGuestSharesDialog(keeper, parent);
        keeper->setParent(dialog);
        QList<GuestShare> shares{pictureShare(QStringLiteral("K7QM-4HXP-2RTA"), QStringLiteral("bench-pc"),
                                              QStringLiteral("ttyUSB0"), 3 * 3600000),
                                 pictureShare(QStringLiteral("9CWD-T3NB-F6YE"), QStringLiteral("bench-pc"),
                                              QStringLiteral("ttyACM1"), 40 * 60000),
                                 pictureShare(QStringLiteral("RXP4-8GQH-MZ2K"), QStringLiteral("lab-gateway"),
                                              QStringLiteral("ttyS0"), 20 * 3600000)};
        shares[0].webGuests = 1;
        shares[0].label = QStringLiteral("Field unit 12");
        shares[1].guest = GuestShare::Guest{QStringLiteral("mei"), 0, {}};
        shares[2].cid = QStringLiteral("another-computer");
        // After the dialog asked, as the service's answer would come.
        QTimer::singleShot(50, keeper, [keeper, shares] { emit keeper->shareOverviewFetched(shares, 1); });
        return dialog;
    });
    table.add(QStringLiteral("sync-settings"), [](QWidget *parent) -> QWidget * { return new SyncSettingsDialog(parent); });
    return table;
}

void ScreenshotDialogs::add(const QString &name, Factory factory)
{
    m_entries.append({name, std::move(factory)});
}

bool ScreenshotDialogs::contains(const QString &name) const
{
    for (const Entry &e : m_entries) {
        if (e.name == name)
            return true;
    }
    return false;
}

QStringList ScreenshotDialogs::names() const
{
    QStringList result;
    for (const Entry &e : m_entries)
        result.append(e.name);
    return result;
}

QWidget *ScreenshotDialogs::create(const QString &name, QWidget *parent) const
{
    for (const Entry &e : m_entries) {
        if (e.name == name)
            return e.factory(parent);
    }
    return nullptr;
}
