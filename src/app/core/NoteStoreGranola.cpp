#include <limits>

#include "Diagnostics.h"
#include "NoteStore.h"

namespace mossly {

// A folder with this source identifier: renamed and moved under `parent` when
// it differs, created when missing.
QUuid NoteStore::ensureImportedFolder(const QString& name, const QString& sourceIdentifier,
                                      const std::optional<QUuid>& parent) {
    for (NoteFolder& folder : metadata_.folders) {
        if (folder.sourceIdentifier != sourceIdentifier) continue;
        if (!name.trimmed().isEmpty()) folder.name = name.trimmed();
        if (folder.parentID != parent) metadata_.moveFolder(folder.id, {parent, std::numeric_limits<qsizetype>::max()});
        return folder.id;
    }
    const QUuid id = *metadata_.createFolder(name.trimmed().isEmpty() ? sourceIdentifier : name, parent);
    for (NoteFolder& folder : metadata_.folders) {
        if (folder.id == id) folder.sourceIdentifier = sourceIdentifier;
    }
    return id;
}

void NoteStore::applyGranolaFolders(const std::vector<std::pair<QString, QStringList>>& noteFolders) {
    if (!folderMetadataWritable()) return;
    const QUuid root = ensureImportedFolder(QStringLiteral("Granola"), QStringLiteral("granola-root"), std::nullopt);
    int folderCount = 0;
    for (const auto& [identifier, folders] : noteFolders) {
        // A note keeps the first Granola folder it is in; notes in none go under the root.
        QUuid target = root;
        if (!folders.isEmpty()) {
            const QString id = folders.front().section(u'\t', 0, 0);
            const QString name = folders.front().section(u'\t', 1);
            target = ensureImportedFolder(name, QStringLiteral("granola-folder:") + id, root);
            ++folderCount;
        }
        metadata_.noteAssignments.insert(identifier.mid(identifier.lastIndexOf(u'/') + 1), target);
    }
    writeFolderMetadata();
    DiagnosticsCenter::shared().event(QStringLiteral("Granola folder hierarchy reconciled"),
                                      {{"folderCount", folderCount}, {"invalidParents", 0}});
    emit foldersChanged();
}

}  // namespace mossly
