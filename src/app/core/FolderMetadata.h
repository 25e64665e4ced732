#pragma once

#include <QHash>
#include <QJsonObject>
#include <QSet>
#include <QString>
#include <QUuid>
#include <optional>
#include <vector>

#include "Error.h"

namespace mossly {

// A user-made folder. Folders are not directories: membership lives in ".folders.json".
struct NoteFolder {
    QUuid id;
    QString name;
    std::optional<QUuid> parentID;
    std::optional<QString> sourceIdentifier;

    bool operator==(const NoteFolder&) const = default;
};

struct FolderMoveDestination {
    std::optional<QUuid> parentID;  // none: top level
    qsizetype childIndex = 0;
};

// The folder tree, the folder of each note (by file name) and the favourites,
// kept together in ".folders.json" at the root of the notes folder. A value
// type: the note store owns one and writes it back after each change.
struct FolderMetadata {
    static inline const QString fileName = QStringLiteral(".folders.json");

    std::vector<NoteFolder> folders;  // the user's order; order within a parent is display order
    QHash<QString, QUuid> noteAssignments;
    QSet<QString> favoriteNoteNames;
    // Top-level keys this version does not know, written back as they were
    // (a newer version of the app may have added them).
    QJsonObject otherKeys;

    // A missing file is empty metadata; a file that cannot be decoded is an error,
    // and the caller must then never write over it.
    static Result<FolderMetadata> load(const QString& notesDirectory);
    // The same for a file of that format anywhere (a sync engine's conflict copy of it).
    static Result<FolderMetadata> loadFile(const QString& path);
    Result<void> save(const QString& notesDirectory) const;
    QByteArray toJson() const;

    const NoteFolder* folder(const QUuid& id) const;
    std::vector<NoteFolder> childFolders(const std::optional<QUuid>& parent) const;
    // The folder and all its descendants.
    QSet<QUuid> folderTreeIDs(const QUuid& root) const;
    std::vector<NoteFolder> moveDestinations(const QUuid& excludingTree) const;

    // Creates a folder as the last child of `parent`; none for an empty name or unknown parent.
    std::optional<QUuid> createFolder(const QString& name, const std::optional<QUuid>& parent);
    bool renameFolder(const QUuid& id, const QString& name);
    bool canMoveFolder(const QUuid& id, const FolderMoveDestination& destination) const;
    bool moveFolder(const QUuid& id, FolderMoveDestination destination);
    // Removes the folder tree; returns the file names of the notes that were assigned inside it.
    QStringList removeFolderTree(const QUuid& root);

    bool operator==(const FolderMetadata&) const = default;
};

}  // namespace mossly
