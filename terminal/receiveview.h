#pragma once

#include <QPlainTextEdit>

#include <QColor>

#include <utility>

// The pane's receive view. Text only ever enters through end-of-document
// inserts in one edit block, and leaves through trims of the oldest half, so
// a fast device cannot freeze the window. A user who has scrolled up is not
// pulled down by new text.
class ReceiveView : public QPlainTextEdit
{
    Q_OBJECT

public:
    explicit ReceiveView(QWidget *parent = nullptr);

    // A run of text in one colour (an invalid colour means the default).
    struct Segment {
        QString text;
        QColor color;
    };

    // Appends at the end; follows the end when the view was at the bottom
    // before, or when the last trim asked for it.
    void appendPlain(const QString &text);
    // Appends several runs in one edit with one scroll update: far cheaper
    // than one insert per run when a drain brings many chunks.
    void appendSegments(const QList<Segment> &segments);
    void appendColored(const QString &text, const QColor &color);
    // "\n-- note --\n" in the note colour (transfer start and end, etc.).
    void writeNote(const QString &note);

    // Characters in the document (without the final paragraph separator).
    qsizetype characterCount() const;
    // When the document holds more than limit characters, removes the
    // oldest characters half a limit (at most kMaxTrimStep) at a time until
    // it holds no more than the limit, and returns how many went; 0
    // otherwise.
    qsizetype trimIfOver(qsizetype limit);
    static constexpr qsizetype kMaxTrimStep = 16 * 1024;

    bool isFollowingEnd() const;

    // The longest paint since the last call, in milliseconds. Qt lays text
    // out when it is first painted: for text in many scripts that, not the
    // insert, is where the time goes, so the pane's budget must see it.
    qint64 takeSlowestPaintMs() { return std::exchange(m_slowestPaintMs, 0); }

Q_SIGNALS:
    // The first n characters were removed (find matches must shift).
    void trimmed(qsizetype removed);
    // Keys typed into the view, which then acts as a terminal.
    void textTyped(const QString &text);
    void enterPressed();

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void insertAtEnd(const QList<Segment> &segments);

    bool m_justTrimmed = false;
    qint64 m_slowestPaintMs = 0;
};
