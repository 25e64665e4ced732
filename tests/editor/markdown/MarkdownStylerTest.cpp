#include <gtest/gtest.h>

#include <QRandomGenerator>
#include <QStringList>
#include <algorithm>

#include "LinkResolution.h"
#include "MarkdownStyler.h"

using namespace mossly::markdown;
using namespace Qt::StringLiterals;

namespace {

StylePass styled(const QString& text, double baseSize = 17) {
    return styleMarkdown(text, Presentation::styled, baseSize, QStringLiteral("/notes"),
                         QStringLiteral("/notes/Self.md"));
}

int indexOf(const QString& text, const QString& needle, int from = 0) {
    const int index = static_cast<int>(text.indexOf(needle, from));
    EXPECT_GE(index, 0) << needle.toStdString();
    return index;
}

bool allHidden(const StylePass& pass, int start, int length) {
    for (int i = start; i < start + length; ++i) {
        if (!pass.attributesAt(i).hidden) return false;
    }
    return true;
}

bool noneHidden(const StylePass& pass, int start, int length) {
    for (int i = start; i < start + length; ++i) {
        if (pass.attributesAt(i).hidden) return false;
    }
    return true;
}

std::vector<DrawnObject> objectsOf(const StylePass& pass, DrawnKind kind) {
    std::vector<DrawnObject> found;
    std::copy_if(pass.objects.begin(), pass.objects.end(), std::back_inserter(found),
                 [kind](const DrawnObject& object) { return object.kind == kind; });
    return found;
}

bool contains(const std::vector<int>& indexes, int index) {
    return std::find(indexes.begin(), indexes.end(), index) != indexes.end();
}

// The invariants every pass keeps, whatever the input.
void expectWellFormed(const QString& text, const StylePass& pass) {
    const int size = static_cast<int>(text.size());
    int previousEnd = 0;
    for (const StyleRun& run : pass.runs) {
        ASSERT_GT(run.length, 0);
        ASSERT_GE(run.start, previousEnd) << "runs overlap or are unsorted";
        ASSERT_LE(run.end(), size);
        previousEnd = run.end();
    }
    int previousStart = 0;
    for (const DrawnObject& object : pass.objects) {
        ASSERT_GE(object.start, previousStart) << "objects are unsorted";
        ASSERT_GE(object.length, 0);
        ASSERT_LE(object.end(), size);
        previousStart = object.start;
    }
    for (const int index : pass.bulletIndexes) ASSERT_EQ(text.at(index), u'-');
    for (const int index : pass.softBreakIndexes) ASSERT_EQ(text.at(index), u'\n');
}

TEST(MarkdownStyler, FencedCodeIsExcludedFromEveryLaterRule) {
    const QString text = u"Title\n```cpp\na *b* c # x\n- item\n```\n*d*\n"_s;
    const StylePass pass = styled(text);

    const int b = indexOf(text, u"b*"_s);
    EXPECT_FALSE(pass.attributesAt(b).italic);
    EXPECT_TRUE(noneHidden(pass, indexOf(text, u"a *b*"_s), 5));
    EXPECT_EQ(pass.attributesAt(b).font, FontRole::monospace);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"```cpp"_s), 6));
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"```\n*d"_s), 3));
    EXPECT_FALSE(contains(pass.bulletIndexes, indexOf(text, u"- item"_s)));

    const int d = indexOf(text, u"d*"_s);
    EXPECT_TRUE(pass.attributesAt(d).italic);
    EXPECT_TRUE(pass.attributesAt(d - 1).hidden);

    const auto panels = objectsOf(pass, DrawnKind::codePanel);
    ASSERT_EQ(panels.size(), 1u);
    EXPECT_EQ(panels[0].text, u"cpp"_s);
    EXPECT_EQ(panels[0].start, indexOf(text, u"```cpp"_s));
}

TEST(MarkdownStyler, UnclosedFenceRunsToTheEnd) {
    const QString text = u"Title\n```\n*not italic*\n# not a heading"_s;
    const StylePass pass = styled(text);
    ASSERT_EQ(pass.codeBlocks.size(), 1u);
    EXPECT_EQ(pass.codeBlocks[0].range.end(), text.size());
    EXPECT_FALSE(pass.attributesAt(indexOf(text, u"not italic"_s)).italic);
    EXPECT_FALSE(pass.attributesAt(indexOf(text, u"# not"_s)).hidden);
}

TEST(MarkdownStyler, EmphasisFormsAndTheirDelimiters) {
    const QString snake = u"Title\nsnake_case_name"_s;
    const StylePass snakePass = styled(snake);
    EXPECT_TRUE(noneHidden(snakePass, 6, 15));
    EXPECT_FALSE(snakePass.attributesAt(indexOf(snake, u"case"_s)).italic);

    const QString intraWord = u"Title\na*b*c"_s;
    const StylePass intraPass = styled(intraWord);
    EXPECT_TRUE(intraPass.attributesAt(indexOf(intraWord, u"b"_s)).italic);
    EXPECT_TRUE(allHidden(intraPass, indexOf(intraWord, u"*b"_s), 1));
    EXPECT_FALSE(intraPass.attributesAt(indexOf(intraWord, u"c"_s)).italic);

    const QString strong = u"Title\n***x***"_s;
    const StylePass strongPass = styled(strong);
    const StyleAttributes x = strongPass.attributesAt(indexOf(strong, u"x"_s));
    EXPECT_TRUE(x.bold && x.italic && !x.hidden);
    EXPECT_TRUE(allHidden(strongPass, 6, 3));
    EXPECT_TRUE(allHidden(strongPass, 10, 3));

    // A delimiter inside a code span neither opens nor hides the emphasis after it.
    const QString spans = u"Title\n`a*b` and *c*"_s;
    const StylePass spansPass = styled(spans);
    EXPECT_FALSE(spansPass.attributesAt(indexOf(spans, u"b`"_s)).italic);
    EXPECT_TRUE(spansPass.attributesAt(indexOf(spans, u"c*"_s)).italic);

    const QString escaped = u"Title\n\\*x\\*"_s;
    const StylePass escapedPass = styled(escaped);
    EXPECT_FALSE(escapedPass.attributesAt(indexOf(escaped, u"x"_s)).italic);
    EXPECT_TRUE(escapedPass.attributesAt(6).hidden);   // first backslash
    EXPECT_FALSE(escapedPass.attributesAt(7).hidden);  // its asterisk
    EXPECT_TRUE(escapedPass.attributesAt(9).hidden);
    EXPECT_FALSE(escapedPass.attributesAt(10).hidden);
}

TEST(MarkdownStyler, EmphasisSkipsOnlyOverlongLines) {
    // Such a line would cost the square of its length to search.
    const QString text = u"*a*\n*y* "_s + QString(u"*x "_s).repeated(4000) + u"\n*b*"_s;
    const StylePass pass = styled(text);
    EXPECT_TRUE(pass.attributesAt(1).italic);
    EXPECT_FALSE(pass.attributesAt(indexOf(text, u"y"_s)).italic);
    EXPECT_TRUE(pass.attributesAt(static_cast<int>(text.size()) - 2).italic);
}

TEST(MarkdownStyler, TraitsAddToTheHeadingFont) {
    const QString text = u"# Big *word*\n## Sub"_s;
    const StylePass pass = styled(text, 34);
    const StyleAttributes word = pass.attributesAt(indexOf(text, u"word"_s));
    EXPECT_TRUE(word.bold);
    EXPECT_TRUE(word.italic);
    EXPECT_DOUBLE_EQ(word.pointSize.value_or(0), 64);
    EXPECT_DOUBLE_EQ(pass.attributesAt(indexOf(text, u"Sub"_s)).pointSize.value_or(0), 48);
    EXPECT_TRUE(allHidden(pass, 0, 2));
}

TEST(MarkdownStyler, EmptyHeadingsAndTitlePlaceholder) {
    const QString text = u"# \nbody\n## \n"_s;
    const StylePass pass = styled(text);
    EXPECT_TRUE(allHidden(pass, 0, 2));
    EXPECT_TRUE(noneHidden(pass, indexOf(text, u"## "_s), 3));
    const auto placeholders = objectsOf(pass, DrawnKind::titlePlaceholder);
    ASSERT_EQ(placeholders.size(), 1u);
    EXPECT_EQ(placeholders[0].text, u"Untitled Note"_s);

    EXPECT_TRUE(objectsOf(styled(u"\nbody"_s), DrawnKind::titlePlaceholder).size() == 1);
    EXPECT_TRUE(objectsOf(styled(u"# Real title"_s), DrawnKind::titlePlaceholder).empty());
}

TEST(MarkdownStyler, SuperscriptSubscriptFootnotesAndStrikeThrough) {
    const QString text = u"Title\nx^2^ and H~2~O and ~~gone~~ and a[^1].\n\n[^1]: The note."_s;
    const StylePass pass = styled(text);

    const StyleAttributes raised = pass.attributesAt(indexOf(text, u"2^"_s));
    EXPECT_DOUBLE_EQ(raised.baselineOffset.value_or(0), 5);
    EXPECT_DOUBLE_EQ(raised.pointSize.value_or(0), 13);
    EXPECT_DOUBLE_EQ(pass.attributesAt(indexOf(text, u"2~"_s)).baselineOffset.value_or(0), -3);

    const StyleAttributes gone = pass.attributesAt(indexOf(text, u"gone"_s));
    EXPECT_TRUE(gone.strikethrough);
    EXPECT_FALSE(gone.baselineOffset.has_value());

    const int reference = indexOf(text, u"[^1]."_s);
    EXPECT_FALSE(pass.attributesAt(reference + 2).baselineOffset.has_value());
    const auto references = objectsOf(pass, DrawnKind::footnoteReference);
    ASSERT_EQ(references.size(), 1u);
    EXPECT_EQ(references[0].start, reference);
    EXPECT_EQ(references[0].text, u"1"_s);
    const int definition = indexOf(text, u"[^1]:"_s);
    ASSERT_TRUE(references[0].link.has_value());
    EXPECT_EQ(references[0].link->url, u"mossly-footnote://definition/1"_s);
    EXPECT_EQ(footnoteJumpTarget(pass, QUrl(references[0].link->url)), definition);

    const auto definitions = objectsOf(pass, DrawnKind::footnoteDefinition);
    ASSERT_EQ(definitions.size(), 1u);
    EXPECT_EQ(definitions[0].link->url, u"mossly-footnote://reference/1"_s);
    EXPECT_EQ(footnoteJumpTarget(pass, QUrl(definitions[0].link->url)), reference);
}

TEST(MarkdownStyler, InlineAndDisplayMath) {
    const QString text =
        u"Title\nSo $x^2 \\le y$ holds.\n$$\n\\frac{1}{\\sqrt{2}}\n$$\nafter $$ and <b>$z</b>$"_s;
    const StylePass pass = styled(text);

    const auto inlineMath = objectsOf(pass, DrawnKind::inlineMath);
    ASSERT_EQ(inlineMath.size(), 1u);
    EXPECT_EQ(inlineMath[0].text, u"x² ≤ y"_s);
    EXPECT_TRUE(allHidden(pass, inlineMath[0].start, inlineMath[0].length));

    const auto display = objectsOf(pass, DrawnKind::displayMath);
    ASSERT_EQ(display.size(), 1u);
    EXPECT_EQ(display[0].text, u"(1)⁄(√(2))"_s);
    EXPECT_EQ(pass.attributesAt(display[0].start).paragraph.alignment, Alignment::centre);

    // A doubled dollar inside a line opens nothing; math may not overlap a tag.
    EXPECT_TRUE(noneHidden(pass, indexOf(text, u"after"_s), 9));
    EXPECT_FALSE(pass.attributesAt(indexOf(text, u"$z"_s)).hidden);
}

TEST(MarkdownStyler, DetailsBlocksOpenAndClosed) {
    const QString closed =
        u"Title\n<details>\n<summary>More</summary>\n- [ ] hidden task\n</details>\nafter"_s;
    const StylePass closedPass = styled(closed);
    ASSERT_EQ(closedPass.detailsBlocks.size(), 1u);
    EXPECT_FALSE(closedPass.detailsBlocks[0].open);
    const StyleAttributes body = closedPass.attributesAt(indexOf(closed, u"hidden task"_s));
    EXPECT_TRUE(body.hidden && body.hideParagraph);
    EXPECT_TRUE(noneHidden(closedPass, indexOf(closed, u"More"_s), 4));
    EXPECT_TRUE(allHidden(closedPass, indexOf(closed, u"<summary>"_s), 9));
    EXPECT_TRUE(objectsOf(closedPass, DrawnKind::checkbox).empty());
    const auto disclosure = objectsOf(closedPass, DrawnKind::detailsDisclosure);
    ASSERT_EQ(disclosure.size(), 1u);
    EXPECT_FALSE(disclosure[0].checked);
    EXPECT_EQ(disclosure[0].related.start, indexOf(closed, u"<details>"_s));

    QString open = closed;
    open.replace(u"<details>"_s, u"<details open>"_s);
    const StylePass openPass = styled(open);
    EXPECT_TRUE(openPass.detailsBlocks[0].open);
    EXPECT_FALSE(openPass.attributesAt(indexOf(open, u"hidden task"_s)).hidden);
    EXPECT_EQ(objectsOf(openPass, DrawnKind::checkbox).size(), 1u);
    EXPECT_TRUE(objectsOf(openPass, DrawnKind::detailsDisclosure)[0].checked);

    // "opened" is not the open attribute.
    EXPECT_FALSE(
        styled(u"T\n<details data-opened>\n<summary>S</summary>\nx\n</details>"_s).detailsBlocks[0].open);
}

TEST(MarkdownStyler, EntitiesAndKeycaps) {
    const QString text = u"Title\nA &amp; B &nosuch C &nosuch; `&lt;` <kbd>Cmd</kbd>"_s;
    const StylePass pass = styled(text);
    const auto replacements = objectsOf(pass, DrawnKind::inlineReplacement);
    ASSERT_EQ(replacements.size(), 1u);
    EXPECT_EQ(replacements[0].text, u"&"_s);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"&amp;"_s), 5));
    EXPECT_TRUE(noneHidden(pass, indexOf(text, u"&nosuch"_s), 7));
    EXPECT_TRUE(noneHidden(pass, indexOf(text, u"&nosuch;"_s), 8));
    EXPECT_TRUE(noneHidden(pass, indexOf(text, u"&lt;"_s), 4));  // literal inside code

    const auto keycaps = objectsOf(pass, DrawnKind::keycap);
    ASSERT_EQ(keycaps.size(), 1u);
    EXPECT_EQ(keycaps[0].text, u"Cmd"_s);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"<kbd>"_s), 5));
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"</kbd>"_s), 6));
}

TEST(MarkdownStyler, ListsChecklistsAndQuotes) {
    const QString text = u"Title\n- plain\n  - [x] done\n3. third\n> - quoted\n> > deep"_s;
    const StylePass pass = styled(text);

    EXPECT_TRUE(contains(pass.bulletIndexes, indexOf(text, u"- plain"_s)));
    EXPECT_TRUE(contains(pass.bulletIndexes, indexOf(text, u"- quoted"_s)));
    EXPECT_FALSE(contains(pass.bulletIndexes, indexOf(text, u"- [x]"_s)));
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"plain"_s)).paragraph.headIndent, (Indent{0, 2}));

    const auto boxes = objectsOf(pass, DrawnKind::checkbox);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_TRUE(boxes[0].checked);
    EXPECT_EQ(boxes[0].level, 2);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"  - [x] "_s), 8));
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"done"_s)).colour, ColourRole::secondaryLabel);

    const auto numbers = objectsOf(pass, DrawnKind::orderedNumber);
    ASSERT_EQ(numbers.size(), 1u);
    EXPECT_EQ(numbers[0].text, u"3."_s);
    EXPECT_TRUE(allHidden(pass, numbers[0].start, 2));

    const auto bars = objectsOf(pass, DrawnKind::quoteBar);
    ASSERT_EQ(bars.size(), 2u);
    EXPECT_EQ(bars[1].level, 2);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"> > "_s), 4));
    const StyleAttributes deep = pass.attributesAt(indexOf(text, u"deep"_s));
    EXPECT_EQ(deep.colour, ColourRole::secondaryLabel);
    EXPECT_EQ(deep.paragraph.firstLineIndent, (Indent{0, 4}));
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"quoted"_s)).paragraph.headIndent, (Indent{0, 4}));
}

TEST(MarkdownStyler, LinksCardsAndNoteReferences) {
    const QString text =
        u"Title\nSee [site](https://e.com) and [other](Other%20Note.md) and [ref][r].\n"
        u"[r]: ../up.txt\n[Card](https://example.com/a)\n[Me](Self.md)\n`[no](link)` [*em*][r]"_s;
    const StylePass pass = styled(text);

    const StyleAttributes site = pass.attributesAt(indexOf(text, u"site"_s));
    EXPECT_EQ(site.colour, ColourRole::link);
    EXPECT_EQ(site.link->url, u"https://e.com"_s);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"](https://e.com)"_s), 16));

    const StyleAttributes other = pass.attributesAt(indexOf(text, u"other"_s));
    EXPECT_EQ(other.link->kind, LinkKind::note);
    EXPECT_EQ(other.link->localPath, u"/notes/Other Note.md"_s);

    const StyleAttributes ref = pass.attributesAt(indexOf(text, u"ref]"_s));
    EXPECT_EQ(ref.link->localPath, u"/up.txt"_s);
    EXPECT_EQ(ref.link->kind, LinkKind::file);
    EXPECT_TRUE(allHidden(pass, indexOf(text, u"][r]"_s), 4));

    const auto cards = objectsOf(pass, DrawnKind::linkCard);
    ASSERT_EQ(cards.size(), 1u);
    EXPECT_EQ(cards[0].link->url, u"https://example.com/a"_s);
    const auto notes = objectsOf(pass, DrawnKind::noteReference);
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].error, u"This note cannot link to itself."_s);

    EXPECT_FALSE(pass.attributesAt(indexOf(text, u"no](link)"_s)).link.has_value());
    const StyleAttributes em = pass.attributesAt(indexOf(text, u"em*]"_s));
    EXPECT_TRUE(em.italic);
    EXPECT_EQ(em.link->localPath, u"/up.txt"_s);
}

TEST(MarkdownStyler, TablesAreGridsWithAlignedColumns) {
    const QString text = u"Title\n| a | b \\| c | d |\n|:---|:---:|---:|\n| 1 | 2 | 3 |\n| 4 |\n\nafter"_s;
    const StylePass pass = styled(text);
    ASSERT_EQ(pass.tables.size(), 1u);
    const Table& table = pass.tables[0];
    EXPECT_EQ(table.alignments,
              (std::vector{ColumnAlignment::left, ColumnAlignment::centre, ColumnAlignment::right}));
    ASSERT_EQ(table.header.cells.size(), 3u);
    EXPECT_EQ(table.header.cells[1].text, u"b | c"_s);
    ASSERT_EQ(table.body.size(), 2u);
    EXPECT_EQ(table.body[1].cells.size(), 3u);  // padded
    EXPECT_EQ(table.range.end(), indexOf(text, u"| 4 |"_s) + 5);
    const auto grids = objectsOf(pass, DrawnKind::table);
    ASSERT_EQ(grids.size(), 1u);
    EXPECT_EQ(grids[0].start, table.range.start);
}

TEST(MarkdownStyler, SoftBreaksJoinParagraphLinesOnly) {
    const QString text = u"Title\none\ntwo  \nthree\n- item\ncontinued\n\n# Head\nfour"_s;
    const StylePass pass = styled(text);
    EXPECT_FALSE(contains(pass.softBreakIndexes, indexOf(text, u"\none"_s)));
    EXPECT_TRUE(contains(pass.softBreakIndexes, indexOf(text, u"\ntwo"_s)));
    EXPECT_FALSE(contains(pass.softBreakIndexes, indexOf(text, u"\nthree"_s)));  // hard break
    EXPECT_FALSE(contains(pass.softBreakIndexes, indexOf(text, u"\n- item"_s)));
    EXPECT_TRUE(contains(pass.softBreakIndexes, indexOf(text, u"\ncontinued"_s)));
    EXPECT_FALSE(contains(pass.softBreakIndexes, indexOf(text, u"\nfour"_s)));
}

TEST(MarkdownStyler, SourcePresentationHidesNothingAndCodeWins) {
    const QString text = u"# Head\n**bold** *it* `code`\n> quote\n- [ ] task\n```\n# not **x**\n```\n"_s;
    const StylePass pass = styleMarkdown(text, Presentation::source, 17, {});
    EXPECT_TRUE(pass.objects.empty());
    EXPECT_TRUE(pass.bulletIndexes.empty());
    EXPECT_TRUE(noneHidden(pass, 0, static_cast<int>(text.size())));
    EXPECT_EQ(pass.attributesAt(0).colour, ColourRole::systemPurple);
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"bold"_s)).colour, ColourRole::systemBlue);
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"it*"_s)).colour, ColourRole::systemPink);
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"quote"_s)).colour, ColourRole::systemGreen);
    EXPECT_EQ(pass.attributesAt(indexOf(text, u"[ ]"_s)).colour, ColourRole::systemTeal);
    const StyleAttributes fenced = pass.attributesAt(indexOf(text, u"# not"_s) + 6);
    EXPECT_EQ(fenced.colour, ColourRole::systemOrange);
    EXPECT_EQ(fenced.background, (Background{ColourRole::quaternaryLabel, 0.22}));
}

QString randomMarkdown(QRandomGenerator& random, int length) {
    static const QStringList pieces = {
        u"*"_s,         u"**"_s,        u"_"_s,          u"~"_s,           u"^"_s,
        u"="_s,         u"`"_s,         u"```"_s,        u"$"_s,           u"$$\n"_s,
        u"\\"_s,        u"["_s,         u"]"_s,          u"("_s,           u")"_s,
        u"[^1]"_s,      u"[^1]: "_s,    u"#"_s,          u"# "_s,          u"> "_s,
        u"- "_s,        u"- [x] "_s,    u"1. "_s,        u"|"_s,           u"|---|---|\n"_s,
        u":"_s,         u"&amp;"_s,     u"&#x1F600;"_s,  u"<kbd>"_s,       u"</kbd>"_s,
        u"<details>"_s, u"<summary>"_s, u"</summary>"_s, u"</details>"_s,  u"<!--"_s,
        u"-->"_s,       u"\n"_s,        u"\r\n"_s,       u" "_s,           u"\t"_s,
        u"word"_s,      u"é"_s,         u"😀"_s,          u"![a](b.png)"_s, u"[l](https://x.y)"_s,
        u"\\frac{"_s,   u"}"_s,         u"{"_s,
    };
    QString text;
    while (text.size() < length) {
        // Now and then an unpaired surrogate, as a damaged paste could bring.
        if (random.bounded(40) == 0) {
            text += QChar(random.bounded(2) ? 0xD83D : 0xDE00);
        } else {
            text += pieces[random.bounded(static_cast<int>(pieces.size()))];
        }
    }
    return text;
}

TEST(MarkdownStyler, AnyInputGivesWellFormedPassesAndKeepsTheText) {
    QRandomGenerator random(20240611);
    for (int round = 0; round < 300; ++round) {
        const QString text = randomMarkdown(random, 1 + random.bounded(300));
        const QString before = text;
        for (const Presentation presentation : {Presentation::styled, Presentation::source}) {
            const StylePass pass = styleMarkdown(text, presentation, 15, u"/notes"_s);
            expectWellFormed(text, pass);
            if (presentation == Presentation::source) {
                EXPECT_TRUE(noneHidden(pass, 0, static_cast<int>(text.size())));
            }
        }
        ASSERT_EQ(text, before);
    }
}

TEST(MarkdownStyler, LargeMixedDocumentIsStyledInOnePass) {
    const QString section =
        u"## Section\nSome *emphasis*, **strong**, `code`, a [link](https://e.com) and $x^2$.\n"
        u"- item one\n- [ ] task\n1. first\n> quoted text\n| a | b |\n|---|---|\n| 1 | 2 |\n"
        u"```\nlet x = a * b * c;\n```\nA footnote[^n] and &amp; H~2~O.\n\n"_s;
    QString text = u"# Big note\n"_s;
    while (text.size() < 100 * 1024) text += section;
    text += u"[^n]: The footnote.\n"_s;
    const StylePass pass = styled(text);
    expectWellFormed(text, pass);
    const auto count = static_cast<std::size_t>(text.count(u"## Section"_s));
    EXPECT_EQ(pass.codeBlocks.size(), count);
    EXPECT_EQ(pass.tables.size(), count);
    EXPECT_EQ(objectsOf(pass, DrawnKind::footnoteReference).size(), count);
}

}  // namespace
