#pragma once

#include <QtGlobal>

namespace mossly {

class MainWindow;
class NoteStore;

// Builds the menus and shortcuts of the library window: File (New Note, New
// Sketch, Import Note Files…, Show Notes Folder, Close Window, Quit), Edit
// (Search Notes, Bold, Italic), View (Make Text Bigger / Smaller) and Help
// (Check for Updates…). Their shortcuts work in every window of the app, on
// the editor that has the focus.
void installAppActions(MainWindow& window, NoteStore& store);

// Gives the menu bar's shortcuts to every window of the app (note windows,
// the meeting recorder), not only the library window.
void makeShortcutsApplicationWide(MainWindow& window);

// The editor text size the user chose (View ▸ Make Text Bigger / Smaller).
qreal editorFontSize();

}  // namespace mossly
