#pragma once

#include <QString>
#include <QStringList>
#include <memory>
#include <optional>
#include <vector>

#include "Error.h"
#include "NoteDocument.h"
#include "NoteHistoryStore.h"
#include "NotePathPolicy.h"
#include "NotesLocation.h"
#include "StoredNote.h"

namespace mossly {

class NoteHistory;

// The only component that reads and writes note files. Every writer (the
// app, the meeting recorder, mossly-agent) goes through it, so its rules hold
// for all of them: identifiers are validated, writes run under the library
// lock, updates are revision-checked, replacements are atomic, deletes go to
// the Trash. Stateless: every call goes to the disk; safe to use from any thread.
class NoteRepository {
public:
    // A repository over a fixed notes folder.
    explicit NoteRepository(QString directory);
    // A repository that finds its folder through the notes-location configuration.
    NoteRepository(NotesLocationConfigurationStore store, NotesDirectoryResolver resolver);

    Result<QString> directoryURL() const;

    // Every note file of the folder tree, sorted by identifier (or, for a
    // caller that needs no order, as found: sorting 100,000 names is a tenth of
    // the look). Regular files only (symbolic links are not followed); hidden
    // files and folders are never notes. A folder that does not exist yet holds no notes.
    enum class ListingOrder { byIdentifier, asFound };
    Result<std::vector<NoteFileMetadata>> enumerateMetadata(ListingOrder order = ListingOrder::byIdentifier) const;
    // Notes whose text contains any of `terms` (case-insensitively), sorted
    // like `enumerateMetadata`. A fallback search when the catalog is absent.
    Result<std::vector<StoredNote>> enumerate(const QStringList& matchingAnyRawTerms) const;

    Result<StoredNote> read(const QString& identifier) const;

    // Creates "<title>.<ext>", or "<title> 2.<ext>" … when taken; never replaces a file.
    Result<StoredNote> create(const QString& title, const QString& body, const NoteEditor& createdBy,
                              NoteContentType contentType = NoteContentType::markdown,
                              const NoteFrontMatterFields& frontMatterFields = {}) const;

    // Creates a note whose file holds exactly `text` (an imported file), named
    // from `title` like `create`. Never replaces a file.
    Result<StoredNote> createFromText(const QString& title, const QString& text, NoteContentType contentType) const;

    // Creates a note at exactly `identifier`, failing with `alreadyExists` when
    // the name is taken (used for conflict copies, whose names follow their own pattern).
    Result<StoredNote> createAt(const QString& identifier, const QString& text) const;

    // Writes a new version only if the file still has `expectedRevision`;
    // otherwise fails with `stale` and writes nothing. Returns the note as written.
    Result<StoredNote> update(const QString& identifier, const QString& expectedRevision,
                              const std::optional<QString>& body, const NoteEditor& editedBy,
                              std::optional<NoteContentType> contentType = std::nullopt,
                              const NoteFrontMatterFields& frontMatterUpdates = {}) const;

    // Gives the note's file the name `newBaseName` (the extension and the
    // subfolder stay) if the file still has `expectedRevision`; otherwise fails
    // with `stale`. Never replaces a file: a taken name fails with
    // `alreadyExists` (the user chose the name, so no counter is added). The
    // text is not touched, so the revision stays. Returns the note as renamed.
    Result<StoredNote> rename(const QString& identifier, const QString& expectedRevision,
                              const QString& newBaseName, const NoteEditor& editedBy) const;

    // Moves the note file to the user's Trash. Never deletes.
    Result<void> moveToTrash(const QString& identifier, const NoteEditor& trashedBy = NoteEditor::human()) const;

    // Writes exactly `text` (a version from the history) if the file still
    // has `expectedRevision`, like `update`; recorded as a restore.
    Result<StoredNote> restore(const QString& identifier, const QString& expectedRevision, const QString& text,
                               const NoteEditor& editedBy) const;

    // Every update, rename, restore and trash first records the version it
    // replaces, under the lock. By default in the folder's shared history;
    // `setHistory(nullptr)` turns that off.
    void setHistory(std::shared_ptr<NoteHistory> history);
    std::shared_ptr<NoteHistory> history() const;

    // The file name (without extension) for a note title.
    static QString safeBaseName(const QString& title);
    // Keys callers may set: "^[A-Za-z0-9][A-Za-z0-9_-]*$", minus the two editor keys.
    static Result<void> validateFrontMatterKeys(const NoteFrontMatterFields& fields);
    // Agent names are one line of visible text (see NoteEditor::isValidAgentName).
    static Result<void> validateEditor(const NoteEditor& editor);

    static constexpr int maximumNameAttempts = 10000;

private:
    Result<StoredNote> readAt(const QString& directory, const QString& identifier) const;
    std::shared_ptr<NoteHistory> historyOf(const QString& directory) const;
    Result<StoredNote> replaceChecked(const QString& identifier, const QString& expectedRevision,
                                      const NoteEditor& editedBy, NoteWriteKind kind,
                                      std::optional<NoteContentType> contentType,
                                      const std::function<QString(const StoredNote&)>& newText) const;

    std::optional<QString> fixedDirectory_;
    std::optional<NotesLocationConfigurationStore> store_;
    std::optional<NotesDirectoryResolver> resolver_;
    NotePathPolicy pathPolicy_;
    std::optional<std::shared_ptr<NoteHistory>> history_;  // unset: the folder's shared history
};

}  // namespace mossly
