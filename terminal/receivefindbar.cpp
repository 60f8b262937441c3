#include "terminal/receivefindbar.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QShortcut>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QToolButton>

namespace {

// Highlighting every match of a huge log would slow each repaint; the count
// stays exact beyond this.
constexpr qsizetype kMaxHighlights = 2000;

qsizetype documentLength(const QTextDocument *doc)
{
    return qMax(0, doc->characterCount() - 1);
}

} // namespace

ReceiveFindBar::ReceiveFindBar(QPlainTextEdit *view, QWidget *parent)
    : QWidget(parent)
    , m_view(view)
{
    setObjectName(QStringLiteral("receiveFindBar"));
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    m_edit = new QLineEdit(this);
    m_edit->setObjectName(QStringLiteral("findEdit"));
    m_edit->setPlaceholderText(tr("Find in received data"));
    m_edit->setClearButtonEnabled(true);
    m_caseBox = new QCheckBox(tr("Match case"), this);
    m_countLabel = new QLabel(this);
    m_countLabel->setMinimumWidth(90);
    m_prevButton = new QToolButton(this);
    m_prevButton->setIcon(QIcon(QStringLiteral(":/images/resource/find_previous.png")));
    m_prevButton->setToolTip(tr("Find previous (Shift+F3)"));
    m_nextButton = new QToolButton(this);
    m_nextButton->setIcon(QIcon(QStringLiteral(":/images/resource/find_next.png")));
    m_nextButton->setToolTip(tr("Find next (F3)"));
    m_closeButton = new QToolButton(this);
    m_closeButton->setText(QStringLiteral("✕"));
    m_closeButton->setToolTip(tr("Close the find bar (Esc)"));
    m_closeButton->setAutoRaise(true);
    layout->addWidget(m_edit, 1);
    layout->addWidget(m_prevButton);
    layout->addWidget(m_nextButton);
    layout->addWidget(m_caseBox);
    layout->addWidget(m_countLabel);
    layout->addWidget(m_closeButton);

    connect(m_edit, &QLineEdit::textChanged, this, &ReceiveFindBar::research);
    connect(m_edit, &QLineEdit::returnPressed, this, &ReceiveFindBar::findNext);
    connect(m_caseBox, &QCheckBox::toggled, this, &ReceiveFindBar::research);
    connect(m_nextButton, &QToolButton::clicked, this, &ReceiveFindBar::findNext);
    connect(m_prevButton, &QToolButton::clicked, this, &ReceiveFindBar::findPrevious);
    connect(m_closeButton, &QToolButton::clicked, this, &ReceiveFindBar::close);
    auto *next = new QShortcut(QKeySequence(Qt::Key_F3), this);
    next->setContext(Qt::WidgetWithChildrenShortcut);
    connect(next, &QShortcut::activated, this, &ReceiveFindBar::findNext);
    auto *prev = new QShortcut(QKeySequence(Qt::SHIFT | Qt::Key_F3), this);
    prev->setContext(Qt::WidgetWithChildrenShortcut);
    connect(prev, &QShortcut::activated, this, &ReceiveFindBar::findPrevious);
    auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    escape->setContext(Qt::WidgetWithChildrenShortcut);
    connect(escape, &QShortcut::activated, this, &ReceiveFindBar::close);
    hide();
    updateLabel();
}

bool ReceiveFindBar::isActive() const
{
    return isVisible() && !m_edit->text().isEmpty();
}

QString ReceiveFindBar::pattern() const
{
    return m_edit->text();
}

void ReceiveFindBar::setPattern(const QString &pattern)
{
    m_edit->setText(pattern);
}

void ReceiveFindBar::open()
{
    show();
    const QString selected = m_view->textCursor().selectedText();
    if (!selected.isEmpty() && !selected.contains(QChar::ParagraphSeparator))
        m_edit->setText(selected);
    m_edit->setFocus();
    m_edit->selectAll();
    research();
}

void ReceiveFindBar::close()
{
    hide();
    m_matches.clear();
    m_current = -1;
    m_view->setExtraSelections({});
    m_view->setFocus();
}

Qt::CaseSensitivity ReceiveFindBar::caseSensitivity() const
{
    return m_caseBox->isChecked() ? Qt::CaseSensitive : Qt::CaseInsensitive;
}

void ReceiveFindBar::research()
{
    m_matches.clear();
    m_current = -1;
    m_searchedUpTo = 0;
    searchFrom(0);
    if (!m_matches.isEmpty()) {
        // Start at the first match after the visible top, like an editor.
        const qsizetype top = m_view->cursorForPosition(QPoint(0, 0)).position();
        m_current = 0;
        for (qsizetype i = 0; i < m_matches.size(); ++i) {
            if (m_matches.at(i) >= top) {
                m_current = i;
                break;
            }
        }
    }
    highlight();
    updateLabel();
}

void ReceiveFindBar::searchFrom(qsizetype from)
{
    const QString needle = m_edit->text();
    QTextDocument *doc = m_view->document();
    const qsizetype length = documentLength(doc);
    if (needle.isEmpty() || !isVisible()) {
        m_searchedUpTo = length;
        return;
    }
    // Start far enough back to catch a match that straddles the old end.
    const qsizetype start = qMax<qsizetype>(0, qMin(from, length) - needle.size() + 1);
    QTextCursor cursor(doc);
    cursor.setPosition(int(start));
    cursor.setPosition(int(length), QTextCursor::KeepAnchor);
    // Block separators come back as U+2029, one character each, so indexes
    // in this text are document positions offset by start.
    const QString text = cursor.selectedText();
    const Qt::CaseSensitivity cs = caseSensitivity();
    qsizetype lastKnown = m_matches.isEmpty() ? -1 : m_matches.constLast();
    for (qsizetype at = text.indexOf(needle, 0, cs); at >= 0; at = text.indexOf(needle, at + needle.size(), cs)) {
        const qsizetype position = start + at;
        if (position <= lastKnown)
            continue;
        // Matches never overlap, as an editor's search does not.
        if (lastKnown >= 0 && position < lastKnown + needle.size())
            continue;
        m_matches.append(position);
        lastKnown = position;
    }
    m_searchedUpTo = length;
}

void ReceiveFindBar::refreshMatches()
{
    if (!isActive())
        return;
    const qsizetype before = m_matches.size();
    searchFrom(m_searchedUpTo);
    if (m_current < 0 && !m_matches.isEmpty())
        m_current = 0;
    if (m_matches.size() != before)
        highlight();
    updateLabel();
}

void ReceiveFindBar::shiftMatches(qsizetype removed)
{
    if (removed <= 0)
        return;
    qsizetype dropped = 0;
    while (dropped < m_matches.size() && m_matches.at(dropped) < removed)
        ++dropped;
    m_matches.remove(0, dropped);
    for (qsizetype &position : m_matches)
        position -= removed;
    m_searchedUpTo = qMax<qsizetype>(0, m_searchedUpTo - removed);
    if (m_current >= 0) {
        m_current -= dropped;
        if (m_current < 0)
            m_current = m_matches.isEmpty() ? -1 : 0;
    }
    if (isVisible()) {
        highlight();
        updateLabel();
    }
}

void ReceiveFindBar::findNext()
{
    if (!isVisible())
        open();
    if (m_matches.isEmpty())
        return;
    m_current = (m_current + 1) % m_matches.size();
    showCurrent(true);
}

void ReceiveFindBar::findPrevious()
{
    if (!isVisible())
        open();
    if (m_matches.isEmpty())
        return;
    m_current = m_current <= 0 ? m_matches.size() - 1 : m_current - 1;
    showCurrent(true);
}

void ReceiveFindBar::showCurrent(bool moveView)
{
    if (m_current < 0 || m_current >= m_matches.size())
        return;
    if (moveView) {
        QTextCursor cursor(m_view->document());
        cursor.setPosition(int(m_matches.at(m_current)));
        cursor.setPosition(int(m_matches.at(m_current) + m_edit->text().size()), QTextCursor::KeepAnchor);
        m_view->setTextCursor(cursor);
        m_view->ensureCursorVisible();
    }
    highlight();
    updateLabel();
}

void ReceiveFindBar::highlight()
{
    QList<QTextEdit::ExtraSelection> selections;
    const qsizetype length = m_edit->text().size();
    QTextCharFormat all;
    all.setBackground(QColor(255, 236, 139));
    QTextCharFormat current;
    current.setBackground(QColor(255, 165, 0));
    const qsizetype first = qMax<qsizetype>(0, m_current - kMaxHighlights / 2);
    const qsizetype last = qMin(m_matches.size(), first + kMaxHighlights);
    for (qsizetype i = first; i < last; ++i) {
        QTextEdit::ExtraSelection s;
        s.cursor = QTextCursor(m_view->document());
        s.cursor.setPosition(int(m_matches.at(i)));
        s.cursor.setPosition(int(m_matches.at(i) + length), QTextCursor::KeepAnchor);
        s.format = i == m_current ? current : all;
        selections.append(s);
    }
    m_view->setExtraSelections(selections);
}

void ReceiveFindBar::updateLabel()
{
    if (m_edit->text().isEmpty())
        m_countLabel->clear();
    else if (m_matches.isEmpty())
        m_countLabel->setText(tr("No matches"));
    else
        m_countLabel->setText(tr("%1 of %2").arg(m_current + 1).arg(m_matches.size()));
    m_prevButton->setEnabled(!m_matches.isEmpty());
    m_nextButton->setEnabled(!m_matches.isEmpty());
}
