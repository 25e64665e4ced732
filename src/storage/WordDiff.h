#pragma once

#include <QString>
#include <vector>

namespace mossly {

// One run of a word-level comparison of two texts.
struct WordDiffRun {
    enum class Kind { same, removed, added };
    Kind kind = Kind::same;
    QString text;
    bool operator==(const WordDiffRun&) const = default;
};

// The differences from `before` to `after`, word by word (white space is kept
// with the word it follows, so the runs joined give back each text). Texts too
// long to compare word by word in reasonable time come back as one removed
// and one added run.
std::vector<WordDiffRun> wordDiff(const QString& before, const QString& after);

}  // namespace mossly
