#include "SqliteDatabase.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>

namespace mossly {

namespace {
Error sqliteError(sqlite3* db) { return Error::catalogUnavailable(QString::fromUtf8(sqlite3_errmsg(db))); }
}  // namespace

SqliteStatement::~SqliteStatement() { sqlite3_finalize(statement_); }

SqliteStatement::Use::~Use() {
    sqlite3_reset(s_.statement_);
    sqlite3_clear_bindings(s_.statement_);
}

Result<void> SqliteStatement::Use::check(int code) {
    if (code != SQLITE_OK) return fail(sqliteError(s_.db_));
    return {};
}

Result<void> SqliteStatement::Use::bind(int index, const QString& text) { return bind(index, text.toUtf8()); }

Result<void> SqliteStatement::Use::bind(int index, const QByteArray& utf8Text) {
    return check(sqlite3_bind_text(s_.statement_, index, utf8Text.constData(), static_cast<int>(utf8Text.size()),
                                   SQLITE_TRANSIENT));
}

Result<void> SqliteStatement::Use::bind(int index, std::optional<QString> text) {
    if (!text) return check(sqlite3_bind_null(s_.statement_, index));
    return bind(index, *text);
}

Result<void> SqliteStatement::Use::bind(int index, double value) {
    return check(sqlite3_bind_double(s_.statement_, index, value));
}

Result<void> SqliteStatement::Use::bind(int index, qint64 value) {
    return check(sqlite3_bind_int64(s_.statement_, index, value));
}

Result<void> SqliteStatement::Use::bindBlob(int index, const QByteArray& bytes) {
    return check(sqlite3_bind_blob(s_.statement_, index, bytes.constData(), static_cast<int>(bytes.size()),
                                   SQLITE_TRANSIENT));
}

Result<bool> SqliteStatement::Use::step() {
    const int code = sqlite3_step(s_.statement_);
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    return fail(sqliteError(s_.db_));
}

Result<void> SqliteStatement::Use::run() {
    for (;;) {
        auto row = step();
        if (!row) return fail(row.error());
        if (!*row) return {};
    }
}

QByteArray SqliteStatement::Use::utf8(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s_.statement_, column));
    return QByteArray(text ? text : "", sqlite3_column_bytes(s_.statement_, column));
}

QString SqliteStatement::Use::text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s_.statement_, column));
    return QString::fromUtf8(text, sqlite3_column_bytes(s_.statement_, column));
}

std::optional<QString> SqliteStatement::Use::optionalText(int column) const {
    if (sqlite3_column_type(s_.statement_, column) == SQLITE_NULL) return std::nullopt;
    return text(column);
}

double SqliteStatement::Use::real(int column) const { return sqlite3_column_double(s_.statement_, column); }

qint64 SqliteStatement::Use::integer(int column) const { return sqlite3_column_int64(s_.statement_, column); }

QByteArray SqliteStatement::Use::blob(int column) const {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(s_.statement_, column));
    return QByteArray(data, sqlite3_column_bytes(s_.statement_, column));
}

qint64 SqliteStatement::Use::changes() const { return sqlite3_changes64(s_.db_); }

qint64 SqliteStatement::Use::lastInsertRowid() const { return sqlite3_last_insert_rowid(s_.db_); }

Result<std::unique_ptr<SqliteDatabase>> SqliteDatabase::open(const QString& path) {
    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.toUtf8().constData(), &db, flags, nullptr) != SQLITE_OK) {
        sqlite3_close_v2(db);
        return fail(Error::catalogUnavailable(QStringLiteral("Could not open ") + path));
    }
    sqlite3_extended_result_codes(db, 1);
    // Wait for other processes from the very first statement: switching a new
    // file to WAL while another process creates it would otherwise fail at once.
    sqlite3_busy_timeout(db, 5000);
    return std::unique_ptr<SqliteDatabase>(new SqliteDatabase(db));
}

SqliteDatabase::~SqliteDatabase() { sqlite3_close_v2(db_); }

Result<void> SqliteDatabase::execute(const QString& sql) {
    auto statement = prepare(sql);
    if (!statement) return fail(statement.error());
    return (*statement)->use().run();
}

Result<void> SqliteDatabase::executeRetryingWhileBusy(const QString& sql, int timeoutMs) {
    const QByteArray utf8 = sql.toUtf8();
    constexpr int pauseMs = 5;
    for (int waited = 0;; waited += pauseMs) {
        const int code = sqlite3_exec(db_, utf8.constData(), nullptr, nullptr, nullptr);
        if (code == SQLITE_OK) return {};
        if ((code & 0xff) != SQLITE_BUSY || waited >= timeoutMs) return fail(sqliteError(db_));
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    }
}

Result<std::unique_ptr<SqliteStatement>> SqliteDatabase::prepare(const QString& sql) {
    sqlite3_stmt* statement = nullptr;
    const QByteArray utf8 = sql.toUtf8();
    if (sqlite3_prepare_v2(db_, utf8.constData(), static_cast<int>(utf8.size()), &statement, nullptr) != SQLITE_OK) {
        return fail(sqliteError(db_));
    }
    return std::make_unique<SqliteStatement>(db_, statement);
}

QString SqliteDatabase::lastErrorMessage() const { return QString::fromUtf8(sqlite3_errmsg(db_)); }

}  // namespace mossly
