#include "HtmlDocumentCodec.h"

#include <gumbo.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "HtmlParsing.h"
#include "MarkdownDocumentCodec.h"

namespace mossly {

namespace {

using namespace html;

const QString meetingKeyPrefix = QStringLiteral("meeting-");
const QByteArray headStartTag = QByteArrayLiteral("<head>");
const QByteArray headEndTag = QByteArrayLiteral("</head>");

bool isOurKey(const QString& name) {
    return name == NoteDocument::createdByKey || name == NoteDocument::lastEditedByKey ||
           name == HtmlDocumentCodec::documentKindKey ||
           (name.startsWith(meetingKeyPrefix) && name.size() > meetingKeyPrefix.size());
}

struct OurTag {
    qsizetype begin = 0;  // includes the newline before the tag, when there is one
    qsizetype end = 0;
    QString name;
    QString content;
};

// Our meta tags, in source order, without overlaps.
std::vector<OurTag> findOurTags(const ParsedHtml& parsed) {
    std::vector<OurTag> tags;
    forEachElement(parsed.document(), [&](const GumboNode* node) {
        if (node->v.element.tag != GUMBO_TAG_META) return;
        const auto span = parsed.span(node->v.element.original_tag);
        if (!span || parsed.bytes().at(span->first) != '<') return;
        const QString name = attribute(node, "name");
        if (!isOurKey(name)) return;
        tags.push_back({span->first, span->second, name, attribute(node, "content")});
    });
    std::stable_sort(tags.begin(), tags.end(),
                     [](const OurTag& a, const OurTag& b) { return a.begin < b.begin; });
    std::vector<OurTag> kept;
    const QByteArray& bytes = parsed.bytes();
    for (OurTag& tag : tags) {
        const qsizetype previousEnd = kept.empty() ? 0 : kept.back().end;
        if (tag.begin < previousEnd) continue;
        if (tag.begin > previousEnd && bytes.at(tag.begin - 1) == '\n') --tag.begin;
        kept.push_back(std::move(tag));
    }
    return kept;
}

// The offset just past a leading <!DOCTYPE …>, whitespace allowed before it.
std::optional<qsizetype> leadingDoctypeEnd(const ParsedHtml& parsed) {
    const GumboNode* document = parsed.document();
    if (!document || !document->v.document.has_doctype) return std::nullopt;
    const QByteArray& bytes = parsed.bytes();
    qsizetype at = 0;
    while (at < bytes.size() && std::string_view(" \t\n\r\f").find(bytes.at(at)) != std::string_view::npos)
        ++at;
    static const QByteArray opening = QByteArrayLiteral("<!doctype");
    if (bytes.size() - at < opening.size() || bytes.mid(at, opening.size()).toLower() != opening)
        return std::nullopt;
    const qsizetype close = bytes.indexOf('>', at);
    if (close < 0) return std::nullopt;
    return close + 1;
}

// Where a head of our own goes when the document has no <head> start tag:
// after <html …>, else after a leading doctype, else at the very start.
qsizetype headInsertionPoint(const ParsedHtml& parsed) {
    if (const GumboNode* html = parsed.root(); html && html->type == GUMBO_NODE_ELEMENT) {
        if (const auto span = parsed.span(html->v.element.original_tag)) return span->second;
    }
    return leadingDoctypeEnd(parsed).value_or(0);
}

// The source range to remove: our tags, and the whole head when encoding wrote
// that head itself ("\n<head>" … "\n</head>" after the insertion point, or
// "<head>" … "\n</head>\n" at the start) and nothing else is left in it.
std::vector<std::pair<qsizetype, qsizetype>> removals(const ParsedHtml& parsed,
                                                      const std::vector<OurTag>& tags) {
    std::vector<std::pair<qsizetype, qsizetype>> ranges;
    for (const OurTag& tag : tags) ranges.emplace_back(tag.begin, tag.end);

    const GumboNode* head = parsed.rootChild(GUMBO_TAG_HEAD);
    if (!head) return ranges;
    const auto start = parsed.span(head->v.element.original_tag);
    const auto end = parsed.span(head->v.element.original_end_tag);
    const QByteArray& bytes = parsed.bytes();
    if (!start || !end || start->second > end->first) return ranges;
    if (bytes.mid(start->first, start->second - start->first) != headStartTag) return ranges;
    if (bytes.mid(end->first, end->second - end->first) != headEndTag) return ranges;

    // Inside the head, only our tags and one final newline.
    qsizetype at = start->second;
    bool any = false;
    for (const OurTag& tag : tags) {
        if (tag.begin < at || tag.end > end->first) continue;
        if (tag.begin != at) return ranges;
        at = tag.end;
        any = true;
    }
    if (!any || at + 1 != end->first || bytes.at(at) != '\n') return ranges;

    const qsizetype anchor = headInsertionPoint(parsed);
    std::pair<qsizetype, qsizetype> wrapper;
    if (start->first == 0 && end->second < bytes.size() && bytes.at(end->second) == '\n') {
        wrapper = {0, end->second + 1};
    } else if (anchor > 0 && start->first == anchor + 1 && bytes.at(anchor) == '\n') {
        wrapper = {anchor, end->second};
    } else {
        return ranges;
    }
    std::erase_if(ranges,
                  [&](const auto& r) { return r.first >= wrapper.first && r.second <= wrapper.second; });
    ranges.push_back(wrapper);
    std::sort(ranges.begin(), ranges.end());
    return ranges;
}

QByteArray without(const QByteArray& bytes, const std::vector<std::pair<qsizetype, qsizetype>>& ranges) {
    QByteArray kept;
    kept.reserve(bytes.size());
    qsizetype at = 0;
    for (const auto& [begin, end] : ranges) {
        kept.append(bytes.constData() + at, begin - at);
        at = end;
    }
    kept.append(bytes.constData() + at, bytes.size() - at);
    return kept;
}

QString escaped(const QString& value) {
    QString text = value;
    text.replace(u'&', QStringLiteral("&amp;"));
    text.replace(u'"', QStringLiteral("&quot;"));
    text.replace(u'<', QStringLiteral("&lt;"));
    text.replace(u'>', QStringLiteral("&gt;"));
    // The parser turns a raw carriage return into a line feed; a reference survives.
    text.replace(u'\r', QStringLiteral("&#13;"));
    return text;
}

QString metaTag(const QString& name, const QString& content) {
    return QStringLiteral("\n<meta name=\"%1\" content=\"%2\">").arg(escaped(name), escaped(content));
}

bool codePointLess(const QString& a, const QString& b) {
    const QList<uint> left = a.toUcs4();
    const QList<uint> right = b.toUcs4();
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end());
}

struct Stripped {
    NoteDocumentPayload payload;
    QByteArray bytes;  // the text without our tags (empty when `payload.hadMetadata` is false)
};

Stripped strip(const QString& text) {
    Stripped result;
    result.payload.body = text;
    const ParsedHtml parsed(text.toUtf8());
    const std::vector<OurTag> tags = findOurTags(parsed);
    if (tags.empty()) return result;

    NoteDocumentPayload& payload = result.payload;
    payload.hadMetadata = true;
    for (const OurTag& tag : tags) {
        if (tag.name == NoteDocument::createdByKey) {
            payload.createdBy = NoteEditor::fromStoredValue(tag.content);
        } else if (tag.name == NoteDocument::lastEditedByKey) {
            payload.lastEditedBy = NoteEditor::fromStoredValue(tag.content);
        } else if (tag.name.startsWith(meetingKeyPrefix)) {
            payload.frontMatterFields.insert_or_assign(tag.name,
                                                       MarkdownDocumentCodec::value(tag.content.trimmed()));
        }
    }
    result.bytes = without(parsed.bytes(), removals(parsed, tags));
    payload.body = QString::fromUtf8(result.bytes);
    return result;
}

// Lays out the text under <body> as a reader sees it: a line per block, hidden elements skipped.
class VisibleTextWriter {
  public:
    QString text(const GumboNode* body) {
        struct Step {
            const GumboNode* node;
            bool leaving;
        };
        std::vector<Step> pending{{body, false}};
        while (!pending.empty()) {
            const Step step = pending.back();
            pending.pop_back();
            const GumboNode* node = step.node;
            if (node->type == GUMBO_NODE_TEXT || node->type == GUMBO_NODE_WHITESPACE ||
                node->type == GUMBO_NODE_CDATA) {
                addText(QString::fromUtf8(node->v.text.text));
                continue;
            }
            if (!isElement(node)) continue;
            const GumboTag tag = node->v.element.tag;
            if (step.leaving) {
                if (tag == GUMBO_TAG_PRE || tag == GUMBO_TAG_LISTING) --preformatted_;
                if (isBlock(tag)) endLine();
                continue;
            }
            if (isHidden(tag)) continue;
            if (isBlock(tag) || tag == GUMBO_TAG_BR) endLine();
            if (tag == GUMBO_TAG_TD || tag == GUMBO_TAG_TH) line_ += u' ';
            if (tag == GUMBO_TAG_PRE || tag == GUMBO_TAG_LISTING) ++preformatted_;
            pending.push_back({node, true});
            const GumboVector& children = node->v.element.children;
            for (unsigned i = children.length; i > 0; --i) {
                pending.push_back({static_cast<const GumboNode*>(children.data[i - 1]), false});
            }
        }
        endLine();
        return lines_.join(u'\n');
    }

  private:
    static bool isHidden(GumboTag tag) {
        static constexpr GumboTag tags[] = {GUMBO_TAG_HEAD,     GUMBO_TAG_SCRIPT,   GUMBO_TAG_STYLE,
                                            GUMBO_TAG_TEMPLATE, GUMBO_TAG_NOSCRIPT, GUMBO_TAG_TITLE,
                                            GUMBO_TAG_NOEMBED,  GUMBO_TAG_NOFRAMES};
        return std::ranges::find(tags, tag) != std::end(tags);
    }

    static bool isBlock(GumboTag tag) {
        static constexpr GumboTag tags[] = {
            GUMBO_TAG_ADDRESS,   GUMBO_TAG_ARTICLE,  GUMBO_TAG_ASIDE,      GUMBO_TAG_BLOCKQUOTE,
            GUMBO_TAG_BODY,      GUMBO_TAG_CAPTION,  GUMBO_TAG_CENTER,     GUMBO_TAG_DD,
            GUMBO_TAG_DETAILS,   GUMBO_TAG_DIR,      GUMBO_TAG_DIV,        GUMBO_TAG_DL,
            GUMBO_TAG_DT,        GUMBO_TAG_FIELDSET, GUMBO_TAG_FIGCAPTION, GUMBO_TAG_FIGURE,
            GUMBO_TAG_FOOTER,    GUMBO_TAG_FORM,     GUMBO_TAG_H1,         GUMBO_TAG_H2,
            GUMBO_TAG_H3,        GUMBO_TAG_H4,       GUMBO_TAG_H5,         GUMBO_TAG_H6,
            GUMBO_TAG_HEADER,    GUMBO_TAG_HGROUP,   GUMBO_TAG_HR,         GUMBO_TAG_LEGEND,
            GUMBO_TAG_LI,        GUMBO_TAG_LISTING,  GUMBO_TAG_MAIN,       GUMBO_TAG_MENU,
            GUMBO_TAG_NAV,       GUMBO_TAG_OL,       GUMBO_TAG_OPTION,     GUMBO_TAG_P,
            GUMBO_TAG_PLAINTEXT, GUMBO_TAG_PRE,      GUMBO_TAG_SECTION,    GUMBO_TAG_SUMMARY,
            GUMBO_TAG_TABLE,     GUMBO_TAG_TBODY,    GUMBO_TAG_TFOOT,      GUMBO_TAG_THEAD,
            GUMBO_TAG_TR,        GUMBO_TAG_UL,       GUMBO_TAG_XMP,        GUMBO_TAG_TEXTAREA};
        return std::ranges::find(tags, tag) != std::end(tags);
    }

    void addText(const QString& text) {
        if (preformatted_ == 0) {
            line_ += text;
            return;
        }
        const QStringList parts = text.split(u'\n');
        for (qsizetype i = 0; i < parts.size(); ++i) {
            if (i > 0) endLine();
            line_ += parts[i];
            linePreformatted_ = true;
        }
    }

    void endLine() {
        QString line = linePreformatted_ ? line_ : collapsedWhitespace(line_);
        line = line.trimmed();
        if (!line.isEmpty()) lines_.append(line);
        line_.clear();
        linePreformatted_ = false;
    }

    static QString collapsedWhitespace(const QString& text) {
        QString collapsed;
        collapsed.reserve(text.size());
        bool inSpace = false;
        for (const QChar c : text) {
            const bool space = c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f';
            if (space && inSpace) continue;
            collapsed += space ? QChar(u' ') : c;
            inSpace = space;
        }
        return collapsed;
    }

    QStringList lines_;
    QString line_;
    bool linePreformatted_ = false;
    int preformatted_ = 0;
};

}  // namespace

NoteDocumentPayload HtmlDocumentCodec::decode(const QString& text) const {
    return strip(text).payload;
}

QString HtmlDocumentCodec::encode(const QString& body, const std::optional<NoteEditor>& editedBy,
                                  const NoteDocumentPayload& payload) const {
    const std::optional<NoteEditor> lastEditor = editedBy ? editedBy : payload.lastEditedBy;
    const bool plain = !payload.hadMetadata && payload.createdBy.isHuman() && !lastEditor &&
                       payload.frontMatterFields.empty();
    if (plain) return body;

    QString tags = metaTag(documentKindKey, QStringLiteral("html"));
    tags += metaTag(NoteDocument::createdByKey, payload.createdBy.storedValue());
    if (lastEditor) tags += metaTag(NoteDocument::lastEditedByKey, lastEditor->storedValue());
    QStringList keys;
    for (const auto& entry : payload.frontMatterFields) {
        // Other keys would not be read back as fields and would end up in the body.
        if (entry.first.startsWith(meetingKeyPrefix) && isOurKey(entry.first)) keys.append(entry.first);
    }
    std::stable_sort(keys.begin(), keys.end(), codePointLess);
    for (const QString& key : keys) {
        tags += metaTag(key, MarkdownDocumentCodec::writtenValue(payload.frontMatterFields.at(key)));
    }
    const QByteArray tagBytes = tags.toUtf8();

    // Tags already in the body would be read back after ours and override them. Removing
    // one can turn text after it back into markup (it may have closed a <math>), hence the loop.
    QString cleanBody = body;
    QByteArray cleanBytes = body.toUtf8();
    for (int round = 0; round < 8; ++round) {
        Stripped existing = strip(cleanBody);
        if (!existing.payload.hadMetadata) break;
        cleanBody = existing.payload.body;
        cleanBytes = std::move(existing.bytes);
    }
    const ParsedHtml parsed(cleanBytes);

    const QByteArray leadingHead = headStartTag + tagBytes + '\n' + headEndTag + '\n';
    QByteArray text = cleanBytes;
    const GumboNode* head = parsed.rootChild(GUMBO_TAG_HEAD);
    if (const auto headTag = head ? parsed.span(head->v.element.original_tag) : std::nullopt) {
        text.insert(headTag->second, tagBytes);
    } else if (const qsizetype at = headInsertionPoint(parsed); at > 0) {
        text.insert(at, '\n' + headStartTag + tagBytes + '\n' + headEndTag);
    } else {
        return QString::fromUtf8(leadingHead + cleanBytes);
    }
    // Odd documents can make an inserted head read back differently (an author's own empty
    // "<head>" where ours would go, say). A head at the very start always reads back exactly.
    const QString encoded = QString::fromUtf8(text);
    if (strip(encoded).payload.body == cleanBody) return encoded;
    return QString::fromUtf8(leadingHead + cleanBytes);
}

QString HtmlDocumentCodec::documentTitle(const QString& html) {
    const ParsedHtml parsed(html.toUtf8());
    const GumboNode* head = parsed.rootChild(GUMBO_TAG_HEAD);
    if (!head) return {};
    const GumboVector& children = head->v.element.children;
    for (unsigned i = 0; i < children.length; ++i) {
        const auto* child = static_cast<const GumboNode*>(children.data[i]);
        if (!isElement(child) || child->v.element.tag != GUMBO_TAG_TITLE) continue;
        QString title;
        const GumboVector& texts = child->v.element.children;
        for (unsigned t = 0; t < texts.length; ++t) {
            const auto* text = static_cast<const GumboNode*>(texts.data[t]);
            if (text->type == GUMBO_NODE_TEXT || text->type == GUMBO_NODE_WHITESPACE) {
                title += QString::fromUtf8(text->v.text.text);
            }
        }
        return title.simplified();
    }
    return {};
}

QString HtmlDocumentCodec::visibleText(const NoteDocumentPayload& payload) const {
    const ParsedHtml parsed(payload.body.toUtf8());
    const GumboNode* body = parsed.rootChild(GUMBO_TAG_BODY);
    if (!body) return {};
    return VisibleTextWriter().text(body);
}

}  // namespace mossly
