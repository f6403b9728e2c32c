// Opening the persistent record store: what a file is (classify), making a new
// record store file, opening read-only, and the online backup. New files are
// made beside their name and linked into place (safe_file.h). Each function
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
#include "safe_file.h"
#include "sqlite_db.h"

namespace tevhost {
namespace detail {
namespace {

constexpr int kBusyTimeoutMs = 10000;

// What an open database file is: a record store of this version, one of the
// versions before it (read as it is, migrated to write), an empty database
// that may become one, something else that SQLite read (another application's
// database, a record store of another version), or a file that could not be
// read at all (not a database, or its log cannot be shared).
enum class file_kind { ours, older, empty, foreign, unreadable };

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
    if (version >= kOldestSchemaVersion && version < kSchemaVersion) return file_kind::older;
    if (version != kSchemaVersion) {
        *error = "record store version " + std::to_string(version) + " is not supported (this is " +
                 std::to_string(kSchemaVersion) + ")";
        return file_kind::foreign;
    }
    return file_kind::ours;
}

// Makes an older version's store on `db` one of this version, in one
// transaction; another process may have done so first.
bool migrate(sqlite3* db, std::string* error) {
    long long version = 0;
    if (!exec(db, "BEGIN IMMEDIATE", error)) return false;
    const bool ok = pragma_int(db, "PRAGMA user_version", &version) &&
                    (version > 2 || exec(db, kMigrateFrom2, error)) &&
                    (version > 3 || exec(db, kMigrateFrom3, error)) &&
                    (version > 4 || exec(db, kMigrateFrom4, error)) && exec(db, "COMMIT", error);
    if (!ok) {
        if (error->empty()) *error = sqlite3_errmsg(db);
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    return ok;
}

// Readies an open connection to an existing file, which must be a record store
// of this version or an older one, which it migrates (nothing is written to any
// other file).
bool prepare_file(sqlite3* db, std::string* error) {
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    const file_kind kind = classify(db, error);
    if (kind == file_kind::empty) *error = "not a record store file";
    if (kind != file_kind::ours && kind != file_kind::older) return false;
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
           exec(db, "PRAGMA cache_size = -32768", error) &&
           (kind == file_kind::ours || migrate(db, error));
}

// Opens the temporary `file` with SQLite (never through a symbolic link, and
// only while its name is still that file's); null with *error set otherwise.
sqlite3* open_new_file(const new_file& file, const std::string& what, std::string* error) {
    sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(
        file.temp_path().c_str(), &db,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc == SQLITE_OK && file.still_named()) {
        sqlite3_extended_result_codes(db, 1);
        return db;
    }
    *error = rc == SQLITE_OK ? "the new file for " + what + " was replaced" : failure(db, rc, what);
    sqlite3_close(db);
    return nullptr;
}

// Makes a record store at `path`, where there was no file: the store is made
// whole in a temporary beside it and linked into place, so no process ever sees
// it half made. True also when another process placed one there first (open
// that one); false with *error set when it cannot.
bool create_store(const std::string& path, std::string* error) {
    const std::string what = "store " + path;
    new_file file(path);
    sqlite3* db = file.ok() ? open_new_file(file, what, error) : nullptr;
    if (db == nullptr) {
        if (!file.ok()) *error = file.error();
        return false;
    }
    const std::string schema = std::string("BEGIN;") + kCreateSchema +
                               "PRAGMA user_version = " + std::to_string(kSchemaVersion) +
                               "; PRAGMA application_id = " + std::to_string(kApplicationId) +
                               "; COMMIT";
    std::string mode;
    long long busy = 1;
    // Made in WAL mode and checkpointed, so the file alone holds it all.
    bool ok = pragma_text(db, "PRAGMA journal_mode = WAL", &mode) && mode == "wal" &&
              sqlite3_exec(db, schema.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK &&
              pragma_int(db, "PRAGMA wal_checkpoint(TRUNCATE)", &busy) && busy == 0;
    if (!ok) *error = failure(db, sqlite3_extended_errcode(db), what);
    if (sqlite3_close(db) != SQLITE_OK && ok) {
        ok = false;
        *error = "cannot close the new " + what;
    }
    if (!ok) return false;
    const int placed = file.place(error);
    return placed == 0 || placed == EEXIST;
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
            long long version = 0;
            if (kind == file_kind::ours ||
                (kind == file_kind::older && pragma_int(db, "PRAGMA user_version", &version) &&
                 (version != 2 || exec(db, kOldLists, error)) && exec(db, kOldRecords, error))) {
                return file_backend_on(db, true);
            }
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

// Opens an existing file (never creating one) as a record store to write.
std::unique_ptr<store_backend> open_read_write(const std::string& path, std::string* error) {
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        *error = describe(db, rc);
    } else if (sqlite3_db_readonly(db, "main") == 1) {
        sqlite3_close(db);
        return open_read_only(path, error);
    } else if (prepare_file(db, error)) {
        return file_backend_on(db, false);
    }
    sqlite3_close(db);
    return nullptr;
}

}  // namespace

std::unique_ptr<store_backend> make_file_backend(const std::string& path, std::string* error,
                                                 bool read_only) {
    std::string reason;
    std::unique_ptr<store_backend> opened;
    if (path.empty()) {
        reason = "empty path";
    } else if (read_only || !writable(path)) {
        opened = open_read_only(path, &reason);
    } else {
        // A missing file is made a store first, unless its name is a dangling link.
        reason = dangling_link(path);
        struct stat st;
        const bool missing = lstat(path.c_str(), &st) != 0 && errno == ENOENT;
        if (reason.empty() && (!missing || create_store(path, &reason))) {
            opened = open_read_write(path, &reason);
        }
    }
    if (!opened && error != nullptr) *error = reason;
    return opened;
}

// SQLite's online backup, in one step: it reads one snapshot (other processes
// go on writing meanwhile) into a new file beside the target, which is linked
// into place once complete.
bool backup_database(sqlite3* db, const std::string& path, std::string* error) {
    struct stat st;
    if (path.empty() || lstat(path.c_str(), &st) == 0) {
        *error = path.empty() ? "empty path" : path + " exists; name a new file";
        return false;
    }
    const std::string what = "backup " + path;
    new_file file(path);
    sqlite3* dst = file.ok() ? open_new_file(file, what, error) : nullptr;
    if (dst == nullptr) {
        if (!file.ok()) *error = file.error();
        return false;
    }
    int rc = SQLITE_OK;
    sqlite3_backup* b = sqlite3_backup_init(dst, "main", db, "main");
    if (b == nullptr) {
        rc = sqlite3_extended_errcode(dst);
    } else {
        rc = sqlite3_backup_step(b, -1);
        rc = rc == SQLITE_DONE ? sqlite3_backup_finish(b) : (sqlite3_backup_finish(b), rc);
    }
    if (rc == SQLITE_OK) {
        // The copy is left as one file in the ordinary journal mode.
        rc = sqlite3_exec(dst, "PRAGMA journal_mode = DELETE", nullptr, nullptr, nullptr);
    }
    std::string reason = rc == SQLITE_OK ? "" : failure(dst, rc, what);
    if (sqlite3_close(dst) != SQLITE_OK && rc == SQLITE_OK) {
        rc = SQLITE_ERROR;
        reason = "cannot close the copy";
    }
    if (rc == SQLITE_OK) {
        const int placed = file.place(&reason);
        if (placed == EEXIST) reason = path + " exists; name a new file";
        if (placed == 0) return true;
    }
    *error = reason;
    return false;
}

}  // namespace detail
}  // namespace tevhost
