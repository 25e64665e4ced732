#include "MarkdownTextView.h"

#include <QAbstractTextDocumentLayout>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QBuffer>
#include <QFile>
#include <QImageReader>
#include <QMimeData>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QRegularExpression>
#include <QScrollBar>
#include <QSet>
#include <QTextBlock>
#include <QUrl>
#include <cmath>

#include "Diagnostics.h"
#include "IncrementalStyler.h"
#include "LinkCardPainter.h"
#include "LinkPreviews.h"
#include "LinkResolution.h"
#include "MarkdownFormats.h"
#include "MarkdownHighlighter.h"
#include "MarkdownStyler.h"
#include "NoteAssets.h"
#include "NoteContentType.h"
#include "NoteLinkFollowing.h"
#include "NoteListModel.h"

namespace mossly {

using namespace markdown;

namespace {

const QString footnoteScheme = QStringLiteral("mossly-footnote");

// Text between a link's brackets: a bracket there, even escaped, would end the
// link for the rules that draw images and note references.
QString linkText(QString text) {
    text.replace(u'[', u'(').replace(u']', u')').replace(u'\n', u' ');
    return text;
}

struct TextEditSpan {
    int position = 0;
    int removed = 0;
    int added = 0;
};

// The one span in which two texts differ: what lies before and after it is
// the same in both. Cheaper and surer than piecing the document's change
// notifications together (block formats report changes too).
TextEditSpan differingSpan(const QString& before, const QString& after) {
    const qsizetype shorter = std::min(before.size(), after.size());
    qsizetype prefix = 0;
    while (prefix < shorter && before[prefix] == after[prefix]) ++prefix;
    qsizetype suffix = 0;
    while (suffix < shorter - prefix && before[before.size() - 1 - suffix] == after[after.size() - 1 - suffix]) ++suffix;
    return {static_cast<int>(prefix), static_cast<int>(before.size() - prefix - suffix),
            static_cast<int>(after.size() - prefix - suffix)};
}

double elapsedMs(const QElapsedTimer& timer) { return static_cast<double>(timer.nsecsElapsed()) / 1e6; }

// The width a drawn object needs in place of its (hidden) characters.
// The fonts drawn objects use, measured once per pass rather than once per object.
struct ObjectMetrics {
    ObjectMetrics(const MarkdownFormats& formats, double size)
        : body(formats.font(FontRole::body, size, false, false)),
          math(formats.font(FontRole::math, size, false, false)),
          keycap(formats.font(FontRole::monospace, size * 0.9, false, false)),
          label(formats.font(FontRole::body, size * 0.75, false, false)) {}
    QFontMetricsF body, math, keycap, label;
};

// The width a drawn object needs in place of its (hidden) characters.
double reservedWidth(const DrawnObject& object, const ObjectMetrics& metrics) {
    switch (object.kind) {
        case DrawnKind::checkbox: return metrics.body.height() * 1.15;
        case DrawnKind::orderedNumber: return metrics.body.horizontalAdvance(object.text + QStringLiteral("  "));
        case DrawnKind::inlineMath: return metrics.math.horizontalAdvance(object.text);
        case DrawnKind::inlineReplacement: return metrics.body.horizontalAdvance(object.text);
        case DrawnKind::keycap: return metrics.keycap.horizontalAdvance(object.text) + 10;
        case DrawnKind::footnoteReference: return metrics.label.horizontalAdvance(object.text) + 4;
        case DrawnKind::footnoteDefinition: return metrics.body.horizontalAdvance(object.text + QStringLiteral(". "));
        default: return 0;
    }
}

}  // namespace

MarkdownTextView::MarkdownTextView(QWidget* parent)
    : QTextEdit(parent), highlighter_(std::make_unique<MarkdownHighlighter>(document())), openUrl_(&QDesktopServices::openUrl) {
    setObjectName(QStringLiteral("markdownEditor"));
    setAcceptRichText(false);
    setFrameShape(QFrame::NoFrame);
    setMouseTracking(true);
    document()->setDocumentMargin(20);
    formats_ = std::make_unique<MarkdownFormats>(font(), palette());
    connect(this, &QTextEdit::textChanged, this, [this] {
        if (styling_) return;
        restyle();
        emit markdownEdited(styledText_);
    });
    connect(this, &QTextEdit::cursorPositionChanged, this, &MarkdownTextView::keepCaretOutOfHiddenMarkers);
}

MarkdownTextView::~MarkdownTextView() = default;

void MarkdownTextView::setMarkdown(const QString& text, const QString& noteFile) {
    noteFile_ = noteFile;
    styler_.reset();  // another note, or the same one reloaded: styled from scratch
    styling_ = true;
    setPlainText(text);
    styling_ = false;
    restyle();
    document()->clearUndoRedoStacks();  // opening a note, with its paragraph formats, is not an edit
}

void MarkdownTextView::followRenamedNote(const QString& noteFile) {
    noteFile_ = noteFile;
    styler_.reset();  // it knows the old name: the next styling pass starts afresh
}

void MarkdownTextView::setPresentation(Presentation presentation) {
    if (presentation_ == presentation) return;
    presentation_ = presentation;
    restyle();
}

void MarkdownTextView::setBaseSize(double points) {
    baseSize_ = points;
    formatPool_.clear();
    QFont base = font();
    base.setPointSizeF(points);
    setFont(base);
    restyle();
}

// Room for what is drawn instead of characters. Hidden characters take no
// width; giving them letter spacing reserves exactly the object's width.
// Blocks (display math, quote markers) keep their characters' own room, just
// invisible. Tables line up their cells by padding the separators.
std::vector<std::pair<TextRange, QTextCharFormat>> MarkdownTextView::reservedSpace(TextRange scope) {
    std::vector<std::pair<TextRange, QTextCharFormat>> reserved;
    const auto inScope = [scope](int start, int end) { return end > scope.start && start < scope.end(); };
    if (presentation_ == Presentation::source) return reserved;
    const auto pooled = [this](const QString& key, const auto& make) -> QTextCharFormat {
        auto it = formatPool_.constFind(key);
        if (it == formatPool_.cend()) it = formatPool_.insert(key, make());
        return *it;
    };
    const auto spaced = [&](double width, int length) {
        const double spacing = std::round(width / std::max(1, length) * 100) / 100;
        return pooled(QStringLiteral("s%1").arg(spacing), [spacing] {
            QTextCharFormat format;
            format.setFontLetterSpacingType(QFont::AbsoluteSpacing);
            format.setFontLetterSpacing(spacing);
            return format;
        });
    };
    QTextCharFormat invisible;
    invisible.setFont(font(), QTextCharFormat::FontPropertiesAll);
    invisible.setForeground(Qt::transparent);
    const ObjectMetrics objectMetrics(*formats_, baseSize_);
    StyleAttributes hiddenMarker;
    hiddenMarker.hidden = true;
    const QTextCharFormat tiny = formats_->charFormat(hiddenMarker);
    for (const DrawnObject& object : stylePass().objects) {
        if (object.placement != Placement::replace || object.length <= 0) continue;
        if (!inScope(object.start, object.end())) continue;
        if (object.kind == DrawnKind::displayMath) {
            reserved.push_back({{object.start, object.length}, invisible});
            continue;
        }
        const double width = reservedWidth(object, objectMetrics);
        if (width <= 0) continue;
        const double spacing = std::round(width / object.length * 100) / 100;
        // Whatever a rule left visible there, the object replaces it.
        reserved.push_back({{object.start, object.length}, pooled(QStringLiteral("r%1").arg(spacing), [&] {
                                QTextCharFormat room = tiny;
                                room.merge(spaced(width, object.length));
                                return room;
                            })});
    }
    const QTextCharFormat missingNote = pooled(QStringLiteral("missing"), [this] {
        QTextCharFormat format;
        format.setFontStrikeOut(true);
        format.setForeground(formats_->colour(ColourRole::secondaryLabel));
        format.setToolTip(tr("This note no longer exists."));
        return format;
    });
    for (const DrawnObject& object : stylePass().objects) {
        if (object.kind == DrawnKind::noteReference && inScope(object.start, object.end()) && isMissingNote(object)) {
            reserved.push_back({{object.start, object.length}, missingNote});
        }
    }
    const QTextCharFormat bulletDash = pooled(QStringLiteral("bullet"), [] {
        QTextCharFormat format;
        format.setForeground(Qt::transparent);  // the dash is drawn as a bullet
        return format;
    });
    for (auto bullet = std::lower_bound(stylePass().bulletIndexes.begin(), stylePass().bulletIndexes.end(), scope.start);
         bullet != stylePass().bulletIndexes.end() && *bullet < scope.end(); ++bullet) {
        reserved.push_back({{*bullet, 1}, bulletDash});
    }
    // Column widths of tables outside the scope are those measured before; tables
    // after it may have moved in the list when one was typed or removed above them.
    std::vector<std::vector<double>> previousColumns = std::move(tableColumns_);
    tableColumns_.assign(stylePass().tables.size(), {});
    const std::ptrdiff_t tablesAdded =
        static_cast<std::ptrdiff_t>(stylePass().tables.size()) - static_cast<std::ptrdiff_t>(previousColumns.size());
    const double padding = tableCellPadding();
    StyleAttributes hiddenAttributes;
    hiddenAttributes.hidden = true;
    const QTextCharFormat hidden = formats_->charFormat(hiddenAttributes);
    for (size_t t = 0; t < stylePass().tables.size(); ++t) {
        const Table& table = stylePass().tables[t];
        if (!inScope(table.range.start, table.range.end())) {
            const std::ptrdiff_t previous =
                static_cast<std::ptrdiff_t>(t) - (table.range.start >= scope.end() ? tablesAdded : 0);
            if (previous >= 0 && previous < static_cast<std::ptrdiff_t>(previousColumns.size())) {
                tableColumns_[t] = std::move(previousColumns[static_cast<size_t>(previous)]);
            }
            continue;
        }
        std::vector<const TableRow*> rows{&table.header};
        for (const TableRow& row : table.body) rows.push_back(&row);
        // Columns are as wide as their widest cell as drawn: hidden markers take no room.
        std::vector<std::vector<double>> widths;
        std::vector<double> columns;
        for (const TableRow* row : rows) {
            auto& rowWidths = widths.emplace_back();
            for (size_t c = 0; c < row->cells.size(); ++c) {
                if (columns.size() <= c) columns.resize(c + 1, 0);
                rowWidths.push_back(visibleWidth(row->cells[c].range));
                columns[c] = std::max(columns[c], rowWidths.back());
            }
        }
        tableColumns_[t] = columns;
        reserved.push_back({table.delimiterRow, hidden});
        const auto lead = [&](size_t column, double slack) {
            const ColumnAlignment alignment =
                column < table.alignments.size() ? table.alignments[column] : ColumnAlignment::none;
            if (alignment == ColumnAlignment::right) return slack;
            if (alignment == ColumnAlignment::centre) return slack / 2;
            return 0.0;
        };
        for (size_t r = 0; r < rows.size(); ++r) {
            const TableRow& row = *rows[r];
            // The text between cells (pipes and blanks) becomes the room that puts
            // each cell where its column and alignment say.
            int gapStart = row.range.start;
            double trailing = 0;
            for (size_t c = 0; c <= row.cells.size(); ++c) {
                const bool cell = c < row.cells.size();
                const int gapEnd = cell ? row.cells[c].range.start : row.range.end();
                const double slack = cell ? columns[c] - widths[r][c] : 0;
                const double leading = cell ? lead(c, slack) : 0;
                if (gapEnd > gapStart) {
                    QTextCharFormat gap = hidden;
                    gap.merge(spaced(trailing + (c == 0 ? padding / 2 : padding) + leading, gapEnd - gapStart));
                    reserved.push_back({{gapStart, gapEnd - gapStart}, gap});
                }
                if (cell) {
                    gapStart = row.cells[c].range.end();
                    trailing = slack - leading;
                }
            }
        }
    }
    return reserved;
}

// Paragraph attributes are block formats, which QTextDocument records as
// edits. They are joined to the edit that caused them: undo then restores the
// formats that belong to the restored text, and the pass that follows finds
// nothing to change, so redo stays available.
// How wide a list item's marker is drawn: its characters in the body font, except
// where an object (a number, a checkbox) is drawn in their place at its own width.
double MarkdownTextView::prefixWidth(int start, int length) const {
    const QFontMetricsF metrics(font());
    const ObjectMetrics objectMetrics(*formats_, baseSize_);  // as reservedSpace() measures them
    double width = 0;
    int position = start;
    const auto object = std::lower_bound(stylePass().objects.begin(), stylePass().objects.end(), start,
                                         [](const DrawnObject& o, int at) { return o.start < at; });
    for (auto it = object; it != stylePass().objects.end() && it->start < start + length; ++it) {
        if (it->placement != Placement::replace || it->length <= 0) continue;
        const double reserved = reservedWidth(*it, objectMetrics);
        if (reserved <= 0) continue;
        width += metrics.horizontalAdvance(QStringView(styledText_).sliced(position, it->start - position).toString());
        width += reserved;
        position = std::min(start + length, it->end());
    }
    if (position < start + length) {
        width += metrics.horizontalAdvance(QStringView(styledText_).sliced(position, start + length - position).toString());
    }
    return width;
}

void MarkdownTextView::applyParagraphFormats(TextRange scope) {
    const auto inScope = [scope](int start, int end) { return end > scope.start && start < scope.end(); };
    const double column = QFontMetricsF(font()).averageCharWidth();
    const auto points = [column](const std::optional<Indent>& indent) {
        return indent ? indent->points + indent->columns * column : 0.0;
    };
    // A line holding an image is as tall as the image is drawn.
    QHash<int, double> imageHeights;
    for (const DrawnObject& object : stylePass().objects) {
        if (object.kind != DrawnKind::image || !object.link || object.link->localPath.isEmpty()) continue;
        if (!inScope(object.start, object.end())) continue;
        const QSize natural = QImageReader(object.link->localPath).size();
        if (natural.isValid()) {
            imageHeights.insert(document()->findBlock(object.start).position(),
                                std::min<double>(natural.height(), QFontMetricsF(font()).height() * 4));
        }
    }
    // A lone web link gets its card in the room above its line; the line stays the link.
    QSet<int> cardBlocks;
    if (showsLinkCards()) {
        for (const DrawnObject& object : stylePass().objects) {
            if (object.kind == DrawnKind::linkCard && inScope(object.start, object.end())) {
                cardBlocks.insert(document()->findBlock(object.start).position());
            }
        }
    }
    const double cardRoom = linkCardHeight(font()) + 8;
    // Code sits inside its panel by the panel's inset; the hidden fence lines
    // give the panel the same room above and below the code.
    QHash<int, double> codeInsets;
    QSet<int> fenceBlocks;
    if (presentation_ == Presentation::styled) {
        for (const DrawnObject& object : stylePass().objects) {
            if (object.kind != DrawnKind::codePanel || object.index < 0) continue;
            if (!inScope(object.start, object.end())) continue;
            const CodeBlock& code = stylePass().codeBlocks[static_cast<size_t>(object.index)];
            for (QTextBlock block = document()->findBlock(code.range.start);
                 block.isValid() && block.position() <= code.range.end(); block = block.next()) {
                codeInsets.insert(block.position(), object.inset);
            }
            fenceBlocks.insert(document()->findBlock(code.openingFence.start).position());
            if (code.closingFence.length > 0) fenceBlocks.insert(document()->findBlock(code.closingFence.start).position());
        }
    }
    // Lists, quotes, tables and code panels keep a little room from the lines around them,
    // given to the neighbouring lines so that a panel or grid never grows into it.
    const double blockGap = presentation_ == Presentation::styled ? QFontMetricsF(font()).height() * 0.4 : 0;
    const auto construct = [this](const QTextBlock& block) { return blockConstruct(block); };
    std::vector<std::pair<int, QTextBlockFormat>> changes;
    const QTextBlock last = document()->findBlock(std::max(0, scope.end() - 1));
    const QTextBlock first = document()->findBlock(scope.start);
    auto run = static_cast<size_t>(std::lower_bound(stylePass().runs.begin(), stylePass().runs.end(), first.position(),
                                                    [](const StyleRun& r, int at) { return r.end() <= at; }) -
                                   stylePass().runs.begin());
    for (QTextBlock block = first; block.isValid() && block.blockNumber() <= last.blockNumber(); block = block.next()) {
        const int start = block.position();
        const int end = start + block.length();
        ParagraphAttributes paragraph;
        while (run < stylePass().runs.size() && stylePass().runs[run].end() <= start) ++run;
        for (size_t r = run; r < stylePass().runs.size() && stylePass().runs[r].start < end; ++r) {
            const ParagraphAttributes& p = stylePass().runs[r].attributes.paragraph;
            if (p.firstLineIndent) paragraph.firstLineIndent = p.firstLineIndent;
            if (p.headIndent) paragraph.headIndent = p.headIndent;
            if (p.lineSpacing) paragraph.lineSpacing = p.lineSpacing;
            if (p.paragraphSpacing) paragraph.paragraphSpacing = p.paragraphSpacing;
            if (p.minimumLineHeight) paragraph.minimumLineHeight = p.minimumLineHeight;
            if (p.alignment) paragraph.alignment = p.alignment;
        }
        if (imageHeights.contains(start)) paragraph.minimumLineHeight = imageHeights.value(start);
        if (presentation_ == Presentation::source) paragraph = {};
        QTextBlockFormat wanted;
        double head = points(paragraph.headIndent);
        // A hanging list item: its wrapped lines start where its text does, measured
        // on the marker itself rather than in average character widths.
        if (paragraph.firstLineIndent && paragraph.firstLineIndent->points == 0 &&
            paragraph.firstLineIndent->columns == 0 && paragraph.headIndent && paragraph.headIndent->columns > 0) {
            const int length = static_cast<int>(paragraph.headIndent->columns);
            if (!block.text().left(length).contains(u'\t')) head = paragraph.headIndent->points + prefixWidth(start, length);
        }
        const double first = paragraph.firstLineIndent ? points(paragraph.firstLineIndent) : head;
        const double inset = codeInsets.value(start, 0);
        const bool fence = fenceBlocks.contains(start);
        head += inset;
        wanted.setRightMargin(inset);
        wanted.setLeftMargin(head);
        wanted.setTextIndent(first + inset - head);
        double gapBelow = 0;
        double gapAbove = 0;
        if (blockGap > 0) {
            const BlockConstruct kind = construct(block);
            const BlockConstruct below = construct(block.next());
            const BlockConstruct above = construct(block.previous());
            const bool framed = kind == BlockConstruct::table || kind == BlockConstruct::code;
            if (!framed && kind != BlockConstruct::blank && below != BlockConstruct::blank &&
                below != BlockConstruct::none && below != kind) {
                gapBelow = blockGap;
            }
            if (!framed && kind != BlockConstruct::blank &&
                (above == BlockConstruct::table || above == BlockConstruct::code)) {
                gapAbove = blockGap;
            }
        }
        wanted.setBottomMargin(paragraph.paragraphSpacing.value_or(0) + gapBelow);
        wanted.setTopMargin((cardBlocks.contains(start) ? cardRoom : 0) + gapAbove);
        if (fence) {
            wanted.setLineHeight(inset / 2, QTextBlockFormat::FixedHeight);
        } else if (paragraph.minimumLineHeight) {
            wanted.setLineHeight(*paragraph.minimumLineHeight, QTextBlockFormat::MinimumHeight);
        } else if (paragraph.lineSpacing) {
            wanted.setLineHeight(*paragraph.lineSpacing, QTextBlockFormat::LineDistanceHeight);
        } else {
            wanted.setLineHeight(0, QTextBlockFormat::SingleHeight);
        }
        wanted.setAlignment(paragraph.alignment == Alignment::centre ? Qt::AlignHCenter : Qt::AlignLeft);
        const QTextBlockFormat current = block.blockFormat();
        const bool same = qFuzzyCompare(current.leftMargin() + 1, wanted.leftMargin() + 1) &&
                          qFuzzyCompare(current.rightMargin() + 1, wanted.rightMargin() + 1) &&
                          qFuzzyCompare(current.textIndent() + 1, wanted.textIndent() + 1) &&
                          qFuzzyCompare(current.bottomMargin() + 1, wanted.bottomMargin() + 1) &&
                          qFuzzyCompare(current.topMargin() + 1, wanted.topMargin() + 1) &&
                          qFuzzyCompare(current.lineHeight() + 1, wanted.lineHeight() + 1) &&
                          current.lineHeightType() == wanted.lineHeightType() &&
                          (current.alignment() & Qt::AlignHorizontal_Mask) == (wanted.alignment() & Qt::AlignHorizontal_Mask);
        if (!same) changes.emplace_back(start, wanted);
    }
    if (changes.empty()) return;
    // With nothing to undo (a note just opened), formats are not an edit of their own.
    const bool pristine = !document()->isUndoAvailable() && !document()->isRedoAvailable();
    QTextCursor cursor(document());
    cursor.joinPreviousEditBlock();
    for (const auto& [position, format] : changes) {
        cursor.setPosition(position);
        cursor.mergeBlockFormat(format);
    }
    cursor.endEditBlock();
    if (pristine) document()->clearUndoRedoStacks();
}

void MarkdownTextView::restyle() {
    const QString text = markdown();
    styling_ = true;
    QElapsedTimer timer;
    timer.start();
    std::optional<TextRange> scope;
    if (styler_ && stylerSettingsKey_ == stylingSettingsKey()) {
        // Typing: the edit is what differs between the last styled text and this one.
        const TextEditSpan edit = differingSpan(styledText_, text);
        const StyleChange change = styler_->update(text, edit.position, edit.removed, edit.added);
        const int start = std::min(change.restyled.start, edit.position);
        const int end = std::max(change.restyled.end(), edit.position + edit.added);
        scope = TextRange{start, end - start};
    } else {
        formats_ = std::make_unique<MarkdownFormats>(font(), palette());
        const QString directory = noteFile_.isEmpty() ? QString() : QFileInfo(noteFile_).path();
        styler_ = std::make_unique<IncrementalStyler>(presentation_, baseSize_, directory, noteFile_);
        styler_->restyle(text);
        stylerSettingsKey_ = stylingSettingsKey();
    }
    styledText_ = text;
    lastStyleMs_ = elapsedMs(timer);
    timer.restart();

    const TextRange applied = scope ? wholeObjectsAround(*scope) : TextRange{0, static_cast<int>(text.size()) + 1};
    std::vector<std::pair<TextRange, QTextCharFormat>> reserved = reservedSpace(applied);
    lastRestyledBlocks_ = highlighter_->apply(stylePass(), *formats_, std::move(reserved), applied);
    applyParagraphFormats(applied);
    hideCollapsedBlocks(applied);
    lastApplyMs_ = elapsedMs(timer);
    styling_ = false;
    viewport()->update();
}

const StylePass& MarkdownTextView::stylePass() const {
    static const StylePass none;
    return styler_ ? styler_->pass() : none;
}

// What the styling depends on besides the text: any change restyles it all.
QString MarkdownTextView::stylingSettingsKey() const {
    return QStringLiteral("%1|%2|%3|%4|%5|%6")
        .arg(static_cast<int>(presentation_))
        .arg(baseSize_)
        .arg(showsLinkCards())
        .arg(noteFile_, font().key(), palette().color(QPalette::Base).name());
}

// The scope grown to whole drawn objects and block constructs: a table, a code
// panel or a details block is laid out as one, wherever the edit fell in it.
TextRange MarkdownTextView::wholeObjectsAround(TextRange scope) const {
    int start = scope.start;
    int end = scope.end();
    const auto grow = [&](int from, int to) {
        if (to < start || from > end) return false;
        if (from < start || to > end) {
            start = std::min(start, from);
            end = std::max(end, to);
            return true;
        }
        return false;
    };
    for (bool grew = true; grew;) {
        grew = false;
        for (const DrawnObject& object : stylePass().objects) grew = grow(object.start, object.end()) || grew;
        for (const CodeBlock& code : stylePass().codeBlocks) grew = grow(code.range.start, code.range.end()) || grew;
        for (const DetailsBlock& details : stylePass().detailsBlocks) grew = grow(details.range.start, details.range.end()) || grew;
    }
    // Whole lines, and the line after: a soft break or a card above a line belongs to the line below too.
    const QTextBlock first = document()->findBlock(start);
    QTextBlock last = document()->findBlock(std::max(start, end));
    if (last.next().isValid()) last = last.next();
    return {first.position(), last.position() + last.length() - first.position()};
}

bool MarkdownTextView::isMissingNote(const DrawnObject& object) const {
    return object.link && !object.link->localPath.isEmpty() && !QFileInfo::exists(object.link->localPath);
}

double MarkdownTextView::tableCellPadding() const {
    return QFontMetricsF(font()).horizontalAdvance(u' ') * 2;
}

// The width a range takes as drawn: each styled run in its own font, hidden markers nothing.
double MarkdownTextView::visibleWidth(TextRange range) const {
    const QString& text = styledText_;
    const double baseSize = font().pointSizeF();
    const auto measure = [&](const StyleAttributes* attributes, int from, int to) {
        if (to <= from) return 0.0;
        if (attributes && attributes->hidden) return 0.0;
        const QFont font = attributes ? formats_->font(attributes->font.value_or(FontRole::body),
                                                       attributes->pointSize.value_or(baseSize), attributes->bold,
                                                       attributes->italic)
                                      : formats_->font(FontRole::body, baseSize, false, false);
        return QFontMetricsF(font).horizontalAdvance(QStringView(text).sliced(from, to - from).toString());
    };
    double width = 0;
    int position = range.start;
    auto run = std::lower_bound(stylePass().runs.begin(), stylePass().runs.end(), position,
                                [](const StyleRun& r, int at) { return r.end() <= at; });
    while (position < range.end()) {
        if (run != stylePass().runs.end() && run->start <= position) {
            const int stop = std::min(range.end(), run->end());
            width += measure(&run->attributes, position, stop);
            position = stop;
            ++run;
        } else {
            const int stop = std::min(range.end(), run != stylePass().runs.end() ? run->start : range.end());
            width += measure(nullptr, position, stop);
            position = stop;
        }
    }
    return width;
}

// The lines of a closed details block take no height at all: their characters
// are hidden by the pass, and the blocks themselves leave the layout. Visibility
// is layout state, not an edit, so it never enters the undo stack.
// What kind of block a line is part of, for the room kept around lists, quotes,
// tables and code panels; `none` past either end of the note.
MarkdownTextView::BlockConstruct MarkdownTextView::blockConstruct(const QTextBlock& block) const {
    if (!block.isValid()) return BlockConstruct::none;
    const int start = block.position();
    // Both lists are in text order: the last one starting at or before the line is the only candidate.
    const auto within = [start](const auto& ranges) {
        const auto after = std::upper_bound(ranges.begin(), ranges.end(), start,
                                            [](int at, const auto& item) { return at < item.range.start; });
        return after != ranges.begin() && start <= std::prev(after)->range.end();
    };
    if (within(stylePass().codeBlocks)) return BlockConstruct::code;
    if (within(stylePass().tables)) return BlockConstruct::table;
    static const QRegularExpression listItem(QStringLiteral(R"(^[ \t]*(?:[-*+]|\d+\.)[ \t]+\S)"));
    static const QRegularExpression quote(QStringLiteral(R"(^[ \t]*>)"));
    const QString text = block.text();
    if (text.trimmed().isEmpty()) return BlockConstruct::blank;
    if (quote.match(text).hasMatch()) return BlockConstruct::quote;
    if (listItem.match(text).hasMatch()) return BlockConstruct::list;
    return BlockConstruct::plain;
}

void MarkdownTextView::hideCollapsedBlocks(TextRange scope) {
    std::vector<TextRange> collapsed;
    if (presentation_ == Presentation::styled) {
        for (const StyleRun& run : stylePass().runs) {
            if (run.attributes.hideParagraph && run.end() >= scope.start && run.start <= scope.end()) {
                collapsed.push_back({run.start, run.length});
            }
        }
    }
    size_t next = 0;
    int dirtyStart = -1;
    int dirtyEnd = -1;
    const QTextBlock last = document()->findBlock(std::max(0, scope.end() - 1));
    for (QTextBlock block = document()->findBlock(scope.start); block.isValid() && block.blockNumber() <= last.blockNumber();
         block = block.next()) {
        const int start = block.position();
        const int end = start + block.length() - 1;  // without the block's own line break
        while (next < collapsed.size() && collapsed[next].end() < end) ++next;
        const bool hide = next < collapsed.size() && collapsed[next].start <= start && end <= collapsed[next].end() &&
                          start > collapsed[next].start;
        if (block.isVisible() == !hide) continue;
        block.setVisible(!hide);
        if (dirtyStart < 0) dirtyStart = start;
        dirtyEnd = start + block.length();
    }
    if (dirtyStart >= 0) document()->markContentsDirty(dirtyStart, dirtyEnd - dirtyStart);
}

TextSelection MarkdownTextView::selection() const {
    const QTextCursor cursor = textCursor();
    return {cursor.selectionStart(), cursor.selectionEnd()};
}

void MarkdownTextView::applyEdit(const TextEdit& edit) {
    QTextCursor cursor(document());
    cursor.beginEditBlock();  // one undo step
    cursor.setPosition(edit.start);
    cursor.setPosition(edit.start + edit.length, QTextCursor::KeepAnchor);
    cursor.insertText(edit.replacement);
    cursor.endEditBlock();
    QTextCursor selected(document());
    selected.setPosition(edit.selection.start);
    selected.setPosition(edit.selection.end, QTextCursor::KeepAnchor);
    setTextCursor(selected);
}

// What can be dropped or pasted into a note beyond text: images (data or
// files), notes from the list (as references) and note files (imported).
bool MarkdownTextView::canInsertFromMimeData(const QMimeData* source) const {
    if (noteFile_.isEmpty()) return QTextEdit::canInsertFromMimeData(source);
    return source->hasImage() || source->hasUrls() ||
           source->hasFormat(QString::fromLatin1(NoteListModel::noteUrlsMimeType)) ||
           QTextEdit::canInsertFromMimeData(source);
}

void MarkdownTextView::insertFromMimeData(const QMimeData* source) {
    const QString noteUrls = QString::fromLatin1(NoteListModel::noteUrlsMimeType);
    if (noteFile_.isEmpty()) {
        QTextEdit::insertFromMimeData(source);
        return;
    }
    QStringList lines;
    if (source->hasFormat(noteUrls)) {
        // A reference per note, on lines of their own, titled as the note is.
        for (const QString& url : QString::fromUtf8(source->data(noteUrls)).split(u'\n', Qt::SkipEmptyParts)) {
            if (QFileInfo(url) == QFileInfo(noteFile_)) {
                emit insertRefused(QStringLiteral("This note cannot link to itself."));
                continue;
            }
            QString title = noteTitle_ ? noteTitle_(url) : QString();
            if (title.trimmed().isEmpty()) title = QFileInfo(url).completeBaseName();
            title = linkText(title);
            lines.append(u'[' + title + QStringLiteral("](") + NoteAssets::markdownDestination(noteFile_, url) + u')');
        }
    } else if (source->hasUrls() && std::ranges::any_of(source->urls(), &QUrl::isLocalFile)) {
        QStringList notes;
        for (const QUrl& url : source->urls()) {
            if (!url.isLocalFile()) continue;
            const QString path = url.toLocalFile();
            if (noteContentTypeForFileName(path)) {
                notes.append(path);
            } else if (QImageReader(path).canRead()) {
                QFile file(path);
                if (!file.open(QIODevice::ReadOnly)) {
                    emit insertRefused(tr("\u201C%1\u201D could not be read.").arg(QFileInfo(path).fileName()));
                    continue;
                }
                // The file's own bytes: a photo is not recompressed.
                if (auto line = imageLine(QFileInfo(path).fileName(), file.readAll())) lines.append(*line);
            } else {
                emit insertRefused(tr("\u201C%1\u201D is not an image Mossly can show, so it was not added.")
                                       .arg(QFileInfo(path).fileName()));
            }
        }
        if (!notes.isEmpty()) emit noteFilesDropped(notes);
    } else if (source->hasImage()) {
        // Image data (a screenshot, an image dragged out of a browser): its own bytes
        // where the source offers an encoded format Qt reads, else as PNG.
        QByteArray bytes;
        QString suffix = QStringLiteral("png");
        for (const QString& format : source->formats()) {
            if (!format.startsWith(QLatin1String("image/"))) continue;
            QByteArray data = source->data(format);
            QBuffer buffer(&data);
            QImageReader reader(&buffer);
            if (!data.isEmpty() && reader.canRead()) {
                bytes = data;
                suffix = QString::fromLatin1(reader.format());
                break;
            }
        }
        if (bytes.isEmpty()) {
            QBuffer buffer(&bytes);
            buffer.open(QIODevice::WriteOnly);
            qvariant_cast<QImage>(source->imageData()).save(&buffer, "PNG");
        }
        if (bytes.isEmpty()) {
            emit insertRefused(tr("The pasted image could not be read, so it was not added."));
        } else if (auto line = imageLine(QStringLiteral("Pasted image.") + suffix, bytes)) {
            lines.append(*line);
        }
    } else {
        QTextEdit::insertFromMimeData(source);
        return;
    }
    if (!lines.isEmpty()) insertOwnLines(lines);
}

std::optional<QString> MarkdownTextView::imageLine(const QString& fileName, const QByteArray& bytes) {
    auto destination = NoteAssets::add(noteFile_, fileName, bytes);
    if (!destination) {
        emit insertRefused(tr("The image could not be saved beside the note: %1").arg(destination.error().description()));
        return std::nullopt;
    }
    const QString alt = linkText(QFileInfo(fileName).completeBaseName());
    return QStringLiteral("![") + alt + QStringLiteral("](") + *destination + u')';
}

// Inserts whole lines at the caret (the drop point) as one undo step: on a line
// of their own, the text around them moved apart rather than joined.
void MarkdownTextView::insertOwnLines(const QStringList& lines) {
    const QString text = markdown();
    const TextSelection at = selection();
    QString insertion = lines.join(u'\n');
    if (at.start > 0 && text.at(at.start - 1) != u'\n') insertion.prepend(u'\n');
    if (at.end < text.size() && text.at(at.end) != u'\n') insertion.append(u'\n');
    const int caret = at.start + static_cast<int>(insertion.size());
    applyEdit(TextEdit{at.start, at.end - at.start, insertion, {caret, caret}});
}

void MarkdownTextView::applyFormatting(FormattingAction action) {
    if (auto edit = MarkdownEditing::apply(action, markdown(), selection())) {
        applyEdit(*edit);
        DiagnosticsCenter::shared().event(QStringLiteral("Formatting action applied"),
                                          {{"action", formattingActionName(action)}});
    }
}

void MarkdownTextView::keyPressEvent(QKeyEvent* event) {
    static const QSet<int> structuralKeys{Qt::Key_Return, Qt::Key_Enter, Qt::Key_Down, Qt::Key_Tab,
                                          Qt::Key_Backtab, Qt::Key_Backspace, Qt::Key_Delete};
    const bool plain = !(event->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier));
    std::optional<TextEdit> edit;
    // Only the keys that may edit structure read the text: a letter in a long note should not copy it.
    if (plain && structuralKeys.contains(event->key())) {
        const QString text = markdown();
        const TextSelection current = selection();
        switch (event->key()) {
            case Qt::Key_Return:
            case Qt::Key_Enter:
                if (!(event->modifiers() & Qt::ShiftModifier)) edit = MarkdownEditing::insertNewline(text, current);
                break;
            case Qt::Key_Down: edit = MarkdownEditing::moveDown(text, current); break;
            case Qt::Key_Tab: edit = MarkdownEditing::indent(text, current, false); break;
            case Qt::Key_Backtab: edit = MarkdownEditing::indent(text, current, true); break;
            case Qt::Key_Backspace: edit = MarkdownEditing::deleteBackward(text, current); break;
            case Qt::Key_Delete: edit = MarkdownEditing::deleteForward(text, current); break;
            default: break;
        }
    }
    if (edit) {
        if (edit->length > 0 || !edit->replacement.isEmpty()) applyEdit(*edit);
        event->accept();
        return;
    }
    if (event->key() == Qt::Key_Backtab) {  // Shift-Tab outside a list: leave the text alone
        event->accept();
        return;
    }
    QTextEdit::keyPressEvent(event);
}

bool MarkdownTextView::isHidden(int position) const {
    if (presentation_ == Presentation::source) return false;
    const StyleAttributes attributes = stylePass().attributesAt(position);
    return attributes.hidden;
}

void MarkdownTextView::keepCaretOutOfHiddenMarkers() {
    QTextCursor cursor = textCursor();
    const int position = cursor.position();
    const int previous = previousCaret_;
    previousCaret_ = position;
    if (styling_ || cursor.hasSelection() || !isHidden(position) || !isHidden(position - 1)) return;
    // Strictly inside a hidden marker: carry on over it in the direction of travel.
    const int step = position >= previous ? 1 : -1;
    int target = position;
    while (target > 0 && target < document()->characterCount() - 1 && isHidden(target) && isHidden(target - 1)) {
        target += step;
    }
    cursor.setPosition(target);
    previousCaret_ = target;
    setTextCursor(cursor);
}

QRectF MarkdownTextView::characterRect(int position) const {
    QTextCursor cursor(document());
    cursor.setPosition(std::clamp(position, 0, document()->characterCount() - 1));
    return cursorRect(cursor);
}

QRectF MarkdownTextView::rangeRect(int start, int end) const {
    const QTextBlock first = document()->findBlock(start);
    const QTextBlock last = document()->findBlock(std::max(start, end - 1));
    QRectF rect = document()->documentLayout()->blockBoundingRect(first);
    rect = rect.united(document()->documentLayout()->blockBoundingRect(last));
    return rect.translated(-horizontalScrollBar()->value(), -verticalScrollBar()->value());
}

void MarkdownTextView::paintEvent(QPaintEvent* event) {
    {
        QPainter behind(viewport());
        behind.setRenderHint(QPainter::Antialiasing);
        paintObjects(behind, true);
    }
    QTextEdit::paintEvent(event);
    QPainter painter(viewport());
    painter.setRenderHint(QPainter::Antialiasing);
    paintObjects(painter, false);
}

// The first and last block on screen, by binary search over the laid-out blocks
// (hit-testing a point walks every block above it, which a long note feels).
std::pair<QTextBlock, QTextBlock> MarkdownTextView::visibleBlocks() const {
    const QAbstractTextDocumentLayout* layout = document()->documentLayout();
    const double top = verticalScrollBar()->value();
    const double bottom = top + viewport()->height();
    const int count = document()->blockCount();
    const auto firstReaching = [&](double y) {
        int low = 0;
        int high = count - 1;
        while (low < high) {
            const int middle = (low + high) / 2;
            if (layout->blockBoundingRect(document()->findBlockByNumber(middle)).bottom() < y) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return document()->findBlockByNumber(low);
    };
    return {firstReaching(top), firstReaching(bottom)};
}

void MarkdownTextView::paintObjects(QPainter& painter, bool behindText) {
    if (presentation_ == Presentation::source) return;
    // Only what is on screen: finding a character's place costs a layout lookup.
    const auto [firstVisibleBlock, lastBlock] = visibleBlocks();
    const int firstVisible = std::max(0, firstVisibleBlock.position() - 1);
    const int lastVisible = lastBlock.position() + lastBlock.length();
    const auto visible = [&](int start, int end) { return end >= firstVisible && start <= lastVisible; };
    const MarkdownFormats& formats = *formats_;
    const QColor secondary = formats.colour(ColourRole::secondaryLabel);
    const QColor panel = formats.colour(ColourRole::quaternaryLabel);
    const double size = baseSize_;
    if (!behindText) {
        painter.setPen(formats.colour(ColourRole::label));
        for (const int index : stylePass().bulletIndexes) {
            if (!visible(index, index)) continue;
            const QRectF at = characterRect(index);
            const double radius = at.height() * 0.12;
            const QRectF glyph(at.left(), at.top(), QFontMetricsF(font()).horizontalAdvance(u'-'), at.height());
            painter.setBrush(formats.colour(ColourRole::label));
            painter.drawEllipse(glyph.center(), radius, radius);
        }
        painter.setBrush(Qt::NoBrush);
    }
    for (const DrawnObject& object : stylePass().objects) {
        if (!visible(object.start, object.end())) continue;
        // Horizontal place from the object's first character; line height from the
        // character after it, since a hidden character's own box is tiny.
        const QRectF first = characterRect(object.start);
        const QRectF after = characterRect(object.end());
        const bool sameLine = std::abs(after.bottom() - first.bottom()) < after.height();
        const QRectF start = sameLine && after.height() > first.height()
                                 ? QRectF(first.left(), after.top(), first.width(), after.height())
                                 : first;
        switch (object.kind) {
            case DrawnKind::codePanel:
                if (behindText) {
                    QRectF block = rangeRect(object.start, object.end());
                    const QTextBlock first = document()->findBlock(object.start);
                    block.setLeft(block.left() + first.blockFormat().leftMargin() - object.inset);
                    block.setRight(block.right() - first.blockFormat().rightMargin() + object.inset);
                    painter.setPen(Qt::NoPen);
                    painter.setBrush(panel);
                    painter.drawRoundedRect(block, 6, 6);
                }
                break;
            case DrawnKind::horizontalRule:
                if (!behindText) {
                    const QRectF line = rangeRect(object.start, object.end());
                    painter.setPen(QPen(secondary, 1));
                    painter.drawLine(QPointF(line.left() + 4, line.center().y()),
                                     QPointF(viewport()->width() - 24, line.center().y()));
                }
                break;
            case DrawnKind::quoteBar:
                if (behindText) {
                    const QRectF line = rangeRect(object.start, object.end());
                    painter.setPen(Qt::NoPen);
                    painter.setBrush(secondary);
                    for (int level = 0; level < std::max(1, object.level); ++level) {
                        painter.drawRoundedRect(QRectF(line.left() + 2 + level * 12, line.top(), 3, line.height()), 1.5,
                                                1.5);
                    }
                }
                break;
            case DrawnKind::checkbox:
                if (!behindText) {
                    const double side = start.height() * 0.8;
                    const QRectF box(start.left() + 2, start.center().y() - side / 2, side, side);
                    painter.setPen(QPen(object.checked ? formats.colour(ColourRole::link) : secondary, 1.4));
                    painter.setBrush(object.checked ? formats.colour(ColourRole::link) : QBrush(Qt::NoBrush));
                    painter.drawRoundedRect(box, 3, 3);
                    if (object.checked) {
                        QPainterPath tick;
                        tick.moveTo(box.left() + side * 0.25, box.center().y());
                        tick.lineTo(box.left() + side * 0.43, box.bottom() - side * 0.28);
                        tick.lineTo(box.right() - side * 0.22, box.top() + side * 0.28);
                        painter.setPen(QPen(palette().color(QPalette::Base), 1.8));
                        painter.setBrush(Qt::NoBrush);
                        painter.drawPath(tick);
                    }
                    painter.setBrush(Qt::NoBrush);
                }
                break;
            case DrawnKind::orderedNumber:
            case DrawnKind::inlineReplacement:
            case DrawnKind::footnoteDefinition:
                if (!behindText) {
                    painter.setFont(formats.font(FontRole::body, size, false, false));
                    painter.setPen(object.kind == DrawnKind::footnoteDefinition ? secondary
                                                                                 : formats.colour(ColourRole::label));
                    const QString label = object.kind == DrawnKind::footnoteDefinition ? object.text + u'.' : object.text;
                    painter.drawText(QRectF(start.left(), start.top(), 400, start.height()),
                                     Qt::AlignLeft | Qt::AlignVCenter, label);
                }
                break;
            case DrawnKind::footnoteReference:
                if (!behindText) {
                    painter.setFont(formats.font(FontRole::body, size * 0.75, false, false));
                    painter.setPen(secondary);
                    painter.drawText(QRectF(start.left() + 2, start.top() - start.height() * 0.25, 200, start.height()),
                                     Qt::AlignLeft | Qt::AlignVCenter, object.text);
                }
                break;
            case DrawnKind::keycap:
                if (!behindText) {
                    const QFont mono = formats.font(FontRole::monospace, size * 0.9, false, false);
                    const double width = QFontMetricsF(mono).horizontalAdvance(object.text) + 6;
                    const QRectF cap(start.left() + 2, start.top() + 2, width, start.height() - 4);
                    painter.setPen(QPen(secondary, 1));
                    painter.setBrush(panel);
                    painter.drawRoundedRect(cap, 4, 4);
                    painter.setFont(mono);
                    painter.setPen(formats.colour(ColourRole::label));
                    painter.drawText(cap, Qt::AlignCenter, object.text);
                    painter.setBrush(Qt::NoBrush);
                }
                break;
            case DrawnKind::inlineMath:
            case DrawnKind::displayMath:
                if (!behindText) {
                    painter.setFont(formats.font(FontRole::math, size * (object.kind == DrawnKind::displayMath ? 1.2 : 1),
                                                 false, false));
                    painter.setPen(formats.colour(ColourRole::label));
                    if (object.kind == DrawnKind::displayMath) {
                        const QRectF block = rangeRect(object.start, object.end());
                        painter.drawText(QRectF(0, block.top(), viewport()->width(), block.height()),
                                         Qt::AlignCenter | Qt::TextDontClip, object.text);
                    } else {
                        // On the line's baseline: a math font's own line box is much taller than text's.
                        const QFontMetricsF body(formats.font(FontRole::body, size, false, false));
                        const double baseline = start.top() + (start.height() - body.height()) / 2 + body.ascent();
                        painter.drawText(QPointF(start.left(), baseline), object.text);
                    }
                }
                break;
            case DrawnKind::detailsDisclosure:
                if (!behindText) {
                    const double side = start.height() * 0.45;
                    const QPointF c(start.left() - side, start.center().y());
                    QPainterPath triangle;
                    if (object.checked) {
                        triangle.moveTo(c.x() - side / 2, c.y() - side / 3);
                        triangle.lineTo(c.x() + side / 2, c.y() - side / 3);
                        triangle.lineTo(c.x(), c.y() + side / 2);
                    } else {
                        triangle.moveTo(c.x() - side / 3, c.y() - side / 2);
                        triangle.lineTo(c.x() + side / 2, c.y());
                        triangle.lineTo(c.x() - side / 3, c.y() + side / 2);
                    }
                    triangle.closeSubpath();
                    painter.setPen(Qt::NoPen);
                    painter.setBrush(secondary);
                    painter.drawPath(triangle);
                    painter.setBrush(Qt::NoBrush);
                }
                break;
            case DrawnKind::table:
                if (behindText && object.index >= 0 && object.index < static_cast<int>(tableColumns_.size())) {
                    const Table& table = stylePass().tables[static_cast<size_t>(object.index)];
                    std::vector<const TableRow*> rows{&table.header};
                    for (const TableRow& row : table.body) rows.push_back(&row);
                    const std::vector<double>& columns = tableColumns_[static_cast<size_t>(object.index)];
                    const double padding = tableCellPadding();
                    const QRectF header = characterRect(table.header.range.start);
                    const QRectF last = characterRect(rows.back()->range.start);
                    double width = 0;
                    for (const double column : columns) width += column + padding;
                    const QRectF grid(header.left(), header.top(), width, last.bottom() - header.top());
                    painter.fillRect(QRectF(grid.left(), header.top(), grid.width(), header.height()), panel);
                    painter.setPen(QPen(secondary, 0.8));
                    painter.setBrush(Qt::NoBrush);
                    painter.drawRect(grid);
                    for (size_t r = 1; r < rows.size(); ++r) {
                        const double y = characterRect(rows[r]->range.start).top();
                        painter.drawLine(QPointF(grid.left(), y), QPointF(grid.right(), y));
                    }
                    double x = grid.left();
                    for (size_t c = 0; c + 1 < columns.size(); ++c) {
                        x += columns[c] + padding;
                        painter.drawLine(QPointF(x, grid.top()), QPointF(x, grid.bottom()));
                    }
                }
                break;
            case DrawnKind::image:
                if (!behindText && object.link && !object.link->localPath.isEmpty()) {
                    QImageReader reader(object.link->localPath);
                    const QSize natural = reader.size();
                    if (natural.isValid()) {
                        const double height = std::min<double>(natural.height(), QFontMetricsF(font()).height() * 4);
                        reader.setScaledSize(natural.scaled(QSize(10000, static_cast<int>(height)), Qt::KeepAspectRatio));
                        // The line was made as tall as the image; draw from its top.
                        const QTextBlock block = document()->findBlock(object.start);
                        const double top = document()->documentLayout()->blockBoundingRect(block).top() -
                                           verticalScrollBar()->value() + block.blockFormat().topMargin();
                        painter.drawImage(QPointF(start.left(), top), reader.read());
                    }
                }
                break;
            case DrawnKind::titlePlaceholder:
                if (!behindText) {
                    painter.setFont(formats.font(FontRole::body, size * 32.0 / 17.0, true, false));
                    painter.setPen(formats.colour(ColourRole::placeholder));
                    painter.drawText(QRectF(start.left(), start.top(), 800, start.height() * 2.2),
                                     Qt::AlignLeft | Qt::AlignTop, object.text);
                }
                break;
            case DrawnKind::linkCard:
                if (!behindText && object.link) {
                    if (const auto card = linkCardRect(object)) {
                        paintLinkCard(painter, *card, linkPreviews_->metadata(object.link->url), object.link->url,
                                      font(), palette());
                    }
                }
                break;
            case DrawnKind::noteReference:
                // A note icon in the margin before the title; a reference to a note that
                // is gone is drawn dashed, its title struck through (see reservedSpace()).
                if (!behindText) {
                    const double side = start.height() * 0.62;
                    const QRectF page(start.left() - side - 5, start.center().y() - side / 2, side * 0.78, side);
                    const bool missing = isMissingNote(object);
                    QPen pen(missing ? secondary : formats.colour(ColourRole::link), 1.2);
                    if (missing) pen.setStyle(Qt::DashLine);
                    painter.setPen(pen);
                    painter.setBrush(Qt::NoBrush);
                    painter.drawRoundedRect(page, 1.5, 1.5);
                    if (!missing) {
                        for (int line = 1; line <= 2; ++line) {
                            const double y = page.top() + page.height() * line / 3.0;
                            painter.drawLine(QPointF(page.left() + 2, y), QPointF(page.right() - 2, y));
                        }
                    }
                }
                break;
        }
    }
}

const DrawnObject* MarkdownTextView::objectAt(const QPoint& point, DrawnKind kind) const {
    for (const DrawnObject& object : stylePass().objects) {
        if (object.kind != kind) continue;
        const QRectF start = characterRect(object.start);
        const QRectF end = characterRect(std::max(object.start, object.end()));
        QRectF area(start.left() - start.height(), start.top(), std::max(end.left() - start.left(), start.height()) + start.height(),
                    start.height());
        if (area.contains(point)) return &object;
    }
    return nullptr;
}

void MarkdownTextView::mousePressEvent(QMouseEvent* event) {
    if (presentation_ == Presentation::styled && event->button() == Qt::LeftButton) {
        const QPoint point = event->position().toPoint();
        if (const DrawnObject* box = objectAt(point, DrawnKind::checkbox)) {
            if (auto edit = MarkdownEditing::toggleChecklist(markdown(), box->start, selection())) applyEdit(*edit);
            return;
        }
        for (const DrawnObject& object : stylePass().objects) {
            if (object.kind != DrawnKind::linkCard || !object.link) continue;
            if (const auto card = linkCardRect(object); card && card->contains(point)) {
                openLink(object.link->url);
                return;
            }
        }
        if (const DrawnObject* disclosure = objectAt(point, DrawnKind::detailsDisclosure)) {
            const int tag = disclosure->related.start >= 0 ? disclosure->related.start : disclosure->start;
            if (auto edit = MarkdownEditing::toggleDetails(markdown(), tag, selection())) applyEdit(*edit);
            return;
        }
    }
    QTextEdit::mousePressEvent(event);
}

// Links live in the styling pass (layout formats), not in the document's own
// character formats, so QTextEdit::anchorAt() cannot see them.
QString MarkdownTextView::linkAt(const QPoint& point) const {
    if (presentation_ == Presentation::source) return {};
    const QPointF inDocument = point + QPointF(horizontalScrollBar()->value(), verticalScrollBar()->value());
    const int position = document()->documentLayout()->hitTest(inDocument, Qt::ExactHit);
    if (position < 0) return {};
    const StyleAttributes attributes = stylePass().attributesAt(position);
    return attributes.link && !attributes.hidden ? attributes.link->url : QString();
}

void MarkdownTextView::mouseReleaseEvent(QMouseEvent* event) {
    const QString href = linkAt(event->position().toPoint());
    if (!href.isEmpty() && event->button() == Qt::LeftButton && !textCursor().hasSelection()) openLink(href);
    QTextEdit::mouseReleaseEvent(event);
}

void MarkdownTextView::mouseMoveEvent(QMouseEvent* event) {
    viewport()->setCursor(linkAt(event->position().toPoint()).isEmpty() ? Qt::IBeamCursor : Qt::PointingHandCursor);
    QTextEdit::mouseMoveEvent(event);
}

void MarkdownTextView::setLinkPreviews(LinkPreviews* previews) {
    if (linkPreviews_) disconnect(linkPreviews_, nullptr, this, nullptr);
    linkPreviews_ = previews;
    if (previews) {
        // Only the cards are repainted when a preview arrives; the text is not restyled.
        connect(previews, &LinkPreviews::metadataArrived, this, [this] { viewport()->update(); });
        connect(previews, &LinkPreviews::enabledChanged, this, [this] { restyle(); });
    }
    restyle();
}

bool MarkdownTextView::showsLinkCards() const {
    return linkPreviews_ && linkPreviews_->isEnabled() && presentation_ == Presentation::styled;
}

// The card sits in the room reserved above the link's line.
std::optional<QRectF> MarkdownTextView::linkCardRect(const DrawnObject& object) const {
    if (!showsLinkCards()) return std::nullopt;
    const QTextBlock block = document()->findBlock(object.start);
    if (!block.layout()) return std::nullopt;
    const QRectF bounds = document()->documentLayout()->blockBoundingRect(block);
    // The layout's position is where the line's text starts, below the room.
    const double textTop = block.layout()->position().y();
    const double height = linkCardHeight(font());
    const double left = bounds.left() + block.blockFormat().leftMargin();
    const double width = std::min(bounds.width() - block.blockFormat().leftMargin(), 520.0);
    return QRectF(left - horizontalScrollBar()->value(),
                  textTop - block.blockFormat().topMargin() + 2 - verticalScrollBar()->value(), width, height);
}

void MarkdownTextView::openLink(const QString& href) {
    const QUrl url(href);
    if (url.scheme() == footnoteScheme) {
        // Resolved now, against the text as it is: formats carry only the label.
        const std::optional<int> target = footnoteJumpTarget(stylePass(), url);
        if (!target) return;
        QTextCursor cursor(document());
        cursor.setPosition(std::clamp(*target, 0, document()->characterCount() - 1));
        setTextCursor(cursor);
        ensureCursorVisible();
        return;
    }
    if (url.isLocalFile() || url.scheme().isEmpty()) {
        const QString path = url.isLocalFile() ? url.toLocalFile() : href;
        if (QFileInfo(path) == QFileInfo(noteFile_)) {
            emit refusedLink(QStringLiteral("This note cannot link to itself."));
            return;
        }
    }
    // Notes open here, web links in the browser; any other file only shows its folder.
    const QString folder = !notesFolder_.isEmpty() ? notesFolder_
                           : noteFile_.isEmpty()   ? QString()
                                                   : QFileInfo(noteFile_).absolutePath();
    const QUrl target = url.scheme().isEmpty() ? QUrl::fromLocalFile(href) : url;
    followNoteLink(
        noteLinkAction(target, folder), [this](const QString& path) { emit openNoteRequested(path); }, openUrl_,
        [this](const QString& message) { emit refusedLink(message); });
}

}  // namespace mossly
