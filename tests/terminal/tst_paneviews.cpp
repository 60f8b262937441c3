#include "settings/connectionsettingswidget.h"
#include "terminal/controllinelights.h"
#include "terminal/ledindicator.h"
#include "common/monospacefont.h"
#include "terminal/receivefindbar.h"
#include "terminal/receiveview.h"

#include <QComboBox>
#include <QLineEdit>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTextBlock>
#include <QToolButton>
#include <QtTest>

class PaneViewsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fontPreferenceTakesFirstInstalled_data();
    void fontPreferenceTakesFirstInstalled();
    void trimRemovesTheOldestInBoundedSteps();
    void followsEndOnlyAtTheBottom();
    void noteIsColouredAndFramed();

    void findCountsAndCycles();
    void findKeepsUpWithAppendsAndTrims();

    void settingsRoundTrip_data();
    void settingsRoundTrip();
    void settingsTypedPortAndDefault();
    void settingsSignalsTellParametersFromReopen();
    void settingsPortRefreshKeepsChoice();

    void activityLightStaysLitLongEnough();
    void controlLinesFollowAvailability();
};

static QString lines(int count, int width)
{
    QString text;
    for (int i = 0; i < count; ++i)
        text += QString(width - 1, QChar(u'a' + i % 26)) + u'\n';
    return text;
}

void PaneViewsTest::fontPreferenceTakesFirstInstalled_data()
{
    QTest::addColumn<QStringList>("installed");
    QTest::addColumn<QString>("chosen");
    QTest::newRow("debian") << QStringList{"DejaVu Sans", "DejaVu Sans Mono", "Liberation Mono"}
                            << "DejaVu Sans Mono";
    QTest::newRow("windows") << QStringList{"Courier New", "Consolas"} << "Consolas";
    QTest::newRow("mac") << QStringList{"Monaco", "Menlo", "SF Mono"} << "Menlo";
    QTest::newRow("case") << QStringList{"noto sans mono"} << "Noto Sans Mono";
    QTest::newRow("none") << QStringList{"Arial"} << "Courier New";
}

void PaneViewsTest::fontPreferenceTakesFirstInstalled()
{
    QFETCH(QStringList, installed);
    QFETCH(QString, chosen);
    QCOMPARE(MonospaceFont::firstInstalled(MonospaceFont::preferenceList(), installed), chosen);
}

void PaneViewsTest::trimRemovesTheOldestInBoundedSteps()
{
    ReceiveView view;
    QSignalSpy trimmed(&view, &ReceiveView::trimmed);
    view.appendPlain(QString(1500, u'x'));
    QCOMPARE(view.characterCount(), 1500);
    QCOMPARE(view.trimIfOver(2000), 0);
    QCOMPARE(view.trimIfOver(1000), 500);
    QCOMPARE(view.characterCount(), 1000);
    QCOMPARE(trimmed.size(), 1);
    QCOMPARE(trimmed.at(0).at(0).value<qsizetype>(), 500);

    // A drain that added far more than half the limit still ends under it,
    // in whole halves.
    view.appendPlain(QString(1800, u'y'));
    QCOMPARE(view.trimIfOver(1000), 2000);
    QCOMPARE(view.characterCount(), 800);

    // The oldest text goes, the newest stays.
    ReceiveView ordered;
    ordered.appendPlain(QString(600, u'a') + QString(600, u'b'));
    ordered.trimIfOver(1000);
    QVERIFY(ordered.toPlainText().startsWith(QString(100, u'a') + u'b'));
    QVERIFY(ordered.toPlainText().endsWith(QString(600, u'b')));

    // A large limit goes a bounded step at a time: removing costs time in
    // proportion to what goes, and many panes may trim in one refresh.
    ReceiveView large;
    const qsizetype step = ReceiveView::kMaxTrimStep;
    const int linesPerStep = int(step / 64);
    large.appendPlain(lines(4 * linesPerStep + 1, 64));
    QCOMPARE(large.trimIfOver(4 * step), step);
    QCOMPARE(large.characterCount(), 3 * step + 64);
    large.appendPlain(lines(2 * linesPerStep, 64));
    QCOMPARE(large.trimIfOver(4 * step), 2 * step);
    QCOMPARE(large.characterCount(), 3 * step + 64);
}

void PaneViewsTest::followsEndOnlyAtTheBottom()
{
    ReceiveView view;
    view.resize(400, 200);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));
    view.appendPlain(lines(200, 20));
    QScrollBar *bar = view.verticalScrollBar();
    QVERIFY(bar->maximum() > 0);
    QCOMPARE(bar->value(), bar->maximum());

    view.appendPlain(lines(50, 20));
    QCOMPARE(bar->value(), bar->maximum());  // at the bottom: follows

    bar->setValue(10);  // the user scrolls up to read
    const int max = bar->maximum();
    view.appendPlain(lines(50, 20));
    QCOMPARE(bar->value(), 10);
    QVERIFY(bar->maximum() > max);

    // A trim asks the next insertion to show the end again.
    view.trimIfOver(view.characterCount() - 10);
    view.appendPlain(QStringLiteral("tail\n"));
    QCOMPARE(bar->value(), bar->maximum());
}

void PaneViewsTest::noteIsColouredAndFramed()
{
    ReceiveView view;
    view.appendPlain(QStringLiteral("data"));
    view.writeNote(QStringLiteral("Transfer started"));
    QCOMPARE(view.toPlainText(), QStringLiteral("data\n-- Transfer started --\n"));
    QTextCursor cursor(view.document()->findBlockByNumber(1));
    cursor.movePosition(QTextCursor::Right);
    QCOMPARE(cursor.charFormat().foreground().color(), QColor(46, 134, 193));
}

void PaneViewsTest::findCountsAndCycles()
{
    ReceiveView view;
    ReceiveFindBar bar(&view);
    view.appendPlain(QStringLiteral("OK\nERROR 1\nok\nerror 2\nERROR 3\n"));
    bar.open();
    bar.setPattern(QStringLiteral("error"));
    QCOMPARE(bar.matchCount(), 3);
    QCOMPARE(bar.currentMatch(), 0);
    bar.findNext();
    QCOMPARE(bar.currentMatch(), 1);
    QCOMPARE(view.textCursor().selectedText(), QStringLiteral("error"));
    bar.findNext();
    bar.findNext();
    QCOMPARE(bar.currentMatch(), 0);  // wraps
    bar.findPrevious();
    QCOMPARE(bar.currentMatch(), 2);

    bar.setPattern(QStringLiteral("nothing"));
    QCOMPARE(bar.matchCount(), 0);
    bar.findNext();  // harmless with no match
    QCOMPARE(bar.currentMatch(), -1);
}

void PaneViewsTest::findKeepsUpWithAppendsAndTrims()
{
    ReceiveView view;
    ReceiveFindBar bar(&view);
    connect(&view, &ReceiveView::trimmed, &bar, &ReceiveFindBar::shiftMatches);
    bar.open();
    bar.setPattern(QStringLiteral("abc"));
    view.appendPlain(QStringLiteral("xxabcxxab"));
    bar.refreshMatches();
    QCOMPARE(bar.matchPositions(), (QList<qsizetype>{2}));
    // A match split over two appends is found once complete.
    view.appendPlain(QStringLiteral("cxxabc"));
    bar.refreshMatches();
    QCOMPARE(bar.matchPositions(), (QList<qsizetype>{2, 7, 12}));

    // Trimming 8 characters drops the first two matches and shifts the third.
    view.appendPlain(QString(5, u'-'));
    QCOMPARE(view.trimIfOver(16), 8);
    QCOMPARE(bar.matchPositions(), (QList<qsizetype>{4}));
    QCOMPARE(view.toPlainText().mid(4, 3), QStringLiteral("abc"));
    view.appendPlain(QStringLiteral("abc"));
    bar.refreshMatches();
    QCOMPARE(bar.matchCount(), 2);
}

void PaneViewsTest::settingsRoundTrip_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("tcp client") << 2;
    QTest::newRow("tcp server") << 1;
    QTest::newRow("udp client") << 5;
    QTest::newRow("udp server") << 4;
    QTest::newRow("rfc 2217") << 7;
    QTest::newRow("relay") << 8;
    QTest::newRow("serial") << 0;
}

void PaneViewsTest::settingsRoundTrip()
{
    QFETCH(int, mode);
    ConnectionSettingsWidget form;
    form.setAvailablePorts({{"/dev/ttyS0", "built-in"}, {"/dev/ttyUSB0", "adapter"}});
    ConnectionConfig c;
    c.mode = connectionModeFromInt(mode);
    c.portName = "/dev/ttyUSB0";
    c.baudRate = 250000;
    c.dataBits = QSerialPort::Data7;
    c.parity = QSerialPort::SpaceParity;
    c.stopBits = QSerialPort::OneAndHalfStop;
    c.flowControl = QSerialPort::HardwareControl;
    c.targetHost = "device.local";
    c.recentTargetHosts = {"device.local", "127.0.0.1"};
    c.targetPort = 4001;
    c.udpLocalPort = 7001;
    c.udpServerPort = 7000;
    c.listenAddress = QHostAddress::LocalHostIPv6;
    c.useRemoteSerialConfig = true;
    c.relayCid = "cid";
    c.relayPortName = "COM4";
    c.relayPortKey = "key";
    c.relayGuestName = "guest";  // not shown, still handed back
    QSignalSpy edits(&form, &ConnectionSettingsWidget::connectionEdited);
    form.setConfig(c);
    QCOMPARE(edits.size(), 0);
    ConnectionConfig back = form.config();
    if (c.mode != ConnectionMode::Serial)
        back.portName = c.portName;  // the port name only belongs to serial mode
    QCOMPARE(back, c);
}

void PaneViewsTest::settingsTypedPortAndDefault()
{
    ConnectionSettingsWidget form;
    form.setAvailablePorts({});
    QCOMPARE(form.listedPortNames(), QStringList{"COM2"});
    ConnectionConfig c;
    c.portName = "COM2";
    form.setConfig(c);
    QCOMPARE(form.findChild<QComboBox *>("portBox")->currentText(), QString("Default (COM2)"));
    QCOMPARE(form.config().portName, QString("COM2"));

    c.portName = "/tmp/ttyTessA";  // a pseudo-terminal the system does not list
    form.setConfig(c);
    QCOMPARE(form.config().mode, ConnectionMode::Serial);
    QCOMPARE(form.config().portName, QString("/tmp/ttyTessA"));
}

void PaneViewsTest::settingsSignalsTellParametersFromReopen()
{
    ConnectionSettingsWidget form;
    form.setAvailablePorts({{"/dev/ttyS0", ""}});
    ConnectionConfig c;
    c.portName = "/dev/ttyS0";
    form.setConfig(c);
    QSignalSpy params(&form, &ConnectionSettingsWidget::serialParametersEdited);
    QSignalSpy reopen(&form, &ConnectionSettingsWidget::connectionEdited);

    auto *parity = form.findChild<QComboBox *>("parityBox");
    parity->setCurrentIndex(parity->findText("Odd"));
    Q_EMIT parity->activated(parity->currentIndex());
    QCOMPARE(params.size(), 1);
    QCOMPARE(reopen.size(), 0);
    QCOMPARE(form.config().parity, QSerialPort::OddParity);

    auto *port = form.findChild<QComboBox *>("portBox");
    port->setCurrentIndex(port->findText("TCP/UDP"));
    QCOMPARE(reopen.size(), 1);
    QCOMPARE(form.config().mode, ConnectionMode::TcpClient);
    auto *modeBox = form.findChild<QComboBox *>("modeBox");
    modeBox->setCurrentIndex(modeBox->findData(4));
    QCOMPARE(reopen.size(), 2);
    QCOMPARE(form.config().mode, ConnectionMode::UdpServer);
}

void PaneViewsTest::settingsPortRefreshKeepsChoice()
{
    ConnectionSettingsWidget form;
    form.setAvailablePorts({{"/dev/ttyS0", ""}, {"/dev/ttyUSB0", ""}});
    ConnectionConfig c;
    c.portName = "/dev/ttyUSB0";
    form.setConfig(c);
    QSignalSpy reopen(&form, &ConnectionSettingsWidget::connectionEdited);
    form.setAvailablePorts({{"/dev/ttyACM0", ""}, {"/dev/ttyUSB0", ""}});
    QCOMPARE(form.config().portName, QString("/dev/ttyUSB0"));
    // The chosen port vanished from the system: the name stays chosen.
    form.setAvailablePorts({{"/dev/ttyACM0", ""}});
    QCOMPARE(form.config().portName, QString("/dev/ttyUSB0"));
    QCOMPARE(reopen.size(), 0);
}

void PaneViewsTest::activityLightStaysLitLongEnough()
{
    LedIndicator light(Qt::green);
    QElapsedTimer clock;
    clock.start();
    light.blink();
    QVERIFY(light.isLit());
    light.switchOff();
    QVERIFY(light.isLit());  // one byte is still visible
    QTRY_VERIFY_WITH_TIMEOUT(!light.isLit(), 3000);
    QVERIFY(clock.elapsed() >= LedIndicator::kMinimumLitMs - 20);
}

void PaneViewsTest::controlLinesFollowAvailability()
{
    ControlLineLights lights;
    auto *dtr = lights.findChild<QToolButton *>("dtrButton");
    auto *rts = lights.findChild<QToolButton *>("rtsButton");
    auto *brk = lights.findChild<QToolButton *>("breakButton");
    QVERIFY(dtr->isEnabled() && rts->isEnabled() && brk->isEnabled());
    QCOMPARE(dtr->toolTip(), QString("Click to toggle the DTR output"));

    lights.setAvailability(ControlLineLights::Availability::RtsByFlowControl);
    QVERIFY(dtr->isEnabled() && !rts->isEnabled());
    QCOMPARE(rts->toolTip(), QString("RTS is driven by RTS/CTS flow control and cannot be set by hand."));

    lights.setAvailability(ControlLineLights::Availability::NoSerialPort);
    QVERIFY(!dtr->isEnabled() && !brk->isEnabled());
    QCOMPARE(brk->toolTip(), QString("Control lines belong to a serial port. This connection does not have one."));

    QSignalSpy toggled(&lights, &ControlLineLights::dtrToggled);
    lights.setAvailability(ControlLineLights::Availability::SerialPort);
    lights.setLevels(true, false);
    QCOMPARE(toggled.size(), 0);  // showing levels is not a user toggle
    dtr->click();
    QCOMPARE(toggled.size(), 1);
    QCOMPARE(toggled.at(0).at(0).toBool(), false);
}

QTEST_MAIN(PaneViewsTest)
#include "tst_paneviews.moc"
