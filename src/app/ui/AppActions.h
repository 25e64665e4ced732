#pragma once

namespace mossly {

class MainWindow;
class NoteStore;

// Builds the menus and shortcuts of the library window: File (New Note, New
// Sketch, Import Note Files…, Show Notes Folder, Quit), Edit (Search Notes,
// Bold, Italic), View (Make Text Bigger / Smaller) and Help (Check for Updates…).
void installAppActions(MainWindow& window, NoteStore& store);

}  // namespace mossly
