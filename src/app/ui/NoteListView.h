#pragma once

#include <QListView>
#include <QPersistentModelIndex>
#include <QPoint>

namespace mossly {

// The note list. Choosing a row opens its note, so a press that may become a
// drag does not choose it yet: a note dragged into the note that is open stays
// out of the editor, and the drop lands in the note the user was writing. A
// press released without moving chooses the row, as a click always has.
class NoteListView : public QListView {
    Q_OBJECT
public:
    explicit NoteListView(QWidget* parent = nullptr);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

private:
    void dragFromPress();

    QPersistentModelIndex pressed_;  // a plain press on a row, not acted on yet
    QPoint pressPosition_;
};

}  // namespace mossly
