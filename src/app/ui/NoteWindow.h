#pragma once

#include <QMainWindow>

namespace mossly {

class EditorPane;
class NoteStore;

// A standalone "Note" window for one note. It edits through the store like
// the library window, so both views of a note stay in step; it closes itself
// when the note goes away.
class NoteWindow : public QMainWindow {
    Q_OBJECT
public:
    NoteWindow(NoteStore& store, const QString& url, QWidget* parent = nullptr);

    EditorPane* editorPane() const { return pane_; }
    const QString& noteUrl() const { return url_; }

private:
    void updateTitle();

    NoteStore& store_;
    QString url_;
    EditorPane* pane_;
};

}  // namespace mossly
