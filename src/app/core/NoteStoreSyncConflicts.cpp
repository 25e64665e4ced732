#include <QDateTime>
#include <QFileInfo>
#include <utility>

#include "Diagnostics.h"
#include "FolderMetadataMerge.h"
#include "NoteModel.h"
#include "NoteStore.h"
#include "SyncConflictCopies.h"
#include "SyncEngineIgnores.h"
#include "SyncthingWrites.h"

namespace mossly {

namespace {

DiagnosticsCenter& diagnostics() { return DiagnosticsCenter::shared(); }

// Longer than Syncthing takes from deciding to fetch a file to renaming it into place.
constexpr qint64 recentSaveMilliseconds = 10'000;

}  // namespace

std::optional<QString> NoteStore::syncConflictOriginal(const QString& url) const {
    const Note* copy = note(url);
    if (!copy) return std::nullopt;
    return syncConflictOriginal(*copy);
}

std::optional<QString> NoteStore::syncConflictOriginal(const Note& copy) const {
    const auto found = syncConflictCopyOf(copy.identifier);
    if (!found) return std::nullopt;
    const QString original = directory_ + u'/' + found->original;
    if (!note(original)) return std::nullopt;  // a copy without its note is a note of its own
    return original;
}

std::vector<const Note*> NoteStore::syncConflictCopies(const QString& url) const {
    std::vector<const Note*> copies;
    const Note* original = note(url);
    if (!original) return copies;
    for (const Note& candidate : notes_) {
        const auto found = syncConflictCopyOf(candidate.identifier);
        if (found && found->original == original->identifier) copies.push_back(&candidate);
    }
    std::sort(copies.begin(), copies.end(), [](const Note* a, const Note* b) { return a->identifier < b->identifier; });
    return copies;
}

QString NoteStore::syncConflictDescription(const QString& copyUrl) const {
    const Note* copy = note(copyUrl);
    const auto found = copy ? syncConflictCopyOf(copy->identifier) : std::nullopt;
    if (!found) return {};
    return QStringLiteral("%1, %2").arg(found->engine, found->detail);
}

// The two texts are both on disk; whichever the user keeps is written through
// the repository, and only then does the engine's copy go to the Trash.
Result<void> NoteStore::resolveSyncConflict(QString url, QString copyUrl, SyncConflictChoice choice) {
    auto span = diagnostics().span(QStringLiteral("Resolve sync conflict"));
    // Identifiers, not pointers: saving and adding notes below reorder the list.
    if (!note(url) || !note(copyUrl) || syncConflictOriginal(copyUrl) != url) return fail(Error::notFound(copyUrl));
    const QString copyIdentifier = note(copyUrl)->identifier;
    if (hasPendingSave(url)) {
        // The user's words go to disk first: the choice is about what is there.
        if (auto saved = persistPendingSave(url); !saved) {
            emit problemOccurred(saved.error().description());
            return fail(saved.error());
        }
    }
    if (conflicts_.contains(url)) {
        emit problemOccurred(Error::unsavedEdits().description());
        return fail(Error::unsavedEdits());
    }
    const Note* original = note(url);
    if (!original) return fail(Error::notFound(url));
    auto other = files_->read(copyIdentifier);
    if (!other) {
        emit problemOccurred(other.error().description());
        return fail(other.error());
    }

    if (choice == SyncConflictChoice::keepOther) {
        auto written = files_->update(original->identifier, original->revision, other->document.body,
                                      original->contentType);
        if (!written) {
            emit problemOccurred(written.error().description());
            return fail(written.error());
        }
        Note* target = mutableNote(url);
        Note fresh = noteFromStored(*written);
        touch(fresh);
        *target = std::move(fresh);
        emit noteContentChanged(url);
    } else if (choice == SyncConflictChoice::keepBoth) {
        // The other version becomes a conflict copy of Mossly's own, listed beside its note.
        auto kept = createConflictCopyBeside(url, original->identifier, other->persistedContent, {});
        if (!kept) return fail(kept.error());
    }

    if (auto trashed = files_->moveToTrash(copyIdentifier); !trashed) {
        sortNotes();
        emit notesChanged();
        emit problemOccurred(trashed.error().description());
        return fail(trashed.error());
    }
    trashedAt_.insert(copyIdentifier, ++generation_);
    removeNotesFromModel({copyUrl}, false);
    sortNotes();
    emit notesChanged();
    refreshSearchIndexInBackground();
    diagnostics().event(QStringLiteral("Sync conflict resolved"),
                        {{"choice", choice == SyncConflictChoice::keepThis    ? QStringLiteral("this")
                                    : choice == SyncConflictChoice::keepOther ? QStringLiteral("other")
                                                                              : QStringLiteral("both")}});
    return {};
}

void NoteStore::rememberSave(const QString& url, const QString& baseBody, const StoredNote& saved) {
    if (!isSyncthingFolder(directory_)) return;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    // Older saves can no longer be replaced unseen: their texts need not stay in memory.
    recentSaves_.removeIf([now](const auto& entry) { return now - entry.value().savedAtMs > recentSaveMilliseconds; });
    recentSaves_.insert(url, RecentSave{baseBody, saved.document.body, saved.persistedContent, now});
}

// Syncthing checks that a file is unchanged, then renames the version it
// downloaded over it; a save of ours that lands between the two is replaced
// without a conflict copy. So when a file we saved a moment ago is replaced by
// a text that lacks words our save added, our text is kept as a conflict copy.
// (A writer that really removed those words at once leaves one copy too many,
// never a word too few.)
NoteStore::EngineReplacement NoteStore::keepSaveReplacedByEngine(const QString& url, const StoredNote& incoming) {
    const auto recent = recentSaves_.constFind(url);
    if (recent == recentSaves_.cend()) return EngineReplacement::none;
    const RecentSave save = *recent;
    recentSaves_.erase(recent);
    if (QDateTime::currentMSecsSinceEpoch() - save.savedAtMs > recentSaveMilliseconds) return EngineReplacement::none;
    if (keepsAddedWords(save.baseBody, save.body, incoming.document.body)) return EngineReplacement::none;
    if (syncthingKeptText(incoming.url, save.fileText)) return EngineReplacement::none;  // the usual case: a conflict it saw
    const Result<StoredNote> kept = createConflictCopy(
        incoming.identifier, [&](const QString& name) { return files_->createAt(name, save.fileText); });
    if (!kept) {
        emit problemOccurred(kept.error().description());
        return EngineReplacement::copyFailed;
    }
    // Not added to the list here: the caller holds a note of it. The folder's next look lists the copy.
    diagnostics().event(QStringLiteral("Save replaced by a sync engine kept as a conflict copy"));
    return EngineReplacement::keptAsCopy;
}

// Library files that sync engines move between machines: Mossly's ignore
// lines for Syncthing, and ".folders.json" as changed on another machine,
// with the conflict copies of it merged in.
void NoteStore::reconcileSyncedLibraryFiles() {
    if (auto ignores = ensureSyncthingIgnores(directory_); !ignores) {
        diagnostics().event(QStringLiteral("Sync ignore file not written"), {{"reason", ignores.error().description()}});
    }
    if (!metadataLoaded_) return;
    auto merged = mergeFolderMetadataConflictCopies(directory_);
    if (!merged) {
        diagnostics().event(QStringLiteral("Folder conflict copies not merged"), {{"reason", merged.error().description()}});
    } else if (*merged > 0) {
        diagnostics().event(QStringLiteral("Folder conflict copies merged"), {{"count", *merged}});
    }
    // Only a file that changed since the last look is read again: the app's own
    // writes leave it equal to what is in memory.
    const QFileInfo folderFile(directory_ + u'/' + FolderMetadata::fileName);
    const QString seen = folderFile.exists() ? QStringLiteral("%1 %2").arg(folderFile.lastModified().toMSecsSinceEpoch()).arg(folderFile.size())
                                             : QString();
    // A file missing for a moment (a sync engine replacing it) is not "no folders".
    if (seen.isEmpty() || std::exchange(folderFileSeen_, seen) == seen) return;
    auto disk = files_->loadFolderMetadata();
    if (!disk) {
        if (!metadataError_) {
            metadataError_ = disk.error();
            emit problemOccurred(disk.error().description());
            emit foldersChanged();
        }
        return;
    }
    if (*disk == metadata_ && !metadataError_) return;
    metadata_ = std::move(*disk);
    metadataError_.reset();
    emit foldersChanged();
}

}  // namespace mossly
