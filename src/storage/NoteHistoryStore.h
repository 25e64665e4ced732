#pragma once

#include <QByteArray>
#include <QString>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Error.h"
#include "NoteEditor.h"
#include "StoredNote.h"

namespace mossly {

class SqliteDatabase;
class SqliteStatement;

// Why a version was replaced. Every kind but an ordinary edit is kept even
// when the same editor wrote a moment ago: it is the version a person may want back.
enum class NoteWriteKind { edit, restore, rename, trash };

// One past version of a note, without its text.
struct NoteVersionInfo {
    QString identifier;
    QString revision;
    NoteEditor editedBy = NoteEditor::human();  // who wrote this version
    FileTime savedAt;                           // when it was written
    qint64 size = 0;                            // bytes of its text
    // Who wrote over it; none for the note's current file.
    std::optional<NoteEditor> replacedBy;
};

// A version about to be written over, as the repository hands it to the history.
struct NoteVersionRecord {
    QString identifier;
    QByteArray bytes;
    QString revision;
    NoteEditor editedBy = NoteEditor::human();
    FileTime savedAt;
    NoteEditor replacedBy = NoteEditor::human();
    NoteWriteKind kind = NoteWriteKind::edit;
};

// How much history is kept. Shared by every process through the store itself.
struct NoteHistoryRetention {
    static constexpr int defaultMaximumAgeDays = 180;
    static constexpr qint64 defaultMaximumBytes = qint64(256) * 1024 * 1024;
    int maximumAgeDays = defaultMaximumAgeDays;
    qint64 maximumBytes = defaultMaximumBytes;  // compressed texts
    bool operator==(const NoteHistoryRetention&) const = default;
};

// One history file: SQLite in WAL mode, each version's text compressed with
// zstd. Several processes may open the same file; writes are ordered by the
// library lock that the repository holds while it records. Not thread-safe:
// `NoteHistory` serialises the calls of one process.
class NoteHistoryStore {
public:
    // The user's own saves within this time keep one version between them.
    static constexpr qint64 coalescingWindowMs = 5 * 60 * 1000;

    static Result<std::unique_ptr<NoteHistoryStore>> open(const QString& path, int busyTimeoutMs = 2000);
    ~NoteHistoryStore();

    // Records `version` unless the coalescing rule drops it; true when kept.
    Result<bool> record(const NoteVersionRecord& version, qint64 nowMs);
    // A note's versions, newest first.
    Result<std::vector<NoteVersionInfo>> versions(const QString& identifier);
    // The text of the newest kept version with `revision`.
    Result<QByteArray> text(const QString& identifier, const QString& revision);
    // A renamed note keeps its history.
    Result<void> rename(const QString& from, const QString& to);

    Result<NoteHistoryRetention> retention();
    Result<void> setRetention(const NoteHistoryRetention& retention);
    // Drops versions older than the age limit, then the oldest until the texts fit the size limit.
    Result<void> applyRetention(qint64 nowMs);
    // Compressed bytes of every kept text.
    Result<qint64> storedBytes();

    // Whether the last failure was SQLite finding the file damaged (not a database, corrupt).
    bool lastFailureWasDamage() const;
    const QString& path() const { return path_; }

private:
    struct Statements;
    NoteHistoryStore(QString path, std::unique_ptr<SqliteDatabase> db, std::unique_ptr<Statements> statements);
    Result<void> inTransaction(const std::function<Result<void>()>& work);

    QString path_;
    std::unique_ptr<SqliteDatabase> db_;
    std::unique_ptr<Statements> statements_;
    int recordsSinceRetention_ = 0;
};

// zstd, for the texts of versions.
QByteArray compressVersionText(const QByteArray& text);
Result<QByteArray> decompressVersionText(const QByteArray& compressed);

}  // namespace mossly
