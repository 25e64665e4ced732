#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>
#include <QTextCharFormat>

#include "MarkdownStyle.h"

namespace mossly {

// Turns the styling engine's roles into Qt fonts and colours for one palette.
class MarkdownFormats {
public:
    MarkdownFormats(const QFont& baseFont, const QPalette& palette);

    QColor colour(markdown::ColourRole role) const;
    // The character format of a run over the base format.
    QTextCharFormat charFormat(const markdown::StyleAttributes& attributes) const;
    QFont font(markdown::FontRole role, double pointSize, bool bold, bool italic) const;
    const QFont& baseFont() const { return base_; }
    bool isDark() const { return dark_; }

private:
    QFont base_;
    QPalette palette_;
    bool dark_;
};

}  // namespace mossly
