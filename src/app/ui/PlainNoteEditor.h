#pragma once

#include <QPlainTextEdit>

namespace mossly {

class NoteStore;

// A plain-text editor bound to one note of the store: every change goes to
// the store (which saves it, debounced and revision-checked), and a change
// made elsewhere (another window, the disk) replaces the text. Used for HTML and sketch notes until their
// own views exist; Markdown notes open in MarkdownTextView.
class PlainNoteEditor : public QPlainTextEdit {
    Q_OBJECT
public:
    explicit PlainNoteEditor(NoteStore& store, QWidget* parent = nullptr);

    void showNote(const QString& url);
    // The note's file was renamed: the same text, under its new name.
    void followRenamedNote(const QString& url) { if (!url_.isEmpty()) url_ = url; }
    const QString& noteUrl() const { return url_; }

private:
    void reloadText();

    NoteStore& store_;
    QString url_;
    QString shownText_;  // the text as last taken from or given to the store
    bool loading_ = false;
};

}  // namespace mossly
