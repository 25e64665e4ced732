#pragma once

#include <QObject>
#include <QTextCharFormat>
#include <unordered_map>
#include <vector>

#include "MarkdownFormats.h"
#include "MarkdownStyle.h"

namespace mossly {

// Applies a styling pass to a document as layout formats (not document edits:
// they never enter the undo stack and never change a character). Each block
// remembers the spans it was given, and that memory moves with the block when
// lines are inserted above it, so only blocks whose formats really differ
// from the previous pass are re-laid out, and all of them in one layout update
// (re-laying out block by block is quadratic in a large note).
class MarkdownHighlighter {
public:
    explicit MarkdownHighlighter(QTextDocument* document) : document_(document) {}

    // Installs a new pass on the blocks that meet `scope` (the rest keep what
    // they have); `extra` are formats merged over the runs (reserved room for
    // drawn objects). Returns the number of blocks re-laid out.
    int apply(const markdown::StylePass& pass, const MarkdownFormats& formats,
              std::vector<std::pair<markdown::TextRange, QTextCharFormat>> extra, markdown::TextRange scope);

    static constexpr size_t maximumCachedFormats = 512;

    struct Span {
        int start;  // relative to the block
        int length;
        QTextCharFormat format;
        bool operator==(const Span&) const = default;
    };

private:
    const QTextCharFormat& formatFor(const markdown::StyleAttributes& attributes, const MarkdownFormats& formats);

    QTextDocument* document_;
    // Formats are kept across passes, so an unchanged block compares equal
    // by shared data rather than property by property.
    QString cacheKey_;
    std::vector<std::pair<markdown::StyleAttributes, QTextCharFormat>> cache_;
    std::unordered_multimap<size_t, size_t> cacheIndex_;  // attribute hash → entry of cache_
};

}  // namespace mossly
