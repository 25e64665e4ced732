#pragma once

#include <QMainWindow>

namespace mossly {

class EditorPane;
class LibrarySidebar;
class NoteStore;

// The library window: sidebar and editor side by side, with the app's menus.
// A thin composition root; behaviour lives in the parts.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(NoteStore& store, QWidget* parent = nullptr);

    LibrarySidebar* sidebar() const { return sidebar_; }
    EditorPane* editorPane() const { return editorPane_; }

private:
    LibrarySidebar* sidebar_;
    EditorPane* editorPane_;
};

}  // namespace mossly
