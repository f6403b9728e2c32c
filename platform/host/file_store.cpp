// The persistent record store backend: one SQLite database file in WAL mode.
//
// Every store operation is one transaction (BEGIN IMMEDIATE when it writes), so
// a process killed at any point leaves the file at the last committed operation.
// Several processes may share one file: the busy timeout makes a writer wait for
// another's transaction. Within a process one connection serves every thread
// under a mutex. Out-values are written only after the transaction committed.
//
// Layout (PRAGMA user_version 2, PRAGMA application_id 'TEVS'):
//   meta(key, value)            next_id: the first id not handed out yet
//   records(id, category, parent, slot, category_slot)
//                               parent 0 when unlinked; slot orders a parent's
//                               children, category_slot those of one category
//   lists(parent, category, used, live, top, skipped, head)
//                               one per parent with children (category 0) and
//                               per category among them: its order_state
//   holes(parent, category, node, count)
//                               its nodes that count a hole (others are 0)
//   members(record, member, kind, value)
//                               the stored bytes of one member (their length is
//                               the member's width) and its member_kind
// Link order is kept as described at order_state (store_backend.h): the
// child at an order, a child count and a parent each cost O(log n) index reads.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store_backend.h"

namespace tevhost {
namespace detail {
namespace {

constexpr int kSchemaVersion = 2;
constexpr int kApplicationId = 0x54455653;  // "TEVS"
constexpr int kBusyTimeoutMs = 10000;

const char* const kCreateSchema =
    "CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "INSERT INTO meta VALUES('next_id', 1);"
    "CREATE TABLE records(id INTEGER PRIMARY KEY, category INTEGER NOT NULL,"
    " parent INTEGER NOT NULL DEFAULT 0, slot INTEGER NOT NULL DEFAULT 0,"
    " category_slot INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX records_by_slot ON records(parent, slot);"
    "CREATE INDEX records_by_category_slot ON records(parent, category, category_slot);"
    "CREATE TABLE lists(parent INTEGER NOT NULL, category INTEGER NOT NULL,"
    " used INTEGER NOT NULL, live INTEGER NOT NULL, top INTEGER NOT NULL,"
    " skipped INTEGER NOT NULL, head INTEGER NOT NULL,"
    " PRIMARY KEY(parent, category)) WITHOUT ROWID;"
    "CREATE TABLE holes(parent INTEGER NOT NULL, category INTEGER NOT NULL,"
    " node INTEGER NOT NULL, count INTEGER NOT NULL,"
    " PRIMARY KEY(parent, category, node)) WITHOUT ROWID;"
    "CREATE TABLE members(record INTEGER NOT NULL, member INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, value BLOB NOT NULL, PRIMARY KEY(record, member)) WITHOUT ROWID;";

member_kind kind_of(long long stored) {
    return stored >= 0 && stored <= static_cast<long long>(member_kind::bytes)
               ? static_cast<member_kind>(stored)
               : member_kind::bytes;
}

std::string describe(sqlite3* db, int rc) {
    return db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
}

// A failed SQLite call inside an operation; the transaction is rolled back.
struct db_failure {};

// One prepared statement, reset and unbound when the holder goes away.
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
        check(sqlite3_bind_blob(stmt_, index, bytes, static_cast<int>(size), SQLITE_TRANSIENT));
        return *this;
    }
    // True while a row is available.
    bool step() {
        int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw db_failure{};
    }
    void run() {
        while (step()) {
        }
    }
    long long integer(int column) const { return sqlite3_column_int64(stmt_, column); }
    std::vector<unsigned char> blob(int column) const {
        const auto* data = static_cast<const unsigned char*>(sqlite3_column_blob(stmt_, column));
        int size = sqlite3_column_bytes(stmt_, column);
        if (data == nullptr || size <= 0) return {};
        return std::vector<unsigned char>(data, data + size);
    }

private:
    void check(int rc) const {
        if (rc != SQLITE_OK) throw db_failure{};
    }

    sqlite3_stmt* stmt_;
};

struct record_row {
    unsigned int category;
    unsigned int parent;
    long long slot;
    long long category_slot;
};

class file_backend final : public store_backend {
public:
    file_backend(sqlite3* db, bool read_only) : db_(db), read_only_(read_only) {}
    ~file_backend() override {
        for (auto& entry : cache_) sqlite3_finalize(entry.second);
        sqlite3_close(db_);
    }
    file_backend(const file_backend&) = delete;
    file_backend& operator=(const file_backend&) = delete;

    unsigned int make(unsigned int category, unsigned int* handler_id) override {
        if (category == 0) return STORE_BAD_CATEGORY;
        unsigned int id = 0;
        unsigned int rc = write([&] {
            id = new_record(category);
            return id == 0 ? STORE_IO : 0u;
        });
        if (rc == 0) *handler_id = id;
        return rc;
    }

    unsigned int make_and_copy(unsigned int category, unsigned int src_handler_id,
                               unsigned int* handler_id) override {
        if (category == 0) return STORE_BAD_CATEGORY;
        unsigned int id = 0;
        unsigned int rc = write([&] {
            record_row src;
            if (!find(src_handler_id, &src)) return STORE_NO_RECORD;
            id = new_record(category);
            if (id == 0) return STORE_IO;
            copy_members(src_handler_id, id);
            return 0u;
        });
        if (rc == 0) *handler_id = id;
        return rc;
    }

    unsigned int copy(unsigned int src_handler_id, unsigned int dst_handler_id) override {
        return write([&] {
            record_row row;
            if (!find(src_handler_id, &row) || !find(dst_handler_id, &row)) {
                return STORE_NO_RECORD;
            }
            if (src_handler_id != dst_handler_id) {
                sql("DELETE FROM members WHERE record = ?").bind(1, dst_handler_id).run();
                copy_members(src_handler_id, dst_handler_id);
            }
            return 0u;
        });
    }

    unsigned int init(unsigned int handler_id) override {
        return write([&] {
            record_row row;
            if (!find(handler_id, &row)) return STORE_NO_RECORD;
            sql("DELETE FROM members WHERE record = ?").bind(1, handler_id).run();
            return 0u;
        });
    }

    unsigned int remove(unsigned int handler_id) override {
        return write([&] {
            record_row row;
            if (!find(handler_id, &row)) return STORE_NO_RECORD;
            if (row.parent != 0) unlink(handler_id, row);
            sql("DELETE FROM members WHERE record = ?").bind(1, handler_id).run();
            sql("UPDATE records SET parent = 0, slot = 0, category_slot = 0 WHERE parent = ?")
                .bind(1, handler_id)
                .run();
            sql("DELETE FROM lists WHERE parent = ?").bind(1, handler_id).run();
            sql("DELETE FROM holes WHERE parent = ?").bind(1, handler_id).run();
            sql("DELETE FROM records WHERE id = ?").bind(1, handler_id).run();
            return 0u;
        });
    }

    unsigned int set_link(unsigned int parent_category, unsigned int parent_handler_id,
                          unsigned int child_category, unsigned int child_handler_id) override {
        return write([&] {
            record_row parent, child;
            if (!find(parent_handler_id, &parent) || !find(child_handler_id, &child)) {
                return STORE_NO_RECORD;
            }
            if (parent.category != parent_category || child.category != child_category) {
                return STORE_BAD_CATEGORY;
            }
            if (child.parent != 0) return STORE_HAS_PARENT;
            // The child may not be the parent or one of its ancestors.
            record_row up = parent;
            for (unsigned int id = parent_handler_id; id != 0; id = up.parent) {
                if (id == child_handler_id) return STORE_CYCLE;
                if (!find(id, &up)) break;
            }
            const long long slot = append(parent_handler_id, 0);
            const long long category_slot = append(parent_handler_id, child_category);
            sql("UPDATE records SET parent = ?, slot = ?, category_slot = ? WHERE id = ?")
                .bind(1, parent_handler_id)
                .bind(2, slot)
                .bind(3, category_slot)
                .bind(4, child_handler_id)
                .run();
            return 0u;
        });
    }

    unsigned int delete_link(unsigned int category, unsigned int handler_id) override {
        return write([&] {
            record_row row;
            if (!find(handler_id, &row)) return STORE_NO_RECORD;
            if (row.category != category) return STORE_BAD_CATEGORY;
            if (row.parent == 0) return STORE_NO_LINK;
            unlink(handler_id, row);
            return 0u;
        });
    }

    unsigned int child(unsigned int parent_category, unsigned int parent_handler_id,
                       unsigned int child_category, unsigned int order,
                       unsigned int* child_handler_id) override {
        unsigned int found = 0;
        unsigned int rc = read([&] {
            record_row parent;
            if (!find(parent_handler_id, &parent)) return STORE_NO_RECORD;
            if (parent.category != parent_category) return STORE_BAD_CATEGORY;
            const order_state list = load_list(parent_handler_id, child_category);
            if (order >= list.live) return STORE_NO_LINK;
            query q = sql(
                "SELECT id FROM records WHERE parent = ? AND category = ? AND category_slot = ?");
            q.bind(1, parent_handler_id)
                .bind(2, child_category)
                .bind(3, slot_of(parent_handler_id, child_category, list, order));
            if (!q.step()) throw db_failure{};
            found = static_cast<unsigned int>(q.integer(0));
            return 0u;
        });
        if (rc == 0) *child_handler_id = found;
        return rc;
    }

    unsigned int child_count(unsigned int parent_category, unsigned int parent_handler_id,
                             unsigned int child_category, unsigned int* count) override {
        unsigned int n = 0;
        unsigned int rc = read([&] {
            record_row parent;
            if (!find(parent_handler_id, &parent)) return STORE_NO_RECORD;
            if (parent.category != parent_category) return STORE_BAD_CATEGORY;
            n = static_cast<unsigned int>(load_list(parent_handler_id, child_category).live);
            return 0u;
        });
        if (rc == 0) *count = n;
        return rc;
    }

    unsigned int child_direct(unsigned int parent_handler_id, unsigned int order,
                              unsigned int* child_handler_id) override {
        unsigned int found = 0;
        unsigned int rc = read([&] {
            record_row parent;
            if (!find(parent_handler_id, &parent)) return STORE_NO_RECORD;
            const order_state list = load_list(parent_handler_id, 0);
            if (order >= list.live) return STORE_NO_LINK;
            query q = sql("SELECT id FROM records WHERE parent = ? AND slot = ?");
            q.bind(1, parent_handler_id).bind(2, slot_of(parent_handler_id, 0, list, order));
            if (!q.step()) throw db_failure{};
            found = static_cast<unsigned int>(q.integer(0));
            return 0u;
        });
        if (rc == 0) *child_handler_id = found;
        return rc;
    }

    unsigned int child_count_direct(unsigned int parent_handler_id, unsigned int* count) override {
        unsigned int n = 0;
        unsigned int rc = read([&] {
            record_row parent;
            if (!find(parent_handler_id, &parent)) return STORE_NO_RECORD;
            n = static_cast<unsigned int>(load_list(parent_handler_id, 0).live);
            return 0u;
        });
        if (rc == 0) *count = n;
        return rc;
    }

    unsigned int parent(unsigned int child_category, unsigned int child_handler_id,
                        unsigned int* parent_handler_id) override {
        record_row row{0, 0, 0, 0};
        unsigned int rc = read([&] {
            if (!find(child_handler_id, &row)) return STORE_NO_RECORD;
            if (row.category != child_category) return STORE_BAD_CATEGORY;
            if (row.parent == 0) return STORE_NO_LINK;
            return 0u;
        });
        if (rc == 0) *parent_handler_id = row.parent;
        return rc;
    }

    unsigned int category(unsigned int handler_id, unsigned int* category) override {
        record_row row{0, 0, 0, 0};
        unsigned int rc = read([&] { return find(handler_id, &row) ? 0u : STORE_NO_RECORD; });
        if (rc == 0) *category = row.category;
        return rc;
    }

    unsigned int get(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     void* value) override {
        std::vector<unsigned char> bytes;
        unsigned int rc = read([&] {
            record_row row;
            if (!find(handler_id, &row)) return STORE_NO_RECORD;
            member_kind kind;
            if (stored(handler_id, member_id, &kind, &bytes)) return 0u;
            if (decl == nullptr) return STORE_NO_MEMBER;
            bytes = decl->initial;
            return 0u;
        });
        if (rc == 0 && !bytes.empty()) std::memcpy(value, bytes.data(), bytes.size());
        return rc;
    }

    unsigned int set(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     const unsigned char* bytes, unsigned int width, member_kind kind,
                     bool exact) override {
        return write([&] {
            record_row row;
            if (!find(handler_id, &row)) return STORE_NO_RECORD;
            std::vector<unsigned char> old;
            member_kind old_kind;
            unsigned int known = 0;  // 0: the member has no size yet
            if (stored(handler_id, member_id, &old_kind, &old)) {
                known = static_cast<unsigned int>(old.size());
                if (!exact) kind = old_kind;
            } else if (decl != nullptr) {
                known = decl->width;
                if (!exact) kind = decl->kind;
            }
            unsigned int size = width;
            if (size == 0) {
                if (known == 0) return STORE_NO_MEMBER;
                size = known;
            } else if (known != 0 && known != size) {
                return STORE_WIDTH;
            }
            sql("INSERT OR REPLACE INTO members(record, member, kind, value) VALUES(?, ?, ?, ?)")
                .bind(1, handler_id)
                .bind(2, member_id)
                .bind(3, static_cast<long long>(kind))
                .bind_blob(4, bytes, size)
                .run();
            return 0u;
        });
    }

    unsigned int member(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                        member_value* out) override {
        member_value v{member_id, member_kind::bytes, 0, {}};
        unsigned int rc = read([&] {
            record_row row;
            if (!find(handler_id, &row)) return STORE_NO_RECORD;
            if (!stored(handler_id, member_id, &v.kind, &v.value)) {
                if (decl == nullptr) return STORE_NO_MEMBER;
                v.kind = decl->kind;
                v.value = decl->initial;
            }
            return 0u;
        });
        if (rc != 0) return rc;
        v.size = static_cast<unsigned int>(v.value.size());
        *out = std::move(v);
        return 0;
    }

    std::vector<member_value> members(unsigned int handler_id) override {
        std::vector<member_value> out;
        unsigned int rc = read([&] {
            out.clear();
            query q =
                sql("SELECT member, kind, value FROM members WHERE record = ? ORDER BY member");
            q.bind(1, handler_id);
            while (q.step()) {
                member_value v{static_cast<unsigned int>(q.integer(0)), kind_of(q.integer(1)), 0,
                               q.blob(2)};
                v.size = static_cast<unsigned int>(v.value.size());
                out.push_back(std::move(v));
            }
            return 0u;
        });
        if (rc != 0) out.clear();
        return out;
    }

    void clear() override {
        write([&] {
            sql("DELETE FROM members").run();
            sql("DELETE FROM records").run();
            sql("DELETE FROM lists").run();
            sql("DELETE FROM holes").run();
            return 0u;
        });
    }

    unsigned int begin() override {
        std::lock_guard<std::mutex> lock(mtx_);
        // Read-only: a read transaction, so that the scope reads one snapshot.
        if (sqlite3_exec(db_, read_only_ ? "BEGIN" : "BEGIN IMMEDIATE", nullptr, nullptr,
                         nullptr) != SQLITE_OK) {
            return STORE_IO;
        }
        outer_ = true;
        outer_failed_ = false;
        return 0;
    }

    unsigned int commit() override {
        std::lock_guard<std::mutex> lock(mtx_);
        if (!outer_) return STORE_IO;
        outer_ = false;
        if (!outer_failed_ && !sqlite3_get_autocommit(db_) &&
            sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) {
            return 0;
        }
        if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return STORE_IO;
    }

    void rollback() override {
        std::lock_guard<std::mutex> lock(mtx_);
        if (!outer_) return;
        outer_ = false;
        if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }

    bool read_only() const override { return read_only_; }

    // SQLite's online backup, in one step: it reads one snapshot (other
    // processes go on writing meanwhile) into a new file beside the target,
    // which is renamed into place once complete.
    bool backup(const std::string& path, std::string* error) override {
        struct stat st;
        if (path.empty() || stat(path.c_str(), &st) == 0) {
            *error = path.empty() ? "empty path" : path + " exists; name a new file";
            return false;
        }
        const std::string part = path + ".part";
        sqlite3* dst = nullptr;
        int rc = sqlite3_open_v2(part.c_str(), &dst,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                     SQLITE_OPEN_EXCLUSIVE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc == SQLITE_OK) {
            std::lock_guard<std::mutex> lock(mtx_);
            sqlite3_backup* b = sqlite3_backup_init(dst, "main", db_, "main");
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

    std::vector<record_info> records() override {
        std::vector<record_info> out;
        unsigned int rc = read([&] {
            out.clear();
            query q = sql("SELECT id, category, parent FROM records ORDER BY id");
            while (q.step()) {
                out.push_back(record_info{static_cast<unsigned int>(q.integer(0)),
                                          static_cast<unsigned int>(q.integer(1)),
                                          static_cast<unsigned int>(q.integer(2))});
            }
            return 0u;
        });
        if (rc != 0) out.clear();
        return out;
    }

private:
    // Runs `body` in one transaction and commits when it returns 0; rolls back
    // on a store failure code or a database failure (STORE_IO). Inside an open
    // store transaction a change runs in a savepoint instead, so that a failed
    // call still changes nothing.
    template <typename Body>
    unsigned int transact(bool writes, Body body) {
        std::lock_guard<std::mutex> lock(mtx_);
        if (writes && read_only_) return STORE_READ_ONLY;
        if (outer_) return joined(writes, body);
        if (sqlite3_exec(db_, writes ? "BEGIN IMMEDIATE" : "BEGIN", nullptr, nullptr, nullptr) !=
            SQLITE_OK) {
            return STORE_IO;
        }
        unsigned int rc = guarded(body);
        if (rc == 0 && sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) {
            return 0;
        }
        if (rc == 0) rc = STORE_IO;
        if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return rc;
    }
    template <typename Body>
    unsigned int joined(bool writes, Body body) {
        // SQLite rolls a transaction back by itself on some errors: then the
        // calls must not go on outside it.
        if (sqlite3_get_autocommit(db_)) return STORE_IO;
        if (!writes) return guarded(body);
        if (sqlite3_exec(db_, "SAVEPOINT call", nullptr, nullptr, nullptr) != SQLITE_OK) {
            return STORE_IO;
        }
        unsigned int rc = guarded(body);
        if (rc != 0 &&
            sqlite3_exec(db_, "ROLLBACK TO call", nullptr, nullptr, nullptr) != SQLITE_OK) {
            outer_failed_ = true;
        }
        if (sqlite3_exec(db_, "RELEASE call", nullptr, nullptr, nullptr) != SQLITE_OK) {
            outer_failed_ = true;
        }
        return outer_failed_ && rc == 0 ? STORE_IO : rc;
    }
    template <typename Body>
    unsigned int guarded(Body body) {
        try {
            return body();
        } catch (const db_failure&) {
            return STORE_IO;
        }
    }
    template <typename Body>
    unsigned int write(Body body) {
        return transact(true, body);
    }
    template <typename Body>
    unsigned int read(Body body) {
        return transact(false, body);
    }

    // REQUIRES: mtx_ is held. `text` is a string literal (its address keys the cache).
    query sql(const char* text) {
        for (auto& entry : cache_) {
            if (entry.first == text) return query(entry.second);
        }
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
            SQLITE_OK) {
            sqlite3_finalize(stmt);
            throw db_failure{};
        }
        cache_.emplace_back(text, stmt);
        return query(stmt);
    }

    // REQUIRES: inside a transaction.
    bool find(unsigned int handler_id, record_row* row) {
        query q = sql("SELECT category, parent, slot, category_slot FROM records WHERE id = ?");
        q.bind(1, handler_id);
        if (!q.step()) return false;
        *row = record_row{static_cast<unsigned int>(q.integer(0)),
                          static_cast<unsigned int>(q.integer(1)), q.integer(2), q.integer(3)};
        return true;
    }

    // ---- Link order (lists and holes). Category 0 is the list of all children.
    // REQUIRES: inside a transaction (a write one to change anything).

    order_state load_list(unsigned int parent, unsigned int category) {
        query q = sql(
            "SELECT used, live, top, skipped, head FROM lists WHERE parent = ? AND category = ?");
        q.bind(1, parent).bind(2, category);
        order_state st;
        if (!q.step()) return st;
        st.used = count(q, 0);
        st.live = count(q, 1);
        st.top = count(q, 2);
        st.skipped = count(q, 3);
        st.head = count(q, 4);
        return st;
    }
    static unsigned long long count(const query& q, int column) {
        return static_cast<unsigned long long>(q.integer(column));
    }

    void store_list(unsigned int parent, unsigned int category, const order_state& st) {
        sql("INSERT OR REPLACE INTO lists(parent, category, used, live, top, skipped, head)"
            " VALUES(?, ?, ?, ?, ?, ?, ?)")
            .bind(1, parent)
            .bind(2, category)
            .bind(3, static_cast<long long>(st.used))
            .bind(4, static_cast<long long>(st.live))
            .bind(5, static_cast<long long>(st.top))
            .bind(6, static_cast<long long>(st.skipped))
            .bind(7, static_cast<long long>(st.head))
            .run();
    }

    // The node storage of one list for order_state.
    struct list_nodes {
        file_backend& b;
        unsigned int parent, category;

        unsigned long long holes(unsigned long long node) const {
            query q =
                b.sql("SELECT count FROM holes WHERE parent = ? AND category = ? AND node = ?");
            q.bind(1, parent).bind(2, category).bind(3, static_cast<long long>(node));
            return q.step() ? count(q, 0) : 0;
        }
        void add_holes(unsigned long long node, unsigned long long n) {
            b.sql(
                 "INSERT INTO holes(parent, category, node, count) VALUES(?, ?, ?, ?)"
                 " ON CONFLICT(parent, category, node) DO UPDATE SET count = count + "
                 "excluded.count")
                .bind(1, parent)
                .bind(2, category)
                .bind(3, static_cast<long long>(node))
                .bind(4, static_cast<long long>(n))
                .run();
        }
        unsigned long long next_child(unsigned long long slot) const {
            query q = category == 0
                          ? b.sql("SELECT min(slot) FROM records WHERE parent = ? AND slot > ?")
                          : b.sql(
                                "SELECT min(category_slot) FROM records WHERE parent = ?"
                                " AND category = ? AND category_slot > ?");
            q.bind(1, parent);
            if (category != 0) q.bind(2, category);
            q.bind(category == 0 ? 2 : 3, static_cast<long long>(slot));
            if (!q.step()) throw db_failure{};
            return count(q, 0);
        }
    };

    // The slot of the child at `order` (< st.live).
    long long slot_of(unsigned int parent, unsigned int category, const order_state& st,
                      unsigned int order) {
        const list_nodes nodes{*this, parent, category};
        return static_cast<long long>(order_slot(st, order, nodes));
    }

    // Returns the slot for a child appended to the list.
    long long append(unsigned int parent, unsigned int category) {
        order_state st = load_list(parent, category);
        list_nodes nodes{*this, parent, category};
        const unsigned long long slot = order_append(st, nodes);
        store_list(parent, category, st);
        return static_cast<long long>(slot);
    }

    // Takes the child at `slot` out of the list. REQUIRES: its record no longer
    // lists it there.
    void erase(unsigned int parent, unsigned int category, long long slot) {
        order_state st = load_list(parent, category);
        if (st.live <= 1) {
            sql("DELETE FROM lists WHERE parent = ? AND category = ?")
                .bind(1, parent)
                .bind(2, category)
                .run();
            sql("DELETE FROM holes WHERE parent = ? AND category = ?")
                .bind(1, parent)
                .bind(2, category)
                .run();
            return;
        }
        list_nodes nodes{*this, parent, category};
        if (order_erase(st, static_cast<unsigned long long>(slot), nodes)) {
            st = pack(parent, category, st.live);
        }
        store_list(parent, category, st);
    }

    // Renumbers the children in the list 1..live and drops its holes.
    order_state pack(unsigned int parent, unsigned int category, unsigned long long live) {
        std::vector<long long> ids;
        {
            query q = category == 0 ? sql("SELECT id FROM records WHERE parent = ? AND slot > 0"
                                          " ORDER BY slot")
                                    : sql("SELECT id FROM records WHERE parent = ? AND category = ?"
                                          " AND category_slot > 0 ORDER BY category_slot");
            q.bind(1, parent);
            if (category != 0) q.bind(2, category);
            while (q.step()) ids.push_back(q.integer(0));
        }
        if (ids.size() != live) throw db_failure{};
        for (std::size_t i = 0; i < ids.size(); ++i) {
            (category == 0 ? sql("UPDATE records SET slot = ? WHERE id = ?")
                           : sql("UPDATE records SET category_slot = ? WHERE id = ?"))
                .bind(1, static_cast<long long>(i + 1))
                .bind(2, ids[i])
                .run();
        }
        sql("DELETE FROM holes WHERE parent = ? AND category = ?")
            .bind(1, parent)
            .bind(2, category)
            .run();
        return packed_order(live);
    }

    // Takes a linked record out of its parent's lists and clears its link.
    void unlink(unsigned int handler_id, const record_row& row) {
        sql("UPDATE records SET parent = 0, slot = 0, category_slot = 0 WHERE id = ?")
            .bind(1, handler_id)
            .run();
        erase(row.parent, 0, row.slot);
        erase(row.parent, row.category, row.category_slot);
    }

    // REQUIRES: inside a transaction.
    bool stored(unsigned int handler_id, unsigned int member_id, member_kind* kind,
                std::vector<unsigned char>* bytes) {
        query q = sql("SELECT kind, value FROM members WHERE record = ? AND member = ?");
        q.bind(1, handler_id).bind(2, member_id);
        if (!q.step()) return false;
        *kind = kind_of(q.integer(0));
        *bytes = q.blob(1);
        return true;
    }

    // Returns the counter `key` of the meta table and stores it plus one.
    // REQUIRES: inside a write transaction.
    long long take_meta(const char* key) {
        long long value = 0;
        {
            query q = sql("SELECT value FROM meta WHERE key = ?");
            q.bind_text(1, key);
            if (!q.step()) throw db_failure{};
            value = q.integer(0);
        }
        store_meta(key, value + 1);
        return value;
    }

    void store_meta(const char* key, long long value) {
        sql("UPDATE meta SET value = ? WHERE key = ?").bind(1, value).bind_text(2, key).run();
    }

    // Makes an unlinked record without members; 0 when the ids are used up.
    // REQUIRES: inside a write transaction.
    unsigned int new_record(unsigned int category) {
        long long next = take_meta("next_id");
        if (next < 1 || next > 0xFFFFFFFFLL) return 0;
        unsigned int id = take_handler_id(static_cast<unsigned int>(next));
        if (id == 0) return 0;
        store_meta("next_id", static_cast<long long>(id) + 1);
        sql("INSERT INTO records(id, category) VALUES(?, ?)").bind(1, id).bind(2, category).run();
        return id;
    }

    // REQUIRES: inside a write transaction; `to` has no members.
    void copy_members(unsigned int from, unsigned int to) {
        sql("INSERT INTO members(record, member, kind, value)"
            " SELECT ?, member, kind, value FROM members WHERE record = ?")
            .bind(1, to)
            .bind(2, from)
            .run();
    }

    std::mutex mtx_;
    sqlite3* db_;
    const bool read_only_;
    bool outer_ = false;         // a store transaction is open
    bool outer_failed_ = false;  // and cannot be committed
    std::vector<std::pair<const char*, sqlite3_stmt*>> cache_;
};

// ---- Opening

bool pragma_int(sqlite3* db, const char* text, long long* value) {
    sqlite3_stmt* stmt = nullptr;
    bool ok = sqlite3_prepare_v2(db, text, -1, &stmt, nullptr) == SQLITE_OK &&
              sqlite3_step(stmt) == SQLITE_ROW;
    if (ok) *value = sqlite3_column_int64(stmt, 0);
    sqlite3_finalize(stmt);
    return ok;
}

bool pragma_text(sqlite3* db, const char* text, std::string* value) {
    sqlite3_stmt* stmt = nullptr;
    bool ok = sqlite3_prepare_v2(db, text, -1, &stmt, nullptr) == SQLITE_OK &&
              sqlite3_step(stmt) == SQLITE_ROW;
    if (ok) {
        const unsigned char* t = sqlite3_column_text(stmt, 0);
        *value = t != nullptr ? reinterpret_cast<const char*>(t) : "";
    }
    sqlite3_finalize(stmt);
    return ok;
}

// Whether the open file is a record store of this version ("ours"), an empty
// database that may become one ("empty"), or something else (*error says what).
enum class file_kind { ours, empty, foreign };

file_kind classify(sqlite3* db, std::string* error) {
    long long app = 0, version = 0, tables = 0;
    if (!pragma_int(db, "PRAGMA application_id", &app) ||
        !pragma_int(db, "PRAGMA user_version", &version) ||
        !pragma_int(db, "SELECT count(*) FROM sqlite_master", &tables)) {
        *error = describe(db, SQLITE_ERROR);
        return file_kind::foreign;
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

bool exec(sqlite3* db, const std::string& text, std::string* error) {
    if (sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    *error = sqlite3_errmsg(db);
    return false;
}

// Makes the file a record store unless another process did so meanwhile.
bool create_schema(sqlite3* db, std::string* error) {
    if (!exec(db, "BEGIN IMMEDIATE", error)) return false;
    bool ok = true;
    switch (classify(db, error)) {
        case file_kind::ours: break;
        case file_kind::foreign: ok = false; break;
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
    // Look before changing anything: a foreign file is left as it is.
    if (classify(db, error) == file_kind::foreign) return false;
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

}  // namespace

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
        int rc =
            sqlite3_open_v2((uri_of(path) + params).c_str(), &db,
                            SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
        if (rc == SQLITE_OK) {
            sqlite3_extended_result_codes(db, 1);
            sqlite3_busy_timeout(db, kBusyTimeoutMs);
            switch (classify(db, error)) {
                case file_kind::ours: return std::make_unique<file_backend>(db, true);
                case file_kind::empty: *error = "not a record store file"; break;
                case file_kind::foreign: break;
            }
        } else {
            *error = describe(db, rc);
        }
        sqlite3_close(db);
        const bool wal_unshared =
            stat((path + "-wal").c_str(), &st) != 0 && stat((path + "-shm").c_str(), &st) != 0;
        if (!wal_unshared || error->find("not a record store") != std::string::npos ||
            error->find("version") != std::string::npos) {
            break;
        }
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
        int rc = sqlite3_open_v2(path.c_str(), &db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
        if (rc != SQLITE_OK) {
            reason = describe(db, rc);
        } else if (sqlite3_db_readonly(db, "main") == 1) {
            sqlite3_close(db);
            db = nullptr;
            std::unique_ptr<store_backend> opened = open_read_only(path, &reason);
            if (opened) return opened;
        } else if (prepare_file(db, &reason)) {
            return std::make_unique<file_backend>(db, false);
        }
        sqlite3_close(db);
    }
    if (error != nullptr) *error = reason;
    return nullptr;
}

}  // namespace detail
}  // namespace tevhost
