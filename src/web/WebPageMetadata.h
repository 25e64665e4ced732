#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace mossly {

// What a page says about itself, from its meta tags and title.
struct WebPageMetadata {
    std::optional<QString> title;
    std::optional<QString> summary;
    std::optional<QString> siteName;
    std::optional<QString> imageURL;  // absolute, resolved against the page's final address
};

// Reads og:title / <title>, og:description / description, og:site_name and
// og:image (each from meta[property] first, then meta[name]).
WebPageMetadata parseWebPageMetadata(const QByteArray& html, const QString& finalURL);

}  // namespace mossly
