#pragma once

#include <QRegularExpression>
#include <QString>
#include <QStringView>
#include <vector>

#include "MarkdownStyle.h"

// Small text utilities shared by the block scans and the styler.
namespace mossly::markdown {

// A pattern that fails to compile is a programming fault: this stops the program.
QRegularExpression compilePattern(const QString& pattern, QRegularExpression::PatternOptions options = {});

// Line boundaries of a text, computed once per pass. A line ends before its '\n';
// `content` additionally drops a '\r' before it so that "$" behaves on CRLF text.
class TextLines {
  public:
    explicit TextLines(const QString& text);

    int count() const { return static_cast<int>(starts_.size()); }
    int start(int line) const { return starts_[line]; }
    int end(int line) const { return ends_[line]; }
    // The line including its line break, for paragraph attributes.
    TextRange paragraph(int line) const;
    QStringView content(int line) const;
    int lineAt(int position) const;

  private:
    const QString& text_;
    std::vector<int> starts_;
    std::vector<int> ends_;
};

// Sorted, merged ranges with fast intersection queries.
class RangeSet {
  public:
    void add(int start, int end);
    void add(TextRange range) { add(range.start, range.end()); }
    // Sorts and merges; call after the last add and before queries.
    void normalise();

    bool intersects(int start, int end) const;
    bool contains(int position) const;
    // True when [start, end) cuts through a range instead of holding it whole.
    bool straddles(int start, int end) const;
    // The end of the range holding `position`, else position + 1.
    int skipFrom(int position) const;
    const std::vector<TextRange>& ranges() const { return ranges_; }

  private:
    std::vector<TextRange> ranges_;
    bool sorted_ = true;
};

// The text with every unpaired surrogate replaced by U+FFFD: the same length, so
// every index stays valid, and safe to search without a per-search check.
QString withValidUtf16(const QString& text);

// Display columns of leading text, a tab advancing to the next multiple of four.
int columnsOf(QStringView text);

// What a visitor of forEachMatch did with a match.
enum class MatchVerdict {
    take,   // styled: the search resumes after the match
    skip,   // refused: the search resumes after the match
    retry,  // refused: the search resumes at the next character, so a shorter match
            // starting further on is not lost
};

// Calls `visit` with every match from left to right, searching from `from` to the
// end of `text`. A match intersecting `exclusions` is refused without a visit and the
// search resumes past the excluded range holding its start (or at its next
// character). `text` must be valid UTF-16 (see withValidUtf16).
template <typename Visit>
void forEachMatch(const QRegularExpression& pattern, QStringView text, const RangeSet& exclusions,
                  Visit&& visit, qsizetype from = 0) {
    qsizetype offset = from;
    while (offset <= text.size()) {
        // Checking the whole subject on every search would make a scan quadratic.
        const QRegularExpressionMatch match =
            pattern.match(text, offset, QRegularExpression::NormalMatch,
                          QRegularExpression::DontCheckSubjectStringMatchOption);
        if (!match.hasMatch()) return;
        const int start = static_cast<int>(match.capturedStart());
        const int end = static_cast<int>(match.capturedEnd());
        const int next = end > start ? end : start + 1;
        if (exclusions.intersects(start, next)) {
            offset = exclusions.contains(start) ? exclusions.skipFrom(start) : start + 1;
            continue;
        }
        switch (visit(match)) {
            case MatchVerdict::take:
            case MatchVerdict::skip:
                offset = next;
                break;
            case MatchVerdict::retry:
                offset = start + 1;
                break;
        }
    }
}

}  // namespace mossly::markdown
