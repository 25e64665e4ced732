#include "LibrarySidebar.h"

#include <QAction>
#include <QKeyEvent>
#include <algorithm>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QSplitter>
#include <QVBoxLayout>

#include "LibraryTree.h"
#include "NoteListDelegate.h"
#include "NoteListModel.h"
#include "NoteListView.h"
#include "NoteStore.h"

namespace mossly {

LibrarySidebar::LibrarySidebar(NoteStore& store, QWidget* parent) : QWidget(parent), store_(store) {
    search_ = new QLineEdit(this);
    search_->setObjectName(QStringLiteral("searchField"));
    search_->setPlaceholderText(tr("Search notes"));
    search_->setClearButtonEnabled(true);
    tree_ = new LibraryTree(store_, this);
    model_ = new NoteListModel(store_, this);
    list_ = new NoteListView(this);
    list_->setObjectName(QStringLiteral("noteList"));
    list_->setModel(model_);
    list_->setItemDelegate(new NoteListDelegate(list_));
    list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    list_->setDragEnabled(true);
    list_->setDragDropMode(QAbstractItemView::DragOnly);
    list_->setContextMenuPolicy(Qt::CustomContextMenu);
    list_->setUniformItemSizes(true);

    auto* splitter = new QSplitter(Qt::Vertical, this);
    splitter->addWidget(tree_);
    splitter->addWidget(list_);
    splitter->setStretchFactor(0, 1);
    splitter->setStretchFactor(1, 3);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(6, 6, 0, 6);
    layout->addWidget(search_);
    layout->addWidget(splitter, 1);

    connect(search_, &QLineEdit::textChanged, &store_, &NoteStore::setSearchText);
    connect(tree_, &LibraryTree::scopeChanged, model_, &NoteListModel::setScope);
    connect(list_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex& index) {
        if (index.isValid()) store_.select(index.data(NoteListModel::UrlRole).toString());
    });
    connect(list_, &QListView::customContextMenuRequested, this, &LibrarySidebar::showNoteMenu);
    // Delete (and Shift+Delete) in the list move the selected notes to the Trash, as the menu does.
    auto* trash = new QAction(tr("Move to Trash"), list_);
    trash->setShortcuts({QKeySequence(QKeySequence::Delete), QKeySequence(QStringLiteral("Shift+Del"))});
    trash->setShortcutContext(Qt::WidgetShortcut);
    list_->addAction(trash);
    connect(trash, &QAction::triggered, this, [this] { trashNotes(selectedUrls()); });
    connect(list_, &QListView::doubleClicked, this, [this](const QModelIndex& index) {
        if (index.isValid()) emit openInWindowRequested(index.data(NoteListModel::UrlRole).toString());
    });
    connect(&store_, &NoteStore::selectionChanged, this, &LibrarySidebar::followSelection);
    connect(model_, &QAbstractItemModel::modelReset, this, &LibrarySidebar::followSelection);

    // A search that finds nothing says so, and Escape takes it back.
    emptyState_ = new QLabel(list_->viewport());
    emptyState_->setObjectName(QStringLiteral("noteListEmptyState"));
    emptyState_->setAlignment(Qt::AlignCenter);
    emptyState_->setWordWrap(true);
    emptyState_->setEnabled(false);
    emptyState_->hide();
    search_->installEventFilter(this);
    list_->viewport()->installEventFilter(this);
    connect(search_, &QLineEdit::textEdited, this, [this] { searchChoosesNote_ = true; });
    connect(&store_, &NoteStore::searchChanged, this, &LibrarySidebar::searchSettled);
    connect(model_, &QAbstractItemModel::modelReset, this, &LibrarySidebar::updateEmptyState);
}

bool LibrarySidebar::eventFilter(QObject* watched, QEvent* event) {
    if (watched == search_ && event->type() == QEvent::KeyPress &&
        static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape && !search_->text().isEmpty()) {
        search_->clear();
        return true;
    }
    if (watched == list_->viewport() && event->type() == QEvent::Resize) emptyState_->resize(list_->viewport()->size());
    return QWidget::eventFilter(watched, event);
}

// Once the results of what the user typed are in, the editor shows a note of
// the list (the first) or none: never a note the list does not hold.
void LibrarySidebar::searchSettled() {
    updateEmptyState();
    if (!searchChoosesNote_ || store_.isSearching() || !store_.searchResults()) return;
    searchChoosesNote_ = false;
    const auto& selection = store_.selection();
    if (selection && model_->indexOf(*selection).isValid()) return;
    const QModelIndex first = model_->index(0);
    store_.select(first.isValid() ? std::optional(first.data(NoteListModel::UrlRole).toString()) : std::nullopt);
}

void LibrarySidebar::updateEmptyState() {
    const bool nothingFound = store_.searchResults() && !store_.isSearching() && model_->rowCount() == 0;
    emptyState_->setText(tr("No notes match \u201C%1\u201D").arg(store_.searchText().trimmed()));
    emptyState_->resize(list_->viewport()->size());
    emptyState_->setVisible(nothingFound);
}

void LibrarySidebar::focusSearch() {
    search_->setFocus(Qt::ShortcutFocusReason);
    search_->selectAll();
}

void LibrarySidebar::followSelection() {
    const auto& selection = store_.selection();
    const QModelIndex index = selection ? model_->indexOf(*selection) : QModelIndex();
    if (index.isValid() && list_->currentIndex() != index) {
        const QSignalBlocker quiet(list_->selectionModel());
        // Only the selected note looks selected: the one before it does not stay highlighted.
        list_->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
        list_->viewport()->update();
    } else if (!index.isValid() && list_->selectionModel()->hasSelection()) {
        const QSignalBlocker quiet(list_->selectionModel());
        list_->selectionModel()->clear();  // the open note is not in this list
        list_->viewport()->update();
    }
}

void LibrarySidebar::trashNotes(const QStringList& urls) {
    if (urls.isEmpty()) return;
    store_.deleteNotes(QSet<QString>(urls.begin(), urls.end()));
    // A note that could not be moved is still there, and the store has said why.
    const auto moved = std::count_if(urls.begin(), urls.end(), [this](const QString& url) { return !store_.note(url); });
    if (moved > 0) emit message(tr("%n note(s) moved to the Trash.", nullptr, static_cast<int>(moved)));
}

QStringList LibrarySidebar::selectedUrls() const {
    QStringList urls;
    for (const QModelIndex& index : list_->selectionModel()->selectedIndexes()) {
        urls.append(index.data(NoteListModel::UrlRole).toString());
    }
    return urls;
}

void LibrarySidebar::showNoteMenu(const QPoint& position) {
    const QModelIndex index = list_->indexAt(position);
    if (!index.isValid()) return;
    QStringList urls = selectedUrls();
    const QString url = index.data(NoteListModel::UrlRole).toString();
    if (!urls.contains(url)) urls = {url};

    QMenu menu(this);
    menu.addAction(tr("Open in New Window"), this, [this, url] { emit openInWindowRequested(url); });
    if (auto* rename = list_->findChild<QAction*>(QStringLiteral("renameNoteAction")); rename && urls.size() == 1) {
        menu.addAction(rename);
    }
    menu.addSeparator();
    const bool favorite = store_.isFavorite(url);
    menu.addAction(favorite ? tr("Remove from Favourites") : tr("Add to Favourites"), this, [this, urls, favorite] {
        for (const QString& u : urls) store_.setFavorite(!favorite, u);
    });
    QMenu* move = menu.addMenu(tr("Move to Folder"));
    move->addAction(tr("No Folder"), this, [this, urls] {
        for (const QString& u : urls) store_.removeNoteFromFolder(u);
    });
    move->addSeparator();
    for (const NoteFolder& folder : store_.folders()) {
        move->addAction(folder.name, this, [this, urls, id = folder.id] {
            for (const QString& u : urls) store_.moveNote(u, id);
        });
    }
    menu.addSeparator();
    menu.addAction(tr("Move to Trash"), this, [this, urls] { trashNotes(urls); });
    menu.exec(list_->viewport()->mapToGlobal(position));
}

}  // namespace mossly
