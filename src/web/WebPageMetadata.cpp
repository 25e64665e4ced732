#include "WebPageMetadata.h"

#include <QHash>
#include <QUrl>

#include "HtmlParsing.h"

namespace mossly {

namespace {

using namespace html;

std::optional<QString> nonEmpty(const QString& text) {
    const QString simplified = text.simplified();
    return simplified.isEmpty() ? std::nullopt : std::optional(simplified);
}

QString textOf(const GumboNode* element) {
    QString text;
    const GumboVector& children = element->v.element.children;
    for (unsigned i = 0; i < children.length; ++i) {
        const auto* child = static_cast<const GumboNode*>(children.data[i]);
        if (child->type == GUMBO_NODE_TEXT || child->type == GUMBO_NODE_WHITESPACE) {
            text += QString::fromUtf8(child->v.text.text);
        }
    }
    return text;
}

}  // namespace

WebPageMetadata parseWebPageMetadata(const QByteArray& html, const QString& finalURL) {
    const ParsedHtml parsed(html);
    QHash<QString, QString> byProperty;
    QHash<QString, QString> byName;
    std::optional<QString> titleElement;
    forEachElement(parsed.document(), [&](const GumboNode* node) {
        if (node->v.element.tag == GUMBO_TAG_TITLE && !titleElement) {
            titleElement = textOf(node);
            return;
        }
        if (node->v.element.tag != GUMBO_TAG_META) return;
        const QString content = attribute(node, "content");
        // The first tag of a kind wins, as a selector query would find it.
        if (const QString property = attribute(node, "property").toLower(); !property.isEmpty()) {
            if (!byProperty.contains(property)) byProperty.insert(property, content);
        }
        if (const QString name = attribute(node, "name").toLower(); !name.isEmpty()) {
            if (!byName.contains(name)) byName.insert(name, content);
        }
    });
    const auto meta = [&](const QString& key) -> std::optional<QString> {
        if (auto value = nonEmpty(byProperty.value(key))) return value;
        return nonEmpty(byName.value(key));
    };

    WebPageMetadata metadata;
    metadata.title = meta(QStringLiteral("og:title"));
    if (!metadata.title && titleElement) metadata.title = nonEmpty(*titleElement);
    metadata.summary = meta(QStringLiteral("og:description"));
    if (!metadata.summary) metadata.summary = meta(QStringLiteral("description"));
    metadata.siteName = meta(QStringLiteral("og:site_name"));
    if (const auto image = meta(QStringLiteral("og:image"))) {
        const QUrl resolved = QUrl(finalURL).resolved(QUrl(*image));
        if (resolved.isValid()) metadata.imageURL = resolved.toString();
    }
    return metadata;
}

}  // namespace mossly
