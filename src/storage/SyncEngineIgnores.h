#pragma once

#include <QString>
#include <QStringList>

#include "Error.h"

namespace mossly {

// Files of the notes folder that belong to this machine and must never be
// copied to another: the app's search catalog (a live SQLite file copied
// mid-write is a corrupt one), the library lock and the recovery manifests
// of meetings recording here.
QStringList machineLocalNotesFolderEntries();

// Syncthing copies every file of a folder unless its ".stignore" lists it,
// and that file is never synced itself: each machine keeps its own. When the
// notes folder is a Syncthing folder (it holds ".stfolder"), adds Mossly's
// lines that are missing to ".stignore", keeping every line of the user's.
// Returns whether the file was changed.
Result<bool> ensureSyncthingIgnores(const QString& notesDirectory);

}  // namespace mossly
