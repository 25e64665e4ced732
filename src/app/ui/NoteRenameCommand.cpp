#include "NoteRenameCommand.h"

#include <QAction>
#include <QListView>
#include <QMenu>
#include <QMenuBar>

#include "EditorPane.h"
#include "LibrarySidebar.h"
#include "MainWindow.h"
#include "NoteRenameDialog.h"
#include "NoteMenuCommands.h"
#include "NoteStore.h"

namespace mossly {

void installRenameCommand(MainWindow& window, NoteStore& store) {
    auto* rename = new QAction(QObject::tr("Rename…"), &window);
    rename->setObjectName(QStringLiteral("renameNoteAction"));
    rename->setShortcut(QKeySequence(Qt::Key_F2));
    // After "New Sketch", among the commands about one note.
    addSelectedNoteCommand(window, store, rename, [](const QAction* a) { return a->text() == QObject::tr("New Sketch"); });

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
