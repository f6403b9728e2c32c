// SQLite plumbing for the persistent record store: one connection with its
// cache of prepared statements, statements held as RAII queries, the
// transactions store calls run in, and pragma helpers.
// A sqlite_db is safe for concurrent use: every use of the connection holds
// its mutex (the connection itself is opened without SQLite's own locking).
#ifndef TEVASH_HOST_SQLITE_DB_H
#define TEVASH_HOST_SQLITE_DB_H

#include <sqlite3.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/tev_host.h"

namespace tevhost {
namespace detail {

// What SQLite says went wrong: the connection's message, else that of `rc`.
std::string describe(sqlite3* db, int rc);
// Why a call on `db` failed with `rc`, naming `what` ("store <path>"): "disk
// full while writing <what>" when the disk (or the process's file size limit)
// is full, else SQLite's message followed by `what` in parentheses.
std::string failure(sqlite3* db, int rc, const std::string& what);
// Runs `text`; false with *error set when it fails.
bool exec(sqlite3* db, const std::string& text, std::string* error);
// The first column of the first row of `text` (a pragma or a query); false
// when it cannot be read.
bool pragma_int(sqlite3* db, const char* text, long long* value);
bool pragma_text(sqlite3* db, const char* text, std::string* value);

// A failed SQLite call inside a store call; its transaction is rolled back.
struct db_failure {};

// One prepared statement, reset and unbound when the holder goes away. Every
// failure throws db_failure.
class query {
public:
    explicit query(sqlite3_stmt* stmt) : stmt_(stmt) {}
    ~query() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    query(const query&) = delete;
    query& operator=(const query&) = delete;

    query& bind(int index, long long value) {
        check(sqlite3_bind_int64(stmt_, index, value));
        return *this;
    }
    query& bind_text(int index, const char* text) {
        check(sqlite3_bind_text(stmt_, index, text, -1, SQLITE_STATIC));
        return *this;
    }
    query& bind_blob(int index, const unsigned char* bytes, unsigned int size) {
        // The bytes outlive the query: bound where they are.
        check(sqlite3_bind_blob(stmt_, index, bytes, static_cast<int>(size), SQLITE_STATIC));
        return *this;
    }
    // True while a row is available.
    bool step() {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw db_failure{};
    }
    void run() {
        while (step()) {
        }
    }
    // Runs a statement that returns no rows; false when it fails with the
    // extended code `expected` (a constraint it may meet; it then changed
    // nothing only if it changes at most one row).
    bool run_unless(int expected) {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_DONE) return true;
        if (rc == expected || sqlite3_extended_errcode(sqlite3_db_handle(stmt_)) == expected) {
            return false;
        }
        throw db_failure{};
    }
    long long integer(int column) const { return sqlite3_column_int64(stmt_, column); }
    bool is_null(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
    unsigned long long count(int column) const {
        return static_cast<unsigned long long>(integer(column));
    }
    // The column's bytes; valid until the next step or the end of the query.
    const unsigned char* blob(int column, unsigned int* size) const {
        const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(stmt_, column));
        const int n = sqlite3_column_bytes(stmt_, column);
        *size = data == nullptr || n <= 0 ? 0 : static_cast<unsigned int>(n);
        return data;
    }

private:
    void check(int rc) const {
        if (rc != SQLITE_OK) throw db_failure{};
    }

    sqlite3_stmt* stmt_;
};

// One open connection, owned. A store call runs in transact() or single(); a
// store transaction spans begin() to commit() or rollback(), and the calls made
// meanwhile join it. The statements that begin and end transactions are
// prepared once, like every other.
class sqlite_db {
public:
    // Takes `db`, which is open and prepared.
    sqlite_db(sqlite3* db, bool read_only) : db_(db), read_only_(read_only) {}
    ~sqlite_db();
    sqlite_db(const sqlite_db&) = delete;
    sqlite_db& operator=(const sqlite_db&) = delete;

    bool read_only() const { return read_only_; }

    // Runs `body` (returning 0 or a STORE_* code) in one transaction, a write
    // one when `writes`, and commits when it returns 0; rolls back on a store
    // failure code or a db_failure (then STORE_IO). STORE_READ_ONLY for a write
    // on a read-only store. Inside an open store transaction the body joins
    // it; a body that fails after changing something cannot be undone alone,
    // so it fails the store transaction (see joined).
    template <typename Body>
    unsigned int transact(bool writes, Body body) {
        std::lock_guard<std::mutex> lock(mtx_);
        if (writes && read_only_) return STORE_READ_ONLY;
        if (outer_) return joined(body);
        if (!run(writes ? kBeginWrite : kBeginRead)) return failed();
        unsigned int rc = guarded(body);
        if (rc == 0 && run(kCommit)) return 0;
        if (rc == 0) rc = failed();
        abandon();
        return rc;
    }

    // As transact, for a body whose changes are one statement, which SQLite
    // makes all or nothing by itself: no transaction is opened around it. The
    // body may read after that statement only to choose its result code.
    template <typename Body>
    unsigned int single(bool writes, Body body) {
        std::lock_guard<std::mutex> lock(mtx_);
        if (writes && read_only_) return STORE_READ_ONLY;
        return outer_ ? joined(body) : guarded(body);
    }

    // Whether a store transaction that may write is open (then no other
    // process changes the file until it ends).
    bool in_write_transaction() const { return outer_ && !read_only_; }
    // The rows the last statement inserted, changed or deleted. REQUIRES:
    // inside a body.
    int changes() const { return sqlite3_changes(db_); }
    // The row id of the last row inserted. REQUIRES: inside a body.
    long long last_insert_rowid() const { return sqlite3_last_insert_rowid(db_); }

    // A store transaction (store_backend::begin, commit, rollback).
    unsigned int begin();
    unsigned int commit();
    void rollback();

    // A statement of the cache. REQUIRES: inside a body. `text` is a string
    // literal (its address keys the cache).
    query sql(const char* text);

    // Runs `fn(connection)` with the connection to itself.
    template <typename Fn>
    auto with_connection(Fn fn) {
        std::lock_guard<std::mutex> lock(mtx_);
        return fn(db_);
    }

private:
    static constexpr const char kBeginRead[] = "BEGIN";
    static constexpr const char kBeginWrite[] = "BEGIN IMMEDIATE";
    static constexpr const char kCommit[] = "COMMIT";
    static constexpr const char kRollback[] = "ROLLBACK";

    // A call inside the store transaction. A failed call that changed nothing
    // leaves the transaction as it was; one that changed something (only an
    // SQLite error partway through several statements does) fails it: its
    // later calls fail with STORE_IO and commit rolls everything back. So a
    // failed call never leaves a change behind, without a savepoint per call.
    template <typename Body>
    unsigned int joined(Body& body) {
        // SQLite rolls a transaction back by itself on some errors: then the
        // calls must not go on outside it.
        if (outer_failed_ || sqlite3_get_autocommit(db_)) return STORE_IO;
        const long long before = sqlite3_total_changes64(db_);
        const unsigned int rc = guarded(body);
        if (rc != 0 && (sqlite3_total_changes64(db_) != before || sqlite3_get_autocommit(db_))) {
            outer_failed_ = true;
        }
        return rc;
    }
    template <typename Body>
    unsigned int guarded(Body& body) {
        try {
            return body();
        } catch (const db_failure&) {
            return failed();
        }
    }
    // Writes a trace line saying why the last SQLite call failed; STORE_IO.
    unsigned int failed();
    // The cached statement for `text`, prepared on first use; null when it
    // cannot be prepared.
    sqlite3_stmt* prepared(const char* text);
    // Runs the statement `text` of the cache; false when it fails.
    bool run(const char* text);
    // Rolls back the open transaction, if SQLite has not already.
    void abandon() {
        if (!sqlite3_get_autocommit(db_)) run(kRollback);
    }

    std::mutex mtx_;
    sqlite3* const db_;
    const bool read_only_;
    bool outer_ = false;         // a store transaction is open
    bool outer_failed_ = false;  // and cannot be committed
    std::vector<std::pair<const char*, sqlite3_stmt*>> cache_;
};

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_SQLITE_DB_H
