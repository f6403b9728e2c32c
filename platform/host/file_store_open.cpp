// Opening the persistent record store: what a file is (classify), making a new
// file a record store, opening read-only, and the online backup. Each function
// works on a connection of its own (or one its caller keeps to itself), so any
// thread may open a store.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "file_store.h"
#include "sqlite_db.h"

namespace tevhost {
namespace detail {
namespace {

constexpr int kBusyTimeoutMs = 10000;

// What an open database file is: a record store of this version, an empty
// database that may become one, something else that SQLite read (another
// application's database, a record store of another version), or a file that
// could not be read at all (not a database, or its log cannot be shared).
enum class file_kind { ours, empty, foreign, unreadable };

// *error says why for foreign and unreadable.
file_kind classify(sqlite3* db, std::string* error) {
    long long app = 0, version = 0, tables = 0;
    if (!pragma_int(db, "PRAGMA application_id", &app) ||
        !pragma_int(db, "PRAGMA user_version", &version) ||
        !pragma_int(db, "SELECT count(*) FROM sqlite_master", &tables)) {
        *error = describe(db, SQLITE_ERROR);
        return file_kind::unreadable;
    }
    if (app == 0 && version == 0 && tables == 0) return file_kind::empty;
    if (app != kApplicationId) {
        *error = "not a record store file";
        return file_kind::foreign;
    }
    if (version != kSchemaVersion) {
        *error = "record store version " + std::to_string(version) + " is not supported (this is " +
                 std::to_string(kSchemaVersion) + ")";
        return file_kind::foreign;
    }
    return file_kind::ours;
}

// Makes the file a record store unless another process did so meanwhile.
bool create_schema(sqlite3* db, std::string* error) {
    if (!exec(db, "BEGIN IMMEDIATE", error)) return false;
    bool ok = true;
    switch (classify(db, error)) {
        case file_kind::ours: break;
        case file_kind::foreign:
        case file_kind::unreadable: ok = false; break;
        case file_kind::empty:
            ok = exec(db, kCreateSchema, error) &&
                 exec(db, "PRAGMA user_version = " + std::to_string(kSchemaVersion), error) &&
                 exec(db, "PRAGMA application_id = " + std::to_string(kApplicationId), error);
            break;
    }
    if (ok) ok = exec(db, "COMMIT", error);
    if (!ok && !sqlite3_get_autocommit(db)) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return ok;
}

bool prepare_file(sqlite3* db, std::string* error) {
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    // Look before changing anything: a file of another kind is left as it is.
    const file_kind kind = classify(db, error);
    if (kind == file_kind::foreign || kind == file_kind::unreadable) return false;
    std::string mode;
    if (!pragma_text(db, "PRAGMA journal_mode = WAL", &mode)) {
        *error = sqlite3_errmsg(db);
        return false;
    }
    if (mode != "wal") {
        *error = "cannot use write-ahead logging (journal mode " + mode + ")";
        return false;
    }
    // In WAL mode NORMAL keeps every committed operation across a crash of the
    // process; only a power loss may lose the last ones.
    // A page cache of up to 32 MiB keeps the indexes of a job with 100k children
    // in memory through a command (SQLite's default is 2 MiB).
    return exec(db, "PRAGMA synchronous = NORMAL", error) &&
           exec(db, "PRAGMA cache_size = -32768", error) && create_schema(db, error);
}

// `path` as an SQLite URI (file:...), for opening with parameters.
std::string uri_of(const std::string& path) {
    std::string out = "file:";
    for (char c : path) {
        if (c == '?' || c == '#' || c == '%') {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(c));
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

// Opens an existing record store without writing anything to it. A store
// whose write-ahead log cannot be shared (no -shm file and a directory this
// user may not write to) can have no writer either, and is read as immutable.
std::unique_ptr<store_backend> open_read_only(const std::string& path, std::string* error) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        *error = "unable to open database file (" + std::string(std::strerror(errno)) + ")";
        return nullptr;
    }
    for (const char* params : {"?mode=ro", "?mode=ro&immutable=1"}) {
        sqlite3* db = nullptr;
        const int rc =
            sqlite3_open_v2((uri_of(path) + params).c_str(), &db,
                            SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
        file_kind kind = file_kind::unreadable;
        if (rc == SQLITE_OK) {
            sqlite3_extended_result_codes(db, 1);
            sqlite3_busy_timeout(db, kBusyTimeoutMs);
            kind = classify(db, error);
            if (kind == file_kind::ours) return file_backend_on(db, true);
            if (kind == file_kind::empty) *error = "not a record store file";
        } else {
            *error = describe(db, rc);
        }
        sqlite3_close(db);
        // Only a file that could not be read may read as immutable.
        const bool wal_unshared =
            stat((path + "-wal").c_str(), &st) != 0 && stat((path + "-shm").c_str(), &st) != 0;
        if (kind != file_kind::unreadable || !wal_unshared) break;
    }
    return nullptr;
}

// Whether this user may change `path` and make files beside it (the log).
bool writable(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : path.substr(0, slash);
    if (access(dir.c_str(), W_OK) != 0 && errno != ENOENT) return false;
    return access(path.c_str(), W_OK) == 0 || errno == ENOENT;
}

}  // namespace

std::unique_ptr<store_backend> make_file_backend(const std::string& path, std::string* error,
                                                 bool read_only) {
    std::string reason;
    if (path.empty()) {
        reason = "empty path";
    } else if (read_only || !writable(path)) {
        std::unique_ptr<store_backend> opened = open_read_only(path, &reason);
        if (opened) return opened;
    } else {
        sqlite3* db = nullptr;
        const int rc = sqlite3_open_v2(
            path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
            nullptr);
        if (rc != SQLITE_OK) {
            reason = describe(db, rc);
        } else if (sqlite3_db_readonly(db, "main") == 1) {
            sqlite3_close(db);
            db = nullptr;
            std::unique_ptr<store_backend> opened = open_read_only(path, &reason);
            if (opened) return opened;
        } else if (prepare_file(db, &reason)) {
            return file_backend_on(db, false);
        }
        sqlite3_close(db);
    }
    if (error != nullptr) *error = reason;
    return nullptr;
}

// SQLite's online backup, in one step: it reads one snapshot (other processes
// go on writing meanwhile) into a new file beside the target, which is renamed
// into place once complete.
bool backup_database(sqlite3* db, const std::string& path, std::string* error) {
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st) == 0) {
        *error = path.empty() ? "empty path" : path + " exists; name a new file";
        return false;
    }
    const std::string part = path + ".part";
    sqlite3* dst = nullptr;
    int rc = sqlite3_open_v2(
        part.c_str(), &dst,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE | SQLITE_OPEN_NOMUTEX,
        nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_backup* b = sqlite3_backup_init(dst, "main", db, "main");
        if (b == nullptr) {
            rc = sqlite3_errcode(dst);
        } else {
            rc = sqlite3_backup_step(b, -1);
            rc = rc == SQLITE_DONE ? sqlite3_backup_finish(b) : (sqlite3_backup_finish(b), rc);
        }
    }
    if (rc == SQLITE_OK) {
        // The copy is left as one file in the ordinary journal mode.
        rc = sqlite3_exec(dst, "PRAGMA journal_mode = DELETE", nullptr, nullptr, nullptr);
    }
    std::string reason = rc == SQLITE_OK ? "" : describe(dst, rc);
    if (sqlite3_close(dst) != SQLITE_OK && rc == SQLITE_OK) {
        rc = SQLITE_ERROR;
        reason = "cannot close the copy";
    }
    if (rc == SQLITE_OK && std::rename(part.c_str(), path.c_str()) != 0) {
        rc = SQLITE_ERROR;
        reason = std::string("cannot rename the copy: ") + std::strerror(errno);
    }
    if (rc == SQLITE_OK) return true;
    std::remove(part.c_str());
    *error = reason;
    return false;
}

}  // namespace detail
}  // namespace tevhost
