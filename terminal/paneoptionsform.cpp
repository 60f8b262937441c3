#include "terminal/paneoptionsform.h"

#include "terminal/controllinelights.h"
#include "common/monospacefont.h"
#include "terminal/panequicksettings.h"

#include "terminal/receiveview.h"
#include "terminal/serialportwidgetui.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFont>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QSplitter>

namespace {

void selectData(QComboBox *box, int value)
{
    const int index = box->findData(value);
    box->setCurrentIndex(index >= 0 ? index : 0);
}

void selectText(QComboBox *box, const QString &text)
{
    const int index = box->findText(text, Qt::MatchFixedString);
    if (index >= 0) {
        box->setCurrentIndex(index);
    } else {
        // A stored encoding the list does not offer still counts.
        box->addItem(text);
        box->setCurrentIndex(box->count() - 1);
    }
}

} // namespace

namespace PaneOptionsForm {

bool show(SerialPortWidgetUi &ui, const PaneOptions &o)
{
    const QSignalBlocker blockers[] = {
        QSignalBlocker(ui.receiveFormatBox), QSignalBlocker(ui.receiveEncodingBox),
        QSignalBlocker(ui.displayTimeBox), QSignalBlocker(ui.displaySendBox),
        QSignalBlocker(ui.rxLineEndingBox), QSignalBlocker(ui.autoFeedIntervalSB),
        QSignalBlocker(ui.displayBufferSB), QSignalBlocker(ui.logSaveBox), QSignalBlocker(ui.logFolderEdit),
        QSignalBlocker(ui.hexSendBox), QSignalBlocker(ui.sendEncodingBox),
        QSignalBlocker(ui.appendLineEndingBox), QSignalBlocker(ui.txLineEndingBox),
        QSignalBlocker(ui.sendChecksumBox), QSignalBlocker(ui.terminalEnterBox),
        QSignalBlocker(ui.localEchoBox), QSignalBlocker(ui.autoSendBox), QSignalBlocker(ui.sendIntervelSB),
        QSignalBlocker(ui.sendTimeUnitBox), QSignalBlocker(ui.cbLinebyLine),
    };
    selectData(ui.receiveFormatBox, int(o.receiveFormat));
    selectText(ui.receiveEncodingBox, o.receiveEncoding);
    ui.displayTimeBox->setChecked(o.displayTime);
    ui.displaySendBox->setChecked(o.displaySendMsg);
    selectData(ui.rxLineEndingBox, int(o.rxLineEnding));
    ui.autoFeedIntervalSB->setValue(o.autoFeedInterval);
    ui.displayBufferSB->setValue(o.displayBufferSize);
    ui.logSaveBox->setChecked(o.logSaveFlag);
    ui.logFolderEdit->setText(o.logFilePath);
    ui.hexSendBox->setChecked(o.sendFormat == MessageFormat::Hex);
    selectText(ui.sendEncodingBox, o.sendEncoding);
    ui.appendLineEndingBox->setChecked(o.txAutoFeedLine);
    selectData(ui.txLineEndingBox, int(o.txLineEnding));
    const bool checksumKnown = ui.sendChecksumBox->findData(o.sendChecksum) >= 0;
    selectData(ui.sendChecksumBox, checksumKnown ? o.sendChecksum : 0);
    selectData(ui.terminalEnterBox, int(o.terminalEnterMode));
    ui.localEchoBox->setChecked(o.localEcho);
    ui.autoSendBox->setChecked(o.autoSend);
    ui.sendIntervelSB->setValue(o.sendInterval);
    selectData(ui.sendTimeUnitBox, int(o.sendTimeUnit));
    ui.cbLinebyLine->setChecked(o.lineByLine);
    const QFont font = MonospaceFont::make(o.fontFamily, o.fontSize, o.fontWeight);
    ui.indicatorLights->setVisible(o.showControlLineLeds && PaneQuickSettings::lightsWanted(ui));
    ui.receiveView->setFont(font);
    ui.sendTextEdit->setFont(font);
    if (o.splitterLeft > 0 || o.splitterRight > 0)
        ui.splitter->setSizes({o.splitterLeft, o.splitterRight});
    return checksumKnown;
}

PaneOptions read(const SerialPortWidgetUi &ui, PaneOptions o)
{
    o.receiveFormat = MessageFormat(ui.receiveFormatBox->currentData().toInt());
    o.displayTime = ui.displayTimeBox->isChecked();
    o.displaySendMsg = ui.displaySendBox->isChecked();
    o.rxLineEnding = LineEnding(ui.rxLineEndingBox->currentData().toInt());
    o.rxAutoFeedLine = o.rxLineEnding != LineEnding::None;
    o.autoFeedInterval = ui.autoFeedIntervalSB->value();
    o.displayBufferSize = ui.displayBufferSB->value();
    o.logFilePath = ui.logFolderEdit->text().trimmed();
    o.sendFormat = ui.hexSendBox->isChecked() ? MessageFormat::Hex : MessageFormat::Text;
    o.txAutoFeedLine = ui.appendLineEndingBox->isChecked();
    o.txLineEnding = LineEnding(ui.txLineEndingBox->currentData().toInt());
    o.sendChecksum = ui.sendChecksumBox->currentData().toInt();
    o.terminalEnterMode = LineEnding(ui.terminalEnterBox->currentData().toInt());
    o.localEcho = ui.localEchoBox->isChecked();
    o.autoSend = ui.autoSendBox->isChecked();
    o.sendInterval = ui.sendIntervelSB->value();
    o.sendTimeUnit = SendTimeUnit(ui.sendTimeUnitBox->currentData().toInt());
    o.lineByLine = ui.cbLinebyLine->isChecked();
    o.receiveEncoding = ui.receiveEncodingBox->currentText();
    o.sendEncoding = ui.sendEncodingBox->currentText();
    const QList<int> sizes = ui.splitter->sizes();
    if (sizes.size() == 2 && (sizes.at(0) > 0 || sizes.at(1) > 0)) {
        o.splitterLeft = sizes.at(0);
        o.splitterRight = sizes.at(1);
    }
    return o;
}

void showEncodings(SerialPortWidgetUi &ui, const QString &receive, const QString &send)
{
    const QSignalBlocker rx(ui.receiveEncodingBox), tx(ui.sendEncodingBox);
    selectText(ui.receiveEncodingBox, receive);
    selectText(ui.sendEncodingBox, send);
}

} // namespace PaneOptionsForm
