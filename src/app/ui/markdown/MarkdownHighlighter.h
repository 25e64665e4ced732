#pragma once

#include <QSyntaxHighlighter>
#include <QTextCharFormat>
#include <map>
#include <vector>

#include "MarkdownFormats.h"
#include "MarkdownStyle.h"

namespace mossly {

// Applies a styling pass to a document as layout formats (not document edits:
// they never enter the undo stack and never change a character). Only blocks
// whose formats differ from the previous pass are re-laid out.
class MarkdownHighlighter : public QSyntaxHighlighter {
public:
    explicit MarkdownHighlighter(QTextDocument* document);

    // Installs a new pass; `extra` are formats merged over the runs (reserved
    // widths for drawn objects). Returns the number of blocks re-laid out.
    int apply(const markdown::StylePass& pass, const MarkdownFormats& formats,
              std::vector<std::pair<markdown::TextRange, QTextCharFormat>> extra);

protected:
    void highlightBlock(const QString& text) override;

private:
    struct Span {
        int start;  // relative to the block
        int length;
        QTextCharFormat format;
        bool operator==(const Span& other) const {
            return start == other.start && length == other.length && format == other.format;
        }
    };
    std::map<int, std::vector<Span>> spansByBlock_;  // keyed by block number
};

}  // namespace mossly
