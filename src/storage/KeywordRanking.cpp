#include "KeywordRanking.h"

#include <QtEndian>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "SqliteDatabase.h"

namespace mossly {

namespace {

// The column weights of the ranking: identifier (never indexed), title, body.
constexpr double columnWeights[] = {0.0, 8.0, 1.0};

// FTS5 stores each row's token counts as SQLite varints, one per column.
int sumOfVarints(const QByteArray& blob) {
    int sum = 0;
    quint64 value = 0;
    int length = 0;
    for (const char byte : blob) {
        const auto bits = static_cast<unsigned char>(byte);
        if (++length == 9) {  // the ninth byte carries eight bits
            sum += static_cast<int>((value << 8) | bits);
            value = 0;
            length = 0;
            continue;
        }
        value = (value << 7) | (bits & 0x7f);
        if (!(bits & 0x80)) {
            sum += static_cast<int>(value);
            value = 0;
            length = 0;
        }
    }
    return sum;
}

// How often `phrase` occurs in the current row, title hits weighted 8.
struct PhraseCount {
    double frequency = 0;
    bool found = false;
    bool readable = true;
};

PhraseCount phraseFrequency(const Fts5ExtensionApi* api, Fts5Context* fts, int phrase) {
    Fts5PhraseIter iterator;
    int column = 0;
    int offset = 0;
    PhraseCount count;
    if (api->xPhraseFirst(fts, phrase, &iterator, &column, &offset) != SQLITE_OK) return {0, false, false};
    for (; column >= 0; api->xPhraseNext(fts, &iterator, &column, &offset)) {
        count.frequency += column < 3 ? columnWeights[column] : 1.0;
        count.found = true;
    }
    return count;
}

bool startScan(const Fts5ExtensionApi* api, Fts5Context* fts, PhraseFrequencyScan& scan) {
    scan.started = true;
    scan.phraseCount = api->xPhraseCount(fts);
    if (scan.presenceOnly && scan.phraseCount > PhraseFrequencyScan::maximumPresencePhrases) return false;
    scan.rowsWithPhrase.assign(static_cast<size_t>(scan.phraseCount), 0);
    scan.wantedFrequencies.assign(scan.wanted.size() * static_cast<size_t>(scan.phraseCount), 0.0);
    scan.wantedMatched.assign(scan.wanted.size(), 0);
    return api->xRowCount(fts, &scan.rowCount) == SQLITE_OK &&
           api->xColumnTotalSize(fts, -1, &scan.totalTokens) == SQLITE_OK;
}

// Presence bits for every row; frequencies too for the wanted ones.
bool recordPresence(const Fts5ExtensionApi* api, Fts5Context* fts, PhraseFrequencyScan& scan, qint64 rowid) {
    const auto phrases = static_cast<size_t>(scan.phraseCount);
    while (scan.wantedCursor < scan.wanted.size() && scan.wanted[scan.wantedCursor] < rowid) ++scan.wantedCursor;
    const bool wanted = scan.wantedCursor < scan.wanted.size() && scan.wanted[scan.wantedCursor] == rowid;
    if (wanted) scan.wantedMatched[scan.wantedCursor] = 1;
    quint64 bits = 0;
    for (size_t phrase = 0; phrase < phrases; ++phrase) {
        bool present = false;
        if (wanted) {
            const PhraseCount count = phraseFrequency(api, fts, static_cast<int>(phrase));
            if (!count.readable) return false;
            scan.wantedFrequencies[scan.wantedCursor * phrases + phrase] = count.frequency;
            present = count.found;
        } else {
            Fts5PhraseIter iterator;
            int column = -1;
            int offset = 0;
            if (api->xPhraseFirst(fts, static_cast<int>(phrase), &iterator, &column, &offset) != SQLITE_OK) return false;
            present = column >= 0;
        }
        if (present) {
            bits |= quint64{1} << phrase;
            ++scan.rowsWithPhrase[phrase];
        }
    }
    scan.presence.push_back(bits);
    return true;
}

bool recordFrequencies(const Fts5ExtensionApi* api, Fts5Context* fts, PhraseFrequencyScan& scan) {
    for (int phrase = 0; phrase < scan.phraseCount; ++phrase) {
        const PhraseCount count = phraseFrequency(api, fts, phrase);
        if (!count.readable) return false;
        scan.frequencies.push_back(count.frequency);
        if (count.found) ++scan.rowsWithPhrase[static_cast<size_t>(phrase)];
    }
    return true;
}

void collectPhraseFrequencies(const Fts5ExtensionApi* api, Fts5Context* fts, sqlite3_context* context, int,
                              sqlite3_value**) {
    PhraseFrequencyScan* scan = *static_cast<PhraseFrequencyScan**>(api->xUserData(fts));
    bool read = scan && !scan->failed && (scan->started || startScan(api, fts, *scan));
    if (read) {
        const qint64 rowid = api->xRowid(fts);
        scan->rowids.push_back(rowid);
        read = scan->presenceOnly ? recordPresence(api, fts, *scan, rowid) : recordFrequencies(api, fts, *scan);
    }
    if (!read) {
        if (scan) scan->failed = true;
        sqlite3_result_error(context, "mossly_phrase_frequencies: the matches could not be read", -1);
        return;
    }
    sqlite3_result_null(context);
}

}  // namespace

Result<KeywordRankingSnapshot> KeywordRankingSnapshot::load(SqliteDatabase& db) {
    // lower() here is the very function the reference ranking applies to titles.
    auto statement = db.prepare(QStringLiteral(
        "SELECT m.rowid, lower(m.title), d.sz FROM note_metadata AS m\n"
        "LEFT JOIN note_fts_docsize AS d ON d.id = m.rowid ORDER BY m.rowid"));
    if (!statement) return fail(statement.error());
    KeywordRankingSnapshot snapshot;
    auto use = (*statement)->use();
    for (;;) {
        auto row = use.step();
        if (!row) return fail(row.error());
        if (!*row) break;
        snapshot.rowids_.push_back(use.integer(0));
        snapshot.titles_ += use.utf8(1);
        snapshot.titleEnds_.push_back(snapshot.titles_.size());
        snapshot.tokenCounts_.push_back(sumOfVarints(use.blob(2)));
    }
    return snapshot;
}

// Layout: count (u32), then count rowids (i64), token counts (i32) and title
// ends (i64), then the titles; all little-endian.
QByteArray KeywordRankingSnapshot::serialised() const {
    const auto count = static_cast<qsizetype>(rowids_.size());
    QByteArray out(4 + count * (8 + 4 + 8) + titles_.size(), Qt::Uninitialized);
    char* at = out.data();
    qToLittleEndian(static_cast<quint32>(count), at);
    at += 4;
    qToLittleEndian<qint64>(rowids_.data(), count, at);
    at += 8 * count;
    qToLittleEndian<qint32>(tokenCounts_.data(), count, at);
    at += 4 * count;
    qToLittleEndian<qint64>(titleEnds_.data(), count, at);
    at += 8 * count;
    std::memcpy(at, titles_.constData(), static_cast<size_t>(titles_.size()));
    return out;
}

std::optional<KeywordRankingSnapshot> KeywordRankingSnapshot::fromSerialised(QByteArrayView bytes) {
    if (bytes.size() < 4) return std::nullopt;
    const qsizetype count = qFromLittleEndian<quint32>(bytes.data());
    const qsizetype fixed = 4 + count * (8 + 4 + 8);
    if (bytes.size() < fixed) return std::nullopt;
    KeywordRankingSnapshot snapshot;
    snapshot.rowids_.resize(static_cast<size_t>(count));
    snapshot.tokenCounts_.resize(static_cast<size_t>(count));
    snapshot.titleEnds_.resize(static_cast<size_t>(count));
    const char* at = bytes.data() + 4;
    qFromLittleEndian<qint64>(at, count, snapshot.rowids_.data());
    at += 8 * count;
    qFromLittleEndian<qint32>(at, count, snapshot.tokenCounts_.data());
    at += 4 * count;
    qFromLittleEndian<qint64>(at, count, snapshot.titleEnds_.data());
    snapshot.titles_ = bytes.sliced(fixed).toByteArray();
    const bool ordered = std::is_sorted(snapshot.rowids_.begin(), snapshot.rowids_.end()) &&
                         std::is_sorted(snapshot.titleEnds_.begin(), snapshot.titleEnds_.end()) &&
                         (count == 0 ? snapshot.titles_.isEmpty() : snapshot.titleEnds_.back() == snapshot.titles_.size()) &&
                         (count == 0 || snapshot.titleEnds_.front() >= 0);
    if (!ordered) return std::nullopt;
    return snapshot;
}

void PhraseFrequencyScan::reset(bool onlyPresence) {
    presenceOnly = onlyPresence;
    phraseCount = 0;
    rowids.clear();
    frequencies.clear();
    presence.clear();
    rowsWithPhrase.clear();
    wanted.clear();
    wantedCursor = 0;
    wantedFrequencies.clear();
    wantedMatched.clear();
    rowCount = totalTokens = 0;
    started = failed = false;
}

qsizetype KeywordRankingSnapshot::findFrom(qsizetype from, qint64 rowid) const {
    auto begin = rowids_.begin() + std::clamp<qsizetype>(from, 0, size());
    // Most lookups land within a few places of the previous one.
    for (int step = 0; step < 8 && begin != rowids_.end() && *begin < rowid; ++step) ++begin;
    const auto found = std::lower_bound(begin, rowids_.end(), rowid);
    if (found == rowids_.end() || *found != rowid) return -1;
    return found - rowids_.begin();
}

std::vector<KeywordRankingSnapshot::TitleHit> KeywordRankingSnapshot::titleHits(const QByteArray& loweredQuery) const {
    std::vector<TitleHit> hits;
    // One search through all titles at once; a hit is then placed in its title.
    const QByteArrayView all(titles_);
    qsizetype from = 0;
    for (;;) {
        const qsizetype hit = all.indexOf(loweredQuery, from);
        if (hit < 0) break;
        const auto title = std::upper_bound(titleEnds_.begin(), titleEnds_.end(), hit) - titleEnds_.begin();
        const qsizetype start = title == 0 ? 0 : titleEnds_[static_cast<size_t>(title) - 1];
        const qsizetype end = titleEnds_[static_cast<size_t>(title)];
        if (hit + loweredQuery.size() <= end) {
            hits.push_back({title, end - start == loweredQuery.size() ? 5.0 : 2.0});
            from = end;  // the next title
        } else {
            from = hit + 1;  // a hit across two titles: look again from the next byte
        }
    }
    return hits;
}

namespace KeywordRanking {

Result<void> registerPhraseFrequencies(sqlite3* db, PhraseFrequencyScan** scan) {
    fts5_api* api = nullptr;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT fts5(?1)", -1, &statement, nullptr) != SQLITE_OK) {
        return fail(Error::catalogUnavailable(QString::fromUtf8(sqlite3_errmsg(db))));
    }
    sqlite3_bind_pointer(statement, 1, static_cast<void*>(&api), "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
    sqlite3_finalize(statement);
    if (!api || api->iVersion < 2) return fail(Error::catalogUnavailable(QStringLiteral("FTS5 is not available.")));
    if (api->xCreateFunction(api, "mossly_phrase_frequencies", static_cast<void*>(scan), collectPhraseFrequencies,
                             nullptr) != SQLITE_OK) {
        return fail(Error::catalogUnavailable(QString::fromUtf8(sqlite3_errmsg(db))));
    }
    return {};
}

std::vector<double> inverseDocumentFrequencies(const PhraseFrequencyScan& scan) {
    std::vector<double> idf;
    for (const qint64 hits : scan.rowsWithPhrase) {
        double value = std::log((scan.rowCount - hits + 0.5) / (hits + 0.5));
        if (value <= 0.0) value = 1e-6;
        idf.push_back(value);
    }
    return idf;
}

double bm25(std::span<const double> frequencies, std::span<const double> idf, int tokenCount,
            double averageLength) {
    const double k1 = 1.2;
    const double b = 0.75;
    const double D = static_cast<double>(tokenCount);
    double score = 0.0;
    for (size_t i = 0; i < frequencies.size(); ++i) {
        score += idf[i] * ((frequencies[i] * (k1 + 1.0)) / (frequencies[i] + k1 * (1 - b + b * D / averageLength)));
    }
    return -1.0 * score;
}

double lowestBm25(quint64 presence, std::span<const double> idf) {
    const double k1 = 1.2;
    double widest = 0.0;
    for (size_t i = 0; i < idf.size(); ++i) {
        if (presence & (quint64{1} << i)) widest += idf[i] * (k1 + 1.0);
    }
    // A row's own terms stay far below idf·(k1+1) (by more than 1e-7 of it);
    // the margin covers rounding in the sum.
    return -widest * (1.0 + 1e-12);
}

}  // namespace KeywordRanking

}  // namespace mossly
