#include "terminal/paneoptionsform.h"

#include "terminal/controllinelights.h"
#include "common/monospacefont.h"
#include "terminal/panequicksettings.h"

#include "terminal/receiveview.h"
#include "terminal/serialportwidgetui.h"
#include "settings/optionboxes.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFont>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QSplitter>

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
    OptionBoxes::selectValue(ui.receiveFormatBox, int(o.receiveFormat));
    OptionBoxes::selectEncoding(ui.receiveEncodingBox, o.receiveEncoding);
    ui.displayTimeBox->setChecked(o.displayTime);
    ui.displaySendBox->setChecked(o.displaySendMsg);
    OptionBoxes::selectValue(ui.rxLineEndingBox, int(o.rxLineEnding));
    ui.autoFeedIntervalSB->setValue(o.autoFeedInterval);
    ui.displayBufferSB->setValue(o.displayBufferSize);
    ui.logSaveBox->setChecked(o.logSaveFlag);
    ui.logFolderEdit->setText(o.logFilePath);
    ui.hexSendBox->setChecked(o.sendFormat == MessageFormat::Hex);
    OptionBoxes::selectEncoding(ui.sendEncodingBox, o.sendEncoding);
    ui.appendLineEndingBox->setChecked(o.txAutoFeedLine);
    OptionBoxes::selectValue(ui.txLineEndingBox, int(o.txLineEnding));
    const bool checksumKnown = ui.sendChecksumBox->findData(o.sendChecksum) >= 0;
    OptionBoxes::selectValue(ui.sendChecksumBox, checksumKnown ? o.sendChecksum : 0);
    OptionBoxes::selectValue(ui.terminalEnterBox, int(o.terminalEnterMode));
    ui.localEchoBox->setChecked(o.localEcho);
    ui.autoSendBox->setChecked(o.autoSend);
    ui.sendIntervelSB->setValue(o.sendInterval);
    OptionBoxes::selectValue(ui.sendTimeUnitBox, int(o.sendTimeUnit));
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
    OptionBoxes::selectEncoding(ui.receiveEncodingBox, receive);
    OptionBoxes::selectEncoding(ui.sendEncodingBox, send);
}

} // namespace PaneOptionsForm
