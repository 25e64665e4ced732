#include "HtmlBodyEditing.h"

#include "HtmlParsing.h"

namespace mossly {

namespace {

bool hasExplicitTags(const GumboNode* element) {
    return element && element->v.element.original_tag.length > 0 && element->v.element.original_end_tag.length > 0;
}

bool isBareFragment(const html::ParsedHtml& parsed) {
    const GumboNode* head = parsed.rootChild(GUMBO_TAG_HEAD);
    const GumboNode* root = parsed.root();
    const GumboNode* document = parsed.document();
    if (!root || !head || !document) return false;
    return root->v.element.original_tag.length == 0 && head->v.element.original_tag.length == 0 &&
           head->v.element.children.length == 0 && !document->v.document.has_doctype;
}

}  // namespace

std::optional<QString> replacingBodyContent(const QString& source, const QString& editedBody) {
    const html::ParsedHtml parsed(source.toUtf8());
    const GumboNode* body = parsed.rootChild(GUMBO_TAG_BODY);
    if (!body) return std::nullopt;
    if (!hasExplicitTags(body)) {
        if (isBareFragment(parsed)) return editedBody;
        return std::nullopt;
    }
    const auto opening = parsed.span(body->v.element.original_tag);
    const auto closing = parsed.span(body->v.element.original_end_tag);
    if (!opening || !closing || closing->first < opening->second) return std::nullopt;
    const QByteArray& bytes = parsed.bytes();
    return QString::fromUtf8(bytes.left(opening->second)) + editedBody + QString::fromUtf8(bytes.mid(closing->first));
}

}  // namespace mossly
