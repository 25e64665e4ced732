#pragma once

#include <QStringList>

#include "NoteRepository.h"
#include "NoteStore.h"

namespace mossly {

// Copies chosen Markdown, HTML and sketch files into the notes folder under
// unique names (the file's own name, then "Name 2", …). Each file succeeds or
// fails on its own; nothing is ever overwritten. Safe on any thread.
NoteFileImportReport importNoteFiles(const NoteRepository& repository, const QStringList& paths);

}  // namespace mossly
