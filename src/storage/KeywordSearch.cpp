#include "NoteSearch.h"

#include <QHash>
#include <algorithm>
#include <functional>
#include <queue>

#include "KeywordRanking.h"
#include "NoteSearchCatalog.h"
#include "NoteSearchCatalogStatements.h"

// The catalog's keyword search: the ranking of the reference statement,
// computed without scoring every match where the order allows.

namespace mossly {

namespace {

struct PreparedQuery {
    int phraseCount;
    QString trimmed;
    QByteArray loweredUtf8;  // SQLite's lower(): ASCII letters only
    QString expression;
    qint64 limit;
};

std::optional<PreparedQuery> prepareQuery(const QString& query, qint64 limit) {
    const QStringList terms = NoteSearch::normalizedTerms(query);
    limit = std::clamp<qint64>(limit, 0, NoteSearch::maximumLimit);
    if (terms.isEmpty() || limit == 0) return std::nullopt;
    const QString trimmed = query.trimmed();
    return PreparedQuery{static_cast<int>(terms.size()), trimmed, trimmed.toUtf8().toLower(),
                         NoteSearch::ftsExpression(terms), limit};
}

// The bonus the ranking adds for hits of the whole query in the title and body.
double bonus(const QByteArray& title, const QByteArray& body, const QByteArray& loweredQuery) {
    const QByteArray lowerTitle = title.toLower();
    double value = 0.0;
    if (lowerTitle == loweredQuery) {
        value = 5.0;
    } else if (lowerTitle.contains(loweredQuery)) {
        value = 2.0;
    }
    if (body.toLower().contains(loweredQuery)) value += 1.0;
    return value;
}

Error unreadableMatches() { return Error::catalogUnavailable(QStringLiteral("Could not read the matches.")); }

double keywordScore(double bm25, double bonusValue) { return std::max(-bm25, 0.000001) + bonusValue; }

struct Candidate {
    qint64 rowid;
    double bm25;
    double bonus;
    double key;
    QByteArray identifier;  // UTF-8, ordered like SQLite's BINARY collation
    NoteSearchResult result;
};

// The reference order: sort key, then identifier bytes (QByteArray compares like memcmp).
bool ranksBefore(const Candidate& a, const Candidate& b) {
    if (a.key != b.key) return a.key < b.key;
    return a.identifier < b.identifier;
}


// A match on its way to the top: a scored row, or a group of rows not scored
// yet that hold the same phrases. Its bound is a sort key no lower than any
// its row (or rows) can have.
struct Match {
    qint64 rowid;  // -1: a group
    double bm25;
    double titleBonus;
    double bound;
    quint64 presence = 0;  // a group: the phrases its rows hold
    qint64 rows = 0;       // a group: how many
};

struct BoundsLater {
    bool operator()(const Match& a, const Match& b) const { return a.bound > b.bound; }
};

// Scoring a row on its own costs about what one pass spends on 64 rows: a
// walk that would score more than one in 64 of the matches (or more than the
// limit plus 64) that way scores every match in one pass instead.
constexpr qint64 pruningSlack = 64;
constexpr qint64 rowsPerSeparateScore = 64;

struct Walk {
    std::vector<Candidate> top;
    bool outOfBudget = false;  // gave up: `top` means nothing
    bool fallBack = false;     // the catalog's links do not hold
};

using ExpandGroup = std::function<Result<std::vector<Match>>(const Match& group)>;

// Walks the matches by bound, scoring the rows of a group when it comes up and
// adding the body bonus (at most 1). Once the worst of the best `limit` rows
// sorts before the next bound, no later row can enter the top. Rounding cannot
// break this: x − a ≥ x − b whenever a ≤ b. Gives up when groups would need
// more than `budget` rows scored.
Result<Walk> topCandidates(NoteSearchCatalog::Statements& statements, const PreparedQuery& prepared,
                           std::vector<Match> matches, std::optional<qint64> budget, const ExpandGroup& expand) {
    std::priority_queue<Match, std::vector<Match>, BoundsLater> waiting(BoundsLater{}, std::move(matches));
    Walk walk;
    std::vector<Candidate>& top = walk.top;  // a max-heap on ranking: the front is the worst kept row
    const auto full = [&] { return static_cast<qint64>(top.size()) == prepared.limit; };
    qint64 scored = 0;
    while (!waiting.empty()) {
        const Match match = waiting.top();
        waiting.pop();
        if (full() && top.front().key < match.bound) break;
        if (match.rowid < 0) {
            if (budget && (scored += match.rows) > *budget) {
                walk.outOfBudget = true;
                return walk;
            }
            auto rows = expand(match);
            if (!rows) return fail(rows.error());
            for (const Match& row : *rows) waiting.push(row);
            continue;
        }
        auto details = statements.matchDetails->use();
        if (auto bound = details.bind(1, match.rowid); !bound) return fail(bound.error());
        auto found = details.step();
        if (!found) return fail(found.error());
        if (!*found) continue;  // no metadata row: not a listed note
        Candidate candidate{match.rowid, match.bm25, 0.0, 0.0, details.utf8(0), {}};
        candidate.bonus = bonus(details.utf8(1), details.utf8(2), prepared.loweredUtf8);
        if (candidate.bonus > match.titleBonus + 1.0 || details.text(0).isEmpty()) {
            // The rowid link does not hold (a catalog written elsewhere): the
            // bound may not either, so rank the plain way.
            walk.fallBack = true;
            return walk;
        }
        candidate.key = match.bm25 - candidate.bonus;
        candidate.result.identifier = details.text(0);
        candidate.result.title = details.text(1);
        candidate.result.revision = details.text(3);
        candidate.result.createdBy = details.text(4);
        candidate.result.lastEditedBy = details.optionalText(5);

        if (!full()) {
            top.push_back(std::move(candidate));
            std::push_heap(top.begin(), top.end(), ranksBefore);
        } else if (ranksBefore(candidate, top.front())) {
            std::pop_heap(top.begin(), top.end(), ranksBefore);
            top.back() = std::move(candidate);
            std::push_heap(top.begin(), top.end(), ranksBefore);
        }
    }
    std::sort_heap(top.begin(), top.end(), ranksBefore);
    return walk;
}

}  // namespace

Result<NoteSearchResponse> NoteSearchCatalog::search(const QString& query, qint64 limit, Excerpts excerpts) {
    const std::optional<PreparedQuery> prepared = prepareQuery(query, limit);
    if (!prepared) return NoteSearchResponse{};
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    ReadTransaction reading(*this);
    auto snapshot = currentRankingSnapshot();
    if (!snapshot) return fail(snapshot.error());

    // Rows whose title holds the query lead the order. When at least `limit`
    // titles hold it, pass 1 reads only which phrases each other match holds,
    // not how often: walking every position of a word found in most notes is
    // what made common words slow. With the inverse document frequencies
    // known, such a row's BM25 lies in [−Σ idf·(k1+1), 0]; the title rows,
    // scored exactly in the same pass, usually fill the top before that bound
    // is reached, and the few rows that still may enter are scored one by one.
    // When too many might, pass 2 scores every match (as pass 1 does at once
    // when the titles cannot fill the top).
    const std::vector<KeywordRankingSnapshot::TitleHit> titleHits = (*snapshot)->titleHits(prepared->loweredUtf8);
    const bool presenceFirst = prepared->phraseCount <= PhraseFrequencyScan::maximumPresencePhrases &&
                               static_cast<qint64>(titleHits.size()) >= prepared->limit;
    std::vector<qint64> titleRowids;
    if (presenceFirst) {
        titleRowids.reserve(titleHits.size());
        for (const auto& hit : titleHits) titleRowids.push_back((*snapshot)->rowid(hit.index));
    }
    if (auto scanned = scanMatches(prepared->expression, std::nullopt, presenceFirst, std::move(titleRowids));
        !scanned) {
        return fail(scanned.error());
    }
    if (matchScan_.rowids.empty()) return NoteSearchResponse{};
    const std::vector<double> idf = KeywordRanking::inverseDocumentFrequencies(matchScan_);
    const double averageLength =
        static_cast<double>(matchScan_.totalTokens) / static_cast<double>(std::max<qint64>(matchScan_.rowCount, 1));

    // The rows of the first pass other than the title rows, by position.
    const auto eachUntitledMatch = [&](auto&& take) {
        size_t wanted = 0;
        for (size_t row = 0; row < matchScan_.rowids.size(); ++row) {
            const qint64 rowid = matchScan_.rowids[row];
            while (wanted < matchScan_.wanted.size() && matchScan_.wanted[wanted] < rowid) ++wanted;
            if (wanted < matchScan_.wanted.size() && matchScan_.wanted[wanted] == rowid) continue;
            take(row);
        }
    };
    // FTS5 hands out matches in rowid order, the order of the snapshot and the
    // title hits, so one walk pairs them up.
    if (!std::is_sorted(matchScan_.rowids.begin(), matchScan_.rowids.end())) {
        return searchWithReferenceStatement(query, limit);
    }
    std::optional<std::vector<Candidate>> top;
    if (presenceFirst) {
        // Title rows scored; every other row in a group by the phrases it holds.
        std::vector<Match> matches;
        const auto phrases = static_cast<size_t>(matchScan_.phraseCount);
        for (size_t hit = 0; hit < titleHits.size(); ++hit) {
            if (!matchScan_.wantedMatched[hit]) continue;
            const std::span<const double> frequencies(matchScan_.wantedFrequencies.data() + hit * phrases, phrases);
            const double bm25 =
                KeywordRanking::bm25(frequencies, idf, (*snapshot)->tokenCount(titleHits[hit].index), averageLength);
            const double titleBonus = titleHits[hit].bonus;
            matches.push_back({matchScan_.wanted[hit], bm25, titleBonus, bm25 - (titleBonus + 1.0)});
        }
        QHash<quint64, qint64> groups;
        eachUntitledMatch([&](size_t row) { ++groups[matchScan_.presence[row]]; });
        for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
            const double lowest = KeywordRanking::lowestBm25(group.key(), idf);
            matches.push_back({-1, 0.0, 0.0, lowest - 1.0, group.key(), group.value()});
        }
        const auto expand = [&](const Match& group) -> Result<std::vector<Match>> {
            std::vector<qint64> rowids;
            eachUntitledMatch([&](size_t row) {
                if (matchScan_.presence[row] == group.presence) rowids.push_back(matchScan_.rowids[row]);
            });
            std::vector<Match> scoredRows;
            qsizetype note = 0;
            for (const qint64 rowid : rowids) {
                const qsizetype found = (*snapshot)->findFrom(note, rowid);
                if (found < 0) continue;  // no metadata row: not a listed note
                note = found;
                if (auto scanned = scanMatches(prepared->expression, rowid, false); !scanned) {
                    return fail(scanned.error());
                }
                if (rowScan_.rowids.size() != 1) return fail(unreadableMatches());
                const double bm25 =
                    KeywordRanking::bm25(rowScan_.frequencies, idf, (*snapshot)->tokenCount(note), averageLength);
                scoredRows.push_back({rowid, bm25, 0.0, bm25 - 1.0});
            }
            return scoredRows;
        };
        auto walked =
            topCandidates(*statements_, *prepared, std::move(matches),
                          std::min<qint64>(prepared->limit + pruningSlack,
                                           static_cast<qint64>(matchScan_.rowids.size()) / rowsPerSeparateScore),
                          expand);
        if (!walked) return fail(walked.error());
        if (walked->fallBack) return searchWithReferenceStatement(query, limit);
        if (!walked->outOfBudget) {
            top = std::move(walked->top);
        } else if (auto scanned = scanMatches(prepared->expression, std::nullopt, false); !scanned) {
            return fail(scanned.error());
        }
    }
    if (!top) {
        std::vector<Match> matches;
        const auto phrases = static_cast<size_t>(matchScan_.phraseCount);
        qsizetype note = 0;
        size_t hit = 0;
        for (size_t row = 0; row < matchScan_.rowids.size(); ++row) {
            const qsizetype found = (*snapshot)->findFrom(note, matchScan_.rowids[row]);
            if (found < 0) continue;  // no metadata row: not a listed note
            note = found;
            while (hit < titleHits.size() && titleHits[hit].index < note) ++hit;
            const double titleBonus = hit < titleHits.size() && titleHits[hit].index == note ? titleHits[hit].bonus : 0.0;
            const std::span<const double> frequencies(matchScan_.frequencies.data() + row * phrases, phrases);
            const double bm25 = KeywordRanking::bm25(frequencies, idf, (*snapshot)->tokenCount(note), averageLength);
            matches.push_back({matchScan_.rowids[row], bm25, titleBonus, bm25 - (titleBonus + 1.0)});
        }
        auto walked = topCandidates(*statements_, *prepared, std::move(matches), std::nullopt, {});
        if (!walked) return fail(walked.error());
        if (walked->fallBack) return searchWithReferenceStatement(query, limit);
        top = std::move(walked->top);
    }

    // Excerpts only for the rows returned.
    NoteSearchResponse response;
    for (Candidate& candidate : *top) {
        if (excerpts == Excerpts::included) {
            auto excerpt = matchExcerpt(prepared->expression, candidate.rowid);
            if (!excerpt) return fail(excerpt.error());
            candidate.result.excerpt = std::move(*excerpt);
        }
        candidate.result.keywordScore = keywordScore(candidate.bm25, candidate.bonus);
        candidate.result.score = candidate.result.keywordScore;
        response.results.push_back(std::move(candidate.result));
    }
    return response;
}

Result<QString> NoteSearchCatalog::matchExcerpt(const QString& expression, qint64 rowid) {
    auto snippet = statements_->matchSnippet->use();
    Result<void> bound = snippet.bind(1, expression);
    if (bound) bound = snippet.bind(2, rowid);
    if (!bound) return fail(bound.error());
    auto row = snippet.step();
    if (!row) return fail(row.error());
    return *row ? NoteSearch::clippedExcerpt(snippet.text(0)) : QString();
}

Result<QStringList> NoteSearchCatalog::keywordExcerpts(const QString& query, const QStringList& identifiers) {
    const std::optional<PreparedQuery> prepared = prepareQuery(query, 1);
    if (!prepared) return QStringList(identifiers.size(), QString());
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());
    QStringList excerpts;
    for (const QString& identifier : identifiers) {
        std::optional<qint64> rowid;
        {
            auto use = statements_->metadataRowid->use();
            if (auto bound = use.bind(1, identifier); !bound) return fail(bound.error());
            auto row = use.step();
            if (!row) return fail(row.error());
            if (*row) rowid = use.integer(0);
        }
        auto excerpt = rowid ? matchExcerpt(prepared->expression, *rowid) : Result<QString>(QString());
        if (!excerpt) return fail(excerpt.error());
        excerpts.append(std::move(*excerpt));
    }
    return excerpts;
}

Result<void> NoteSearchCatalog::scanMatches(const QString& expression, std::optional<qint64> rowid, bool presenceOnly,
                                            std::vector<qint64> wanted) {
    PhraseFrequencyScan& scan = rowid ? rowScan_ : matchScan_;
    scan.reset(presenceOnly);
    scan.wanted = std::move(wanted);
    currentScan_ = &scan;
    auto use = (rowid ? statements_->rowPhraseFrequencies : statements_->phraseFrequencies)->use();
    Result<void> done = use.bind(1, expression);
    if (done && rowid) done = use.bind(2, *rowid);
    if (done) done = use.run();
    currentScan_ = nullptr;
    if (done && scan.failed) return fail(unreadableMatches());
    return done;
}

Result<NoteSearchResponse> NoteSearchCatalog::searchWithReferenceStatement(const QString& query, qint64 limit) {
    const std::optional<PreparedQuery> prepared = prepareQuery(query, limit);
    if (!prepared) return NoteSearchResponse{};
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());

    auto use = statements_->keywordSearch->use();
    Result<void> bound;
    for (int index : {1, 2, 3, 5, 6, 7}) {
        if (bound) bound = use.bind(index, prepared->trimmed);
    }
    if (bound) bound = use.bind(4, prepared->expression);
    if (bound) bound = use.bind(8, prepared->limit);
    if (!bound) return fail(bound.error());

    NoteSearchResponse response;
    for (;;) {
        auto row = use.step();
        if (!row) return fail(row.error());
        if (!*row) break;
        NoteSearchResult result;
        result.identifier = use.text(0);
        result.title = use.text(1);
        result.excerpt = NoteSearch::clippedExcerpt(use.text(2));
        result.keywordScore = keywordScore(use.real(3), use.real(4));
        result.score = result.keywordScore;
        result.revision = use.text(5);
        result.createdBy = use.text(6);
        result.lastEditedBy = use.optionalText(7);
        response.results.push_back(std::move(result));
    }
    return response;
}

}  // namespace mossly
