#pragma once

#include <QStringList>
#include <functional>
#include <stop_token>

#include "NoteRepository.h"
#include "NoteStore.h"

namespace mossly {

// Copies chosen Markdown, HTML and sketch files into the notes folder under
// unique names (the file's own name, then "Name 2", …). Each file succeeds or
// fails on its own; nothing is ever overwritten. Safe on any thread.
// `progress` hears (files done, files in all) now and then and at the end; a
// stop request (quitting) ends the import between two files, every file
// imported so far complete and reported.
using ImportProgress = std::function<void(int done, int total)>;
NoteFileImportReport importNoteFiles(const NoteRepository& repository, const QStringList& paths,
                                     const ImportProgress& progress = {}, std::stop_token stop = {});

}  // namespace mossly
