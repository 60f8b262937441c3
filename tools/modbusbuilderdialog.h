#pragma once

#include "common/result.h"

#include <QByteArray>
#include <QDialog>

class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

// Fills one Modbus request, shows its frame as the user types and hands the
// frame to the current port's send box. The encoding is ModbusCodec's; this
// class only reads the widgets and shows the outcome.
class ModbusBuilderDialog : public QDialog
{
    Q_OBJECT

public:
    explicit ModbusBuilderDialog(QWidget *parent = nullptr);

    // The frame of the current fields, or why there is none.
    ValueResult<QByteArray> buildFrame() const;
    // Shown by the window that inserts a frame into a port that appends a
    // checksum of its own.
    static QString sendChecksumNote();

Q_SIGNALS:
    void insertRequested(const QByteArray &frame);

private Q_SLOTS:
    void on_btnCopy_clicked();
    void on_btnInsert_clicked();
    void on_btnClose_clicked();

private:
    void setupUi();
    quint8 currentFunction() const;
    // Enables the fields the chosen function uses and sets the values hint.
    void updateFields();
    void updatePreview();

    QComboBox *cbProtocol;
    QSpinBox *sbSlaveId;
    QComboBox *cbFunction;
    QSpinBox *sbAddress;
    QSpinBox *sbQuantity;
    QComboBox *cbCoilValue;
    QLineEdit *leValues;
    QGroupBox *previewGroup;
    QLineEdit *lePreview;
    QLineEdit *leAsciiPreview;
    QLabel *errorLabel;
    QPushButton *btnCopy;
    QPushButton *btnInsert;
    QPushButton *btnClose;

    QByteArray m_frame;  // empty while the fields do not make a request
};
