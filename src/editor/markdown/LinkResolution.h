#pragma once

#include <QString>
#include <optional>

#include "MarkdownStyle.h"

namespace mossly::markdown {

// Resolves a link or image destination as typed in a note. Angle brackets and a
// trailing title are dropped. A destination with a scheme is a web link and is
// used unchanged ("file:" ones excepted); a relative one resolves against
// `noteDirectory`; one naming a note file ("md", "markdown", "html", "htm",
// "tldr") is a note link.
LinkTarget resolveLinkDestination(const QString& destination, const QString& noteDirectory);

// Whether a file name has a note file's extension.
bool isNoteFileName(const QString& fileName);

// Footnote links jump within the note instead of opening anything.
QString footnoteJumpUrl(int location);
std::optional<int> footnoteJumpLocation(const QString& url);

}  // namespace mossly::markdown
