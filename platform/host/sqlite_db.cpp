// SQLite plumbing for the persistent record store (sqlite_db.h): the pragma
// helpers, the statement cache and store transactions. The sqlite_db methods
// hold the connection's mutex, or require it held (sql).
#include "sqlite_db.h"

#include <cerrno>
#include <cstring>

#include "tiv_trace.h"

namespace tevhost {
namespace detail {

std::string describe(sqlite3* db, int rc) {
    return db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
}

namespace {

// The last errno of the database's log (the file a write most likely failed
// on), else of the database file, else the connection's last one; 0 if none.
int last_errno(sqlite3* db) {
    int err = 0;
    sqlite3_file* log = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log) == SQLITE_OK &&
        log != nullptr && log->pMethods != nullptr) {
        log->pMethods->xFileControl(log, SQLITE_FCNTL_LAST_ERRNO, &err);
    }
    if (err == 0) sqlite3_file_control(db, "main", SQLITE_FCNTL_LAST_ERRNO, &err);
    return err != 0 ? err : sqlite3_system_errno(db);
}

}  // namespace

std::string failure(sqlite3* db, int rc, const std::string& what) {
    const int err = (rc & 0xFF) == SQLITE_FULL || (rc & 0xFF) == SQLITE_IOERR ? last_errno(db) : 0;
    if ((rc & 0xFF) == SQLITE_FULL || err == ENOSPC || err == EDQUOT || err == EFBIG) {
        return "disk full while writing " + what +
               (err != 0 ? std::string(" (") + std::strerror(err) + ")" : std::string());
    }
    if (rc == SQLITE_ROW || rc == SQLITE_DONE) return "records missing in " + what;
    return describe(db, rc) + " (" + what + ")";
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

unsigned int sqlite_db::failed() {
    const char* file = sqlite3_db_filename(db_, "main");
    const std::string why =
        failure(db_, sqlite3_extended_errcode(db_), std::string("store ") + (file ? file : "?"));
    tivGENTrcPrintf(0, 0, 0, "host store: %s\n", why.c_str());
    return STORE_IO;
}

unsigned int sqlite_db::begin() {
    std::lock_guard<std::mutex> lock(mtx_);
    // Read-only: a read transaction, so that the scope reads one snapshot.
    if (!run(read_only_ ? kBeginRead : kBeginWrite)) return failed();
    outer_ = true;
    outer_failed_ = false;
    return 0;
}

unsigned int sqlite_db::commit() {
    std::lock_guard<std::mutex> lock(mtx_);
    if (!outer_) return STORE_IO;
    outer_ = false;
    if (!outer_failed_ && !sqlite3_get_autocommit(db_) && run(kCommit)) return 0;
    const unsigned int rc = outer_failed_ ? STORE_IO : failed();
    abandon();
    return rc;
}

void sqlite_db::rollback() {
    std::lock_guard<std::mutex> lock(mtx_);
    if (!outer_) return;
    outer_ = false;
    abandon();
}

sqlite3_stmt* sqlite_db::prepared(const char* text) {
    for (auto& entry : cache_) {
        if (entry.first == text) return entry.second;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        return nullptr;
    }
    cache_.emplace_back(text, stmt);
    return stmt;
}

query sqlite_db::sql(const char* text) {
    sqlite3_stmt* stmt = prepared(text);
    if (stmt == nullptr) throw db_failure{};
    return query(stmt);
}

bool sqlite_db::run(const char* text) {
    sqlite3_stmt* stmt = prepared(text);
    if (stmt == nullptr) return false;
    const bool done = sqlite3_step(stmt) == SQLITE_DONE;
    sqlite3_reset(stmt);
    return done;
}

}  // namespace detail
}  // namespace tevhost
