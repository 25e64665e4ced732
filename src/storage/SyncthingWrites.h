#pragma once

#include <QString>
#include <chrono>
#include <functional>
#include <optional>

#include "Error.h"
#include "NoteRepository.h"

namespace mossly {

// Syncthing checks that a file is unchanged, then renames the version it
// downloaded over it; a write that lands between the two is replaced without
// a conflict copy. In a Syncthing folder (".stfolder"), looks at the note
// again after `settle`: when it now holds a text that lacks words `written`
// added to `beforeBody`, the written text is kept as a conflict copy beside
// the note, whose identifier is returned. Nothing is done elsewhere.
Result<std::optional<QString>> keepWriteReplacedBySyncthing(const NoteRepository& repository, const QString& beforeBody,
                                                            const StoredNote& written,
                                                            std::chrono::milliseconds settle);

// A write of the note `identifier` (an update or a restore, through `write`)
// that is checked as above in a Syncthing folder: a write that Syncthing
// replaced fails with `writeReplaced`, naming the copy its text was kept in,
// so that no writer reports it as done.
Result<StoredNote> writeWatchingSyncthing(const NoteRepository& repository, const QString& identifier,
                                         const std::function<Result<StoredNote>()>& write,
                                         std::chrono::milliseconds settle = std::chrono::milliseconds(300));

// Whether `directory` is a folder Syncthing shares (it holds ".stfolder").
bool isSyncthingFolder(const QString& directory);

// Whether Syncthing itself kept `text` as a conflict copy of the note at `notePath`
// ("Plan.sync-conflict-….md" beside it): then nothing more needs keeping.
bool syncthingKeptText(const QString& notePath, const QString& text);

// Whether `incoming` still holds every word that `saved` added to `baseBody`.
bool keepsAddedWords(const QString& baseBody, const QString& saved, const QString& incoming);

}  // namespace mossly
