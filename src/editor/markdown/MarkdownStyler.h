#pragma once

#include <QString>
#include <QStringView>

#include "MarkdownStyle.h"

namespace mossly::markdown {

inline constexpr QStringView kUntitledNotePlaceholder = u"Untitled Note";
inline constexpr QStringView kSelfLinkError = u"This note cannot link to itself.";

// One styling pass over a whole note body. The pass only describes ranges of the
// given text; it never changes a character of it. `baseSize` is the editor's body
// point size (every nominal size is scaled by baseSize / 17); relative links and
// images resolve against `noteDirectory`; `noteFilePath`, when given, lets a link
// card that points at the note itself be refused.
StylePass styleMarkdown(const QString& text, Presentation presentation, double baseSize,
                        const QString& noteDirectory, const QString& noteFilePath = {});

}  // namespace mossly::markdown
