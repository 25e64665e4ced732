#pragma once

#include <QWidget>

class QLabel;
class QLineEdit;
class QListView;

namespace mossly {

class LibraryTree;
class NoteListModel;
class NoteStore;

// The left side of the window: the search field, the library tree and the note list.
class LibrarySidebar : public QWidget {
    Q_OBJECT
public:
    explicit LibrarySidebar(NoteStore& store, QWidget* parent = nullptr);

    QLineEdit* searchField() const { return search_; }
    QListView* noteList() const { return list_; }
    NoteListModel* noteListModel() const { return model_; }
    LibraryTree* tree() const { return tree_; }
    void focusSearch();

signals:
    // The user asked for a note in a window of its own (double click, context menu).
    void openInWindowRequested(const QString& url);
    // Something to tell the user in passing (the window's status bar shows it).
    void message(const QString& text);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void showNoteMenu(const QPoint& position);
    void followSelection();
    void searchSettled();
    void updateEmptyState();
    QStringList selectedUrls() const;
    void trashNotes(const QStringList& urls);

    NoteStore& store_;
    QLineEdit* search_;
    LibraryTree* tree_;
    NoteListModel* model_;
    QListView* list_;
    QLabel* emptyState_;
    bool searchChoosesNote_ = false;  // the user changed the search; its results pick the note shown
};

}  // namespace mossly
