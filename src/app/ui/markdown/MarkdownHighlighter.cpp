#include "MarkdownHighlighter.h"

#include <QTextBlock>
#include <QTextDocument>
#include <algorithm>

namespace mossly {

using namespace markdown;

namespace {

struct BlockSpans : QTextBlockUserData {
    std::vector<MarkdownHighlighter::Span> spans;
};

// The block's spans as layout formats: later spans merge over earlier ones
// character by character (reserved room over hidden markers), then equal
// neighbours are joined.
QList<QTextLayout::FormatRange> layoutFormats(const std::vector<MarkdownHighlighter::Span>& spans, int blockLength) {
    std::vector<QTextCharFormat> perCharacter(static_cast<size_t>(blockLength));
    for (const auto& span : spans) {
        const int end = std::min(blockLength, span.start + span.length);
        for (int i = std::max(0, span.start); i < end; ++i) perCharacter[static_cast<size_t>(i)].merge(span.format);
    }
    QList<QTextLayout::FormatRange> ranges;
    for (int i = 0; i < blockLength;) {
        int j = i + 1;
        while (j < blockLength && perCharacter[static_cast<size_t>(j)] == perCharacter[static_cast<size_t>(i)]) ++j;
        if (perCharacter[static_cast<size_t>(i)].isValid() && !perCharacter[static_cast<size_t>(i)].properties().isEmpty()) {
            ranges.append({i, j - i, perCharacter[static_cast<size_t>(i)]});
        }
        i = j;
    }
    return ranges;
}

}  // namespace

const QTextCharFormat& MarkdownHighlighter::formatFor(const StyleAttributes& attributes,
                                                      const MarkdownFormats& formats) {
    // A note uses a few dozen distinct attribute sets; the most recent ones are the likeliest.
    for (auto it = cache_.rbegin(); it != cache_.rend(); ++it) {
        if (it->first == attributes) return it->second;
    }
    cache_.emplace_back(attributes, formats.charFormat(attributes));
    return cache_.back().second;
}

int MarkdownHighlighter::apply(const StylePass& pass, const MarkdownFormats& formats,
                               std::vector<std::pair<TextRange, QTextCharFormat>> extra) {
    QTextDocument* doc = document_;
    // Block starts once per pass; ranges then find their blocks by binary search.
    std::vector<int> starts;
    starts.reserve(static_cast<size_t>(doc->blockCount()));
    for (QTextBlock block = doc->begin(); block.isValid(); block = block.next()) starts.push_back(block.position());
    const int documentEnd = doc->characterCount();
    std::vector<std::vector<Span>> spans(starts.size());
    const auto add = [&](int start, int length, const QTextCharFormat& format) {
        // Formats live per block: split a range at block boundaries.
        size_t index = static_cast<size_t>(std::upper_bound(starts.begin(), starts.end(), start) - starts.begin());
        if (index == 0) return;
        --index;
        int position = start;
        const int end = start + length;
        while (position < end && index < starts.size()) {
            const int blockEnd = index + 1 < starts.size() ? starts[index + 1] : documentEnd;
            const int pieceEnd = std::min(end, blockEnd);
            if (pieceEnd > position) spans[index].push_back({position - starts[index], pieceEnd - position, format});
            position = pieceEnd;
            ++index;
        }
    };
    const QString key = formats.baseFont().toString() + (formats.isDark() ? u'd' : u'l');
    if (key != cacheKey_) {
        cache_.clear();
        cacheKey_ = key;
    }
    for (const StyleRun& run : pass.runs) add(run.start, run.length, formatFor(run.attributes, formats));
    for (auto& [range, format] : extra) add(range.start, range.length, format);

    int changed = 0;
    int dirtyStart = -1;
    int dirtyEnd = -1;
    for (QTextBlock block = doc->begin(); block.isValid(); block = block.next()) {
        auto& wanted = spans[static_cast<size_t>(block.blockNumber())];
        auto* current = static_cast<BlockSpans*>(block.userData());
        if (current ? current->spans == wanted : wanted.empty()) continue;
        if (!current) {
            current = new BlockSpans;
            block.setUserData(current);  // the block owns it
        }
        current->spans = std::move(wanted);
        block.layout()->setFormats(layoutFormats(current->spans, block.length()));
        if (dirtyStart < 0) dirtyStart = block.position();
        dirtyEnd = block.position() + block.length();
        ++changed;
    }
    if (dirtyStart >= 0) doc->markContentsDirty(dirtyStart, dirtyEnd - dirtyStart);
    return changed;
}
}  // namespace mossly
