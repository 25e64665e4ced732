#include "FolderMetadataMerge.h"

#include <QDir>
#include <QFile>
#include <algorithm>
#include <cstring>
#include <dirent.h>

#include "NoteFileLock.h"
#include "SyncConflictCopies.h"

namespace mossly {

FolderMetadata mergeFolderMetadata(FolderMetadata kept, const FolderMetadata& other) {
    for (const NoteFolder& folder : other.folders) {
        if (kept.folder(folder.id)) continue;
        kept.folders.push_back(folder);
    }
    // A parent that exists on neither side, or a parent chain that now loops,
    // puts the folder at the top level rather than losing it.
    for (NoteFolder& folder : kept.folders) {
        if (folder.parentID && !kept.folder(*folder.parentID)) folder.parentID.reset();
    }
    for (NoteFolder& folder : kept.folders) {
        QSet<QUuid> seen{folder.id};
        std::optional<QUuid> parent = folder.parentID;
        while (parent && !seen.contains(*parent)) {
            seen.insert(*parent);
            parent = kept.folder(*parent)->parentID;
        }
        if (parent) folder.parentID.reset();
    }
    for (auto it = other.noteAssignments.begin(); it != other.noteAssignments.end(); ++it) {
        if (!kept.noteAssignments.contains(it.key())) kept.noteAssignments.insert(it.key(), it.value());
    }
    kept.favoriteNoteNames.unite(other.favoriteNoteNames);
    for (auto it = other.otherKeys.begin(); it != other.otherKeys.end(); ++it) {
        if (!kept.otherKeys.contains(it.key())) kept.otherKeys.insert(it.key(), it.value());
    }
    return kept;
}

Result<int> mergeFolderMetadataConflictCopies(const QString& notesDirectory) {
    // Runs after every change of the folder: names only, no stat, no Qt file info per entry.
    QStringList copies;
    if (DIR* directory = ::opendir(QFile::encodeName(notesDirectory).constData())) {
        while (const dirent* entry = ::readdir(directory)) {
            if (std::strncmp(entry->d_name, ".folders", 8) != 0) continue;
            const QString name = QFile::decodeName(entry->d_name);
            const auto copy = syncConflictCopyOf(name);
            if (copy && copy->original == FolderMetadata::fileName) copies.append(name);
        }
        ::closedir(directory);
    }
    if (copies.isEmpty()) return 0;
    return NoteFileLock::withExclusiveLock(notesDirectory, [&]() -> Result<int> {
        auto merged = FolderMetadata::load(notesDirectory);
        if (!merged) return fail(merged.error());  // never written over
        int count = 0;
        for (const QString& name : copies) {
            const QString path = QDir(notesDirectory).filePath(name);
            auto other = FolderMetadata::loadFile(path);
            if (!other) continue;
            *merged = mergeFolderMetadata(std::move(*merged), *other);
            ++count;
        }
        if (count == 0) return 0;
        if (auto saved = merged->save(notesDirectory); !saved) return fail(saved.error());
        for (const QString& name : copies) {
            const QString path = QDir(notesDirectory).filePath(name);
            if (FolderMetadata::loadFile(path)) QFile::moveToTrash(path);
        }
        return count;
    });
}

}  // namespace mossly
