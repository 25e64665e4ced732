#pragma once

#include <QString>
#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <stop_token>

#include "NoteSearchCatalog.h"
#include "SemanticVectorIndex.h"
#include "WordVectorEmbedder.h"

namespace mossly {

// Search by words, by meaning, or both, over one catalog: what the app's
// search field, `mossly-agent search` and the MCP server all call. Keeps the
// catalog's chunk vectors in memory (SemanticVectorIndex), brought up to date
// by each synchronisation. Safe to search from several threads while one
// thread synchronises.
class NoteSearchService {
public:
    static inline const QString unavailableWarning =
        QStringLiteral("On-device semantic embeddings are unavailable; keyword results were returned.");
    static inline const QString indexingWarning =
        QStringLiteral("Meaning search is still indexing; keyword results were returned.");

    // `embedder` may be missing (the word-vector table could not be opened):
    // then meaning and hybrid searches answer with keyword results and say so.
    NoteSearchService(std::shared_ptr<NoteSearchCatalog> catalog, Result<std::shared_ptr<const WordVectorEmbedder>> embedder);
    // The catalog at `catalogPath` and the word-vector table at its default place.
    static Result<std::unique_ptr<NoteSearchService>> open(const QString& catalogPath);

    NoteSearchCatalog& catalog() { return *catalog_; }
    const std::shared_ptr<NoteSearchCatalog>& sharedCatalog() const { return catalog_; }
    // Why meaning search is unavailable, if it is.
    std::optional<QString> embeddingsProblem() const;
    // Meaning search has vectors for every note in the catalog.
    bool meaningReady() const;

    // Keyword rows, then (when meaning search is available) every note's
    // chunks and the vectors in memory. `stop` is checked between notes.
    Result<int> synchronize(const NoteRepository& repository, std::stop_token stop = {});
    // The two halves on their own, for a long-lived process that answers
    // searches (with keyword results and the indexing warning) while the
    // meaning half runs on another thread.
    Result<int> synchronizeKeywords(const NoteRepository& repository, std::stop_token stop = {});
    Result<void> synchronizeMeaning(const NoteRepository& repository, std::stop_token stop = {});
    // Whether the last refresh found notes without vectors.
    bool meaningBehind() const { return embedder_ && notesWithoutVectors_ > 0; }
    // Brings the vectors in memory up to date with the catalog, which another
    // process may have changed. Without `always`, only if another connection
    // committed since the last refresh (this one's changes refresh themselves).
    Result<void> refreshVectors(bool always = true);

    Result<NoteSearchResponse> search(const QString& query, NoteSearchMode mode, qint64 limit);
    // A search over the catalog brought up to date with the folder, for a
    // one-shot command. The folder is listed on another thread while the
    // search runs on the catalog as it is; when the listing shows that the
    // catalog was up to date (the usual case) that answer stands, otherwise
    // the catalog is synchronised and the search runs again. A keyword search
    // neither embeds notes nor loads vectors.
    // `listing` is the folder's listing begun on another thread (`listInBackground`)
    // before anything else, the slowest part of a run.
    using PendingListing = std::future<Result<NoteSearchCatalog::Listing>>;
    static PendingListing listInBackground(const NoteRepository& repository);
    Result<NoteSearchResponse> searchUpToDate(const NoteRepository& repository, PendingListing listing,
                                              const QString& query, NoteSearchMode mode, qint64 limit);

    // Bytes of vectors held in memory.
    size_t vectorBytes() const;

    // Keeps the vectors in memory, and the catalog its ranking snapshot, in
    // files beside the catalog between runs, tagged with the catalog's
    // generation. For one-shot commands, which would otherwise read every
    // vector and build the snapshot from every row each time.
    void keepSnapshotsBesideCatalog();
    static QString vectorsFilePath(const QString& catalogPath) { return catalogPath + QStringLiteral("-vectors"); }

private:
    Result<NoteSearchResponse> meaningSearch(const std::vector<float>& query, qint64 limit);
    Result<NoteSearchResponse> hybridSearch(const QString& query, const std::vector<float>& vector, qint64 limit);

    std::shared_ptr<NoteSearchCatalog> catalog_;
    std::shared_ptr<const WordVectorEmbedder> embedder_;
    std::optional<QString> embeddingsProblem_;
    mutable std::shared_mutex indexLock_;
    std::unique_ptr<SemanticVectorIndex> index_;
    std::mutex refreshLock_;  // one refresh at a time
    std::atomic<bool> loaded_ = false;
    std::atomic<qsizetype> notesWithoutVectors_ = 0;
    qint64 refreshedDataVersion_ = -1;
    bool keepsVectorsFile_ = false;
};

namespace NoteSearchModes {
std::optional<NoteSearchMode> fromString(const QString& text);
QString toString(NoteSearchMode mode);
}  // namespace NoteSearchModes

}  // namespace mossly
