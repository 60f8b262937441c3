#include "app/screenshotdialogs.h"

#include "app/newconnectiondialog.h"
#include "bridge/bridgeeditdialog.h"
#include "bridge/bridgeengine.h"
#include "bridge/bridgemanager.h"
#include "bridge/bridgesdialog.h"
#include "cloud/accountdialog.h"
#include "cloud/accountsession.h"
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

#include <QSettings>
#include <QTabWidget>

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
