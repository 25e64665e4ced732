#pragma once

#include <QString>
#include <vector>

#include "Error.h"
#include "StoredNote.h"

namespace mossly {

// Walks a notes folder and lists its note files: regular files with a note
// extension whose identifier is valid. Hidden entries are skipped without
// descending, symbolic links are neither followed nor listed, and names that
// are not valid UTF-8 are skipped. Unsorted.
Result<std::vector<NoteFileMetadata>> scanNoteFiles(const QString& directory);

FileTime fileTime(const struct timespec& time);

}  // namespace mossly
