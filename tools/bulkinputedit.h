#pragma once

#include <QPlainTextEdit>

class QMimeData;

// A text box that keeps very large pasted or dropped text out of its
// document: laying out tens of megabytes in one paragraph would freeze the
// window for seconds, while the owner only needs the text itself. Such text
// is handed over through bulkPasted() and the box stays as it was.
class BulkInputEdit : public QPlainTextEdit
{
    Q_OBJECT

public:
    // Characters above which pasted text is handed over instead of shown.
    static constexpr qsizetype kInlineLimit = qsizetype(1) << 20;

    explicit BulkInputEdit(QWidget *parent = nullptr);

Q_SIGNALS:
    void bulkPasted(const QString &text);

protected:
    void insertFromMimeData(const QMimeData *source) override;
};
