#include "NoteStore.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <thread>

#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "DirectoryMonitor.h"
#include "NoteModel.h"
#include "NoteSearchCatalog.h"
#include "WelcomeNote.h"

namespace mossly {

namespace {

DiagnosticsCenter& diagnostics() { return DiagnosticsCenter::shared(); }

// Reads and decodes every note, on all cores: at start-up this is what the
// user waits for. Notes that cannot be shown (not UTF-8, vanished mid-read)
// are left out of the list, not fatal. Keeps the repository's order.
std::vector<Note> readAllNotes(const NoteRepository& repository, int& unreadable) {
    auto listing = repository.enumerateMetadata();
    if (!listing) return {};
    std::vector<std::optional<Note>> loaded(listing->size());
    std::atomic<size_t> next{0};
    std::atomic<int> failed{0};
    const auto work = [&] {
        for (size_t i = next++; i < loaded.size(); i = next++) {
            auto stored = repository.read((*listing)[i].identifier);
            if (stored) {
                loaded[i] = noteFromStored(*stored);
            } else {
                ++failed;
            }
        }
    };
    const int workers = std::max(1, QThread::idealThreadCount());
    std::vector<std::jthread> threads;
    for (int w = 1; w < workers; ++w) threads.emplace_back(work);
    work();
    threads.clear();  // joins
    unreadable = failed;
    std::vector<Note> notes;
    notes.reserve(loaded.size());
    for (auto& entry : loaded) {
        if (entry) notes.push_back(std::move(*entry));
    }
    return notes;
}

}  // namespace

QString librarySearchCatalogPath(const QString& directory) {
    return directory + u'/' + NoteSearchCatalog::notesFolderCatalogName;
}

struct NoteStore::LoadedLibrary {
    std::vector<Note> notes;
    Result<FolderMetadata> metadata = FolderMetadata{};
    int unreadable = 0;

    // Everything a library load reads; safe on any thread.
    static LoadedLibrary read(const NoteRepository& repository, const QString& directory) {
        LoadedLibrary library;
        library.notes = readAllNotes(repository, library.unreadable);
        library.metadata = FolderMetadata::load(directory);
        return library;
    }
};

NoteStore::NoteStore(QString directory, Options options, QObject* parent)
    : QObject(parent),
      directory_(QDir::cleanPath(directory)),
      options_(std::move(options)),
      repository_(directory_) {
    auto span = diagnostics().span(QStringLiteral("Open note library"));
    span.add(QStringLiteral("loading"),
             options_.loadsNotesSynchronously ? QStringLiteral("synchronous") : QStringLiteral("deferred"));
    diagnostics().addPrivatePath(directory_);
    searchTimer_.setSingleShot(true);
    searchTimer_.setInterval(searchDelayMilliseconds);
    connect(&searchTimer_, &QTimer::timeout, this, &NoteStore::runSearch);
    if (options_.loadsNotesSynchronously) {
        didStartInitialLoad_ = true;
        applyLibrary(LoadedLibrary::read(repository_, directory_));
    }
    span.add(QStringLiteral("noteCount"), static_cast<qint64>(notes_.size()));
    span.add(QStringLiteral("folderCount"), static_cast<qint64>(metadata_.folders.size()));
}

NoteStore::~NoteStore() {
    for (QTimer* timer : std::as_const(pendingSaves_)) delete timer;
}

void NoteStore::loadInitialNotes() {
    if (didStartInitialLoad_) return;
    didStartInitialLoad_ = true;
    const NoteRepository repository = repository_;
    const QString directory = directory_;
    auto span = std::make_shared<DiagnosticsCenter::Span>(diagnostics(), QStringLiteral("Load initial note library"));
    runInBackground(
        this,
        [repository, directory] { return LoadedLibrary::read(repository, directory); },
        [this, span](LoadedLibrary library) {
            span->add(QStringLiteral("noteCount"), static_cast<qint64>(library.notes.size()));
            applyLibrary(std::move(library));
        });
}

void NoteStore::applyLibrary(LoadedLibrary library) {
    notes_ = std::move(library.notes);
    sortNotes();
    if (library.metadata) {
        metadata_ = std::move(*library.metadata);
        metadataError_.reset();
    } else {
        // Keep going with no folders shown, and never write over the user's file.
        metadata_ = FolderMetadata{};
        metadataError_ = library.metadata.error();
        emit problemOccurred(library.metadata.error().description());
    }
    const bool wasLoading = isLoadingInitialNotes_;
    isLoadingInitialNotes_ = false;
    emit notesChanged();
    emit foldersChanged();
    if (wasLoading) emit loadingChanged();
    if (selection_ && !note(*selection_)) select(std::nullopt);

    if (wasLoading && options_.createsWelcomeNote && notes_.empty()) createWelcomeNoteIfNeeded();
    startMonitoring();
    refreshSearchIndexInBackground();
}

void NoteStore::startMonitoring() {
    if (monitor_ && monitor_->root() == directory_) return;
    QDir().mkpath(directory_);
    monitor_ = std::make_unique<DirectoryMonitor>(directory_);
    connect(monitor_.get(), &DirectoryMonitor::changed, this, &NoteStore::scheduleExternalChanges);
}

Result<void> NoteStore::activateDirectory(const QString& directory, const QHash<QString, QString>& relocatedNotes) {
    auto span = diagnostics().span(QStringLiteral("Activate note directory"));
    if (auto flushed = flushPendingSaves(); !flushed) return flushed;
    monitor_.reset();
    for (auto it = relocatedNotes.begin(); it != relocatedNotes.end(); ++it) relocatedNoteIDs_.insert(it.key(), it.value());
    if (selection_ && relocatedNotes.contains(*selection_)) selection_ = relocatedNotes.value(*selection_);
    directory_ = QDir::cleanPath(directory);
    repository_ = NoteRepository(directory_);
    catalog_.reset();
    catalogReady_ = false;
    diagnostics().addPrivatePath(directory_);
    return reloadFromDiskPreservingSelection();
}

Result<void> NoteStore::reloadFromDiskPreservingSelection() {
    ++externalSyncGeneration_;
    applyLibrary(LoadedLibrary::read(repository_, directory_));
    return {};
}

const Note* NoteStore::note(const QString& url) const {
    const auto it = std::find_if(notes_.begin(), notes_.end(), [&](const Note& n) { return n.url == url; });
    return it == notes_.end() ? nullptr : &*it;
}

Note* NoteStore::mutableNote(const QString& url) { return const_cast<Note*>(std::as_const(*this).note(url)); }

void NoteStore::sortNotes() {
    std::stable_sort(notes_.begin(), notes_.end(),
                     [](const Note& a, const Note& b) { return a.modifiedAt > b.modifiedAt; });
}

void NoteStore::select(const std::optional<QString>& url) {
    if (selection_ == url) return;
    selection_ = url;
    emit selectionChanged();
}

std::optional<QString> NoteStore::createNote(const QString& content, NoteContentType contentType) {
    const QString title = content.trimmed().isEmpty() ? QStringLiteral("Untitled") : content.section(u'\n', 0, 0);
    auto created = repository_.create(title, content, NoteEditor::human(), contentType);
    if (!created) {
        diagnostics().event(QStringLiteral("Create note failed"), {{"reason", created.error().description()}});
        emit problemOccurred(created.error().description());
        return std::nullopt;
    }
    notes_.insert(notes_.begin(), noteFromStored(*created));
    diagnostics().event(QStringLiteral("Create note"), {{"noteCount", static_cast<qint64>(notes_.size())}});
    emit notesChanged();
    select(created->url);
    emit editorFocusRequested(QUuid::createUuid(), created->url);
    refreshSearchIndexInBackground();
    return created->url;
}

QString NoteStore::body(const QString& url) const {
    const Note* found = note(url);
    return found ? found->content : QString();
}

void NoteStore::setBody(const QString& url, const QString& body) {
    Note* target = mutableNote(url);
    if (!target || target->content == body) return;
    target->content = body;
    if (auto conflict = conflicts_.find(url); conflict != conflicts_.end()) {
        // While the user decides, their latest text is what "Keep Conflict Copy" preserves.
        conflict->userContent = body;
        return;
    }
    if (!pendingBaseRevisions_.contains(url)) pendingBaseRevisions_.insert(url, target->revision);
    scheduleSave(url);
}

void NoteStore::scheduleSave(const QString& url) {
    QTimer*& timer = pendingSaves_[url];
    if (!timer) {
        timer = new QTimer(this);
        timer->setSingleShot(true);
        timer->setInterval(saveDelayMilliseconds);
        connect(timer, &QTimer::timeout, this, [this, url] { (void)persistPendingSave(url); });
    }
    timer->start();  // restarting cancels the previous debounce
}

Result<void> NoteStore::persistPendingSave(const QString& url) {
    QTimer* timer = pendingSaves_.take(url);
    if (timer) timer->deleteLater();
    const QString baseRevision = pendingBaseRevisions_.take(url);
    Note* target = mutableNote(url);
    if (!target) return {};

    auto span = diagnostics().span(QStringLiteral("Revision-checked note save"));
    auto saved = repository_.update(target->identifier, baseRevision, target->content, NoteEditor::human(),
                                    target->contentType);
    if (saved) {
        const Note fresh = noteFromStored(*saved);
        target->revision = fresh.revision;
        target->modifiedAt = fresh.modifiedAt;
        target->title = fresh.title;
        target->excerpt = fresh.excerpt;
        diagnostics().event(QStringLiteral("Note save committed"));
        invalidateExternalSync();
        sortNotes();
        emit notesChanged();
        emit saveCommitted(url);
        refreshSearchIndexInBackground();
        return {};
    }

    const Error& error = saved.error();
    span.fail(error.description());
    if (error.code() == Error::Code::stale) {
        auto disk = repository_.read(target->identifier);
        if (disk) {
            beginConflict(url, *disk, target->content);
            return fail(error);
        }
    }
    // Keep the edit pending: the text is safe in memory and the next attempt may succeed.
    pendingBaseRevisions_.insert(url, baseRevision);
    if (error.code() == Error::Code::busy) {
        scheduleSave(url);
    } else {
        emit problemOccurred(error.description());
    }
    return fail(error);
}

Result<void> NoteStore::flushPendingSaves() {
    Result<void> outcome;
    const QStringList urls = pendingSaves_.keys();
    for (const QString& url : urls) {
        if (pendingSaves_.value(url)) pendingSaves_.value(url)->stop();
        // A busy library at quit time is worth a short wait: the alternative is losing words.
        for (int attempt = 0; attempt < 20; ++attempt) {
            auto saved = persistPendingSave(url);
            if (saved || saved.error().code() != Error::Code::busy) {
                if (!saved && outcome) outcome = saved;
                break;
            }
            if (QTimer* retry = pendingSaves_.value(url)) retry->stop();
            QThread::msleep(50);
        }
    }
    return outcome;
}

void NoteStore::beginConflict(const QString& url, const StoredNote& disk, const QString& userContent) {
    const Note diskNote = noteFromStored(disk);
    conflicts_.insert(url, NoteConflict{diskNote.content, diskNote.revision, diskNote.modifiedAt, userContent});
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
        target->content = it->diskContent;
        target->revision = it->diskRevision;
        target->modifiedAt = it->diskModifiedAt;
    }
    conflicts_.erase(it);
    diagnostics().event(QStringLiteral("Disk version reloaded"));
    diagnostics().event(QStringLiteral("Concurrent note edit resolved"));
    sortNotes();
    emit conflictsChanged();
    emit noteReloaded(url);
    emit notesChanged();
}

Result<QString> NoteStore::keepConflictCopy(const QString& url) {
    const auto conflict = conflicts_.constFind(url);
    const Note* original = note(url);
    if (conflict == conflicts_.cend() || !original) return fail(Error::notFound(url));
    auto span = diagnostics().span(QStringLiteral("Preserve conflict copy"));

    const QString identifier = original->identifier;
    const qsizetype dot = identifier.lastIndexOf(u'.');
    const QString base = identifier.left(dot);
    const QString extension = identifier.mid(dot + 1);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH.mm.ss"));
    Result<StoredNote> copy = fail(Error::alreadyExists(identifier));
    for (int counter = 1; counter <= NoteRepository::maximumNameAttempts; ++counter) {
        const QString name = counter == 1
                                 ? QStringLiteral("%1 (Conflict %2).%3").arg(base, stamp, extension)
                                 : QStringLiteral("%1 (Conflict %2)-%3.%4").arg(base, stamp).arg(counter).arg(extension);
        copy = repository_.createAt(name, conflict->userContent);
        if (copy || copy.error().code() != Error::Code::alreadyExists) break;
    }
    if (!copy) {
        span.fail(copy.error().description());
        emit problemOccurred(copy.error().description());
        return fail(copy.error());
    }
    notes_.push_back(noteFromStored(*copy));
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
        if (QTimer* timer = pendingSaves_.take(url)) timer->deleteLater();
        pendingBaseRevisions_.remove(url);
        conflicts_.remove(url);
        if (auto moved = repository_.moveToTrash(target->identifier); !moved) {
            emit problemOccurred(moved.error().description());
            continue;
        }
        trashed.insert(url);
    }
    removeNotesFromModel(trashed);
    diagnostics().event(QStringLiteral("Notes moved to Trash"),
                        {{"deletedCount", static_cast<qint64>(trashed.size())},
                         {"noteCount", static_cast<qint64>(notes_.size())}});
    refreshSearchIndexInBackground();
}

void NoteStore::removeNotesFromModel(const QSet<QString>& urls) {
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
    bool metadataChanged = false;
    for (const QString& url : urls) {
        const Note* removed = note(url);
        if (!removed) continue;
        const QString name = removed->fileName();
        metadataChanged |= metadata_.favoriteNoteNames.remove(name);
        metadataChanged |= metadata_.noteAssignments.remove(name) > 0;
    }
    std::erase_if(notes_, [&](const Note& n) { return urls.contains(n.url); });
    if (metadataChanged) writeFolderMetadata();
    emit notesChanged();
    if (metadataChanged) emit foldersChanged();
    select(nextSelection);
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

void NoteStore::invalidateExternalSync() {
    ++externalSyncGeneration_;
    // A scan in flight is now stale; scan again afterwards so nobody else's change is missed.
    if (externalSyncRunning_) QTimer::singleShot(0, this, &NoteStore::scheduleExternalChanges);
}

void NoteStore::scheduleExternalChanges() {
    const quint64 generation = ++externalSyncGeneration_;
    externalSyncRunning_ = true;
    QHash<QString, FileTime> known;
    for (const Note& n : notes_) known.insert(n.identifier, n.modifiedAt);
    const NoteRepository repository = repository_;
    struct Scan {
        QSet<QString> present;
        std::vector<StoredNote> loaded;
    };
    runInBackground(
        this,
        [repository, known] {
            Scan scan;
            auto listing = repository.enumerateMetadata();
            if (!listing) return scan;
            for (const NoteFileMetadata& entry : *listing) {
                scan.present.insert(entry.identifier);
                const auto it = known.constFind(entry.identifier);
                if (it != known.cend() && *it == entry.modifiedAt) continue;  // unchanged: not read
                auto stored = repository.read(entry.identifier);
                if (stored) {
                    scan.loaded.push_back(std::move(*stored));
                } else if (it == known.cend()) {
                    scan.present.remove(entry.identifier);  // not readable as a note: not shown
                }
            }
            return scan;
        },
        [this, generation](Scan scan) {
            if (generation != externalSyncGeneration_) return;  // superseded
            externalSyncRunning_ = false;
            int added = 0, updated = 0, conflicts = 0;
            QSet<QString> removed;
            for (const Note& n : notes_) {
                if (scan.present.contains(n.identifier)) continue;
                if (pendingBaseRevisions_.contains(n.url) || conflicts_.contains(n.url)) {
                    // Deleted elsewhere while the user had unsaved words in it: put the words back.
                    if (auto restored = repository_.createAt(n.identifier, n.content); restored) {
                        if (QTimer* timer = pendingSaves_.take(n.url)) timer->deleteLater();
                        pendingBaseRevisions_.remove(n.url);
                        conflicts_.remove(n.url);
                        Note* kept = mutableNote(n.url);
                        kept->revision = restored->document.revision();
                        kept->modifiedAt = restored->modifiedAt;
                        ++conflicts;
                        continue;
                    }
                }
                removed.insert(n.url);
            }
            for (const StoredNote& stored : scan.loaded) {
                Note* existing = mutableNote(stored.url);
                if (!existing) {
                    notes_.push_back(noteFromStored(stored));
                    ++added;
                } else if (existing->revision == stored.document.revision()) {
                    existing->modifiedAt = stored.modifiedAt;  // touched, not changed
                } else if (pendingBaseRevisions_.contains(stored.url) || conflicts_.contains(stored.url)) {
                    beginConflict(stored.url, stored, existing->content);
                    if (QTimer* timer = pendingSaves_.take(stored.url)) timer->deleteLater();
                    pendingBaseRevisions_.remove(stored.url);
                    ++conflicts;
                } else {
                    *existing = noteFromStored(stored);
                    ++updated;
                    emit noteReloaded(stored.url);
                }
            }
            const int removedCount = static_cast<int>(removed.size());
            if (added + updated + removedCount + conflicts == 0) return;
            removeNotesFromModel(removed);
            sortNotes();
            indexNeedsRefresh_ = true;
            diagnostics().event(QStringLiteral("External note changes reconciled"),
                                {{"added", added}, {"updated", updated}, {"removed", removedCount},
                                 {"conflicts", conflicts}});
            emit notesChanged();
            if (conflicts > 0) emit conflictsChanged();
            refreshSearchIndexInBackground();
        });
}

}  // namespace mossly
