#include "terminal/receiveview.h"

#include <QColor>
#include <QElapsedTimer>
#include <QKeyEvent>
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

void ReceiveView::insertAtEnd(const QList<Segment> &segments)
{
    QScrollBar *bar = verticalScrollBar();
    const bool follow = bar->value() >= bar->maximum();
    QTextCursor cursor(document());
    cursor.movePosition(QTextCursor::End);
    cursor.beginEditBlock();
    for (const Segment &segment : segments) {
        if (segment.text.isEmpty())
            continue;
        QTextCharFormat format;
        if (segment.color.isValid())
            format.setForeground(segment.color);
        cursor.insertText(segment.text, format);
    }
    cursor.endEditBlock();
    if (follow || m_justTrimmed) {
        bar->setValue(bar->maximum());
        m_justTrimmed = false;
    }
}

void ReceiveView::appendPlain(const QString &text)
{
    if (!text.isEmpty())
        insertAtEnd({Segment{text, QColor()}});
}

void ReceiveView::appendColored(const QString &text, const QColor &color)
{
    if (!text.isEmpty())
        insertAtEnd({Segment{text, color}});
}

void ReceiveView::appendSegments(const QList<Segment> &segments)
{
    if (!segments.isEmpty())
        insertAtEnd(segments);
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
    // Half the limit goes at a time, which keeps trims rare, but never more
    // than kMaxTrimStep: removing costs time in proportion to what goes, and
    // panes fed at the same rate reach their limits in the same refresh, so
    // large steps would add up to one long stall in a window of many panes.
    // When one drain added more than a step, as many steps go as it takes
    // to get back under the limit, so the document stays bounded under any
    // flood.
    const qsizetype step = qBound<qsizetype>(1, limit / 2, kMaxTrimStep);
    const qsizetype steps = (count - limit + step - 1) / step;
    const qsizetype removed = qMin(steps * step, count);
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

void ReceiveView::keyPressEvent(QKeyEvent *event)
{
    // Copying, selecting and scrolling keep their usual meaning; other keys
    // go to the device.
    if (event->matches(QKeySequence::Copy) || event->matches(QKeySequence::SelectAll)
        || event->matches(QKeySequence::MoveToNextPage) || event->matches(QKeySequence::MoveToPreviousPage)
        || event->matches(QKeySequence::MoveToStartOfDocument) || event->matches(QKeySequence::MoveToEndOfDocument)) {
        QPlainTextEdit::keyPressEvent(event);
        return;
    }
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        Q_EMIT enterPressed();
        return;
    }
    const QString text = event->text();
    if (!text.isEmpty() && (event->modifiers() & (Qt::ControlModifier | Qt::MetaModifier)) == 0) {
        Q_EMIT textTyped(text);
        return;
    }
    QPlainTextEdit::keyPressEvent(event);
}

void ReceiveView::paintEvent(QPaintEvent *event)
{
    QElapsedTimer clock;
    clock.start();
    QPlainTextEdit::paintEvent(event);
    m_slowestPaintMs = qMax(m_slowestPaintMs, clock.elapsed());
}
