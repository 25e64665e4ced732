#include "IncrementalStyler.h"

#include <QSet>
#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "MarkdownBlocks.h"
#include "MarkdownLineRun.h"
#include "MarkdownStyler.h"
#include "MarkdownText.h"

namespace mossly::markdown {

namespace {

// The start of the line holding `position`.
int lineStart(const QString& text, int position) {
    return position > 0 ? static_cast<int>(text.lastIndexOf(u'\n', position - 1)) + 1 : 0;
}

// The line break at or after `position`, else the text's end.
int lineEnd(const QString& text, int position) {
    const auto at = text.indexOf(u'\n', position);
    return at < 0 ? static_cast<int>(text.size()) : static_cast<int>(at);
}

int nextLineStart(const QString& text, int position) {
    const int end = lineEnd(text, position);
    return end < text.size() ? end + 1 : end;
}

bool holdsDetailsTag(QStringView lines) {
    static constexpr std::array<QStringView, 4> tokens = {u"<details", u"</details", u"<summary",
                                                          u"</summary"};
    return std::ranges::any_of(tokens, [&](QStringView token) { return lines.contains(token); });
}

// Whether every "]:" in the lines ends the label of a footnote definition starting its
// line (link definitions change what other lines link to).
bool definesOnlyFootnotes(QStringView lines) {
    for (auto at = lines.indexOf(u"]:"); at >= 0; at = lines.indexOf(u"]:", at + 2)) {
        const qsizetype start = at > 0 ? lines.lastIndexOf(u'\n', at - 1) + 1 : 0;
        const QStringView marker = lines.sliced(start, at + 2 - start);
        if (marker.size() < 5 || !marker.startsWith(u"[^")) return false;
        const QStringView label = marker.sliced(2, marker.size() - 4);
        if (label.contains(u']') || label.contains(u'\r')) return false;
    }
    return true;
}

// Tokens that start or end a details block or a link definition other lines look up.
// Edited lines holding them are left to the full pass.
bool holdsBlockToken(QStringView lines) {
    return holdsDetailsTag(lines) || !definesOnlyFootnotes(lines);
}

// The footnote definition markers of some lines, relative to `start`.
std::vector<TextRange> footnoteMarkersOf(QStringView lines, int start) {
    std::vector<TextRange> markers;
    if (!lines.contains(u"]:")) return markers;
    const QString searchable = withValidUtf16(lines.toString());
    for (auto match = footnoteDefinitionPattern().globalMatch(searchable); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        markers.push_back(
            {start + static_cast<int>(found.capturedStart(1)), static_cast<int>(found.capturedLength(1))});
    }
    return markers;
}

bool holdsFence(QStringView lines) {
    return lines.contains(u"```") || lines.contains(u"~~~");
}

// The HTML tags of some lines, relative to `start`. A tag inside display math keeps
// the math from being drawn, however far away its "$$" lines are.
std::vector<TextRange> tagsOf(QStringView lines, int start) {
    static const QRegularExpression tag = compilePattern(QStringLiteral(R"re(</?[A-Za-z][^>\r\n]*>)re"));
    std::vector<TextRange> tags;
    if (!lines.contains(u'<')) return tags;
    const QString searchable = withValidUtf16(lines.toString());
    for (auto match = tag.globalMatch(searchable); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        tags.push_back(
            {start + static_cast<int>(found.capturedStart()), static_cast<int>(found.capturedLength())});
    }
    return tags;
}

// The first line of the run of lines holding '|' that ends at the line starting at
// `start` (that line itself when the one above holds none).
int firstOfRowRun(const QString& text, int start) {
    while (start > 0) {
        const int above = lineStart(text, start - 1);
        if (!QStringView(text).sliced(above, start - 1 - above).contains(u'|')) break;
        start = above;
    }
    return start;
}

// The end of the run of lines holding '|' that begins after the line ending at `end`.
int lastOfRowRun(const QString& text, int end) {
    const int size = static_cast<int>(text.size());
    while (end < size) {
        const int next = lineEnd(text, end + 1);
        if (!QStringView(text).sliced(end + 1, next - end - 1).contains(u'|')) break;
        end = next;
    }
    return end;
}

// Whether an indented fence lies between `from` and `through` or close enough below
// that whether it opens code (inside a list item) may depend on the lines above it.
bool indentedFenceBelow(const QString& text, int from, int through) {
    constexpr int kListItemWalk = 501;  // one more than the fence scan looks back
    const int size = static_cast<int>(text.size());
    int position = from;
    for (int line = 0; (line < kListItemWalk || position < through) && position < size; ++line) {
        if (position < through) line = 0;
        int first = position;
        while (first < size && (text[first] == u' ' || text[first] == u'\t')) ++first;
        if (first > position && first + 2 < size && (text[first] == u'`' || text[first] == u'~') &&
            text[first + 1] == text[first] && text[first + 2] == text[first]) {
            return true;
        }
        position = nextLineStart(text, first);
        if (position == size) break;
    }
    return false;
}

// Replaces v[lo, hi) with `middle`.
template <typename T>
void replaceSpan(std::vector<T>& v, std::size_t lo, std::size_t hi, std::vector<T>&& middle) {
    const std::size_t before = hi - lo;
    if (middle.size() > before) {
        v.insert(v.begin() + static_cast<std::ptrdiff_t>(hi), middle.size() - before, T{});
    } else if (middle.size() < before) {
        v.erase(v.begin() + static_cast<std::ptrdiff_t>(lo + middle.size()),
                v.begin() + static_cast<std::ptrdiff_t>(hi));
    }
    std::move(middle.begin(), middle.end(), v.begin() + static_cast<std::ptrdiff_t>(lo));
}

// Where the lines a change restyles lie, in the old text and the new.
struct LineSpan {
    int start = 0;   // same in both texts
    int oldEnd = 0;  // after the last restyled line's break, old text
    int newEnd = 0;  // the same place in the new text
    int oldSize = 0;
    int newSize = 0;
    int delta = 0;

    // Whether a position of the old (new) pass belongs to the restyled lines. The
    // text's end belongs to its last line.
    bool holdsOld(int position) const {
        return position >= start && (position < oldEnd || (oldEnd == oldSize && position == oldSize));
    }
    bool holdsNew(int position) const {
        return position >= start && (position < newEnd || (newEnd == newSize && position == newSize));
    }
    // Old positions outside the restyled lines, moved into the new text; a range
    // holding the lines (a details block around them) grows with them.
    int shifted(int position) const { return position >= oldEnd ? position + delta : position; }
    void shift(int& position) const { position = shifted(position); }
    void shift(TextRange& range) const {
        if (range.start <= start && range.length > 0 && range.end() >= oldEnd) {
            range.length += delta;
        } else {
            range.start = shifted(range.start);
        }
    }
};

// Splices a vector of items that each sit at one position: the old items outside the
// span stay (shifted), the run's items inside it replace the rest.
template <typename T, typename At, typename Move>
void spliceItems(std::vector<T>& items, std::vector<T>&& fromRun, const LineSpan& span, At at, Move move) {
    const auto lo =
        static_cast<std::size_t>(std::partition_point(items.begin(), items.end(),
                                                      [&](const T& item) { return at(item) < span.start; }) -
                                 items.begin());
    std::size_t hi = lo;
    while (hi < items.size() && span.holdsOld(at(items[hi]))) ++hi;
    std::vector<T> middle;
    for (T& item : fromRun) {
        move(item, span.start);
        if (span.holdsNew(at(item))) middle.push_back(std::move(item));
    }
    const std::size_t resume = lo + middle.size();
    replaceSpan(items, lo, hi, std::move(middle));
    if (span.delta == 0) return;
    for (std::size_t i = resume; i < items.size(); ++i) move(items[i], span.delta);
}

void spliceRuns(std::vector<StyleRun>& runs, const std::vector<StyleRun>& fromRun, const LineSpan& span) {
    auto lo = static_cast<std::size_t>(
        std::partition_point(runs.begin(), runs.end(),
                             [&](const StyleRun& run) { return run.end() < span.start; }) -
        runs.begin());
    auto hi = static_cast<std::size_t>(
        std::partition_point(runs.begin(), runs.end(),
                             [&](const StyleRun& run) { return run.start <= span.oldEnd; }) -
        runs.begin());
    // Neighbours touching the span are rebuilt too, so that equal neighbours merge as
    // they do in a full pass.
    std::vector<StyleRun> middle;
    auto push = [&](int start, int end, const StyleAttributes& attributes) {
        if (end <= start) return;
        if (!middle.empty() && middle.back().end() == start && middle.back().attributes == attributes) {
            middle.back().length = end - middle.back().start;
        } else {
            middle.push_back({start, end - start, attributes});
        }
    };
    for (std::size_t i = lo; i < hi; ++i)
        push(runs[i].start, std::min(runs[i].end(), span.start), runs[i].attributes);
    const int runEnd = span.newEnd - span.start;
    for (const StyleRun& run : fromRun) {
        if (run.start >= runEnd) break;
        push(span.start + run.start, span.start + std::min(run.end(), runEnd), run.attributes);
    }
    for (std::size_t i = lo; i < hi; ++i) {
        const int start = std::max(runs[i].start, span.oldEnd);
        push(start + span.delta, runs[i].end() + span.delta, runs[i].attributes);
    }
    const std::size_t resume = lo + middle.size();
    replaceSpan(runs, lo, hi, std::move(middle));
    if (span.delta == 0) return;
    for (std::size_t i = resume; i < runs.size(); ++i) runs[i].start += span.delta;
}

// A definition outside the restyled lines links back to its label's first reference:
// collects where that now is for every label referenced in the lines, and fails when
// one moves other than by the edit's shift (the definition would change too).
bool movedFirstReferences(const StylePass& old, const std::vector<FootnoteReference>& fresh,
                          const LineSpan& span, int position, int removed,
                          std::vector<std::pair<std::size_t, int>>& moved) {
    QSet<QString> labels;
    for (const FootnoteReference& reference : old.footnoteReferences) {
        if (span.holdsOld(reference.range.start)) labels.insert(reference.label);
    }
    for (const FootnoteReference& reference : fresh) {
        if (span.holdsNew(span.start + reference.range.start)) labels.insert(reference.label);
    }
    for (const QString& label : labels) {
        const auto definition = std::ranges::find(old.footnoteDefinitions, label, &FootnoteDefinition::label);
        if (definition == old.footnoteDefinitions.end()) continue;
        const int before = definition->firstReferenceLocation;
        if (before >= 0 && before < span.start) continue;
        int after = -1;
        for (const FootnoteReference& reference : fresh) {
            const int start = span.start + reference.range.start;
            if (reference.label == label && span.holdsNew(start)) {
                after = start;
                break;
            }
        }
        if (after < 0) {
            for (const FootnoteReference& reference : old.footnoteReferences) {
                if (reference.label == label && reference.range.start >= span.oldEnd) {
                    after = reference.range.start + span.delta;
                    break;
                }
            }
        }
        int expected = -1;
        if (before >= 0) {
            if (before >= position && before < position + removed) return false;
            expected = before < position ? before : before + span.delta;
        }
        if (after != expected) return false;
        moved.emplace_back(definition - old.footnoteDefinitions.begin(), after);
    }
    return true;
}

// Tables are numbered through the note: those of the run follow the ones above it,
// and the ones below are renumbered when the run holds more or fewer than before.
void spliceTables(StylePass& pass, StylePass& fresh, const LineSpan& span) {
    const auto tablesAbove = static_cast<int>(std::ranges::count_if(
        pass.tables, [&](const Table& table) { return table.range.start < span.start; }));
    const auto tablesWithin = static_cast<int>(std::ranges::count_if(
        pass.tables, [&](const Table& table) { return span.holdsOld(table.range.start); }));
    const int renumbered = static_cast<int>(fresh.tables.size()) - tablesWithin;
    for (DrawnObject& object : fresh.objects) {
        if (object.kind == DrawnKind::table) object.index += tablesAbove;
    }
    if (renumbered != 0) {
        for (DrawnObject& object : pass.objects) {
            if (object.kind == DrawnKind::table && object.start >= span.oldEnd) object.index += renumbered;
        }
    }
    spliceItems(
        pass.tables, std::move(fresh.tables), span, [](const Table& t) { return t.range.start; },
        [](Table& table, int by) {
            auto moveRow = [&](TableRow& row) {
                row.range.start += by;
                for (TableCell& cell : row.cells) cell.range.start += by;
            };
            table.range.start += by;
            table.delimiterRow.start += by;
            moveRow(table.header);
            for (TableRow& row : table.body) moveRow(row);
        });
}

// Whether a "$$" between `from` and `to` lies elsewhere than on the first or last line
// of the given display math (old positions; in the new text those from `edit` on
// moved by `delta`).
bool strayMathLine(const QString& text, int from, int to, const std::vector<TextRange>& math, int edit,
                   int delta) {
    auto moved = [&](int position) { return position < edit ? position : position + delta; };
    for (auto at = text.indexOf(u"$$", from); at >= 0 && at < to; at = text.indexOf(u"$$", at + 2)) {
        const int line = lineStart(text, static_cast<int>(at));
        const bool ownLine = std::ranges::any_of(math, [&](const TextRange& range) {
            return line == moved(range.start) || line == lineStart(text, moved(range.end()));
        });
        if (!ownLine) return true;
    }
    return false;
}

// Whether an old position lies inside code.
bool insideCode(const std::vector<CodeBlock>& blocks, int position) {
    const auto after =
        std::ranges::upper_bound(blocks, position, {}, [](const CodeBlock& b) { return b.range.start; });
    return after != blocks.begin() && std::prev(after)->range.end() >= position;
}

// Scans fences over the new text from `from` (a line start outside code) the way the
// full pass does, to the first line past `editedEnd` at whose start code is closed
// both in the new text and in the old pass: from there on nothing differs. Returns
// the end of the line before it, nothing when an indented fence (whose meaning
// depends on the lines above it) turns up.
std::optional<int> codeAgreesAgain(const QString& text, int from, int editedEnd,
                                   const std::vector<CodeBlock>& oldBlocks, int delta) {
    const int size = static_cast<int>(text.size());
    std::optional<Fence> open;
    for (int line = from;;) {
        if (line > editedEnd && !open && !insideCode(oldBlocks, line - delta)) return line - 1;
        const int end = lineEnd(text, line);
        QStringView content = QStringView(text).sliced(line, end - line);
        if (content.endsWith(u'\r')) content.chop(1);
        if (open) {
            if (closesFence(content, *open)) open.reset();
        } else if (const std::optional<Fence> fence = openingFence(content)) {
            if (fence->indentation > 0) return std::nullopt;
            open = fence;
        }
        if (end >= size) return size;
        line = end + 1;
    }
}

// Code blocks are numbered through the note like tables.
void spliceCodeBlocks(StylePass& pass, StylePass& fresh, const LineSpan& span) {
    const auto blocksAbove = static_cast<int>(std::ranges::count_if(
        pass.codeBlocks, [&](const CodeBlock& block) { return block.range.start < span.start; }));
    const auto blocksWithin = static_cast<int>(std::ranges::count_if(
        pass.codeBlocks, [&](const CodeBlock& block) { return span.holdsOld(block.range.start); }));
    const int renumbered =
        static_cast<int>(std::ranges::count_if(
            fresh.codeBlocks,
            [&](const CodeBlock& block) { return span.holdsNew(span.start + block.range.start); })) -
        blocksWithin;
    for (DrawnObject& object : fresh.objects) {
        if (object.kind == DrawnKind::codePanel) object.index += blocksAbove;
    }
    if (renumbered != 0) {
        for (DrawnObject& object : pass.objects) {
            if (object.kind == DrawnKind::codePanel && object.start >= span.oldEnd)
                object.index += renumbered;
        }
    }
    spliceItems(
        pass.codeBlocks, std::move(fresh.codeBlocks), span, [](const CodeBlock& b) { return b.range.start; },
        [](CodeBlock& block, int by) {
            block.range.start += by;
            block.openingFence.start += by;
            block.closingFence.start += by;
            block.body.start += by;
            // Blocks outside list items keep an empty indentation at 0.
            if (block.indentation.length > 0) block.indentation.start += by;
        });
}

// Calls `range(start, length)` for every range and `point(position)` for every lone
// position a pass holds.
template <typename Range, typename Point>
void forEachPosition(StylePass& pass, Range&& range, Point&& point) {
    auto textRange = [&](TextRange& r) { range(r.start, r.length); };
    for (StyleRun& run : pass.runs) range(run.start, run.length);
    for (DrawnObject& object : pass.objects) {
        range(object.start, object.length);
        if (object.related.start >= 0) textRange(object.related);
    }
    for (int& index : pass.bulletIndexes) point(index);
    for (int& index : pass.softBreakIndexes) point(index);
    for (CodeBlock& block : pass.codeBlocks) {
        for (TextRange* r :
             {&block.range, &block.openingFence, &block.closingFence, &block.body, &block.indentation}) {
            textRange(*r);
        }
    }
    for (DetailsBlock& block : pass.detailsBlocks) {
        for (TextRange* r : {&block.range, &block.openingTag, &block.summaryOpenTag, &block.summary,
                             &block.summaryCloseTag, &block.body, &block.closingTag}) {
            textRange(*r);
        }
    }
    auto row = [&](TableRow& tableRow) {
        textRange(tableRow.range);
        for (TableCell& cell : tableRow.cells) textRange(cell.range);
    };
    for (Table& table : pass.tables) {
        textRange(table.range);
        textRange(table.delimiterRow);
        row(table.header);
        for (TableRow& body : table.body) row(body);
    }
    for (BlockQuoteLine& quote : pass.quoteLines) {
        textRange(quote.line);
        textRange(quote.markers);
        textRange(quote.listMarker);
    }
    for (FootnoteReference& reference : pass.footnoteReferences) {
        textRange(reference.range);
        point(reference.definitionLocation);
    }
    for (FootnoteDefinition& definition : pass.footnoteDefinitions) {
        textRange(definition.marker);
        textRange(definition.body);
        point(definition.firstReferenceLocation);
    }
}

}  // namespace

IncrementalStyler::IncrementalStyler(Presentation presentation, double baseSize, QString noteDirectory,
                                     QString noteFilePath)
    : presentation_(presentation),
      baseSize_(baseSize),
      noteDirectory_(std::move(noteDirectory)),
      noteFilePath_(std::move(noteFilePath)) {}

const StylePass& IncrementalStyler::restyle(const QString& text) {
    restyleWhole(text);
    return pass_;
}

StyleChange IncrementalStyler::restyleWhole(const QString& text) {
    text_ = text;
    if (presentation_ == Presentation::source) {
        pass_ = styleMarkdown(text, presentation_, baseSize_, noteDirectory_, noteFilePath_);
        linkDefinitions_.clear();
    } else {
        StyledLineRun run = styleLineRun(withValidUtf16(text), baseSize_, noteDirectory_, noteFilePath_, {});
        pass_ = std::move(run.pass);
        linkDefinitions_ = std::move(run.linkDefinitions);
    }
    styled_ = true;
    return {{0, static_cast<int>(text.size())}};
}

StyleChange IncrementalStyler::update(const QString& text, int position, int removed, int added) {
    const bool consistent = styled_ && position >= 0 && removed >= 0 && added >= 0 &&
                            position + removed <= text_.size() && position + added <= text.size() &&
                            text.size() == text_.size() - removed + added;
    TextRange restyled;
    if (consistent && presentation_ == Presentation::styled &&
        (restyleInsideCode(text, position, removed, added, restyled) ||
         restyleLines(text, position, removed, added, restyled))) {
        return {restyled};
    }
    return restyleWhole(text);
}

bool IncrementalStyler::restyleLines(const QString& text, int position, int removed, int added,
                                     TextRange& restyled) {
    const int editedStart = lineStart(text, position);
    const int oldEditedEnd = lineEnd(text_, position + removed);
    const int newEditedEnd = lineEnd(text, position + added);
    const QStringView oldEdited = QStringView(text_).sliced(editedStart, oldEditedEnd - editedStart);
    const QStringView newEdited = QStringView(text).sliced(editedStart, newEditedEnd - editedStart);
    if (holdsBlockToken(oldEdited) || holdsBlockToken(newEdited)) return false;
    // The ranges `find` sees in the edited lines are the same after the edit, those after it shifted.
    // One ending at the edit stays; a blank typed after a marker shows as a longer one.
    const auto keepsRanges = [&](std::vector<TextRange> (*find)(QStringView, int)) {
        std::vector<TextRange> before = find(oldEdited, editedStart);
        for (TextRange& range : before) {
            if (range.end() <= position) continue;
            if (range.start < position + removed) return false;
            range.start += added - removed;
        }
        return before == find(newEdited, editedStart);
    };
    // Tags neither come nor go, nor change; footnote definitions keep their markers (only their text may change).
    if (!keepsRanges(tagsOf) || !keepsRanges(footnoteMarkersOf)) return false;
    // '>' ends an opening details tag that may have begun lines above.
    auto angle = [](QStringView edit) { return edit.contains(u'>') || edit.contains(u'<'); };
    if (angle(QStringView(text_).sliced(position, removed)) ||
        angle(QStringView(text).sliced(position, added))) {
        return false;
    }

    // A fence typed or deleted changes which lines are code down to the first line
    // where code ends both before and after the edit; code near the lines is styled
    // again whole, from its opening fence.
    const bool fenceEdited = holdsFence(oldEdited) || holdsFence(newEdited);
    // A "$$" line typed or deleted changes how every "$$" line below it pairs: the lines
    // are restyled to the note's end.
    const bool mathEdited = oldEdited.contains(u"$$") || newEdited.contains(u"$$");

    // The lines restyled: the edited ones (with any display math, code or table rows
    // around them) and the line above, whose soft break looks at the first of them.
    // The line below is styled along as context only. Every table lies in a run of
    // lines holding '|', so no table crosses the span's edges.
    LineSpan span;
    span.oldSize = static_cast<int>(text_.size());
    span.newSize = static_cast<int>(text.size());
    span.delta = added - removed;
    int top = editedStart;
    int lastOld = oldEditedEnd;  // the end of the last line to restyle, old text
    // Whether the last "$$" above `at` ends drawn display math (or there is none).
    auto mathClosesAbove = [&](int at) {
        const auto last = static_cast<int>(text.lastIndexOf(u"$$", at - 1));
        if (at == 0 || last < 0) return true;
        const auto after = std::ranges::upper_bound(pass_.objects, last, {}, &DrawnObject::start);
        for (auto object = std::make_reverse_iterator(after); object != pass_.objects.rend(); ++object) {
            if (object->kind == DrawnKind::displayMath) {
                return lineStart(text_, object->end()) == lineStart(text, last);
            }
        }
        return false;
    };
    std::optional<StyledLineRun> run;
    FootnoteContext noteFootnotes;
    // Old positions outside the edit, moved into the new text.
    auto moved = [&](int old) { return old >= position + removed ? old + added - removed : old; };
    bool footnotes = false;
    bool code = false;
    bool extended = false;
    while (true) {
        const int firstRow = firstOfRowRun(text, top);
        span.start = firstRow > 0 ? lineStart(text, firstRow - 1) : 0;
        span.oldEnd = nextLineStart(text_, lastOfRowRun(text_, lastOld));
        span.newEnd = span.oldEnd + span.delta;
        const int contextEndOld = lineEnd(text_, span.oldEnd);
        const int contextEndNew = lineEnd(text, span.newEnd);
        const QStringView oldLines = QStringView(text_).sliced(span.start, contextEndOld - span.start);
        const QStringView newLines = QStringView(text).sliced(span.start, contextEndNew - span.start);

        auto meets = [&](TextRange range) {
            return range.start <= contextEndOld && range.end() >= span.start;
        };
        const auto above = std::ranges::find_if(pass_.codeBlocks, [&](const CodeBlock& block) {
            return block.range.start < span.start && block.range.end() >= span.start;
        });
        if (above != pass_.codeBlocks.end()) {
            top = above->range.start;
            continue;
        }
        code = fenceEdited || std::ranges::any_of(pass_.codeBlocks,
                                                  [&](const CodeBlock& block) { return meets(block.range); });
        // Display math meeting the lines is restyled whole: its "$$" lines pair as before
        // as long as the edited lines hold none, keep their tags and code stays as it is.
        std::vector<TextRange> math;  // old positions
        for (const DrawnObject& object : pass_.objects) {
            if (object.start > contextEndOld) break;
            if (object.kind == DrawnKind::displayMath && meets({object.start, object.length})) {
                math.push_back({object.start, object.length});
            }
        }
        if (!math.empty() && code) return false;
        if (mathEdited) {
            if (code || !mathClosesAbove(span.start)) return false;
            if (lastOld < span.oldSize) {
                lastOld = span.oldSize;
                continue;
            }
        }
        if (!math.empty() && (math.front().start < top || lineEnd(text_, math.back().end()) > lastOld)) {
            top = std::min(top, math.front().start);
            lastOld = std::max(lastOld, lineEnd(text_, math.back().end()));
            continue;
        }
        // Lines turning into code (or back) lose (or gain) their tags and definitions.
        auto tagOrDefinition = [](QStringView lines) {
            return lines.contains(u'<') || lines.contains(u"]:");
        };
        if (code && !extended) {
            const std::optional<int> agreed =
                codeAgreesAgain(text, span.start, newEditedEnd, pass_.codeBlocks, span.delta);
            if (!agreed) return false;
            lastOld = std::max(lastOld, *agreed - span.delta);
            extended = true;
            continue;
        }
        if (code && (tagOrDefinition(oldLines) || tagOrDefinition(newLines))) return false;
        // Display math whose "$$" lines lie on both sides was kept from being drawn (or
        // it would meet the lines); code appearing in it changes how later "$$" lines
        // pair. Drawn math closing on the last "$$" line above rules that out.
        if (code && !mathClosesAbove(span.start) && text.indexOf(u"$$", contextEndNew) >= 0) return false;
        // A "$$" line around the display math (or the edited lines) may close math that
        // began far above, even math that a tag inside it kept from being drawn.
        if (!mathEdited && (strayMathLine(text_, span.start, contextEndOld, math, position, 0) ||
                            strayMathLine(text, span.start, contextEndNew, math, position, span.delta))) {
            return false;
        }
        // An open details block may hold the lines, away from its tags; a closed one hides
        // them, which the run cannot know.
        auto holdsLines = [&](const DetailsBlock& block) {
            return block.open && block.summaryCloseTag.end() < span.start &&
                   block.closingTag.start > contextEndOld && !holdsDetailsTag(oldLines) &&
                   !holdsDetailsTag(newLines);
        };
        if (std::ranges::any_of(pass_.detailsBlocks, [&](const DetailsBlock& block) {
                return meets(block.range) && !holdsLines(block);
            })) {
            return false;
        }
        // The run cannot look above itself for the list item an indented fence belongs to.
        if (indentedFenceBelow(text, code ? span.start : span.newEnd, span.newEnd)) return false;

        footnotes = oldLines.contains(u"[^") || newLines.contains(u"[^");
        noteFootnotes = FootnoteContext{span.start, {}, {}};
        if (footnotes) {
            for (const FootnoteDefinition& definition : pass_.footnoteDefinitions) {
                const int marker = moved(definition.marker.start);
                noteFootnotes.definitions.insert(definition.label, marker);
                if (definition.marker.start < span.start || definition.marker.start > contextEndOld) continue;
                const int first = definition.firstReferenceLocation;
                if (first >= position && first < position + removed) return false;
                noteFootnotes.taken.insert(marker, first < 0 ? -1 : moved(first));
            }
        }
        LineRunContext context;
        context.startsAtTitle = span.start == 0;
        context.footnotes = &noteFootnotes;
        context.linkDefinitions = &linkDefinitions_;
        run = styleLineRun(withValidUtf16(newLines.toString()), baseSize_, noteDirectory_, noteFilePath_,
                           context);
        break;
    }
    StylePass& fresh = run->pass;
    // Table rows past where code agrees again may have carried the span into code.
    const int runEnd = span.newEnd - span.start;
    if (span.newEnd < span.newSize && (insideCode(pass_.codeBlocks, span.oldEnd) ||
                                       std::ranges::any_of(fresh.codeBlocks, [&](const CodeBlock& b) {
                                           return b.range.start < runEnd && b.range.end() >= runEnd;
                                       }))) {
        return false;
    }

    std::vector<std::pair<std::size_t, int>> firstReferences;
    if (footnotes &&
        !movedFirstReferences(pass_, fresh.footnoteReferences, span, position, removed, firstReferences)) {
        return false;
    }

    spliceTables(pass_, fresh, span);
    spliceCodeBlocks(pass_, fresh, span);
    spliceRuns(pass_.runs, fresh.runs, span);
    spliceItems(
        pass_.objects, std::move(fresh.objects), span, [](const DrawnObject& o) { return o.start; },
        [](DrawnObject& o, int by) {
            o.start += by;
            if (o.related.start >= 0) o.related.start += by;
        });
    auto moveIndex = [](int& index, int by) { index += by; };
    auto indexAt = [](int index) { return index; };
    spliceItems(pass_.bulletIndexes, std::move(fresh.bulletIndexes), span, indexAt, moveIndex);
    spliceItems(pass_.softBreakIndexes, std::move(fresh.softBreakIndexes), span, indexAt, moveIndex);
    spliceItems(
        pass_.quoteLines, std::move(fresh.quoteLines), span,
        [](const BlockQuoteLine& q) { return q.line.start; },
        [](BlockQuoteLine& q, int by) {
            q.line.start += by;
            q.markers.start += by;
            q.listMarker.start += by;
        });
    // Locations already point into the whole note.
    for (FootnoteReference& reference : pass_.footnoteReferences) {
        reference.definitionLocation = moved(reference.definitionLocation);
    }
    spliceItems(
        pass_.footnoteReferences, std::move(fresh.footnoteReferences), span,
        [](const FootnoteReference& r) { return r.range.start; },
        [](FootnoteReference& r, int by) { r.range.start += by; });
    for (FootnoteDefinition& definition : pass_.footnoteDefinitions) {
        definition.firstReferenceLocation = moved(definition.firstReferenceLocation);
    }
    spliceItems(
        pass_.footnoteDefinitions, std::move(fresh.footnoteDefinitions), span,
        [](const FootnoteDefinition& d) { return d.marker.start; },
        [](FootnoteDefinition& d, int by) {
            d.marker.start += by;
            d.body.start += by;
        });
    for (const auto& [index, location] : firstReferences) {
        pass_.footnoteDefinitions[index].firstReferenceLocation = location;
    }
    if (span.delta != 0) {
        for (DetailsBlock& block : pass_.detailsBlocks) {
            for (TextRange* range : {&block.range, &block.openingTag, &block.summaryOpenTag, &block.summary,
                                     &block.summaryCloseTag, &block.body, &block.closingTag}) {
                span.shift(*range);
            }
        }
    }

    text_ = text;
    restyled = {span.start, span.newEnd - span.start};
    return true;
}

// Code is opaque to every rule, so text typed inside a code block's body only
// lengthens what holds it: the block, its panel and its monospaced run.
bool IncrementalStyler::restyleInsideCode(const QString& text, int position, int removed, int added,
                                          TextRange& restyled) {
    const int editedStart = lineStart(text, position);
    const int oldEditedEnd = lineEnd(text_, position + removed);
    const int newEditedEnd = lineEnd(text, position + added);
    const auto block = std::ranges::find_if(pass_.codeBlocks, [&](const CodeBlock& candidate) {
        return candidate.body.length > 0 && candidate.body.start <= editedStart &&
               oldEditedEnd <= candidate.body.end();
    });
    if (block == pass_.codeBlocks.end()) return false;
    // Fences and the tokens of constructs that look through code (display math and
    // details blocks pair across it) must neither appear nor go.
    auto opens = [](QStringView lines) {
        static constexpr std::array<QStringView, 4> tokens = {u"```", u"~~~", u"$$", u"<"};
        return std::ranges::any_of(tokens, [&](QStringView token) { return lines.contains(token); });
    };
    if (opens(QStringView(text_).sliced(editedStart, oldEditedEnd - editedStart)) ||
        opens(QStringView(text).sliced(editedStart, newEditedEnd - editedStart)) ||
        QStringView(text_).sliced(position, removed).contains(u'>') ||
        QStringView(text).sliced(position, added).contains(u'>') ||
        indentedFenceBelow(text, std::min(newEditedEnd + 1, static_cast<int>(text.size())), 0)) {
        return false;
    }
    const TextRange body = block->body;
    const bool oneRun = std::ranges::any_of(
        pass_.runs, [&](const StyleRun& run) { return run.start == body.start && run.end() == body.end(); });
    // An emptied body loses its run, and the runs around it may merge.
    if (!oneRun || body.length + added - removed <= 0) return false;

    const int editEnd = position + removed;
    const int delta = added - removed;
    forEachPosition(
        pass_,
        [&](int& start, int& length) {
            if (start >= editEnd && start > body.start) {
                start += delta;
            } else if (start <= body.start && start + length >= body.end()) {
                length += delta;
            }
        },
        [&](int& point) {
            if (point >= editEnd) point += delta;
        });
    text_ = text;
    // Text typed at the body's start moves where the body starts: the block is restyled
    // from its opening fence then.
    const int from = editedStart == body.start ? block->range.start : editedStart;
    restyled = {from, newEditedEnd - from};
    return true;
}

}  // namespace mossly::markdown
