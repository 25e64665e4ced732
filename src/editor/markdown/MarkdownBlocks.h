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

// A footnote definition line: group 1 is the marker, 2 the label, 3 the text.
const QRegularExpression& footnoteDefinitionPattern();

// What a run of lines cut out of a note needs to know of the note's footnotes.
struct FootnoteContext {
    int offset = 0;                   // where the run starts in the note
    QHash<QString, int> definitions;  // label -> marker start of the definition the note takes
    QHash<int, int> taken;            // marker start -> first reference, for the definitions the
                                      // note takes in the run; other definitions there are repeats
};

// The footnotes of such a run; locations other than ranges are positions in the note.
Footnotes findFootnotesInRun(const QString& text, const TextLines& lines, const RangeSet& exclusions,
                             const FootnoteContext& context);

// The cells of one table row: split at pipes not preceded by a backslash, an
// outer pipe on either side dropped, each cell trimmed.
std::vector<TableCell> splitTableRow(QStringView line, int lineStart);

}  // namespace mossly::markdown
