#pragma once

#include <QWidget>

class QLabel;
class QFrame;
class QStackedWidget;

namespace mossly {

class MarkdownTextView;
class NoteStore;
class PlainNoteEditor;

// The right side of the window: a banner when the open note has a conflict,
// and the editor for the selected note.
class EditorPane : public QWidget {
    Q_OBJECT
public:
    explicit EditorPane(NoteStore& store, QWidget* parent = nullptr);

    PlainNoteEditor* editor() const { return editor_; }
    MarkdownTextView* markdownEditor() const { return markdownEditor_; }
    // The editor showing the current note, if any.
    QWidget* currentEditor() const;
    const QString& noteUrl() const { return url_; }
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
    MarkdownTextView* markdownEditor_;
    QString url_;
};

}  // namespace mossly
