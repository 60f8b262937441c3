#pragma once

#include <QDialog>
#include <QString>

class QTableWidget;

// A read-only chart of the 128 ASCII codes: binary, decimal and hex value,
// the glyph or control abbreviation, and what the code means.
class AsciiCode : public QDialog
{
    Q_OBJECT

public:
    explicit AsciiCode(QWidget *parent = nullptr);

    enum Column { BinaryColumn, DecimalColumn, HexColumn, GlyphColumn, DescriptionColumn, ColumnCount };

    // The "Abbr/Glyph" and "Description" cells of one code (0..127).
    static QString glyph(int code);
    static QString description(int code);

private:
    QTableWidget *m_table;
};
