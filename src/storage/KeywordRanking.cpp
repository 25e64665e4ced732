#include "KeywordRanking.h"

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

void collectPhraseFrequencies(const Fts5ExtensionApi* api, Fts5Context* fts, sqlite3_context* context, int,
                              sqlite3_value**) {
    PhraseFrequencyScan* scan = *static_cast<PhraseFrequencyScan**>(api->xUserData(fts));
    if (!scan || scan->failed) {
        sqlite3_result_error(context, "mossly_phrase_frequencies: no scan", -1);
        return;
    }
    if (!scan->started) {
        scan->started = true;
        scan->phraseCount = api->xPhraseCount(fts);
        scan->rowsWithPhrase.assign(static_cast<size_t>(scan->phraseCount), 0);
        if (api->xRowCount(fts, &scan->rowCount) != SQLITE_OK ||
            api->xColumnTotalSize(fts, -1, &scan->totalTokens) != SQLITE_OK) {
            scan->failed = true;
            sqlite3_result_error(context, "mossly_phrase_frequencies: no totals", -1);
            return;
        }
    }
    scan->rowids.push_back(api->xRowid(fts));
    for (int phrase = 0; phrase < scan->phraseCount; ++phrase) {
        Fts5PhraseIter iterator;
        int column = 0;
        int offset = 0;
        if (api->xPhraseFirst(fts, phrase, &iterator, &column, &offset) != SQLITE_OK) {
            scan->failed = true;
            sqlite3_result_error(context, "mossly_phrase_frequencies: no positions", -1);
            return;
        }
        double frequency = 0;
        bool found = false;
        for (; column >= 0; api->xPhraseNext(fts, &iterator, &column, &offset)) {
            frequency += column < 3 ? columnWeights[column] : 1.0;
            found = true;
        }
        scan->frequencies.push_back(frequency);
        if (found) ++scan->rowsWithPhrase[static_cast<size_t>(phrase)];
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

qsizetype KeywordRankingSnapshot::find(qint64 rowid) const {
    const auto found = std::lower_bound(rowids_.begin(), rowids_.end(), rowid);
    if (found == rowids_.end() || *found != rowid) return -1;
    return found - rowids_.begin();
}

std::vector<double> KeywordRankingSnapshot::titleBonuses(const QByteArray& loweredQuery) const {
    std::vector<double> bonuses(rowids_.size(), 0.0);
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
            bonuses[static_cast<size_t>(title)] = end - start == loweredQuery.size() ? 5.0 : 2.0;
            from = end;  // the next title
        } else {
            from = hit + 1;  // a hit across two titles: look again from the next byte
        }
    }
    return bonuses;
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

}  // namespace KeywordRanking

}  // namespace mossly
