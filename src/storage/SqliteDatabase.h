#pragma once

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>

#include "Error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace mossly {

// A prepared statement, prepared once and reused: every use binds, steps and
// is reset by `Use`'s destructor. Every SQLite return code is checked and
// turned into the catalog's `unavailable` error with SQLite's own message.
class SqliteStatement {
public:
    SqliteStatement(sqlite3* db, sqlite3_stmt* statement) : db_(db), statement_(statement) {}
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;
    ~SqliteStatement();

    // One execution of the statement. Resets and clears bindings when it ends.
    class Use {
    public:
        explicit Use(SqliteStatement& statement) : s_(statement) {}
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use();

        // Text is bound as a transient copy.
        Result<void> bind(int index, const QString& text);
        Result<void> bind(int index, const QByteArray& utf8Text);
        Result<void> bind(int index, std::optional<QString> text);
        Result<void> bind(int index, double value);
        Result<void> bind(int index, qint64 value);
        Result<void> bindBlob(int index, const QByteArray& bytes);

        // true: a row is ready; false: done.
        Result<bool> step();
        // Steps to completion; fails unless the statement ends in SQLITE_DONE.
        Result<void> run();

        QString text(int column) const;
        QByteArray utf8(int column) const;
        std::optional<QString> optionalText(int column) const;
        double real(int column) const;
        qint64 integer(int column) const;
        QByteArray blob(int column) const;
        // Rows changed by the last completed INSERT, UPDATE or DELETE on this connection.
        qint64 changes() const;
        qint64 lastInsertRowid() const;

    private:
        Result<void> check(int code);
        SqliteStatement& s_;
    };

    Use use() { return Use(*this); }

private:
    sqlite3* db_;
    sqlite3_stmt* statement_;
};

// An open SQLite connection; closed when destroyed or by `close()`.
class SqliteDatabase {
public:
    static Result<std::unique_ptr<SqliteDatabase>> open(const QString& path);
    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;
    ~SqliteDatabase();

    // Runs one statement without results (pragmas, schema, transactions).
    Result<void> execute(const QString& sql);
    // As `execute`, retrying for up to `timeoutMs` while the database is busy. For
    // statements SQLite does not hand to the busy handler, such as switching the
    // journal mode while another process opens the same new file.
    Result<void> executeRetryingWhileBusy(const QString& sql, int timeoutMs);
    Result<std::unique_ptr<SqliteStatement>> prepare(const QString& sql);
    QString lastErrorMessage() const;
    sqlite3* handle() const { return db_; }

private:
    explicit SqliteDatabase(sqlite3* db) : db_(db) {}
    sqlite3* db_;
};

}  // namespace mossly
