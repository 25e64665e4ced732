#pragma once

#include <QString>

namespace mossly {

// Rewrites the links of a Markdown text that lead to `oldTarget` (an absolute
// file path) so that they lead to `newTarget`: inline links and images
// "[Title](Plan.md)" and reference definitions "[plan]: Plan.md", written
// relative to `noteFile` and percent-encoded, as the editor inserts them. A
// fragment or title after the path stays; code blocks and web links are left
// alone. `count`, when given, receives how many links changed.
QString rewriteNoteReferences(const QString& markdown, const QString& noteFile, const QString& oldTarget,
                              const QString& newTarget, int* count = nullptr);

}  // namespace mossly
