#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QUuid>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

#include "FolderMetadata.h"
#include "NoteFileAccess.h"
#include "NoteSearch.h"

namespace mossly {

class DirectoryMonitor;
class NoteSearchService;

// One note as the app holds it. `url` (the file's absolute path) is its identity.
struct Note {
    QString url;
    QString identifier;  // path below the notes folder
    QString content;     // the body an editor shows and edits, once loaded (see bodyLoaded)
    NoteContentType contentType = NoteContentType::markdown;
    FileTime modifiedAt;
    QString revision;  // of the file as last read or written by us
    QString title;
    QString excerpt;  // the first line of text after the title, for lists
    // The document as last read or written, so that text written back (a
    // conflict copy, a note deleted elsewhere) keeps its front matter.
    std::shared_ptr<const NoteDocument> base;
    // The store's generation at the last change made here; a background result
    // that started before it must not overwrite the note.
    quint64 changeGeneration = 0;
    // Whether `content` holds the body. The list needs only titles and
    // excerpts; a body is read when its note is opened or edited.
    bool bodyLoaded = true;

    QString fileName() const { return identifier.mid(identifier.lastIndexOf(u'/') + 1); }
    // The whole file text for `body` on top of the note's front matter.
    QString fileText(const QString& body) const;
};

// A concurrent edit: the file changed on disk while the user had unsaved text.
struct NoteConflict {
    Note disk;            // the version on disk, as it would be shown after "Reload"
    QString userContent;  // the user's text, which "Keep Conflict Copy" preserves
};

// A save that did not succeed; the text stays in memory and is retried.
struct SaveFailure {
    Error error = Error::busy();
    int attempts = 0;
};

// A file of the notes folder that looks like a note but cannot be shown
// (not UTF-8, no permission). It is listed for the user and never rewritten.
struct UnreadableNote {
    QString identifier;
    QString reason;
    bool operator==(const UnreadableNote&) const = default;
};

// What is left when the app quits: the notes still unsaved, and the conflict
// copies written so that both texts of an unresolved conflict are on disk.
struct QuitPreparation {
    struct Unsaved {
        QString url;
        QString title;
        QString reason;
    };
    std::vector<Unsaved> unsaved;
    QStringList conflictCopies;  // "Plan.md → Plan (Conflict …).md", for the user
};

struct NoteFileImportReport {
    QStringList imported;                              // identifiers of the new notes
    std::vector<std::pair<QString, QString>> failures;  // file name, reason
};

enum class FolderNoteDisposition { moveOut, moveToFolder, trash };

// The ways out of a sync engine's conflict copy: the note's text, the copy's, or both as two notes.
enum class SyncConflictChoice { keepThis, keepOther, keepBoth };

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
        NoteFileAccessFactory fileAccess = RepositoryFileAccess::make;
        // Start from the list as last seen (NoteListCache) and check the folder afterwards.
        bool usesNoteListCache = false;
    };

    static constexpr int saveDelayMilliseconds = 250;
    static constexpr int searchDelayMilliseconds = 120;
    // How long a flush keeps trying while another writer (an agent) holds the library lock.
    static constexpr std::chrono::milliseconds defaultBusyPatience{5000};
    // Busy retries at the save delay stay quiet this long before the user is told.
    static constexpr int quietBusyAttempts = 20;
    // A failed save is retried after 1, 2, 4 … seconds, at most this often.
    static constexpr std::chrono::milliseconds maximumRetryDelay{30000};
    // A note missing from one scan loses its folder and favourite only when a later scan agrees.
    static constexpr int missingConfirmationMilliseconds = 2000;

    NoteStore(QString directory, Options options, QObject* parent = nullptr);
    ~NoteStore() override;

    // Library
    void loadInitialNotes();
    const QString& directory() const { return directory_; }
    bool isLoadingInitialNotes() const { return isLoadingInitialNotes_; }
    // A first start without a list cache: the list is shown from the folder
    // listing (titles from file names) while every note is read for its details.
    bool isReadingNoteDetails() const { return readingNoteDetails_; }
    Result<void> activateDirectory(const QString& directory, const QHash<QString, QString>& relocatedNotes = {});
    Result<void> reloadFromDiskPreservingSelection();
    // Cancels every debounce and writes every pending edit now, waiting up to
    // `busyPatience` for a busy library. Fails while any edit is still unsaved.
    Result<void> flushPendingSaves(std::chrono::milliseconds busyPatience = defaultBusyPatience);
    bool hasPendingSaves() const { return !pendingBaseRevisions_.isEmpty(); }
    bool hasPendingSave(const QString& url) const { return pendingBaseRevisions_.contains(url); }
    // The repository the store writes through, for reading a note's history.
    const NoteRepository& repository() const { return files_->repository(); }
    // Pending edits or conflicts: text that is only in memory.
    bool hasUnsavedChanges() const { return hasPendingSaves() || !conflicts_.isEmpty(); }
    // A save that failed and is being retried, once the user has been told.
    const SaveFailure* saveFailure(const QString& url) const;
    void retrySave(const QString& url);
    // Before quitting: flush, write unresolved conflicts as conflict copies,
    // and report what could still not be saved.
    QuitPreparation prepareForQuit(std::chrono::milliseconds busyPatience = defaultBusyPatience);
    // The last resort when the notes folder will not take a save: every unsaved
    // text written as a file into `folder`. Returns the files written.
    Result<QStringList> saveUnsavedNotesTo(const QString& folder);

    // Notes
    const std::vector<Note>& notes() const { return notes_; }
    // Note files that could not be read, by identifier, as of the last load or scan.
    const std::vector<UnreadableNote>& unreadableNotes() const { return unreadableNotes_; }
    const Note* note(const QString& url) const;
    // A new note, selected; with `folder`, it is in that folder before anyone sees it.
    std::optional<QString> createNote(const QString& content, NoteContentType contentType,
                                      const std::optional<QUuid>& folder = std::nullopt);
    // The editor binding: the body (read from disk the first time a note is
    // opened), and a change to it. A note whose body cannot be read cannot be
    // changed either.
    QString body(const QString& url);
    bool isBodyAvailable(const QString& url);
    void setBody(const QString& url, const QString& body);
    // An editor's change: `shownBefore` is the text the editor showed when the
    // user changed it. When the note no longer holds that text (it changed
    // under the editor, which never took the new text), the edit cannot win:
    // the note's text and the editor's are both kept, as a conflict.
    void applyEditorChange(const QString& url, const QString& shownBefore, const QString& body);
    void deleteNotes(const QSet<QString>& urls);
    // Gives the note's file the name `newBaseName` (its extension and subfolder
    // stay), after saving any edit still pending. Folder, favourite, selection
    // and open editors follow the note; links to it from other Markdown notes
    // are rewritten afterwards in the background (see referencesUpdated).
    // Returns the note's new URL.
    Result<QString> renameNote(const QString& url, const QString& newBaseName);
    std::optional<QString> resolveNoteID(const QString& url) const;

    // Selection and focus
    const std::optional<QString>& selection() const { return selection_; }
    void select(const std::optional<QString>& url);

    // Conflicts
    const NoteConflict* conflict(const QString& url) const;
    void reloadConflict(const QString& url);
    Result<QString> keepConflictCopy(const QString& url, std::chrono::milliseconds busyPatience = {});
    // Conflict copies that sync engines wrote beside a note (NoteStoreSyncConflicts.cpp).
    // The note a copy belongs to, when that note is in the library.
    std::optional<QString> syncConflictOriginal(const QString& url) const;
    std::optional<QString> syncConflictOriginal(const Note& note) const;  // cheap for notes that are no copy
    std::vector<const Note*> syncConflictCopies(const QString& url) const;
    QString syncConflictDescription(const QString& copyUrl) const;  // "Syncthing, 2026-11-24 09:30:12, device …"
    // By value: a caller may pass a note's own url, which moves when the list changes.
    Result<void> resolveSyncConflict(QString url, QString copyUrl, SyncConflictChoice choice);

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
    // Searches find notes by meaning as well as by words (every note has its vectors).
    bool meaningSearchReady() const;
    // Notes in search order when a search is active, else all notes.
    std::vector<const Note*> filteredNotes() const;
    const NoteSearchResult* searchResult(const QString& url) const;

    // Import
    void importNoteFiles(const QStringList& paths);
    // After a Granola import: a "Granola" folder holding one folder per Granola
    // folder, and each imported note (identifier, its Granola folders as
    // "id\tname") assigned to its first. Written once.
    void applyGranolaFolders(const std::vector<std::pair<QString, QStringList>>& noteFolders);
    // The meeting recorder wrote its note at `url` (created it, or rewrote its
    // transcript or summary): show it now. Unsaved text the user typed into the
    // same note is kept and merged with the recorder's blocks; other notes, the
    // selection and their pending edits are untouched.
    void patchMeetingNote(const QString& url);

signals:
    void notesChanged();
    void foldersChanged();
    void selectionChanged();
    void loadingChanged();
    void searchChanged();
    void conflictsChanged();
    // A note's text changed (an editor, a reload from disk, the store itself);
    // every editor showing it whose text differs takes the new text.
    void noteContentChanged(const QString& url);
    // Another writer (an agent, the recorder, another program) replaced a note
    // that had nothing unsaved here; `editedBy` is the stored editor of the new text.
    void noteChangedElsewhere(const QString& url, const QString& previousRevision, const QString& editedBy);
    // A save failed, or a failed save finally succeeded.
    void saveStateChanged(const QString& url);
    void unreadableNotesChanged();
    // The search index is being built: `done` of `total` changed notes so far.
    void indexProgress(int done, int total);
    // Notes are being indexed for meaning search: `done` of `total` so far.
    void meaningIndexProgress(int done, int total);
    // Note files are being imported: `done` of `total` so far.
    void importProgress(int done, int total);
    void editorFocusRequested(const QUuid& requestId, const QString& url);
    void importFinished(const NoteFileImportReport& report);
    void saveCommitted(const QString& url);
    // A note's file was renamed: whatever shows or names `oldUrl` now means `newUrl`.
    // Sent before notesChanged, so that a view of the note never sees it gone.
    void noteRenamed(const QString& oldUrl, const QString& newUrl);
    // Links to the renamed note at `url` were rewritten in `updatedCount` other notes.
    void referencesUpdated(const QString& url, int updatedCount);
    // Something the user should know about, in words they understand.
    void problemOccurred(const QString& message);

private:
    // Writes `text` as a conflict copy of `identifier` (named with the time, and a
    // counter if taken) in the folder of the note at `url`, and lists it.
    // Waits up to `busyPatience` for a busy library; says what failed.
    Result<StoredNote> createConflictCopyBeside(const QString& url, const QString& identifier, const QString& text,
                                                std::chrono::milliseconds busyPatience);
    struct LoadedLibrary;
    struct Scan;
    void applyLibrary(LoadedLibrary library, quint64 startGeneration);
    void startMonitoring();
    void scheduleSave(const QString& url);
    void startSaveTimer(const QString& url, int milliseconds);
    void stopSaveTimer(const QString& url);
    Result<void> persistPendingSave(const QString& url);
    void commitSaved(const QString& url, const StoredNote& saved);
    void recordSaveFailure(const QString& url, const Error& error);
    void forgetUnsavedState(const QString& url);
    Result<void> restoreDeletedNote(const QString& url);
    void beginConflict(const QString& url, const StoredNote& disk, const QString& userContent);
    void beginConflict(const QString& url, Note other, const QString& userContent);
    bool mergeRecorderBlocks(const QString& url, const StoredNote& disk, const QString& userContent);
    void scheduleExternalChanges();
    QHash<QString, FileTime> knownModificationDates() const;
    void applyExternalChanges(Scan scan, quint64 startGeneration);
    void reconcileSyncedLibraryFiles();
    void rememberSave(const QString& url, const QString& baseBody, const StoredNote& saved);
    // Whether a save of ours was replaced by a sync engine, and where its words are now.
    enum class EngineReplacement { none, keptAsCopy, copyFailed };
    EngineReplacement keepSaveReplacedByEngine(const QString& url, const StoredNote& incoming);
    struct ReferenceEdit;
    Result<void> saveBeforeRename(const QString& url);
    void carryFolderMetadata(const QString& oldName, const QString& newName);
    void updateReferences(const QString& oldPath, const QString& newPath);
    Result<void> applyReferenceEdit(ReferenceEdit edit, const QString& oldPath, const QString& newPath);
    void refreshSearchIndexInBackground();
    void runSearch();
    void createWelcomeNoteIfNeeded();
    bool writeFolderMetadata();
    bool folderMetadataWritable();
    void sortNotes();
    Note* mutableNote(const QString& url);
    void touch(Note& note) { note.changeGeneration = ++generation_; }
    void removeNotesFromModel(const QSet<QString>& urls, bool dropFolderMetadata);
    void dropFolderMetadataFor(const QSet<QString>& fileNames);
    void setUnreadableNotes(std::vector<UnreadableNote> unreadable);
    void saveNoteListCache(bool now);
    void loadNoteDetails();
    std::vector<Note> mergedWithCurrent(std::vector<Note> loadedNotes, quint64 startGeneration,
                                        QStringList& replacedTexts) const;
    QUuid ensureImportedFolder(const QString& name, const QString& sourceIdentifier, const std::optional<QUuid>& parent);

    QString directory_;
    Options options_;
    std::shared_ptr<NoteFileAccess> files_;
    std::shared_ptr<NoteSearchService> catalog_;
    bool catalogReady_ = false;  // the first synchronisation has finished
    std::unique_ptr<DirectoryMonitor> monitor_;

    std::vector<Note> notes_;
    std::vector<UnreadableNote> unreadableNotes_;
    FolderMetadata metadata_;
    std::optional<Error> metadataError_;
    bool metadataLoaded_ = false;  // folder changes wait for the user's file to be read
    QString folderFileSeen_;  // ".folders.json"'s modification time and size when last looked at
    // A save of ours in a Syncthing folder, for a few seconds: Syncthing may have
    // decided on the older file just before and still rename its download over it.
    struct RecentSave {
        QString baseBody;  // what the save started from
        QString body;
        QString fileText;
        qint64 savedAtMs = 0;
    };
    QHash<QString, RecentSave> recentSaves_;  // by url
    bool isLoadingInitialNotes_ = true;
    // A first start shows the folder listing, then reads every note for its details.
    bool readingNoteDetails_ = false;
    bool externalChangesWaiting_ = false;
    bool welcomeNoteAwaitsScan_ = false;  // the list came from an empty cache
    bool didStartInitialLoad_ = false;
    std::optional<QString> selection_;

    // Counts every change made here; background work remembers where it started.
    quint64 generation_ = 0;
    // Identifiers trashed here, with the generation: a scan that began earlier must not bring them back.
    QHash<QString, quint64> trashedAt_;

    // A note with an entry here has text that is not on disk yet.
    QHash<QString, QString> pendingBaseRevisions_;
    QHash<QString, QTimer*> saveTimers_;  // the debounce or the next retry
    QHash<QString, SaveFailure> saveFailures_;
    QHash<QString, NoteConflict> conflicts_;
    QHash<QString, QString> relocatedNoteIDs_;

    quint64 externalSyncGeneration_ = 0;
    bool directoryUnavailable_ = false;
    QSet<QString> missingNoteNames_;  // gone on the last scan; confirmed by the next

    bool indexRefreshRunning_ = false;
    std::stop_source indexStop_;  // quitting interrupts indexing; the catalog rolls back
    std::stop_source importStop_;  // quitting ends an import between two files
    bool indexNeedsRefresh_ = false;

    QString searchText_;
    QTimer searchTimer_;
    QTimer noteListCacheTimer_;  // writes the list cache a while after the list changed
    quint64 searchGeneration_ = 0;
    std::optional<std::vector<NoteSearchResult>> searchResults_;
    bool isSearching_ = false;
};

// Until the catalog has indexed the library once, searches run over the notes
// in memory: the notes containing every query term, accents and case folded.
// Bodies not in memory come from `unloadedBody`.
std::vector<NoteSearchResult> searchNotesInMemory(const std::vector<Note>& notes, const QString& query,
                                                  const std::function<QString(const Note&)>& unloadedBody = {});

// The app's per-library catalog file inside the notes folder.
QString librarySearchCatalogPath(const QString& directory);

}  // namespace mossly
