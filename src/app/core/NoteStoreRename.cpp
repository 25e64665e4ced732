#include <QDeadlineTimer>
#include <QFileInfo>
#include <QThread>

#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "NoteModel.h"
#include "NoteReferences.h"
#include "NoteStore.h"

namespace mossly {

namespace {

DiagnosticsCenter& diagnostics() { return DiagnosticsCenter::shared(); }

// "Plan.md" typed into the name of a Markdown note means "Plan".
QString baseNameOf(const QString& typed, const QString& fileName) {
    const QString name = typed.trimmed();
    const QString extension = fileName.mid(fileName.lastIndexOf(u'.'));
    return name.endsWith(extension, Qt::CaseInsensitive) ? name.chopped(extension.size()) : name;
}

// Runs `write` again while another writer holds the library lock, for a short while.
template <typename Write>
auto retryingWhileBusy(Write write) {
    const QDeadlineTimer deadline(NoteStore::defaultBusyPatience);
    auto result = write();
    while (!result && result.error().code() == Error::Code::busy && !deadline.hasExpired()) {
        QThread::msleep(50);
        result = write();
    }
    return result;
}

}  // namespace

// A Markdown note whose links to the renamed file were rewritten, as read from disk.
struct NoteStore::ReferenceEdit {
    QString url;
    QString identifier;
    QString revision;
    QString body;
    QString title;
};

Result<void> NoteStore::saveBeforeRename(const QString& url) {
    if (conflicts_.contains(url)) return fail(Error::unsavedEdits());
    if (!pendingBaseRevisions_.contains(url)) return {};
    auto saved = retryingWhileBusy([&] { return persistPendingSave(url); });
    if (!saved) return saved;
    // A conflict found by that save, or an edit that could not be written: the words stay, the name too.
    if (pendingBaseRevisions_.contains(url) || conflicts_.contains(url)) return fail(Error::unsavedEdits());
    return {};
}

Result<QString> NoteStore::renameNote(const QString& noteUrl, const QString& newBaseName) {
    // A copy: a receiver of noteRenamed may change the string the caller passed.
    const QString url = noteUrl;
    auto span = diagnostics().span(QStringLiteral("Rename note file"));
    if (!note(url)) return fail(Error::notFound(url));
    if (auto saved = saveBeforeRename(url); !saved) {
        span.fail(saved.error().description());
        return fail(saved.error());
    }
    Note* target = mutableNote(url);
    if (!target) return fail(Error::notFound(url));
    const QString oldIdentifier = target->identifier;
    const QString oldName = target->fileName();
    auto renamed = retryingWhileBusy(
        [&] { return files_->rename(oldIdentifier, target->revision, baseNameOf(newBaseName, oldName)); });
    if (!renamed) {
        span.fail(renamed.error().description());
        // Changed on disk since we read it: the next scan brings the note up to date, and a retry works.
        if (renamed.error().code() == Error::Code::stale) scheduleExternalChanges();
        return fail(renamed.error());
    }
    const QString newUrl = renamed->url;
    if (newUrl == url) return url;

    target->url = newUrl;
    target->identifier = renamed->identifier;
    touch(*target);
    // A scan that began before the rename still lists the old file: it must not come back as a note.
    trashedAt_.insert(oldIdentifier, generation_);
    for (QString& relocated : relocatedNoteIDs_) {
        if (relocated == url) relocated = newUrl;
    }
    relocatedNoteIDs_.insert(url, newUrl);
    carryFolderMetadata(oldName, renamed->identifier.mid(renamed->identifier.lastIndexOf(u'/') + 1));
    const bool selectionMoves = selection_ == url;
    if (selectionMoves) selection_ = newUrl;
    diagnostics().event(QStringLiteral("Note file renamed"));

    emit noteRenamed(url, newUrl);
    emit notesChanged();
    if (selectionMoves) emit selectionChanged();
    refreshSearchIndexInBackground();
    updateReferences(url, newUrl);
    return newUrl;
}

// Folders and favourites are kept by file name: the new name takes them over.
// The old name keeps them too while another note of the library has it.
void NoteStore::carryFolderMetadata(const QString& oldName, const QString& newName) {
    const auto folder = metadata_.noteAssignments.constFind(oldName);
    const bool favorite = metadata_.favoriteNoteNames.contains(oldName);
    if (folder == metadata_.noteAssignments.cend() && !favorite) return;
    if (!folderMetadataWritable()) return;
    const bool nameStillUsed =
        std::any_of(notes_.begin(), notes_.end(), [&](const Note& n) { return n.fileName() == oldName; });
    if (folder != metadata_.noteAssignments.cend()) {
        const QUuid id = *folder;
        if (!nameStillUsed) metadata_.noteAssignments.remove(oldName);
        metadata_.noteAssignments.insert(newName, id);
    }
    if (favorite) {
        if (!nameStillUsed) metadata_.favoriteNoteNames.remove(oldName);
        metadata_.favoriteNoteNames.insert(newName);
    }
    writeFolderMetadata();
    emit foldersChanged();
}

// Reads every Markdown note in the background for links to the old file, then
// rewrites them here, each through a revision-checked update.
void NoteStore::updateReferences(const QString& oldPath, const QString& newPath) {
    QStringList identifiers;
    for (const Note& n : notes_) {
        if (n.contentType == NoteContentType::markdown) identifiers.append(n.identifier);
    }
    const std::shared_ptr<NoteFileAccess> files = files_;
    runInBackground(
        this,
        [files, identifiers, oldPath, newPath] {
            std::vector<ReferenceEdit> edits;
            for (const QString& identifier : identifiers) {
                auto stored = files->read(identifier);
                if (!stored) continue;  // gone or unreadable: nothing of ours to change
                const QString body = rewriteNoteReferences(stored->document.body, stored->url, oldPath, newPath);
                if (body == stored->document.body) continue;
                edits.push_back({stored->url, identifier, stored->document.revision(), body, {}});
            }
            return edits;
        },
        [this, files, oldPath, newPath](std::vector<ReferenceEdit> edits) {
            if (files != files_) return;  // another notes folder by now
            int updated = 0;
            QStringList failures;
            for (ReferenceEdit& edit : edits) {
                const Note* referring = note(edit.url);
                const QString title = referring ? referring->title : QFileInfo(edit.url).completeBaseName();
                if (auto applied = applyReferenceEdit(std::move(edit), oldPath, newPath); applied) {
                    ++updated;
                } else {
                    failures.append(QStringLiteral("\u201C%1\u201D (%2)").arg(title, applied.error().description()));
                }
            }
            diagnostics().event(QStringLiteral("Note references updated"),
                                {{"updatedCount", updated}, {"failedCount", static_cast<qint64>(failures.size())}});
            if (!failures.isEmpty()) {
                emit problemOccurred(QStringLiteral("The links to \u201C%1\u201D could not be updated in ")
                                         .arg(QFileInfo(newPath).fileName()) +
                                     failures.join(QStringLiteral(", ")));
            }
            if (updated > 0) {
                sortNotes();
                emit notesChanged();
            }
            emit referencesUpdated(newPath, updated);
        });
}

Result<void> NoteStore::applyReferenceEdit(ReferenceEdit edit, const QString& oldPath, const QString& newPath) {
    if (pendingBaseRevisions_.contains(edit.url) || conflicts_.contains(edit.url)) {
        // Words typed here and not saved yet: the links change in them, saved as an ordinary edit.
        setBody(edit.url, rewriteNoteReferences(body(edit.url), edit.url, oldPath, newPath));
        return {};
    }
    for (int attempt = 0;; ++attempt) {
        auto saved = retryingWhileBusy(
            [&] { return files_->update(edit.identifier, edit.revision, edit.body, NoteContentType::markdown); });
        if (saved) {
            if (Note* referring = mutableNote(edit.url)) {
                Note fresh = referring->bodyLoaded ? noteFromStored(*saved) : noteListEntryFromStored(*saved);
                *referring = std::move(fresh);
                touch(*referring);
                emit noteContentChanged(edit.url);
            }
            return {};
        }
        if (saved.error().code() != Error::Code::stale || attempt > 0) return fail(saved.error());
        // Changed since it was read: read it again and rewrite what is there now, once.
        auto disk = files_->read(edit.identifier);
        if (!disk) return fail(disk.error());
        edit.revision = disk->document.revision();
        edit.body = rewriteNoteReferences(disk->document.body, edit.url, oldPath, newPath);
        if (edit.body == disk->document.body) return {};  // the link is gone meanwhile
    }
}

}  // namespace mossly
