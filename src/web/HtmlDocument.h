#pragma once

#include <QByteArray>
#include <QString>
#include <optional>
#include <string_view>
#include <vector>

#include "HtmlParsing.h"

namespace mossly::html {

// One compound selector of the few the render policy uses: a tag name, and
// optionally an attribute that must be present (`meta[http-equiv]`) or equal a
// value, compared ASCII case-insensitively as HTML does for `rel` and
// `http-equiv` (`link[rel=import]`).
struct ElementPattern {
    QByteArray tag;
    GumboTag gumboTag = GUMBO_TAG_UNKNOWN;  // the parser's own tag, when it has one
    QByteArray attribute;
    std::optional<QByteArray> value;
};

// "a, b[c], d[e=f]"; nothing more is needed.
std::vector<ElementPattern> parseSelectorList(std::string_view selectors);

// A parsed HTML document that elements and attributes can be removed from,
// serialised as an HTML5 serialiser does. Removal only marks: no node moves,
// so every walk stays valid. Not thread-safe; one per parse. Names, values and
// texts it returns may point into the document: use them while it lives.
class HtmlDocument {
  public:
    struct Attribute {
        const GumboAttribute* source;
        QByteArray name;   // lower case, as the parser read it
        QByteArray value;  // entities decoded
    };

    explicit HtmlDocument(QByteArray utf8);

    // False when the parser produced no document (it gave up).
    bool isParsed() const { return parsed_.root() != nullptr; }
    const GumboNode* root() const { return parsed_.root(); }
    const GumboNode* head() const { return parsed_.rootChild(GUMBO_TAG_HEAD); }
    const GumboNode* body() const { return parsed_.rootChild(GUMBO_TAG_BODY); }

    // Elements at and below `from` still in the document, in document order,
    // template contents included.
    std::vector<const GumboNode*> elements(const GumboNode* from) const;
    std::vector<const GumboNode*> select(const GumboNode* from,
                                         const std::vector<ElementPattern>& patterns) const;
    bool matches(const GumboNode* element, const ElementPattern& pattern) const;

    void remove(const GumboNode* node);
    std::vector<Attribute> attributes(const GumboNode* element) const;  // those not removed
    void removeAttribute(const GumboAttribute* attribute);

    // The element's name as the author wrote it, in lower case ("svg", not
    // the name the parser saw).
    QByteArray tagName(const GumboNode* element) const;
    // The text of every text node below `element`, as a browser's textContent.
    QString text(const GumboNode* element) const;
    QString innerHTML(const GumboNode* element) const;

  private:
    struct Frame;
    static bool isRemoved(const GumboNode* node);
    QByteArray originalBytes(const GumboStringPiece& piece) const;
    QByteArray originalName(const GumboStringPiece& tag) const;
    QByteArray decoded(const char* text, const GumboStringPiece& original) const;
    QByteArray textData(const GumboNode* node, bool parentIsRawText) const;
    QByteArray writtenName(const GumboNode* element, bool inForeignContent) const;
    void appendStartTag(QByteArray& out, const GumboNode* element, const QByteArray& name,
                        bool closesItself) const;
    void appendChild(QByteArray& out, std::vector<Frame>& stack, const GumboNode* child) const;

    ParsedHtml parsed_;
};

// The children of an element, a template or the document.
const GumboVector* childrenOf(const GumboNode* node);

// Text and attribute values escaped as an HTML5 serialiser escapes them, and
// `<`, `>` in attribute values too, so that no value can end a raw-text element
// (`<noscript>`) in a parser that reads it differently.
void appendEscapedText(QByteArray& out, const QByteArray& text);
void appendEscapedAttributeValue(QByteArray& out, const QByteArray& value);

}  // namespace mossly::html
