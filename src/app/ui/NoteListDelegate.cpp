#include "NoteListDelegate.h"

#include <QApplication>
#include <QDateTime>
#include <QLocale>
#include <QPainter>
#include <QPixmapCache>
#include <QRegularExpression>

#include "NoteListModel.h"

namespace mossly {

namespace {

constexpr int padding = 8;

// As file managers write dates: today's time (no seconds), "Yesterday", else the locale's short date.
QString shortDate(const QDateTime& time) {
    const QDateTime local = time.toLocalTime();
    const QDate today = QDate::currentDate();
    if (local.date() == today) {
        static const QRegularExpression seconds(QStringLiteral("[:.]ss"));
        return QLocale().toString(local.time(), QLocale().timeFormat(QLocale::ShortFormat).remove(seconds));
    }
    if (local.date() == today.addDays(-1)) return QObject::tr("Yesterday");
    return QLocale().toString(local.date(), QLocale::ShortFormat);
}

}  // namespace

void NoteListDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const {
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    QApplication::style()->drawControl(QStyle::CE_ItemViewItem, &background, painter, option.widget);

    const bool selected = option.state & QStyle::State_Selected;
    const QPalette& palette = option.palette;
    QFont titleFont = option.font;
    titleFont.setBold(true);
    const QFontMetrics titleMetrics(titleFont);
    const QFontMetrics bodyMetrics(option.font);

    // A sketch shows a picture of itself at the right: the row's full height, up to twice as wide,
    // drawn whole (never cropped) on a light frame.
    QRect area = option.rect.adjusted(padding, padding / 2, -padding, -padding / 2);
    if (const QString thumbnail = index.data(NoteListModel::ThumbnailRole).toString(); !thumbnail.isEmpty()) {
        QPixmap picture;
        if (!QPixmapCache::find(thumbnail, &picture) && picture.load(thumbnail)) QPixmapCache::insert(thumbnail, picture);
        if (!picture.isNull()) {
            const QRect frame(option.rect.right() - padding - 2 * option.rect.height() + 3, option.rect.top() + 1,
                              2 * option.rect.height() - 4, option.rect.height() - 2);
            const QSize size = picture.size().scaled(frame.size() - QSize(2, 2), Qt::KeepAspectRatio);
            const QRect target(frame.center() - QPoint(size.width() / 2, size.height() / 2), size);
            painter->save();
            painter->setRenderHint(QPainter::SmoothPixmapTransform);
            painter->fillRect(frame, option.palette.color(QPalette::Base));
            painter->setPen(option.palette.color(QPalette::Mid));
            painter->drawRect(frame.adjusted(0, 0, -1, -1));
            painter->drawPixmap(target, picture);
            painter->restore();
            area.setRight(frame.left() - padding);
        }
    }
    const QString date = shortDate(index.data(NoteListModel::ModifiedRole).toDateTime());
    const int dateWidth = bodyMetrics.horizontalAdvance(date) + padding;
    painter->save();
    painter->setFont(titleFont);
    painter->setPen(palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
    QRect titleRect(area.left(), area.top(), area.width() - dateWidth, titleMetrics.height());
    if (index.data(NoteListModel::FavoriteRole).toBool()) {
        // Favourites carry a star before their title.
        const QString star = QStringLiteral("\u2605 ");
        painter->drawText(titleRect, Qt::AlignLeft | Qt::AlignVCenter, star);
        titleRect.setLeft(titleRect.left() + titleMetrics.horizontalAdvance(star));
    }
    painter->drawText(titleRect, Qt::AlignLeft | Qt::AlignVCenter,
                      titleMetrics.elidedText(index.data(NoteListModel::TitleRole).toString(), Qt::ElideRight,
                                              titleRect.width()));
    painter->setFont(option.font);
    painter->setPen(palette.color(selected ? QPalette::HighlightedText : QPalette::PlaceholderText));
    painter->drawText(QRect(area.right() - dateWidth, area.top(), dateWidth, titleMetrics.height()),
                      Qt::AlignRight | Qt::AlignVCenter, date);
    const QRect excerptRect(area.left(), titleRect.bottom() + 2, area.width(), bodyMetrics.height());
    painter->drawText(excerptRect, Qt::AlignLeft | Qt::AlignVCenter,
                      bodyMetrics.elidedText(index.data(NoteListModel::ExcerptRole).toString().simplified(),
                                             Qt::ElideRight, excerptRect.width()));
    painter->restore();
}

QSize NoteListDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    QFont titleFont = option.font;
    titleFont.setBold(true);
    return {200, QFontMetrics(titleFont).height() + QFontMetrics(option.font).height() + padding + 2};
}

}  // namespace mossly
