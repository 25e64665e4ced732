#include "NoteSearchService.h"

#include <QHash>
#include <QSet>
#include <QtEndian>
#include <algorithm>

#include "CatalogSideFile.h"
#include "NoteRepository.h"

namespace mossly {

namespace {

// Hybrid ranking: a note scores kw / (kw + 10) for its keyword score kw (0…1)
// plus its meaning (cosine similarity). A note found by meaning alone must
// reach `meaningOnlyFloor`. Notes whose title holds the whole query come
// before all others. Chosen on the evaluation set (docs/benchmarks.md).
constexpr double keywordHalf = 10.0;
constexpr double meaningOnlyFloor = 0.2;
// Candidates taken from each side beyond the limit.
constexpr qint64 extraCandidates = 20;
// The vectors, then how many notes have none (u32).
constexpr QByteArrayView vectorsFileMagic = "MOSSVEC1";

bool titleHoldsQuery(const QString& title, const QString& trimmedQuery) {
    return !trimmedQuery.isEmpty() && title.contains(trimmedQuery, Qt::CaseInsensitive);
}

bool isZero(const std::vector<float>& vector) {
    return std::all_of(vector.begin(), vector.end(), [](float v) { return v == 0.0f; });
}

NoteSearchResponse keywordFallback(NoteSearchResponse response, const QString& warning) {
    response.semanticAvailable = false;
    response.warning = warning;
    return response;
}

}  // namespace

NoteSearchService::NoteSearchService(std::shared_ptr<NoteSearchCatalog> catalog,
                                     Result<std::shared_ptr<const WordVectorEmbedder>> embedder)
    : catalog_(std::move(catalog)) {
    if (embedder) {
        embedder_ = std::move(*embedder);
        index_ = std::make_unique<SemanticVectorIndex>(embedder_->dimension());
    } else {
        embeddingsProblem_ = embedder.error().description();
    }
}

Result<std::unique_ptr<NoteSearchService>> NoteSearchService::open(const QString& catalogPath) {
    auto catalog = NoteSearchCatalog::open(catalogPath);
    if (!catalog) return std::unexpected(catalog.error());
    auto table = WordVectorTable::open(WordVectorTable::defaultPath());
    Result<std::shared_ptr<const WordVectorEmbedder>> embedder =
        table ? Result<std::shared_ptr<const WordVectorEmbedder>>(std::make_shared<WordVectorEmbedder>(std::move(*table)))
              : std::unexpected(table.error());
    return std::make_unique<NoteSearchService>(std::shared_ptr<NoteSearchCatalog>(std::move(*catalog)), std::move(embedder));
}

std::optional<QString> NoteSearchService::embeddingsProblem() const { return embeddingsProblem_; }

bool NoteSearchService::meaningReady() const { return embedder_ && loaded_ && notesWithoutVectors_ == 0; }

Result<int> NoteSearchService::synchronize(const NoteRepository& repository, std::stop_token stop) {
    auto indexed = catalog_->synchronize(repository, embedder_.get(), stop);
    if (!indexed) return indexed;
    if (embedder_) {
        if (auto refreshed = refreshVectors(); !refreshed) return std::unexpected(refreshed.error());
    }
    return indexed;
}

void NoteSearchService::keepSnapshotsBesideCatalog() {
    keepsVectorsFile_ = true;
    catalog_->keepSnapshotsBesideCatalog();
}

Result<int> NoteSearchService::synchronizeKeywords(const NoteRepository& repository, std::stop_token stop) {
    auto indexed = catalog_->synchronize(repository, nullptr, stop);
    if (!indexed) return indexed;
    if (auto refreshed = refreshVectors(); !refreshed) return std::unexpected(refreshed.error());
    return indexed;
}

Result<void> NoteSearchService::synchronizeMeaning(const NoteRepository& repository, std::stop_token stop) {
    if (!embedder_) return {};
    if (auto done = catalog_->synchronizeSemanticRows(repository, *embedder_, stop); !done) return done;
    return refreshVectors();
}

Result<void> NoteSearchService::refreshVectors(bool always) {
    if (!embedder_) return {};
    std::lock_guard refreshing(refreshLock_);
    if (!always && loaded_) {
        auto version = catalog_->dataVersion();
        if (!version) return std::unexpected(version.error());
        if (*version == refreshedDataVersion_) return {};
    }
    const QString vectorsFile = vectorsFilePath(catalog_->url());
    // Read before the rows: what the rows say afterwards is at least this recent,
    // so a file tagged with it is never newer than its tag.
    std::optional<NoteSearchCatalog::Generation> stamped;
    if (keepsVectorsFile_) {
        auto generation = catalog_->generation();
        if (!generation) return std::unexpected(generation.error());
        stamped = *generation;
    }
    if (stamped && !loaded_) {
        // What another run left. Tagged with the catalog's present stamp, it is
        // the catalog's vectors exactly; otherwise it is a start, checked
        // against the revisions below, so a stale file costs reading the
        // changed notes' vectors, never a wrong answer.
        if (auto kept = CatalogSideFile::read(vectorsFile, vectorsFileMagic); kept && kept->payload.size() >= 4) {
            const QByteArrayView payload = kept->payload;
            auto index = SemanticVectorIndex::inPlace(kept->owner, payload.chopped(4), embedder_->dimension());
            if (index) {
                std::unique_lock writing(indexLock_);
                *index_ = std::move(*index);
                if (kept->stamp == stamped->stamp()) {
                    auto version = catalog_->dataVersion();
                    if (!version) return std::unexpected(version.error());
                    notesWithoutVectors_ = qFromLittleEndian<quint32>(payload.data() + payload.size() - 4);
                    refreshedDataVersion_ = *version;
                    loaded_ = true;
                    return {};
                }
            }
        }
    }
    auto version = catalog_->dataVersion();
    if (!version) return std::unexpected(version.error());
    auto revisions = catalog_->revisions();
    if (!revisions) return std::unexpected(revisions.error());

    // Read what changed without holding up searches; apply it in one step.
    QHash<QString, QString> held;
    {
        std::shared_lock reading(indexLock_);
        for (const QString& identifier : index_->identifiers()) held.insert(identifier, index_->revision(identifier));
    }
    struct Change {
        QString identifier;
        QString revision;
        std::vector<std::vector<double>> vectors;
    };
    std::vector<Change> changes;
    qsizetype without = 0;
    for (const auto& [identifier, revision] : *revisions) {
        const auto found = held.find(identifier);
        const bool wasHeld = found != held.end();
        const bool current = wasHeld && *found == revision;
        if (wasHeld) held.erase(found);
        if (current) continue;
        auto vectors = catalog_->semanticVectors(identifier, revision);
        if (!vectors) return std::unexpected(vectors.error());
        // Not embedded yet: an older revision's vectors serve until it is.
        if (vectors->empty()) {
            if (!wasHeld) ++without;
            continue;
        }
        changes.push_back({identifier, revision, std::move(*vectors)});
    }
    std::unique_lock writing(indexLock_);
    for (const QString& gone : held.keys()) index_->remove(gone);
    for (const Change& change : changes) index_->put(change.identifier, change.revision, change.vectors);
    notesWithoutVectors_ = without;
    refreshedDataVersion_ = *version;
    loaded_ = true;
    if (stamped) {
        QByteArray payload = index_->serialised();
        char count[4];
        qToLittleEndian(static_cast<quint32>(without), count);
        payload.append(count, 4);
        CatalogSideFile::write(vectorsFile, vectorsFileMagic, stamped->stamp(), payload);
    }
    return {};
}

size_t NoteSearchService::vectorBytes() const {
    std::shared_lock reading(indexLock_);
    return index_ ? index_->vectorBytes() : 0;
}

Result<NoteSearchResponse> NoteSearchService::search(const QString& query, NoteSearchMode mode, qint64 limit) {
    if (mode == NoteSearchMode::keyword) return catalog_->search(query, limit);
    if (!embedder_) {
        auto keyword = catalog_->search(query, limit);
        if (!keyword) return keyword;
        return keywordFallback(std::move(*keyword), unavailableWarning);
    }
    if (!meaningReady()) {
        auto keyword = catalog_->search(query, limit);
        if (!keyword) return keyword;
        return keywordFallback(std::move(*keyword), indexingWarning);
    }
    const std::vector<float> vector = embedder_->embed(query);
    if (mode == NoteSearchMode::meaning) return meaningSearch(vector, limit);
    return hybridSearch(query, vector, limit);
}

NoteSearchService::PendingListing NoteSearchService::listInBackground(const NoteRepository& repository) {
    return std::async(std::launch::async, [&repository] {
        return repository.enumerateMetadata(NoteRepository::ListingOrder::asFound);
    });
}

Result<NoteSearchResponse> NoteSearchService::searchUpToDate(const NoteRepository& repository, PendingListing listing,
                                                             const QString& query, NoteSearchMode mode, qint64 limit) {
    // A future of std::async waits for its thread when it is destroyed: no
    // return below leaves the listing running.
    const bool withVectors = mode != NoteSearchMode::keyword && embedder_;
    auto seen = catalog_->generation();
    if (!seen) return std::unexpected(seen.error());
    if (withVectors) {
        if (auto refreshed = refreshVectors(); !refreshed) return std::unexpected(refreshed.error());
    }
    auto early = search(query, mode, limit);
    // While the folder is still being listed.
    if (auto links = catalog_->linksHold(); !links) return std::unexpected(links.error());
    auto notes = listing.get();
    if (!notes) return std::unexpected(notes.error());
    auto current = catalog_->mirrors(*notes, *seen, withVectors);
    if (!current) return std::unexpected(current.error());
    if (*current) return early;

    auto synced = catalog_->synchronize(repository, std::move(*notes), withVectors ? embedder_.get() : nullptr);
    if (!synced) return std::unexpected(synced.error());
    if (withVectors) {
        if (auto refreshed = refreshVectors(); !refreshed) return std::unexpected(refreshed.error());
    }
    return search(query, mode, limit);
}

Result<NoteSearchResponse> NoteSearchService::meaningSearch(const std::vector<float>& query, qint64 limit) {
    NoteSearchResponse response;
    response.semanticAvailable = true;
    limit = std::clamp<qint64>(limit, 0, NoteSearch::maximumLimit);
    // A query without a word the vectors know means nothing to them.
    if (isZero(query)) return response;
    std::vector<SemanticVectorIndex::Hit> hits;
    {
        std::shared_lock reading(indexLock_);
        hits = index_->nearest(query, limit);
    }
    for (const SemanticVectorIndex::Hit& hit : hits) {
        auto details = catalog_->meaningResult(hit.identifier, hit.bestChunk);
        if (!details) return std::unexpected(details.error());
        if (!*details) continue;  // gone since
        NoteSearchResult result = std::move(**details);
        result.score = hit.score;
        result.keywordScore = 0.0;
        result.meaningScore = hit.score;
        result.semanticAvailable = true;
        response.results.push_back(std::move(result));
    }
    return response;
}

Result<NoteSearchResponse> NoteSearchService::hybridSearch(const QString& query, const std::vector<float>& vector,
                                                           qint64 limit) {
    limit = std::clamp<qint64>(limit, 0, NoteSearch::maximumLimit);
    NoteSearchResponse response;
    response.semanticAvailable = true;
    if (limit == 0) return response;
    // Candidates beyond the limit get no excerpt unless they are kept.
    auto keyword = catalog_->search(query, std::min<qint64>(limit + extraCandidates, NoteSearch::maximumLimit),
                                    NoteSearchCatalog::Excerpts::left);
    if (!keyword) return keyword;
    const bool meaningful = !isZero(vector);

    std::vector<SemanticVectorIndex::Hit> meaningHits;
    QHash<QString, SemanticVectorIndex::Hit> keywordMeaning;
    if (meaningful) {
        std::shared_lock reading(indexLock_);
        meaningHits = index_->nearest(vector, limit + extraCandidates);
        for (const NoteSearchResult& result : keyword->results) {
            if (auto hit = index_->score(result.identifier, vector)) keywordMeaning.insert(result.identifier, *hit);
        }
    }
    const QString trimmed = query.trimmed();
    struct Ranked {
        bool titleHit;
        NoteSearchResult result;
    };
    std::vector<Ranked> ranked;
    QSet<QString> seen;
    for (NoteSearchResult& result : keyword->results) {
        seen.insert(result.identifier);
        const auto meaning = keywordMeaning.constFind(result.identifier);
        if (meaning != keywordMeaning.constEnd()) result.meaningScore = meaning->score;
        result.score = result.keywordScore / (result.keywordScore + keywordHalf) + std::max(0.0, result.meaningScore.value_or(0.0));
        result.semanticAvailable = true;
        const bool titleHit = titleHoldsQuery(result.title, trimmed);
        ranked.push_back({titleHit, std::move(result)});
    }
    for (const SemanticVectorIndex::Hit& hit : meaningHits) {
        if (hit.score < meaningOnlyFloor || seen.contains(hit.identifier)) continue;
        auto details = catalog_->meaningResult(hit.identifier, hit.bestChunk);
        if (!details) return std::unexpected(details.error());
        if (!*details) continue;
        NoteSearchResult result = std::move(**details);
        result.keywordScore = 0.0;
        result.meaningScore = hit.score;
        result.score = hit.score;
        result.semanticAvailable = true;
        ranked.push_back({titleHoldsQuery(result.title, trimmed), std::move(result)});
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        if (a.titleHit != b.titleHit) return a.titleHit;
        if (a.titleHit && a.result.keywordScore != b.result.keywordScore) return a.result.keywordScore > b.result.keywordScore;
        if (a.result.score != b.result.score) return a.result.score > b.result.score;
        return a.result.identifier < b.result.identifier;
    });
    QStringList keptByWords;
    for (Ranked& entry : ranked) {
        if (static_cast<qint64>(response.results.size()) == limit) break;
        if (seen.contains(entry.result.identifier)) keptByWords.append(entry.result.identifier);
        response.results.push_back(std::move(entry.result));
    }
    auto excerpts = catalog_->keywordExcerpts(query, keptByWords);
    if (!excerpts) return std::unexpected(excerpts.error());
    qsizetype next = 0;
    for (NoteSearchResult& result : response.results) {
        if (next < excerpts->size() && result.identifier == keptByWords[next]) result.excerpt = (*excerpts)[next++];
    }
    return response;
}

std::optional<NoteSearchMode> NoteSearchModes::fromString(const QString& text) {
    if (text == u"keyword") return NoteSearchMode::keyword;
    if (text == u"meaning") return NoteSearchMode::meaning;
    if (text == u"hybrid") return NoteSearchMode::hybrid;
    return std::nullopt;
}

QString NoteSearchModes::toString(NoteSearchMode mode) {
    switch (mode) {
        case NoteSearchMode::keyword: return QStringLiteral("keyword");
        case NoteSearchMode::meaning: return QStringLiteral("meaning");
        case NoteSearchMode::hybrid: return QStringLiteral("hybrid");
    }
    return {};
}

}  // namespace mossly
