#pragma once

#include <QTreeWidget>
#include <optional>

#include "NoteListModel.h"

namespace mossly {

class NoteStore;

// The sidebar's tree: "All Notes", "Favourites" and the user's folders. Notes
// dropped on a folder join it (on "All Notes" they leave their folder);
// folders dragged within the tree move, never into their own subtree.
class LibraryTree : public QTreeWidget {
    Q_OBJECT
public:
    explicit LibraryTree(NoteStore& store, QWidget* parent = nullptr);

    LibraryScope currentScope() const;
    std::optional<QUuid> currentFolder() const;
    void selectFolder(const QUuid& id);
    void showAllNotes();

signals:
    void scopeChanged(const LibraryScope& scope);

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void rebuild();
    void addFolders(QTreeWidgetItem* parent, const std::optional<QUuid>& parentId);
    void showContextMenu(const QPoint& position);
    void deleteFolderAsking(const QUuid& id);
    static std::optional<QUuid> folderOf(const QTreeWidgetItem* item);

    NoteStore& store_;
    QTreeWidgetItem* allNotes_ = nullptr;
    QTreeWidgetItem* favorites_ = nullptr;
    QTreeWidgetItem* foldersRoot_ = nullptr;
    bool rebuilding_ = false;
};

}  // namespace mossly
