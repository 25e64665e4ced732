#pragma once

#include <QString>

#include "FolderMetadata.h"

namespace mossly {

// ".folders.json" changed on two machines: the union of both. Folders,
// assignments and favourites of either side are kept; where both sides say
// something different about the same folder (a rename, a move) or the same
// note (its folder), `kept` wins, so a folder renamed on one side keeps one name.
FolderMetadata mergeFolderMetadata(FolderMetadata kept, const FolderMetadata& other);

// Merges every sync engine's conflict copy of ".folders.json" in the notes
// folder into ".folders.json" and moves the copy to the Trash, under the
// library lock. A copy that cannot be read is left where it is. Returns how
// many copies were merged.
Result<int> mergeFolderMetadataConflictCopies(const QString& notesDirectory);

}  // namespace mossly
