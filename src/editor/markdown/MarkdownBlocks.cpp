#include "MarkdownBlocks.h"

#include <QHash>
#include <QSet>
#include <optional>

namespace mossly::markdown {

namespace {

bool isBlank(QChar c) {
    return c == u' ' || c == u'\t';
}

int leadingBlanks(QStringView line) {
    int i = 0;
    while (i < line.size() && isBlank(line[i])) ++i;
    return i;
}

// Whether an indented fence belongs to a list item: the nearest less-indented
// non-blank line above it is an item. The walk is bounded so that a long run of
// indented lines cannot make the scan quadratic.
bool insideListItem(const TextLines& lines, int line, int indentColumns) {
    static const QRegularExpression listItem =
        compilePattern(QStringLiteral(R"re(^(?:[-*+](?:[ \t]+|$)|\d+\.(?:[ \t]+|$)))re"));
    constexpr int kMaximumWalk = 500;
    for (int above = line - 1; above >= 0 && above >= line - kMaximumWalk; --above) {
        const QStringView content = lines.content(above);
        const int blanks = leadingBlanks(content);
        if (blanks == content.size()) continue;
        if (columnsOf(content.first(blanks)) < indentColumns) {
            return listItem.match(content.sliced(blanks)).hasMatch();
        }
    }
    return false;
}

ColumnAlignment alignmentOf(QStringView cell) {
    const QStringView trimmed = cell.trimmed();
    const bool left = trimmed.startsWith(u':');
    const bool right = trimmed.endsWith(u':');
    if (left && right) return ColumnAlignment::centre;
    if (right) return ColumnAlignment::right;
    if (left) return ColumnAlignment::left;
    return ColumnAlignment::none;
}

bool isDetailsTagLine(QStringView line) {
    static const QRegularExpression tagLine =
        compilePattern(QStringLiteral(R"re(^<\/?(?:details|summary)\b)re"));
    return line.startsWith(u'<') && tagLine.match(line).hasMatch();
}

TextRange capturedRange(const QRegularExpressionMatch& match, int group, int offset = 0) {
    return {static_cast<int>(match.capturedStart(group)) + offset,
            static_cast<int>(match.capturedLength(group))};
}

}  // namespace

const QRegularExpression& footnoteDefinitionPattern() {
    static const QRegularExpression definition =
        compilePattern(QStringLiteral(R"re((?m)^(\[\^([^\]\r\n]+)\]:[ \t]*)([^\r\n]*)$)re"));
    return definition;
}

std::optional<Fence> openingFence(QStringView line) {
    const int at = leadingBlanks(line);
    if (at >= line.size() || (line[at] != u'`' && line[at] != u'~')) return std::nullopt;
    const QChar marker = line[at];
    int count = 0;
    while (at + count < line.size() && line[at + count] == marker) ++count;
    if (count < 3) return std::nullopt;
    // A backtick fence's info string may not hold a backtick: "```a```" is inline code.
    if (marker == u'`' && line.sliced(at + count).contains(u'`')) return std::nullopt;
    return Fence{marker, count, at};
}

bool closesFence(QStringView line, const Fence& fence) {
    const QStringView trimmed = line.trimmed();
    if (trimmed.size() < fence.count) return false;
    for (const QChar c : trimmed) {
        if (c != fence.marker) return false;
    }
    return true;
}

std::vector<CodeBlock> findCodeBlocks(const QString& text, const TextLines& lines) {
    std::vector<CodeBlock> blocks;
    const int size = static_cast<int>(text.size());
    for (int i = 0; i < lines.count(); ++i) {
        const QStringView content = lines.content(i);
        const std::optional<Fence> fence = openingFence(content);
        if (!fence) continue;
        const int columns = columnsOf(content.first(fence->indentation));
        const bool inList = fence->indentation > 0 && insideListItem(lines, i, columns);
        if (columns > 3 && !inList) continue;  // an indented code block, not a fence

        CodeBlock block;
        block.openingFence = {lines.start(i), lines.end(i) - lines.start(i)};
        block.info = content.sliced(fence->indentation + fence->count).trimmed().toString();
        if (inList) block.indentation = {lines.start(i), fence->indentation};

        int close = i + 1;
        while (close < lines.count() && !closesFence(lines.content(close), *fence)) ++close;
        if (close < lines.count()) {
            block.closingFence = {lines.start(close), lines.end(close) - lines.start(close)};
            block.range = {lines.start(i), lines.end(close) - lines.start(i)};
            block.body = close > i + 1
                             ? TextRange{lines.start(i + 1), lines.end(close - 1) - lines.start(i + 1)}
                             : TextRange{lines.start(close), 0};
        } else {
            // An unclosed fence runs to the end of the text.
            block.closingFence = {size, 0};
            block.range = {lines.start(i), size - lines.start(i)};
            block.body = i + 1 < lines.count() ? TextRange{lines.start(i + 1), size - lines.start(i + 1)}
                                               : TextRange{lines.end(i), 0};
        }
        blocks.push_back(block);
        i = close;
    }
    return blocks;
}

std::vector<DetailsBlock> findDetailsBlocks(const QString& text, const RangeSet& exclusions) {
    static const QRegularExpression details = compilePattern(
        QStringLiteral(
            R"re((<details\b([^>]*)>)(?:[ \t]*\r?\n)?[ \t]*(<summary>)(.*?)(</summary>)(?:[ \t]*\r?\n)?(.*?)(?:\r?\n)?[ \t]*(</details>))re"),
        QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression openAttribute =
        compilePattern(QStringLiteral(R"re((?:^|\s)open(?:\s*=\s*(?:"[^"]*"|'[^']*'|[^\s>]+))?(?=\s|$))re"));

    std::vector<DetailsBlock> blocks;
    // The body may hold fenced code; only the tags and the summary must lie outside it.
    forEachMatch(details, text, RangeSet{}, [&](const QRegularExpressionMatch& match) {
        for (const int group : {1, 3, 4, 5, 7}) {
            const TextRange range = capturedRange(match, group);
            if (exclusions.intersects(range.start, std::max(range.end(), range.start + 1))) {
                return MatchVerdict::retry;
            }
        }
        DetailsBlock block;
        block.range = capturedRange(match, 0);
        block.openingTag = capturedRange(match, 1);
        block.summaryOpenTag = capturedRange(match, 3);
        block.summary = capturedRange(match, 4);
        block.summaryCloseTag = capturedRange(match, 5);
        block.body = capturedRange(match, 6);
        block.closingTag = capturedRange(match, 7);
        block.open = openAttribute.match(match.capturedView(2)).hasMatch();
        blocks.push_back(block);
        return MatchVerdict::take;
    });
    return blocks;
}

std::vector<TableCell> splitTableRow(QStringView line, int lineStart) {
    int begin = leadingBlanks(line);
    int end = static_cast<int>(line.size());
    while (end > begin && line[end - 1].isSpace()) --end;
    if (begin < end && line[begin] == u'|') ++begin;
    if (end > begin && line[end - 1] == u'|' && !(end - 2 >= begin && line[end - 2] == u'\\')) --end;

    std::vector<TableCell> cells;
    auto addCell = [&](int from, int to) {
        while (from < to && line[from].isSpace()) ++from;
        while (to > from && line[to - 1].isSpace()) --to;
        QString cellText = line.sliced(from, to - from).toString();
        cellText.replace(QStringLiteral("\\|"), QStringLiteral("|"));
        cells.push_back({{lineStart + from, to - from}, cellText});
    };
    int cellStart = begin;
    for (int i = begin; i < end; ++i) {
        // A backslash before a pipe makes it cell text.
        if (line[i] == u'|' && !(i > 0 && line[i - 1] == u'\\')) {
            addCell(cellStart, i);
            cellStart = i + 1;
        }
    }
    addCell(cellStart, end);
    return cells;
}

std::vector<Table> findTables(const QString& text, const TextLines& lines, const RangeSet& exclusions) {
    static const QRegularExpression delimiterRow = compilePattern(
        QStringLiteral(R"re(^[ \t]*\|?[ \t]*:?-{3,}:?[ \t]*(?:\|[ \t]*:?-{3,}:?[ \t]*)+\|?[ \t]*$)re"));
    Q_UNUSED(text);

    std::vector<Table> tables;
    int firstFreeLine = 0;
    for (int i = 1; i < lines.count(); ++i) {
        const QStringView delimiter = lines.content(i);
        if (i - 1 < firstFreeLine || !delimiter.contains(u'|') || !delimiter.contains(u'-')) continue;
        if (!delimiterRow.match(delimiter).hasMatch()) continue;
        const int header = i - 1;
        if (exclusions.intersects(lines.start(header), lines.end(i) + 1)) continue;

        Table table;
        const std::vector<TableCell> delimiterCells = splitTableRow(delimiter, lines.start(i));
        for (const TableCell& cell : delimiterCells) table.alignments.push_back(alignmentOf(cell.text));
        table.header = {{lines.start(header), lines.end(header) - lines.start(header)},
                        splitTableRow(lines.content(header), lines.start(header))};
        if (table.header.cells.size() != table.alignments.size()) continue;
        table.delimiterRow = {lines.start(i), lines.end(i) - lines.start(i)};

        int last = i;
        for (int row = i + 1; row < lines.count(); ++row) {
            const QStringView content = lines.content(row);
            if (content.trimmed().isEmpty() || !content.contains(u'|')) break;
            if (exclusions.intersects(lines.start(row), lines.end(row) + 1)) break;
            TableRow body{{lines.start(row), lines.end(row) - lines.start(row)},
                          splitTableRow(content, lines.start(row))};
            // Rows are cut or padded to the delimiter row's columns.
            body.cells.resize(table.alignments.size(), TableCell{{lines.end(row), 0}, {}});
            table.body.push_back(std::move(body));
            last = row;
        }
        table.range = {lines.start(header), lines.end(last) - lines.start(header)};
        tables.push_back(std::move(table));
        firstFreeLine = last + 1;
        i = last;
    }
    return tables;
}

std::vector<BlockQuoteLine> findBlockQuoteLines(const TextLines& lines, const RangeSet& exclusions) {
    static const QRegularExpression markers = compilePattern(QStringLiteral(R"re(^[ \t]*(?:>[ \t]*)+)re"));
    static const QRegularExpression bulletMarker = compilePattern(QStringLiteral(R"re(^([-*+][ \t]+))re"));
    static const QRegularExpression orderedMarker = compilePattern(QStringLiteral(R"re(^(\d+\.[ \t]+))re"));

    std::vector<BlockQuoteLine> quoteLines;
    for (int i = 0; i < lines.count(); ++i) {
        const QStringView content = lines.content(i);
        const int blanks = leadingBlanks(content);
        if (blanks >= content.size() || content[blanks] != u'>') continue;
        if (exclusions.intersects(lines.start(i), lines.end(i) + 1)) continue;
        const QRegularExpressionMatch match = markers.match(content);
        if (!match.hasMatch()) continue;

        BlockQuoteLine quote;
        quote.line = {lines.start(i), lines.end(i) - lines.start(i)};
        quote.markers = {lines.start(i), static_cast<int>(match.capturedLength())};
        quote.nesting = static_cast<int>(match.capturedView().count(u'>'));
        const QStringView rest = content.sliced(match.capturedLength());
        QRegularExpressionMatch item = bulletMarker.match(rest);
        if (!item.hasMatch()) item = orderedMarker.match(rest);
        quote.listMarker = item.hasMatch()
                               ? TextRange{quote.markers.end(), static_cast<int>(item.capturedLength(1))}
                               : TextRange{quote.markers.end(), 0};
        quoteLines.push_back(quote);
    }
    return quoteLines;
}

namespace {

const QRegularExpression& footnoteReferencePattern() {
    static const QRegularExpression reference = compilePattern(QStringLiteral(R"re(\[\^([^\]\r\n]+)\])re"));
    return reference;
}

}  // namespace

Footnotes findFootnotes(const QString& text, const TextLines& lines, const RangeSet& exclusions) {
    const QRegularExpression& reference = footnoteReferencePattern();
    const QRegularExpression& definition = footnoteDefinitionPattern();

    Footnotes footnotes;
    QHash<QString, int> definitionByLabel;  // label -> index into definitions
    QSet<int> definitionAt;                 // marker starts, repeats included
    forEachMatch(definition, text, exclusions, [&](const QRegularExpressionMatch& match) {
        const QString label = match.captured(2);
        const int start = static_cast<int>(match.capturedStart());
        definitionAt.insert(start);
        // The first definition of a label wins; a repeat is left as typed.
        if (definitionByLabel.contains(label)) return MatchVerdict::skip;
        definitionByLabel.insert(label, static_cast<int>(footnotes.definitions.size()));
        footnotes.definitions.push_back({capturedRange(match, 1), capturedRange(match, 3), label, -1});
        return MatchVerdict::take;
    });
    forEachMatch(reference, text, exclusions, [&](const QRegularExpressionMatch& match) {
        const int start = static_cast<int>(match.capturedStart());
        if (definitionAt.contains(start)) return MatchVerdict::skip;  // a definition's own label
        if (isDetailsTagLine(lines.content(lines.lineAt(start)))) return MatchVerdict::skip;
        const QString label = match.captured(1);
        const auto found = definitionByLabel.constFind(label);
        if (found == definitionByLabel.constEnd()) return MatchVerdict::skip;
        FootnoteDefinition& target = footnotes.definitions[*found];
        if (target.firstReferenceLocation < 0) target.firstReferenceLocation = start;
        footnotes.references.push_back({capturedRange(match, 0), label, target.marker.start});
        return MatchVerdict::take;
    });
    return footnotes;
}

Footnotes findFootnotesInRun(const QString& text, const TextLines& lines, const RangeSet& exclusions,
                             const FootnoteContext& context) {
    Footnotes footnotes;
    QSet<int> definitionAt;
    forEachMatch(footnoteDefinitionPattern(), text, exclusions, [&](const QRegularExpressionMatch& match) {
        const int start = static_cast<int>(match.capturedStart());
        definitionAt.insert(start);
        const auto taken = context.taken.constFind(context.offset + start);
        if (taken == context.taken.constEnd()) return MatchVerdict::skip;
        footnotes.definitions.push_back(
            {capturedRange(match, 1), capturedRange(match, 3), match.captured(2), *taken});
        return MatchVerdict::take;
    });
    forEachMatch(footnoteReferencePattern(), text, exclusions, [&](const QRegularExpressionMatch& match) {
        const int start = static_cast<int>(match.capturedStart());
        if (definitionAt.contains(start)) return MatchVerdict::skip;
        if (isDetailsTagLine(lines.content(lines.lineAt(start)))) return MatchVerdict::skip;
        const QString label = match.captured(1);
        const auto found = context.definitions.constFind(label);
        if (found == context.definitions.constEnd()) return MatchVerdict::skip;
        footnotes.references.push_back({capturedRange(match, 0), label, *found});
        return MatchVerdict::take;
    });
    return footnotes;
}

}  // namespace mossly::markdown
