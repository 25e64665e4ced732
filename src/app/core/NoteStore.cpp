#include "NoteStore.h"
#include "SyncConflictCopies.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <thread>

#include "AtomicFile.h"
#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "DirectoryMonitor.h"
#include "NoteListCache.h"
#include "NoteModel.h"
#include "NoteSearchService.h"
#include "NoteTitle.h"
#include "WelcomeNote.h"

namespace mossly {

namespace {

DiagnosticsCenter& diagnostics() { return DiagnosticsCenter::shared(); }

// Reads and decodes every note, on all cores: at start-up this is what the
// user waits for. Notes that cannot be shown (not UTF-8, unreadable) are kept
// aside with the reason, for the notice that lists them. Keeps the
// repository's order.
std::vector<Note> readAllNotes(const NoteFileAccess& files, const std::vector<NoteFileMetadata>& listing,
                               std::vector<UnreadableNote>& unreadable) {
    std::vector<std::optional<Note>> loaded(listing.size());
    std::vector<std::optional<Error>> failures(listing.size());
    std::atomic<size_t> next{0};
    const auto work = [&] {
        for (size_t i = next++; i < loaded.size(); i = next++) {
            auto stored = files.read(listing[i].identifier);
            if (stored) {
                loaded[i] = noteListEntryFromStored(*stored);
            } else {
                failures[i] = stored.error();
            }
        }
    };
    const int workers = std::max(1, QThread::idealThreadCount());
    std::vector<std::jthread> threads;
    for (int w = 1; w < workers; ++w) threads.emplace_back(work);
    work();
    threads.clear();  // joins
    std::vector<Note> notes;
    notes.reserve(loaded.size());
    for (size_t i = 0; i < loaded.size(); ++i) {
        if (loaded[i]) {
            notes.push_back(std::move(*loaded[i]));
        } else if (failures[i] && failures[i]->code() != Error::Code::notFound) {  // vanished mid-read: not a problem
            unreadable.push_back({listing[i].identifier, failures[i]->description()});
        }
    }
    return notes;
}

int retryDelayMilliseconds(int attempt) {
    const qint64 delay = qint64{1000} << std::clamp(attempt - 1, 0, 16);
    return static_cast<int>(std::min<qint64>(delay, NoteStore::maximumRetryDelay.count()));
}

}  // namespace

QString Note::fileText(const QString& body) const {
    return base ? base->serialized(body, NoteEditor::human()) : body;
}

void NoteStore::saveNoteListCache(bool now) {
    // Never a list of placeholder titles: the cache waits for the details.
    if (!options_.usesNoteListCache || isLoadingInitialNotes_ || readingNoteDetails_) return;
    noteListCacheTimer_.stop();
    const std::vector<Note> snapshot = notes_;
    const QString directory = directory_;
    const auto save = [snapshot, directory] {
        if (auto saved = NoteListCache::save(directory, snapshot); !saved) {
            DiagnosticsCenter::shared().event(QStringLiteral("Note list cache not written"),
                                              {{"reason", saved.error().description()}});
        }
        return true;
    };
    if (now) {
        save();
    } else {
        runInBackground(this, save, [](bool) {});
    }
}

void NoteStore::setUnreadableNotes(std::vector<UnreadableNote> unreadable) {
    std::sort(unreadable.begin(), unreadable.end(),
              [](const UnreadableNote& a, const UnreadableNote& b) { return a.identifier < b.identifier; });
    if (unreadable == unreadableNotes_) return;
    unreadableNotes_ = std::move(unreadable);
    if (!unreadableNotes_.empty()) {
        diagnostics().event(QStringLiteral("Notes could not be read"),
                            {{"count", static_cast<qint64>(unreadableNotes_.size())}});
    }
    emit unreadableNotesChanged();
}

QString librarySearchCatalogPath(const QString& directory) {
    return directory + u'/' + NoteSearchCatalog::notesFolderCatalogName;
}

struct NoteStore::LoadedLibrary {
    std::vector<Note> notes;
    Result<FolderMetadata> metadata = FolderMetadata{};
    std::optional<Error> listingError;
    std::vector<UnreadableNote> unreadable;
    bool fromCache = false;
    bool listingOnly = false;
    // The folders and favourites read with the listing stay: the user may have changed them since.
    bool keepsFolderMetadata = false;

    // The list as last seen, when there is a cache of it; the folder is checked afterwards.
    static std::optional<LoadedLibrary> readCached(const NoteFileAccess& files) {
        auto cached = NoteListCache::load(files.directory());
        if (!cached) return std::nullopt;
        LoadedLibrary library;
        library.notes = std::move(*cached);
        library.metadata = files.loadFolderMetadata();
        library.fromCache = true;
        return library;
    }

    // The list from the folder listing alone, before any note is read: titles
    // from file names (which the app gives its notes' titles), no excerpts,
    // no revisions. Sorted like the real list (by modification date), so the
    // read that follows only fills rows in.
    static LoadedLibrary readListing(const NoteFileAccess& files) {
        LoadedLibrary library;
        auto listing = files.enumerateMetadata();
        if (!listing) return read(files);  // the full read reports the failure
        // Sorted here, where an entry is small, rather than as notes.
        std::stable_sort(listing->begin(), listing->end(), [](const NoteFileMetadata& a, const NoteFileMetadata& b) {
            return a.modifiedAt > b.modifiedAt;
        });
        const QString prefix = QDir::cleanPath(files.directory()) + u'/';  // identifiers come clean from the listing
        library.notes.reserve(listing->size());
        for (const NoteFileMetadata& entry : *listing) {
            Note note{prefix + entry.identifier, entry.identifier, QString(), entry.contentType,
                      entry.modifiedAt, QString(), noteTitle(QString(), entry.identifier), QString(), nullptr};
            note.bodyLoaded = false;
            library.notes.push_back(std::move(note));
        }
        library.metadata = files.loadFolderMetadata();
        library.listingOnly = true;
        return library;
    }

    // Everything a library load reads; safe on any thread.
    static LoadedLibrary read(const NoteFileAccess& files) {
        LoadedLibrary library;
        auto listing = files.enumerateMetadata();
        if (listing) {
            library.notes = readAllNotes(files, *listing, library.unreadable);
        } else {
            library.listingError = listing.error();
        }
        library.metadata = files.loadFolderMetadata();
        return library;
    }
};

NoteStore::NoteStore(QString directory, Options options, QObject* parent)
    : QObject(parent),
      directory_(QDir::cleanPath(directory)),
      options_(std::move(options)),
      files_(options_.fileAccess(directory_)) {
    auto span = diagnostics().span(QStringLiteral("Open note library"));
    span.add(QStringLiteral("loading"),
             options_.loadsNotesSynchronously ? QStringLiteral("synchronous") : QStringLiteral("deferred"));
    diagnostics().addPrivatePath(directory_);
    searchTimer_.setSingleShot(true);
    searchTimer_.setInterval(searchDelayMilliseconds);
    searchTimer_.setTimerType(Qt::PreciseTimer);  // a coarse timer may fire 5 % early
    if (options_.usesNoteListCache) {
        noteListCacheTimer_.setSingleShot(true);
        noteListCacheTimer_.setInterval(5000);
        connect(&noteListCacheTimer_, &QTimer::timeout, this, [this] { saveNoteListCache(false); });
        connect(this, &NoteStore::notesChanged, &noteListCacheTimer_, qOverload<>(&QTimer::start));
    }
    connect(&searchTimer_, &QTimer::timeout, this, &NoteStore::runSearch);
    if (options_.loadsNotesSynchronously) {
        didStartInitialLoad_ = true;
        applyLibrary(LoadedLibrary::read(*files_), generation_);
    }
    span.add(QStringLiteral("noteCount"), static_cast<qint64>(notes_.size()));
    span.add(QStringLiteral("folderCount"), static_cast<qint64>(metadata_.folders.size()));
}

NoteStore::~NoteStore() {
    indexStop_.request_stop();
    for (QTimer* timer : std::as_const(saveTimers_)) delete timer;
}

void NoteStore::loadInitialNotes() {
    if (didStartInitialLoad_) return;
    didStartInitialLoad_ = true;
    const std::shared_ptr<NoteFileAccess> files = files_;
    const quint64 start = generation_;
    auto span = std::make_shared<DiagnosticsCenter::Span>(diagnostics(), QStringLiteral("Load initial note library"));
    const bool cached = options_.usesNoteListCache;
    runInBackground(
        this,
        [files, cached] {
            if (cached) {
                if (auto library = LoadedLibrary::readCached(*files)) return std::move(*library);
            }
            return LoadedLibrary::readListing(*files);
        },
        [this, span, start, files](LoadedLibrary library) {
            if (files != files_) return;  // the library moved meanwhile
            span->add(QStringLiteral("noteCount"), static_cast<qint64>(library.notes.size()));
            span->add(QStringLiteral("source"), library.fromCache     ? QStringLiteral("cache")
                                                : library.listingOnly ? QStringLiteral("listing")
                                                                      : QStringLiteral("folder"));
            const bool fromCache = library.fromCache;
            const bool listingOnly = library.listingOnly;
            if (listingOnly) readingNoteDetails_ = true;
            applyLibrary(std::move(library), start);
            // The cached list is shown; now see what changed while Mossly was closed.
            if (fromCache) scheduleExternalChanges();
            if (listingOnly) loadNoteDetails();
        });
}

// The second half of a first start: every note read for its title, excerpt
// and revision, merged like any load into what the user did meanwhile.
void NoteStore::loadNoteDetails() {
    const std::shared_ptr<NoteFileAccess> files = files_;
    const quint64 start = generation_;
    auto span = std::make_shared<DiagnosticsCenter::Span>(diagnostics(), QStringLiteral("Load note details"));
    runInBackground(
        this, [files] { return LoadedLibrary::read(*files); },
        [this, span, start, files](LoadedLibrary library) {
            if (files != files_) return;  // the library moved meanwhile
            span->add(QStringLiteral("noteCount"), static_cast<qint64>(library.notes.size()));
            readingNoteDetails_ = false;
            library.keepsFolderMetadata = true;
            applyLibrary(std::move(library), start);
            diagnostics().event(QStringLiteral("Note details loaded"),
                                {{"noteCount", static_cast<qint64>(notes_.size())},
                                 {"sinceProcessStartMs", millisecondsSinceProcessStart()}});
            if (externalChangesWaiting_) {
                externalChangesWaiting_ = false;
                scheduleExternalChanges();
            }
        });
}

// The notes of a library read from disk, merged with those in memory (see
// applyLibrary). `replacedTexts` receives the notes whose text an editor may
// show and that now hold what the disk says instead.
std::vector<Note> NoteStore::mergedWithCurrent(std::vector<Note> loadedNotes, quint64 startGeneration,
                                               QStringList& replacedTexts) const {
    std::vector<Note> merged;
    merged.reserve(loadedNotes.size() + notes_.size());
    // Both sides may hold the whole library: look notes up by URL, not by walking the list.
    QHash<QString, const Note*> currentByUrl;
    currentByUrl.reserve(static_cast<qsizetype>(notes_.size()));
    for (const Note& current : notes_) currentByUrl.insert(current.url, &current);
    QSet<QString> loadedUrls;
    loadedUrls.reserve(static_cast<qsizetype>(loadedNotes.size()));
    for (Note& loaded : loadedNotes) {
        loadedUrls.insert(loaded.url);
        const Note* current = currentByUrl.value(loaded.url);
        const bool sameLoadedText = current && current->bodyLoaded && current->revision == loaded.revision;
        if (current && (current->changeGeneration > startGeneration || pendingBaseRevisions_.contains(loaded.url) ||
                        conflicts_.contains(loaded.url) || sameLoadedText)) {
            merged.push_back(*current);
            continue;
        }
        if (!current && trashedAt_.value(loaded.identifier) > startGeneration) continue;
        if (current && current->bodyLoaded) replacedTexts.append(loaded.url);
        merged.push_back(std::move(loaded));
    }
    for (const Note& current : notes_) {
        if (loadedUrls.contains(current.url)) continue;
        if (current.changeGeneration > startGeneration || pendingBaseRevisions_.contains(current.url) ||
            conflicts_.contains(current.url)) {
            merged.push_back(current);  // created here meanwhile, or holding words not yet on disk
        }
    }
    return merged;
}

// Merges a library read from disk into what the user has done since the read
// began (`startGeneration`): notes created, edited or saved meanwhile keep
// their in-memory state, notes trashed meanwhile stay gone, and text not yet
// on disk is never dropped.
void NoteStore::applyLibrary(LoadedLibrary library, quint64 startGeneration) {
    if (library.listingError) emit problemOccurred(library.listingError->description());
    QStringList replacedTexts;
    if (notes_.empty() && trashedAt_.isEmpty()) {
        notes_ = std::move(library.notes);  // nothing here yet to merge with
    } else {
        notes_ = mergedWithCurrent(std::move(library.notes), startGeneration, replacedTexts);
    }
    sortNotes();
    setUnreadableNotes(std::move(library.unreadable));
    for (const QString& url : QStringList(pendingBaseRevisions_.keys()) + QStringList(conflicts_.keys())) {
        if (!note(url)) forgetUnsavedState(url);
    }

    if (library.keepsFolderMetadata) {
        // As they are in memory (and on disk since the user's last change).
    } else if (library.metadata) {
        metadata_ = std::move(*library.metadata);
        metadataError_.reset();
    } else {
        // Keep going with no folders shown, and never write over the user's file.
        metadata_ = FolderMetadata{};
        metadataError_ = library.metadata.error();
        emit problemOccurred(library.metadata.error().description());
    }
    metadataLoaded_ = true;
    reconcileSyncedLibraryFiles();
    const bool wasLoading = isLoadingInitialNotes_;
    isLoadingInitialNotes_ = false;
    emit notesChanged();
    emit foldersChanged();
    if (wasLoading) emit loadingChanged();
    // An editor showing one of these must take the file's text before the user types on.
    for (const QString& url : std::as_const(replacedTexts)) emit noteContentChanged(url);
    if (selection_ && !note(*selection_)) select(std::nullopt);

    if (wasLoading && options_.createsWelcomeNote && notes_.empty() && !library.listingError) {
        // An empty list from the cache says nothing about the folder: the scan that follows decides.
        if (library.fromCache) {
            welcomeNoteAwaitsScan_ = true;
        } else {
            createWelcomeNoteIfNeeded();
        }
    }
    startMonitoring();
    // Indexing reads every note too: it waits for the details, not to halve their pace.
    if (!readingNoteDetails_) refreshSearchIndexInBackground();
}

void NoteStore::startMonitoring() {
    if (monitor_ && monitor_->root() == directory_) return;
    QDir().mkpath(directory_);
    monitor_ = std::make_unique<DirectoryMonitor>(directory_);
    connect(monitor_.get(), &DirectoryMonitor::changed, this, &NoteStore::scheduleExternalChanges);
}

Result<void> NoteStore::activateDirectory(const QString& directory, const QHash<QString, QString>& relocatedNotes) {
    auto span = diagnostics().span(QStringLiteral("Activate note directory"));
    // Never leave words behind in the old folder.
    if (auto flushed = flushPendingSaves(); !flushed) return flushed;
    if (!conflicts_.isEmpty()) return fail(Error::unsavedEdits());
    monitor_.reset();
    for (auto it = relocatedNotes.begin(); it != relocatedNotes.end(); ++it) relocatedNoteIDs_.insert(it.key(), it.value());
    const bool selectionMoves = selection_ && relocatedNotes.contains(*selection_);
    if (selectionMoves) selection_ = relocatedNotes.value(*selection_);
    directory_ = QDir::cleanPath(directory);
    files_ = options_.fileAccess(directory_);
    notes_.clear();
    trashedAt_.clear();
    missingNoteNames_.clear();
    catalog_.reset();
    catalogReady_ = false;
    // A details read of the old folder still running is dropped when it ends (its files are not ours).
    readingNoteDetails_ = false;
    externalChangesWaiting_ = false;
    diagnostics().addPrivatePath(directory_);
    ++externalSyncGeneration_;
    applyLibrary(LoadedLibrary::read(*files_), generation_);
    // Editors follow their note to its new place (an unmoved selection was cleared by the load).
    if (selectionMoves && selection_) emit selectionChanged();
    return {};
}

const Note* NoteStore::note(const QString& url) const {
    const auto it = std::find_if(notes_.begin(), notes_.end(), [&](const Note& n) { return n.url == url; });
    return it == notes_.end() ? nullptr : &*it;
}

Note* NoteStore::mutableNote(const QString& url) { return const_cast<Note*>(std::as_const(*this).note(url)); }

void NoteStore::sortNotes() {
    const auto newerFirst = [](const Note& a, const Note& b) { return a.modifiedAt > b.modifiedAt; };
    // A list from the cache comes sorted: checking is far cheaper than moving 100,000 notes.
    if (std::is_sorted(notes_.begin(), notes_.end(), newerFirst)) return;
    std::stable_sort(notes_.begin(), notes_.end(), newerFirst);
}

void NoteStore::select(const std::optional<QString>& url) {
    if (selection_ == url) return;
    selection_ = url;
    emit selectionChanged();
}

std::optional<QString> NoteStore::createNote(const QString& content, NoteContentType contentType,
                                             const std::optional<QUuid>& folder) {
    auto created = files_->create(suggestedNoteName(content, contentType), content, contentType);
    if (!created) {
        diagnostics().event(QStringLiteral("Create note failed"), {{"reason", created.error().description()}});
        emit problemOccurred(created.error().description());
        return std::nullopt;
    }
    Note fresh = noteFromStored(*created);
    touch(fresh);
    trashedAt_.remove(fresh.identifier);
    if (folder && metadata_.folder(*folder) && folderMetadataWritable()) {
        metadata_.noteAssignments.insert(fresh.fileName(), *folder);
        writeFolderMetadata();
        emit foldersChanged();
    }
    notes_.insert(notes_.begin(), std::move(fresh));
    diagnostics().event(QStringLiteral("Create note"), {{"noteCount", static_cast<qint64>(notes_.size())}});
    emit notesChanged();
    select(created->url);
    emit editorFocusRequested(QUuid::createUuid(), created->url);
    refreshSearchIndexInBackground();
    return created->url;
}

QString NoteStore::body(const QString& url) {
    Note* found = mutableNote(url);
    if (!found) return {};
    if (!found->bodyLoaded) {
        auto stored = files_->read(found->identifier);
        if (!stored) {
            emit problemOccurred(QStringLiteral("Could not open \u201C%1\u201D: ").arg(found->title) +
                                 stored.error().description());
            return {};
        }
        found->content = stored->document.body;
        found->base = std::make_shared<const NoteDocument>(stored->document);
        found->bodyLoaded = true;
        if (stored->document.revision() != found->revision) {
            // Changed since the list was read: take the file as it is now.
            Note fresh = noteFromStored(*stored);
            fresh.changeGeneration = found->changeGeneration;
            *found = std::move(fresh);
            emit notesChanged();
        }
    }
    return found->content;
}

bool NoteStore::isBodyAvailable(const QString& url) {
    (void)body(url);
    const Note* found = note(url);
    return found && found->bodyLoaded;
}

void NoteStore::setBody(const QString& url, const QString& body) {
    // A body never read (or unreadable) is never replaced: the editor showed nothing of it.
    if (!isBodyAvailable(url)) return;
    Note* target = mutableNote(url);
    if (!target || target->content == body) return;
    target->content = body;
    touch(*target);
    emit noteContentChanged(url);
    if (auto conflict = conflicts_.find(url); conflict != conflicts_.end()) {
        // While the user decides, their latest text is what "Keep Conflict Copy" preserves.
        conflict->userContent = body;
        return;
    }
    if (!pendingBaseRevisions_.contains(url)) pendingBaseRevisions_.insert(url, target->revision);
    scheduleSave(url);
}

void NoteStore::applyEditorChange(const QString& url, const QString& shownBefore, const QString& body) {
    if (!isBodyAvailable(url)) return;
    const Note* target = note(url);
    if (!target || target->content == shownBefore || conflicts_.contains(url)) {
        setBody(url, body);
        return;
    }
    // Every change of a note's text is announced, so this is a fault: keep both.
    diagnostics().event(QStringLiteral("Editor text behind its note"));
    if (pendingBaseRevisions_.contains(url)) {
        // Both texts are this user's own; the newer one goes to disk first. If it cannot
        // (or the disk moved on meanwhile, now a conflict of its own), the edit goes on as typed.
        const auto saved = persistPendingSave(url);
        if (!saved || conflicts_.contains(url)) {
            setBody(url, body);
            return;
        }
    }
    beginConflict(url, *target, body);
    setBody(url, body);
}

void NoteStore::scheduleSave(const QString& url) { startSaveTimer(url, saveDelayMilliseconds); }

void NoteStore::startSaveTimer(const QString& url, int milliseconds) {
    QTimer*& timer = saveTimers_[url];
    if (!timer) {
        timer = new QTimer(this);
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);  // a coarse timer may fire 5 % early
        connect(timer, &QTimer::timeout, this, [this, url] { (void)persistPendingSave(url); });
    }
    timer->start(milliseconds);  // restarting cancels the previous debounce
}

void NoteStore::stopSaveTimer(const QString& url) {
    if (QTimer* timer = saveTimers_.take(url)) {
        timer->stop();
        timer->deleteLater();
    }
}

Result<void> NoteStore::persistPendingSave(const QString& url) {
    stopSaveTimer(url);
    if (!pendingBaseRevisions_.contains(url)) return {};
    Note* target = mutableNote(url);
    if (!target) {
        forgetUnsavedState(url);
        return {};
    }

    auto span = diagnostics().span(QStringLiteral("Revision-checked note save"));
    auto saved = files_->update(target->identifier, pendingBaseRevisions_.value(url), target->content,
                                target->contentType);
    if (saved) {
        commitSaved(url, *saved);
        return {};
    }

    Error error = saved.error();
    span.fail(error.description());
    if (error.code() == Error::Code::stale) {
        auto disk = files_->read(target->identifier);
        if (disk) {
            // The meeting recorder wrote its blocks meanwhile: save the merged text on its revision.
            if (!conflicts_.contains(url) && mergeRecorderBlocks(url, *disk, target->content)) {
                return persistPendingSave(url);
            }
            beginConflict(url, *disk, target->content);
            return fail(error);
        }
        error = disk.error();
    } else if (error.code() == Error::Code::notFound) {
        // Deleted elsewhere while the user was typing: the words go back where they were.
        auto restored = restoreDeletedNote(url);
        if (restored) return {};
        error = restored.error();
    }
    // The text stays in memory and pending; the next attempt may succeed.
    recordSaveFailure(url, error);
    return fail(error);
}

void NoteStore::commitSaved(const QString& url, const StoredNote& saved) {
    Note* target = mutableNote(url);
    rememberSave(url, target->base ? target->base->body : QString(), saved);
    Note fresh = noteFromStored(saved);
    fresh.content = target->content;  // what the user sees; equal to what was written
    *target = std::move(fresh);
    touch(*target);
    pendingBaseRevisions_.remove(url);
    const bool hadFailure = saveFailures_.remove(url) > 0;
    diagnostics().event(QStringLiteral("Note save committed"));
    sortNotes();
    emit notesChanged();
    emit saveCommitted(url);
    if (hadFailure) emit saveStateChanged(url);
    refreshSearchIndexInBackground();
}

void NoteStore::recordSaveFailure(const QString& url, const Error& error) {
    SaveFailure& failure = saveFailures_[url];
    const bool wasVisible = failure.attempts > 0 && (failure.error.code() != Error::Code::busy ||
                                                     failure.attempts > quietBusyAttempts);
    failure.error = error;
    ++failure.attempts;
    const bool busy = error.code() == Error::Code::busy;
    const bool visible = !busy || failure.attempts > quietBusyAttempts;
    startSaveTimer(url, busy && !visible ? saveDelayMilliseconds
                                         : retryDelayMilliseconds(busy ? failure.attempts - quietBusyAttempts
                                                                       : failure.attempts));
    if (!visible) return;
    if (!wasVisible) {
        const Note* target = note(url);
        diagnostics().event(QStringLiteral("Note save failed"), {{"reason", error.description()}});
        emit problemOccurred(QStringLiteral("Could not save \u201C%1\u201D: ").arg(target ? target->title : url) +
                             error.description());
    }
    emit saveStateChanged(url);
}

const SaveFailure* NoteStore::saveFailure(const QString& url) const {
    const auto it = saveFailures_.constFind(url);
    if (it == saveFailures_.cend()) return nullptr;
    const bool visible = it->error.code() != Error::Code::busy || it->attempts > quietBusyAttempts;
    return visible ? &*it : nullptr;
}

void NoteStore::retrySave(const QString& url) { (void)persistPendingSave(url); }

void NoteStore::forgetUnsavedState(const QString& url) {
    stopSaveTimer(url);
    pendingBaseRevisions_.remove(url);
    const bool hadFailure = saveFailures_.remove(url) > 0;
    const bool hadConflict = conflicts_.remove(url) > 0;
    if (hadFailure) emit saveStateChanged(url);
    if (hadConflict) emit conflictsChanged();
}

// Writes the user's text back as a new file at the note's place, with its
// front matter. Used when the file was deleted elsewhere while the user still
// had words in it: keeping them is the safe choice.
Result<void> NoteStore::restoreDeletedNote(const QString& url) {
    Note* target = mutableNote(url);
    if (!target) return {};
    const auto conflict = conflicts_.constFind(url);
    const QString text = target->fileText(conflict != conflicts_.cend() ? conflict->userContent : target->content);
    auto restored = files_->createAt(target->identifier, text);
    if (!restored) return fail(restored.error());
    rememberSave(url, QString(), *restored);
    const QString content = target->content;
    Note fresh = noteFromStored(*restored);
    *target = std::move(fresh);
    touch(*target);
    forgetUnsavedState(url);
    diagnostics().event(QStringLiteral("Note deleted elsewhere written back"));
    if (target->content != content) emit noteContentChanged(url);
    emit notesChanged();
    return {};
}

Result<void> NoteStore::flushPendingSaves(std::chrono::milliseconds busyPatience) {
    const QDeadlineTimer deadline(busyPatience);
    const QStringList urls = pendingBaseRevisions_.keys();
    for (const QString& url : urls) {
        // A busy library is worth a short wait: another writer is finishing; the alternative is losing words.
        while (true) {
            auto saved = persistPendingSave(url);
            if (saved || saved.error().code() != Error::Code::busy || deadline.hasExpired()) break;
            QThread::msleep(50);
        }
    }
    if (pendingBaseRevisions_.isEmpty()) return {};
    const QString first = pendingBaseRevisions_.keys().constFirst();
    return fail(saveFailures_.contains(first) ? saveFailures_.value(first).error : Error::unsavedEdits());
}

QuitPreparation NoteStore::prepareForQuit(std::chrono::milliseconds busyPatience) {
    auto span = diagnostics().span(QStringLiteral("Prepare to quit"));
    indexStop_.request_stop();  // an index half built is rolled back and finished next time
    importStop_.request_stop();  // files not yet imported stay where they are, to import again
    if (noteListCacheTimer_.isActive()) saveNoteListCache(true);
    const QDeadlineTimer deadline(busyPatience);
    (void)flushPendingSaves(busyPatience);
    QuitPreparation preparation;
    for (const QString& url : conflicts_.keys()) {
        const Note* original = note(url);
        const QString name = original ? original->fileName() : url;
        const auto remaining = std::chrono::milliseconds(std::max<qint64>(deadline.remainingTime(), 0));
        auto copy = keepConflictCopy(url, remaining);
        if (copy) {
            const QString copyName = QFileInfo(*copy).fileName();
            diagnostics().event(QStringLiteral("Conflict copy preserved at quit"), {{"file", copyName}});
            preparation.conflictCopies.append(name + QStringLiteral(" \u2192 ") + copyName);
        }
    }
    QStringList unsavedUrls = pendingBaseRevisions_.keys() + conflicts_.keys();
    unsavedUrls.removeDuplicates();
    for (const QString& url : unsavedUrls) {
        const Note* target = note(url);
        const QString reason = saveFailures_.contains(url) ? saveFailures_.value(url).error.description()
                                                           : Error::unsavedEdits().description();
        preparation.unsaved.push_back({url, target ? target->title : url, reason});
    }
    span.add(QStringLiteral("unsavedCount"), static_cast<qint64>(preparation.unsaved.size()));
    return preparation;
}

Result<QStringList> NoteStore::saveUnsavedNotesTo(const QString& folder) {
    QStringList written;
    QStringList unsavedUrls = pendingBaseRevisions_.keys() + conflicts_.keys();
    unsavedUrls.removeDuplicates();
    for (const QString& url : unsavedUrls) {
        const Note* target = note(url);
        if (!target) continue;
        const auto conflict = conflicts_.constFind(url);
        const QByteArray bytes =
            target->fileText(conflict != conflicts_.cend() ? conflict->userContent : target->content).toUtf8();
        const QFileInfo name(target->fileName());
        auto staged = AtomicFile::stage(QDir(folder).filePath(name.fileName()), bytes);
        if (!staged) return fail(staged.error());
        for (int counter = 1; counter <= NoteRepository::maximumNameAttempts; ++counter) {
            const QString candidate =
                counter == 1 ? name.fileName()
                             : QStringLiteral("%1 %2.%3").arg(name.completeBaseName()).arg(counter).arg(name.suffix());
            const QString path = QDir(folder).filePath(candidate);
            auto created = staged->commitIfAbsent(path);
            if (!created) return fail(created.error());
            if (*created) {
                written.append(path);
                break;
            }
        }
    }
    diagnostics().event(QStringLiteral("Unsaved notes written elsewhere"),
                        {{"fileCount", static_cast<qint64>(written.size())}});
    return written;
}

void NoteStore::beginConflict(const QString& url, const StoredNote& disk, const QString& userContent) {
    if (!conflicts_.contains(url) && mergeRecorderBlocks(url, disk, userContent)) return;
    beginConflict(url, noteFromStored(disk), userContent);
}

void NoteStore::beginConflict(const QString& url, Note other, const QString& userContent) {
    stopSaveTimer(url);
    pendingBaseRevisions_.remove(url);
    if (saveFailures_.remove(url) > 0) emit saveStateChanged(url);
    conflicts_.insert(url, NoteConflict{std::move(other), userContent});
    diagnostics().event(QStringLiteral("Concurrent note edit detected"));
    emit conflictsChanged();
}

const NoteConflict* NoteStore::conflict(const QString& url) const {
    const auto it = conflicts_.constFind(url);
    return it == conflicts_.cend() ? nullptr : &*it;
}

void NoteStore::reloadConflict(const QString& url) {
    const auto it = conflicts_.constFind(url);
    if (it == conflicts_.cend()) return;
    if (Note* target = mutableNote(url)) {
        *target = it->disk;
        touch(*target);
    }
    conflicts_.erase(it);
    diagnostics().event(QStringLiteral("Disk version reloaded"));
    diagnostics().event(QStringLiteral("Concurrent note edit resolved"));
    sortNotes();
    emit conflictsChanged();
    emit noteContentChanged(url);
    emit notesChanged();
}

Result<StoredNote> NoteStore::createConflictCopyBeside(const QString& url, const QString& identifier,
                                                      const QString& text, std::chrono::milliseconds busyPatience) {
    const QDeadlineTimer deadline(busyPatience);
    const Result<StoredNote> copy = createConflictCopy(identifier, [&](const QString& name) {
        auto created = files_->createAt(name, text);
        while (!created && created.error().code() == Error::Code::busy && !deadline.hasExpired()) {
            QThread::msleep(50);
            created = files_->createAt(name, text);
        }
        return created;
    });
    if (!copy) {
        emit problemOccurred(copy.error().description());
        return copy;
    }
    Note copied = noteFromStored(*copy);
    touch(copied);
    // The copy sits beside its note in the list the user is looking at.
    if (const auto folder = folderOf(url); folder && folderMetadataWritable()) {
        metadata_.noteAssignments.insert(copied.fileName(), *folder);
        writeFolderMetadata();
        emit foldersChanged();
    }
    notes_.push_back(std::move(copied));
    return copy;
}

Result<QString> NoteStore::keepConflictCopy(const QString& url, std::chrono::milliseconds busyPatience) {
    const auto conflict = conflicts_.constFind(url);
    const Note* original = note(url);
    if (conflict == conflicts_.cend() || !original) return fail(Error::notFound(url));
    auto span = diagnostics().span(QStringLiteral("Preserve conflict copy"));

    auto copy = createConflictCopyBeside(url, original->identifier, original->fileText(conflict->userContent),
                                         busyPatience);
    if (!copy) {
        span.fail(copy.error().description());
        return fail(copy.error());
    }
    diagnostics().event(QStringLiteral("Conflict copy preserved"));
    reloadConflict(url);
    refreshSearchIndexInBackground();
    return copy->url;
}

void NoteStore::deleteNotes(const QSet<QString>& urls) {
    auto span = diagnostics().span(QStringLiteral("Move note to Trash"));
    QSet<QString> trashed;
    for (const QString& url : urls) {
        const Note* target = note(url);
        if (!target) continue;
        if (auto moved = files_->moveToTrash(target->identifier); !moved) {
            // The note stays, and so does any edit still waiting to be saved.
            emit problemOccurred(moved.error().description());
            continue;
        }
        forgetUnsavedState(url);
        trashedAt_.insert(target->identifier, ++generation_);
        trashed.insert(url);
    }
    removeNotesFromModel(trashed, true);
    diagnostics().event(QStringLiteral("Notes moved to Trash"),
                        {{"deletedCount", static_cast<qint64>(trashed.size())},
                         {"noteCount", static_cast<qint64>(notes_.size())}});
    refreshSearchIndexInBackground();
}

void NoteStore::removeNotesFromModel(const QSet<QString>& urls, bool dropFolderMetadata) {
    if (urls.isEmpty()) return;
    // The selection moves to the note that followed the first removed one.
    std::optional<QString> nextSelection = selection_;
    if (selection_ && urls.contains(*selection_)) {
        nextSelection.reset();
        auto it = std::find_if(notes_.begin(), notes_.end(), [&](const Note& n) { return n.url == *selection_; });
        for (; it != notes_.end(); ++it) {
            if (!urls.contains(it->url)) {
                nextSelection = it->url;
                break;
            }
        }
    }
    QSet<QString> names;
    for (const QString& url : urls) {
        if (const Note* removed = note(url)) names.insert(removed->fileName());
        forgetUnsavedState(url);
    }
    std::erase_if(notes_, [&](const Note& n) { return urls.contains(n.url); });
    emit notesChanged();
    if (dropFolderMetadata) dropFolderMetadataFor(names);
    select(nextSelection);
}

// Forgets the folder and favourite of notes that are gone, unless another
// note of the library still has the same file name.
void NoteStore::dropFolderMetadataFor(const QSet<QString>& fileNames) {
    bool changed = false;
    for (const QString& name : fileNames) {
        const bool stillThere =
            std::any_of(notes_.begin(), notes_.end(), [&](const Note& n) { return n.fileName() == name; });
        if (stillThere) continue;
        changed |= metadata_.favoriteNoteNames.remove(name);
        changed |= metadata_.noteAssignments.remove(name) > 0;
    }
    if (!changed) return;
    writeFolderMetadata();
    emit foldersChanged();
}

std::optional<QString> NoteStore::resolveNoteID(const QString& url) const {
    if (note(url)) return url;
    if (auto relocated = relocatedNoteIDs_.constFind(url); relocated != relocatedNoteIDs_.cend() && note(*relocated)) {
        return *relocated;
    }
    const QString name = QFileInfo(url).fileName();
    for (const Note& candidate : notes_) {
        if (candidate.fileName() == name) return candidate.url;
    }
    return std::nullopt;
}

}  // namespace mossly
