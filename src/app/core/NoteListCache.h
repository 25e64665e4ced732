#pragma once

#include <QString>
#include <optional>
#include <vector>

#include "NoteStore.h"

namespace mossly {

// The note list as the app last saw it (titles, excerpts, dates, revisions),
// kept in the caches folder so that the next start shows the list at once;
// the folder is then checked in the background and the list corrected in
// place. A cache that is missing, from another version or damaged only costs
// the slow path: it is a cache, never the truth.
namespace NoteListCache {
// "$XDG_CACHE_HOME/com.bellam.notes/note-lists/<hash of the folder>.bin"
QString pathFor(const QString& notesDirectory);
std::optional<std::vector<Note>> load(const QString& notesDirectory);
Result<void> save(const QString& notesDirectory, const std::vector<Note>& notes);
}  // namespace NoteListCache

}  // namespace mossly
