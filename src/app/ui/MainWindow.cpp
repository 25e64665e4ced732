#include "MainWindow.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QListView>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QSplitter>
#include <QStatusBar>

#include "AppActions.h"
#include "AppIcon.h"
#include "Diagnostics.h"
#include "EditorPane.h"
#include "LaunchNotices.h"
#include "LinkPreviews.h"
#include "LibrarySidebar.h"
#include "LibraryTree.h"
#include "MarkdownTextView.h"
#include "MeetingRecorder.h"
#include "MeetingSessionController.h"
#include "NoteDrops.h"
#include "NoteStore.h"
#include "NoteListModel.h"
#include "NoteHistoryCommands.h"
#include "NoteRenameCommand.h"
#include "NoteWindow.h"
#include "SketchThumbnailRenderer.h"

namespace mossly {

MainWindow::MainWindow(NoteStore& store, QWidget* parent) : QMainWindow(parent), store_(store) {
    linkPreviews_ = new LinkPreviews(LinkPreviews::systemService(), this);
    setWindowTitle(QStringLiteral("Mossly"));
    setWindowIcon(appIcon());
    sidebar_ = new LibrarySidebar(store, this);
    editorPane_ = new EditorPane(store, this);
    editorPane_->markdownEditor()->setLinkPreviews(linkPreviews_);
    auto* splitter = new QSplitter(this);
    splitter->addWidget(sidebar_);
    splitter->addWidget(editorPane_);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({300, 700});
    setCentralWidget(splitter);
    resize(1100, 720);

    installAppActions(*this, store);
    installRenameCommand(*this, store);
    installHistoryCommands(*this, store);
    connect(sidebar_, &LibrarySidebar::openInWindowRequested, this, &MainWindow::openNoteWindow);
    connect(sidebar_, &LibrarySidebar::message, this, [this](const QString& text) { statusBar()->showMessage(text, 10000); });
    connect(editorPane_, &EditorPane::thumbnailFiled, sidebar_->noteList()->viewport(), qOverload<>(&QWidget::update));
    // Sketches nobody has opened get their pictures drawn in the background, as the list shows them.
    auto* thumbnails = new SketchThumbnailRenderer(store, this);
    connect(sidebar_->noteListModel(), &NoteListModel::thumbnailWanted, thumbnails, &SketchThumbnailRenderer::request,
            Qt::QueuedConnection);
    connect(thumbnails, &SketchThumbnailRenderer::thumbnailFiled, sidebar_->noteList()->viewport(),
            qOverload<>(&QWidget::update));
    connect(&store, &NoteStore::problemOccurred, this,
            [this](const QString& message) { statusBar()->showMessage(message, 10000); });
    // Open the most recent note once the library is there, as a user expects.
    const auto openNewest = [&store] {
        if (!store.selection() && !store.notes().empty()) store.select(store.notes().front().url);
    };
    connect(&store, &NoteStore::loadingChanged, this, openNewest);
    connect(&store, &NoteStore::loadingChanged, this, [&store] {
        // Measured by the start-up benchmark: the list is filled in this same event-loop turn.
        DiagnosticsCenter::shared().event(QStringLiteral("Note list shown"),
                                          {{"noteCount", static_cast<qint64>(store.notes().size())},
                                           {"sinceProcessStartMs", millisecondsSinceProcessStart()}});
    });
    openNewest();
    if (store.folderMetadataError()) statusBar()->showMessage(store.folderMetadataError()->description());
    showLaunchNotices();

    // Files that look like notes but cannot be read are never silently missing.
    unreadableNotice_ = new QPushButton(this);
    unreadableNotice_->setObjectName(QStringLiteral("unreadableNotesNotice"));
    unreadableNotice_->setFlat(true);
    statusBar()->addPermanentWidget(unreadableNotice_);
    connect(unreadableNotice_, &QPushButton::clicked, this, &MainWindow::showUnreadableNotes);
    connect(&store, &NoteStore::unreadableNotesChanged, this, &MainWindow::updateUnreadableNotice);

    // A first index of a large library, or importing thousands of files, takes a while: say so, with a bar.
    indexProgress_ = addProgressBar(QStringLiteral("indexProgress"));
    connect(&store, &NoteStore::indexProgress, this, [this](int done, int total) {
        showProgress(*indexProgress_, done, total, total >= 200, tr("Indexing for search: %1 of %2"));
    });
    meaningIndexProgress_ = addProgressBar(QStringLiteral("meaningIndexProgress"));
    connect(&store, &NoteStore::meaningIndexProgress, this, [this](int done, int total) {
        showProgress(*meaningIndexProgress_, done, total, total >= 200, tr("Indexing for meaning search: %1 of %2"));
    });
    importProgress_ = addProgressBar(QStringLiteral("importProgress"));
    connect(&store, &NoteStore::importProgress, this, [this](int done, int total) {
        showProgress(*importProgress_, done, total, total >= 50, tr("Importing notes: %1 of %2"));
    });
    connect(&store, &NoteStore::importFinished, importProgress_, &QWidget::hide);
    updateUnreadableNotice();
    setAcceptDrops(true);
}

QProgressBar* MainWindow::addProgressBar(const QString& name) {
    auto* bar = new QProgressBar(this);
    bar->setObjectName(name);
    bar->setMaximumWidth(220);
    bar->setVisible(false);
    statusBar()->addPermanentWidget(bar);
    return bar;
}

// Shown while work that is worth telling about (`large`) is under way; `format` takes done and total.
void MainWindow::showProgress(QProgressBar& bar, int done, int total, bool large, const QString& format) {
    bar.setVisible(large && done < total);
    bar.setRange(0, std::max(total, 1));
    bar.setValue(done);
    bar.setFormat(format.arg(done).arg(total));
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (!noteFilesIn(*event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
    const QStringList files = noteFilesIn(*event->mimeData());
    if (files.isEmpty()) return;
    store_.importNoteFiles(files);
    event->acceptProposedAction();
}

void MainWindow::setMeetingRecorder(MeetingRecorder* recorder) {
    meetingRecorder_ = recorder;
    // Before Help, which ends every menu bar.
    QMenu* menu = new QMenu(tr("&Meeting"), menuBar());
    const QList<QAction*> menus = menuBar()->actions();
    menuBar()->insertMenu(menus.isEmpty() ? nullptr : menus.last(), menu);
    QAction* open = menu->addAction(tr("Open Meeting Recorder…"));
    open->setShortcut(QKeySequence(QStringLiteral("Shift+Ctrl+R")));
    QAction* stop = menu->addAction(tr("Stop Recording"));
    stop->setShortcut(QKeySequence(QStringLiteral("Shift+Ctrl+.")));
    stop->setEnabled(recorder->isRecording());
    connect(open, &QAction::triggered, recorder, &MeetingRecorder::showWindow);
    connect(stop, &QAction::triggered, recorder, [recorder] { recorder->controller().stop(); });
    connect(recorder, &MeetingRecorder::recordingChanged, stop, &QAction::setEnabled);
    makeShortcutsApplicationWide(*this);  // Stop Recording from the recorder's own window too
    connect(recorder, &MeetingRecorder::openNoteRequested, this, [this](const QString& path) {
        if (const auto url = store_.resolveNoteID(path)) {
            store_.select(*url);
            raise();
            activateWindow();
        }
    });
}

bool MainWindow::pasteAsHtmlNote(const QMimeData& data) {
    const auto html = htmlNoteFrom(data);
    if (!html) {
        statusBar()->showMessage(tr("The clipboard holds no HTML to make a note of."), 10000);
        return false;
    }
    return createNoteHere(*html, NoteContentType::html).has_value();
}

std::optional<QString> MainWindow::createNoteHere(const QString& content, NoteContentType contentType) {
    LibraryTree* tree = sidebar_->tree();
    if (tree->currentScope().kind == LibraryScope::Kind::favorites) tree->showAllNotes();
    return store_.createNote(content, contentType, tree->currentFolder());
}

void MainWindow::updateUnreadableNotice() {
    const auto count = static_cast<int>(store_.unreadableNotes().size());
    unreadableNotice_->setVisible(count > 0);
    unreadableNotice_->setText(tr("%n note(s) could not be opened", nullptr, count));
}

void MainWindow::showUnreadableNotes() {
    QStringList lines;
    for (const UnreadableNote& unreadable : store_.unreadableNotes()) {
        lines.append(QStringLiteral("\u2022 %1: %2").arg(unreadable.identifier, unreadable.reason));
    }
    QMessageBox::information(this, tr("Notes that could not be opened"),
                             tr("These files are left exactly as they are; Mossly never rewrites them.") +
                                 QStringLiteral("\n\n") + lines.join(u'\n'));
}

NoteWindow* MainWindow::openNoteWindow(const QString& url) {
    for (NoteWindow* open : findChildren<NoteWindow*>()) {
        if (open->noteUrl() == url) {
            open->raise();
            open->activateWindow();
            return open;
        }
    }
    if (!store_.note(url)) return nullptr;
    auto* window = new NoteWindow(store_, url, this);
    window->editorPane()->markdownEditor()->setLinkPreviews(linkPreviews_);
    window->editorPane()->setFontPointSize(editorFontSize());  // the same text size as here
    window->show();
    return window;
}

// What the last run had to tell the user but could not (it was quitting).
void MainWindow::showLaunchNotices() {
    const QStringList notices = LaunchNotices::take();
    if (notices.isEmpty()) return;
    auto* box = new QMessageBox(QMessageBox::Information, tr("While Mossly was quitting"), notices.join(u'\n'),
                                QMessageBox::Ok, this);
    box->setObjectName(QStringLiteral("launchNotices"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

}  // namespace mossly
