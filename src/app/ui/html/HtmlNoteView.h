#pragma once

#include <QTimer>
#include <functional>
#include <QWidget>

class QLabel;
class QSplitter;

namespace mossly {

class HtmlPageView;
class NoteStore;
class PlainNoteEditor;

// An HTML note: its page, rendered under the locked-down policy, and in split
// mode its source beside it, lightly coloured. A clean page can be edited in
// place; its edited body is written back between the author's own body tags. Typing in the source saves
// through the store like any note (debounced, revision-checked) and refreshes
// the page shortly after; unchanged sources cost nothing to show again. What
// is saved is always the author's markup, never the cleaned page: a script in
// a note stays in the file, it just never runs.
class HtmlNoteView : public QWidget {
    Q_OBJECT
public:
    explicit HtmlNoteView(NoteStore& store, QWidget* parent = nullptr);

    void showNote(const QString& url);
    // The note's file was renamed (same folder): the page stays, edits go to the new name.
    void followRenamedNote(const QString& url);
    const QString& noteUrl() const { return url_; }

    // Before quitting: words typed into the page since the last look are taken now.
    void flushPageEdits(int timeoutMs = 1000);

    void setSplitMode(bool split);
    bool splitMode() const { return split_; }

    PlainNoteEditor* sourceEditor() const { return source_; }
    HtmlPageView* pageView() const { return page_; }
    // Elements and attributes the policy removed from the page shown last.
    int blockedElements() const { return blockedElements_; }
    // Whether the page itself can be edited: only when the policy removed
    // nothing from the note (what is edited is then all there is) and its body
    // can be put back between the author's own tags.
    bool isVisuallyEditable() const { return visuallyEditable_; }

    // Hands web links and folders to the desktop; tests put a recorder in its place.
    void setUrlOpener(std::function<bool(const QUrl&)> open) { openUrl_ = std::move(open); }

    static constexpr int refreshDelayMs = 300;
    static constexpr int visualEditPollMs = 150;  // a flag check in the page: cheap

signals:
    void openNoteRequested(const QString& path);
    // A clicked link was not followed; the text says why.
    void refusedLink(const QString& message);

private:
    void render();
    void openLink(const QUrl& url);
    void pageShown(bool ok);
    void showSource();
    void collectVisualEdit(const std::function<void()>& then = {});

    NoteStore& store_;
    QSplitter* splitter_;
    PlainNoteEditor* source_;
    HtmlPageView* page_;
    QTimer refresh_;
    QTimer visualEdits_;
    QLabel* notice_;
    QString url_;
    QString shownSource_;
    bool split_ = false;
    int blockedElements_ = 0;
    bool visuallyEditable_ = false;
    bool collecting_ = false;
    std::function<bool(const QUrl&)> openUrl_;
};

}  // namespace mossly
