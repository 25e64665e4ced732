#pragma once

#include "NoteStore.h"

namespace mossly {

// Builds the app's Note from a note as read from disk (title and excerpt derived here).
Note noteFromStored(const StoredNote& stored);
// The same without the text: what the list needs. The body is read again when
// the note is opened, so memory grows with what the user looks at.
Note noteListEntryFromStored(const StoredNote& stored);

// "Plan (Conflict 2026-11-24 09.30.12).md" is a conflict copy of "Plan.md":
// the stamp ("2026-11-24 09.30.12"), so that lists can tell it from its note.
std::optional<QString> conflictCopyStamp(const QString& fileName);

}  // namespace mossly
