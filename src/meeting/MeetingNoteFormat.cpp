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

QString replacingBlock(const QString& text, const QString& start, const QString& end, const QString& block) {
    if (const auto range = blockRange(text, start, end)) {
        return text.left(range->first) + block + text.mid(range->second);
    }
    if (text.isEmpty()) return block;
    const QString gap = text.endsWith(QLatin1String("\n\n")) ? QString()
                        : text.endsWith(u'\n')                ? QStringLiteral("\n")
                                                               : QStringLiteral("\n\n");
    return text + gap + block;
}

}  // namespace mossly::meeting::MeetingNoteFormat
