#include "terminal/receiveview.h"

#include <QColor>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>

ReceiveView::ReceiveView(QWidget *parent)
    : QPlainTextEdit(parent)
{
    setReadOnly(true);
    setUndoRedoEnabled(false);
    setLineWrapMode(QPlainTextEdit::WidgetWidth);
    setWordWrapMode(QTextOption::WrapAnywhere);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
}

bool ReceiveView::isFollowingEnd() const
{
    const QScrollBar *bar = verticalScrollBar();
    return bar->value() >= bar->maximum();
}

void ReceiveView::insertAtEnd(const QString &text, const QTextCharFormat &format)
{
    if (text.isEmpty())
        return;
    QScrollBar *bar = verticalScrollBar();
    const bool follow = bar->value() >= bar->maximum();
    QTextCursor cursor(document());
    cursor.movePosition(QTextCursor::End);
    cursor.beginEditBlock();
    cursor.insertText(text, format);
    cursor.endEditBlock();
    if (follow || m_justTrimmed) {
        bar->setValue(bar->maximum());
        m_justTrimmed = false;
    }
}

void ReceiveView::appendPlain(const QString &text)
{
    insertAtEnd(text, QTextCharFormat());
}

void ReceiveView::appendColored(const QString &text, const QColor &color)
{
    QTextCharFormat format;
    format.setForeground(color);
    insertAtEnd(text, format);
}

void ReceiveView::writeNote(const QString &note)
{
    appendColored(QStringLiteral("\n-- %1 --\n").arg(note), QColor(46, 134, 193));
}

qsizetype ReceiveView::characterCount() const
{
    // QTextDocument counts one trailing paragraph separator of its own.
    return qMax(0, document()->characterCount() - 1);
}

qsizetype ReceiveView::trimIfOver(qsizetype limit)
{
    const qsizetype count = characterCount();
    if (limit <= 0 || count <= limit)
        return 0;
    m_justTrimmed = true;
    QScrollBar *bar = verticalScrollBar();
    const bool atEnd = bar->value() >= bar->maximum();
    const qsizetype removed = qMin(limit / 2, count);
    QTextCursor cursor(document());
    cursor.beginEditBlock();
    cursor.setPosition(0);
    cursor.setPosition(int(removed), QTextCursor::KeepAnchor);
    cursor.removeSelectedText();
    cursor.endEditBlock();
    if (atEnd)
        bar->setValue(bar->maximum());
    Q_EMIT trimmed(removed);
    return removed;
}
