#include "NoteListModel.h"

#include <QFileInfo>

#include "SketchThumbnails.h"

#include <QDateTime>
#include <QMimeData>

#include "NoteModel.h"
#include "NoteStore.h"

namespace mossly {

NoteListModel::NoteListModel(NoteStore& store, QObject* parent) : QAbstractListModel(parent), store_(store) {
    connect(&store_, &NoteStore::notesChanged, this, &NoteListModel::rebuild);
    connect(&store_, &NoteStore::foldersChanged, this, &NoteListModel::rebuild);
    connect(&store_, &NoteStore::searchChanged, this, &NoteListModel::rebuild);
    rebuild();
}

void NoteListModel::setScope(const LibraryScope& scope) {
    if (scope == scope_) return;
    scope_ = scope;
    rebuild();
}

void NoteListModel::rebuild() {
    QStringList urls;
    const QSet<QUuid> folderTree =
        scope_.kind == LibraryScope::Kind::folder ? store_.folderMetadata().folderTreeIDs(scope_.folder) : QSet<QUuid>{};
    for (const Note* note : store_.filteredNotes()) {
        // A sync engine's copy is shown in its note's banner, not as a note of its own.
        if (store_.syncConflictOriginal(*note)) continue;
        switch (scope_.kind) {
            case LibraryScope::Kind::allNotes: break;
            case LibraryScope::Kind::favorites:
                if (!store_.isFavorite(note->url)) continue;
                break;
            case LibraryScope::Kind::folder: {
                const auto folder = store_.folderOf(note->url);
                if (!folder || !folderTree.contains(*folder)) continue;
                break;
            }
        }
        urls.append(note->url);
    }
    if (urls == urls_) {
        if (!urls_.isEmpty()) emit dataChanged(index(0), index(static_cast<int>(urls_.size()) - 1));
        return;
    }
    beginResetModel();
    urls_ = std::move(urls);
    endResetModel();
}

QModelIndex NoteListModel::indexOf(const QString& url) const {
    const qsizetype row = urls_.indexOf(url);
    return row < 0 ? QModelIndex() : index(static_cast<int>(row));
}

int NoteListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(urls_.size());
}

QVariant NoteListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= urls_.size()) return {};
    const Note* note = store_.note(urls_[index.row()]);
    if (!note) return {};
    switch (role) {
        case Qt::DisplayRole:
        case TitleRole: {
            // A conflict copy has its note's words: its title says which it is.
            if (const auto stamp = conflictCopyStamp(note->fileName())) {
                return tr("%1 (Conflict copy, %2)").arg(note->title, *stamp);
            }
            return note->title;
        }
        case UrlRole: return note->url;
        case ExcerptRole: {
            const NoteSearchResult* result = store_.searchResult(note->url);
            return result && !result->excerpt.isEmpty() ? result->excerpt : note->excerpt;
        }
        case ModifiedRole: {
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(note->modifiedAt.time_since_epoch());
            return QDateTime::fromMSecsSinceEpoch(ms.count());
        }
        case Qt::ToolTipRole: return note->identifier;
        case FavoriteRole: return store_.isFavorite(note->url);
        case ThumbnailRole: {
            if (note->contentType != NoteContentType::sketch) return {};
            const QString path = SketchThumbnails::pathFor(note->url, note->revision);
            if (QFileInfo::exists(path)) return path;
            emit thumbnailWanted(note->url);
            return {};
        }
        default: return {};
    }
}

Qt::ItemFlags NoteListModel::flags(const QModelIndex& index) const {
    return QAbstractListModel::flags(index) | (index.isValid() ? Qt::ItemIsDragEnabled : Qt::NoItemFlags);
}

QStringList NoteListModel::mimeTypes() const { return {QString::fromLatin1(noteUrlsMimeType)}; }

QMimeData* NoteListModel::mimeData(const QModelIndexList& indexes) const {
    QStringList urls;
    for (const QModelIndex& index : indexes) urls.append(data(index, UrlRole).toString());
    auto* mime = new QMimeData;
    mime->setData(QString::fromLatin1(noteUrlsMimeType), urls.join(u'\n').toUtf8());
    return mime;
}

}  // namespace mossly
