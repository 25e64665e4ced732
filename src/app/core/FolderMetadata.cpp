#include "FolderMetadata.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cerrno>

#include "AtomicFile.h"

namespace mossly {

namespace {

Error folderFileError(const QString& detail) { return Error::folderMetadataUnreadable(detail); }

std::optional<QUuid> uuidFrom(const QJsonValue& value) {
    const QUuid id = QUuid::fromString(value.toString());
    if (id.isNull()) return std::nullopt;
    return id;
}

}  // namespace

Result<FolderMetadata> FolderMetadata::load(const QString& notesDirectory) {
    return loadFile(notesDirectory + u'/' + fileName);
}

Result<FolderMetadata> FolderMetadata::loadFile(const QString& path) {
    FolderMetadata metadata;
    auto bytes = AtomicFile::readAll(path);
    if (!bytes) {
        if (bytes.error().systemErrno() == ENOENT) return metadata;
        return fail(bytes.error());
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(*bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) return fail(folderFileError(parseError.errorString()));
    const QJsonObject root = document.object();
    if (!document.isObject() || !root.value(u"folders").isArray() || !root.value(u"noteAssignments").isObject()) {
        return fail(folderFileError(QStringLiteral("expected \"folders\" and \"noteAssignments\"")));
    }
    for (const QJsonValue& value : root.value(u"folders").toArray()) {
        if (!value.isObject()) return fail(folderFileError(QStringLiteral("bad folder entry")));
        const QJsonObject object = value.toObject();
        NoteFolder folder;
        const auto id = uuidFrom(object.value(u"id"));
        if (!id || !object.value(u"name").isString()) return fail(folderFileError(QStringLiteral("bad folder entry")));
        folder.id = *id;
        folder.name = object.value(u"name").toString();
        if (object.contains(u"parentID") && !object.value(u"parentID").isNull()) {
            folder.parentID = uuidFrom(object.value(u"parentID"));
            if (!folder.parentID) return fail(folderFileError(QStringLiteral("bad parentID")));
        }
        // A value of another type would be lost at the next write: the file is not ours to read.
        if (const QJsonValue source = object.value(u"sourceIdentifier"); source.isString()) {
            folder.sourceIdentifier = source.toString();
        } else if (!source.isUndefined() && !source.isNull()) {
            return fail(folderFileError(QStringLiteral("bad sourceIdentifier")));
        }
        metadata.folders.push_back(std::move(folder));
    }
    const QJsonObject assignments = root.value(u"noteAssignments").toObject();
    for (auto it = assignments.begin(); it != assignments.end(); ++it) {
        const auto id = uuidFrom(it.value());
        if (!id) return fail(folderFileError(QStringLiteral("bad assignment for ") + it.key()));
        metadata.noteAssignments.insert(it.key(), *id);
    }
    const QJsonValue favorites = root.value(u"favoriteNoteNames");  // absent in files older than favourites
    if (!favorites.isUndefined() && !favorites.isArray()) {
        return fail(folderFileError(QStringLiteral("expected \"favoriteNoteNames\" to be a list")));
    }
    for (const QJsonValue& name : favorites.toArray()) {
        if (!name.isString()) return fail(folderFileError(QStringLiteral("bad favourite")));
        metadata.favoriteNoteNames.insert(name.toString());
    }
    metadata.otherKeys = root;
    for (const auto* known : {u"folders", u"noteAssignments", u"favoriteNoteNames"}) metadata.otherKeys.remove(known);
    return metadata;
}

QByteArray FolderMetadata::toJson() const {
    QJsonArray folderArray;
    for (const NoteFolder& folder : folders) {
        QJsonObject object{{"id", folder.id.toString(QUuid::WithoutBraces).toUpper()}, {"name", folder.name}};
        if (folder.parentID) object.insert(u"parentID", folder.parentID->toString(QUuid::WithoutBraces).toUpper());
        if (folder.sourceIdentifier) object.insert(u"sourceIdentifier", *folder.sourceIdentifier);
        folderArray.append(object);
    }
    QJsonObject assignments;
    for (auto it = noteAssignments.begin(); it != noteAssignments.end(); ++it) {
        assignments.insert(it.key(), it.value().toString(QUuid::WithoutBraces).toUpper());
    }
    QStringList favorites(favoriteNoteNames.begin(), favoriteNoteNames.end());
    favorites.sort();
    QJsonObject root = otherKeys;
    root.insert(u"folders", folderArray);
    root.insert(u"noteAssignments", assignments);
    root.insert(u"favoriteNoteNames", QJsonArray::fromStringList(favorites));
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

Result<void> FolderMetadata::save(const QString& notesDirectory) const {
    return AtomicFile::replaceContents(notesDirectory + u'/' + fileName, toJson());
}

const NoteFolder* FolderMetadata::folder(const QUuid& id) const {
    const auto it = std::find_if(folders.begin(), folders.end(), [&](const NoteFolder& f) { return f.id == id; });
    return it == folders.end() ? nullptr : &*it;
}

std::vector<NoteFolder> FolderMetadata::childFolders(const std::optional<QUuid>& parent) const {
    std::vector<NoteFolder> children;
    for (const NoteFolder& folder : folders) {
        if (folder.parentID == parent) children.push_back(folder);
    }
    return children;
}

QSet<QUuid> FolderMetadata::folderTreeIDs(const QUuid& root) const {
    QSet<QUuid> tree{root};
    bool grew = true;
    while (grew) {  // folder lists are small; a fixed point is simplest and tolerates any order
        grew = false;
        for (const NoteFolder& folder : folders) {
            if (folder.parentID && tree.contains(*folder.parentID) && !tree.contains(folder.id)) {
                tree.insert(folder.id);
                grew = true;
            }
        }
    }
    return tree;
}

std::vector<NoteFolder> FolderMetadata::moveDestinations(const QUuid& excludingTree) const {
    const QSet<QUuid> tree = folderTreeIDs(excludingTree);
    std::vector<NoteFolder> destinations;
    for (const NoteFolder& folder : folders) {
        if (!tree.contains(folder.id)) destinations.push_back(folder);
    }
    return destinations;
}

std::optional<QUuid> FolderMetadata::createFolder(const QString& name, const std::optional<QUuid>& parent) {
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty() || (parent && !folder(*parent))) return std::nullopt;
    const QUuid id = QUuid::createUuid();
    folders.push_back({id, trimmed, parent, std::nullopt});
    return id;
}

bool FolderMetadata::renameFolder(const QUuid& id, const QString& name) {
    const QString trimmed = name.trimmed();
    auto it = std::find_if(folders.begin(), folders.end(), [&](const NoteFolder& f) { return f.id == id; });
    if (trimmed.isEmpty() || it == folders.end()) return false;
    it->name = trimmed;
    return true;
}

bool FolderMetadata::canMoveFolder(const QUuid& id, const FolderMoveDestination& destination) const {
    if (!folder(id)) return false;
    if (!destination.parentID) return true;
    return folder(*destination.parentID) && !folderTreeIDs(id).contains(*destination.parentID);
}

bool FolderMetadata::moveFolder(const QUuid& id, FolderMoveDestination destination) {
    if (!canMoveFolder(id, destination)) return false;
    auto it = std::find_if(folders.begin(), folders.end(), [&](const NoteFolder& f) { return f.id == id; });
    NoteFolder moved = *it;
    folders.erase(it);
    moved.parentID = destination.parentID;

    // Place it at `childIndex` among its new siblings; everything else keeps its relative order.
    std::vector<size_t> siblingPositions;
    for (size_t i = 0; i < folders.size(); ++i) {
        if (folders[i].parentID == destination.parentID) siblingPositions.push_back(i);
    }
    const auto index = static_cast<size_t>(
        std::clamp<qsizetype>(destination.childIndex, 0, static_cast<qsizetype>(siblingPositions.size())));
    const size_t position = index < siblingPositions.size() ? siblingPositions[index]
                            : siblingPositions.empty()      ? folders.size()
                                                            : siblingPositions.back() + 1;
    folders.insert(folders.begin() + static_cast<std::ptrdiff_t>(position), std::move(moved));
    return true;
}

QStringList FolderMetadata::removeFolderTree(const QUuid& root) {
    const QSet<QUuid> tree = folderTreeIDs(root);
    std::erase_if(folders, [&](const NoteFolder& folder) { return tree.contains(folder.id); });
    QStringList assigned;
    for (auto it = noteAssignments.begin(); it != noteAssignments.end(); ++it) {
        if (tree.contains(it.value())) assigned.append(it.key());
    }
    assigned.sort();
    return assigned;
}

}  // namespace mossly
