#pragma once

#include <QString>

#include "Error.h"
#include "StoredNote.h"

namespace mossly {

class NoteStore;

// Writes an earlier version back into a note of the library, as the user. Words
// not saved yet are saved first, so the revision check sees them: when the note
// is no longer at `expectedRevision` nothing is restored and the error is `stale`.
// The store takes the restored text at once.
Result<StoredNote> restoreNoteVersionInApp(NoteStore& store, const QString& url, const QString& revision,
                                           const QString& expectedRevision);

// "You" for the person using the app, the agent's name otherwise.
QString editorDisplayName(const QString& storedEditor);

}  // namespace mossly
