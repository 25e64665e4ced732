#include "MarkdownFormats.h"

#include <algorithm>

#include <QFontDatabase>

namespace mossly {

using namespace markdown;

namespace {

// "STIX Two Math" where it is installed (fonts-stix); otherwise "Times New
// Roman", which fontconfig maps to the desktop's metric-compatible serif.
QString mathFamily() {
    static const QString family = QFontDatabase::hasFamily(QStringLiteral("STIX Two Math"))
                                      ? QStringLiteral("STIX Two Math")
                                      : QStringLiteral("Times New Roman");
    return family;
}

}  // namespace

MarkdownFormats::MarkdownFormats(const QFont& baseFont, const QPalette& palette)
    : base_(baseFont), palette_(palette), dark_(palette.color(QPalette::Base).lightness() < 128) {}

QColor MarkdownFormats::colour(ColourRole role) const {
    const auto pick = [this](QColor light, QColor dark) { return dark_ ? dark : light; };
    QColor text = palette_.color(QPalette::Text);
    switch (role) {
        case ColourRole::label: return text;
        case ColourRole::secondaryLabel: text.setAlphaF(0.62f); return text;
        case ColourRole::tertiaryLabel: text.setAlphaF(0.4f); return text;
        case ColourRole::quaternaryLabel: text.setAlphaF(0.2f); return text;
        case ColourRole::placeholder: return palette_.color(QPalette::PlaceholderText);
        case ColourRole::link: return palette_.color(QPalette::Link);
        case ColourRole::systemPurple: return pick(QColor(0x8e, 0x44, 0xad), QColor(0xbf, 0x5a, 0xf2));
        case ColourRole::systemBlue: return pick(QColor(0x00, 0x6e, 0xe6), QColor(0x40, 0x9c, 0xff));
        case ColourRole::systemPink: return pick(QColor(0xd6, 0x2e, 0x6e), QColor(0xff, 0x4d, 0x8d));
        case ColourRole::systemGreen: return pick(QColor(0x2e, 0x8b, 0x3e), QColor(0x32, 0xd7, 0x4b));
        case ColourRole::systemTeal: return pick(QColor(0x1a, 0x8a, 0x99), QColor(0x40, 0xc8, 0xe0));
        case ColourRole::systemOrange: return pick(QColor(0xc8, 0x5a, 0x00), QColor(0xff, 0x9f, 0x0a));
        case ColourRole::systemYellow: return pick(QColor(0xe6, 0xb8, 0x00), QColor(0xff, 0xd6, 0x0a));
    }
    return text;
}

QFont MarkdownFormats::font(FontRole role, double pointSize, bool bold, bool italic) const {
    QFont font = base_;
    if (role == FontRole::monospace) font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    if (role == FontRole::math) font.setFamily(mathFamily());
    font.setPointSizeF(pointSize);
    if (bold) font.setBold(true);
    if (italic) font.setItalic(true);
    return font;
}

QTextCharFormat MarkdownFormats::charFormat(const StyleAttributes& a) const {
    QTextCharFormat format;
    if (a.hidden) {
        // Zero width, still in the text: the caret and copy see the characters.
        QFont tiny = base_;
        tiny.setPointSizeF(0.1);
        format.setFont(tiny, QTextCharFormat::FontPropertiesAll);
        format.setForeground(Qt::transparent);
        format.setBackground(Qt::transparent);
        return format;
    }
    const double size = a.pointSize.value_or(base_.pointSizeF());
    if (a.font || a.pointSize || a.bold || a.italic) {
        format.setFont(font(a.font.value_or(FontRole::body), size, a.bold, a.italic),
                       QTextCharFormat::FontPropertiesAll);
    }
    if (a.colour) format.setForeground(colour(*a.colour));
    if (a.background) {
        QColor background = colour(a.background->colour);
        background.setAlphaF(static_cast<float>(background.alphaF() * a.background->opacity));
        format.setBackground(background);
    }
    if (a.strikethrough) format.setFontStrikeOut(true);
    if (a.baselineOffset && *a.baselineOffset != 0) {
        // The style's own size and offset (in points); Qt's super/subscript
        // alignment would shrink the text a second time and pick its own shift.
        format.setVerticalAlignment(QTextCharFormat::AlignNormal);
        format.setBaselineOffset(100.0 * *a.baselineOffset / std::max(size, 1.0));
    }
    if (a.link) {
        format.setAnchor(true);
        format.setAnchorHref(a.link->url);
        format.setForeground(colour(ColourRole::link));
        format.setFontUnderline(false);
    }
    return format;
}

}  // namespace mossly
