#include "NoteHistoryStore.h"

#include <QDir>
#include <QFileInfo>
#include <chrono>
#include <sqlite3.h>
#include <zstd.h>

#include "SqliteDatabase.h"

namespace mossly {

namespace {

// Fast enough to stay far below a millisecond for a 100 KB note, and typed text compresses well at it.
constexpr int compressionLevel = 3;
// Retention runs now and then, not on every save.
constexpr int recordsBetweenRetention = 64;

const char* const settings[] = {
    // Set before the first table exists, so that space freed by retention can be given back.
    "PRAGMA auto_vacuum = INCREMENTAL",
    "PRAGMA journal_mode = WAL",
    // A kill -9 loses nothing committed in WAL mode with NORMAL; only a power cut may lose the last version.
    "PRAGMA synchronous = NORMAL",
};

const char* const schema[] = {
    "CREATE TABLE IF NOT EXISTS versions ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " identifier TEXT NOT NULL,"
    " revision TEXT NOT NULL,"
    " edited_by TEXT NOT NULL,"
    " saved_at INTEGER NOT NULL,"     // ms since the epoch: when this version was written
    " recorded_at INTEGER NOT NULL,"  // when it was written over
    " replaced_by TEXT NOT NULL,"
    " kind INTEGER NOT NULL,"
    " size INTEGER NOT NULL,"
    " stored_size INTEGER NOT NULL,"
    " data BLOB NOT NULL)",
    "CREATE INDEX IF NOT EXISTS versions_by_note ON versions(identifier, id)",
    "CREATE TABLE IF NOT EXISTS settings (key TEXT PRIMARY KEY, value INTEGER NOT NULL)",
};

qint64 milliseconds(FileTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

FileTime fromMilliseconds(qint64 ms) { return FileTime(std::chrono::milliseconds(ms)); }

Error historyError(const Error& sqliteError) { return Error::historyUnavailable(sqliteError.subject()); }

template <typename T>
Result<T> asHistoryError(Result<T> result) {
    if (!result) return fail(historyError(result.error()));
    return result;
}

}  // namespace

struct NoteHistoryStore::Statements {
    std::unique_ptr<SqliteStatement> begin, commit, rollback, newest, insert, list, text, rename, getSetting,
        putSetting, dropOlder, total, oldest, dropUpTo;
};

QByteArray compressVersionText(const QByteArray& text) {
    QByteArray out(static_cast<qsizetype>(ZSTD_compressBound(static_cast<size_t>(text.size()))), Qt::Uninitialized);
    const size_t written = ZSTD_compress(out.data(), static_cast<size_t>(out.size()), text.constData(),
                                         static_cast<size_t>(text.size()), compressionLevel);
    // Compressing into a buffer of ZSTD_compressBound cannot fail.
    out.truncate(ZSTD_isError(written) ? 0 : static_cast<qsizetype>(written));
    return out;
}

Result<QByteArray> decompressVersionText(const QByteArray& compressed) {
    const unsigned long long size = ZSTD_getFrameContentSize(compressed.constData(), static_cast<size_t>(compressed.size()));
    if (size == ZSTD_CONTENTSIZE_ERROR || size == ZSTD_CONTENTSIZE_UNKNOWN || size > (1ull << 31)) {
        return fail(Error::historyUnavailable(QStringLiteral("a stored version is damaged")));
    }
    QByteArray out(static_cast<qsizetype>(size), Qt::Uninitialized);
    const size_t read = ZSTD_decompress(out.data(), static_cast<size_t>(out.size()), compressed.constData(),
                                        static_cast<size_t>(compressed.size()));
    if (ZSTD_isError(read) || read != size) {
        return fail(Error::historyUnavailable(QStringLiteral("a stored version is damaged")));
    }
    return out;
}

Result<std::unique_ptr<NoteHistoryStore>> NoteHistoryStore::open(const QString& path, int busyTimeoutMs) {
    if (!QDir().mkpath(QFileInfo(path).path())) {
        return fail(Error::historyUnavailable(QStringLiteral("its folder could not be created")));
    }
    auto db = SqliteDatabase::open(path);
    if (!db) return fail(historyError(db.error()));
    sqlite3_busy_timeout((*db)->handle(), busyTimeoutMs);
    for (const char* sql : settings) {
        if (auto done = (*db)->executeRetryingWhileBusy(QString::fromUtf8(sql), busyTimeoutMs); !done) {
            return fail(historyError(done.error()));
        }
    }
    if (auto begun = (*db)->execute(QStringLiteral("BEGIN IMMEDIATE")); !begun) return fail(historyError(begun.error()));
    for (const char* sql : schema) {
        if (auto done = (*db)->execute(QString::fromUtf8(sql)); !done) {
            (void)(*db)->execute(QStringLiteral("ROLLBACK"));
            return fail(historyError(done.error()));
        }
    }
    if (auto committed = (*db)->execute(QStringLiteral("COMMIT")); !committed) {
        return fail(historyError(committed.error()));
    }

    auto statements = std::make_unique<Statements>();
    const std::pair<std::unique_ptr<SqliteStatement>*, const char*> all[] = {
        {&statements->begin, "BEGIN IMMEDIATE"},
        {&statements->commit, "COMMIT"},
        {&statements->rollback, "ROLLBACK"},
        {&statements->newest, "SELECT recorded_at, revision, edited_by FROM versions WHERE identifier = ?1 "
                              "ORDER BY id DESC LIMIT 1"},
        {&statements->insert, "INSERT INTO versions (identifier, revision, edited_by, saved_at, recorded_at, "
                              "replaced_by, kind, size, stored_size, data) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)"},
        {&statements->list, "SELECT revision, edited_by, saved_at, size, replaced_by FROM versions "
                            "WHERE identifier = ?1 ORDER BY id DESC"},
        {&statements->text, "SELECT data FROM versions WHERE identifier = ?1 AND revision = ?2 ORDER BY id DESC LIMIT 1"},
        {&statements->rename, "UPDATE versions SET identifier = ?2 WHERE identifier = ?1"},
        {&statements->getSetting, "SELECT value FROM settings WHERE key = ?1"},
        {&statements->putSetting, "INSERT OR REPLACE INTO settings (key, value) VALUES (?1, ?2)"},
        {&statements->dropOlder, "DELETE FROM versions WHERE recorded_at < ?1"},
        {&statements->total, "SELECT COALESCE(SUM(stored_size), 0) FROM versions"},
        {&statements->oldest, "SELECT id, stored_size FROM versions ORDER BY id"},
        {&statements->dropUpTo, "DELETE FROM versions WHERE id <= ?1"},
    };
    for (const auto& [slot, sql] : all) {
        auto prepared = (*db)->prepare(QString::fromUtf8(sql));
        if (!prepared) return fail(historyError(prepared.error()));
        *slot = std::move(*prepared);
    }
    return std::unique_ptr<NoteHistoryStore>(new NoteHistoryStore(path, std::move(*db), std::move(statements)));
}

NoteHistoryStore::NoteHistoryStore(QString path, std::unique_ptr<SqliteDatabase> db,
                                   std::unique_ptr<Statements> statements)
    : path_(std::move(path)), db_(std::move(db)), statements_(std::move(statements)) {}

// Statements are finalised before the connection closes.
NoteHistoryStore::~NoteHistoryStore() { statements_.reset(); }

bool NoteHistoryStore::lastFailureWasDamage() const {
    const int code = sqlite3_errcode(db_->handle()) & 0xff;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

Result<void> NoteHistoryStore::inTransaction(const std::function<Result<void>()>& work) {
    if (auto begun = statements_->begin->use().run(); !begun) return fail(historyError(begun.error()));
    auto done = work();
    if (done) done = asHistoryError(statements_->commit->use().run());
    if (!done) (void)statements_->rollback->use().run();
    return done;
}

Result<bool> NoteHistoryStore::record(const NoteVersionRecord& version, qint64 nowMs) {
    bool kept = false;
    auto done = inTransaction([&]() -> Result<void> {
        {
            auto newest = statements_->newest->use();
            if (auto bound = newest.bind(1, version.identifier); !bound) return fail(historyError(bound.error()));
            auto row = newest.step();
            if (!row) return fail(historyError(row.error()));
            if (*row) {
                // The same text is already the newest kept version (a rename, a crash before the write).
                if (newest.text(1) == version.revision) return {};
                // The user's own typing keeps one version per window; anyone else's write keeps the one before it.
                const bool ownTyping = version.kind == NoteWriteKind::edit && version.replacedBy.isHuman() &&
                                       version.editedBy.isHuman();
                if (ownTyping && nowMs - newest.integer(0) < coalescingWindowMs) return {};
            }
        }
        const QByteArray compressed = compressVersionText(version.bytes);
        auto insert = statements_->insert->use();
        Result<void> bound = insert.bind(1, version.identifier);
        if (bound) bound = insert.bind(2, version.revision);
        if (bound) bound = insert.bind(3, version.editedBy.storedValue());
        if (bound) bound = insert.bind(4, milliseconds(version.savedAt));
        if (bound) bound = insert.bind(5, nowMs);
        if (bound) bound = insert.bind(6, version.replacedBy.storedValue());
        if (bound) bound = insert.bind(7, static_cast<qint64>(version.kind));
        if (bound) bound = insert.bind(8, static_cast<qint64>(version.bytes.size()));
        if (bound) bound = insert.bind(9, static_cast<qint64>(compressed.size()));
        if (bound) bound = insert.bindBlob(10, compressed);
        if (bound) bound = insert.run();
        if (!bound) return fail(historyError(bound.error()));
        kept = true;
        return {};
    });
    if (!done) return fail(done.error());
    if (kept && ++recordsSinceRetention_ >= recordsBetweenRetention) {
        recordsSinceRetention_ = 0;
        if (auto retained = applyRetention(nowMs); !retained) return fail(retained.error());
    }
    return kept;
}

Result<std::vector<NoteVersionInfo>> NoteHistoryStore::versions(const QString& identifier) {
    auto list = statements_->list->use();
    if (auto bound = list.bind(1, identifier); !bound) return fail(historyError(bound.error()));
    std::vector<NoteVersionInfo> versions;
    for (;;) {
        auto row = list.step();
        if (!row) return fail(historyError(row.error()));
        if (!*row) break;
        versions.push_back({identifier, list.text(0), NoteEditor::fromStoredValue(list.text(1)),
                            fromMilliseconds(list.integer(2)), list.integer(3),
                            NoteEditor::fromStoredValue(list.text(4))});
    }
    return versions;
}

Result<QByteArray> NoteHistoryStore::text(const QString& identifier, const QString& revision) {
    auto query = statements_->text->use();
    Result<void> bound = query.bind(1, identifier);
    if (bound) bound = query.bind(2, revision);
    if (!bound) return fail(historyError(bound.error()));
    auto row = query.step();
    if (!row) return fail(historyError(row.error()));
    if (!*row) return fail(Error::versionNotFound(identifier, revision));
    return decompressVersionText(query.blob(0));
}

Result<void> NoteHistoryStore::rename(const QString& from, const QString& to) {
    return inTransaction([&]() -> Result<void> {
        auto update = statements_->rename->use();
        Result<void> done = update.bind(1, from);
        if (done) done = update.bind(2, to);
        if (done) done = update.run();
        return asHistoryError(done);
    });
}

Result<NoteHistoryRetention> NoteHistoryStore::retention() {
    NoteHistoryRetention retention;
    const auto read = [&](const char* key, auto& value) -> Result<void> {
        auto query = statements_->getSetting->use();
        if (auto bound = query.bind(1, QString::fromUtf8(key)); !bound) return fail(historyError(bound.error()));
        auto row = query.step();
        if (!row) return fail(historyError(row.error()));
        if (*row) value = static_cast<std::remove_reference_t<decltype(value)>>(query.integer(0));
        return {};
    };
    if (auto done = read("maximumAgeDays", retention.maximumAgeDays); !done) return fail(done.error());
    if (auto done = read("maximumBytes", retention.maximumBytes); !done) return fail(done.error());
    return retention;
}

Result<void> NoteHistoryStore::setRetention(const NoteHistoryRetention& retention) {
    if (retention.maximumAgeDays < 1 || retention.maximumBytes < 1024 * 1024) {
        return fail(Error::invalidArgument(QStringLiteral("History is kept for at least a day and 1 MB.")));
    }
    return inTransaction([&]() -> Result<void> {
        for (const auto& [key, value] : {std::pair{"maximumAgeDays", qint64(retention.maximumAgeDays)},
                                         std::pair{"maximumBytes", retention.maximumBytes}}) {
            auto put = statements_->putSetting->use();
            Result<void> done = put.bind(1, QString::fromUtf8(key));
            if (done) done = put.bind(2, value);
            if (done) done = put.run();
            if (!done) return fail(historyError(done.error()));
        }
        return {};
    });
}

Result<qint64> NoteHistoryStore::storedBytes() {
    auto total = statements_->total->use();
    auto row = total.step();
    if (!row) return fail(historyError(row.error()));
    return total.integer(0);
}

Result<void> NoteHistoryStore::applyRetention(qint64 nowMs) {
    auto limits = retention();
    if (!limits) return fail(limits.error());
    auto done = inTransaction([&]() -> Result<void> {
        {
            auto drop = statements_->dropOlder->use();
            Result<void> dropped = drop.bind(1, nowMs - qint64(limits->maximumAgeDays) * 24 * 60 * 60 * 1000);
            if (dropped) dropped = drop.run();
            if (!dropped) return fail(historyError(dropped.error()));
        }
        auto total = storedBytes();
        if (!total) return fail(total.error());
        if (*total <= limits->maximumBytes) return {};
        // Oldest first, until what is left fits.
        qint64 excess = *total - limits->maximumBytes;
        qint64 lastId = -1;
        {
            auto oldest = statements_->oldest->use();
            while (excess > 0) {
                auto row = oldest.step();
                if (!row) return fail(historyError(row.error()));
                if (!*row) break;
                lastId = oldest.integer(0);
                excess -= oldest.integer(1);
            }
        }
        auto drop = statements_->dropUpTo->use();
        Result<void> dropped = drop.bind(1, lastId);
        if (dropped) dropped = drop.run();
        return asHistoryError(dropped);
    });
    if (!done) return fail(done.error());
    return asHistoryError(db_->execute(QStringLiteral("PRAGMA incremental_vacuum")));
}

}  // namespace mossly
