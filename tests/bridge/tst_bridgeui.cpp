// The bridges' widgets: the edit dialog refuses a field with its message,
// the list shows each bridge's state, counters and rates and switches it, a
// linked pane shows its badge, the window restores stored bridges at start
// and opens the list from Tools, and both dialogs can be pictured.

#include "app/mainwindow.h"
#include "app/screenshotdialogs.h"
#include "bridge/bridgeeditdialog.h"
#include "bridge/bridgeengine.h"
#include "bridge/bridgemanager.h"
#include "bridge/bridgesdialog.h"
#include "bridge/bridgestore.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/modbustcpreader.h"
#include "bridge/ratesparkline.h"
#include "bridge/panedirectory.h"
#include "support/settingssandbox.h"
#include "terminal/serialportwidget.h"

#include <QAction>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QTableWidget>
#include <QTcpSocket>
#include <QTest>
#include <QUdpSocket>

namespace {

BridgeRecord gatewayTo(const QString &pane, bool enabled = true)
{
    BridgeRecord record;
    record.name = QStringLiteral("gateway");
    record.enabled = enabled;
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    record.ends[BridgeRecord::kA].listenAddress = QStringLiteral("127.0.0.1");
    record.ends[BridgeRecord::kA].listenPort = 0;
    record.ends[BridgeRecord::kB].pane = pane;
    return record;
}

} // namespace

class BridgeUiTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_sandbox = std::make_unique<SettingsSandbox>(); }
    void init() { m_sandbox->clear(); }

    void editDialogRefusesAFieldWithItsMessage();
    void listShowsStateAndSwitchesBridges();
    void listShowsCountersAndTheRateOfEachSecond();
    void aGatewayShowsItsCountersPerClientAndUnit();
    void aLinkedPaneShowsItsBadge();
    void windowRestoresBridgesAndOpensTheList();
    void dialogsHaveScreenshotNames();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void BridgeUiTest::editDialogRefusesAFieldWithItsMessage()
{
    BridgeEditDialog dialog(gatewayTo(QStringLiteral("ser-/dev/ttyUSB0")), {QStringLiteral("ser-/dev/ttyUSB0")});
    QList<BridgeRecord> accepted;
    Result answer = Result::success();
    dialog.setAcceptor([&](const BridgeRecord &r) {
        accepted.append(r);
        return answer;
    });
    auto *name = dialog.findChild<QLineEdit *>(QStringLiteral("nameEdit"));
    auto *error = dialog.findChild<QLabel *>(QStringLiteral("errorLabel"));
    QVERIFY(name && error);

    name->clear();
    dialog.accept();
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
    QCOMPARE(error->text(), QStringLiteral("Give the bridge a name."));
    QVERIFY(accepted.isEmpty());

    // A delimiter that is not hex, on the framing page.
    name->setText(QStringLiteral("line printer"));
    const QList<QComboBox *> framings = dialog.findChildren<QComboBox *>(QStringLiteral("framingBox"));
    QCOMPARE(framings.size(), 2);
    framings.first()->setCurrentIndex(framings.first()->findData(int(BridgeFramer::Mode::Delimiter)));
    dialog.findChildren<QLineEdit *>(QStringLiteral("delimiterEdit")).first()->setText(QStringLiteral("CR LF"));
    dialog.accept();
    QCOMPARE(error->text(), QStringLiteral("A → B: the delimiter \"CR LF\" is not hex bytes such as 0D 0A."));

    // The owner's own refusal is shown the same way.
    dialog.findChildren<QLineEdit *>(QStringLiteral("delimiterEdit")).first()->setText(QStringLiteral("0d 0a"));
    answer = Result::failure(QStringLiteral("There can be at most 64 bridges."));
    dialog.accept();
    QCOMPARE(error->text(), answer.errorText());
    QCOMPARE(accepted.size(), 1);

    answer = Result::success();
    dialog.accept();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(accepted.size(), 2);
    const BridgeRecord &r = accepted.last();
    QCOMPARE(r.name, QStringLiteral("line printer"));
    QCOMPARE(r.framing[BridgeRecord::kAToB].mode, BridgeFramer::Mode::Delimiter);
    QCOMPARE(r.framing[BridgeRecord::kAToB].delimiter, QByteArray("\r\n"));
    QCOMPARE(r.ends[BridgeRecord::kB].pane, QStringLiteral("ser-/dev/ttyUSB0"));
}

void BridgeUiTest::listShowsStateAndSwitchesBridges()
{
    BridgeManager manager;
    QVERIFY(manager.add(gatewayTo(QStringLiteral("ser-/dev/nothing-here"))));
    BridgesDialog dialog(&manager);
    auto *table = dialog.findChild<QTableWidget *>(QStringLiteral("bridgeTable"));
    auto *stateText = dialog.findChild<QLabel *>(QStringLiteral("stateText"));
    QCOMPARE(table->rowCount(), 1);
    QCOMPARE(dialog.currentIndex(), 0);
    QCOMPARE(table->item(0, BridgesDialog::StateColumn)->text(), QStringLiteral("Waiting"));
    QVERIFY2(stateText->text().contains(QStringLiteral("ser-/dev/nothing-here")), qPrintable(stateText->text()));

    dialog.findChild<QPushButton *>(QStringLiteral("disableButton"))->click();
    QCOMPARE(manager.engine(0)->state(), BridgeEngine::State::Disabled);
    QCOMPARE(table->item(0, BridgesDialog::StateColumn)->text(), QStringLiteral("Disabled"));
    QVERIFY(!manager.engine(0)->record().enabled);
    QVERIFY(dialog.findChild<QPushButton *>(QStringLiteral("enableButton"))->isEnabled());
    dialog.findChild<QPushButton *>(QStringLiteral("enableButton"))->click();
    QCOMPARE(manager.engine(0)->state(), BridgeEngine::State::Waiting);
    // Stored as switched.
    QCOMPARE(QSettings().value(BridgeStore::key(0, QStringLiteral("Enabled"))).toString(), QStringLiteral("true"));

    manager.remove(0);
    QCOMPARE(table->rowCount(), 0);
    QVERIFY(!dialog.findChild<QPushButton *>(QStringLiteral("editButton"))->isEnabled());
}

void BridgeUiTest::listShowsCountersAndTheRateOfEachSecond()
{
    QUdpSocket target;
    QVERIFY(target.bind(QHostAddress::LocalHost, 0));
    BridgeRecord record = gatewayTo({}, false);
    record.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Udp;
    record.ends[BridgeRecord::kB].udpTargets = {QStringLiteral("127.0.0.1:%1").arg(target.localPort())};
    record.direction = BridgeDirection::AToB;
    BridgeManager manager;
    QVERIFY(manager.add(record));
    qint64 now = 500;
    manager.engine(0)->setClock([&now] { return now; });
    manager.setEnabled(0, true);
    QCOMPARE(manager.engine(0)->state(), BridgeEngine::State::Running);
    BridgesDialog dialog(&manager);
    auto *table = dialog.findChild<QTableWidget *>(QStringLiteral("bridgeTable"));
    auto *counters = dialog.findChild<QLabel *>(QStringLiteral("countersAToB"));
    auto *sparkline = dialog.findChild<RateSparkline *>(QStringLiteral("sparklineAToB"));
    QVERIFY(table && counters && sparkline);
    QCOMPARE(table->item(0, BridgesDialog::BToAColumn)->text(), QStringLiteral("—"));

    QTcpSocket client;
    const auto *listener = qobject_cast<ListenerBridgeEnd *>(manager.engine(0)->end(BridgeRecord::kA));
    client.connectToHost(QHostAddress::LocalHost, listener->listeningPort());
    QVERIFY(client.waitForConnected(5000));
    client.write(QByteArray(1500, 'r'));
    QTRY_COMPARE_WITH_TIMEOUT(manager.engine(0)->counters(BridgeRecord::kAToB).bytes, quint64(1500), 5000);
    // The list follows on its own once a second; the second is over now.
    now = 1200;
    const QString bytes = QStringLiteral("Bytes: %1").arg(QLocale().toString(1500));
    QTRY_VERIFY2_WITH_TIMEOUT(counters->text().contains(bytes), qPrintable(counters->text()), 5000);
    QCOMPARE(sparkline->points().size(), RateHistory::kSeconds);
    QCOMPARE(sparkline->points().last(), 1500);
    QCOMPARE(sparkline->points().first(), 0);
    QCOMPARE(table->item(0, BridgesDialog::AToBColumn)->text(), RateSparkline::rateText(1500));
    QCOMPARE(RateSparkline::rateText(1500), QStringLiteral("%1 KB/s").arg(QLocale().toString(1.5, 'f', 1)));
}

void BridgeUiTest::aGatewayShowsItsCountersPerClientAndUnit()
{
    // No pane has the line: every request times out, and is counted so.
    BridgeRecord record = gatewayTo(QStringLiteral("ser-/dev/nowhere"));
    record.kind = BridgeKind::ModbusGateway;
    record.modbus.responseTimeoutMs = 20;
    BridgeManager manager;
    QVERIFY(manager.add(record));
    BridgesDialog dialog(&manager);
    auto *gateway = dialog.findChild<QTableWidget *>(QStringLiteral("gatewayCounters"));
    QVERIFY(gateway);
    QCOMPARE(gateway->rowCount(), 0);

    QTcpSocket client;
    const auto *listener = qobject_cast<ListenerBridgeEnd *>(manager.engine(0)->end(BridgeRecord::kA));
    client.connectToHost(QHostAddress::LocalHost, listener->listeningPort());
    QVERIFY(client.waitForConnected(5000));
    for (quint16 id : {1, 2})
        client.write(ModbusTcpReader::frame(id, 9, QByteArray::fromHex("0300000001")));
    QByteArray replies;
    QTRY_VERIFY_WITH_TIMEOUT((replies += client.readAll()).size() == 2 * 9, 5000);
    QCOMPARE(replies, ModbusTcpReader::frame(1, 9, QByteArray::fromHex("830b"))
                          + ModbusTcpReader::frame(2, 9, QByteArray::fromHex("830b")));
    const QString label = QStringLiteral("127.0.0.1:%1").arg(client.localPort());
    QTRY_COMPARE_WITH_TIMEOUT(gateway->rowCount(), 2, 5000);
    const auto row = [gateway](int r) {
        QStringList cells;
        for (int c = 0; c < gateway->columnCount(); ++c)
            cells.append(gateway->item(r, c)->text());
        return cells;
    };
    QCOMPARE(row(0), (QStringList{QStringLiteral("Client %1").arg(label), "2", "0", "2", "0"}));
    QCOMPARE(row(1), (QStringList{"Unit 9", "2", "0", "2", "0"}));
    QVERIFY(gateway->isVisibleTo(&dialog));
}

void BridgeUiTest::aLinkedPaneShowsItsBadge()
{
    SerialPortWidget pane(1);
    ConnectionConfig config;
    config.portName = QStringLiteral("/dev/tsl-no-such-port");
    pane.applySettings(config, PaneOptions(), {});
    pane.show();
    auto *badge = pane.findChild<QLabel *>(QStringLiteral("bridgeBadge"));
    QVERIFY(badge);
    QVERIFY(!badge->isVisible());
    const int width = pane.width();

    BridgeManager manager;
    manager.panes()->add(pane.session());
    QVERIFY(manager.add(gatewayTo(PaneDirectory::endpointLabel(pane.connectionConfig()))));
    QVERIFY(badge->isVisible());
    QVERIFY2(badge->text().contains(QStringLiteral("gateway")), qPrintable(badge->text()));
    QCOMPARE(pane.width(), width);
    QCOMPARE(manager.engine(0)->state(), BridgeEngine::State::Waiting);

    manager.setEnabled(0, false);
    QVERIFY(!badge->isVisible());
}

void BridgeUiTest::windowRestoresBridgesAndOpensTheList()
{
    {
        // The window's first pane is a serial pane on the last-used port.
        QSettings settings;
        settings.setValue(QStringLiteral("LastPortName"), QStringLiteral("/dev/tsl-gateway-port"));
        BridgeStore::save(settings, {gatewayTo(QStringLiteral("ser-/dev/tsl-gateway-port")),
                                     gatewayTo(QStringLiteral("ser-/dev/other"))});
        settings.setValue(BridgeStore::key(1, QStringLiteral("OverflowPolicy")), QStringLiteral("shrug"));
    }
    MainWindow window;
    QCOMPARE(window.bridges()->count(), 1);
    QVERIFY2(window.statusBar()->currentMessage().contains(QStringLiteral("Stored bridge 2 was skipped")),
             qPrintable(window.statusBar()->currentMessage()));
    SerialPortWidget *pane = window.panes().constFirst();
    QVERIFY2(pane->session()->bridgeLinks() == QStringList{QStringLiteral("gateway")},
             qPrintable(PaneDirectory::endpointLabel(pane->connectionConfig())));
    QCOMPARE(pane->session()->transferRefusal(PortSession::ClientChoice::ChosenByCaller),
             QStringLiteral("The connection is not open."));

    auto *action = window.findChild<QAction *>(QStringLiteral("acToolsBridge"));
    QVERIFY(action);
    QCOMPARE(action->text(), QStringLiteral("Bridges..."));
    QCOMPARE(action->toolTip(), QStringLiteral("Forward data between two ports (network to serial gateway)"));
    action->trigger();
    auto *dialog = window.findChild<BridgesDialog *>();
    QVERIFY(dialog && dialog->isVisible());
    QCOMPARE(dialog->findChild<QTableWidget *>(QStringLiteral("bridgeTable"))->rowCount(), 1);
}

void BridgeUiTest::dialogsHaveScreenshotNames()
{
    const ScreenshotDialogs table = ScreenshotDialogs::standard();
    QWidget parent;
    const std::unique_ptr<QWidget> list(table.create(QStringLiteral("bridges"), &parent));
    QVERIFY(qobject_cast<BridgesDialog *>(list.get()));
    // A picture of the list: a bridge that listens on nothing.
    auto *rows = list->findChild<QTableWidget *>(QStringLiteral("bridgeTable"));
    QCOMPARE(rows->rowCount(), 1);
    QCOMPARE(rows->item(0, BridgesDialog::StateColumn)->text(), QStringLiteral("Disabled"));
    QVERIFY(QSettings().value(BridgeStore::key(0, QStringLiteral("Name"))).isNull());
    const std::unique_ptr<QWidget> edit(table.create(QStringLiteral("bridge-edit"), &parent));
    QVERIFY(qobject_cast<BridgeEditDialog *>(edit.get()));
}

QTEST_MAIN(BridgeUiTest)
#include "tst_bridgeui.moc"
