#pragma once

#include <QFont>
#include <QPalette>
#include <QRectF>
#include <optional>

#include "WebLinkMetadata.h"

class QPainter;

namespace mossly {

// Draws a web link's card: thumbnail, title, description and site name; a
// quiet placeholder while the preview loads, and "Web preview unavailable"
// when the page gave no title.
void paintLinkCard(QPainter& painter, const QRectF& card, const std::optional<WebLinkMetadata>& metadata,
                   const QString& url, const QFont& base, const QPalette& palette);

// How tall a card is for the editor's text size.
double linkCardHeight(const QFont& base);

}  // namespace mossly
