#include "LinkCardPainter.h"

#include <QFontMetricsF>
#include <QImage>
#include <QObject>
#include <QPainter>
#include <QPainterPath>

#include "WebLinkMetadataService.h"

namespace mossly {

double linkCardHeight(const QFont& base) { return std::round(QFontMetricsF(base).height() * 4.4); }

void paintLinkCard(QPainter& painter, const QRectF& card, const std::optional<WebLinkMetadata>& metadata,
                   const QString& url, const QFont& base, const QPalette& palette) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath outline;
    outline.addRoundedRect(card.adjusted(0.5, 0.5, -0.5, -0.5), 8, 8);
    painter.fillPath(outline, palette.color(QPalette::AlternateBase));
    painter.setPen(QPen(palette.color(QPalette::Mid), 1));
    painter.drawPath(outline);

    const double padding = 10;
    QRectF text = card.adjusted(padding, padding, -padding, -padding);
    if (metadata && metadata->thumbnailData) {
        const QImage image = QImage::fromData(*metadata->thumbnailData);
        if (!image.isNull()) {
            const double side = card.height() - 2 * padding;
            const QRectF box(card.right() - padding - side * 1.5, card.top() + padding, side * 1.5, side);
            const QImage scaled = image.scaled(box.size().toSize(), Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
            QPainterPath clip;
            clip.addRoundedRect(box, 6, 6);
            painter.setClipPath(clip);
            painter.drawImage(box.topLeft(), scaled, QRectF(QPointF((scaled.width() - box.width()) / 2, (scaled.height() - box.height()) / 2), box.size()));
            painter.setClipping(false);
            text.setRight(box.left() - padding);
        }
    }

    QFont titleFont = base;
    titleFont.setBold(true);
    QFont small = base;
    small.setPointSizeF(base.pointSizeF() * 0.85);
    const QString title = !metadata ? QObject::tr("Loading preview…")
                          : metadata->title ? *metadata->title
                                            : QObject::tr("Web preview unavailable");
    // While loading, the host alone: the address may carry a user name and password.
    const QString site = metadata ? metadata->siteName : WebLinkMetadataService::hostOnly(url).siteName;
    const QFontMetricsF titleMetrics(titleFont);
    const QFontMetricsF smallMetrics(small);

    painter.setPen(palette.color(metadata && metadata->title ? QPalette::Text : QPalette::PlaceholderText));
    painter.setFont(titleFont);
    painter.drawText(QPointF(text.left(), text.top() + titleMetrics.ascent()),
                     titleMetrics.elidedText(title, Qt::ElideRight, text.width()));
    double y = text.top() + titleMetrics.height() + 2;
    painter.setFont(small);
    if (metadata && metadata->summary) {
        painter.setPen(palette.color(QPalette::Text));
        const QRectF summary(text.left(), y, text.width(), smallMetrics.height() * 2);
        painter.drawText(summary, Qt::TextWordWrap | Qt::AlignTop | Qt::AlignLeft,
                         smallMetrics.elidedText(*metadata->summary, Qt::ElideRight, text.width() * 1.9));
    }
    painter.setPen(palette.color(QPalette::PlaceholderText));
    painter.drawText(QPointF(text.left(), text.bottom() - smallMetrics.descent()),
                     smallMetrics.elidedText(site, Qt::ElideMiddle, text.width()));
    painter.restore();
}

}  // namespace mossly
