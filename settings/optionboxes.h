#pragma once

#include <QCoreApplication>
#include <QString>

class QComboBox;

// The choices of a pane's option boxes, filled alike in the pane's quick
// strip and in the full settings panel. Each item's data is the value that
// is stored (encodings are stored by name, their text).
class OptionBoxes
{
    Q_DECLARE_TR_FUNCTIONS(OptionBoxes)

public:
    static void addFormats(QComboBox *box);
    // The receive box has always said "LR & CR" for LF CR; both labels stay.
    static void addLineEndings(QComboBox *box, bool receiveLabels);
    static void addChecksums(QComboBox *box);
    static void addEncodings(QComboBox *box);
    static void addTimeUnits(QComboBox *box);

    // The item whose data is value, else the first.
    static void selectValue(QComboBox *box, int value);
    // The encoding of that name; a stored name the list does not offer is
    // added, so it still counts.
    static void selectEncoding(QComboBox *box, const QString &name);
};
