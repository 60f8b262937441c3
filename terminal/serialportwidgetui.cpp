#include "terminal/serialportwidgetui.h"

#include "settings/connectionsettingswidget.h"
#include "settings/optionboxes.h"
#include "terminal/controllinelights.h"
#include "common/paneoptions.h"
#include "terminal/receivefindbar.h"
#include "terminal/receiveview.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QSplitter>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

template <typename T>
T *named(T *widget, const char *name)
{
    widget->setObjectName(QLatin1String(name));
    return widget;
}

QToolButton *toolButton(QWidget *parent, const char *name, const QString &icon, const QString &tip)
{
    auto *button = named(new QToolButton(parent), name);
    button->setIcon(QIcon(QStringLiteral(":/images/resource/%1.png").arg(icon)));
    button->setToolTip(tip);
    button->setAutoRaise(true);
    return button;
}

} // namespace

namespace {

QWidget *row(QWidget *parent, std::initializer_list<QWidget *> widgets, bool stretch = true)
{
    auto *holder = new QWidget(parent);
    auto *layout = new QHBoxLayout(holder);
    layout->setContentsMargins(0, 0, 0, 0);
    for (QWidget *w : widgets)
        layout->addWidget(w);
    if (stretch)
        layout->addStretch(1);
    return holder;
}

// Characters an option box keeps visible however narrow the column gets.
constexpr int kMinimumBoxCharacters = 5;

} // namespace

void SerialPortWidgetUi::setupUi(QWidget *pane)
{
    auto *outer = new QVBoxLayout(pane);
    outer->setContentsMargins(2, 2, 2, 2);
    splitter = named(new QSplitter(Qt::Horizontal, pane), "paneSplitter");
    splitter->setChildrenCollapsible(true);
    outer->addWidget(splitter);

    // ---- Options column ----
    auto *scroll = new QScrollArea(splitter);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto *options = new QWidget(scroll);
    auto *optionsLayout = new QVBoxLayout(options);
    optionsLayout->setContentsMargins(2, 2, 6, 2);
    scroll->setWidget(options);

    connectionGroup = named(new QGroupBox(tr("Connection Settings"), options), "connectionGroup");
    auto *connectionLayout = new QVBoxLayout(connectionGroup);
    connectionSettings = named(new ConnectionSettingsWidget(connectionGroup), "connectionSettings");
    connectionLayout->addWidget(connectionSettings);
    indicatorLights = new ControlLineLights(connectionGroup);
    connectionLayout->addWidget(indicatorLights);
    optionsLayout->addWidget(connectionGroup);

    auto *receiveGroup = named(new QGroupBox(tr("Receive Settings"), options), "receiveGroup");
    auto *receiveForm = new QFormLayout(receiveGroup);
    receiveFormatBox = named(new QComboBox(receiveGroup), "receiveFormatBox");
    OptionBoxes::addFormats(receiveFormatBox);
    receiveEncodingBox = named(new QComboBox(receiveGroup), "receiveEncodingBox");
    OptionBoxes::addEncodings(receiveEncodingBox);
    receiveForm->addRow(tr("Format"), row(receiveGroup, {receiveFormatBox, receiveEncodingBox}));
    rxLineEndingBox = named(new QComboBox(receiveGroup), "rxLineEndingBox");
    OptionBoxes::addLineEndings(rxLineEndingBox, true);
    rxLineEndingBox->setToolTip(tr("Start a new line after an idle interval"));
    autoFeedIntervalSB = named(new QSpinBox(receiveGroup), "autoFeedIntervalSB");
    autoFeedIntervalSB->setRange(1, 600000);
    autoFeedIntervalSB->setSuffix(tr(" ms"));
    receiveForm->addRow(tr("Auto Line Feed"), row(receiveGroup, {rxLineEndingBox, autoFeedIntervalSB}));
    displayTimeBox = named(new QCheckBox(tr("Display Time"), receiveGroup), "displayTimeBox");
    displayTimeBox->setToolTip(tr("Prefix received data with a timestamp"));
    receiveForm->addRow(QString(), displayTimeBox);
    displayBufferSB = named(new QSpinBox(receiveGroup), "displayBufferSB");
    displayBufferSB->setRange(1000, 100000000);
    displayBufferSB->setSingleStep(100000);
    displayBufferSB->setToolTip(tr("Characters kept in the view; the oldest half goes when it is full"));
    receiveForm->addRow(tr("Buffer"), displayBufferSB);
    logSaveBox = named(new QCheckBox(tr("Save to Log"), receiveGroup), "logSaveBox");
    logSaveBox->setToolTip(tr("Record everything the view shows into a log file"));
    logFolderEdit = named(new QLineEdit(receiveGroup), "logFolderEdit");
    logFolderEdit->setPlaceholderText(tr("Log folder"));
    logFolderButton = toolButton(receiveGroup, "logFolderButton", QStringLiteral("open"), tr("Choose the log folder"));
    receiveForm->addRow(logSaveBox, row(receiveGroup, {logFolderEdit, logFolderButton}, false));
    optionsLayout->addWidget(receiveGroup);

    auto *sendGroup = named(new QGroupBox(tr("Send Settings"), options), "sendGroup");
    auto *sendForm = new QFormLayout(sendGroup);
    hexSendBox = named(new QCheckBox(tr("Hex"), sendGroup), "hexSendBox");
    sendEncodingBox = named(new QComboBox(sendGroup), "sendEncodingBox");
    OptionBoxes::addEncodings(sendEncodingBox);
    sendForm->addRow(tr("Format"), row(sendGroup, {hexSendBox, sendEncodingBox}));
    // One row per quick-settings field, in the catalogue's order; the
    // quick settings may reorder them.
    autoSendBox = named(new QCheckBox(sendGroup), "autoSendBox");
    autoSendBox->setToolTip(tr("Resend automatically at an interval"));
    sendIntervelSB = named(new QSpinBox(sendGroup), "sendIntervelSB");
    sendIntervelSB->setRange(1, 86400000);
    sendTimeUnitBox = named(new QComboBox(sendGroup), "sendTimeUnitBox");
    OptionBoxes::addTimeUnits(sendTimeUnitBox);
    sendForm->addRow(tr("Loop Send"), row(sendGroup, {autoSendBox, sendIntervelSB, sendTimeUnitBox}));
    appendLineEndingBox = named(new QCheckBox(sendGroup), "appendLineEndingBox");
    appendLineEndingBox->setToolTip(tr("Ending appended to each send"));
    txLineEndingBox = named(new QComboBox(sendGroup), "txLineEndingBox");
    OptionBoxes::addLineEndings(txLineEndingBox, false);
    sendForm->addRow(tr("Append Line Ending"), row(sendGroup, {appendLineEndingBox, txLineEndingBox}));
    terminalEnterBox = named(new QComboBox(sendGroup), "terminalEnterBox");
    OptionBoxes::addLineEndings(terminalEnterBox, false);
    terminalEnterBox->setToolTip(tr("Bytes sent when Enter is pressed in the receive terminal"));
    sendForm->addRow(tr("Enter Sends"), terminalEnterBox);
    sendChecksumBox = named(new QComboBox(sendGroup), "sendChecksumBox");
    OptionBoxes::addChecksums(sendChecksumBox);
    sendChecksumBox->setToolTip(tr("Checksum appended to each send"));
    sendForm->addRow(tr("Append Checksum"), sendChecksumBox);
    displaySendBox = named(new QCheckBox(tr("Display Send"), sendGroup), "displaySendBox");
    displaySendBox->setToolTip(tr("Echo sent data in the display"));
    sendForm->addRow(QString(), displaySendBox);
    localEchoBox = named(new QCheckBox(tr("Local Echo"), sendGroup), "localEchoBox");
    localEchoBox->setToolTip(tr("Echo keys typed into the receive terminal"));
    sendForm->addRow(QString(), localEchoBox);
    cbLinebyLine = named(new QCheckBox(tr("Line by Line"), sendGroup), "cbLinebyLine");
    cbLinebyLine->setToolTip(tr("Send multi-line input line by line"));
    sendForm->addRow(QString(), cbLinebyLine);
    optionsLayout->addWidget(sendGroup);
    optionsLayout->addStretch(1);
    // Two panes side by side must fit a common screen: the column folds a
    // label above its field when a row does not fit beside it, and its boxes
    // give up width (their text is elided) before the pane grows.
    // (Not the connection form: Qt 6.4 does not show a folded row again
    // once it was hidden, and its rows are short.)
    for (QFormLayout *form : {receiveForm, sendForm})
        form->setRowWrapPolicy(QFormLayout::WrapLongRows);
    for (QComboBox *box : options->findChildren<QComboBox *>()) {
        box->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
        box->setMinimumContentsLength(kMinimumBoxCharacters);
    }
    // The column never gets narrower than its widgets; the scroll area then
    // only ever scrolls vertically.
    scroll->setMinimumWidth(options->minimumSizeHint().width() + scroll->verticalScrollBar()->sizeHint().width());
    splitter->addWidget(scroll);

    // ---- Views column ----
    auto *views = new QWidget(splitter);
    auto *viewsLayout = new QVBoxLayout(views);
    viewsLayout->setContentsMargins(0, 0, 0, 0);
    viewsLayout->setSpacing(2);

    auto *toolbar = new QWidget(views);
    auto *toolbarLayout = new QHBoxLayout(toolbar);
    toolbarLayout->setContentsMargins(0, 0, 0, 0);
    statusLabel = named(new QLabel(views), "statusLabel");
    statusLabel->setTextFormat(Qt::RichText);
    // Nothing in the tool bar may widen the pane as it changes: every pane
    // shares the window's width, and a wider pane lays its whole view out
    // again. The status line has a row of its own, so a narrow pane still
    // shows it, and gives way when even that is too short (its tooltip
    // holds all of it); the counters keep room for ten digits.
    statusLabel->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    statusLabel->setMinimumWidth(1);
    txCountLabel = named(new QLabel(toolbar), "txCountLabel");
    rxCountLabel = named(new QLabel(toolbar), "rxCountLabel");
    for (QLabel *counter : {txCountLabel, rxCountLabel}) {
        counter->setMinimumWidth(counter->fontMetrics().horizontalAdvance(tr("Rx: %L1 Bytes").arg(9999999999LL)));
        counter->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    }
    resetCountersButton = toolButton(toolbar, "resetCountersButton", QStringLiteral("clear_history"), tr("Reset the byte counters"));
    pauseButton = toolButton(toolbar, "pauseButton", QStringLiteral("pause"), tr("Pause the display; received data is kept"));
    pauseButton->setCheckable(true);
    clearButton = toolButton(toolbar, "clearButton", QStringLiteral("cleanport"), tr("Clear the display"));
    findButton = toolButton(toolbar, "findButton", QStringLiteral("find"), tr("Find in received data (Ctrl+F)"));
    toolbarLayout->addStretch(1);
    toolbarLayout->addWidget(txCountLabel);
    toolbarLayout->addWidget(rxCountLabel);
    toolbarLayout->addWidget(resetCountersButton);
    toolbarLayout->addWidget(pauseButton);
    toolbarLayout->addWidget(clearButton);
    toolbarLayout->addWidget(findButton);
    viewsLayout->addWidget(statusLabel);
    viewsLayout->addWidget(toolbar);

    errorLabel = named(new QLabel(views), "errorLabel");
    errorLabel->setStyleSheet(QStringLiteral("color: #b00020;"));
    errorLabel->setWordWrap(true);
    errorLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    errorLabel->hide();
    viewsLayout->addWidget(errorLabel);

    stripLayout = new QVBoxLayout;
    stripLayout->setContentsMargins(0, 0, 0, 0);
    viewsLayout->addLayout(stripLayout);
    // A strip, not a tool bar item: showing it changes the pane's height,
    // never its width.
    bridgeBadge = named(new QLabel(views), "bridgeBadge");
    bridgeBadge->setStyleSheet(QStringLiteral("color: #1f618d; background: #eaf2f8; padding: 1px 4px;"));
    bridgeBadge->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    bridgeBadge->hide();
    stripLayout->addWidget(bridgeBadge);

    viewSplitter = named(new QSplitter(Qt::Vertical, views), "viewSplitter");
    viewSplitter->setChildrenCollapsible(false);
    auto *receiveHolder = new QWidget(viewSplitter);
    auto *receiveLayout = new QVBoxLayout(receiveHolder);
    receiveLayout->setContentsMargins(0, 0, 0, 0);
    receiveLayout->setSpacing(0);
    receiveView = named(new ReceiveView(receiveHolder), "receiveView");
    receiveView->setContextMenuPolicy(Qt::CustomContextMenu);
    findBar = new ReceiveFindBar(receiveView, receiveHolder);
    receiveLayout->addWidget(findBar);
    receiveLayout->addWidget(receiveView, 1);
    viewSplitter->addWidget(receiveHolder);

    auto *sendHolder = new QWidget(viewSplitter);
    auto *sendLayout = new QVBoxLayout(sendHolder);
    sendLayout->setContentsMargins(0, 0, 0, 0);
    auto *historyRow = new QHBoxLayout;
    targetBox = named(new QComboBox(sendHolder), "targetBox");
    targetBox->setToolTip(tr("Where the data goes"));
    targetBox->hide();
    sendBox = named(new QComboBox(sendHolder), "sendBox");
    sendBox->setToolTip(tr("Texts sent before; choose one to send it again"));
    sendBox->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    sendBox->setMinimumContentsLength(20);
    historyRow->addWidget(targetBox);
    historyRow->addWidget(sendBox, 1);
    sendLayout->addLayout(historyRow);
    auto *inputRow = new QHBoxLayout;
    sendTextEdit = named(new QPlainTextEdit(sendHolder), "sendTextEdit");
    sendTextEdit->setPlaceholderText(tr("Text to send; Ctrl+Enter sends"));
    inputRow->addWidget(sendTextEdit, 1);
    auto *buttons = new QVBoxLayout;
    sendButton = named(new QPushButton(sendHolder), "sendButton");
    sendButton->setIcon(QIcon(QStringLiteral(":/images/resource/send.png")));
    sendButton->setDefault(true);
    closeButton = named(new QPushButton(tr("Close"), sendHolder), "closeButton");
    closeButton->setIcon(QIcon(QStringLiteral(":/images/resource/stop.png")));
    buttons->addWidget(sendButton);
    buttons->addWidget(closeButton);
    buttons->addStretch(1);
    inputRow->addLayout(buttons);
    sendLayout->addLayout(inputRow, 1);
    viewSplitter->addWidget(sendHolder);
    viewSplitter->setStretchFactor(0, 4);
    viewSplitter->setStretchFactor(1, 1);
    viewsLayout->addWidget(viewSplitter, 1);
    splitter->addWidget(views);
    splitter->setStretchFactor(0, 1);
    splitter->setStretchFactor(1, 5);
}
