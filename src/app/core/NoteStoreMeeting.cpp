#include "Diagnostics.h"
#include "MeetingNoteFormat.h"
#include "NoteModel.h"
#include "NoteStore.h"

namespace mossly {

void NoteStore::patchMeetingNote(const QString& url) {
    if (!url.startsWith(directory_ + u'/')) return;
    auto stored = files_->read(url.mid(directory_.size() + 1));
    if (!stored) {
        // Gone or unreadable now: the folder scan reports it as it reports any file.
        DiagnosticsCenter::shared().event(QStringLiteral("Meeting note could not be loaded"),
                                          {{"reason", stored.error().description()}});
        return;
    }
    Note* existing = mutableNote(stored->url);
    if (!existing) {
        Note fresh = noteListEntryFromStored(*stored);
        touch(fresh);
        notes_.push_back(std::move(fresh));
    } else if (existing->revision == stored->document.revision()) {
        return;
    } else if (pendingBaseRevisions_.contains(stored->url) || conflicts_.contains(stored->url)) {
        const auto conflict = conflicts_.constFind(stored->url);
        beginConflict(stored->url, *stored, conflict != conflicts_.cend() ? conflict->userContent : existing->content);
        return;
    } else {
        Note fresh = existing->bodyLoaded ? noteFromStored(*stored) : noteListEntryFromStored(*stored);
        touch(fresh);
        *existing = std::move(fresh);
        emit noteContentChanged(stored->url);
    }
    sortNotes();
    emit notesChanged();
    refreshSearchIndexInBackground();
}

// The meeting recorder rewrites only its transcript and summary blocks while the
// user may be typing elsewhere in the same note. When the two changes do not
// overlap, the note takes the disk version with the user's text around the
// recorder's new blocks, and the user's save goes on from the new revision.
bool NoteStore::mergeRecorderBlocks(const QString& url, const StoredNote& disk, const QString& userContent) {
    Note* target = mutableNote(url);
    if (!target || !target->base) return false;
    const auto merged = meeting::MeetingNoteFormat::mergingRecorderBlocks(target->base->body, userContent,
                                                                          disk.document.body);
    if (!merged) return false;
    Note fresh = noteFromStored(disk);
    fresh.content = *merged;
    *target = std::move(fresh);
    touch(*target);
    if (saveFailures_.remove(url) > 0) emit saveStateChanged(url);
    if (*merged == disk.document.body) {
        pendingBaseRevisions_.remove(url);
        stopSaveTimer(url);
    } else {
        pendingBaseRevisions_.insert(url, disk.document.revision());
        scheduleSave(url);
    }
    DiagnosticsCenter::shared().event(QStringLiteral("Meeting note changes merged"));
    emit noteContentChanged(url);
    sortNotes();
    emit notesChanged();
    return true;
}

}  // namespace mossly
