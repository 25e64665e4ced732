#pragma once

#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

// Value types describing one styling pass over a Markdown body. Nothing here
// depends on a GUI module: a text view adapter turns roles into fonts and colours.
namespace mossly::markdown {

enum class Presentation : std::uint8_t { styled, source };

struct TextRange {
    int start = 0;
    int length = 0;

    int end() const { return start + length; }
    bool contains(int position) const { return position >= start && position < end(); }
    bool operator==(const TextRange&) const = default;
};

enum class FontRole : std::uint8_t {
    body,       // the editor typeface
    monospace,  // the system monospaced font
    math,       // "STIX Two Math", else "Times New Roman"
};

enum class ColourRole : std::uint8_t {
    label,
    secondaryLabel,
    tertiaryLabel,
    quaternaryLabel,
    placeholder,
    link,
    systemPurple,
    systemBlue,
    systemPink,
    systemGreen,
    systemTeal,
    systemOrange,
    systemYellow,
};

struct Background {
    ColourRole colour = ColourRole::quaternaryLabel;
    double opacity = 1.0;
    bool operator==(const Background&) const = default;
};

// An indent is `points` plus `columns` character cells of the base font (a tab
// counts up to the next multiple of four). Prefix widths depend on the font, so
// they stay in columns and the adapter measures one cell.
struct Indent {
    double points = 0;
    double columns = 0;
    bool operator==(const Indent&) const = default;
};

enum class Alignment : std::uint8_t { natural, centre };

struct ParagraphAttributes {
    std::optional<Indent> firstLineIndent;
    std::optional<Indent> headIndent;
    std::optional<double> lineSpacing;
    std::optional<double> paragraphSpacing;
    std::optional<double> minimumLineHeight;
    std::optional<Alignment> alignment;

    bool empty() const;
    bool operator==(const ParagraphAttributes&) const = default;
};

enum class LinkKind : std::uint8_t {
    web,       // a URL with a scheme, used as typed
    file,      // a local file that is not a note
    note,      // another note file: opened through the editor, not the desktop
    footnote,  // "mossly-footnote://definition/<label>" or ".../reference/<label>": moves the selection
};

struct LinkTarget {
    QString url;        // what the link attribute carries
    QString localPath;  // for file and note links, the absolute cleaned path
    LinkKind kind = LinkKind::web;
    bool operator==(const LinkTarget&) const = default;
};

// Attributes one rule sets on a range; an unset field leaves the range's value.
//
// Merge (a later rule applied over an earlier one): flags (hidden, hideParagraph,
// bold, italic, strikethrough) are OR-ed, so traits add to what the range already
// has and nothing un-hides a marker; every optional field that the later rule sets
// replaces the earlier value, paragraph fields one by one. `hidden` wins over every
// other field when the adapter draws: a hidden marker is a 0.1-point system font with
// clear foreground and background, whatever colour a later rule gave it.
struct StyleAttributes {
    bool hidden = false;
    bool hideParagraph = false;  // body of a closed details block: collapse the lines
    bool bold = false;
    bool italic = false;
    bool strikethrough = false;
    std::optional<FontRole> font;
    std::optional<double> pointSize;
    std::optional<ColourRole> colour;
    std::optional<Background> background;
    std::optional<double> baselineOffset;
    std::optional<LinkTarget> link;
    ParagraphAttributes paragraph;

    void mergeFrom(const StyleAttributes& later);
    bool operator==(const StyleAttributes&) const = default;
};

struct StyleRun {
    int start = 0;
    int length = 0;
    StyleAttributes attributes;

    int end() const { return start + length; }

    bool operator==(const StyleRun&) const = default;
};

enum class DrawnKind : std::uint8_t {
    checkbox,            // checked: state; level: indentation columns
    orderedNumber,       // text: "3."; level: indentation columns
    codePanel,           // drawn behind the block; text: info string; level: indentation columns;
                         // inset: panel inset in points; index: into StylePass::codeBlocks
    horizontalRule,      // drawn across the (hidden) line
    quoteBar,            // one per quoted line; level: nesting; drawn in the indent
    keycap,              // text: the key, drawn in the monospaced font
    inlineMath,          // text: the typeset form of the TeX source
    displayMath,         // text: as inlineMath; the block is a centred paragraph
    footnoteReference,   // text: label; link: jump to the definition
    footnoteDefinition,  // text: label; link: jump back to the first reference
    detailsDisclosure,   // over the <summary> tag; checked: open; related: the opening tag;
                         // text: the summary; index: into StylePass::detailsBlocks
    table,               // index: into StylePass::tables
    inlineReplacement,   // text: the character an entity denotes
    image,               // text: alt text; link: the resolved image location
    linkCard,            // text: link text; link: the web address
    noteReference,       // text: link text; link: the note; error: set for a link to itself
    titlePlaceholder,    // zero length at the title's text position; text: "Untitled Note"
};

// How the object meets the characters of its range.
enum class Placement : std::uint8_t {
    replace,  // the object is drawn instead of the glyphs and reserves its own box
    overlay,  // drawn behind or beside glyphs that keep their own layout
};

struct DrawnObject {
    DrawnKind kind = DrawnKind::checkbox;
    Placement placement = Placement::replace;
    int start = 0;
    int length = 0;
    QString text;
    bool checked = false;
    int level = 0;
    int index = -1;
    double inset = 0;
    TextRange related{-1, 0};
    std::optional<LinkTarget> link;
    QString error;

    int end() const { return start + length; }

    bool operator==(const DrawnObject&) const = default;
};

// Parse results the editing commands and the adapter reuse.

struct CodeBlock {
    TextRange range;  // opening fence line through closing fence line, no final line break
    TextRange openingFence;
    TextRange closingFence;  // empty (at the text's end) when the fence never closes
    TextRange body;
    TextRange indentation;  // leading blanks of the opening fence inside a list item
    QString info;

    bool operator==(const CodeBlock&) const = default;
};

struct DetailsBlock {
    TextRange range;
    TextRange openingTag;
    TextRange summaryOpenTag;
    TextRange summary;
    TextRange summaryCloseTag;
    TextRange body;
    TextRange closingTag;
    bool open = false;

    bool operator==(const DetailsBlock&) const = default;
};

enum class ColumnAlignment : std::uint8_t { none, left, centre, right };

struct TableCell {
    TextRange range;  // trimmed cell text
    QString text;     // with escaped pipes unescaped

    bool operator==(const TableCell&) const = default;
};

struct TableRow {
    TextRange range;  // the line without its line break
    std::vector<TableCell> cells;

    bool operator==(const TableRow&) const = default;
};

struct Table {
    TextRange range;
    TableRow header;
    TextRange delimiterRow;
    std::vector<TableRow> body;
    std::vector<ColumnAlignment> alignments;

    bool operator==(const Table&) const = default;
};

struct BlockQuoteLine {
    TextRange line;
    TextRange markers;  // indentation, every '>' and the blanks after them
    int nesting = 0;
    TextRange listMarker;  // "- " or "12. " after the markers; empty when absent

    bool operator==(const BlockQuoteLine&) const = default;
};

struct FootnoteReference {
    TextRange range;
    QString label;
    int definitionLocation = -1;  // -1 when no definition exists

    bool operator==(const FootnoteReference&) const = default;
};

struct FootnoteDefinition {
    TextRange marker;  // "[^label]:" and the blanks after it
    TextRange body;
    QString label;
    int firstReferenceLocation = -1;

    bool operator==(const FootnoteDefinition&) const = default;
};

struct StylePass {
    Presentation presentation = Presentation::styled;
    double baseSize = 17;
    std::vector<StyleRun> runs;         // sorted, non-overlapping; unstyled text has no run
    std::vector<DrawnObject> objects;   // stably sorted by start
    std::vector<int> bulletIndexes;     // '-' characters drawn as bullets
    std::vector<int> softBreakIndexes;  // line breaks drawn as a space
    std::vector<CodeBlock> codeBlocks;
    std::vector<DetailsBlock> detailsBlocks;
    std::vector<Table> tables;
    std::vector<BlockQuoteLine> quoteLines;
    std::vector<FootnoteReference> footnoteReferences;
    std::vector<FootnoteDefinition> footnoteDefinitions;

    // The merged attributes at a character; empty attributes where no rule applied.
    StyleAttributes attributesAt(int position) const;

    bool operator==(const StylePass&) const = default;
};

}  // namespace mossly::markdown
