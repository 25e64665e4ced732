#include "MainWindow.h"

#include <QMessageBox>
#include <QSplitter>
#include <QStatusBar>

#include "AppActions.h"
#include "AppIcon.h"
#include "Diagnostics.h"
#include "EditorPane.h"
#include "LaunchNotices.h"
#include "LibrarySidebar.h"
#include "NoteStore.h"
#include "NoteWindow.h"

namespace mossly {

MainWindow::MainWindow(NoteStore& store, QWidget* parent) : QMainWindow(parent), store_(store) {
    setWindowTitle(QStringLiteral("Mossly"));
    setWindowIcon(appIcon());
    sidebar_ = new LibrarySidebar(store, this);
    editorPane_ = new EditorPane(store, this);
    auto* splitter = new QSplitter(this);
    splitter->addWidget(sidebar_);
    splitter->addWidget(editorPane_);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({300, 700});
    setCentralWidget(splitter);
    resize(1100, 720);

    installAppActions(*this, store);
    connect(sidebar_, &LibrarySidebar::openInWindowRequested, this, &MainWindow::openNoteWindow);
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
