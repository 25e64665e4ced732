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

namespace {

// Enough of the attributes to tell most sets apart; equal sets hash equal.
size_t attributesHash(const StyleAttributes& a) {
    return qHashMulti(0, a.hidden, a.hideParagraph, a.bold, a.italic, a.strikethrough,
                      a.font ? static_cast<int>(*a.font) : -1, a.pointSize.value_or(-1),
                      a.colour ? static_cast<int>(*a.colour) : -1, a.link ? a.link->url : QString());
}

}  // namespace

const QTextCharFormat& MarkdownHighlighter::formatFor(const StyleAttributes& attributes,
                                                      const MarkdownFormats& formats) {
    const size_t hash = attributesHash(attributes);
    for (auto [it, end] = cacheIndex_.equal_range(hash); it != end; ++it) {
        if (cache_[it->second].first == attributes) return cache_[it->second].second;
    }
    // A note uses a few dozen distinct sets; links and sizes can make more. Starting
    // over keeps the cache small, and unchanged blocks still compare equal by value.
    if (cache_.size() >= maximumCachedFormats) {
        cache_.clear();
        cacheIndex_.clear();
    }
    cache_.emplace_back(attributes, formats.charFormat(attributes));
    cacheIndex_.emplace(hash, cache_.size() - 1);
    return cache_.back().second;
}

int MarkdownHighlighter::apply(const StylePass& pass, const MarkdownFormats& formats,
                               std::vector<std::pair<TextRange, QTextCharFormat>> extra, TextRange scope) {
    QTextDocument* doc = document_;
    const QTextBlock first = doc->findBlock(std::max(0, scope.start));
    const QTextBlock last = doc->findBlock(std::max(first.position(), scope.end() - 1));
    if (!first.isValid()) return 0;
    // Block starts of the scope once; ranges then find their blocks by binary search.
    std::vector<int> starts;
    for (QTextBlock block = first; block.isValid() && block.blockNumber() <= last.blockNumber(); block = block.next()) {
        starts.push_back(block.position());
    }
    const int scopeEnd = last.position() + last.length();
    std::vector<std::vector<Span>> spans(starts.size());
    const auto add = [&](int start, int length, const QTextCharFormat& format) {
        // Formats live per block: split a range at block boundaries, inside the scope only.
        int position = std::max(start, starts.front());
        const int end = std::min(start + length, scopeEnd);
        if (position >= end) return;
        size_t index = static_cast<size_t>(std::upper_bound(starts.begin(), starts.end(), position) - starts.begin()) - 1;
        while (position < end && index < starts.size()) {
            const int blockEnd = index + 1 < starts.size() ? starts[index + 1] : scopeEnd;
            const int pieceEnd = std::min(end, blockEnd);
            if (pieceEnd > position) spans[index].push_back({position - starts[index], pieceEnd - position, format});
            position = pieceEnd;
            ++index;
        }
    };
    const QString key = formats.baseFont().toString() + (formats.isDark() ? u'd' : u'l');
    if (key != cacheKey_) {
        cache_.clear();
        cacheIndex_.clear();
        cacheKey_ = key;
    }
    auto run = std::lower_bound(pass.runs.begin(), pass.runs.end(), starts.front(),
                                [](const StyleRun& r, int at) { return r.end() <= at; });
    for (; run != pass.runs.end() && run->start < scopeEnd; ++run) {
        add(run->start, run->length, formatFor(run->attributes, formats));
    }
    for (auto& [range, format] : extra) add(range.start, range.length, format);

    int changed = 0;
    int dirtyStart = -1;
    int dirtyEnd = -1;
    size_t index = 0;
    for (QTextBlock block = first; block.isValid() && index < starts.size(); block = block.next(), ++index) {
        auto& wanted = spans[index];
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
