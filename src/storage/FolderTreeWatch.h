#pragma once

#include <QHash>
#include <QString>

namespace mossly {

// inotify on a folder and every visible sub-folder: files created, deleted,
// renamed or closed after writing anywhere in the tree. No event loop needed:
// callers poll `takeChanges()` (the agent's server before a search) or wait on
// `descriptor()` (the app's monitor). Hidden folders and symbolic links are not
// followed, as for notes.
class FolderTreeWatch {
public:
    explicit FolderTreeWatch(QString root);
    ~FolderTreeWatch();
    FolderTreeWatch(const FolderTreeWatch&) = delete;
    FolderTreeWatch& operator=(const FolderTreeWatch&) = delete;

    // False when inotify is unavailable (then callers must assume change).
    bool isValid() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }
    // Reads every pending event; true when anything changed since the last call.
    bool takeChanges();
    // Adds watches for folders that appeared.
    void watchNewFolders();
    const QString& root() const { return root_; }

private:
    QString root_;
    int descriptor_ = -1;
    QHash<QString, int> watches_;  // folder → watch descriptor
};

}  // namespace mossly
