#include "MarkdownText.h"

#include <QtGlobal>
#include <algorithm>

namespace mossly::markdown {

QRegularExpression compilePattern(const QString& pattern, QRegularExpression::PatternOptions options) {
    QRegularExpression expression(pattern, options);
    if (!expression.isValid()) {
        qFatal("Markdown pattern does not compile: %s (%s)", qPrintable(pattern),
               qPrintable(expression.errorString()));
    }
    expression.optimize();
    return expression;
}

TextLines::TextLines(const QString& text) : text_(text) {
    int start = 0;
    const int size = static_cast<int>(text.size());
    while (true) {
        const int newline = static_cast<int>(text.indexOf(u'\n', start));
        starts_.push_back(start);
        ends_.push_back(newline < 0 ? size : newline);
        if (newline < 0) break;
        start = newline + 1;
    }
}

TextRange TextLines::paragraph(int line) const {
    const int end = ends_[line] < text_.size() ? ends_[line] + 1 : ends_[line];
    return {starts_[line], end - starts_[line]};
}

QStringView TextLines::content(int line) const {
    int end = ends_[line];
    if (end > starts_[line] && text_[end - 1] == u'\r') --end;
    return QStringView(text_).sliced(starts_[line], end - starts_[line]);
}

int TextLines::lineAt(int position) const {
    const auto it = std::upper_bound(starts_.begin(), starts_.end(), position);
    return static_cast<int>(it - starts_.begin()) - 1;
}

void RangeSet::add(int start, int end) {
    if (end <= start) return;
    if (!ranges_.empty() && start < ranges_.back().start) sorted_ = false;
    ranges_.push_back({start, end - start});
}

void RangeSet::normalise() {
    if (!sorted_) {
        std::sort(ranges_.begin(), ranges_.end(),
                  [](const TextRange& a, const TextRange& b) { return a.start < b.start; });
        sorted_ = true;
    }
    std::vector<TextRange> merged;
    merged.reserve(ranges_.size());
    for (const TextRange& range : ranges_) {
        if (!merged.empty() && range.start <= merged.back().end()) {
            merged.back().length = std::max(merged.back().end(), range.end()) - merged.back().start;
        } else {
            merged.push_back(range);
        }
    }
    ranges_ = std::move(merged);
}

namespace {

// The first range whose end lies after `position`.
std::vector<TextRange>::const_iterator firstEndingAfter(const std::vector<TextRange>& ranges, int position) {
    return std::upper_bound(ranges.begin(), ranges.end(), position,
                            [](int value, const TextRange& range) { return value < range.end(); });
}

}  // namespace

bool RangeSet::intersects(int start, int end) const {
    const auto it = firstEndingAfter(ranges_, start);
    return it != ranges_.end() && it->start < end;
}

bool RangeSet::contains(int position) const {
    return intersects(position, position + 1);
}

bool RangeSet::straddles(int start, int end) const {
    for (auto it = firstEndingAfter(ranges_, start); it != ranges_.end() && it->start < end; ++it) {
        if (it->start < start || it->end() > end) return true;
    }
    return false;
}

int RangeSet::skipFrom(int position) const {
    const auto it = firstEndingAfter(ranges_, position);
    if (it != ranges_.end() && it->start <= position) return it->end();
    return position + 1;
}

QString withValidUtf16(const QString& text) {
    QString valid = text;  // shared until a surrogate needs replacing
    const qsizetype size = text.size();
    for (qsizetype i = 0; i < size; ++i) {
        const QChar c = text[i];
        if (c.isHighSurrogate() && i + 1 < size && text[i + 1].isLowSurrogate()) {
            ++i;
        } else if (c.isSurrogate()) {
            valid[i] = QChar::ReplacementCharacter;
        }
    }
    return valid;
}

int columnsOf(QStringView text) {
    int columns = 0;
    for (const QChar c : text) columns = c == u'\t' ? (columns / 4 + 1) * 4 : columns + 1;
    return columns;
}

}  // namespace mossly::markdown
