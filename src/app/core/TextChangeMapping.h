#pragma once

#include <QString>

namespace mossly {

// Where a position in `before` lands in `after`, when one stretch of text was
// replaced (an agent's edit, a reload). Text before the change keeps its
// position, text after it moves with it, and a position inside the replaced
// stretch stays inside its replacement. Lets an editor keep the caret and the
// scroll on the words the user was at.
qsizetype mapPositionThroughChange(const QString& before, const QString& after, qsizetype position);

}  // namespace mossly
