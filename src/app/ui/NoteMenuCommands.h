#pragma once

#include <QAction>
#include <functional>

namespace mossly {

class MainWindow;
class NoteStore;

// Adds a command about the selected note to the File menu, right after the
// action for which `placeAfter` holds (at the end if none does), and to the note
// list's own actions; it is enabled while a note is selected.
void addSelectedNoteCommand(MainWindow& window, NoteStore& store, QAction* command,
                            const std::function<bool(const QAction*)>& placeAfter);

}  // namespace mossly
