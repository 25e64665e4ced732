#include "Diagnostics.h"
#include "NoteStore.h"

namespace mossly {

bool NoteStore::folderMetadataWritable() {
    if (!metadataLoaded_) return false;  // writing now would replace the user's folders with none
    if (!metadataError_) return true;
    emit problemOccurred(metadataError_->description());
    return false;
}

bool NoteStore::writeFolderMetadata() {
    if (metadataError_ || !metadataLoaded_) return false;  // never replace a file we could not read
    if (auto saved = files_->saveFolderMetadata(metadata_); !saved) {
        emit problemOccurred(saved.error().description());
        return false;
    }
    return true;
}

std::optional<QUuid> NoteStore::createFolder(const QString& name, const std::optional<QUuid>& parent) {
    if (!folderMetadataWritable()) return std::nullopt;
    auto id = metadata_.createFolder(name, parent);
    if (!id) return std::nullopt;
    writeFolderMetadata();
    emit foldersChanged();
    return id;
}

bool NoteStore::renameFolder(const QUuid& id, const QString& name) {
    if (!folderMetadataWritable() || !metadata_.renameFolder(id, name)) return false;
    writeFolderMetadata();
    emit foldersChanged();
    return true;
}

void NoteStore::deleteFolder(const QUuid& id, FolderNoteDisposition disposition, std::optional<QUuid> destination) {
    if (!folderMetadataWritable() || !metadata_.folder(id)) return;
    const QSet<QUuid> tree = metadata_.folderTreeIDs(id);
    if (destination && tree.contains(*destination)) destination.reset();
    const QStringList assigned = metadata_.removeFolderTree(id);
    QSet<QString> toTrash;
    for (const QString& name : assigned) {
        if (disposition == FolderNoteDisposition::moveToFolder && destination) {
            metadata_.noteAssignments.insert(name, *destination);
            continue;
        }
        metadata_.noteAssignments.remove(name);
        if (disposition == FolderNoteDisposition::trash) {
            for (const Note& n : notes_) {
                if (n.fileName() == name) toTrash.insert(n.url);
            }
        }
    }
    writeFolderMetadata();
    emit foldersChanged();
    if (!toTrash.isEmpty()) deleteNotes(toTrash);
}

bool NoteStore::canMoveFolder(const QUuid& id, const FolderMoveDestination& destination) const {
    return metadata_.canMoveFolder(id, destination);
}

bool NoteStore::moveFolder(const QUuid& id, const FolderMoveDestination& destination) {
    if (!canMoveFolder(id, destination) || !folderMetadataWritable()) return false;
    metadata_.moveFolder(id, destination);
    writeFolderMetadata();
    emit foldersChanged();
    return true;
}

void NoteStore::moveNote(const QString& url, const QUuid& folder) {
    const Note* target = note(url);
    if (!target || !metadata_.folder(folder) || !folderMetadataWritable()) return;
    metadata_.noteAssignments.insert(target->fileName(), folder);
    writeFolderMetadata();
    emit foldersChanged();
}

void NoteStore::removeNoteFromFolder(const QString& url) {
    const Note* target = note(url);
    if (!target || !folderMetadataWritable()) return;
    if (metadata_.noteAssignments.remove(target->fileName()) == 0) return;
    writeFolderMetadata();
    emit foldersChanged();
}

std::optional<QUuid> NoteStore::folderOf(const QString& url) const {
    const Note* target = note(url);
    if (!target) return std::nullopt;
    const auto it = metadata_.noteAssignments.constFind(target->fileName());
    if (it == metadata_.noteAssignments.cend()) return std::nullopt;
    return *it;
}

std::vector<const Note*> NoteStore::notesInFolder(const QUuid& folder) const {
    std::vector<const Note*> inFolder;
    for (const Note& n : notes_) {
        if (metadata_.noteAssignments.value(n.fileName()) == folder) inFolder.push_back(&n);
    }
    return inFolder;
}

int NoteStore::noteCountInFolderTree(const QUuid& folder) const {
    const QSet<QUuid> tree = metadata_.folderTreeIDs(folder);
    int count = 0;
    for (const Note& n : notes_) {
        const auto it = metadata_.noteAssignments.constFind(n.fileName());
        if (it != metadata_.noteAssignments.cend() && tree.contains(*it)) ++count;
    }
    return count;
}

bool NoteStore::isFavorite(const QString& url) const {
    const Note* target = note(url);
    return target && metadata_.favoriteNoteNames.contains(target->fileName());
}

void NoteStore::setFavorite(bool favorite, const QString& url) {
    const Note* target = note(url);
    if (!target || isFavorite(url) == favorite || !folderMetadataWritable()) return;
    if (favorite) {
        metadata_.favoriteNoteNames.insert(target->fileName());
    } else {
        metadata_.favoriteNoteNames.remove(target->fileName());
    }
    writeFolderMetadata();
    emit foldersChanged();
}

std::vector<const Note*> NoteStore::favoriteNotes() const {
    std::vector<const Note*> favorites;
    for (const Note& n : notes_) {
        if (metadata_.favoriteNoteNames.contains(n.fileName())) favorites.push_back(&n);
    }
    return favorites;
}

}  // namespace mossly
