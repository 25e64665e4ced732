#pragma once

namespace mossly {

class MainWindow;
class NoteStore;

// File ▸ Show History (Ctrl+Shift+H) for the selected note; the banner above
// the editor when an agent changed the note shown; and the history's notices
// ("could not be saved", "was set aside") in the status bar.
void installHistoryCommands(MainWindow& window, NoteStore& store);

}  // namespace mossly
