#pragma once

#include <QString>
#include <QStringList>
#include <cstdint>

namespace mossly::bench {

// A deterministic synthetic notes library: Zipf-distributed vocabulary,
// log-normal note sizes with a long tail, headings, lists, some front matter,
// some accented words, a few sub-folders. The same seed gives the same bytes.
struct GeneratedFolder {
    QStringList wordsPresent;  // every word used at least once
    QStringList mostCommon;    // the 50 most frequent words
    qint64 noteCount = 0;
    qint64 totalBytes = 0;
};

GeneratedFolder generateNotesFolder(const QString& directory, int noteCount, std::uint64_t seed);

// Rewrites `fraction` of the notes (chosen by `seed`) with new text.
int touchNotes(const QString& directory, double fraction, std::uint64_t seed);

// Queries of 1-3 words drawn uniformly from `words`.
QStringList uniformQueries(const QStringList& words, int count, std::uint64_t seed);

}  // namespace mossly::bench
