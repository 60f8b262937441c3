#pragma once

#include <QString>
#include <QStringView>

// Breaks very long lines for the view only (the data log keeps the text as
// it came): a line with no line end of its own is ended after kMaxLineChars
// characters, so no single line the view must lay out grows without bound
// (the view lays out a whole line again on every append to it, which for
// text in many scripts costs milliseconds per thousand characters).
// The limit is a multiple of three, so hexadecimal ("01 AB ") breaks after
// a space; a surrogate pair is never split.
class DisplayLineBreaker
{
public:
    static constexpr qsizetype kMaxLineChars = 1023;

    QString apply(QStringView text);
    // The view was cleared or a note ended the line.
    void reset() { m_lineLength = 0; }
    qsizetype lineLength() const { return m_lineLength; }

private:
    qsizetype m_lineLength = 0;
};
