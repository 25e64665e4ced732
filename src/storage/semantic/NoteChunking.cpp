#include "NoteChunking.h"

#include <algorithm>
#include <vector>

namespace mossly::NoteChunking {

namespace {

struct Span {
    qsizetype start;
    qsizetype end;
    int words;
};

bool isWordCharacter(QChar c) { return c.isLetterOrNumber(); }

// Where each word starts, in `text` between `start` and `end`.
std::vector<qsizetype> wordStarts(const QString& text, qsizetype start, qsizetype end) {
    std::vector<qsizetype> starts;
    bool inWord = false;
    for (qsizetype i = start; i < end; ++i) {
        const bool word = isWordCharacter(text[i]);
        if (word && !inWord) starts.push_back(i);
        inWord = word;
    }
    return starts;
}

// Paragraphs: runs of text between blank lines.
std::vector<Span> paragraphs(const QString& text) {
    std::vector<Span> found;
    qsizetype start = 0;
    const qsizetype size = text.size();
    while (start < size) {
        qsizetype end = text.indexOf(QStringLiteral("\n\n"), start);
        if (end < 0) end = size;
        const int words = static_cast<int>(wordStarts(text, start, end).size());
        if (words > 0) found.push_back({start, end, words});
        start = end + 2;
    }
    return found;
}

// A long paragraph in pieces of about `target` words, cut after a sentence end
// where one lies in the second half of a piece, else before a word.
void splitLong(const QString& text, const Span& paragraph, int target, std::vector<Span>& out) {
    const std::vector<qsizetype> starts = wordStarts(text, paragraph.start, paragraph.end);
    size_t first = 0;
    qsizetype pieceStart = paragraph.start;
    while (first < starts.size()) {
        size_t last = std::min(starts.size(), first + static_cast<size_t>(target));
        if (last < starts.size()) {
            for (size_t cut = last; cut > first + static_cast<size_t>(target) / 2; --cut) {
                const QChar before = text[starts[cut] - 1] == u' ' && starts[cut] >= 2 ? text[starts[cut] - 2] : QChar();
                if (before == u'.' || before == u'?' || before == u'!' || text[starts[cut] - 1] == u'\n') {
                    last = cut;
                    break;
                }
            }
        }
        const qsizetype pieceEnd = last < starts.size() ? starts[last] : paragraph.end;
        out.push_back({pieceStart, pieceEnd, static_cast<int>(last - first)});
        pieceStart = pieceEnd;
        first = last;
    }
}

}  // namespace

QStringList chunks(const QString& text, Sizes sizes) {
    const std::vector<Span> found = paragraphs(text);
    qsizetype totalWords = 0;
    for (const Span& p : found) totalWords += p.words;
    if (totalWords == 0) return {};
    const int target = static_cast<int>(std::max<qsizetype>(
        sizes.targetWords, (totalWords + sizes.maximumChunks - 1) / sizes.maximumChunks));

    std::vector<Span> pieces;
    for (const Span& p : found) {
        if (p.words > 2 * target) {
            splitLong(text, p, target, pieces);
        } else {
            pieces.push_back(p);
        }
    }
    std::vector<Span> gathered;
    Span current{-1, 0, 0};
    const auto flush = [&] {
        if (current.start >= 0) gathered.push_back(current);
        current = {-1, 0, 0};
    };
    for (const Span& piece : pieces) {
        // A piece that would take the chunk well past its size starts the next one.
        if (current.start >= 0 && current.words + piece.words > target + target / 2) flush();
        if (current.start < 0) current.start = piece.start;
        current.end = piece.end;
        current.words += piece.words;
        if (current.words >= target) flush();
    }
    flush();
    // A short tail joins the chunk before it rather than standing alone.
    if (gathered.size() > 1 && gathered.back().words < target / 2) {
        gathered[gathered.size() - 2].end = gathered.back().end;
        gathered.pop_back();
    }
    QStringList result;
    for (const Span& chunk : gathered) result.append(text.mid(chunk.start, chunk.end - chunk.start).trimmed());
    return result;
}

}  // namespace mossly::NoteChunking
