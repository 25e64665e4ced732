#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QUuid>
#include <memory>
#include <optional>
#include <vector>

#include "FolderMetadata.h"
#include "NoteRepository.h"
#include "NoteSearch.h"

namespace mossly {

class DirectoryMonitor;
class NoteSearchCatalog;

// One note as the app holds it. `url` (the file's absolute path) is its identity.
struct Note {
    QString url;
    QString identifier;  // path below the notes folder
    QString content;     // the body an editor shows and edits
    NoteContentType contentType = NoteContentType::markdown;
    FileTime modifiedAt;
    QString revision;  // of the file as last read or written by us
    QString title;
    QString excerpt;  // the first line of text after the title, for lists

    QString fileName() const { return identifier.mid(identifier.lastIndexOf(u'/') + 1); }
};

// A concurrent edit: the file changed on disk while the user had unsaved text.
struct NoteConflict {
    QString diskContent;
    QString diskRevision;
    FileTime diskModifiedAt;
    QString userContent;
};

struct NoteFileImportReport {
    QStringList imported;                              // identifiers of the new notes
    std::vector<std::pair<QString, QString>> failures;  // file name, reason
};

enum class FolderNoteDisposition { moveOut, moveToFolder, trash };

// The app's model of the note library: the note list (newest first), folders,
// favourites, selection, search and in-flight saves. It lives on the GUI
// thread; reading the folder, searching and indexing run on Qt's thread pool
// and their results come back here. Every file access goes through the
// repository, so the app obeys the same lock and revision rules as agents.
class NoteStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString directory READ directory NOTIFY notesChanged)
    Q_PROPERTY(bool isLoadingInitialNotes READ isLoadingInitialNotes NOTIFY loadingChanged)
    Q_PROPERTY(QString searchText READ searchText WRITE setSearchText NOTIFY searchChanged)
    Q_PROPERTY(bool isSearching READ isSearching NOTIFY searchChanged)
public:
    struct Options {
        bool createsWelcomeNote = true;
        bool loadsNotesSynchronously = false;
        QByteArray welcomeIconPng;  // stored beside the welcome note when given
    };

    static constexpr int saveDelayMilliseconds = 250;
    static constexpr int searchDelayMilliseconds = 120;

    NoteStore(QString directory, Options options, QObject* parent = nullptr);
    ~NoteStore() override;

    // Library
    void loadInitialNotes();
    const QString& directory() const { return directory_; }
    bool isLoadingInitialNotes() const { return isLoadingInitialNotes_; }
    Result<void> activateDirectory(const QString& directory, const QHash<QString, QString>& relocatedNotes = {});
    Result<void> reloadFromDiskPreservingSelection();
    // Cancels every debounce and writes every pending edit now.
    Result<void> flushPendingSaves();
    bool hasPendingSaves() const { return !pendingSaves_.isEmpty(); }

    // Notes
    const std::vector<Note>& notes() const { return notes_; }
    const Note* note(const QString& url) const;
    std::optional<QString> createNote(const QString& content, NoteContentType contentType);
    // The editor binding: the body as held in memory, and a change to it.
    QString body(const QString& url) const;
    void setBody(const QString& url, const QString& body);
    void deleteNotes(const QSet<QString>& urls);
    std::optional<QString> resolveNoteID(const QString& url) const;

    // Selection and focus
    const std::optional<QString>& selection() const { return selection_; }
    void select(const std::optional<QString>& url);

    // Conflicts
    const NoteConflict* conflict(const QString& url) const;
    void reloadConflict(const QString& url);
    Result<QString> keepConflictCopy(const QString& url);

    // Folders and favourites
    const std::vector<NoteFolder>& folders() const { return metadata_.folders; }
    const FolderMetadata& folderMetadata() const { return metadata_; }
    // Set when ".folders.json" could not be read; folder changes are then refused.
    const std::optional<Error>& folderMetadataError() const { return metadataError_; }
    std::optional<QUuid> createFolder(const QString& name, const std::optional<QUuid>& parent);
    bool renameFolder(const QUuid& id, const QString& name);
    void deleteFolder(const QUuid& id, FolderNoteDisposition disposition, std::optional<QUuid> destination = {});
    bool canMoveFolder(const QUuid& id, const FolderMoveDestination& destination) const;
    bool moveFolder(const QUuid& id, const FolderMoveDestination& destination);
    void moveNote(const QString& url, const QUuid& folder);
    void removeNoteFromFolder(const QString& url);
    std::optional<QUuid> folderOf(const QString& url) const;
    std::vector<const Note*> notesInFolder(const QUuid& folder) const;
    int noteCountInFolderTree(const QUuid& folder) const;
    bool isFavorite(const QString& url) const;
    void setFavorite(bool favorite, const QString& url);
    std::vector<const Note*> favoriteNotes() const;

    // Search
    const QString& searchText() const { return searchText_; }
    void setSearchText(const QString& text);
    const std::optional<std::vector<NoteSearchResult>>& searchResults() const { return searchResults_; }
    bool isSearching() const { return isSearching_; }
    // Notes in search order when a search is active, else all notes.
    std::vector<const Note*> filteredNotes() const;
    const NoteSearchResult* searchResult(const QString& url) const;

    // Import
    void importNoteFiles(const QStringList& paths);

signals:
    void notesChanged();
    void foldersChanged();
    void selectionChanged();
    void loadingChanged();
    void searchChanged();
    void conflictsChanged();
    // A note's text was replaced from disk; editors showing it must reload it.
    void noteReloaded(const QString& url);
    void editorFocusRequested(const QUuid& requestId, const QString& url);
    void importFinished(const NoteFileImportReport& report);
    void saveCommitted(const QString& url);
    // Something the user should know about, in words they understand.
    void problemOccurred(const QString& message);

private:
    struct LoadedLibrary;
    void applyLibrary(LoadedLibrary library);
    void startMonitoring();
    void scheduleSave(const QString& url);
    Result<void> persistPendingSave(const QString& url);
    void beginConflict(const QString& url, const StoredNote& disk, const QString& userContent);
    void scheduleExternalChanges();
    void invalidateExternalSync();
    void refreshSearchIndexInBackground();
    void runSearch();
    void createWelcomeNoteIfNeeded();
    bool writeFolderMetadata();
    bool folderMetadataWritable();
    void sortNotes();
    Note* mutableNote(const QString& url);
    void removeNotesFromModel(const QSet<QString>& urls);

    QString directory_;
    Options options_;
    NoteRepository repository_;
    std::shared_ptr<NoteSearchCatalog> catalog_;
    bool catalogReady_ = false;  // the first synchronisation has finished
    std::unique_ptr<DirectoryMonitor> monitor_;

    std::vector<Note> notes_;
    FolderMetadata metadata_;
    std::optional<Error> metadataError_;
    bool isLoadingInitialNotes_ = true;
    bool didStartInitialLoad_ = false;
    std::optional<QString> selection_;

    QHash<QString, QTimer*> pendingSaves_;
    QHash<QString, QString> pendingBaseRevisions_;
    QHash<QString, NoteConflict> conflicts_;
    QHash<QString, QString> relocatedNoteIDs_;

    quint64 externalSyncGeneration_ = 0;
    bool externalSyncRunning_ = false;

    bool indexRefreshRunning_ = false;
    bool indexNeedsRefresh_ = false;

    QString searchText_;
    QTimer searchTimer_;
    quint64 searchGeneration_ = 0;
    std::optional<std::vector<NoteSearchResult>> searchResults_;
    bool isSearching_ = false;
};

// The app's per-library catalog file inside the notes folder.
QString librarySearchCatalogPath(const QString& directory);

}  // namespace mossly
