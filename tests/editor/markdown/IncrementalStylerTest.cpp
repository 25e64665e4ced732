#include <gtest/gtest.h>

#include <QRandomGenerator>
#include <QStringList>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>

#include "IncrementalStyler.h"
#include "MarkdownStyler.h"

using namespace mossly::markdown;
using namespace Qt::StringLiterals;

namespace {

const QString kDirectory = u"/notes"_s;
const QString kSelf = u"/notes/Self.md"_s;

StylePass fullPass(const QString& text, Presentation presentation = Presentation::styled) {
    return styleMarkdown(text, presentation, 17, kDirectory, kSelf);
}

std::string printable(const QString& text) {
    QString escaped = text;
    escaped.replace(u'\\', u"\\\\"_s).replace(u'\n', u"\\n"_s).replace(u'\t', u"\\t"_s);
    return escaped.toStdString();
}

template <typename T>
std::string firstDifferentIndex(const char* field, const std::vector<T>& a, const std::vector<T>& b) {
    for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        if (i >= a.size() || i >= b.size() || !(a[i] == b[i])) {
            return std::string(field) + " differ at " + std::to_string(i) + " (sizes " +
                   std::to_string(a.size()) + ", " + std::to_string(b.size()) + ")";
        }
    }
    return {};
}

// The first field in which two passes differ, empty when they are equal.
std::string difference(const StylePass& a, const StylePass& b) {
    if (a == b) return {};
    for (const std::string& found : {
             firstDifferentIndex("runs", a.runs, b.runs),
             firstDifferentIndex("objects", a.objects, b.objects),
             firstDifferentIndex("bullets", a.bulletIndexes, b.bulletIndexes),
             firstDifferentIndex("soft breaks", a.softBreakIndexes, b.softBreakIndexes),
             firstDifferentIndex("code blocks", a.codeBlocks, b.codeBlocks),
             firstDifferentIndex("details", a.detailsBlocks, b.detailsBlocks),
             firstDifferentIndex("tables", a.tables, b.tables),
             firstDifferentIndex("quote lines", a.quoteLines, b.quoteLines),
             firstDifferentIndex("footnote references", a.footnoteReferences, b.footnoteReferences),
             firstDifferentIndex("footnote definitions", a.footnoteDefinitions, b.footnoteDefinitions),
         }) {
        if (!found.empty()) return found;
    }
    return "presentation or size";
}

// What of a pass lies outside the restyled lines, moved into the new text's positions:
// the old pass's view must equal the new one's.
struct Outside {
    int start = 0;  // restyled lines, in this pass's own positions
    int end = 0;
    int size = 0;
    std::function<int(int)> moved;  // identity for the new pass

    bool outside(int position) const {
        return position < start || (position >= end && !(end == size && position == size));
    }
    void move(int& position) const { position = moved(position); }
    void move(TextRange& range) const {
        const int end = moved(range.end());
        range.start = moved(range.start);
        range.length = end - range.start;
    }

    std::string view(const StylePass& pass) const {
        std::ostringstream out;
        for (const StyleRun& run : pass.runs) {
            // Runs are cut at the restyled lines' edges.
            for (const auto& [from, to] : {std::pair{run.start, std::min(run.end(), start)},
                                           std::pair{std::max(run.start, end), run.end()}}) {
                if (to <= from) continue;
                StyleRun part{moved(from), to - from, run.attributes};
                out << "run " << part.start << '+' << part.length << ' ' << attributesKey(part.attributes)
                    << '\n';
            }
        }
        for (DrawnObject object : pass.objects) {
            if (!outside(object.start)) continue;
            TextRange range{object.start, object.length};
            move(range);
            object.start = range.start;
            object.length = range.length;
            if (object.related.start >= 0) move(object.related);
            out << "object " << int(object.kind) << ' ' << object.start << '+' << object.length << ' '
                << object.text.toStdString() << ' ' << object.checked << object.level << object.inset << ' '
                << object.related.start << ' ' << (object.link ? object.link->url.toStdString() : "-") << ' '
                << object.error.toStdString() << '\n';
        }
        for (int index : pass.bulletIndexes) {
            if (outside(index)) out << "bullet " << moved(index) << '\n';
        }
        for (int index : pass.softBreakIndexes) {
            if (outside(index)) out << "soft " << moved(index) << '\n';
        }
        for (BlockQuoteLine quote : pass.quoteLines) {
            if (!outside(quote.line.start)) continue;
            move(quote.line);
            move(quote.markers);
            move(quote.listMarker);
            out << "quote " << quote.line.start << '+' << quote.line.length << ' ' << quote.markers.length
                << ' ' << quote.nesting << ' ' << quote.listMarker.start << '+' << quote.listMarker.length
                << '\n';
        }
        for (CodeBlock block : pass.codeBlocks) {
            if (!outside(block.range.start)) continue;
            for (TextRange* range :
                 {&block.range, &block.openingFence, &block.closingFence, &block.body, &block.indentation}) {
                move(*range);
            }
            out << "code " << ranges({block.range, block.openingFence, block.closingFence, block.body}) << ' '
                << block.info.toStdString() << '\n';
        }
        for (DetailsBlock block : pass.detailsBlocks) {
            if (!outside(block.range.start)) continue;
            out << "details";
            for (TextRange* range : {&block.range, &block.openingTag, &block.summaryOpenTag, &block.summary,
                                     &block.summaryCloseTag, &block.body, &block.closingTag}) {
                move(*range);
                out << ' ' << range->start << '+' << range->length;
            }
            out << ' ' << block.open << '\n';
        }
        for (Table table : pass.tables) {
            if (!outside(table.range.start)) continue;
            move(table.range);
            move(table.delimiterRow);
            out << "table " << ranges({table.range, table.delimiterRow});
            for (TableRow* row : {&table.header}) {
                move(row->range);
                out << " | " << row->range.start;
                for (TableCell& cell : row->cells) {
                    move(cell.range);
                    out << ' ' << cell.range.start << '+' << cell.range.length << cell.text.toStdString();
                }
            }
            for (TableRow& row : table.body) {
                move(row.range);
                out << " | " << row.range.start;
                for (TableCell& cell : row.cells) {
                    move(cell.range);
                    out << ' ' << cell.range.start << '+' << cell.range.length << cell.text.toStdString();
                }
            }
            out << '\n';
        }
        for (FootnoteReference reference : pass.footnoteReferences) {
            if (!outside(reference.range.start)) continue;
            move(reference.range);
            move(reference.definitionLocation);
            out << "reference " << reference.range.start << '+' << reference.range.length << ' '
                << reference.label.toStdString() << ' ' << reference.definitionLocation << '\n';
        }
        for (FootnoteDefinition definition : pass.footnoteDefinitions) {
            if (!outside(definition.marker.start)) continue;
            move(definition.marker);
            move(definition.body);
            move(definition.firstReferenceLocation);
            out << "definition " << ranges({definition.marker, definition.body}) << ' '
                << definition.label.toStdString() << ' ' << definition.firstReferenceLocation << '\n';
        }
        return out.str();
    }

    static std::string ranges(std::initializer_list<TextRange> list) {
        std::string text;
        for (const TextRange& range : list)
            text += std::to_string(range.start) + '+' + std::to_string(range.length) + ' ';
        return text;
    }

    static std::string attributesKey(const StyleAttributes& a) {
        std::ostringstream out;
        out << a.hidden << a.hideParagraph << a.bold << a.italic << a.strikethrough << ' '
            << (a.font ? int(*a.font) : -1) << ' ' << a.pointSize.value_or(-1) << ' '
            << (a.colour ? int(*a.colour) : -1) << ' ' << (a.background ? a.background->opacity : -1) << ' '
            << a.baselineOffset.value_or(-99) << ' ' << (a.link ? a.link->url.toStdString() : "-") << ' '
            << (a.paragraph.firstLineIndent ? a.paragraph.firstLineIndent->columns : -1) << ' '
            << (a.paragraph.headIndent ? a.paragraph.headIndent->columns : -1) << ' '
            << a.paragraph.lineSpacing.value_or(-1) << a.paragraph.paragraphSpacing.value_or(-1)
            << a.paragraph.minimumLineHeight.value_or(-1) << (a.paragraph.alignment ? 1 : 0);
        return out.str();
    }
};

// Checks that everything outside `restyled` is the old pass moved by the edit.
std::string outsideDifference(const StylePass& before, int oldSize, const StylePass& after, int newSize,
                              int position, int removed, int added, TextRange restyled) {
    const int delta = added - removed;
    if (restyled.start > position || restyled.end() < position + added) return "restyled misses the edit";
    Outside newView{restyled.start, restyled.end(), newSize, [](int p) { return p; }};
    Outside oldView{restyled.start, restyled.end() - delta, oldSize, [=](int p) {
                        if (p < position) return p;
                        if (p >= position + removed) return p + delta;
                        return -1000000;  // inside the edit: never equal to anything
                    }};
    const std::string a = oldView.view(before);
    const std::string b = newView.view(after);
    if (a == b) return {};
    std::istringstream left(a), right(b);
    std::string l, r;
    while (true) {
        const bool moreLeft = static_cast<bool>(std::getline(left, l));
        const bool moreRight = static_cast<bool>(std::getline(right, r));
        if (!moreLeft || !moreRight || l != r) return "outside restyled: old '" + l + "' new '" + r + "'";
    }
}

}  // namespace

// Shared by the property test and the named cases below.
struct EditChecker {
    IncrementalStyler styler{Presentation::styled, 17, kDirectory, kSelf};
    QString text;
    int fastUpdates = 0;
    int updates = 0;

    explicit EditChecker(const QString& initial, Presentation presentation = Presentation::styled)
        : styler(presentation, 17, kDirectory, kSelf), text(initial) {
        styler.restyle(text);
    }

    // Applies the edit and returns what went wrong, empty when nothing did.
    std::string edit(int position, int removed, const QString& inserted, StyleChange* change = nullptr) {
        const StylePass before = styler.pass();
        const int oldSize = static_cast<int>(text.size());
        text.replace(position, removed, inserted);
        const StyleChange result = styler.update(text, position, removed, static_cast<int>(inserted.size()));
        if (change) *change = result;
        ++updates;
        if (result.restyled.length < text.size()) ++fastUpdates;
        std::string problem = difference(styler.pass(), fullPass(text, styler.pass().presentation));
        if (problem.empty()) {
            problem =
                outsideDifference(before, oldSize, styler.pass(), static_cast<int>(text.size()), position,
                                  removed, static_cast<int>(inserted.size()), result.restyled);
        }
        return problem;
    }
};

namespace {

const QStringList kTitles = {u"# Title"_s, u""_s, u"# "_s, u"Plain title"_s, u"#"_s, u"## Sub"_s};

const QStringList kBlocks = {
    u"Paragraph with *italic* and **bold** text\nthat continues on a second line"_s,
    u"A line ending in two blanks  \nthen the next line\\\nand after a backslash"_s,
    u"Plain words only\nmore plain words\nand a third line"_s,
    u"- bullet one\n- bullet two\n  continued here"_s,
    u"1. first\n2. second\n10. tenth"_s,
    u"- [ ] open task\n- [x] done task\n* [X] star task"_s,
    u"> quoted line\n> > nested - item\n> 1. numbered\n>- tight"_s,
    u"```js\nlet a = 1; // *not* styled\n```"_s,
    u"~~~~\ncode with ~~~ inside\n~~~~"_s,
    u"````\n```\nstill code\n````"_s,
    u"- item\n  ```\n  code in an item\n  ```"_s,
    u"    ```\n    indented, not a fence"_s,
    u"$$\nx^2 + \\frac{1}{2}\n$$"_s,
    u"Inline $a+b$ math, a lone $ and $$ not display"_s,
    u"<details>\n<summary>More</summary>\nhidden body\n- hidden list\n</details>"_s,
    u"<details open>\n<summary>Open one</summary>\nvisible body\n</details>"_s,
    u"| a | b |\n| --- | :-: |\n| 1 | 2 |\n| 3 \\| x | 5 |"_s,
    u"Text with a footnote[^1] and another[^note]."_s,
    u"[^1]: First footnote."_s,
    u"[^note]: Named footnote, with [^1] inside."_s,
    u"See [the site][site] and [site] and [inline](https://e.com) and [Site][]."_s,
    u"[site]: https://example.com"_s,
    u"[other]: <Other.md> \"title\""_s,
    u"<!-- a comment --> then <b>bold tag</b> and <kbd>Ctrl</kbd>"_s,
    u"&amp; &copy; &bogus; \\*escaped\\* and \\[not a link\\]"_s,
    u"![alt text](image.png)"_s,
    u"[A card](https://example.com)"_s,
    u"[Other note](Other.md)"_s,
    u"[Myself](Self.md)"_s,
    u"---"_s,
    u"* * *"_s,
    u"Term\n: definition text"_s,
    u"~~strike~~ ==mark== H~2~O x^2^ `code span` and ***both***"_s,
    u"__under__ and _it_ and snake_case_name"_s,
    u""_s,
    u""_s,
    u"### Heading three\n#### Heading four\n####### seven"_s,
    u"CRLF line\r\nsecond CRLF line"_s,
};

// Prose dominates real notes; it is what the incremental path must handle.
const QStringList kProse = {
    u"Plain words only\nmore plain words\nand a third line"_s,
    u"Some *emphasis* and **strong** words, $x_1$ math\nand `code` on the next line"_s,
    u"A reference[^1] in prose and [site] as a link,\nwith ~~struck~~ and ==marked== text"_s,
    u"An entity &amp; an \\*escape\\* and [inline](https://e.com) link"_s,
    u"- a list item with *words*\n- another item\n  wrapped line"_s,
    u"Short line"_s,
    u""_s,
};

const QStringList kTokens = {
    u"```\n"_s,
    u"~~~\n"_s,
    u"````\n"_s,
    u"```"_s,
    u"$$\n"_s,
    u"$$"_s,
    u"\n$$\n"_s,
    u"<details>\n<summary>S</summary>\n"_s,
    u"</details>\n"_s,
    u"<details open>"_s,
    u"</details>"_s,
    u"| --- | --- |\n"_s,
    u"|"_s,
    u"a | b\n"_s,
    u"[^1]: def\n"_s,
    u"[^1]"_s,
    u"[^2]: other\n"_s,
    u"[^2]"_s,
    u"[site]: https://x.y\n"_s,
    u"[site]"_s,
    u"[x]: https://e.com\n"_s,
    u"[x]"_s,
    u"- "_s,
    u"> "_s,
    u"# "_s,
    u"\n"_s,
    u"\n\n"_s,
    u"<!--"_s,
    u"-->"_s,
    u"&amp;"_s,
    u"\\"_s,
    u"**"_s,
    u"`"_s,
    u"$"_s,
    u"["_s,
    u"]"_s,
    u"("_s,
    u")"_s,
    u"!"_s,
    u"  "_s,
    u"1. "_s,
    u"- [ ] "_s,
    u"<b>"_s,
    u">"_s,
    u"---\n"_s,
};

const QString kCharacters = u"abc xyz\n\n*_`$|-[]^:>#~!()&\\=<1. \t"_s;

QString document(QRandomGenerator& random) {
    QStringList lines{kTitles[random.bounded(kTitles.size())]};
    const int blocks = 4 + random.bounded(20);
    for (int i = 0; i < blocks; ++i) {
        const QStringList& from = random.bounded(3) == 0 ? kBlocks : kProse;
        lines << from[random.bounded(from.size())];
    }
    return lines.join(random.bounded(4) == 0 ? u"\n\n"_s : u"\n"_s);
}

int randomPosition(QRandomGenerator& random, const QString& text) {
    const int size = static_cast<int>(text.size());
    switch (random.bounded(10)) {
        case 0:
            return 0;
        case 1:
            return size;
        case 2: {  // a line start
            const int at = random.bounded(size + 1);
            return at > 0 ? static_cast<int>(text.lastIndexOf(u'\n', at - 1)) + 1 : 0;
        }
        default:
            return random.bounded(size + 1);
    }
}

// One random edit: (position, removed, inserted).
std::tuple<int, int, QString> randomEdit(QRandomGenerator& random, const QString& text) {
    const int size = static_cast<int>(text.size());
    const int position = randomPosition(random, text);
    switch (random.bounded(10)) {
        case 0:
        case 1:
        case 8:
        case 9:  // type a character
            return {position, 0, QString(kCharacters[random.bounded(kCharacters.size())])};
        case 2:  // delete a character
            return {std::min(position, std::max(size - 1, 0)), size > 0 ? 1 : 0, {}};
        case 3: {  // insert a whole line
            const int start = position > 0 ? static_cast<int>(text.lastIndexOf(u'\n', position - 1)) + 1 : 0;
            QString line = kBlocks[random.bounded(kBlocks.size())].section(u'\n', 0, 0);
            return {start, 0, line + u'\n'};
        }
        case 4: {  // delete a whole line
            const int start = position > 0 ? static_cast<int>(text.lastIndexOf(u'\n', position - 1)) + 1 : 0;
            const int end = static_cast<int>(text.indexOf(u'\n', position));
            return {start, (end < 0 ? size : end + 1) - start, {}};
        }
        case 5:  // type a structural token
            return {position, 0, kTokens[random.bounded(kTokens.size())]};
        case 6: {  // delete a structural token where one stands
            const QString& token = kTokens[random.bounded(kTokens.size())];
            const int at = static_cast<int>(text.indexOf(token, random.bounded(size + 1)));
            if (at < 0) return {position, 0, token};
            return {at, static_cast<int>(token.size()), {}};
        }
        case 7: {  // replace a few characters
            const int removed = std::min(random.bounded(6), size - position);
            return {position, removed, kTokens[random.bounded(kTokens.size())]};
        }
    }
    return {position, 0, {}};
}

TEST(IncrementalStyler, RandomEditsMatchAFullPassAndLeaveTheRestAsItWas) {
    // MOSSLY_STYLER_SEEDS runs more seeds for a longer search.
    const int seeds = qEnvironmentVariableIntValue("MOSSLY_STYLER_SEEDS") > 0
                          ? qEnvironmentVariableIntValue("MOSSLY_STYLER_SEEDS")
                          : 150;
    constexpr int kEditsPerSeed = 40;
    int fast = 0;
    int total = 0;
    for (int seed = 1; seed <= seeds; ++seed) {
        QRandomGenerator random(static_cast<quint32>(seed));
        EditChecker checker(document(random));
        for (int edit = 0; edit < kEditsPerSeed; ++edit) {
            const QString before = checker.text;
            const auto [position, removed, inserted] = randomEdit(random, checker.text);
            const std::string problem = checker.edit(position, removed, inserted);
            ASSERT_TRUE(problem.empty())
                << problem << "\nseed " << seed << ", edit " << edit << ": at " << position << " removed "
                << removed << " inserted '" << printable(inserted) << "'\nbefore: " << printable(before)
                << "\nafter:  " << printable(checker.text);
        }
        fast += checker.fastUpdates;
        total += checker.updates;
    }
    std::printf("%d of %d edits restyled less than the whole note\n", fast, total);
    // The property is only worth something if many edits take the incremental path.
    EXPECT_GT(fast * 3, total) << fast << " of " << total << " edits restyled less than the whole note";
}

TEST(IncrementalStyler, TypingInAParagraphRestylesOnlyItsLines) {
    QString note = u"# Title\n\n"_s;
    for (int i = 0; i < 50; ++i)
        note += u"Paragraph *%1* with a [link](https://e.com)\nand a second line.\n\n"_s.arg(i);
    EditChecker checker(note);
    const int line = static_cast<int>(note.indexOf(u"Paragraph *25*"_s));
    const int paragraphEnd = static_cast<int>(note.indexOf(u"\n\n"_s, line));
    StyleChange change;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(checker.edit(line + 10 + i, 0, u"x"_s, &change), "");
        EXPECT_EQ(change.restyled.start, line - 1) << "the blank line above belongs to the restyled lines";
        EXPECT_LE(change.restyled.end(), paragraphEnd + i + 2);
    }
    // A new line and its removal stay local too.
    ASSERT_EQ(checker.edit(line, 0, u"Inserted line\n"_s, &change), "");
    EXPECT_LT(change.restyled.length, 100);
    ASSERT_EQ(checker.edit(line, 14, {}, &change), "");
    EXPECT_LT(change.restyled.length, 100);
}

TEST(IncrementalStyler, TypingAndDeletingStructuralTokensMatchesAFullPass) {
    const QString note = u"Title\n\nText\n\n```\ncode\n```\n\nMore text\n\n| a | b |\n\nEnd"_s;
    for (const QString& token :
         {u"```\n"_s, u"$$\n"_s, u"|---|---|\n"_s, u"<details><summary>S</summary>\n"_s, u"[^1]: d\n"_s,
          u"[x]: https://e.com\n"_s}) {
        EditChecker checker(note);
        const int at = static_cast<int>(note.indexOf(u"More"_s));
        StyleChange change;
        ASSERT_EQ(checker.edit(at, 0, token, &change), "") << token.toStdString();
        ASSERT_EQ(checker.edit(at, static_cast<int>(token.size()), {}, &change), "") << token.toStdString();
    }
}

TEST(IncrementalStyler, AFenceRestylesDownToWhereCodeEndsAsBefore) {
    QString note = u"Title\n\n"_s;
    for (int i = 0; i < 6; ++i) note += u"Text %1 with *words*.\n\n```cpp\nint x = %1;\n```\n\n"_s.arg(i);
    EditChecker checker(note);
    const int at = static_cast<int>(note.indexOf(u"Text 2"_s));
    const int nextBlockEnd = static_cast<int>(note.indexOf(u"```\n"_s, note.indexOf(u"```cpp"_s, at))) + 4;
    StyleChange change;
    // A bare fence swallows the text down to the next block's closing fence, which
    // now closes it; the "```cpp" below opens code as before.
    ASSERT_EQ(checker.edit(at, 0, u"```\n"_s, &change), "");
    EXPECT_LT(change.restyled.start, at);
    EXPECT_EQ(change.restyled.end(), nextBlockEnd + 4);
    ASSERT_EQ(checker.styler.pass().codeBlocks.size(), 6u);
    EXPECT_EQ(checker.styler.pass().codeBlocks[2].range.start, at);
    ASSERT_EQ(checker.edit(at, 4, {}, &change), "");
    EXPECT_EQ(change.restyled.end(), nextBlockEnd);
    EXPECT_EQ(checker.styler.pass().codeBlocks[2].info, u"cpp"_s);
    // Found by the random edits: joining the last closing fence to the line above leaves
    // the block, whose opening fence is the line above the edit, open to the end.
    const int closing = static_cast<int>(checker.text.lastIndexOf(u"\n```\n"_s));
    ASSERT_EQ(checker.edit(closing, 1, {}, &change), "");
    EXPECT_EQ(change.restyled.start, static_cast<int>(checker.text.lastIndexOf(u"```cpp"_s)));
    EXPECT_EQ(change.restyled.end(), checker.text.size());
    ASSERT_EQ(checker.edit(closing, 0, u"\n"_s, &change), "");
    // Typing right below a block restyles the block too, not the note.
    const int below = static_cast<int>(note.indexOf(u"\n\nText 3"_s)) + 1;
    ASSERT_EQ(checker.edit(below, 0, u"x"_s, &change), "");
    EXPECT_LT(change.restyled.length, 60);
}

TEST(IncrementalStyler, ADisplayMathLineRestylesToTheNotesEnd) {
    EditChecker checker(u"Title\n\n$$\na\n$$\n\ntext *x*\n\nmore\n$$\nb\n$$\nend"_s);
    const int at = static_cast<int>(checker.text.indexOf(u"more"_s));
    StyleChange change;
    ASSERT_EQ(checker.edit(at, 0, u"$$\n"_s, &change), "");
    EXPECT_EQ(change.restyled.start, at - 1);  // the blank line above
    EXPECT_EQ(change.restyled.end(), checker.text.size());
    ASSERT_EQ(checker.edit(at, 3, {}, &change), "");
    // Below a "$$" line that drew nothing, the pairing above may change too.
    EditChecker unpaired(u"Title\n$$\n<b>\n$$\ntext\n$$\nx"_s);
    ASSERT_EQ(unpaired.edit(static_cast<int>(unpaired.text.indexOf(u"text"_s)), 0, u"$$\n"_s, &change), "");
    EXPECT_EQ(change.restyled.length, unpaired.text.size());
}

// Found by the random edits: a "$$" pair that a tag kept from being drawn still used
// up its closing line, so the "$$" lines around an edit did not pair with each other.
TEST(IncrementalStyler, DisplayMathLinesNearTheEditPairAsInTheWholeNote) {
    EditChecker checker(u"T\n<details>\n<summary>S</summary>\n$$\nbody\n</details>\n$$\nx\n$$\nafter"_s);
    const int at = static_cast<int>(checker.text.indexOf(u"\nx\n"_s)) + 2;
    EXPECT_EQ(checker.edit(at, 0, u"&"_s), "");
    EXPECT_EQ(checker.edit(at, 1, {}), "");
}

// Found by the random edits: an indented fence opens code only inside a list item, so
// turning the line above it into an item turns the rest of the note into code.
TEST(IncrementalStyler, IndentedFenceFollowsTheLineAboveBecomingAListItem) {
    EditChecker checker(u"Title\nplain\n    ```\n    code\nrest *of* the note"_s);
    const int at = static_cast<int>(checker.text.indexOf(u"plain"_s));
    EXPECT_EQ(checker.edit(at, 0, u"- "_s), "");
    ASSERT_EQ(checker.styler.pass().codeBlocks.size(), 1u);
    EXPECT_EQ(checker.edit(at, 2, {}), "");
    EXPECT_TRUE(checker.styler.pass().codeBlocks.empty());
}

TEST(IncrementalStyler, TypingInsideCodeOnlyLengthensTheBlock) {
    EditChecker checker(
        u"Title\n\n<details>\n<summary>S</summary>\n```js\nlet a;\nlet b;\n```\n</details>\nafter *x*"_s);
    const CodeBlock before = checker.styler.pass().codeBlocks.at(0);
    const int at = static_cast<int>(checker.text.indexOf(u"let b"_s));
    StyleChange change;
    ASSERT_EQ(checker.edit(at + 3, 0, u"ter"_s, &change), "");
    EXPECT_EQ(change.restyled, (TextRange{at, 9}));
    EXPECT_EQ(checker.styler.pass().codeBlocks.at(0).range.length, before.range.length + 3);
    // At the body's start the block moves its body: restyled from the fence.
    ASSERT_EQ(checker.edit(at - 7, 0, u"// new\n"_s, &change), "");
    EXPECT_EQ(change.restyled.start, before.range.start);
    // Emptying the body, or typing a fence, goes through the whole note.
    ASSERT_EQ(checker.edit(before.body.start, static_cast<int>(before.body.length) + 10, {}, &change), "");
    ASSERT_EQ(checker.edit(before.body.start, 0, u"```\n"_s, &change), "");
}

TEST(IncrementalStyler, TypingInDisplayMathRestylesTheWholeBlockOnly) {
    EditChecker checker(u"Title\n\nbefore\n$$\nx^2 + y\n\\le z\n$$\nafter *x*\n\n$$\nq\n$$\nend"_s);
    const int opener = static_cast<int>(checker.text.indexOf(u"$$"_s));
    const int at = static_cast<int>(checker.text.indexOf(u"+ y"_s));
    StyleChange change;
    ASSERT_EQ(checker.edit(at, 0, u"\\alpha "_s, &change), "");
    EXPECT_LE(change.restyled.start, opener);
    EXPECT_LT(change.restyled.end(), static_cast<int>(checker.text.indexOf(u"\nq\n"_s)));
    const auto math =
        std::ranges::find(checker.styler.pass().objects, DrawnKind::displayMath, &DrawnObject::kind);
    ASSERT_NE(math, checker.styler.pass().objects.end());
    EXPECT_TRUE(math->text.contains(u"α"_s));
    // Next to the math, the math is restyled along; a stray "$$" line nearby is not.
    const int after = static_cast<int>(checker.text.indexOf(u"after"_s));
    ASSERT_EQ(checker.edit(after, 0, u"x"_s, &change), "");
    EXPECT_EQ(change.restyled.start, static_cast<int>(checker.text.indexOf(u"before"_s)));
    EXPECT_LT(change.restyled.end(), static_cast<int>(checker.text.indexOf(u"\nq\n"_s)));
    // A line ending the math, or a tag in it, changes how "$$" lines pair further down.
    ASSERT_EQ(checker.edit(at, 0, u"$$\n"_s, &change), "");
    ASSERT_EQ(checker.edit(at, 3, {}, &change), "");
    ASSERT_EQ(checker.edit(at, 0, u"<b>"_s, &change), "");
    ASSERT_EQ(checker.edit(at, 3, {}, &change), "");
}

TEST(IncrementalStyler, TypingInAnOpenDetailsBodyStaysLocalAndTheBlockGrows) {
    const QString note =
        u"Title\n<details open>\n<summary>S</summary>\nfirst *line*\n\nmiddle\n\nlast\n</details>\nend"_s;
    EditChecker open(note);
    const int length = open.styler.pass().detailsBlocks.at(0).range.length;
    const int at = static_cast<int>(note.indexOf(u"middle"_s));
    StyleChange change;
    ASSERT_EQ(open.edit(at, 0, u"a **new** "_s, &change), "");
    EXPECT_LT(change.restyled.length, 30);
    EXPECT_EQ(open.styler.pass().detailsBlocks.at(0).range.length, length + 10);
    // Next to a tag line, or in a closed block (whose body is hidden), the note is styled whole.
    ASSERT_EQ(open.edit(static_cast<int>(note.indexOf(u"first"_s)), 0, u"x"_s, &change), "");
    EXPECT_EQ(change.restyled.length, open.text.size());
    EditChecker closed(QString(note).remove(u" open"_s));
    ASSERT_EQ(closed.edit(static_cast<int>(closed.text.indexOf(u"middle"_s)), 0, u"x"_s, &change), "");
    EXPECT_EQ(change.restyled.length, closed.text.size());
}

TEST(IncrementalStyler, FootnoteBackLinkFollowsTheFirstReference) {
    EditChecker checker(u"T\nA[^1] text\nB line\n\n[^1]: the note"_s);
    const int b = static_cast<int>(checker.text.indexOf(u"B line"_s));
    // A later reference changes nothing about the definition.
    ASSERT_EQ(checker.edit(b + 1, 0, u"[^1]"_s), "");
    // An earlier one becomes the place the definition links back to.
    ASSERT_EQ(checker.edit(2, 0, u"[^1]"_s), "");
    EXPECT_EQ(checker.styler.pass().footnoteDefinitions.at(0).firstReferenceLocation, 2);
    // Removing every reference leaves the definition without a way back.
    for (int at; (at = static_cast<int>(checker.text.indexOf(u"[^1]"_s))) >= 0 &&
                 checker.text.mid(at + 4, 1) != u":"_s;) {
        ASSERT_EQ(checker.edit(at, 4, {}), "");
    }
    EXPECT_EQ(checker.styler.pass().footnoteDefinitions.at(0).firstReferenceLocation, -1);
}

TEST(IncrementalStyler, TypingAFootnotesTextStaysLocal) {
    QString note = u"Title\nSee[^a] and[^b].\n\n"_s;
    for (int i = 0; i < 20; ++i) note += u"Filler *%1*\n\n"_s.arg(i);
    note += u"[^a]: First text.\n[^b]: Second text.\n\nCR line\r\n[^a]: A repeat, left as typed.\n"_s;
    EditChecker checker(note);
    StyleChange change;
    const int second = static_cast<int>(note.indexOf(u"Second"_s));
    ASSERT_EQ(checker.edit(second, 0, u"The "_s, &change), "");
    EXPECT_LT(change.restyled.length, 80);
    const int repeat = static_cast<int>(checker.text.indexOf(u"A repeat"_s));
    ASSERT_EQ(checker.edit(repeat, 0, u"x[^b] "_s, &change), "");
    EXPECT_LT(change.restyled.length, 120);
    // Found by the random edits: joined to a line ending in "\r", a definition is none.
    const int blank = static_cast<int>(checker.text.indexOf(u"\n\nCR line"_s));
    ASSERT_EQ(checker.edit(blank, 2, {}, &change), "");
    ASSERT_EQ(checker.edit(blank, 0, u"\n\n"_s, &change), "");
    // A blank after the marker lengthens it, and a changed label defines another note.
    ASSERT_EQ(checker.edit(second, 0, u" "_s, &change), "");
    ASSERT_EQ(checker.edit(static_cast<int>(checker.text.indexOf(u"[^b]:"_s)) + 2, 1, u"c"_s, &change), "");
    EXPECT_EQ(change.restyled.length, checker.text.size());
}

TEST(IncrementalStyler, SourcePresentationAndInconsistentEditsRestyleTheWholeNote) {
    EditChecker source(u"# Title\n**bold** and `code`\n```\nx\n```"_s, Presentation::source);
    StyleChange change;
    ASSERT_EQ(source.edit(8, 0, u"*"_s, &change), "");
    EXPECT_EQ(change.restyled, (TextRange{0, static_cast<int>(source.text.size())}));

    // An update before any full pass, or one whose lengths do not add up, styles it all.
    IncrementalStyler fresh(Presentation::styled, 17, kDirectory, kSelf);
    const QString text = u"Title\nbody *x*"_s;
    EXPECT_EQ(fresh.update(text, 5, 0, 2).restyled, (TextRange{0, static_cast<int>(text.size())}));
    EXPECT_EQ(difference(fresh.pass(), fullPass(text)), "");
    const QString longer = text + u" more"_s;
    EXPECT_EQ(fresh.update(longer, 3, 0, 1).restyled, (TextRange{0, static_cast<int>(longer.size())}));
    EXPECT_EQ(difference(fresh.pass(), fullPass(longer)), "");
}

}  // namespace
