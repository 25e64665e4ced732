#pragma once

#include <QHash>
#include <QString>
#include <optional>
#include <vector>

#include "MarkdownStyle.h"
#include "MarkdownText.h"

// Whole-text scans for the block constructs the styler needs before it styles them.
// Scans that take `exclusions` skip anything intersecting those ranges (fenced code).
namespace mossly::markdown {

struct Fence {
    QChar marker;
    int count = 0;
    int indentation = 0;  // characters before the fence
};

// The fence a line holds, if any: an indented one opens code only inside a list item.
std::optional<Fence> openingFence(QStringView line);
bool closesFence(QStringView line, const Fence& fence);

std::vector<CodeBlock> findCodeBlocks(const QString& text, const TextLines& lines);

std::vector<DetailsBlock> findDetailsBlocks(const QString& text, const RangeSet& exclusions);

std::vector<Table> findTables(const QString& text, const TextLines& lines, const RangeSet& exclusions);

std::vector<BlockQuoteLine> findBlockQuoteLines(const TextLines& lines, const RangeSet& exclusions);

struct Footnotes {
    std::vector<FootnoteReference> references;  // only those with a definition
    std::vector<FootnoteDefinition> definitions;
};

Footnotes findFootnotes(const QString& text, const TextLines& lines, const RangeSet& exclusions);

// The references in a text that holds no definitions, resolved against definitions
// elsewhere in the note (label -> marker start, stored as the reference's location).
std::vector<FootnoteReference> findFootnoteReferences(const QString& text, const TextLines& lines,
                                                      const RangeSet& exclusions,
                                                      const QHash<QString, int>& definitions);

// The cells of one table row: split at pipes not preceded by a backslash, an
// outer pipe on either side dropped, each cell trimmed.
std::vector<TableCell> splitTableRow(QStringView line, int lineStart);

}  // namespace mossly::markdown
