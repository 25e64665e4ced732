#include "MainWindow.h"

#include <QMessageBox>
#include <QSplitter>
#include <QStatusBar>

#include "AppActions.h"
#include "AppIcon.h"
#include "Diagnostics.h"
#include "EditorPane.h"
#include "LibrarySidebar.h"
#include "NoteStore.h"

namespace mossly {

MainWindow::MainWindow(NoteStore& store, QWidget* parent) : QMainWindow(parent) {
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
}

}  // namespace mossly
