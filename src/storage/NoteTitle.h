#pragma once

#include <QString>

#include "NoteContentType.h"

namespace mossly {

// The title shown for a note everywhere (lists, search results, the agent):
// the first non-empty line of its visible text without a leading Markdown
// heading marker, else the file name without its extension.
QString noteTitle(const QString& visibleText, const QString& identifier);

// The name a person would give a new note with this body: an HTML page's
// <title>, else its title as `noteTitle` reads it, else "Untitled".
QString suggestedNoteName(const QString& body, NoteContentType contentType);

// The first `count` user-perceived characters (grapheme clusters), never
// splitting an emoji, an accent or a surrogate pair; the whole text when shorter.
QString leadingGraphemes(const QString& text, qsizetype count);

}  // namespace mossly
