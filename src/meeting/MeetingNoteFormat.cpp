#include "MeetingNoteFormat.h"

namespace mossly::meeting::MeetingNoteFormat {

std::optional<std::pair<qsizetype, qsizetype>> blockRange(const QString& text, const QString& start,
                                                          const QString& end) {
    const qsizetype from = text.indexOf(start);
    if (from < 0) return std::nullopt;
    const qsizetype to = text.indexOf(end, from + start.size());
    if (to < 0) return std::nullopt;
    return std::pair{from, to + end.size()};
}

}  // namespace mossly::meeting::MeetingNoteFormat
