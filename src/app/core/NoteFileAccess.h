#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <vector>

#include "FolderMetadata.h"
#include "NoteRepository.h"

namespace mossly {

// Everything the note store does to the notes folder, behind one interface so
// that tests can make the Nth write fail, keep the lock busy or hold a load
// back. The app uses `RepositoryFileAccess`. Implementations are safe to call
// from any thread: background loads and scans share one instance.
class NoteFileAccess {
public:
    virtual ~NoteFileAccess() = default;

    virtual const QString& directory() const = 0;
    // The repository itself, for the work that takes one whole (catalog sync, import).
    virtual const NoteRepository& repository() const = 0;

    // Whether the notes folder is there and readable. A folder that is missing
    // for a moment (unmounted, replaced by a sync engine) must not read as empty.
    virtual bool directoryAvailable() const = 0;
    virtual Result<std::vector<NoteFileMetadata>> enumerateMetadata() const = 0;
    virtual Result<StoredNote> read(const QString& identifier) const = 0;
    virtual Result<StoredNote> create(const QString& title, const QString& body, NoteContentType contentType) const = 0;
    virtual Result<StoredNote> createAt(const QString& identifier, const QString& text) const = 0;
    virtual Result<StoredNote> update(const QString& identifier, const QString& expectedRevision, const QString& body,
                                      NoteContentType contentType) const = 0;
    virtual Result<StoredNote> rename(const QString& identifier, const QString& expectedRevision,
                                      const QString& newBaseName) const = 0;
    virtual Result<void> moveToTrash(const QString& identifier) const = 0;
    virtual Result<FolderMetadata> loadFolderMetadata() const = 0;
    virtual Result<void> saveFolderMetadata(const FolderMetadata& metadata) const = 0;
};

using NoteFileAccessFactory = std::function<std::shared_ptr<NoteFileAccess>(const QString& directory)>;

// The real notes folder, through the note repository; the app writes as "human".
class RepositoryFileAccess : public NoteFileAccess {
public:
    explicit RepositoryFileAccess(QString directory);
    static std::shared_ptr<NoteFileAccess> make(const QString& directory);

    const QString& directory() const override { return directory_; }
    const NoteRepository& repository() const override { return repository_; }
    bool directoryAvailable() const override;
    Result<std::vector<NoteFileMetadata>> enumerateMetadata() const override;
    Result<StoredNote> read(const QString& identifier) const override;
    Result<StoredNote> create(const QString& title, const QString& body, NoteContentType contentType) const override;
    Result<StoredNote> createAt(const QString& identifier, const QString& text) const override;
    Result<StoredNote> update(const QString& identifier, const QString& expectedRevision, const QString& body,
                              NoteContentType contentType) const override;
    Result<StoredNote> rename(const QString& identifier, const QString& expectedRevision,
                              const QString& newBaseName) const override;
    Result<void> moveToTrash(const QString& identifier) const override;
    Result<FolderMetadata> loadFolderMetadata() const override;
    Result<void> saveFolderMetadata(const FolderMetadata& metadata) const override;

private:
    QString directory_;
    NoteRepository repository_;
};

}  // namespace mossly
