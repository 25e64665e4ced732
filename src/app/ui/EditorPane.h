#pragma once

#include <QWidget>
#include <optional>

class QLabel;
class QFrame;
class QPushButton;
class QStackedWidget;

namespace mossly {

class HtmlNoteView;
class SketchNoteView;
class MarkdownTextView;
class NoteNameOffer;
class NoteStore;
class PlainNoteEditor;
class SyncConflictBanner;

// An editor for one note at a time: a banner when the note has a conflict or
// cannot be saved, and the editor for its kind. The library window's pane
// follows the store's selection; a standalone note window shows a fixed note.
// Every view of a note edits it through the store, so two views of one note
// stay in step and there is only ever one writer.
class EditorPane : public QWidget {
    Q_OBJECT
public:
    explicit EditorPane(NoteStore& store, QWidget* parent = nullptr, std::optional<QString> fixedNote = std::nullopt);

    PlainNoteEditor* editor() const { return editor_; }
    MarkdownTextView* markdownEditor() const { return markdownEditor_; }
    // Made when the first HTML note is shown: a web view costs a browser process.
    HtmlNoteView* htmlView() const { return htmlView_; }
    // Made when the first sketch is shown, for the same reason.
    SketchNoteView* sketchView() const { return sketchView_; }
    // Split mode of HTML notes: the source beside the page.
    void setHtmlSplitMode(bool split);
    // Before quitting: edits that web views (a page edited in place, a sketch) still
    // hold are handed to the store, which then saves them with everything else.
    void flushWebEdits();
    bool htmlSplitMode() const { return htmlSplitMode_; }
    // The editor showing the current note, if any.
    QWidget* currentEditor() const;
    const QString& noteUrl() const { return url_; }
    void setFontPointSize(qreal size);
    // The offer to name an "Untitled" note's file after its title.
    NoteNameOffer* nameOffer() const { return offer_; }
    SyncConflictBanner* syncConflictBanner() const { return syncBanner_; }

signals:
    // The note this pane shows is gone (a fixed note that was deleted).
    void noteClosed();
    // A sketch's picture for the note list was drawn.
    void thumbnailFiled(const QString& url);

private:
    void showNote(const QString& url);
    void showSelection();
    void takeStoreText(const QString& url);
    void updateBanners();
    void followRenamedNote(const QString& oldUrl, const QString& newUrl);

    NoteStore& store_;
    std::optional<QString> fixedNote_;
    QFrame* banner_;
    NoteNameOffer* offer_;
    SyncConflictBanner* syncBanner_;
    QLabel* bannerText_;
    QPushButton* reload_;
    QPushButton* keepCopy_;
    QPushButton* retry_;
    QStackedWidget* stack_;
    QLabel* placeholder_;
    PlainNoteEditor* editor_;
    MarkdownTextView* markdownEditor_;
    HtmlNoteView* htmlView_ = nullptr;
    SketchNoteView* sketchView_ = nullptr;
    bool htmlSplitMode_ = false;
    QString url_;
    QString shownMarkdown_;  // the Markdown editor's text as last taken from or given to the store
};

}  // namespace mossly
