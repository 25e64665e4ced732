#include "NoteSearch.h"

#include "NoteTitle.h"

#include <QUrl>
#include <algorithm>
#include <cstring>

#include "JsonWriter.h"
#include "KeywordRanking.h"
#include "NoteSearchCatalog.h"
#include "NoteSearchCatalogStatements.h"

namespace mossly {

QStringList NoteSearch::normalizedTerms(const QString& query) {
    // Split exactly where the catalog's unicode61 tokenizer splits: only
    // letters, numbers and private-use characters make up words, so every
    // combining mark (a virama, a Thai vowel sign, a haraka) separates, as it
    // does in the index. Like remove_diacritics, a precomposed Latin letter
    // loses its accents ("é" is "e"), and case is folded.
    const QString composed = query.normalized(QString::NormalizationForm_C);
    QStringList terms;
    QString current;
    for (const char32_t codePoint : composed.toUcs4()) {
        const QChar::Category category = QChar::category(codePoint);
        if (!QChar::isLetterOrNumber(codePoint) && category != QChar::Other_PrivateUse) {
            if (!current.isEmpty()) terms.append(current);
            current.clear();
            continue;
        }
        QString character = QString::fromUcs4(&codePoint, 1);
        const QString decomposed = character.normalized(QString::NormalizationForm_D);
        if (decomposed.size() > 1 && std::all_of(decomposed.begin() + 1, decomposed.end(), [](QChar c) {
                return c.unicode() >= 0x0300 && c.unicode() <= 0x036F;
            })) {
            character = decomposed.left(1);
        }
        current += character.toLower();
    }
    if (!current.isEmpty()) terms.append(current);
    return terms;
}

QString NoteSearch::ftsExpression(const QStringList& terms) {
    QStringList quoted;
    for (QString term : terms) quoted.append(u'"' + term.replace(u'"', QStringLiteral("\"\"")) + u'"');
    return quoted.join(QStringLiteral(" OR "));
}

QString NoteSearch::clippedExcerpt(const QString& snippet) {
    // Characters as people count them: an emoji or an accented letter is one.
    if (snippet.size() <= maximumExcerptLength) return snippet;
    if (leadingGraphemes(snippet, maximumExcerptLength) == snippet) return snippet;
    return leadingGraphemes(snippet, maximumExcerptLength - 3) + QStringLiteral("…");
}

QString NoteSearch::openURL(const QString& identifier) {
    return QStringLiteral("mossly://note/") + QString::fromLatin1(QUrl::toPercentEncoding(identifier, "/"));
}

QString NoteSearch::toJson(const NoteSearchResult& result) {
    JsonObjectWriter json;
    json.add(QStringLiteral("identifier"), result.identifier)
        .add(QStringLiteral("title"), result.title)
        .add(QStringLiteral("excerpt"), result.excerpt)
        .add(QStringLiteral("score"), result.score)
        .add(QStringLiteral("keywordScore"), result.keywordScore);
    if (result.meaningScore) json.add(QStringLiteral("meaningScore"), *result.meaningScore);
    json.add(QStringLiteral("revision"), result.revision).add(QStringLiteral("createdBy"), result.createdBy);
    if (result.lastEditedBy) json.add(QStringLiteral("lastEditedBy"), *result.lastEditedBy);
    json.add(QStringLiteral("semanticAvailable"), result.semanticAvailable)
        .add(QStringLiteral("openURL"), openURL(result.identifier));
    return json.text();
}

QString NoteSearch::toJson(const NoteSearchResponse& response) {
    QStringList results;
    for (const NoteSearchResult& result : response.results) results.append(toJson(result));
    JsonObjectWriter json;
    json.addRaw(QStringLiteral("results"), jsonArray(results))
        .add(QStringLiteral("semanticAvailable"), response.semanticAvailable);
    if (response.warning) json.add(QStringLiteral("warning"), *response.warning);
    return json.text();
}

namespace {

struct PreparedQuery {
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
    return PreparedQuery{trimmed, trimmed.toUtf8().toLower(), NoteSearch::ftsExpression(terms), limit};
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

}  // namespace

Result<NoteSearchResponse> NoteSearchCatalog::search(const QString& query, qint64 limit) {
    const std::optional<PreparedQuery> prepared = prepareQuery(query, limit);
    if (!prepared) return NoteSearchResponse{};
    std::lock_guard guard(lock_);
    if (auto open = requireOpen(); !open) return fail(open.error());

    // Step 1: every match with its BM25 and title bonus, from one pass over
    // the matches and what the snapshot holds of each note. No body text is
    // read and nothing is looked up per row, so common words stay cheap. A row
    // without a metadata row is left out here and in the reference ranking
    // alike (that one joins by identifier; the two agree because rows are
    // always written linked, and step 2 checks it).
    struct Match {
        qint64 rowid;
        double bm25;
        double titleBonus;
        double bound;  // no sort key of this row can be smaller
    };
    ReadTransaction reading(*this);
    auto snapshot = currentRankingSnapshot();
    if (!snapshot) return fail(snapshot.error());
    PhraseFrequencyScan scan;
    {
        currentScan_ = &scan;
        auto use = statements_->phraseFrequencies->use();
        Result<void> done = use.bind(1, prepared->expression);
        if (done) done = use.run();
        currentScan_ = nullptr;
        if (!done) return fail(done.error());
    }
    std::vector<Match> matches;
    if (!scan.rowids.empty()) {
        const std::vector<double> idf = KeywordRanking::inverseDocumentFrequencies(scan);
        const double averageLength = static_cast<double>(scan.totalTokens) / static_cast<double>(scan.rowCount);
        const std::vector<double> titleBonuses = (*snapshot)->titleBonuses(prepared->loweredUtf8);
        const auto phrases = static_cast<size_t>(scan.phraseCount);
        matches.reserve(scan.rowids.size());
        for (size_t row = 0; row < scan.rowids.size(); ++row) {
            const qsizetype note = (*snapshot)->find(scan.rowids[row]);
            if (note < 0) continue;
            const std::span<const double> frequencies(scan.frequencies.data() + row * phrases, phrases);
            const double bm25 = KeywordRanking::bm25(frequencies, idf, (*snapshot)->tokenCount(note), averageLength);
            const double titleBonus = titleBonuses[static_cast<size_t>(note)];
            matches.push_back({scan.rowids[row], bm25, titleBonus, bm25 - (titleBonus + 1.0)});
        }
    }
    // Only the first few are ever taken: a heap orders them as they are needed.
    const auto later = [](const Match& a, const Match& b) { return a.bound > b.bound; };
    std::make_heap(matches.begin(), matches.end(), later);

    // Step 2: walk by bound, adding the body bonus (at most 1). Once the worst
    // of the best `limit` rows sorts before the next bound, no later row can
    // enter the top. Rounding cannot break this: x − a ≥ x − b whenever a ≤ b.
    std::vector<Candidate> top;  // a max-heap on ranking: the front is the worst kept row
    for (auto unvisited = matches.end(); unvisited != matches.begin();) {
        std::pop_heap(matches.begin(), unvisited, later);
        const Match& match = *--unvisited;
        if (static_cast<qint64>(top.size()) == prepared->limit && top.front().key < match.bound) break;
        auto details = statements_->matchDetails->use();
        if (auto bound = details.bind(1, match.rowid); !bound) return fail(bound.error());
        auto found = details.step();
        if (!found) return fail(found.error());
        if (!*found) continue;  // no metadata row: not a listed note
        Candidate candidate{match.rowid, match.bm25, 0.0, 0.0, details.utf8(0), {}};
        candidate.bonus = bonus(details.utf8(1), details.utf8(2), prepared->loweredUtf8);
        if (candidate.bonus > match.titleBonus + 1.0 || details.text(0).isEmpty()) {
            // The rowid link does not hold (a catalog written elsewhere): the
            // bound may not either, so rank the plain way.
            return searchWithReferenceStatement(query, limit);
        }
        candidate.key = match.bm25 - candidate.bonus;
        candidate.result.identifier = details.text(0);
        candidate.result.title = details.text(1);
        candidate.result.revision = details.text(3);
        candidate.result.createdBy = details.text(4);
        candidate.result.lastEditedBy = details.optionalText(5);

        if (static_cast<qint64>(top.size()) < prepared->limit) {
            top.push_back(std::move(candidate));
            std::push_heap(top.begin(), top.end(), ranksBefore);
        } else if (ranksBefore(candidate, top.front())) {
            std::pop_heap(top.begin(), top.end(), ranksBefore);
            top.back() = std::move(candidate);
            std::push_heap(top.begin(), top.end(), ranksBefore);
        }
    }
    std::sort_heap(top.begin(), top.end(), ranksBefore);

    // Step 3: excerpts only for the rows returned.
    NoteSearchResponse response;
    for (Candidate& candidate : top) {
        auto snippet = statements_->matchSnippet->use();
        Result<void> bound = snippet.bind(1, prepared->expression);
        if (bound) bound = snippet.bind(2, candidate.rowid);
        if (!bound) return fail(bound.error());
        auto row = snippet.step();
        if (!row) return fail(row.error());
        candidate.result.excerpt = *row ? NoteSearch::clippedExcerpt(snippet.text(0)) : QString();
        candidate.result.keywordScore = keywordScore(candidate.bm25, candidate.bonus);
        candidate.result.score = candidate.result.keywordScore;
        response.results.push_back(std::move(candidate.result));
    }
    return response;
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
