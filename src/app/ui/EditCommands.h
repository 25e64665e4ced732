#pragma once

class QMenu;
class QWidget;

namespace mossly {

// Undo, Redo, Cut, Copy, Paste and Select All with the desktop's standard keys,
// acting on whatever has the keyboard focus: a Markdown, plain or HTML-source
// editor, the search field, the note list (Select All), or the page of an HTML
// note or a sketch. Each is enabled only where the focused widget can do it.
void installEditCommands(QMenu& edit, QWidget& window);

// Help ▸ About Mossly: the version and the notices of the code Mossly bundles.
void showAboutBox(QWidget* parent);

}  // namespace mossly
