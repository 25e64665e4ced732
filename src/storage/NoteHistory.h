#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Error.h"
#include "NoteHistoryStore.h"

namespace mossly {

class NoteRepository;

// The history of one notes folder, kept outside it in
// $XDG_DATA_HOME/com.bellam.notes/History/ and shared by every process that
// writes the library. The repository hands it each version it is about to
// write over, inside the library lock, so versions are in write order.
//
// History never costs a save: `recordReplaced` does not fail. When the store
// cannot be written the user is told once (through the notice handler) and
// the next write tries again; a damaged file is set aside and started anew.
// Thread-safe: one instance per folder and process, calls are serialised.
class NoteHistory {
public:
    struct Options {
        std::function<qint64()> clock;  // ms since the epoch; the system clock when empty
        int busyTimeoutMs = 2000;
        // Tests: a failure to inject before each write to the store (a full disk, say).
        std::function<std::optional<Error>()> writeFault;
    };

    NoteHistory(QString storePath, Options options);
    ~NoteHistory();

    // The history of `directory` that every repository of this process shares.
    static std::shared_ptr<NoteHistory> forDirectory(const QString& directory);
    // Where the history of `directory` is kept: one file per notes folder.
    static QString defaultPath(const QString& directory);

    // Who hears "the history could not be saved" and "the history was set aside".
    // Without a handler notices go to standard error. Called on the writing thread.
    static void setNoticeHandler(std::function<void(const QString&)> handler);

    // Records the version that `writer` is about to replace. Never fails the write.
    void recordReplaced(const StoredNote& replaced, const NoteEditor& writer, NoteWriteKind kind);
    void noteRenamed(const QString& from, const QString& to);

    Result<std::vector<NoteVersionInfo>> versions(const QString& identifier);
    Result<QByteArray> text(const QString& identifier, const QString& revision);
    Result<NoteHistoryRetention> retention();
    Result<void> setRetention(const NoteHistoryRetention& retention);
    Result<qint64> storedBytes();

    const QString& storePath() const { return path_; }

    static inline const QString damagedNotice = QStringLiteral(
        "The note history was damaged. It was set aside and starts anew; your notes are not affected.");
    static inline const QString failedNoticePrefix =
        QStringLiteral("Your notes are saved, but their history could not be: ");

private:
    Result<NoteHistoryStore*> store();
    void failed(const Error& error, bool damaged);
    void setAside();
    qint64 now() const;

    QString path_;
    Options options_;
    std::mutex mutex_;
    std::unique_ptr<NoteHistoryStore> store_;
    bool told_ = false;  // the user heard of the current failure
};

// A note's timeline, newest first: its current file (no `replacedBy`), then
// its kept versions. A kept version with the same text as the one above it is left out.
Result<std::vector<NoteVersionInfo>> noteTimeline(const NoteRepository& repository, const QString& identifier);

// One version's text, the current file's included.
Result<QString> noteVersionText(const NoteRepository& repository, const QString& identifier, const QString& revision);

// One version as a note (its text, and the time it was saved), the current file's included.
Result<StoredNote> readNoteVersion(const NoteRepository& repository, const QString& identifier, const QString& revision);

// Writes the version `revision` back as the note's text, stamped as edited by
// `editor`, if the note still has `expectedRevision`. Recorded like any write.
Result<StoredNote> restoreNoteVersion(const NoteRepository& repository, const QString& identifier,
                                      const QString& revision, const QString& expectedRevision,
                                      const NoteEditor& editor);

}  // namespace mossly
