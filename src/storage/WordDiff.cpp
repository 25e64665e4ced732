#include "WordDiff.h"

#include <QStringList>

namespace mossly {

namespace {

// Beyond this many word pairs the table would cost too much memory and time.
constexpr qint64 maximumComparisonCells = 16'000'000;

// Words with the white space that follows them.
QStringList tokens(const QString& text) {
    QStringList words;
    qsizetype start = 0;
    qsizetype i = 0;
    while (i < text.size()) {
        while (i < text.size() && !text[i].isSpace()) ++i;
        while (i < text.size() && text[i].isSpace()) ++i;
        words.append(text.mid(start, i - start));
        start = i;
    }
    return words;
}

void append(std::vector<WordDiffRun>& runs, WordDiffRun::Kind kind, const QString& text) {
    if (text.isEmpty()) return;
    if (!runs.empty() && runs.back().kind == kind) {
        runs.back().text += text;
    } else {
        runs.push_back({kind, text});
    }
}

}  // namespace

std::vector<WordDiffRun> wordDiff(const QString& before, const QString& after) {
    const QStringList a = tokens(before);
    const QStringList b = tokens(after);
    // Common beginning and end first: most conflicts differ in a few places.
    qsizetype prefix = 0;
    while (prefix < a.size() && prefix < b.size() && a[prefix] == b[prefix]) ++prefix;
    qsizetype suffix = 0;
    while (suffix < a.size() - prefix && suffix < b.size() - prefix &&
           a[a.size() - 1 - suffix] == b[b.size() - 1 - suffix]) {
        ++suffix;
    }
    std::vector<WordDiffRun> runs;
    for (qsizetype i = 0; i < prefix; ++i) append(runs, WordDiffRun::Kind::same, a[i]);

    const qsizetype n = a.size() - prefix - suffix;
    const qsizetype m = b.size() - prefix - suffix;
    if (static_cast<qint64>(n + 1) * (m + 1) > maximumComparisonCells) {
        for (qsizetype i = 0; i < n; ++i) append(runs, WordDiffRun::Kind::removed, a[prefix + i]);
        for (qsizetype j = 0; j < m; ++j) append(runs, WordDiffRun::Kind::added, b[prefix + j]);
    } else {
        // Longest common subsequence of the middle parts, then walked from the front.
        std::vector<quint32> table(static_cast<size_t>((n + 1) * (m + 1)), 0);
        const auto at = [&](qsizetype i, qsizetype j) -> quint32& { return table[static_cast<size_t>(i * (m + 1) + j)]; };
        for (qsizetype i = n - 1; i >= 0; --i) {
            for (qsizetype j = m - 1; j >= 0; --j) {
                at(i, j) = a[prefix + i] == b[prefix + j] ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
            }
        }
        qsizetype i = 0, j = 0;
        while (i < n || j < m) {
            if (i < n && j < m && a[prefix + i] == b[prefix + j]) {
                append(runs, WordDiffRun::Kind::same, a[prefix + i]);
                ++i;
                ++j;
            } else if (i < n && (j == m || at(i + 1, j) >= at(i, j + 1))) {
                append(runs, WordDiffRun::Kind::removed, a[prefix + i]);  // removed words first, as people read a change
                ++i;
            } else {
                append(runs, WordDiffRun::Kind::added, b[prefix + j]);
                ++j;
            }
        }
    }
    for (qsizetype k = a.size() - suffix; k < a.size(); ++k) append(runs, WordDiffRun::Kind::same, a[k]);
    return runs;
}

}  // namespace mossly
