// SQLite plumbing for the persistent record store (sqlite_db.h): the pragma
// helpers, the statement cache and store transactions. The sqlite_db methods
// hold the connection's mutex, or require it held (sql).
#include "sqlite_db.h"

namespace tevhost {
namespace detail {

std::string describe(sqlite3* db, int rc) {
    return db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
}

bool exec(sqlite3* db, const std::string& text, std::string* error) {
    if (sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    *error = sqlite3_errmsg(db);
    return false;
}

namespace {

// Runs `text` and hands its first row to `read`; false when there is none.
template <typename Read>
bool first_row(sqlite3* db, const char* text, Read read) {
    sqlite3_stmt* stmt = nullptr;
    const bool ok = sqlite3_prepare_v2(db, text, -1, &stmt, nullptr) == SQLITE_OK &&
                    sqlite3_step(stmt) == SQLITE_ROW;
    if (ok) read(stmt);
    sqlite3_finalize(stmt);
    return ok;
}

}  // namespace

bool pragma_int(sqlite3* db, const char* text, long long* value) {
    return first_row(db, text, [&](sqlite3_stmt* stmt) { *value = sqlite3_column_int64(stmt, 0); });
}

bool pragma_text(sqlite3* db, const char* text, std::string* value) {
    return first_row(db, text, [&](sqlite3_stmt* stmt) {
        const unsigned char* t = sqlite3_column_text(stmt, 0);
        *value = t != nullptr ? reinterpret_cast<const char*>(t) : "";
    });
}

sqlite_db::~sqlite_db() {
    for (auto& entry : cache_) sqlite3_finalize(entry.second);
    sqlite3_close(db_);
}

unsigned int sqlite_db::begin() {
    std::lock_guard<std::mutex> lock(mtx_);
    // Read-only: a read transaction, so that the scope reads one snapshot.
    if (!run(read_only_ ? "BEGIN" : "BEGIN IMMEDIATE")) return STORE_IO;
    outer_ = true;
    outer_failed_ = false;
    return 0;
}

unsigned int sqlite_db::commit() {
    std::lock_guard<std::mutex> lock(mtx_);
    if (!outer_) return STORE_IO;
    outer_ = false;
    if (!outer_failed_ && !sqlite3_get_autocommit(db_) && run("COMMIT")) return 0;
    abandon();
    return STORE_IO;
}

void sqlite_db::rollback() {
    std::lock_guard<std::mutex> lock(mtx_);
    if (!outer_) return;
    outer_ = false;
    abandon();
}

query sqlite_db::sql(const char* text) {
    for (auto& entry : cache_) {
        if (entry.first == text) return query(entry.second);
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        throw db_failure{};
    }
    cache_.emplace_back(text, stmt);
    return query(stmt);
}

}  // namespace detail
}  // namespace tevhost
