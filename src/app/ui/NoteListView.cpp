#include "NoteListView.h"

#include <QApplication>
#include <QDrag>
#include <QMouseEvent>

namespace mossly {

NoteListView::NoteListView(QWidget* parent) : QListView(parent) {}

void NoteListView::mousePressEvent(QMouseEvent* event) {
    const QModelIndex index = indexAt(event->position().toPoint());
    // Modifier clicks extend or toggle the selection at once, as they always do.
    if (event->button() == Qt::LeftButton && event->modifiers() == Qt::NoModifier && index.isValid()) {
        pressed_ = index;
        pressPosition_ = event->position().toPoint();
        event->accept();
        return;
    }
    pressed_ = QPersistentModelIndex();
    QListView::mousePressEvent(event);
}

void NoteListView::mouseMoveEvent(QMouseEvent* event) {
    if (!pressed_.isValid()) {
        QListView::mouseMoveEvent(event);
        return;
    }
    if ((event->buttons() & Qt::LeftButton) &&
        (event->position().toPoint() - pressPosition_).manhattanLength() >= QApplication::startDragDistance()) {
        dragFromPress();
    }
    event->accept();
}

void NoteListView::mouseReleaseEvent(QMouseEvent* event) {
    if (!pressed_.isValid()) {
        QListView::mouseReleaseEvent(event);
        return;
    }
    const QModelIndex index = pressed_;
    pressed_ = QPersistentModelIndex();
    selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
    emit clicked(index);
    event->accept();
}

// The base view knows of no press (it was held back), so it would take the
// second click for a first one.
void NoteListView::mouseDoubleClickEvent(QMouseEvent* event) {
    const QModelIndex index = indexAt(event->position().toPoint());
    if (event->button() != Qt::LeftButton || !index.isValid()) {
        QListView::mouseDoubleClickEvent(event);
        return;
    }
    pressed_ = QPersistentModelIndex();
    selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
    emit doubleClicked(index);
    event->accept();
}

// The rows selected already go together when the pressed one is among them;
// otherwise the pressed row goes alone. The selection stays as it was.
void NoteListView::dragFromPress() {
    const QModelIndex index = pressed_;
    pressed_ = QPersistentModelIndex();
    QModelIndexList rows = selectionModel()->isSelected(index) ? selectionModel()->selectedIndexes() : QModelIndexList{};
    if (rows.isEmpty()) rows = {index};
    auto* drag = new QDrag(this);
    drag->setMimeData(model()->mimeData(rows));
    drag->exec(Qt::CopyAction | Qt::MoveAction, Qt::CopyAction);
}

}  // namespace mossly
