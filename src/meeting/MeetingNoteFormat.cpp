#include "MeetingNoteFormat.h"

#include <array>

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

namespace {

struct Block {
    QString start;
    QString end;
};

const std::array<Block, 2>& recorderBlocks() {
    static const std::array<Block, 2> blocks{
        Block{transcriptStartMarker, transcriptEndMarker},
        Block{summaryStartMarker, summaryEndMarker},
    };
    return blocks;
}

std::optional<QString> blockText(const QString& text, const Block& block) {
    const auto range = blockRange(text, block.start, block.end);
    if (!range) return std::nullopt;
    return text.sliced(range->first, range->second - range->first);
}

// The text with every recorder block emptied down to its markers: what belongs to people.
QString outsideBlocks(QString text) {
    for (const Block& block : recorderBlocks()) {
        if (const auto range = blockRange(text, block.start, block.end)) {
            text = text.left(range->first) + block.start + block.end + text.mid(range->second);
        }
    }
    return text;
}

}  // namespace

std::optional<QString> mergingRecorderBlocks(const QString& base, const QString& mine, const QString& theirs) {
    // A block the recorder appended sits after a blank line at the end; compare without it,
    // as `replacingBlock` puts it back the same way on the user's text.
    QString theirsOutside = outsideBlocks(theirs);
    const QString baseOutside = outsideBlocks(base);
    for (const Block& block : recorderBlocks()) {
        if (blockText(base, block) || !blockText(theirs, block)) continue;
        const QString emptied = block.start + block.end;
        if (theirsOutside.endsWith(emptied)) {
            theirsOutside.chop(emptied.size());
            while (theirsOutside.size() > baseOutside.size() && theirsOutside.endsWith(u'\n')) theirsOutside.chop(1);
        }
    }
    if (theirsOutside != baseOutside) return std::nullopt;

    QString merged = mine;
    for (const Block& block : recorderBlocks()) {
        const std::optional<QString> before = blockText(base, block);
        const std::optional<QString> after = blockText(theirs, block);
        if (before == after) continue;
        if (!after) return std::nullopt;                       // the recorder never removes its blocks
        if (blockText(mine, block) != before) return std::nullopt;  // the user edited the same block
        merged = replacingBlock(merged, block.start, block.end, *after);
    }
    return merged;
}

}  // namespace mossly::meeting::MeetingNoteFormat
