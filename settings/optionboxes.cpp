#include "settings/optionboxes.h"

#include "common/paneoptions.h"
#include "common/wiretextcodecregistry.h"
#include "tools/sendchecksum.h"

#include <QComboBox>

void OptionBoxes::addFormats(QComboBox *box)
{
    box->addItem(tr("Text"), int(MessageFormat::Text));
    box->addItem(tr("Hex"), int(MessageFormat::Hex));
}

void OptionBoxes::addLineEndings(QComboBox *box, bool receiveLabels)
{
    box->addItem(tr("None"), int(LineEnding::None));
    box->addItem(QStringLiteral("CR (\\r)"), int(LineEnding::Cr));
    box->addItem(QStringLiteral("LF (\\n)"), int(LineEnding::Lf));
    box->addItem(QStringLiteral("CR & LF (\\r\\n)"), int(LineEnding::CrLf));
    box->addItem(receiveLabels ? QStringLiteral("LR & CR (\\n\\r)") : QStringLiteral("LF & CR (\\n\\r)"),
                 int(LineEnding::LfCr));
}

void OptionBoxes::addChecksums(QComboBox *box)
{
    const QStringList checksums = sendChecksumLabels();
    for (int i = 0; i < checksums.size(); ++i)
        box->addItem(QCoreApplication::translate("SendChecksum", checksums.at(i).toLatin1().constData()), i);
}

void OptionBoxes::addEncodings(QComboBox *box)
{
    box->addItems(WireTextCodecRegistry::names());
}

void OptionBoxes::addTimeUnits(QComboBox *box)
{
    box->addItem(tr("ms"), int(SendTimeUnit::Milliseconds));
    box->addItem(tr("s"), int(SendTimeUnit::Seconds));
}

void OptionBoxes::selectValue(QComboBox *box, int value)
{
    const int index = box->findData(value);
    box->setCurrentIndex(index >= 0 ? index : 0);
}

void OptionBoxes::selectEncoding(QComboBox *box, const QString &name)
{
    const int index = box->findText(name, Qt::MatchFixedString);
    if (index >= 0) {
        box->setCurrentIndex(index);
    } else {
        box->addItem(name);
        box->setCurrentIndex(box->count() - 1);
    }
}
