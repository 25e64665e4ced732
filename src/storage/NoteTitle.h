#pragma once

#include <QString>

namespace mossly {

// The title shown for a note everywhere (lists, search results, the agent):
// the first non-empty line of its visible text without a leading Markdown
// heading marker, else the file name without its extension.
QString noteTitle(const QString& visibleText, const QString& identifier);

}  // namespace mossly
