#pragma once

#include <QWidget>

class QLabel;
class QFrame;
class QStackedWidget;

namespace mossly {

class NoteStore;
class PlainNoteEditor;

// The right side of the window: a banner when the open note has a conflict,
// and the editor for the selected note.
class EditorPane : public QWidget {
    Q_OBJECT
public:
    explicit EditorPane(NoteStore& store, QWidget* parent = nullptr);

    PlainNoteEditor* editor() const { return editor_; }
    void setFontPointSize(qreal size);

private:
    void showSelection();
    void updateBanner();

    NoteStore& store_;
    QFrame* banner_;
    QLabel* bannerText_;
    QStackedWidget* stack_;
    QLabel* placeholder_;
    PlainNoteEditor* editor_;
};

}  // namespace mossly
