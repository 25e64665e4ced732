#pragma once

#include <QStyledItemDelegate>

namespace mossly {

// A note row: title in bold with its date at the right, and below it the
// search excerpt or the note's first line of text.
class NoteListDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

}  // namespace mossly
