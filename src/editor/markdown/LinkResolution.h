#pragma once

#include <QString>
#include <QUrl>
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

// Footnote links jump within the note instead of opening anything. They carry the
// label, not a position, so that an edit elsewhere leaves them as they are: a
// reference links to its definition, a definition back to the label's first reference.
QString footnoteDefinitionUrl(const QString& label);
QString footnoteReferenceUrl(const QString& label);

// Where a clicked footnote link jumps in the text `pass` describes; nothing for a
// label without a definition (or, from a definition, without a reference).
std::optional<int> footnoteJumpTarget(const StylePass& pass, const QUrl& url);

}  // namespace mossly::markdown
