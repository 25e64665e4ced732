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
#include "NoteMenuCommands.h"
#include "NoteStore.h"

namespace mossly {

namespace {

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
    // Right after Rename…, with the other commands about one note.
    addSelectedNoteCommand(window, store, show,
                           [](const QAction* a) { return a->objectName() == QStringLiteral("renameNoteAction"); });
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
