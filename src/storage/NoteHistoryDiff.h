#pragma once

#include <QString>
#include <vector>

namespace mossly {

// One run of a word-level comparison of two texts.
struct NoteTextChange {
    enum class Kind { same, removed, inserted };
    Kind kind;
    QString text;
    bool operator==(const NoteTextChange&) const = default;
};

// What changed from `before` to `after`, word by word: words, runs of white
// space and single punctuation marks are the units. Runs of one kind are
// merged; concatenating the `same` and `removed` runs gives `before`, the
// `same` and `inserted` runs give `after`. Texts that differ in more than a
// few thousand units show the differing middle as removed and inserted whole.
std::vector<NoteTextChange> wordDiff(const QString& before, const QString& after);

}  // namespace mossly
