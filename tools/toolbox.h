#pragma once

#include "common/result.h"

#include <QByteArray>
#include <QDialog>
#include <QString>

class BulkInputEdit;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QRadioButton;
class QTabWidget;

// Two tools in one dialog: a hex/text converter and a CRC calculator whose
// result can be appended to its input and inserted into a port's send box.
//
// The calculator works only when asked (Calculate), never per keystroke.
// Text of more than a megabyte, pasted or loaded from a file, is held aside
// as it is rather than shown, so even tens of megabytes cost one hash.
class ToolBox : public QDialog
{
    Q_OBJECT

public:
    // Files above this size are refused rather than read into memory.
    static constexpr qint64 kMaxFileBytes = qint64(256) << 20;
    // Frames above this size are not offered to a send box: shown as hex
    // they would be millions of characters to lay out and to parse again.
    static constexpr qsizetype kMaxInsertBytes = qsizetype(1) << 20;

    explicit ToolBox(QWidget *parent = nullptr);

    // Makes the file's bytes the calculator's input, hashed as they are.
    Result loadCrcInputFile(const QString &path);
    // Makes the text the calculator's input without showing it (what a large
    // paste does).
    void setBulkCrcText(const QString &text);
    bool hasBulkCrcInput() const { return m_bulk != Bulk::None; }
    void showCrcCalculator();

    static QString sendChecksumNote();

Q_SIGNALS:
    void insertRequested(const QByteArray &frame);

public Q_SLOTS:
    void on_hexToText_clicked();
    void on_textToHex_clicked();
    void on_calculateCRC_clicked();
    void on_cbResultBase_currentIndexChanged(int index);
    void on_cbByteOrder_currentIndexChanged(int index);
    void on_btnCopyWire_clicked();
    void on_btnInsertFrame_clicked();

private Q_SLOTS:
    void on_btnCopyConverted_clicked();
    void on_btnCopyResult_clicked();
    void on_btnLoadFile_clicked();
    void on_cbName_currentIndexChanged(int index);

private:
    enum class Bulk { None, Text, File };
    struct CustomFields
    {
        QString width, poly, init, xorout;
        bool refin = false, refout = false;
    };

    QWidget *setupConverterTab();
    QWidget *setupCrcTab();
    void showConverterError(const QString &text);
    void showCustomFields(const CustomFields &fields);
    CustomFields customFieldsShown() const;
    // The bytes to hash, from the bulk input or the text box.
    ValueResult<QByteArray> crcInputBytes() const;
    void failCalculation(const QString &text);
    void renderResult();
    // The width the renderings follow: the field's, 0 when it does not parse.
    int enteredWidth() const;
    void clearBulk();
    void updateResultButtons();

    QTabWidget *tabWidget;

    // Converter
    QPlainTextEdit *inputText;
    QPushButton *hexToText;
    QPushButton *textToHex;
    QPlainTextEdit *outputText;
    QPushButton *btnCopyConverted;
    QLabel *converterErrorLabel;

    // CRC calculator
    QRadioButton *rbAscii;
    QRadioButton *rbHex;
    QPushButton *btnLoadFile;
    BulkInputEdit *inputCrc;
    QLabel *crcErrorLabel;
    QComboBox *cbName;
    QLineEdit *leWidth;
    QLineEdit *lePoly;
    QLineEdit *leInit;
    QLineEdit *leXorout;
    QCheckBox *cbRefin;
    QCheckBox *cbRefout;
    QLineEdit *leResult;
    QComboBox *cbResultBase;
    QPushButton *btnCopyResult;
    QLineEdit *leWireBytes;
    QComboBox *cbByteOrder;
    QPushButton *btnCopyWire;
    QPushButton *btnInsertFrame;
    QPushButton *calculateCRC;

    // Calculator state
    Bulk m_bulk = Bulk::None;
    QString m_bulkText;
    QByteArray m_bulkBytes;
    QByteArray m_lastInput;
    quint64 m_lastValue = 0;
    int m_lastWidth = 0;  // the width m_lastValue was computed with
    bool m_resultValid = false;
    int m_shownModel = -1;
    CustomFields m_customFields;
};
