#pragma once

#include <QList>
#include <QWidget>

class QCheckBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QToolButton;

// The find bar over a pane's receive view: finds the next and previous
// occurrence, counts matches, and keeps its matches valid while text is
// appended at the end and the oldest text is trimmed away.
class ReceiveFindBar : public QWidget
{
    Q_OBJECT

public:
    explicit ReceiveFindBar(QPlainTextEdit *view, QWidget *parent = nullptr);

    bool isActive() const;
    QString pattern() const;
    void setPattern(const QString &pattern);
    qsizetype matchCount() const { return m_matches.size(); }
    qsizetype currentMatch() const { return m_current; }  // -1 when none
    QList<qsizetype> matchPositions() const { return m_matches; }

public Q_SLOTS:
    void open();
    void close();
    void findNext();
    void findPrevious();
    // Searches the text appended since the last refresh.
    void refreshMatches();
    // The first removed characters of the document went away.
    void shiftMatches(qsizetype removed);

private:
    void research();
    void searchFrom(qsizetype from);
    void showCurrent(bool moveView);
    void updateLabel();
    void highlight();
    Qt::CaseSensitivity caseSensitivity() const;

    QPlainTextEdit *m_view;
    QLineEdit *m_edit;
    QCheckBox *m_caseBox;
    QLabel *m_countLabel;
    QToolButton *m_prevButton;
    QToolButton *m_nextButton;
    QToolButton *m_closeButton;
    QList<qsizetype> m_matches;  // document positions of match starts
    qsizetype m_current = -1;
    qsizetype m_searchedUpTo = 0;  // document length at the last search
};
