#include "tools/bulkinputedit.h"

#include <QMimeData>

BulkInputEdit::BulkInputEdit(QWidget *parent)
    : QPlainTextEdit(parent)
{
}

void BulkInputEdit::insertFromMimeData(const QMimeData *source)
{
    if (source && source->hasText()) {
        QString text = source->text();
        if (text.size() > kInlineLimit) {
            Q_EMIT bulkPasted(text);
            return;
        }
    }
    QPlainTextEdit::insertFromMimeData(source);
}
