#include "NoteMenuCommands.h"

#include <QMenu>
#include <QMenuBar>

#include "LibrarySidebar.h"
#include "MainWindow.h"
#include "NoteListView.h"
#include "NoteStore.h"

namespace mossly {

namespace {

QMenu* fileMenu(MainWindow& window) {
    for (QAction* action : window.menuBar()->actions()) {
        if (action->menu() && action->text() == QObject::tr("&File")) return action->menu();
    }
    return window.menuBar()->addMenu(QObject::tr("&File"));
}

}  // namespace

void addSelectedNoteCommand(MainWindow& window, NoteStore& store, QAction* command,
                            const std::function<bool(const QAction*)>& placeAfter) {
    QMenu* file = fileMenu(window);
    const QList<QAction*> actions = file->actions();
    QAction* before = nullptr;
    for (qsizetype i = 0; i + 1 < actions.size(); ++i) {
        if (placeAfter(actions[i])) {
            before = actions[i + 1];
            break;
        }
    }
    file->insertAction(before, command);
    window.sidebar()->noteList()->addAction(command);
    const auto updateEnabled = [command, &store] { command->setEnabled(store.selection() && store.note(*store.selection())); };
    QObject::connect(&store, &NoteStore::selectionChanged, command, updateEnabled);
    QObject::connect(&store, &NoteStore::notesChanged, command, updateEnabled);
    updateEnabled();
}

}  // namespace mossly
