#include "HtmlDocument.h"

#include <array>
#include <cctype>
#include <cstring>
#include <limits>

namespace mossly::html {

namespace {

// No parse has this many nodes or lines.
constexpr size_t removedNodeMark = std::numeric_limits<size_t>::max();
constexpr unsigned removedAttributeMark = std::numeric_limits<unsigned>::max();

bool isAsciiSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

QByteArray trimmed(std::string_view text) {
    while (!text.empty() && isAsciiSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isAsciiSpace(text.back())) text.remove_suffix(1);
    return QByteArray(text.data(), static_cast<qsizetype>(text.size()));
}

ElementPattern parsePattern(std::string_view text) {
    ElementPattern pattern;
    const size_t open = text.find('[');
    pattern.tag = trimmed(text.substr(0, open)).toLower();
    pattern.gumboTag = gumbo_tag_enum(pattern.tag.constData());
    if (open == std::string_view::npos) return pattern;
    std::string_view condition = text.substr(open + 1);
    condition = condition.substr(0, condition.find(']'));
    const size_t equals = condition.find('=');
    pattern.attribute = trimmed(condition.substr(0, equals)).toLower();
    if (equals != std::string_view::npos) pattern.value = trimmed(condition.substr(equals + 1));
    return pattern;
}

struct ForeignName {
    qsizetype at;  // the first letter of the name
    char original;
};

bool startsForeignName(const QByteArray& bytes, qsizetype at, bool renamedOnly) {
    const char first = bytes.at(at);
    if (renamedOnly ? first != 'x' : std::string_view("sSmMxX").find(first) == std::string_view::npos)
        return false;
    for (const std::string_view rest : {std::string_view("vg"), std::string_view("ath")}) {
        const auto length = static_cast<qsizetype>(rest.size());
        if (bytes.size() - at - 1 < length) continue;
        if (qstrnicmp(bytes.constData() + at + 1, rest.data(), static_cast<size_t>(length)) != 0) continue;
        if (isTagNameEnd(bytes, at + 1 + length)) return true;
    }
    return false;
}

// Where "<svg", "</math", "<xvg"… names start, in order.
std::vector<ForeignName> foreignNames(const QByteArray& bytes, bool renamedOnly) {
    std::vector<ForeignName> names;
    for (qsizetype at = bytes.indexOf('<'); at >= 0; at = bytes.indexOf('<', at + 1)) {
        qsizetype name = at + 1;
        if (name < bytes.size() && bytes.at(name) == '/') ++name;
        if (name < bytes.size() && startsForeignName(bytes, name, renamedOnly))
            names.push_back({name, bytes.at(name)});
    }
    return names;
}

bool isVoidElement(const QByteArray& name) {
    static const std::array<std::string_view, 18> voids = {
        "area", "base",  "basefont", "bgsound", "br",   "col",   "embed",  "frame", "hr",
        "img",  "input", "keygen",   "link",    "meta", "param", "source", "track", "wbr"};
    const std::string_view view(name.constData(), static_cast<size_t>(name.size()));
    return std::find(voids.begin(), voids.end(), view) != voids.end();
}

// Elements whose text the parser read without markup or entities.
bool isRawTextElement(const GumboNode* element) {
    switch (element->v.element.tag) {
        case GUMBO_TAG_STYLE:
        case GUMBO_TAG_SCRIPT:
        case GUMBO_TAG_XMP:
        case GUMBO_TAG_IFRAME:
        case GUMBO_TAG_NOEMBED:
        case GUMBO_TAG_NOFRAMES:
        case GUMBO_TAG_PLAINTEXT:
            return true;
        default:
            return false;
    }
}

// The parser drops a line break right after these start tags, so one is added
// when the text itself starts with one.
bool startsWithLineBreak(const GumboNode* element, const QByteArray& name) {
    if (name != "pre" && name != "textarea" && name != "listing") return false;
    const GumboVector& children = element->v.element.children;
    if (children.length == 0) return false;
    const auto* first = static_cast<const GumboNode*>(children.data[0]);
    return (first->type == GUMBO_NODE_TEXT || first->type == GUMBO_NODE_WHITESPACE) &&
           first->v.text.text[0] == '\n';
}

// Comment text that reads back as one comment with the same text.
bool isPlainCommentData(const QByteArray& data) {
    return !data.startsWith('>') && !data.startsWith("->") && !data.contains("<!--") &&
           !data.contains("-->") && !data.contains("--!>") && !data.endsWith("<!-");
}

void appendEscaped(QByteArray& out, const QByteArray& text, bool attribute, bool markup) {
    qsizetype plainFrom = 0;
    const auto flush = [&](qsizetype upTo) { out.append(text.constData() + plainFrom, upTo - plainFrom); };
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char c = text.at(i);
        const char* entity = nullptr;
        qsizetype length = 1;
        if (c == '&' && markup)
            entity = "&amp;";
        else if (c == '<')
            entity = "&lt;";
        else if (c == '>')
            entity = "&gt;";
        else if (c == '"' && attribute)
            entity = "&quot;";
        else if (c == '\xC2' && markup && i + 1 < text.size() && text.at(i + 1) == '\xA0')
            entity = "&nbsp;", length = 2;
        if (!entity) continue;
        flush(i);
        out.append(entity);
        plainFrom = i + length;
        i += length - 1;
    }
    flush(text.size());
}

}  // namespace

std::vector<ElementPattern> parseSelectorList(std::string_view selectors) {
    std::vector<ElementPattern> patterns;
    while (!selectors.empty()) {
        const size_t comma = selectors.find(',');
        patterns.push_back(parsePattern(selectors.substr(0, comma)));
        selectors = comma == std::string_view::npos ? std::string_view() : selectors.substr(comma + 1);
    }
    return patterns;
}

const GumboVector* childrenOf(const GumboNode* node) {
    if (node->type == GUMBO_NODE_DOCUMENT) return &node->v.document.children;
    if (isElement(node)) return &node->v.element.children;
    return nullptr;
}

void appendEscapedText(QByteArray& out, const QByteArray& text) {
    appendEscaped(out, text, false, true);
}
void appendEscapedAttributeValue(QByteArray& out, const QByteArray& value) {
    appendEscaped(out, value, true, true);
}

namespace {

// Elements an HTML parser reads text into until their end tag. Inside <svg> a
// browser closes <style/> at once, but after a <b> or <p> it has left the
// <svg> and reads raw text: these keep the parser's HTML reading and are
// always written with their end tag, so both readings end where they do.
bool readsTextUntilEndTag(QByteArrayView name) {
    static const std::array<std::string_view, 10> names = {"style",    "script",   "xmp",      "iframe",
                                                           "noembed",  "noframes", "noscript", "plaintext",
                                                           "textarea", "title"};
    return std::any_of(names.begin(), names.end(), [&](std::string_view candidate) {
        return qsizetype(candidate.size()) == name.size() &&
               qstrnicmp(candidate.data(), name.data(), candidate.size()) == 0;
    });
}

// gumbo reads <path/> inside <svg> as an open element (HTML ignores the slash)
// and then closes the innermost unknown element at </svg>, not the <svg>: what
// follows an icon would land inside it. In the parser's copy such elements
// become the void <wbr> padded with spaces, so every offset still matches;
// their names are read from the author's text.
QByteArray withSelfClosingForeignElementsVoid(QByteArray input) {
    int foreignDepth = 0;
    const qsizetype size = input.size();
    for (qsizetype at = input.indexOf('<'); at >= 0 && at < size; at = input.indexOf('<', at + 1)) {
        if (QByteArrayView(input).sliced(at).startsWith("<!--")) {
            at = input.indexOf("-->", at + 4);
            if (at < 0) break;
            continue;
        }
        const bool closing = at + 1 < size && input.at(at + 1) == '/';
        const qsizetype nameStart = at + 1 + (closing ? 1 : 0);
        if (nameStart >= size || !std::isalpha(static_cast<unsigned char>(input.at(nameStart)))) continue;
        qsizetype nameEnd = nameStart;
        while (!isTagNameEnd(input, nameEnd)) ++nameEnd;
        qsizetype end = nameEnd;
        for (char quote = 0; end < size; ++end) {
            const char c = input.at(end);
            if (quote)
                quote = c == quote ? 0 : quote;
            else if (c == '"' || c == '\'')
                quote = c;
            else if (c == '>')
                break;
        }
        if (end >= size) break;
        const qsizetype length = nameEnd - nameStart;
        const bool selfClosing = input.at(end - 1) == '/';
        const auto named = [&](const char* foreign) {
            return length == qsizetype(qstrlen(foreign)) &&
                   qstrnicmp(input.constData() + nameStart, foreign, size_t(length)) == 0;
        };
        if (named("xvg") || named("xath")) {  // <svg> and <math>, as withoutForeignContent renamed them
            if (!selfClosing) foreignDepth = std::max(0, foreignDepth + (closing ? -1 : 1));
        } else if (!closing && selfClosing && foreignDepth > 0 && length >= 3 &&
                   !readsTextUntilEndTag(QByteArrayView(input).sliced(nameStart, length))) {
            input.replace(nameStart, length, QByteArray("wbr").leftJustified(length, ' '));
        }
        at = end;
    }
    return input;
}

}  // namespace

HtmlDocument::HtmlDocument(QByteArray utf8) : parsed_(std::move(utf8), &withSelfClosingForeignElementsVoid) {}

// Removal marks live in the parsed tree itself, in position fields nothing
// reads after parsing. Every node is visited several times, and a side table
// lookup each time showed in profiles.
void HtmlDocument::remove(const GumboNode* node) {
    const_cast<GumboNode*>(node)->index_within_parent = removedNodeMark;  // the tree is this document's own
}

bool HtmlDocument::isRemoved(const GumboNode* node) {
    return node->index_within_parent == removedNodeMark;
}

void HtmlDocument::removeAttribute(const GumboAttribute* attribute) {
    const_cast<GumboAttribute*>(attribute)->value_end.line = removedAttributeMark;
}

std::vector<const GumboNode*> HtmlDocument::elements(const GumboNode* from) const {
    std::vector<const GumboNode*> found;
    if (!from || isRemoved(from)) return found;
    std::vector<const GumboNode*> pending{from};
    while (!pending.empty()) {
        const GumboNode* node = pending.back();
        pending.pop_back();
        if (isElement(node)) found.push_back(node);
        const GumboVector* children = childrenOf(node);
        if (!children) continue;
        for (unsigned i = children->length; i > 0; --i) {
            const auto* child = static_cast<const GumboNode*>(children->data[i - 1]);
            if (!isRemoved(child)) pending.push_back(child);
        }
    }
    return found;
}

std::vector<const GumboNode*> HtmlDocument::select(const GumboNode* from,
                                                   const std::vector<ElementPattern>& patterns) const {
    std::vector<const GumboNode*> found;
    for (const GumboNode* element : elements(from)) {
        if (std::any_of(patterns.begin(), patterns.end(), [&](const auto& p) { return matches(element, p); }))
            found.push_back(element);
    }
    return found;
}

bool HtmlDocument::matches(const GumboNode* element, const ElementPattern& pattern) const {
    const GumboTag tag = element->v.element.tag;
    if (pattern.gumboTag != GUMBO_TAG_UNKNOWN ? tag != pattern.gumboTag : tagName(element) != pattern.tag)
        return false;
    if (pattern.attribute.isEmpty()) return true;
    for (const Attribute& attribute : attributes(element)) {
        if (attribute.name != pattern.attribute) continue;
        return !pattern.value || qstricmp(attribute.value.constData(), pattern.value->constData()) == 0;
    }
    return false;
}

std::vector<HtmlDocument::Attribute> HtmlDocument::attributes(const GumboNode* element) const {
    std::vector<Attribute> found;
    const GumboVector& all = element->v.element.attributes;
    found.reserve(all.length);
    for (unsigned i = 0; i < all.length; ++i) {
        const auto* attribute = static_cast<const GumboAttribute*>(all.data[i]);
        if (attribute->value_end.line == removedAttributeMark) continue;
        found.push_back({attribute, decoded(attribute->name, attribute->original_name),
                         decoded(attribute->value, attribute->original_value)});
    }
    return found;
}

QByteArray HtmlDocument::originalBytes(const GumboStringPiece& piece) const {
    const auto span = parsed_.span(piece);
    if (!span) return {};
    return QByteArray::fromRawData(parsed_.bytes().constData() + span->first, span->second - span->first);
}

// The parser saw "<svg" and "<math" renamed everywhere, also inside attribute
// values, comments and raw text; put the author's letters back. When entity
// decoding makes the names impossible to pair up, the text stays as parsed.
QByteArray HtmlDocument::decoded(const char* text, const GumboStringPiece& original) const {
    const auto length = qsizetype(qstrlen(text));
    if (!std::memchr(text, '<', size_t(length))) return QByteArray::fromRawData(text, length);
    QByteArray result(text, length);
    const auto inResult = foreignNames(result, true);
    if (inResult.empty()) return result;
    const auto inSource = foreignNames(originalBytes(original), false);
    if (inSource.size() != inResult.size()) return result;
    for (size_t i = 0; i < inResult.size(); ++i) result[inResult[i].at] = inSource[i].original;
    return result;
}

// The name in the author's start or end tag; the parser may have seen another.
QByteArray HtmlDocument::originalName(const GumboStringPiece& tag) const {
    const auto span = parsed_.span(tag);
    const QByteArray& bytes = parsed_.bytes();
    if (!span || bytes.at(span->first) != '<') return {};
    qsizetype start = span->first + 1;
    if (start < span->second && bytes.at(start) == '/') ++start;
    qsizetype end = start;
    while (end < span->second && !isTagNameEnd(bytes, end)) ++end;
    return QByteArray::fromRawData(bytes.constData() + start, end - start);
}

QByteArray HtmlDocument::textData(const GumboNode* node, bool parentIsRawText) const {
    const GumboText& text = node->v.text;
    if (parentIsRawText) {
        QByteArray source = originalBytes(text.original_text);
        if (!source.isEmpty()) return source;
    }
    return decoded(text.text, text.original_text);
}

QByteArray HtmlDocument::tagName(const GumboNode* element) const {
    return writtenName(element, false);
}

// Inside <svg> and <math> the parser read HTML rules and may have renamed an
// element (<image> becomes <img>); there the author's name is written.
QByteArray HtmlDocument::writtenName(const GumboNode* element, bool inForeignContent) const {
    const GumboTag tag = element->v.element.tag;
    // gumbo's names are static: no copy.
    if (tag != GUMBO_TAG_UNKNOWN && !inForeignContent) {
        const char* name = gumbo_normalized_tagname(tag);
        return QByteArray::fromRawData(name, qsizetype(qstrlen(name)));
    }
    QByteArray original = originalName(element->v.element.original_tag).toLower();
    if (original.isEmpty() && tag != GUMBO_TAG_UNKNOWN) return QByteArray(gumbo_normalized_tagname(tag));
    return original;
}

QString HtmlDocument::text(const GumboNode* element) const {
    QByteArray text;
    std::vector<const GumboNode*> pending{element};
    while (!pending.empty()) {
        const GumboNode* node = pending.back();
        pending.pop_back();
        if (node->type == GUMBO_NODE_TEXT || node->type == GUMBO_NODE_WHITESPACE ||
            node->type == GUMBO_NODE_CDATA) {
            const GumboNode* parent = node->parent;
            text += textData(node, parent && isElement(parent) && isRawTextElement(parent));
            continue;
        }
        const GumboVector* children = childrenOf(node);
        if (!children) continue;
        for (unsigned i = children->length; i > 0; --i) {
            const auto* child = static_cast<const GumboNode*>(children->data[i - 1]);
            if (!isRemoved(child)) pending.push_back(child);
        }
    }
    return QString::fromUtf8(text);
}

// One open element while serialising.
struct HtmlDocument::Frame {
    const GumboNode* node;
    unsigned next = 0;
    QByteArray endTag;       // the name to close, or nothing
    bool foreign = false;    // inside <svg> or <math>
    bool inertText = false;  // a browser may read the content as raw text or as markup
    bool rawText = false;    // the text children are written as they stand
};

QString HtmlDocument::innerHTML(const GumboNode* element) const {
    QByteArray out;
    if (!element || isRemoved(element)) return QString();
    out.reserve(parsed_.bytes().size());
    std::vector<Frame> stack;
    const QByteArray name = tagName(element);
    stack.push_back(
        {element, 0, {}, name == "svg" || name == "math", name == "noscript", isRawTextElement(element)});
    while (!stack.empty()) {
        Frame& frame = stack.back();
        const GumboVector* children = childrenOf(frame.node);
        if (!children || frame.next >= children->length) {
            if (!frame.endTag.isEmpty()) out.append("</").append(frame.endTag).append('>');
            stack.pop_back();
            continue;
        }
        const auto* child = static_cast<const GumboNode*>(children->data[frame.next++]);
        if (!isRemoved(child)) appendChild(out, stack, child);
    }
    return QString::fromUtf8(out);
}

void HtmlDocument::appendChild(QByteArray& out, std::vector<Frame>& stack, const GumboNode* child) const {
    const Frame parent = {nullptr, 0, {}, stack.back().foreign, stack.back().inertText, stack.back().rawText};
    switch (child->type) {
        case GUMBO_NODE_TEXT:
        case GUMBO_NODE_WHITESPACE:
        case GUMBO_NODE_CDATA: {
            const QByteArray data = textData(child, parent.rawText);
            // Inside <svg>, <math> or <noscript> a browser may read <style> as markup: escaping is safe both
            // ways.
            if (parent.rawText && !parent.inertText)
                out += data;
            else
                appendEscapedText(out, data);
            return;
        }
        case GUMBO_NODE_COMMENT: {
            const QByteArray data = decoded(child->v.text.text, child->v.text.original_text);
            out += "<!--";
            if (parent.inertText || !isPlainCommentData(data))
                appendEscaped(out, data, false, false);
            else
                out += data;
            out += "-->";
            return;
        }
        case GUMBO_NODE_ELEMENT:
        case GUMBO_NODE_TEMPLATE: {
            const QByteArray name = writtenName(child, parent.foreign);
            Frame frame{child, 0, {}, false, false, false};
            frame.foreign = parent.foreign || name == "svg" || name == "math";
            frame.inertText = parent.inertText || frame.foreign || name == "noscript";
            frame.rawText = isRawTextElement(child);
            if (!name.isEmpty()) {
                // The parser read <path/> inside <svg> as an open element holding what follows; a browser
                // closes it there, so it is written closed and what the parser put inside follows it.
                const bool closesItself = frame.foreign && !isVoidElement(name) &&
                                          !readsTextUntilEndTag(name) &&
                                          originalBytes(child->v.element.original_tag).endsWith("/>");
                appendStartTag(out, child, name, closesItself);
                if (isVoidElement(name)) return;
                if (!closesItself) frame.endTag = name;
                if (startsWithLineBreak(child, name)) out += '\n';
            }
            stack.push_back(std::move(frame));
            return;
        }
        default:
            return;
    }
}

void HtmlDocument::appendStartTag(QByteArray& out, const GumboNode* element, const QByteArray& name,
                                  bool closesItself) const {
    out += '<';
    out += name;
    for (const Attribute& attribute : attributes(element)) {
        out += ' ';
        out += attribute.name;
        out += "=\"";
        appendEscapedAttributeValue(out, attribute.value);
        out += '"';
    }
    out += closesItself ? "/>" : ">";
}

}  // namespace mossly::html
