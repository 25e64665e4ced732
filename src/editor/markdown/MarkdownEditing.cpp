#include "MarkdownEditing.h"

#include <QRegularExpression>
#include <QStringList>
#include <algorithm>
#include <vector>

namespace mossly::markdown {

namespace {

// A replacement in the old text; several are applied together, in order.
struct Replacement {
    int start;
    int length;
    QString text;
};

struct Rewritten {
    QString text;
    std::vector<Replacement> replacements;

    // Where an old offset lands: after a replacement it shifts with it; inside
    // one it sticks to the same place in the new text, clamped to its end.
    int map(int position) const {
        int delta = 0;
        for (const Replacement& r : replacements) {
            if (position < r.start) break;
            if (position <= r.start + r.length && position > r.start) {
                return r.start + delta + std::min(position - r.start, static_cast<int>(r.text.size()));
            }
            if (position > r.start) delta += static_cast<int>(r.text.size()) - r.length;
        }
        return position + delta;
    }
    TextSelection map(TextSelection s) const { return {map(s.start), map(s.end)}; }
};

Rewritten rewrite(const QString& text, std::vector<Replacement> replacements) {
    std::stable_sort(replacements.begin(), replacements.end(),
                     [](const Replacement& a, const Replacement& b) { return a.start < b.start; });
    QString out;
    out.reserve(text.size());
    int cursor = 0;
    for (const Replacement& r : replacements) {
        out += QStringView(text).mid(cursor, r.start - cursor);
        out += r.text;
        cursor = r.start + r.length;
    }
    out += QStringView(text).mid(cursor);
    return {out, std::move(replacements)};
}

// The smallest single edit that turns `before` into `after`.
TextEdit editBetween(const QString& before, const QString& after, TextSelection selection) {
    int prefix = 0;
    const int limit = static_cast<int>(std::min(before.size(), after.size()));
    while (prefix < limit && before[prefix] == after[prefix]) ++prefix;
    int suffix = 0;
    while (suffix < limit - prefix && before[before.size() - 1 - suffix] == after[after.size() - 1 - suffix]) ++suffix;
    return {prefix, static_cast<int>(before.size()) - prefix - suffix,
            after.mid(prefix, after.size() - prefix - suffix), selection};
}

int lineStart(const QString& text, int position) {
    return position <= 0 ? 0 : static_cast<int>(text.lastIndexOf(u'\n', position - 1)) + 1;
}

int lineEnd(const QString& text, int position) {
    const qsizetype end = text.indexOf(u'\n', position);
    return end < 0 ? static_cast<int>(text.size()) : static_cast<int>(end);
}

// Line starts of every line touched by the selection; a selection ending at
// the very start of a line does not take that line.
std::vector<int> selectedLineStarts(const QString& text, TextSelection selection) {
    int last = selection.end;
    if (selection.end > selection.start && lineStart(text, selection.end) == selection.end) --last;
    std::vector<int> starts;
    for (int start = lineStart(text, selection.start);; start = lineEnd(text, start) + 1) {
        starts.push_back(start);
        if (lineEnd(text, start) >= last || lineEnd(text, start) >= text.size()) break;
    }
    return starts;
}

const QRegularExpression& continuationPattern() {
    static const QRegularExpression pattern(QStringLiteral(R"(^([ \t]*)([-*+]|\d+\.)([ \t]+)(\[[ xX]\][ \t]+)?(.*)$)"));
    return pattern;
}

const QRegularExpression& listItemPattern() {
    static const QRegularExpression pattern(QStringLiteral(R"(^(\s*)(?:[-*+]|\d+\.)\s+(?:\[[ xX]\]\s+)?)"));
    return pattern;
}

const QRegularExpression& markerPrefixPattern() {
    static const QRegularExpression pattern(
        QStringLiteral(R"(^([ \t]*)(?:(?:[-*+][ \t]+(?:\[[ xX]\][ \t]+)?)|(?:\d+\.[ \t]+)))"));
    return pattern;
}

const QRegularExpression& orderedItemPattern() {
    static const QRegularExpression pattern(QStringLiteral(R"(^([ \t]*)(\d+)(\.[ \t]+)([^\r\n]*)$)"));
    return pattern;
}

// A heading marker is followed by a space or ends the line: "#tag" is a word, not a heading.
const QRegularExpression& headingMarkerPattern() {
    static const QRegularExpression pattern(QStringLiteral(R"(^#{1,6}(?:[ \t]+|$))"));
    return pattern;
}

bool isFenceLine(QStringView line) {
    const QStringView trimmed = line.trimmed();
    return trimmed.startsWith(u"```") || trimmed.startsWith(u"~~~");
}

// A list item, or an indented line that continues one.
bool isListLine(QStringView line) {
    if (line.trimmed().isEmpty() || isFenceLine(line)) return false;
    return listItemPattern().match(line).hasMatch() || line.startsWith(u' ') || line.startsWith(u'\t');
}

// Whether the line starting at `start` lies inside a fenced code block.
bool insideFence(const QString& text, int start) {
    bool inside = false;
    for (int at = 0; at < start;) {
        const int end = lineEnd(text, at);
        if (isFenceLine(QStringView(text).mid(at, end - at))) inside = !inside;
        at = end + 1;
    }
    return inside;
}

// The first and last line starts of the list holding the selection: the
// consecutive list lines around it. Empty (first > last) outside a list or in code.
std::pair<int, int> listBlockAround(const QString& text, TextSelection selection) {
    const auto lineAt = [&](int start) { return QStringView(text).mid(start, lineEnd(text, start) - start); };
    int first = lineStart(text, selection.start);
    int last = lineStart(text, selection.end);
    if (insideFence(text, first)) return {1, 0};
    if (!isListLine(lineAt(first)) && !isListLine(lineAt(last))) return {1, 0};
    while (first > 0) {
        const int previous = lineStart(text, first - 1);
        if (!isListLine(lineAt(previous))) break;
        first = previous;
    }
    while (lineEnd(text, last) < text.size()) {
        const int following = lineEnd(text, last) + 1;
        if (!isListLine(lineAt(following))) break;
        last = following;
    }
    return {first, last};
}

// How much one outdent removes from the start of `indentation`.
int outdentLength(const QString& indentation) {
    if (indentation.startsWith(u'\t')) return 1;
    int spaces = 0;
    while (spaces < indentation.size() && spaces < MarkdownEditing::indentUnit.size() && indentation[spaces] == u' ') {
        ++spaces;
    }
    return spaces;
}

std::optional<TextEdit> withRenumbering(const QString& original, const Rewritten& edited, TextSelection selection) {
    TextSelection mapped = selection;
    QString text = edited.text;
    if (auto renumbered = MarkdownEditing::renumberOrderedLists(text, mapped)) {
        text.replace(renumbered->start, renumbered->length, renumbered->replacement);
        mapped = renumbered->selection;
    }
    return editBetween(original, text, mapped);
}

std::optional<TextEdit> makeTitleReal(const QString& text, TextSelection selection, bool breakLine) {
    if (selection.start != selection.end || lineEnd(text, 0) != 0 || selection.start != 0) return std::nullopt;
    // Return makes a new line only when there is none after the title; otherwise it moves to it, as Down does.
    if (breakLine && text.isEmpty()) {
        const QString inserted = MarkdownEditing::untitledTitle + u'\n';
        const int caret = static_cast<int>(inserted.size());
        return TextEdit{0, 0, inserted, {caret, caret}};
    }
    const int caret = static_cast<int>(MarkdownEditing::untitledTitle.size()) + 1;
    const int clamped = std::min(caret, static_cast<int>(text.size() + MarkdownEditing::untitledTitle.size()));
    return TextEdit{0, 0, MarkdownEditing::untitledTitle, {clamped, clamped}};
}

std::optional<TextEdit> deleteAtMarker(const QString& text, TextSelection selection, bool backward) {
    // The title keeps its heading marker while any of its text remains.
    const int titleEnd = lineEnd(text, 0);
    const QRegularExpressionMatch heading = headingMarkerPattern().match(text.left(titleEnd));
    if (heading.hasMatch() && heading.capturedLength() > 0 && heading.capturedLength() < titleEnd) {
        int from = selection.start;
        int to = selection.end;
        if (from == to) {
            from = backward ? from - 1 : from;
            to = backward ? to : to + 1;
        }
        const int markerEnd = static_cast<int>(heading.capturedLength());
        const bool touchesMarker = from < markerEnd && to > 0;
        const bool removesAllText = from <= markerEnd && to >= titleEnd;
        if (from >= 0 && touchesMarker && !removesAllText) return TextEdit{0, 0, QString(), selection};
    }

    if (selection.start != selection.end) return std::nullopt;
    const int start = lineStart(text, selection.start);
    const QString line = text.mid(start, lineEnd(text, start) - start);
    const QRegularExpressionMatch match = markerPrefixPattern().match(line);
    if (!match.hasMatch() || start + match.capturedLength() != selection.start) return std::nullopt;
    const QString indentation = match.captured(1);
    if (!indentation.isEmpty()) return MarkdownEditing::indent(text, selection, /*outdent=*/true);
    const int markerStart = start + static_cast<int>(indentation.size());
    const Rewritten edited = rewrite(text, {{markerStart, selection.start - markerStart, QString()}});
    return withRenumbering(text, edited, edited.map(selection));
}

QString linePrefixFor(FormattingAction action) {
    switch (action) {
        case FormattingAction::title: return QStringLiteral("# ");
        case FormattingAction::heading: return QStringLiteral("## ");
        case FormattingAction::subheading: return QStringLiteral("### ");
        case FormattingAction::smallHeading: return QStringLiteral("#### ");
        case FormattingAction::bulletedList: return QStringLiteral("- ");
        case FormattingAction::checklist: return QStringLiteral("- [ ] ");
        case FormattingAction::quote: return QStringLiteral("> ");
        default: return {};
    }
}

QString inlineMarkerFor(FormattingAction action) {
    switch (action) {
        case FormattingAction::bold: return QStringLiteral("**");
        case FormattingAction::italic: return QStringLiteral("*");
        case FormattingAction::inlineCode: return QStringLiteral("`");
        default: return {};
    }
}

// How many copies of `c` run up to `end` (backwards) or from `start` (forwards).
int runBefore(const QString& text, int end, QChar c) {
    int count = 0;
    while (end - count > 0 && text[end - count - 1] == c) ++count;
    return count;
}
int runAfter(const QString& text, int start, QChar c) {
    int count = 0;
    while (start + count < text.size() && text[start + count] == c) ++count;
    return count;
}

std::optional<TextEdit> wrapInline(const QString& text, TextSelection selection, const QString& marker) {
    if (selection.start == selection.end) return std::nullopt;  // it needs something to wrap
    const int n = static_cast<int>(marker.size());
    // Emphasis composes: "*" inside "**" is bold, not italic. The selection is
    // wrapped in this marker only when the runs around it hold it as such
    // ("*x*" or "***x***" for italic, "**x**" or "***x***" for bold).
    const QChar c = marker.front();
    const int before = runBefore(text, selection.start, c);
    const int after = runAfter(text, selection.end, c);
    const bool emphasis = c == u'*' || c == u'_';
    const bool wrapped = emphasis ? (before == after && (before == n || before == 3))
                                  : (before >= n && after >= n && text.mid(selection.start - n, n) == marker);
    if (wrapped) {  // applying it again unwraps
        const Rewritten edited = rewrite(text, {{selection.start - n, n, QString()}, {selection.end, n, QString()}});
        return editBetween(text, edited.text, {selection.start - n, selection.end - n});
    }
    const QString inner = text.mid(selection.start, selection.end - selection.start);
    return TextEdit{selection.start, selection.end - selection.start, marker + inner + marker,
                    {selection.start + n, selection.end + n}};
}

// Only the list marker goes: a checkbox after it, checked or not, stays.
QString withoutListMarker(const QString& line) {
    static const QRegularExpression marker(QStringLiteral(R"(^\s*([-*+]\s+|\d+\.\s+))"));
    const QRegularExpressionMatch match = marker.match(line);
    return match.hasMatch() ? line.mid(match.capturedLength()) : line;
}

bool startsWithCheckbox(const QString& text) {
    static const QRegularExpression checkbox(QStringLiteral(R"(^\[[ xX]\]\s)"));
    return checkbox.match(text).hasMatch();
}

QString transformedLine(FormattingAction action, const QString& line, int ordinal, bool unquote) {
    static const QRegularExpression quotePrefix(QStringLiteral(R"(^\s*>\s+)"));
    switch (action) {
        case FormattingAction::title:
        case FormattingAction::heading:
        case FormattingAction::subheading:
        case FormattingAction::smallHeading: return linePrefixFor(action) + QString(line).remove(headingMarkerPattern());
        case FormattingAction::body: return QString(line).remove(headingMarkerPattern());
        case FormattingAction::quote:
            if (unquote) return QString(line).remove(quotePrefix);
            return quotePrefix.match(line).hasMatch() ? line : linePrefixFor(action) + line;
        case FormattingAction::bulletedList: return linePrefixFor(action) + withoutListMarker(line);
        case FormattingAction::checklist: {
            const QString rest = withoutListMarker(line);
            // An item that already has a box keeps it, and its state.
            return (startsWithCheckbox(rest) ? QStringLiteral("- ") : linePrefixFor(action)) + rest;
        }
        case FormattingAction::numberedList: return QString::number(ordinal) + QStringLiteral(". ") + withoutListMarker(line);
        default: return line;
    }
}

}  // namespace

QString formattingActionName(FormattingAction action) {
    static const char* const names[] = {"title", "heading", "subheading", "smallHeading", "body",
                                        "quote", "bold", "italic", "inlineCode", "bulletedList",
                                        "numberedList", "checklist", "codeBlock"};
    return QString::fromLatin1(names[static_cast<int>(action)]);
}

namespace MarkdownEditing {

std::optional<TextEdit> insertNewline(const QString& text, TextSelection selection) {
    if (auto title = makeTitleReal(text, selection, /*breakLine=*/true)) return title;
    if (selection.start != selection.end) return std::nullopt;
    const int start = lineStart(text, selection.start);
    const int end = lineEnd(text, start);
    const QRegularExpressionMatch item = continuationPattern().match(text.mid(start, end - start));
    if (!item.hasMatch()) return std::nullopt;

    const QString indentation = item.captured(1);
    if (item.captured(5).trimmed().isEmpty()) {
        // Return on an empty item ends the list: the marker goes with its indentation
        // (left behind, it would be trailing spaces), and no line is added.
        const Rewritten edited = rewrite(text, {{start, end - start, QString()}});
        return withRenumbering(text, edited, {start, start});
    }
    QString marker = item.captured(2);
    if (marker.endsWith(u'.')) marker = QString::number(marker.chopped(1).toLongLong() + 1) + u'.';
    const QString checkbox = item.capturedLength(4) > 0 ? QStringLiteral("[ ] ") : QString();
    const QString prefix = u'\n' + indentation + marker + item.captured(3) + checkbox;
    const Rewritten edited = rewrite(text, {{selection.start, 0, prefix}});
    const int caret = selection.start + static_cast<int>(prefix.size());
    return withRenumbering(text, edited, {caret, caret});
}

std::optional<TextEdit> moveDown(const QString& text, TextSelection selection) {
    return makeTitleReal(text, selection, /*breakLine=*/false);
}

std::optional<TextEdit> indent(const QString& text, TextSelection selection, bool outdent) {
    std::vector<Replacement> replacements;
    for (const int start : selectedLineStarts(text, selection)) {
        const QString line = text.mid(start, lineEnd(text, start) - start);
        const QRegularExpressionMatch item = listItemPattern().match(line);
        if (!item.hasMatch()) continue;
        if (!outdent) {
            replacements.push_back({start, 0, indentUnit});
        } else if (const int remove = outdentLength(item.captured(1)); remove > 0) {
            replacements.push_back({start, remove, QString()});
        }
    }
    if (replacements.empty()) return std::nullopt;
    const Rewritten edited = rewrite(text, replacements);
    // A caret at the start of an indented line stays in front of its character, not of the new indent.
    const auto follow = [&](int position) {
        for (const Replacement& r : replacements) {
            if (r.length == 0 && r.start == position) return edited.map(position) + static_cast<int>(r.text.size());
        }
        return edited.map(position);
    };
    return withRenumbering(text, edited, {follow(selection.start), follow(selection.end)});
}

std::optional<TextEdit> deleteBackward(const QString& text, TextSelection selection) {
    return deleteAtMarker(text, selection, true);
}

std::optional<TextEdit> deleteForward(const QString& text, TextSelection selection) {
    return deleteAtMarker(text, selection, false);
}

std::optional<TextEdit> apply(FormattingAction action, const QString& text, TextSelection selection) {
    if (const QString marker = inlineMarkerFor(action); !marker.isEmpty()) return wrapInline(text, selection, marker);

    const std::vector<int> starts = selectedLineStarts(text, selection);
    const int runStart = starts.front();
    const int runEnd = lineEnd(text, starts.back());
    const QString run = text.mid(runStart, runEnd - runStart);
    if (action == FormattingAction::codeBlock) {
        const QString replacement = QStringLiteral("```\n") + run + QStringLiteral("\n```");
        return TextEdit{runStart, runEnd - runStart, replacement, {runStart + 4, runStart + 4 + static_cast<int>(run.size())}};
    }
    if (run.isEmpty()) {  // an empty line: the prefix goes in at the caret
        const QString prefix = action == FormattingAction::numberedList ? QStringLiteral("1. ") : linePrefixFor(action);
        if (prefix.isEmpty()) return std::nullopt;
        const int caret = runStart + static_cast<int>(prefix.size());
        return TextEdit{runStart, 0, prefix, {caret, caret}};
    }
    static const QRegularExpression quotePrefix(QStringLiteral(R"(^\s*>\s+)"));
    const QStringList lines = run.split(u'\n');
    const bool unquote = std::all_of(lines.begin(), lines.end(), [](const QString& line) {
        return line.trimmed().isEmpty() || quotePrefix.match(line).hasMatch();
    });
    QStringList changed;
    int ordinal = 0;
    for (const QString& line : lines) changed.append(transformedLine(action, line, ++ordinal, unquote));
    const QString replacement = changed.join(u'\n');
    if (replacement == run) return std::nullopt;
    return TextEdit{runStart, runEnd - runStart, replacement, {runStart, runStart + static_cast<int>(replacement.size())}};
}

std::optional<TextEdit> toggleChecklist(const QString& text, int position, TextSelection selection) {
    static const QRegularExpression item(QStringLiteral(R"(^(([ \t]*)[-*+][ \t]+\[([ xX])\][ \t]+))"));
    const int start = lineStart(text, position);
    const QRegularExpressionMatch match = item.match(text.mid(start, lineEnd(text, start) - start));
    if (!match.hasMatch()) return std::nullopt;
    const int state = start + static_cast<int>(match.capturedStart(3));
    return TextEdit{state, 1, text[state] == u' ' ? QStringLiteral("x") : QStringLiteral(" "), selection};
}

std::optional<TextEdit> toggleDetails(const QString& text, int tagStart, TextSelection selection) {
    static const QRegularExpression tag(QStringLiteral(R"(<details\b([^>]*)>)"));
    static const QRegularExpression openAttribute(
        QStringLiteral(R"(\s+open(?![\w-])(?:\s*=\s*(?:"[^"]*"|'[^']*'|[^\s>]+))?)"));
    const QRegularExpressionMatch match = tag.match(text, tagStart, QRegularExpression::NormalMatch,
                                                    QRegularExpression::AnchorAtOffsetMatchOption);
    if (!match.hasMatch()) return std::nullopt;
    const QRegularExpressionMatch open = openAttribute.match(match.captured(1));
    Rewritten edited;
    if (open.hasMatch()) {
        const int at = static_cast<int>(match.capturedStart(1) + open.capturedStart());
        edited = rewrite(text, {{at, static_cast<int>(open.capturedLength()), QString()}});
    } else {
        edited = rewrite(text, {{static_cast<int>(match.capturedEnd() - 1), 0, QStringLiteral(" open")}});
    }
    return editBetween(text, edited.text, edited.map(selection));
}

std::optional<TextEdit> renumberOrderedLists(const QString& text, TextSelection selection) {
    // Only the list the selection is in: other lists keep their numbers, and
    // nothing inside a fenced code block is ever a list.
    const auto [blockStart, blockEnd] = listBlockAround(text, selection);
    if (blockStart > blockEnd) return std::nullopt;
    std::vector<Replacement> replacements;
    std::optional<QString> runIndentation;
    qint64 next = 0;
    for (int start = blockStart; start <= blockEnd && start <= text.size();) {
        const int end = lineEnd(text, start);
        const QRegularExpressionMatch item = orderedItemPattern().match(text.mid(start, end - start));
        if (!item.hasMatch()) {
            // A nested bulleted item or a continuation line does not break the run around it.
            if (!isListLine(QStringView(text).mid(start, end - start))) runIndentation.reset();
        } else if (runIndentation != item.captured(1)) {
            runIndentation = item.captured(1);  // a new run keeps its first number
            next = item.captured(2).toLongLong() + 1;
        } else {
            const QString wanted = QString::number(next++);
            if (item.captured(2) != wanted) {
                replacements.push_back({start + static_cast<int>(item.capturedStart(2)),
                                        static_cast<int>(item.capturedLength(2)), wanted});
            }
        }
        start = end + 1;
    }
    if (replacements.empty()) return std::nullopt;
    const Rewritten edited = rewrite(text, replacements);
    return editBetween(text, edited.text, edited.map(selection));
}

}  // namespace MarkdownEditing

}  // namespace mossly::markdown
