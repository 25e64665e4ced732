#include "MarkdownStyler.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <algorithm>
#include <array>
#include <set>

#include "HtmlEntities.h"
#include "LinkResolution.h"
#include "MarkdownBlocks.h"
#include "MarkdownLineRun.h"
#include "MarkdownText.h"
#include "TexReplacements.h"

namespace mossly::markdown {

namespace {

constexpr double kReferenceSize = 17;

TextRange capturedRange(const QRegularExpressionMatch& match, int group, int offset = 0) {
    return {static_cast<int>(match.capturedStart(group)) + offset,
            static_cast<int>(match.capturedLength(group))};
}

int leadingBlanks(QStringView line) {
    int i = 0;
    while (i < line.size() && (line[i] == u' ' || line[i] == u'\t')) ++i;
    return i;
}

StyleAttributes withColour(ColourRole colour) {
    StyleAttributes attributes;
    attributes.colour = colour;
    return attributes;
}

StyleAttributes withFont(FontRole font) {
    StyleAttributes attributes;
    attributes.font = font;
    return attributes;
}

// The rules' attribute layers in the order the rules applied them, flattened at the
// end into non-overlapping runs (see StyleAttributes for the merge).
class AttributeLayers {
  public:
    void apply(int start, int end, const StyleAttributes& attributes) {
        if (end > start) layers_.push_back({start, end, attributes});
    }
    void apply(TextRange range, const StyleAttributes& attributes) {
        apply(range.start, range.end(), attributes);
    }

    void hide(int start, int end) {
        StyleAttributes hidden;
        hidden.hidden = true;
        apply(start, end, hidden);
        hiddenMarkers_.add(start, end);
    }
    void hide(TextRange range) { hide(range.start, range.end()); }

    // Marker ranges hidden so far, merged.
    const RangeSet& hiddenMarkers() {
        hiddenMarkers_.normalise();
        return hiddenMarkers_;
    }

    std::vector<StyleRun> flatten() const {
        struct Edge {
            int position;
            int layer;
            bool opens;
        };
        std::vector<Edge> edges;
        edges.reserve(layers_.size() * 2);
        for (int i = 0; i < static_cast<int>(layers_.size()); ++i) {
            edges.push_back({layers_[i].start, i, true});
            edges.push_back({layers_[i].end, i, false});
        }
        std::sort(edges.begin(), edges.end(),
                  [](const Edge& a, const Edge& b) { return a.position < b.position; });

        std::vector<StyleRun> runs;
        std::set<int> active;  // ordered by application, so later layers merge last
        for (std::size_t e = 0; e < edges.size();) {
            const int position = edges[e].position;
            for (; e < edges.size() && edges[e].position == position; ++e) {
                if (edges[e].opens) {
                    active.insert(edges[e].layer);
                } else {
                    active.erase(edges[e].layer);
                }
            }
            if (active.empty() || e == edges.size()) continue;
            const int next = edges[e].position;
            StyleAttributes merged;
            for (const int layer : active) merged.mergeFrom(layers_[layer].attributes);
            if (!runs.empty() && runs.back().end() == position && runs.back().attributes == merged) {
                runs.back().length += next - position;
            } else {
                runs.push_back({position, next - position, std::move(merged)});
            }
        }
        return runs;
    }

  private:
    struct Layer {
        int start;
        int end;
        StyleAttributes attributes;
    };
    std::vector<Layer> layers_;
    RangeSet hiddenMarkers_;
};

QString normalisedLabel(QStringView label) {
    return label.toString().simplified().toCaseFolded();
}

class StyledPass {
  public:
    StyledPass(const QString& text, double baseSize, const QString& noteDirectory,
               const QString& noteFilePath, const LineRunContext& context = {})
        : context_(context),
          text_(text),
          lines_(text),
          scale_(baseSize / kReferenceSize),
          noteDirectory_(noteDirectory),
          noteFilePath_(noteFilePath.isEmpty() ? QString() : QDir::cleanPath(noteFilePath)) {
        pass_.presentation = Presentation::styled;
        pass_.baseSize = baseSize;
    }

    StyledLineRun runWithDefinitions() {
        StylePass pass = run();
        return {std::move(pass), std::move(linkDefinitions_)};
    }

    StylePass run() {
        findBullets();              // 1
                                    // 2: the base attributes are what no run covers
        findCodeAndDetails();       // 3
        styleCodeBlocks();          // 4
        styleTables();              // 5
        styleThematicBreaks();      // 6
        styleFootnotes();           // 7
        styleDefinitionLists();     // 8
        styleMath();                // 9
        styleHtml();                // 10
        styleHeadings();            // 11
        styleBulletLists();         // 12
        styleOrderedLists();        // 13
        styleChecklists();          // 14
        styleBlockQuotes();         // 15
        styleInlineCode();          // 16
        styleEmphasis();            // 17
        styleLinks();               // 18
        styleEscapesAndEntities();  // 19
        layOutTables();             // 20
        styleImages();              // 21
        styleArtifacts();           // 22
        findSoftBreaks();           // 23
        styleEmptyTitle();          // 24
        finish();
        return std::move(pass_);
    }

  private:
    double scaled(double nominal) const { return nominal * scale_; }

    bool lineExcluded(int line) const {
        return exclusions_.intersects(lines_.start(line), std::max(lines_.end(line), lines_.start(line) + 1));
    }

    void applyParagraph(int line, const ParagraphAttributes& paragraph) {
        StyleAttributes attributes;
        attributes.paragraph = paragraph;
        layers_.apply(lines_.paragraph(line), attributes);
    }

    DrawnObject& draw(DrawnKind kind, Placement placement, TextRange range, const QString& drawnText = {}) {
        DrawnObject object;
        object.kind = kind;
        object.placement = placement;
        object.start = range.start;
        object.length = range.length;
        object.text = drawnText;
        pass_.objects.push_back(std::move(object));
        return pass_.objects.back();
    }

    // Calls `visit(line, content)` for every line outside fenced code whose first
    // non-blank character passes `first`, a cheap filter ahead of the pattern.
    template <typename First, typename Visit>
    void forEachLine(First&& first, Visit&& visit) {
        for (int line = 0; line < lines_.count(); ++line) {
            const QStringView content = lines_.content(line);
            const int blanks = leadingBlanks(content);
            if (blanks >= content.size() || !first(content[blanks])) continue;
            if (lineExcluded(line)) continue;
            visit(line, content);
        }
    }

    // 1. Bullet glyphs, from the plain text.
    void findBullets() {
        static const QRegularExpression plain = compilePattern(QStringLiteral(R"re((?m)^\s*(-)(?=\s+))re"));
        static const QRegularExpression quoted =
            compilePattern(QStringLiteral(R"re((?m)^[ \t]*(?:>[ \t]*)+[ \t]*(-)(?=[ \t]+))re"));
        for (const QRegularExpression* pattern : {&plain, &quoted}) {
            forEachMatch(*pattern, text_, RangeSet{}, [&](const QRegularExpressionMatch& match) {
                pass_.bulletIndexes.push_back(static_cast<int>(match.capturedStart(1)));
                return MatchVerdict::take;
            });
        }
        std::sort(pass_.bulletIndexes.begin(), pass_.bulletIndexes.end());
        pass_.bulletIndexes.erase(std::unique(pass_.bulletIndexes.begin(), pass_.bulletIndexes.end()),
                                  pass_.bulletIndexes.end());
    }

    // 3. Fenced code forms the exclusion list for every later rule.
    void findCodeAndDetails() {
        pass_.codeBlocks = findCodeBlocks(text_, lines_);
        for (const CodeBlock& block : pass_.codeBlocks) exclusions_.add(block.range);
        exclusions_.normalise();
        pass_.detailsBlocks = findDetailsBlocks(text_, exclusions_);
    }

    // 4.
    void styleCodeBlocks() {
        for (int i = 0; i < static_cast<int>(pass_.codeBlocks.size()); ++i) {
            const CodeBlock& block = pass_.codeBlocks[i];
            layers_.apply(block.body, withFont(FontRole::monospace));
            layers_.hide(block.openingFence);
            layers_.hide(block.closingFence);
            DrawnObject& panel = draw(DrawnKind::codePanel, Placement::overlay, block.range, block.info);
            panel.level =
                columnsOf(QStringView(text_).sliced(block.indentation.start, block.indentation.length));
            panel.index = i;
            panel.inset = scaled(12);
        }
    }

    // 5. Tables are found here and drawn as grids in step 20.
    void styleTables() {
        pass_.tables = findTables(text_, lines_, exclusions_);
        for (const Table& table : pass_.tables) blockLines_.add(table.range);
    }

    // 6.
    void styleThematicBreaks() {
        static const QRegularExpression rule = compilePattern(
            QStringLiteral(R"re((?m)^[ \t]{0,3}(?:(?:\*[ \t]*){3,}|(?:-[ \t]*){3,}|(?:_[ \t]*){3,})$)re"));
        forEachMatch(rule, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            layers_.hide(range);
            ParagraphAttributes paragraph;
            paragraph.minimumLineHeight = scaled(18);
            applyParagraph(lines_.lineAt(range.start), paragraph);
            draw(DrawnKind::horizontalRule, Placement::overlay, range);
            blockLines_.add(range);
            return MatchVerdict::take;
        });
    }

    // 7.
    void styleFootnotes() {
        Footnotes footnotes;
        if (context_.footnotes) {
            footnotes = findFootnotesInRun(text_, lines_, exclusions_, *context_.footnotes);
        } else {
            footnotes = findFootnotes(text_, lines_, exclusions_);
        }
        for (const FootnoteReference& reference : footnotes.references) {
            StyleAttributes attributes = withColour(ColourRole::secondaryLabel);
            attributes.link = LinkTarget{footnoteDefinitionUrl(reference.label), {}, LinkKind::footnote};
            layers_.apply(reference.range, attributes);
            DrawnObject& label =
                draw(DrawnKind::footnoteReference, Placement::replace, reference.range, reference.label);
            label.link = attributes.link;
        }
        for (const FootnoteDefinition& definition : footnotes.definitions) {
            StyleAttributes attributes = withColour(ColourRole::secondaryLabel);
            if (definition.firstReferenceLocation >= 0) {
                attributes.link = LinkTarget{footnoteReferenceUrl(definition.label), {}, LinkKind::footnote};
            }
            layers_.apply(definition.marker, attributes);
            DrawnObject& marker =
                draw(DrawnKind::footnoteDefinition, Placement::replace, definition.marker, definition.label);
            marker.link = attributes.link;
        }
        pass_.footnoteReferences = std::move(footnotes.references);
        pass_.footnoteDefinitions = std::move(footnotes.definitions);
    }

    // 8.
    void styleDefinitionLists() {
        static const QRegularExpression definition =
            compilePattern(QStringLiteral(R"re(^(:[ \t]+)([^\r\n]+)$)re"));
        forEachLine([](QChar c) { return c == u':'; },
                    [&](int line, QStringView content) {
                        const QRegularExpressionMatch match = definition.match(content);
                        if (!match.hasMatch()) return;
                        layers_.hide(capturedRange(match, 1, lines_.start(line)));
                        ParagraphAttributes paragraph;
                        paragraph.firstLineIndent = Indent{scaled(24), 0};
                        paragraph.headIndent = Indent{scaled(24), 0};
                        applyParagraph(line, paragraph);
                    });
    }

    // 9. Display math first, so that its body is never read as inline math.
    void styleMath() {
        static const QRegularExpression tag = compilePattern(QStringLiteral(R"re(</?[A-Za-z][^>\r\n]*>)re"));
        static const QRegularExpression display = compilePattern(
            QStringLiteral(R"re(^\$\$[ \t]*\r?\n(.*?)\r?\n\$\$[ \t]*$)re"),
            QRegularExpression::MultilineOption | QRegularExpression::DotMatchesEverythingOption);
        static const QRegularExpression inlineMath =
            compilePattern(QStringLiteral(R"re((?<!\$)\$([^$\r\n]+)\$(?!\$))re"));

        forEachMatch(tag, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            tags_.add(capturedRange(match, 0));
            return MatchVerdict::take;
        });
        tags_.normalise();

        RangeSet displayRanges;
        forEachMatch(display, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (tags_.intersects(range.start, range.end())) return MatchVerdict::skip;
            layers_.hide(range);
            layers_.apply(range, withFont(FontRole::math));
            draw(DrawnKind::displayMath, Placement::replace, range, texDisplayText(match.captured(1)));
            ParagraphAttributes centred;
            centred.alignment = Alignment::centre;
            for (int line = lines_.lineAt(range.start); line <= lines_.lineAt(range.end() - 1); ++line) {
                applyParagraph(line, centred);
            }
            displayRanges.add(range);
            protected_.add(range);
            blockLines_.add(range);
            return MatchVerdict::take;
        });
        displayRanges.normalise();

        forEachMatch(inlineMath, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (tags_.intersects(range.start, range.end())) return MatchVerdict::skip;
            if (displayRanges.intersects(range.start, range.end())) return MatchVerdict::retry;
            layers_.hide(range);
            layers_.apply(range, withFont(FontRole::math));
            draw(DrawnKind::inlineMath, Placement::replace, range, texDisplayText(match.captured(1)));
            protected_.add(range);
            return MatchVerdict::take;
        });
        protected_.normalise();
    }

    // 10. Key caps, details blocks, then comments and tags, which later rules leave alone.
    void styleHtml() {
        static const QRegularExpression keycap =
            compilePattern(QStringLiteral(R"re(<kbd>([^\r\n]*?)</kbd>)re"));
        static const QRegularExpression comment = compilePattern(QStringLiteral(R"re(<!--.*?-->)re"));

        forEachMatch(keycap, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            const TextRange key = capturedRange(match, 1);
            if (protected_.intersects(range.start, range.end())) return MatchVerdict::skip;
            layers_.hide(range.start, key.start);
            layers_.hide(key.end(), range.end());
            layers_.apply(key, withFont(FontRole::monospace));
            if (key.length > 0) draw(DrawnKind::keycap, Placement::replace, key, match.captured(1));
            return MatchVerdict::take;
        });

        for (int i = 0; i < static_cast<int>(pass_.detailsBlocks.size()); ++i) {
            const DetailsBlock& block = pass_.detailsBlocks[i];
            for (const TextRange& tagRange :
                 {block.openingTag, block.summaryOpenTag, block.summaryCloseTag, block.closingTag}) {
                layers_.hide(tagRange);
            }
            DrawnObject& disclosure =
                draw(DrawnKind::detailsDisclosure, Placement::replace, block.summaryOpenTag,
                     QStringView(text_).sliced(block.summary.start, block.summary.length).toString());
            disclosure.checked = block.open;
            disclosure.related = block.openingTag;
            disclosure.index = i;
            const TextRange between{block.summaryCloseTag.end(),
                                    block.closingTag.start - block.summaryCloseTag.end()};
            if (!block.open && block.body.length > 0) {
                StyleAttributes collapsed;
                collapsed.hidden = true;
                collapsed.hideParagraph = true;
                layers_.apply(between, collapsed);
                closedBodies_.add(between);
            }
        }
        closedBodies_.normalise();

        forEachMatch(comment, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            layers_.apply(range, withColour(ColourRole::tertiaryLabel));
            protected_.add(range);
            return MatchVerdict::take;
        });
        for (const TextRange& range : tags_.ranges()) protected_.add(range);
        protected_.normalise();
    }

    // 11.
    void styleHeadings() {
        static const std::array<QRegularExpression, 4> levels = {
            compilePattern(QStringLiteral(R"re((?m)^(#{1}[ \t]+)(.*)$)re")),
            compilePattern(QStringLiteral(R"re((?m)^(#{2}[ \t]+)(.+)$)re")),
            compilePattern(QStringLiteral(R"re((?m)^(#{3}[ \t]+)(.+)$)re")),
            compilePattern(QStringLiteral(R"re((?m)^(#{4,6}[ \t]+)(.+)$)re")),
        };
        static constexpr std::array<double, 6> sizes = {32, 24, 19, 17, 17, 17};
        for (const QRegularExpression& level : levels) {
            forEachMatch(level, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
                const int hashes = static_cast<int>(match.capturedView(1).count(u'#'));
                layers_.hide(capturedRange(match, 1));
                StyleAttributes heading;
                heading.font = FontRole::body;
                heading.bold = true;
                heading.pointSize = scaled(sizes[hashes - 1]);
                layers_.apply(capturedRange(match, 2), heading);
                return MatchVerdict::take;
            });
        }
    }

    static bool startsListItem(QChar c) { return c == u'-' || c == u'*' || c == u'+' || c.isDigit(); }

    // 12. Wrapped lines of an item align with its text.
    void styleBulletLists() {
        static const QRegularExpression item =
            compilePattern(QStringLiteral(R"re(^[ \t]*(?:[-*+]|\d+\.)[ \t]+)re"));
        forEachLine(startsListItem, [&](int line, QStringView content) {
            const QRegularExpressionMatch match = item.match(content);
            if (!match.hasMatch()) return;
            ParagraphAttributes paragraph;
            // The first line starts at the margin with its marker; the lines it wraps onto
            // start where its text does.
            paragraph.firstLineIndent = Indent{0, 0};
            paragraph.headIndent = Indent{0, static_cast<double>(columnsOf(match.capturedView()))};
            applyParagraph(line, paragraph);
        });
    }

    // 13.
    void styleOrderedLists() {
        static const QRegularExpression item =
            compilePattern(QStringLiteral(R"re(^([ \t]*)(\d+)(\.[ \t]+)([^\r\n]*)$)re"));
        forEachLine([](QChar c) { return c.isDigit(); },
                    [&](int line, QStringView content) {
                        const QRegularExpressionMatch match = item.match(content);
                        if (!match.hasMatch()) return;
                        const int start = lines_.start(line);
                        const TextRange number{start + static_cast<int>(match.capturedStart(2)),
                                               static_cast<int>(match.capturedLength(2)) + 1};
                        layers_.hide(number);
                        DrawnObject& drawn = draw(DrawnKind::orderedNumber, Placement::replace, number,
                                                  match.captured(2) + u'.');
                        drawn.level = columnsOf(match.capturedView(1));
                        ParagraphAttributes paragraph;
                        paragraph.lineSpacing = scaled(2);
                        applyParagraph(line, paragraph);
                    });
    }

    // 14.
    void styleChecklists() {
        static const QRegularExpression item =
            compilePattern(QStringLiteral(R"re((?m)^(([ \t]*)[-*+][ \t]+\[([ xX])\][ \t]+)([^\r\n]*))re"));
        forEachMatch(item, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange prefix = capturedRange(match, 1);
            const bool checked = match.capturedView(3) != u" ";
            layers_.hide(prefix);
            DrawnObject& box = draw(DrawnKind::checkbox, Placement::replace, prefix);
            box.checked = checked;
            box.level = columnsOf(match.capturedView(2));
            // The indentation is hidden with the prefix, so the paragraph restores it.
            ParagraphAttributes paragraph;
            paragraph.firstLineIndent = Indent{0, static_cast<double>(box.level)};
            paragraph.headIndent = Indent{0, static_cast<double>(columnsOf(match.capturedView(1)))};
            applyParagraph(lines_.lineAt(prefix.start), paragraph);
            if (checked) layers_.apply(capturedRange(match, 4), withColour(ColourRole::secondaryLabel));
            return MatchVerdict::take;
        });
    }

    // 15.
    void styleBlockQuotes() {
        pass_.quoteLines = findBlockQuoteLines(lines_, exclusions_);
        for (const BlockQuoteLine& quote : pass_.quoteLines) {
            layers_.hide(quote.markers);
            DrawnObject& bar = draw(DrawnKind::quoteBar, Placement::overlay, quote.markers);
            bar.level = quote.nesting;
            layers_.apply(quote.markers.end(), quote.line.end(), withColour(ColourRole::secondaryLabel));
            const QStringView view(text_);
            const double markerColumns = columnsOf(view.sliced(quote.markers.start, quote.markers.length));
            const double itemColumns =
                columnsOf(view.sliced(quote.listMarker.start, quote.listMarker.length));
            ParagraphAttributes paragraph;
            paragraph.firstLineIndent = Indent{0, markerColumns};
            paragraph.headIndent = Indent{0, markerColumns + itemColumns};
            paragraph.lineSpacing = scaled(2);
            paragraph.paragraphSpacing = scaled(3);
            applyParagraph(lines_.lineAt(quote.line.start), paragraph);
        }
    }

    // 16. Code spans join the protected ranges: no later rule styles inside them.
    void styleInlineCode() {
        static const QRegularExpression code = compilePattern(QStringLiteral(R"re(`([^`\n]+)`)re"));
        std::vector<TextRange> spans;
        forEachMatch(code, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (range.start > 0 && text_[range.start - 1] == u'\\') return MatchVerdict::retry;
            if (protected_.straddles(range.start, range.end())) return MatchVerdict::retry;
            const TextRange content = capturedRange(match, 1);
            layers_.hide(range.start, content.start);
            layers_.hide(content.end(), range.end());
            StyleAttributes attributes = withFont(FontRole::monospace);
            attributes.background = Background{ColourRole::quaternaryLabel, 0.35};
            layers_.apply(content, attributes);
            spans.push_back(range);
            return MatchVerdict::take;
        });
        for (const TextRange& span : spans) protected_.add(span);
        protected_.normalise();
    }

    // 17.
    void styleEmphasis() {
        struct Form {
            QRegularExpression pattern;
            StyleAttributes attributes;
        };
        static const std::vector<Form> forms = [] {
            StyleAttributes boldItalic;
            boldItalic.bold = true;
            boldItalic.italic = true;
            StyleAttributes bold;
            bold.bold = true;
            StyleAttributes italic;
            italic.italic = true;
            StyleAttributes struck;
            struck.strikethrough = true;
            StyleAttributes highlighted;
            highlighted.background = Background{ColourRole::systemYellow, 0.24};
            // Sizes are scaled per pass; these carry the nominal values.
            StyleAttributes subscript;
            subscript.pointSize = 13;
            subscript.baselineOffset = -3;
            StyleAttributes superscript;
            superscript.pointSize = 13;
            superscript.baselineOffset = 5;
            auto form = [](const char16_t* pattern, const StyleAttributes& attributes) {
                return Form{compilePattern(QString::fromUtf16(pattern)), attributes};
            };
            return std::vector<Form>{
                form(uR"re((?<![\\*])\*\*\*(?!\*)(?=\S)(.+?)(?<=\S)(?<!\*)\*\*\*(?!\*))re", boldItalic),
                form(uR"re((?<![\\_\p{L}\p{N}])___(?!_)(?=\S)(.+?)(?<=\S)(?<!_)___(?![_\p{L}\p{N}]))re",
                     boldItalic),
                form(uR"re((?<![\\*])\*\*(?!\*)(?=\S)(.+?)(?<=\S)(?<!\*)\*\*(?!\*))re", bold),
                form(uR"re((?<![\\_\p{L}\p{N}])__(?!_)(?=\S)(.+?)(?<=\S)(?<!_)__(?![_\p{L}\p{N}]))re", bold),
                form(uR"re((?<![\\*])\*(?!\*)(?=\S)(.+?)(?<=\S)(?<!\*)\*(?!\*))re", italic),
                form(uR"re((?<![\\_\p{L}\p{N}])_(?!_)(?=\S)(.+?)(?<=\S)(?<!_)_(?![_\p{L}\p{N}]))re", italic),
                form(uR"re((?<![\\~])~~(?!~)(?=\S)(.+?)(?<=\S)(?<!~)~~(?!~))re", struck),
                form(uR"re((?<![\\=])==(?!\=)(?=\S)(.+?)(?<=\S)(?<!\=)==(?!\=))re", highlighted),
                form(uR"re((?<![\\~])~(?!~)([^~\s\r\n]+)(?<!~)~(?!~))re", subscript),
                form(uR"re((?<![\\^])\^([^\^\s\[\]\r\n]+)\^(?!\^))re", superscript),
            };
        }();

        const std::vector<TextRange> segments = emphasisSegments();
        for (const Form& form : forms) {
            StyleAttributes attributes = form.attributes;
            if (attributes.pointSize) attributes.pointSize = scaled(*attributes.pointSize);
            if (attributes.baselineOffset) attributes.baselineOffset = scaled(*attributes.baselineOffset);
            for (const TextRange& segment : segments) {
                const QStringView searched = QStringView(text_).first(segment.end());
                forEachMatch(
                    form.pattern, searched, exclusions_,
                    [&](const QRegularExpressionMatch& match) {
                        const TextRange range = capturedRange(match, 0);
                        if (protected_.straddles(range.start, range.end())) return MatchVerdict::retry;
                        const TextRange content = capturedRange(match, 1);
                        layers_.hide(range.start, content.start);
                        layers_.hide(content.end(), range.end());
                        layers_.apply(content, attributes);
                        return MatchVerdict::take;
                    },
                    segment.start);
            }
        }
    }

    // An unclosed delimiter makes an emphasis search run to the end of its line, so a
    // line with thousands of them costs the square of its length. Emphasis therefore
    // skips lines longer than this (pasted data, never prose); all other text is
    // searched in runs of whole lines.
    static constexpr int kLongestEmphasisLine = 10000;

    std::vector<TextRange> emphasisSegments() const {
        std::vector<TextRange> segments;
        int start = 0;
        for (int line = 0; line < lines_.count(); ++line) {
            if (lines_.end(line) - lines_.start(line) <= kLongestEmphasisLine) continue;
            if (lines_.start(line) > start) segments.push_back({start, lines_.start(line) - start});
            start = lines_.paragraph(line).end();
        }
        if (start <= text_.size()) segments.push_back({start, static_cast<int>(text_.size()) - start});
        return segments;
    }

    LinkTarget resolve(const QString& destination) const {
        return resolveLinkDestination(destination, noteDirectory_);
    }

    // 18. Inline links, then reference links through their definitions.
    void styleLinks() {
        static const QRegularExpression inlineLink =
            compilePattern(QStringLiteral(R"re((?<![!\\])\[([^\]\r\n]+)\]\(([^)\r\n]+)\))re"));
        static const QRegularExpression definition =
            compilePattern(QStringLiteral(R"re(^[ \t]{0,3}\[([^\]^][^\]]*)\]:[ \t]*(.+?)[ \t]*$)re"));
        static const QRegularExpression referenceLink = compilePattern(
            QStringLiteral(R"re((?<![!\\\]])\[([^\]\r\n]+)\](?:\[([^\]\r\n]*)\])?(?![(:]))re"));

        auto styleLink = [&](TextRange whole, TextRange label, const LinkTarget& target) {
            layers_.hide(whole.start, label.start);
            layers_.hide(label.end(), whole.end());
            StyleAttributes attributes = withColour(ColourRole::link);
            attributes.link = target;
            layers_.apply(label, attributes);
        };

        forEachMatch(inlineLink, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (match.capturedView(1).startsWith(u'^')) return MatchVerdict::retry;
            if (protected_.straddles(range.start, range.end())) return MatchVerdict::retry;
            styleLink(range, capturedRange(match, 1), resolve(match.captured(2)));
            return MatchVerdict::take;
        });

        QHash<QString, QString>& definitions = linkDefinitions_;
        if (context_.linkDefinitions) definitions = *context_.linkDefinitions;
        forEachLine([](QChar c) { return c == u'['; },
                    [&](int line, QStringView content) {
                        const QRegularExpressionMatch match = definition.match(content);
                        if (!match.hasMatch()) return;
                        const QString label = normalisedLabel(match.capturedView(1));
                        if (!context_.linkDefinitions && !label.isEmpty() && !definitions.contains(label)) {
                            definitions.insert(label, match.captured(2));
                        }
                        layers_.apply(lines_.start(line), lines_.end(line),
                                      withColour(ColourRole::secondaryLabel));
                    });
        if (definitions.isEmpty()) return;

        const RangeSet& hidden = layers_.hiddenMarkers();
        std::vector<std::pair<TextRange, TextRange>> found;
        std::vector<LinkTarget> targets;
        forEachMatch(referenceLink, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (match.capturedView(1).startsWith(u'^')) return MatchVerdict::retry;
            // Brackets that an earlier rule hid (a checklist's "[ ]") are not a link.
            if (protected_.straddles(range.start, range.end()) || hidden.contains(range.start) ||
                hidden.contains(range.end() - 1)) {
                return MatchVerdict::retry;
            }
            const QStringView explicitLabel = match.capturedView(2);
            const QString label =
                normalisedLabel(explicitLabel.isEmpty() ? match.capturedView(1) : explicitLabel);
            const auto destination = definitions.constFind(label);
            if (destination == definitions.constEnd()) return MatchVerdict::retry;
            found.push_back({range, capturedRange(match, 1)});
            targets.push_back(resolve(*destination));
            return MatchVerdict::take;
        });
        // Applied after the scan: hiding changes the hidden set the scan consults.
        for (std::size_t i = 0; i < found.size(); ++i) styleLink(found[i].first, found[i].second, targets[i]);
    }

    // 19. Escapes already inside hidden markers stay as they are.
    void styleEscapesAndEntities() {
        static const QRegularExpression escape =
            compilePattern(QStringLiteral(R"re(\\([\\`*{}\[\]()#+\-.!_|>~^=&]))re"));
        const RangeSet hidden = layers_.hiddenMarkers();

        forEachMatch(escape, text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (hidden.contains(range.start) || protected_.intersects(range.start, range.end())) {
                return MatchVerdict::skip;
            }
            layers_.hide(range.start, range.start + 1);
            return MatchVerdict::take;
        });

        forEachMatch(htmlEntityPattern(), text_, exclusions_, [&](const QRegularExpressionMatch& match) {
            const TextRange range = capturedRange(match, 0);
            if (hidden.intersects(range.start, range.end()) ||
                protected_.intersects(range.start, range.end())) {
                return MatchVerdict::skip;
            }
            const std::optional<QString> decoded = decodeHtmlEntity(match.capturedView());
            if (!decoded) return MatchVerdict::skip;
            layers_.hide(range);
            draw(DrawnKind::inlineReplacement, Placement::replace, range, *decoded);
            return MatchVerdict::take;
        });
    }

    // 20.
    void layOutTables() {
        for (int i = 0; i < static_cast<int>(pass_.tables.size()); ++i) {
            draw(DrawnKind::table, Placement::replace, pass_.tables[i].range).index = i;
        }
    }

    // 21. Only an image standing alone on its line is drawn.
    void styleImages() {
        static const QRegularExpression image =
            compilePattern(QStringLiteral(R"re(!\[([^\]\n]*)\]\(([^)\n]+)\))re"));
        forEachLine([](QChar c) { return c == u'!'; },
                    [&](int line, QStringView content) {
                        const QRegularExpressionMatch match = image.match(content);
                        if (!match.hasMatch()) return;
                        if (match.capturedStart() != leadingBlanks(content) ||
                            !content.sliced(match.capturedEnd()).trimmed().isEmpty()) {
                            return;
                        }
                        const TextRange range = capturedRange(match, 0, lines_.start(line));
                        if (protected_.straddles(range.start, range.end())) return;
                        layers_.hide(range);
                        DrawnObject& drawn =
                            draw(DrawnKind::image, Placement::replace, range, match.captured(1));
                        drawn.link = resolve(match.captured(2));
                        blockLines_.add(range);
                    });
    }

    // 22. A lone link line becomes a card (web) or a note reference (another note).
    void styleArtifacts() {
        static const QRegularExpression lone =
            compilePattern(QStringLiteral(R"re(^\[([^\]\n]+)\]\((<?)([^)\n]+?)(>?)\)$)re"));
        forEachLine([](QChar c) { return c == u'['; },
                    [&](int line, QStringView content) {
                        const QRegularExpressionMatch match = lone.match(content);
                        if (!match.hasMatch()) return;
                        const TextRange range = capturedRange(match, 0, lines_.start(line));
                        if (protected_.straddles(range.start, range.end())) return;
                        const LinkTarget target = resolve(match.captured(3));
                        DrawnKind kind;
                        if (target.kind == LinkKind::note) {
                            kind = DrawnKind::noteReference;
                        } else if (target.kind == LinkKind::web && (target.url.startsWith(u"http://") ||
                                                                    target.url.startsWith(u"https://"))) {
                            kind = DrawnKind::linkCard;
                        } else {
                            return;
                        }
                        DrawnObject& artifact = draw(kind, Placement::replace, range, match.captured(1));
                        artifact.link = target;
                        if (kind == DrawnKind::noteReference && !noteFilePath_.isEmpty() &&
                            target.localPath == noteFilePath_) {
                            artifact.error = kSelfLinkError.toString();
                        }
                        blockLines_.add(range);
                    });
    }

    enum class LineKind { other, paragraph, listItem };

    LineKind lineKind(int line) const {
        static const QRegularExpression heading = compilePattern(QStringLiteral(R"re(^#{1,6}(?:[ \t]|$))re"));
        static const QRegularExpression listItem =
            compilePattern(QStringLiteral(R"re(^[ \t]*(?:[-*+]|\d+\.)[ \t]+)re"));
        static const QRegularExpression definition = compilePattern(QStringLiteral(R"re(^\[[^\]]+\]:)re"));
        const QStringView content = lines_.content(line);
        if (content.trimmed().isEmpty()) return LineKind::other;
        const int blanks = leadingBlanks(content);
        const int start = lines_.start(line);
        const int end = std::max(lines_.end(line), start + 1);
        if (exclusions_.intersects(start, end) || blockLines_.intersects(start, end)) return LineKind::other;
        const QStringView rest = content.sliced(blanks);
        const QChar first = rest.front();
        if (first == u'>' || first == u'<' || first == u'|') return LineKind::other;
        if (first == u'#' && heading.match(rest).hasMatch()) return LineKind::other;
        if (first == u':' && rest.size() > 1 && (rest[1] == u' ' || rest[1] == u'\t')) return LineKind::other;
        if (first == u'[' && definition.match(rest).hasMatch()) return LineKind::other;
        if (rest.startsWith(u"$$")) return LineKind::other;
        if (startsListItem(first) && listItem.match(content).hasMatch()) return LineKind::listItem;
        return LineKind::paragraph;
    }

    static bool endsWithHardBreak(QStringView line) {
        if (line.endsWith(u"  ") || line.endsWith(u'\\')) return true;
        const QStringView trimmed = line.trimmed();
        return trimmed.endsWith(u"<br>", Qt::CaseInsensitive) ||
               trimmed.endsWith(u"<br/>", Qt::CaseInsensitive) ||
               trimmed.endsWith(u"<br />", Qt::CaseInsensitive);
    }

    // 23. A line break inside a paragraph (or after a list item's line) is soft.
    // The title line always ends in a real break.
    void findSoftBreaks() {
        blockLines_.normalise();
        // A run below the title styles its first line like any other.
        for (int line = context_.startsAtTitle ? 1 : 0; line + 1 < lines_.count(); ++line) {
            const LineKind kind = lineKind(line);
            if (kind == LineKind::other || endsWithHardBreak(lines_.content(line))) continue;
            if (lineKind(line + 1) != LineKind::paragraph) continue;
            if (closedBodies_.contains(lines_.end(line))) continue;
            pass_.softBreakIndexes.push_back(lines_.end(line));
        }
    }

    // 24. An empty title (or a title that is only its hidden "# ") shows the placeholder.
    void styleEmptyTitle() {
        if (!context_.startsAtTitle) return;
        const QStringView title = lines_.content(0);
        const bool onlyMarker = title.size() >= 2 && title.front() == u'#' &&
                                title.sliced(1).trimmed().isEmpty() &&
                                (title[1] == u' ' || title[1] == u'\t');
        if (!title.isEmpty() && !onlyMarker) return;
        draw(DrawnKind::titlePlaceholder, Placement::overlay, TextRange{static_cast<int>(title.size()), 0},
             kUntitledNotePlaceholder.toString());
    }

    void finish() {
        pass_.runs = layers_.flatten();

        // Nothing is drawn inside a closed details body.
        std::erase_if(pass_.objects,
                      [&](const DrawnObject& object) { return closedBodies_.contains(object.start); });
        std::stable_sort(pass_.objects.begin(), pass_.objects.end(),
                         [](const DrawnObject& a, const DrawnObject& b) { return a.start < b.start; });

        // A '-' inside fenced code or hidden by a rule (a checklist prefix, a rule line) is no bullet.
        std::erase_if(pass_.bulletIndexes, [&](int index) {
            return exclusions_.contains(index) || closedBodies_.contains(index) ||
                   pass_.attributesAt(index).hidden;
        });
    }

    LineRunContext context_;
    QHash<QString, QString> linkDefinitions_;
    const QString& text_;
    TextLines lines_;
    double scale_;
    QString noteDirectory_;
    QString noteFilePath_;
    AttributeLayers layers_;
    StylePass pass_;
    RangeSet exclusions_;    // fenced code
    RangeSet tags_;          // HTML tags
    RangeSet protected_;     // math, tags, comments and code spans: no later rule styles inside them
    RangeSet closedBodies_;  // bodies of closed details blocks
    RangeSet blockLines_;    // constructs that are never part of a paragraph
};

StylePass styleSource(const QString& text, double baseSize) {
    static const std::array<QRegularExpression, 8> patterns = {
        compilePattern(QStringLiteral(R"re((?m)^#{1,6}(?:\s+.*)?$)re")),
        compilePattern(QStringLiteral(R"re(\*\*[^*\n]+\*\*|__[^_\n]+__)re")),
        compilePattern(QStringLiteral(R"re((?<!\*)\*[^*\n]+\*(?!\*)|(?<!_)_[^_\n]+_(?!_))re")),
        compilePattern(QStringLiteral(R"re((?m)^>\s+.*$)re")),
        compilePattern(QStringLiteral(R"re((?m)^\s*(?:[-*+]\s+(?:\[[ xX]\]\s+)?|\d+\.\s+))re")),
        compilePattern(QStringLiteral(R"re(!?\[[^\]\n]+\]\([^)\n]+\))re")),
        compilePattern(QStringLiteral(R"re(`[^`\n]+`)re")),
        compilePattern(QStringLiteral(R"re(```[^\n]*\n.*?(?:\n```|\z))re"),
                       QRegularExpression::DotMatchesEverythingOption),
    };
    static const std::array<ColourRole, 8> colours = {
        ColourRole::systemPurple, ColourRole::systemBlue, ColourRole::systemPink,   ColourRole::systemGreen,
        ColourRole::systemTeal,   ColourRole::systemBlue, ColourRole::systemOrange, ColourRole::systemOrange,
    };

    AttributeLayers layers;
    for (std::size_t i = 0; i < patterns.size(); ++i) {
        StyleAttributes attributes = withColour(colours[i]);
        if (i == 7) attributes.background = Background{ColourRole::quaternaryLabel, 0.22};
        forEachMatch(patterns[i], text, RangeSet{}, [&](const QRegularExpressionMatch& match) {
            layers.apply(capturedRange(match, 0), attributes);
            return MatchVerdict::take;
        });
    }
    StylePass pass;
    pass.presentation = Presentation::source;
    pass.baseSize = baseSize;
    pass.runs = layers.flatten();
    return pass;
}

}  // namespace

StyledLineRun styleLineRun(const QString& text, double baseSize, const QString& noteDirectory,
                           const QString& noteFilePath, const LineRunContext& context) {
    return StyledPass(text, baseSize, noteDirectory, noteFilePath, context).runWithDefinitions();
}

StylePass styleMarkdown(const QString& text, Presentation presentation, double baseSize,
                        const QString& noteDirectory, const QString& noteFilePath) {
    // Indexes into the searched copy are indexes into `text`: the copy has the same length.
    const QString searchable = withValidUtf16(text);
    if (presentation == Presentation::source) return styleSource(searchable, baseSize);
    return StyledPass(searchable, baseSize, noteDirectory, noteFilePath).run();
}

}  // namespace mossly::markdown
