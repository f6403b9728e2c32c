// The persistent record store backend's operations (the format and opening are
// file_store.h and file_store_open.cpp). Called under the store's lock
// (store_backend.h); the connection's own mutex (sqlite_db.h) serialises the
// readers the shared lock lets in together.
//
// Every store operation is one transaction (BEGIN IMMEDIATE when it writes), so
// a process killed at any point leaves the file at the last committed operation.
// Several processes may share one file: the busy timeout makes a writer wait for
// another's transaction. Out-values are written only after the transaction
// committed.
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "file_store.h"
#include "handler_ids.h"
#include "link_order.h"
#include "sqlite_db.h"

namespace tevhost {
namespace detail {
namespace {

member_kind kind_of(long long stored) {
    return stored >= 0 && stored <= static_cast<long long>(member_kind::bytes)
               ? static_cast<member_kind>(stored)
               : member_kind::bytes;
}

struct record_row {
    unsigned int category;
    unsigned int parent;
    long long slot;
    long long category_slot;
};

class file_backend final : public store_backend {
public:
    file_backend(sqlite3* db, bool read_only) : db_(db, read_only) {}

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
        const unsigned int rc = read([&] {
            return read_member(handler_id, member_id, decl, [&](const member_view& v) {
                bytes.assign(v.data, v.data + v.size);
            });
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
            unsigned int size = width;
            member_kind stored_kind = kind;
            const unsigned int rc = with_stored(handler_id, member_id, [&](const member_view* old) {
                return write_rule(old, decl, exact, &size, &stored_kind);
            });
            if (rc != 0) return rc;
            sql("INSERT OR REPLACE INTO members(record, member, kind, value) VALUES(?, ?, ?, ?)")
                .bind(1, handler_id)
                .bind(2, member_id)
                .bind(3, static_cast<long long>(stored_kind))
                .bind_blob(4, bytes, size)
                .run();
            return 0u;
        });
    }

    unsigned int member(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                        member_value* out) override {
        member_value v{};
        const unsigned int rc = read([&] {
            return read_member(handler_id, member_id, decl, [&](const member_view& found) {
                v = to_member_value(member_id, found);
            });
        });
        if (rc == 0) *out = std::move(v);
        return rc;
    }

    std::vector<member_value> members(unsigned int handler_id) override {
        std::vector<member_value> out;
        const unsigned int rc = read([&] {
            out.clear();
            query q =
                sql("SELECT kind, value, member FROM members WHERE record = ?"
                    " ORDER BY member");
            q.bind(1, handler_id);
            while (q.step()) {
                out.push_back(to_member_value(static_cast<unsigned int>(q.integer(2)), view(q)));
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

    unsigned int begin() override { return db_.begin(); }
    unsigned int commit() override { return db_.commit(); }
    void rollback() override { db_.rollback(); }
    bool read_only() const override { return db_.read_only(); }

    bool backup(const std::string& path, std::string* error) override {
        return db_.with_connection([&](sqlite3* db) { return backup_database(db, path, error); });
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
    template <typename Body>
    unsigned int write(Body body) {
        return db_.transact(true, body);
    }
    template <typename Body>
    unsigned int read(Body body) {
        return db_.transact(false, body);
    }
    query sql(const char* text) { return db_.sql(text); }

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
        st.used = q.count(0);
        st.live = q.count(1);
        st.top = q.count(2);
        st.skipped = q.count(3);
        st.head = q.count(4);
        return st;
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
            return q.step() ? q.count(0) : 0;
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
            return q.count(0);
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

    // Returns `use(stored)`, `stored` the member's stored value (null when the
    // record holds none). REQUIRES: inside a transaction.
    template <typename Use>
    unsigned int with_stored(unsigned int handler_id, unsigned int member_id, Use use) {
        query q = sql("SELECT kind, value FROM members WHERE record = ? AND member = ?");
        q.bind(1, handler_id).bind(2, member_id);
        if (!q.step()) return use(nullptr);
        const member_view v = view(q);
        return use(&v);
    }
    // The member in the current row of a (kind, value, ...) query; its bytes
    // are valid until the query steps or ends.
    static member_view view(const query& q) {
        member_view v{kind_of(q.integer(0)), nullptr, 0};
        v.data = q.blob(1, &v.size);
        return v;
    }

    // Calls `use` with what a read of the member reports (read_rule) and returns
    // 0, or returns the failure. REQUIRES: inside a transaction.
    template <typename Use>
    unsigned int read_member(unsigned int handler_id, unsigned int member_id,
                             const member_decl* decl, Use use) {
        record_row row;
        if (!find(handler_id, &row)) return STORE_NO_RECORD;
        return with_stored(handler_id, member_id, [&](const member_view* stored) {
            member_view out{};
            const unsigned int rc = read_rule(stored, decl, &out);
            if (rc == 0) use(out);
            return rc;
        });
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

    sqlite_db db_;
};

}  // namespace

std::unique_ptr<store_backend> file_backend_on(sqlite3* db, bool read_only) {
    return std::make_unique<file_backend>(db, read_only);
}

}  // namespace detail
}  // namespace tevhost
