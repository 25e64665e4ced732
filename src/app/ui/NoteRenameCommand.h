#pragma once

namespace mossly {

class MainWindow;
class NoteStore;

// File ▸ Rename… (F2): renames the selected note's file. The action is also
// added to the note list's own actions, for its context menu.
void installRenameCommand(MainWindow& window, NoteStore& store);

}  // namespace mossly
