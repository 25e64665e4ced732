#include "LibraryTree.h"

#include <QDropEvent>
#include <QHeaderView>
#include <QInputDialog>
#include <QMenu>
#include <QMimeData>

#include "DeleteFolderDialog.h"
#include "NoteStore.h"

namespace mossly {

namespace {

enum ItemRole { KindRole = Qt::UserRole + 1, FolderRole };
enum ItemKind { allNotesItem = 1, favoritesItem, foldersHeaderItem, folderItem };

}  // namespace

LibraryTree::LibraryTree(NoteStore& store, QWidget* parent) : QTreeWidget(parent), store_(store) {
    setHeaderHidden(true);
    setDragEnabled(true);
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setDragDropMode(QAbstractItemView::DragDrop);
    setDefaultDropAction(Qt::MoveAction);
    setContextMenuPolicy(Qt::CustomContextMenu);
    setObjectName(QStringLiteral("libraryTree"));
    connect(this, &QTreeWidget::customContextMenuRequested, this, &LibraryTree::showContextMenu);
    connect(this, &QTreeWidget::currentItemChanged, this, [this] {
        if (!rebuilding_) emit scopeChanged(currentScope());
    });
    connect(&store_, &NoteStore::foldersChanged, this, &LibraryTree::rebuild);
    rebuild();
}

std::optional<QUuid> LibraryTree::folderOf(const QTreeWidgetItem* item) {
    if (!item || item->data(0, KindRole).toInt() != folderItem) return std::nullopt;
    return item->data(0, FolderRole).toUuid();
}

std::optional<QUuid> LibraryTree::currentFolder() const { return folderOf(currentItem()); }

LibraryScope LibraryTree::currentScope() const {
    if (const auto folder = currentFolder()) return {LibraryScope::Kind::folder, *folder};
    if (currentItem() && currentItem() == favorites_) return {LibraryScope::Kind::favorites, {}};
    return {};
}

void LibraryTree::rebuild() {
    const LibraryScope previous = currentScope();
    rebuilding_ = true;
    clear();
    allNotes_ = new QTreeWidgetItem(this, {tr("All Notes")});
    allNotes_->setData(0, KindRole, allNotesItem);
    favorites_ = new QTreeWidgetItem(this, {tr("Favourites")});
    favorites_->setData(0, KindRole, favoritesItem);
    foldersRoot_ = new QTreeWidgetItem(this, {tr("Folders")});
    foldersRoot_->setData(0, KindRole, foldersHeaderItem);
    foldersRoot_->setFlags(Qt::ItemIsEnabled | Qt::ItemIsDropEnabled);
    for (QTreeWidgetItem* item : {allNotes_, favorites_}) {
        item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDropEnabled);
    }
    addFolders(foldersRoot_, std::nullopt);
    expandAll();

    QTreeWidgetItem* restored = allNotes_;
    if (previous.kind == LibraryScope::Kind::favorites) restored = favorites_;
    if (previous.kind == LibraryScope::Kind::folder) {
        for (QTreeWidgetItemIterator it(this); *it; ++it) {
            if (folderOf(*it) == previous.folder) restored = *it;
        }
    }
    setCurrentItem(restored);
    rebuilding_ = false;
    emit scopeChanged(currentScope());
}

void LibraryTree::addFolders(QTreeWidgetItem* parent, const std::optional<QUuid>& parentId) {
    for (const NoteFolder& folder : store_.folderMetadata().childFolders(parentId)) {
        auto* item = new QTreeWidgetItem(parent, {folder.name});
        item->setData(0, KindRole, folderItem);
        item->setData(0, FolderRole, folder.id);
        item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled | Qt::ItemIsDropEnabled);
        addFolders(item, folder.id);
    }
}

void LibraryTree::selectFolder(const QUuid& id) {
    for (QTreeWidgetItemIterator it(this); *it; ++it) {
        if (folderOf(*it) == id) setCurrentItem(*it);
    }
}

void LibraryTree::showAllNotes() { setCurrentItem(allNotes_); }

void LibraryTree::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasFormat(QString::fromLatin1(NoteListModel::noteUrlsMimeType))) {
        event->acceptProposedAction();
        return;
    }
    QTreeWidget::dragEnterEvent(event);
}

void LibraryTree::dragMoveEvent(QDragMoveEvent* event) {
    QTreeWidgetItem* target = itemAt(event->position().toPoint());
    const bool notes = event->mimeData()->hasFormat(QString::fromLatin1(NoteListModel::noteUrlsMimeType));
    const int kind = target ? target->data(0, KindRole).toInt() : 0;
    const bool acceptable = notes ? (kind == folderItem || kind == allNotesItem) : (kind == folderItem || kind == foldersHeaderItem);
    if (acceptable) {
        QTreeWidget::dragMoveEvent(event);
        event->acceptProposedAction();
    } else {
        event->ignore();
    }
}

void LibraryTree::dropEvent(QDropEvent* event) {
    QTreeWidgetItem* target = itemAt(event->position().toPoint());
    const QByteArray notes = event->mimeData()->data(QString::fromLatin1(NoteListModel::noteUrlsMimeType));
    event->setDropAction(Qt::IgnoreAction);  // the tree is rebuilt from the store, not moved by Qt
    event->accept();
    if (!notes.isEmpty()) {
        for (const QString& url : QString::fromUtf8(notes).split(u'\n', Qt::SkipEmptyParts)) {
            if (const auto folder = folderOf(target)) {
                store_.moveNote(url, *folder);
            } else if (target == allNotes_) {
                store_.removeNoteFromFolder(url);
            }
        }
        return;
    }
    const auto moving = currentFolder();
    if (!moving || !target) return;
    FolderMoveDestination destination;
    switch (dropIndicatorPosition()) {
        case QAbstractItemView::OnItem:
            destination.parentID = folderOf(target);
            destination.childIndex = target->childCount();
            break;
        case QAbstractItemView::AboveItem:
        case QAbstractItemView::BelowItem: {
            QTreeWidgetItem* parent = target->parent();
            destination.parentID = folderOf(parent);
            destination.childIndex = (parent ? parent->indexOfChild(target) : 0) +
                                     (dropIndicatorPosition() == QAbstractItemView::BelowItem ? 1 : 0);
            if (parent && parent->indexOfChild(currentItem()) >= 0 &&
                parent->indexOfChild(currentItem()) < destination.childIndex) {
                --destination.childIndex;  // the moved folder no longer counts among its old siblings
            }
            break;
        }
        case QAbstractItemView::OnViewport: return;
    }
    if (target == foldersRoot_) destination = {std::nullopt, foldersRoot_->childCount()};
    if (store_.moveFolder(*moving, destination)) selectFolder(*moving);
}

void LibraryTree::showContextMenu(const QPoint& position) {
    QTreeWidgetItem* item = itemAt(position);
    const auto folder = folderOf(item);
    QMenu menu(this);
    menu.addAction(tr("New Folder"), this, [this] {
        const QString name = QInputDialog::getText(this, tr("New Folder"), tr("Folder name:"));
        if (const auto id = store_.createFolder(name, std::nullopt)) selectFolder(*id);
    });
    if (folder) {
        menu.addAction(tr("New Subfolder"), this, [this, folder] {
            const QString name = QInputDialog::getText(this, tr("New Subfolder"), tr("Folder name:"));
            if (const auto id = store_.createFolder(name, folder)) selectFolder(*id);
        });
        menu.addAction(tr("Rename Folder…"), this, [this, folder, item] {
            const QString name = QInputDialog::getText(this, tr("Rename Folder"), tr("Folder name:"),
                                                       QLineEdit::Normal, item->text(0));
            store_.renameFolder(*folder, name);
        });
        menu.addSeparator();
        menu.addAction(tr("Delete Folder…"), this, [this, folder] { deleteFolderAsking(*folder); });
    }
    menu.exec(viewport()->mapToGlobal(position));
}

void LibraryTree::deleteFolderAsking(const QUuid& id) {
    if (store_.noteCountInFolderTree(id) == 0) {
        store_.deleteFolder(id, FolderNoteDisposition::moveOut);
        return;
    }
    DeleteFolderDialog(store_, id, this).exec();
}

}  // namespace mossly
