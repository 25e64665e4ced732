#pragma once

#include "NoteStore.h"

namespace mossly {

// Builds the app's Note from a note as read from disk (title and excerpt derived here).
Note noteFromStored(const StoredNote& stored);
// The same without the text: what the list needs. The body is read again when
// the note is opened, so memory grows with what the user looks at.
Note noteListEntryFromStored(const StoredNote& stored);

}  // namespace mossly
