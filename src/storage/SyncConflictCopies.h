#pragma once

#include <QString>
#include <functional>
#include <optional>

#include "Error.h"
#include "StoredNote.h"

namespace mossly {

// A file that a sync engine wrote beside a file it could not merge: the
// other machine's version. Syncthing names it
// "Plan.sync-conflict-20261124-093012-ABCDEFG.md", Nextcloud
// "Plan (conflicted copy 2026-11-24 093012).md", Dropbox
// "Plan (Ana's conflicted copy 2026-11-24).md".
struct SyncConflictCopy {
    QString original;  // the path of the file it is a version of, in the same folder
    QString engine;    // "Syncthing", "Nextcloud" or "Dropbox"
    QString detail;    // when and where, as the engine wrote it ("2026-11-24 09:30:12, device ABCDEFG")
};

// Whether `path` (a note identifier or any relative path) is a sync engine's
// conflict copy, and of what.
std::optional<SyncConflictCopy> syncConflictCopyOf(const QString& path);

// Mossly's own conflict copy of `identifier` made at `stamp`: "Plan (Conflict 2026-11-24 09.30.12).md",
// with "-2", "-3"… before the extension when `counter` > 1 because the name is taken.
QString conflictCopyIdentifier(const QString& identifier, const QString& stamp, int counter);

// Writes Mossly's conflict copy of `identifier`, stamped now, under the first
// name not yet taken; `createAt` writes the copy's text at a name and fails
// with `alreadyExists` when the name is taken.
Result<StoredNote> createConflictCopy(const QString& identifier,
                                      const std::function<Result<StoredNote>(const QString& name)>& createAt);

}  // namespace mossly
