#include "AppIcon.h"

#include <QBuffer>
#include <QPainter>
#include <QPainterPath>

namespace mossly {

QImage renderAppIcon(int size) {
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;

    QLinearGradient background(0, 0, 0, s);
    background.setColorAt(0, QColor(0x7c, 0xb3, 0x5a));
    background.setColorAt(1, QColor(0x3f, 0x6e, 0x2e));
    painter.setPen(Qt::NoPen);
    painter.setBrush(background);
    painter.drawRoundedRect(QRectF(s * 0.04, s * 0.04, s * 0.92, s * 0.92), s * 0.2, s * 0.2);

    // A leaf: two arcs meeting at the tips, with a vein.
    QPainterPath leaf;
    leaf.moveTo(s * 0.26, s * 0.74);
    leaf.cubicTo(s * 0.22, s * 0.40, s * 0.46, s * 0.22, s * 0.76, s * 0.24);
    leaf.cubicTo(s * 0.78, s * 0.54, s * 0.60, s * 0.78, s * 0.26, s * 0.74);
    painter.setBrush(QColor(0xf4, 0xf1, 0xe4));
    painter.drawPath(leaf);
    painter.setPen(QPen(QColor(0x4c, 0x7f, 0x36), s * 0.03, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(s * 0.28, s * 0.72), QPointF(s * 0.66, s * 0.36));
    return image;
}

QIcon appIcon() {
    QIcon icon;
    for (int size : {16, 32, 64, 128, 256}) icon.addPixmap(QPixmap::fromImage(renderAppIcon(size)));
    return icon;
}

QByteArray appIconPng(int size) {
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    renderAppIcon(size).save(&buffer, "PNG");
    return png;
}

}  // namespace mossly
