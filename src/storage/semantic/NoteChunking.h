#pragma once

#include <QString>
#include <QStringList>

namespace mossly::NoteChunking {

// How a note's text is cut for meaning search. A chunk gathers whole
// paragraphs until it holds about `targetWords`; a paragraph longer than
// twice that is cut at sentence ends (or, failing those, between words).
// Word vectors averaged over a few hundred words still say what the passage
// is about, and fewer chunks keep the index small: a long note gets longer
// chunks rather than more than `maximumChunks`.
struct Sizes {
    int targetWords = 200;
    int maximumChunks = 32;
};

// The chunks' texts, trimmed, in order; empty for a text without words.
QStringList chunks(const QString& text, Sizes sizes = {});

}  // namespace mossly::NoteChunking
