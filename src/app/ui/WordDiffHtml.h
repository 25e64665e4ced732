#pragma once

#include <QString>
#include <vector>

#include "NoteHistoryDiff.h"

namespace mossly {

// Two texts compared word by word, as HTML: removed words struck through in
// red, inserted ones in green, line breaks kept. Shown by the history window
// and the sync-conflict banner.
QString wordDiffHtml(const std::vector<NoteTextChange>& changes);

}  // namespace mossly
