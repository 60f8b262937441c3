#include "terminal/displaylinebreaker.h"

QString DisplayLineBreaker::apply(QStringView text)
{
    // The common case: short lines, returned as they are.
    const qsizetype lastBreak = text.lastIndexOf(u'\n');
    const qsizetype firstBreak = text.indexOf(u'\n');
    const qsizetype head = firstBreak < 0 ? text.size() : firstBreak;
    const qsizetype tail = lastBreak < 0 ? 0 : text.size() - lastBreak - 1;
    bool fits = m_lineLength + head <= kMaxLineChars && tail <= kMaxLineChars;
    if (fits && lastBreak >= 0) {
        // Lines between the first and the last line end must fit too.
        qsizetype start = firstBreak + 1;
        while (fits && start <= lastBreak) {
            const qsizetype end = text.indexOf(u'\n', start);
            fits = end - start <= kMaxLineChars;
            start = end + 1;
        }
    }
    if (fits) {
        m_lineLength = lastBreak < 0 ? m_lineLength + head : tail;
        return text.toString();
    }

    QString out;
    out.reserve(text.size() + text.size() / kMaxLineChars + 1);
    qsizetype i = 0;
    while (i < text.size()) {
        const qsizetype room = kMaxLineChars - m_lineLength;
        const qsizetype newline = text.indexOf(u'\n', i);
        const qsizetype lineEnd = newline < 0 ? text.size() : newline;
        if (lineEnd - i <= room) {
            out += text.mid(i, lineEnd - i);
            if (newline < 0) {
                m_lineLength += lineEnd - i;
                break;
            }
            out += u'\n';
            m_lineLength = 0;
            i = newline + 1;
            continue;
        }
        qsizetype cut = i + room;
        if (cut > i && text.at(cut - 1).isHighSurrogate())
            --cut;
        out += text.mid(i, cut - i);
        out += u'\n';
        m_lineLength = 0;
        i = cut;
    }
    return out;
}
