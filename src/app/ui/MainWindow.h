#pragma once

#include <QMainWindow>
#include <optional>

#include "NoteContentType.h"

class QMimeData;
class QProgressBar;
class QPushButton;

namespace mossly {

class EditorPane;
class LibrarySidebar;
class NoteStore;
class NoteWindow;
class LinkPreviews;
class MeetingRecorder;

// The library window: sidebar and editor side by side, with the app's menus.
// A thin composition root; behaviour lives in the parts.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(NoteStore& store, QWidget* parent = nullptr);

    LibrarySidebar* sidebar() const { return sidebar_; }
    EditorPane* editorPane() const { return editorPane_; }
    // Opens the note in a standalone window, or raises the one already showing it.
    NoteWindow* openNoteWindow(const QString& url);

    QPushButton* unreadableNotesNotice() const { return unreadableNotice_; }
    LinkPreviews& linkPreviews() const { return *linkPreviews_; }
    QProgressBar* indexProgressBar() const { return indexProgress_; }
    QProgressBar* meaningIndexProgressBar() const { return meaningIndexProgress_; }

    // Adds the meeting recorder's menu commands (the app has one recorder).
    void setMeetingRecorder(MeetingRecorder* recorder);
    MeetingRecorder* meetingRecorder() const { return meetingRecorder_; }

    // Creates an HTML note from what the clipboard holds; false when it holds no HTML.
    bool pasteAsHtmlNote(const QMimeData& data);
    // A new note where the user is looking: in the folder shown, or in the list of all notes.
    std::optional<QString> createNoteHere(const QString& content, NoteContentType contentType);

protected:
    // Note files dropped on the window are imported (the editors take their own drops).
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    QProgressBar* addProgressBar(const QString& name);
    static void showProgress(QProgressBar& bar, int done, int total, bool large, const QString& format);
    void showLaunchNotices();
    void updateUnreadableNotice();
    void showUnreadableNotes();

    NoteStore& store_;
    LibrarySidebar* sidebar_;
    EditorPane* editorPane_;
    QPushButton* unreadableNotice_;
    QProgressBar* importProgress_ = nullptr;
    QProgressBar* indexProgress_;
    QProgressBar* meaningIndexProgress_;
    LinkPreviews* linkPreviews_;
    MeetingRecorder* meetingRecorder_ = nullptr;
};

}  // namespace mossly
