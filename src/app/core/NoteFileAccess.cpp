#include "NoteFileAccess.h"

#include <QFileInfo>

namespace mossly {

RepositoryFileAccess::RepositoryFileAccess(QString directory)
    : directory_(std::move(directory)), repository_(directory_) {}

std::shared_ptr<NoteFileAccess> RepositoryFileAccess::make(const QString& directory) {
    return std::make_shared<RepositoryFileAccess>(directory);
}

bool RepositoryFileAccess::directoryAvailable() const {
    const QFileInfo info(directory_);
    return info.isDir() && info.isReadable() && info.isExecutable();
}

Result<std::vector<NoteFileMetadata>> RepositoryFileAccess::enumerateMetadata() const {
    return repository_.enumerateMetadata();
}

Result<StoredNote> RepositoryFileAccess::read(const QString& identifier) const { return repository_.read(identifier); }

Result<StoredNote> RepositoryFileAccess::create(const QString& title, const QString& body,
                                                NoteContentType contentType) const {
    return repository_.create(title, body, NoteEditor::human(), contentType);
}

Result<StoredNote> RepositoryFileAccess::createAt(const QString& identifier, const QString& text) const {
    return repository_.createAt(identifier, text);
}

Result<StoredNote> RepositoryFileAccess::update(const QString& identifier, const QString& expectedRevision,
                                                const QString& body, NoteContentType contentType) const {
    return repository_.update(identifier, expectedRevision, body, NoteEditor::human(), contentType);
}

Result<StoredNote> RepositoryFileAccess::rename(const QString& identifier, const QString& expectedRevision,
                                                const QString& newBaseName) const {
    return repository_.rename(identifier, expectedRevision, newBaseName, NoteEditor::human());
}

Result<void> RepositoryFileAccess::moveToTrash(const QString& identifier) const {
    return repository_.moveToTrash(identifier);
}

Result<FolderMetadata> RepositoryFileAccess::loadFolderMetadata() const { return FolderMetadata::load(directory_); }

Result<void> RepositoryFileAccess::saveFolderMetadata(const FolderMetadata& metadata) const {
    return metadata.save(directory_);
}

}  // namespace mossly
