#pragma once

#include <QHash>
#include <QString>
#include <QWebEngineView>

class QWebEngineProfile;

namespace mossly {

class NoteRequestInterceptor;
class NoteStore;
class SketchBridge;

// A sketch note (".tldr") on a tldraw canvas. The page is bundled with the app
// and runs on a profile of its own that keeps nothing on disk; it may load its
// own files and data: and blob: URLs, nothing else. Every change the user
// makes comes back as the note's new text and is saved through the store
// (debounced, revision-checked, conflicts) like any other note; a change made
// elsewhere is shown on the canvas. A file the bundled tldraw cannot read is
// shown read-only and never rewritten.
class SketchNoteView : public QWebEngineView {
    Q_OBJECT
public:
    explicit SketchNoteView(NoteStore& store, QWidget* parent = nullptr);
    ~SketchNoteView() override;

    void showNote(const QString& url);
    // The note's file was renamed (same folder): the drawing stays, strokes go to the new name.
    void followRenamedNote(const QString& url) { url_ = url; }
    // Before quitting: strokes the page has not handed over yet (it waits a quarter
    // of a second after each) are taken now. Waits at most `timeoutMs`.
    void flushPendingStrokes(int timeoutMs = 1000);
    const QString& noteUrl() const { return url_; }

    bool isReady() const { return ready_; }
    // Set when the page could not read the note; the canvas is then read-only.
    const QString& refusal() const { return refusal_; }
    NoteRequestInterceptor& interceptor() const { return *interceptor_; }

    // Where the bundled page lives: beside the program when installed, else the build tree's copy.
    static QString bundleFolder();

signals:
    void pageReady();
    void documentShown();
    // A picture of the note's current revision is in the thumbnail cache.
    void thumbnailFiled(const QString& note);

private:
    void sendDocument();
    void takeEdit(const QString& note, const QString& json);
    bool isDark() const;
    void fileThumbnail(const QString& note);

    NoteStore& store_;
    QWebEngineProfile* profile_;
    NoteRequestInterceptor* interceptor_;
    SketchBridge* bridge_;
    QString url_;
    QString shownText_;  // the note's text as last sent to or received from the page
    QString refusal_;
    bool ready_ = false;
    QHash<QString, QByteArray> pendingThumbnails_;
};

}  // namespace mossly
