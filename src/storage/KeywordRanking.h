#pragma once

// Internal to the catalog: BM25 computed from one pass over the matches, with
// what it needs of each note held in memory instead of looked up per row.

#include <QByteArray>
#include <QtGlobal>
#include <optional>
#include <span>
#include <vector>

#include "Error.h"

struct sqlite3;

namespace mossly {

class SqliteDatabase;

// Every listed note's rowid, token count (all columns) and title as SQLite's
// lower() sees it, in rowid order. Rebuilt whenever the catalog changed.
class KeywordRankingSnapshot {
public:
    static Result<KeywordRankingSnapshot> load(SqliteDatabase& db);
    // As bytes and back, for a file beside the catalog; bytes that are not a
    // whole, ordered snapshot read as nothing.
    QByteArray serialised() const;
    static std::optional<KeywordRankingSnapshot> fromSerialised(QByteArrayView bytes);

    // The position of `rowid` at or after `from`, or -1 if it has no metadata
    // row. Cheap when rowids are looked up in ascending order.
    qsizetype findFrom(qsizetype from, qint64 rowid) const;
    qint64 rowid(qsizetype index) const { return rowids_[static_cast<size_t>(index)]; }
    int tokenCount(qsizetype index) const { return tokenCounts_[static_cast<size_t>(index)]; }
    // The notes whose title holds `loweredQuery` (bonus 2) or is it (bonus 5), by position.
    struct TitleHit {
        qsizetype index;
        double bonus;
    };
    std::vector<TitleHit> titleHits(const QByteArray& loweredQuery) const;
    qsizetype size() const { return static_cast<qsizetype>(rowids_.size()); }

private:
    std::vector<qint64> rowids_;
    std::vector<int> tokenCounts_;
    QByteArray titles_;                 // every lowered title, back to back
    std::vector<qsizetype> titleEnds_;  // where each one ends in `titles_`
};

// What one pass over the matches collects: per row, how often each phrase of
// the query occurs (title hits weighted 8, body hits 1), and per phrase the
// number of rows holding it. Filled by the `mossly_phrase_frequencies`
// auxiliary function while the catalog steps through a MATCH.
// With `presenceOnly`, each row's phrases are recorded as bits, not counted.
struct PhraseFrequencyScan {
    static constexpr int maximumPresencePhrases = 64;
    bool presenceOnly = false;
    int phraseCount = 0;
    std::vector<qint64> rowids;
    std::vector<double> frequencies;  // phraseCount per row
    std::vector<quint64> presence;    // bit i: the row holds phrase i
    // Rows (ascending) whose frequencies a presence scan records as well, and those frequencies.
    std::vector<qint64> wanted;
    size_t wantedCursor = 0;
    std::vector<double> wantedFrequencies;  // phraseCount per wanted row
    std::vector<char> wantedMatched;        // whether each wanted row was among the matches
    std::vector<qint64> rowsWithPhrase;
    qint64 rowCount = 0;     // every full-text row, as FTS5 counts for BM25
    qint64 totalTokens = 0;  // over all columns
    bool started = false;
    bool failed = false;

    void reset(bool onlyPresence);
};

namespace KeywordRanking {

// Registers the auxiliary function on this connection; `scan` is where each
// call writes, and must outlive the connection.
Result<void> registerPhraseFrequencies(sqlite3* db, PhraseFrequencyScan** scan);

// FTS5's inverse document frequency and BM25 (k1 = 1.2, b = 0.75), the same
// operations in the same order, so the values are bit for bit the ones
// bm25(note_fts, 0.0, 8.0, 1.0) returns.
std::vector<double> inverseDocumentFrequencies(const PhraseFrequencyScan& scan);
double bm25(std::span<const double> frequencies, std::span<const double> idf, int tokenCount,
            double averageLength);
// No row holding exactly the phrases in `presence` has a lower BM25 than this
// (each phrase adds less than idf·(k1+1)), whatever its frequencies and length.
double lowestBm25(quint64 presence, std::span<const double> idf);

}  // namespace KeywordRanking

}  // namespace mossly
