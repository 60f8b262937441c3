#include "tools/asciicode.h"

#include <QFontDatabase>
#include <QHeaderView>
#include <QTableWidget>
#include <QVBoxLayout>

namespace {

struct ControlCode
{
    const char *abbreviation;
    const char *description;
};

// Codes 0 to 31; 32 and 127 are handled on their own.
constexpr ControlCode controlCodes[32] = {
    {"NUL", QT_TRANSLATE_NOOP("AsciiCode", "\\0 Null character")},
    {"SOH", QT_TRANSLATE_NOOP("AsciiCode", "Start of Header")},
    {"STX", QT_TRANSLATE_NOOP("AsciiCode", "Start of Text")},
    {"ETX", QT_TRANSLATE_NOOP("AsciiCode", "End of Text")},
    {"EOT", QT_TRANSLATE_NOOP("AsciiCode", "End of Transmission")},
    {"ENQ", QT_TRANSLATE_NOOP("AsciiCode", "Enquiry")},
    {"ACK", QT_TRANSLATE_NOOP("AsciiCode", "Acknowledgment")},
    {"BEL", QT_TRANSLATE_NOOP("AsciiCode", "\\a Bell")},
    {"BS", QT_TRANSLATE_NOOP("AsciiCode", "\\b Backspace")},
    {"HT", QT_TRANSLATE_NOOP("AsciiCode", "\\t Horizontal Tab")},
    {"LF", QT_TRANSLATE_NOOP("AsciiCode", "\\n Line feed")},
    {"VT", QT_TRANSLATE_NOOP("AsciiCode", "\\v Vertical Tab")},
    {"FF", QT_TRANSLATE_NOOP("AsciiCode", "\\f Form feed")},
    {"CR", QT_TRANSLATE_NOOP("AsciiCode", "\\r Carriage return")},
    {"SO", QT_TRANSLATE_NOOP("AsciiCode", "Shift Out")},
    {"SI", QT_TRANSLATE_NOOP("AsciiCode", "Shift In")},
    {"DLE", QT_TRANSLATE_NOOP("AsciiCode", "Data Link Escape")},
    {"DC1", QT_TRANSLATE_NOOP("AsciiCode", "Device Control 1 (oft. XON)")},
    {"DC2", QT_TRANSLATE_NOOP("AsciiCode", "Device Control 2")},
    {"DC3", QT_TRANSLATE_NOOP("AsciiCode", "Device Control 3 (oft. XOFF)")},
    {"DC4", QT_TRANSLATE_NOOP("AsciiCode", "Device Control 4")},
    {"NAK", QT_TRANSLATE_NOOP("AsciiCode", "Negative Acknowledgement")},
    {"SYN", QT_TRANSLATE_NOOP("AsciiCode", "Synchronous idle")},
    {"ETB", QT_TRANSLATE_NOOP("AsciiCode", "End of Transmission Block")},
    {"CAN", QT_TRANSLATE_NOOP("AsciiCode", "Cancel")},
    {"EM", QT_TRANSLATE_NOOP("AsciiCode", "End of Medium")},
    {"SUB", QT_TRANSLATE_NOOP("AsciiCode", "Substitute")},
    {"ESC", QT_TRANSLATE_NOOP("AsciiCode", "\\e Escape")},
    {"FS", QT_TRANSLATE_NOOP("AsciiCode", "File Separator")},
    {"GS", QT_TRANSLATE_NOOP("AsciiCode", "Group Separator")},
    {"RS", QT_TRANSLATE_NOOP("AsciiCode", "Record Separator")},
    {"US", QT_TRANSLATE_NOOP("AsciiCode", "Unit Separator")},
};

} // namespace

AsciiCode::AsciiCode(QWidget *parent)
    : QDialog(parent)
    , m_table(new QTableWidget(128, ColumnCount, this))
{
    setObjectName(QStringLiteral("AsciiCode"));
    setWindowTitle(tr("ASCII Code Chart"));
    resize(620, 560);

    m_table->setObjectName(QStringLiteral("asciiTable"));
    m_table->setHorizontalHeaderLabels({tr("Binary"), tr("Decimal"), tr("Hex"), tr("Abbr/Glyph"), tr("Description")});
    m_table->verticalHeader()->setVisible(false);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setAlternatingRowColors(true);
    m_table->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));

    for (int code = 0; code < 128; ++code) {
        const QString cells[ColumnCount] = {
            QString::number(code, 2).rightJustified(8, u'0'),
            QString::number(code),
            QStringLiteral("0x") + QString::number(code, 16).toUpper().rightJustified(2, u'0'),
            glyph(code),
            description(code),
        };
        for (int column = 0; column < ColumnCount; ++column) {
            auto *item = new QTableWidgetItem(cells[column]);
            if (column != DescriptionColumn)
                item->setTextAlignment(Qt::AlignCenter);
            m_table->setItem(code, column, item);
        }
    }
    m_table->resizeColumnsToContents();
    m_table->resizeRowsToContents();
    m_table->horizontalHeader()->setStretchLastSection(true);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_table);
}

QString AsciiCode::glyph(int code)
{
    if (code >= 0 && code < 32)
        return QString::fromLatin1(controlCodes[code].abbreviation);
    if (code == 127)
        return QStringLiteral("DEL");
    if (code > 32 && code < 127)
        return QString(QChar(code));
    return {};
}

QString AsciiCode::description(int code)
{
    if (code >= 0 && code < 32)
        return tr(controlCodes[code].description);
    if (code == 32)
        return tr("Space");
    if (code == 127)
        return tr("Delete");
    return {};
}
