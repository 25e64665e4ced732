#include "MarkdownHighlighter.h"

#include <QTextBlock>
#include <QTextDocument>

namespace mossly {

using namespace markdown;

MarkdownHighlighter::MarkdownHighlighter(QTextDocument* document) : QSyntaxHighlighter(document) {}

int MarkdownHighlighter::apply(const StylePass& pass, const MarkdownFormats& formats,
                               std::vector<std::pair<TextRange, QTextCharFormat>> extra) {
    std::map<int, std::vector<Span>> spans;
    QTextDocument* doc = document();
    const auto add = [&](int start, int length, const QTextCharFormat& format) {
        // Split across blocks: formats live per block.
        int position = start;
        const int end = start + length;
        while (position < end) {
            const QTextBlock block = doc->findBlock(position);
            if (!block.isValid()) break;
            const int blockEnd = block.position() + block.length();  // includes the separator
            const int pieceEnd = std::min(end, blockEnd);
            spans[block.blockNumber()].push_back({position - block.position(), pieceEnd - position, format});
            position = pieceEnd;
        }
    };
    for (const StyleRun& run : pass.runs) add(run.start, run.length, formats.charFormat(run.attributes));
    for (auto& [range, format] : extra) add(range.start, range.length, format);

    int changed = 0;
    const int blockCount = doc->blockCount();
    for (int number = 0; number < blockCount; ++number) {
        const auto before = spansByBlock_.find(number);
        const auto after = spans.find(number);
        const bool hadSpans = before != spansByBlock_.end();
        const bool hasSpans = after != spans.end();
        if (!hadSpans && !hasSpans) continue;
        if (hadSpans && hasSpans && before->second == after->second) continue;
        spansByBlock_[number] = hasSpans ? after->second : std::vector<Span>{};
        rehighlightBlock(doc->findBlockByNumber(number));
        ++changed;
    }
    spansByBlock_ = std::move(spans);
    return changed;
}

void MarkdownHighlighter::highlightBlock(const QString&) {
    const auto it = spansByBlock_.find(currentBlock().blockNumber());
    if (it == spansByBlock_.end()) return;
    for (const Span& span : it->second) {
        // Later spans merge over earlier ones (reserved widths over hidden markers).
        QTextCharFormat merged = format(span.start);
        merged.merge(span.format);
        setFormat(span.start, span.length, merged);
    }
}

}  // namespace mossly
