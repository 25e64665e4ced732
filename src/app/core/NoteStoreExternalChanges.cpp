#include <QTimer>
#include <cerrno>
#include <utility>

#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "DirectoryMonitor.h"
#include "NoteModel.h"
#include "NoteStore.h"

namespace mossly {

namespace {
constexpr int unavailableRecheckMilliseconds = 2000;
}

// What one look at the notes folder found.
struct NoteStore::Scan {
    bool available = true;  // false: the folder was missing or unreadable, which says nothing about its notes
    QSet<QString> present;  // identifiers of every note file seen
    std::vector<StoredNote> loaded;  // new files, and files whose modification date differs from `known`
    std::vector<UnreadableNote> unreadable;

    // Safe on any thread: reads only what is new or changed.
    static Scan read(const NoteFileAccess& files, const QHash<QString, FileTime>& known) {
        Scan scan;
        auto listing = files.directoryAvailable() ? files.enumerateMetadata()
                                                  : fail(Error::system(ENOENT, files.directory()));
        if (!listing) {
            scan.available = false;
            return scan;
        }
        for (const NoteFileMetadata& entry : *listing) {
            scan.present.insert(entry.identifier);
            const auto it = known.constFind(entry.identifier);
            if (it != known.cend() && *it == entry.modifiedAt) continue;  // unchanged: not read
            auto stored = files.read(entry.identifier);
            if (stored) {
                scan.loaded.push_back(std::move(*stored));
            } else if (stored.error().code() != Error::Code::notFound) {
                scan.unreadable.push_back({entry.identifier, stored.error().description()});
                if (it == known.cend()) scan.present.remove(entry.identifier);  // not shown
            }
        }
        return scan;
    }
};

QHash<QString, FileTime> NoteStore::knownModificationDates() const {
    QHash<QString, FileTime> known;
    known.reserve(static_cast<qsizetype>(notes_.size()));
    for (const Note& n : notes_) known.insert(n.identifier, n.modifiedAt);
    // Unreadable files are read again on every scan: fixing one is a change the user expects to see.
    for (const UnreadableNote& unreadable : unreadableNotes_) known.remove(unreadable.identifier);
    return known;
}

// After an import wrote into the folder: the same reconciliation as for any
// change made elsewhere, at once. An open note takes the new text, one with
// unsaved words becomes a conflict; a scan in flight is superseded by this one.
Result<void> NoteStore::reloadFromDiskPreservingSelection() {
    if (isLoadingInitialNotes_ || readingNoteDetails_) {
        scheduleExternalChanges();  // the load in flight reads the folder as it is now
        return {};
    }
    ++externalSyncGeneration_;
    applyExternalChanges(Scan::read(*files_, knownModificationDates()), generation_);
    if (auto metadata = files_->loadFolderMetadata()) {
        metadata_ = std::move(*metadata);
        metadataError_.reset();
    } else {
        metadataError_ = metadata.error();  // never written over; folder changes are refused
        emit problemOccurred(metadata.error().description());
    }
    emit foldersChanged();
    return {};
}

// Something changed in the notes folder. Only files that are new or whose
// modification date differs from the note in memory are read, in the
// background; the result is merged on this thread.
void NoteStore::scheduleExternalChanges() {
    if (isLoadingInitialNotes_) return;  // the load in flight sees the folder as it is now
    if (readingNoteDetails_) {
        externalChangesWaiting_ = true;  // looked at once the details are in
        return;
    }
    const quint64 scanGeneration = ++externalSyncGeneration_;
    const quint64 start = generation_;
    const std::shared_ptr<NoteFileAccess> files = files_;
    runInBackground(
        this, [files, known = knownModificationDates()] { return Scan::read(*files, known); },
        [this, scanGeneration, start, files](Scan scan) {
            if (scanGeneration != externalSyncGeneration_ || files != files_) return;  // superseded
            applyExternalChanges(std::move(scan), start);
        });
}

// Merges a scan into the notes as they are now. A note changed here since the
// scan began (created, typed into, saved, copied) is left alone: nothing the
// user did meanwhile is undone. A change made elsewhere before the user's is
// still caught, by the revision check of the user's save.
void NoteStore::applyExternalChanges(Scan scan, quint64 startGeneration) {
    if (!scan.available) {
        if (!directoryUnavailable_) {
            directoryUnavailable_ = true;
            DiagnosticsCenter::shared().event(QStringLiteral("Notes folder unavailable"));
            emit problemOccurred(QStringLiteral("The notes folder is not available. Your notes are kept as they are "
                                                "until it is back."));
        }
        QTimer::singleShot(unavailableRecheckMilliseconds, this, &NoteStore::scheduleExternalChanges);
        return;
    }
    if (directoryUnavailable_) {
        // The folder came back, perhaps as a new directory: watch it afresh.
        directoryUnavailable_ = false;
        monitor_.reset();
        startMonitoring();
    }

    reconcileSyncedLibraryFiles();
    setUnreadableNotes(std::move(scan.unreadable));
    bool lookAgain = false;
    int added = 0, updated = 0, conflicts = 0;
    QSet<QString> removed;
    for (const Note& n : notes_) {
        if (scan.present.contains(n.identifier)) continue;
        if (n.changeGeneration > startGeneration) continue;
        if (pendingBaseRevisions_.contains(n.url) || conflicts_.contains(n.url)) {
            // Deleted elsewhere while the user had unsaved words in it: put the words back.
            if (restoreDeletedNote(n.url)) {
                ++conflicts;
            } else {
                lookAgain = true;  // the lock was busy, say: the words stay in memory, try again soon
            }
            continue;
        }
        removed.insert(n.url);
    }
    for (const StoredNote& stored : scan.loaded) {
        Note* existing = mutableNote(stored.url);
        if (!existing) {
            if (trashedAt_.value(stored.identifier) > startGeneration) continue;
            Note fresh = noteListEntryFromStored(stored);
            touch(fresh);
            notes_.push_back(std::move(fresh));
            ++added;
        } else if (existing->changeGeneration > startGeneration) {
            continue;
        } else if (existing->revision == stored.document.revision()) {
            existing->modifiedAt = stored.modifiedAt;  // touched, not changed
        } else if (pendingBaseRevisions_.contains(stored.url) || conflicts_.contains(stored.url)) {
            const QString userContent = conflicts_.contains(stored.url) ? conflicts_.value(stored.url).userContent
                                                                        : existing->content;
            beginConflict(stored.url, stored, userContent);
            ++conflicts;
        } else {
            const EngineReplacement replaced = keepSaveReplacedByEngine(stored.url, stored);
            if (replaced == EngineReplacement::copyFailed) {
                // No copy could be written: the words stay here, in a conflict the user settles.
                beginConflict(stored.url, stored, existing->content);
                ++conflicts;
                continue;
            }
            if (replaced == EngineReplacement::keptAsCopy) ++conflicts;
            // A body nobody has opened stays unread; an open one takes the new text.
            Note fresh = existing->bodyLoaded ? noteFromStored(stored) : noteListEntryFromStored(stored);
            touch(fresh);
            const QString previousRevision = std::exchange(*existing, std::move(fresh)).revision;
            ++updated;
            emit noteContentChanged(stored.url);
            const NoteDocument& document = stored.document;
            emit noteChangedElsewhere(stored.url, previousRevision,
                                      document.lastEditedBy.value_or(document.createdBy).storedValue());
        }
    }

    // A note that vanished keeps its folder and favourite until a later scan
    // agrees that it is gone: sync engines and unmounts make files blink.
    QSet<QString> presentNames;
    for (const QString& identifier : std::as_const(scan.present)) {
        presentNames.insert(identifier.mid(identifier.lastIndexOf(u'/') + 1));
    }
    QSet<QString> confirmedGone;
    for (const QString& name : std::as_const(missingNoteNames_)) {
        if (!presentNames.contains(name)) confirmedGone.insert(name);
    }
    missingNoteNames_.clear();
    for (const QString& url : std::as_const(removed)) {
        if (const Note* gone = note(url)) missingNoteNames_.insert(gone->fileName());
    }
    if (!missingNoteNames_.isEmpty()) {
        QTimer::singleShot(missingConfirmationMilliseconds, this, &NoteStore::scheduleExternalChanges);
    }
    if (lookAgain) QTimer::singleShot(saveDelayMilliseconds, this, &NoteStore::scheduleExternalChanges);

    if (std::exchange(welcomeNoteAwaitsScan_, false) && scan.present.isEmpty() && scan.unreadable.empty() &&
        notes_.empty()) {
        createWelcomeNoteIfNeeded();
    }
    const int removedCount = static_cast<int>(removed.size());
    if (!confirmedGone.isEmpty()) dropFolderMetadataFor(confirmedGone);
    if (added + updated + removedCount + conflicts == 0) return;
    removeNotesFromModel(removed, false);
    sortNotes();
    indexNeedsRefresh_ = true;
    DiagnosticsCenter::shared().event(QStringLiteral("External note changes reconciled"),
                                      {{"added", added}, {"updated", updated}, {"removed", removedCount},
                                       {"conflicts", conflicts}});
    emit notesChanged();
    refreshSearchIndexInBackground();
}

}  // namespace mossly
