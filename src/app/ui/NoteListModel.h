#pragma once

#include <QAbstractListModel>
#include <QUuid>
#include <optional>

namespace mossly {

class NoteStore;

// What the note list shows: every note, the favourites, or one folder's notes.
struct LibraryScope {
    enum class Kind { allNotes, favorites, folder } kind = Kind::allNotes;
    QUuid folder;
    bool operator==(const LibraryScope&) const = default;
};

// The sidebar's note list over the store: scope and search applied, newest first
// (or in search order). Drags carry the notes' URLs.
class NoteListModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role { UrlRole = Qt::UserRole + 1, TitleRole, ExcerptRole, ModifiedRole, ThumbnailRole, FavoriteRole };
    static inline const char* const noteUrlsMimeType = "application/x-mossly-note-urls";

    explicit NoteListModel(NoteStore& store, QObject* parent = nullptr);

    void setScope(const LibraryScope& scope);
    const LibraryScope& scope() const { return scope_; }
    QModelIndex indexOf(const QString& url) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QModelIndexList& indexes) const override;
    Qt::DropActions supportedDragActions() const override { return Qt::MoveAction | Qt::CopyAction; }

signals:
    // A sketch row is shown without a picture of its current revision.
    void thumbnailWanted(const QString& url) const;

private:
    void rebuild();

    NoteStore& store_;
    LibraryScope scope_;
    QStringList urls_;
};

}  // namespace mossly
