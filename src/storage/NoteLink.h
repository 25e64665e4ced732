#pragma once

#include <QString>

#include "Error.h"

namespace mossly::NoteLink {

// Whether `text` is a link in the app's own scheme ("mossly:…"), well formed or not.
bool isNoteLink(const QString& text);

// The note identifier a link made by NoteSearch::openURL names ("mossly://note/Projects/Plan%20A.md"
// → "Projects/Plan A.md"). Links come from anywhere (a terminal, a web page), so the identifier must
// pass the path policy: nothing outside the notes folder, no hidden files, only note extensions.
Result<QString> identifier(const QString& link);

}  // namespace mossly::NoteLink
