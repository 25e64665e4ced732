#include "NoteRenameCommand.h"

#include <QAction>
#include <QListView>
#include <QMenu>
#include <QMenuBar>

#include "EditorPane.h"
#include "LibrarySidebar.h"
#include "MainWindow.h"
#include "NoteRenameDialog.h"
#include "NoteStore.h"

namespace mossly {

namespace {

QMenu* fileMenu(MainWindow& window) {
    for (QAction* action : window.menuBar()->actions()) {
        if (action->menu() && action->text() == QObject::tr("&File")) return action->menu();
    }
    return window.menuBar()->addMenu(QObject::tr("&File"));
}

// After "New Sketch", among the commands about one note.
QAction* insertionPoint(QMenu& file) {
    const QList<QAction*> actions = file.actions();
    for (qsizetype i = 0; i + 1 < actions.size(); ++i) {
        if (actions[i]->text() == QObject::tr("New Sketch")) return actions[i + 1];
    }
    return nullptr;
}

}  // namespace

void installRenameCommand(MainWindow& window, NoteStore& store) {
    auto* rename = new QAction(QObject::tr("Rename…"), &window);
    rename->setObjectName(QStringLiteral("renameNoteAction"));
    rename->setShortcut(QKeySequence(Qt::Key_F2));
    QMenu* file = fileMenu(window);
    file->insertAction(insertionPoint(*file), rename);
    window.sidebar()->noteList()->addAction(rename);

    const auto updateEnabled = [rename, &store] { rename->setEnabled(store.selection() && store.note(*store.selection())); };
    QObject::connect(&store, &NoteStore::selectionChanged, rename, updateEnabled);
    QObject::connect(&store, &NoteStore::notesChanged, rename, updateEnabled);
    updateEnabled();

    QObject::connect(rename, &QAction::triggered, &window, [&window, &store] {
        if (!store.selection() || !store.note(*store.selection())) return;
        // Words still inside a web view belong to the note before it changes its name.
        window.editorPane()->flushWebEdits();
        auto* dialog = new NoteRenameDialog(store, *store.selection(), &window);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->open();
    });
}

}  // namespace mossly
