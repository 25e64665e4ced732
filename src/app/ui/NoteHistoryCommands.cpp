#include "NoteHistoryCommands.h"

#include <QAction>
#include <QCoreApplication>
#include <QListView>
#include <QMenu>
#include <QMenuBar>
#include <QPointer>
#include <QVBoxLayout>

#include "AgentChangeBanner.h"
#include "EditorPane.h"
#include "LibrarySidebar.h"
#include "MainWindow.h"
#include "NoteHistory.h"
#include "NoteHistoryWindow.h"
#include "NoteStore.h"

namespace mossly {

namespace {

QMenu* fileMenu(MainWindow& window) {
    for (QAction* action : window.menuBar()->actions()) {
        if (action->menu() && action->text() == QObject::tr("&File")) return action->menu();
    }
    return window.menuBar()->addMenu(QObject::tr("&File"));
}

// Right after Rename…, with the other commands about one note.
QAction* insertionPoint(QMenu& file) {
    const QList<QAction*> actions = file.actions();
    for (qsizetype i = 0; i + 1 < actions.size(); ++i) {
        if (actions[i]->objectName() == QStringLiteral("renameNoteAction")) return actions[i + 1];
    }
    return nullptr;
}

void openHistory(MainWindow& window, NoteStore& store, const QString& url, std::optional<QString> revision) {
    if (!store.note(url)) return;
    window.editorPane()->flushWebEdits();
    auto* history = new NoteHistoryWindow(store, url, std::move(revision), &window);
    history->setAttribute(Qt::WA_DeleteOnClose);
    history->open();
}

}  // namespace

void installHistoryCommands(MainWindow& window, NoteStore& store) {
    auto* show = new QAction(QObject::tr("Show History"), &window);
    show->setObjectName(QStringLiteral("showHistoryAction"));
    show->setShortcut(QKeySequence(QStringLiteral("Ctrl+Shift+H")));
    QMenu* file = fileMenu(window);
    file->insertAction(insertionPoint(*file), show);
    window.sidebar()->noteList()->addAction(show);
    const auto updateEnabled = [show, &store] { show->setEnabled(store.selection() && store.note(*store.selection())); };
    QObject::connect(&store, &NoteStore::selectionChanged, show, updateEnabled);
    QObject::connect(&store, &NoteStore::notesChanged, show, updateEnabled);
    updateEnabled();
    QObject::connect(show, &QAction::triggered, &window, [&window, &store] {
        if (store.selection()) openHistory(window, store, *store.selection(), std::nullopt);
    });

    EditorPane* pane = window.editorPane();
    auto* banner = new AgentChangeBanner(store, [pane] { return pane->noteUrl(); }, pane);
    if (auto* layout = qobject_cast<QVBoxLayout*>(pane->layout())) layout->insertWidget(1, banner);
    QObject::connect(banner, &AgentChangeBanner::showChangesRequested, &window,
                     [&window, &store](const QString& url, const QString& revision) {
                         openHistory(window, store, url, revision);
                     });

    // Notices come from whichever thread saved; the status bar shows them on the GUI thread.
    QPointer<NoteStore> guard(&store);
    NoteHistory::setNoticeHandler([guard](const QString& notice) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [guard, notice] { if (guard) emit guard->problemOccurred(notice); },
            Qt::QueuedConnection);
    });
}

}  // namespace mossly
