#include <QCoreApplication>
#include <QDir>
#include <QPointer>

#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "NoteSearchService.h"
#include "NoteStore.h"

namespace mossly {

namespace {

constexpr qint64 searchResultLimit = 200;

// Folds text the way query terms are folded (accents dropped, lower case),
// so that "cafe" and "café" find each other in both directions.
QString foldedForSearch(const QString& text) {
    const QString decomposed = text.normalized(QString::NormalizationForm_D);
    QString folded;
    folded.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        if (c.category() != QChar::Mark_NonSpacing) folded += c;
    }
    return folded.normalized(QString::NormalizationForm_C).toLower();
}

}  // namespace

// Notes in list order: slower to rank than the catalog, never empty-handed.
std::vector<NoteSearchResult> searchNotesInMemory(const std::vector<Note>& notes, const QString& query,
                                                  const std::function<QString(const Note&)>& unloadedBody) {
    const QStringList terms = NoteSearch::normalizedTerms(query);
    std::vector<NoteSearchResult> results;
    if (terms.isEmpty()) return results;
    for (const Note& n : notes) {
        const QString body = n.bodyLoaded || !unloadedBody ? n.content : unloadedBody(n);
        const QString text = foldedForSearch(n.title + u'\n' + body);
        const bool all =
            std::all_of(terms.begin(), terms.end(), [&](const QString& term) { return text.contains(term); });
        if (!all) continue;
        NoteSearchResult result;
        result.identifier = n.identifier;
        result.title = n.title;
        result.excerpt = n.excerpt;
        result.revision = n.revision;
        results.push_back(std::move(result));
        if (static_cast<qint64>(results.size()) >= searchResultLimit) break;
    }
    return results;
}

void NoteStore::setSearchText(const QString& text) {
    if (text == searchText_) return;
    searchText_ = text;
    ++searchGeneration_;  // whatever runs now is stale
    if (text.trimmed().isEmpty()) {
        searchTimer_.stop();
        const bool changed = searchResults_.has_value() || isSearching_;
        searchResults_.reset();
        isSearching_ = false;
        if (changed) emit searchChanged();
        return;
    }
    searchTimer_.start();
}

void NoteStore::runSearch() {
    const quint64 generation = ++searchGeneration_;
    const QString query = searchText_;
    isSearching_ = true;
    emit searchChanged();
    if (!catalog_ || !catalogReady_) {
        // Bodies that were never opened are read from disk, off this thread.
        const std::vector<Note> snapshot = notes_;
        const std::shared_ptr<NoteFileAccess> files = files_;
        runInBackground(
            this,
            [snapshot, files, query] {
                return searchNotesInMemory(snapshot, query, [&](const Note& n) {
                    auto stored = files->read(n.identifier);
                    return stored ? stored->document.body : QString();
                });
            },
            [this, generation](std::vector<NoteSearchResult> results) {
                if (generation != searchGeneration_) return;  // cancelled by newer typing
                searchResults_ = std::move(results);
                isSearching_ = false;
                emit searchChanged();
            });
        return;
    }
    // Words and meaning together once every note has its vectors; until then
    // (or without the word vectors) the service answers with keyword results.
    const std::shared_ptr<NoteSearchService> catalog = catalog_;
    runInBackground(
        this, [catalog, query] { return catalog->search(query, NoteSearchMode::hybrid, searchResultLimit); },
        [this, generation, query](Result<NoteSearchResponse> response) {
            if (generation != searchGeneration_) return;  // cancelled by newer typing
            isSearching_ = false;
            if (response) {
                searchResults_ = std::move(response->results);
            } else {
                DiagnosticsCenter::shared().event(QStringLiteral("Search failed"),
                                                  {{"reason", response.error().description()}});
                searchResults_ = searchNotesInMemory(notes_, query, [this](const Note& n) {
                    auto stored = files_->read(n.identifier);
                    return stored ? stored->document.body : QString();
                });
            }
            emit searchChanged();
        });
}

bool NoteStore::meaningSearchReady() const { return catalog_ && catalogReady_ && catalog_->meaningReady(); }

std::vector<const Note*> NoteStore::filteredNotes() const {
    std::vector<const Note*> filtered;
    if (!searchResults_) {
        for (const Note& n : notes_) filtered.push_back(&n);
        return filtered;
    }
    QHash<QString, const Note*> byIdentifier;
    for (const Note& n : notes_) byIdentifier.insert(n.identifier, &n);
    for (const NoteSearchResult& result : *searchResults_) {
        if (const Note* n = byIdentifier.value(result.identifier)) filtered.push_back(n);
    }
    return filtered;
}

const NoteSearchResult* NoteStore::searchResult(const QString& url) const {
    if (!searchResults_) return nullptr;
    const Note* target = note(url);
    if (!target) return nullptr;
    for (const NoteSearchResult& result : *searchResults_) {
        if (result.identifier == target->identifier) return &result;
    }
    return nullptr;
}

void NoteStore::refreshSearchIndexInBackground() {
    if (indexRefreshRunning_) {
        indexNeedsRefresh_ = true;  // run again when the current one ends
        return;
    }
    indexRefreshRunning_ = true;
    indexNeedsRefresh_ = false;
    const QString directory = directory_;
    std::shared_ptr<NoteSearchService> catalog = catalog_;
    const std::shared_ptr<NoteFileAccess> files = files_;
    struct Refresh {
        std::shared_ptr<NoteSearchService> catalog;
        Result<int> indexed = 0;
    };
    const std::stop_token stop = indexStop_.get_token();
    QPointer<NoteStore> self(this);
    // Progress crosses to this thread; a large first index shows it in the window.
    const auto postedTo = [self](void (NoteStore::*signal)(int, int)) {
        return [self, signal](int done, int total) {
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [self, signal, done, total] {
                    if (self) emit(self->*signal)(done, total);
                },
                Qt::QueuedConnection);
        };
    };
    const auto progress = postedTo(&NoteStore::indexProgress);
    const auto meaningProgress = postedTo(&NoteStore::meaningIndexProgress);
    runInBackground(
        this,
        [directory, catalog, files, stop, progress, meaningProgress]() mutable {
            auto span = DiagnosticsCenter::shared().span(QStringLiteral("Refresh search index"));
            if (!catalog) {
                auto opened = NoteSearchService::open(librarySearchCatalogPath(directory));
                if (!opened) return Refresh{nullptr, fail(opened.error())};
                catalog = std::move(*opened);
                if (auto problem = catalog->embeddingsProblem()) {
                    DiagnosticsCenter::shared().event(QStringLiteral("Meaning search unavailable"),
                                                      {{QStringLiteral("reason"), *problem}});
                }
            }
            catalog->catalog().setProgressHandler(progress);
            catalog->catalog().setSemanticProgressHandler(meaningProgress);
            auto indexed = catalog->synchronize(files->repository(), stop);
            catalog->catalog().setProgressHandler({});
            catalog->catalog().setSemanticProgressHandler({});
            span.add(QStringLiteral("indexed"), indexed.value_or(-1));
            return Refresh{catalog, indexed};
        },
        [this, directory](Refresh refresh) {
            indexRefreshRunning_ = false;
            if (directory != directory_) return;  // the library moved meanwhile
            if (refresh.catalog) catalog_ = refresh.catalog;
            if (refresh.indexed) {
                catalogReady_ = true;
            } else {
                DiagnosticsCenter::shared().event(QStringLiteral("Search index refresh failed"),
                                                  {{"reason", refresh.indexed.error().description()}});
            }
            if (indexNeedsRefresh_) refreshSearchIndexInBackground();
        });
}

}  // namespace mossly
