#include "TextChangeMapping.h"

#include <algorithm>

namespace mossly {

qsizetype mapPositionThroughChange(const QString& before, const QString& after, qsizetype position) {
    position = std::clamp<qsizetype>(position, 0, before.size());
    const qsizetype shorter = std::min(before.size(), after.size());
    qsizetype prefix = 0;
    while (prefix < shorter && before[prefix] == after[prefix]) ++prefix;
    qsizetype suffix = 0;
    while (suffix < shorter - prefix && before[before.size() - 1 - suffix] == after[after.size() - 1 - suffix]) {
        ++suffix;
    }
    if (position <= prefix) return position;
    if (position >= before.size() - suffix) return position + (after.size() - before.size());
    return std::min(position, after.size() - suffix);
}

}  // namespace mossly
