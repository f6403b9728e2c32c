// The persistent record store backend's operations (the format and opening are
// file_store.h and file_store_open.cpp). Called under the store's lock
// (store_backend.h); the connection's own mutex (sqlite_db.h) serialises the
// readers the shared lock lets in together.
//
// Every store operation is one transaction (BEGIN IMMEDIATE when it writes), or
// one statement, which SQLite makes a transaction by itself: so a process killed
// at any point leaves the file at the last committed operation. The common
// operations are one statement each (a member read or write, a create, a link,
// an unlink and a remove below small lists, a child by order of a small list or
// of a large one without holes); they fall back to several statements in a
// transaction for the rest (a failure to explain, a large list). Several
// processes may share one file: the busy timeout makes a writer wait for
// another's transaction, and a one-statement fast path checks in that statement
// that it applies. Out-values are written only after the transaction
// committed. Inside a store transaction a call takes no savepoint: one whose
// SQLite statements fail partway fails the whole transaction (sqlite_db.h).
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "file_lists.h"
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

class file_backend final : public store_backend {
public:
    file_backend(sqlite3* db, bool read_only) : db_(db, read_only) {}

    unsigned int make(unsigned int category, unsigned int* handler_id) override {
        if (category == 0) return STORE_BAD_CATEGORY;
        unsigned int id = 0;
        unsigned int rc = db_.single(true, [&] {
            id = claim(category, next_hint_);
            return 0u;
        });
        if (rc == 0 && id == 0) {  // another process made or removed records meanwhile
            rc = write([&] {
                id = new_record(category);
                return id == 0 ? STORE_IO : 0u;
            });
        }
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
            id = claim(category, next_hint_);
            if (id == 0) id = new_record(category);
            if (id == 0) return STORE_IO;
            copy_members(src_handler_id, id);
            return 0u;
        });
        if (rc == 0) *handler_id = id;
        return rc;
    }

    unsigned int copy(unsigned int src_handler_id, unsigned int dst_handler_id) override {
        return write([&] {
            query q =
                sql("SELECT EXISTS(SELECT 1 FROM records WHERE id = ?1)"
                    " AND EXISTS(SELECT 1 FROM records WHERE id = ?2)");
            q.bind(1, src_handler_id).bind(2, dst_handler_id);
            if (!q.step()) throw db_failure{};
            if (q.integer(0) == 0) return STORE_NO_RECORD;
            if (src_handler_id != dst_handler_id) {
                sql("DELETE FROM members WHERE record = ?").bind(1, dst_handler_id).run();
                copy_members(src_handler_id, dst_handler_id);
            }
            return 0u;
        });
    }

    unsigned int init(unsigned int handler_id) override {
        // A record that is missing now never comes back (ids are not reused), so
        // the check after the change reads the same as one before it.
        return db_.single(true, [&] {
            sql("DELETE FROM members WHERE record = ?").bind(1, handler_id).run();
            record_row row;
            return db_.changes() > 0 || find(handler_id, &row) ? 0u : STORE_NO_RECORD;
        });
    }

    unsigned int remove(unsigned int handler_id) override {
        // The delete's trigger takes its members and lists, leaves its children
        // unlinked and its id's mark (the largest id is never handed out
        // again): one statement when its parent's lists are small. Taking it
        // out of a large list needs a transaction (tried first after the last
        // remove or unlink did).
        if (!large_erased_) {
            const unsigned int rc = fast_write(kRemoveSmall, handler_id, 0, 0, 0);
            if (rc != kNotApplied) return rc;
        }
        return write([&] {
            linked_row found;
            if (!find_linked(handler_id, &found)) return STORE_NO_RECORD;
            sql("DELETE FROM records WHERE id = ?").bind(1, handler_id).run();
            erase(found);
            return 0u;
        });
    }

    unsigned int set_link(unsigned int parent_category, unsigned int parent_handler_id,
                          unsigned int child_category, unsigned int child_handler_id) override {
        // One statement when both lists stay small and no cycle can arise (the
        // child has no children, or the parent no parent). The rest, and
        // every refusal, in a transaction; straight away for the parent whose
        // large list the last link met (likely to be met again).
        if (parent_handler_id != large_parent_) {
            const unsigned int rc = fast_write(kLinkSmall, parent_handler_id, child_handler_id,
                                               parent_category, child_category);
            if (rc != kNotApplied) return rc;
        }
        return write([&] {
            // The parent, the child and the parent's two lists the child joins.
            record_row parent{0, 0, 0, 0}, child{0, 0, 0, 0};
            list_state all, mine;
            if (!find_pair(parent_handler_id, child_handler_id, &parent, &child, &all, &mine)) {
                return STORE_NO_RECORD;
            }
            if (parent.category != parent_category || child.category != child_category) {
                return STORE_BAD_CATEGORY;
            }
            if (child.parent != 0) return STORE_HAS_PARENT;
            // The child may not be the parent or one of its ancestors.
            if (parent_handler_id == child_handler_id) return STORE_CYCLE;
            for (record_row up = parent; up.parent != 0;) {
                if (up.parent == child_handler_id) return STORE_CYCLE;
                if (!find(up.parent, &up)) break;
            }
            // Below a parent without rows in lists, the slot after the last,
            // unless that is kSmallList: then the parent's children are numbered
            // in their categories, and the link goes on as below one with rows.
            long long slot = 0, category_slot = 0;
            if (!parent.has_lists) {
                slot = static_cast<long long>(lists_.small_count(parent_handler_id, 0, true)) + 1;
                if (slot < static_cast<long long>(kSmallList)) {
                    link_row(parent_handler_id, child_handler_id, slot, 0);
                    return 0u;
                }
                lists_.number_children(parent_handler_id);
            }
            std::tie(slot, category_slot) =
                lists_.append_child(parent_handler_id, child_category, all, mine);
            large_parent_ = all.st.top != 0 || mine.st.top != 0 ? parent_handler_id : 0;
            link_row(parent_handler_id, child_handler_id, slot, category_slot);
            return 0u;
        });
    }

    unsigned int delete_link(unsigned int category, unsigned int handler_id) override {
        // One statement when the parent's lists are small; the rest, and every
        // refusal, in a transaction (tried first as for remove).
        if (!large_erased_) {
            const unsigned int rc = fast_write(kUnlinkSmall, handler_id, category, 0, 0);
            if (rc != kNotApplied) return rc;
        }
        return write([&] {
            linked_row found;
            if (!find_linked(handler_id, &found)) return STORE_NO_RECORD;
            if (found.row.category != category) return STORE_BAD_CATEGORY;
            if (found.row.parent == 0) return STORE_NO_LINK;
            sql("UPDATE OR FAIL records SET parent = 0, category_slot = 0, list_parent = 0"
                " WHERE id = ?")
                .bind(1, handler_id)
                .run();
            erase(found);
            return 0u;
        });
    }

    unsigned int child(unsigned int parent_category, unsigned int parent_handler_id,
                       unsigned int child_category, unsigned int order,
                       unsigned int* child_handler_id) override {
        return child_at(&parent_category, parent_handler_id, child_category, order,
                        child_handler_id);
    }

    unsigned int child_count(unsigned int parent_category, unsigned int parent_handler_id,
                             unsigned int child_category, unsigned int* count) override {
        return count_of(&parent_category, parent_handler_id, child_category, count);
    }

    unsigned int child_direct(unsigned int parent_handler_id, unsigned int order,
                              unsigned int* child_handler_id) override {
        return child_at(nullptr, parent_handler_id, 0, order, child_handler_id);
    }

    unsigned int child_count_direct(unsigned int parent_handler_id, unsigned int* count) override {
        return count_of(nullptr, parent_handler_id, 0, count);
    }

    unsigned int parent(unsigned int child_category, unsigned int child_handler_id,
                        unsigned int* parent_handler_id) override {
        record_row row{0, 0, 0, 0};
        unsigned int rc = read_one([&] {
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
        unsigned int rc = read_one([&] { return find(handler_id, &row) ? 0u : STORE_NO_RECORD; });
        if (rc == 0) *category = row.category;
        return rc;
    }

    unsigned int get(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     void* value) override {
        // One statement: nothing is written before it has read all it needs.
        return read_one([&] {
            return read_member(handler_id, member_id, decl, [&](const member_view& v) {
                if (v.size != 0) std::memcpy(value, v.data, v.size);
            });
        });
    }

    unsigned int set(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     const unsigned char* bytes, unsigned int width, member_kind kind,
                     bool exact) override {
        // A known width that the declaration (if any) agrees with is written in
        // one statement, which stores nothing unless the record exists and a
        // value stored already has that width; the write rule then holds. The
        // rest, and every refusal, take the full rule in a transaction.
        if (width != 0 && (decl == nullptr || decl->width == width)) {
            bool written = false;
            const member_kind stored_kind = exact || decl == nullptr ? kind : decl->kind;
            for (const char* text :
                 {exact ? kUpdateExact : kUpdate, exact ? kUpsertExact : kUpsert}) {
                const unsigned int rc = db_.single(true, [&] {
                    query q = sql(text);
                    q.bind(1, handler_id).bind(2, member_id).bind_blob(3, bytes, width);
                    if (exact || text != kUpdate) q.bind(4, static_cast<long long>(stored_kind));
                    q.run();
                    written = db_.changes() > 0;
                    return 0u;
                });
                if (rc != 0 || written) return rc;
            }
        }
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
        const unsigned int rc = read_one([&] {
            return read_member(handler_id, member_id, decl, [&](const member_view& found) {
                v = to_member_value(member_id, found);
            });
        });
        if (rc == 0) *out = std::move(v);
        return rc;
    }

    std::vector<member_value> members(unsigned int handler_id) override {
        std::vector<member_value> out;
        const unsigned int rc = read_one([&] {
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
            sql("UPDATE meta SET value = max(value, (SELECT coalesce(max(id), 0) + 1 FROM records))"
                " WHERE key = 'next_id'")
                .run();
            sql("DELETE FROM members").run();
            sql("DELETE FROM records").run();
            sql("DELETE FROM lists").run();
            sql("DELETE FROM holes").run();
            return 0u;
        });
    }

    unsigned int begin() override {
        hint_exact_ = false;
        return db_.begin();
    }
    unsigned int commit() override {
        hint_exact_ = false;
        return db_.commit();
    }
    void rollback() override {
        hint_exact_ = false;
        db_.rollback();
    }
    bool read_only() const override { return db_.read_only(); }

    bool backup(const std::string& path, std::string* error) override {
        return db_.with_connection([&](sqlite3* db) { return backup_database(db, path, error); });
    }

    std::vector<record_info> records() override {
        std::vector<record_info> out;
        unsigned int rc = read_one([&] {
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

    std::shared_ptr<const kept_schema> schema() override { return schema_.current(db_); }
    unsigned int keep_schema(const std::vector<member_schema>& members,
                             std::string* error) override {
        return schema_.keep(db_, members, error);
    }

private:
    file_schema schema_;  // the member schema the file keeps (file_store_schema.cpp)
    // Members written in one statement (set): a stored value of the same width
    // (or of none) replaced, else the member inserted when the record exists
    // (or a stored value so replaced, should it have been stored meanwhile).
    static constexpr const char kUpdate[] =
        "UPDATE members SET value = ?3 WHERE record = ?1 AND member = ?2"
        " AND length(value) IN (0, length(?3))";
    static constexpr const char kUpdateExact[] =
        "UPDATE members SET value = ?3, kind = ?4 WHERE record = ?1 AND member = ?2"
        " AND length(value) IN (0, length(?3))";
    static constexpr const char kUpsert[] =
        "INSERT INTO members(record, member, value, kind) SELECT ?1, ?2, ?3, ?4 FROM records"
        " WHERE id = ?1 ON CONFLICT(record, member) DO UPDATE SET value = excluded.value"
        " WHERE length(members.value) IN (0, length(excluded.value))";
    static constexpr const char kUpsertExact[] =
        "INSERT INTO members(record, member, value, kind) SELECT ?1, ?2, ?3, ?4 FROM records"
        " WHERE id = ?1 ON CONFLICT(record, member) DO UPDATE SET kind = excluded.kind,"
        " value = excluded.value WHERE length(members.value) IN (0, length(excluded.value))";
    // The child at `order` of a small list: ?1 parent, ?2 order, ?3 category.
    static constexpr const char kSmallAll[] =
        "SELECT id FROM records WHERE parent = ?1 AND parent != 0 ORDER BY slot LIMIT 1 OFFSET ?2";
    static constexpr const char kSmallOf[] =
        "SELECT id FROM records WHERE list_parent = ?1 AND list_parent != 0 AND category = ?3"
        " ORDER BY category_slot LIMIT 1 OFFSET ?2";
    // Of a parent with no rows in lists (its children are not numbered).
    static constexpr const char kSmallOfAll[] =
        "SELECT id FROM records WHERE parent = ?1 AND parent != 0 AND category = ?3"
        " ORDER BY slot LIMIT 1 OFFSET ?2";
    // The parent's category, the large list's child count (null for a small
    // list, which has no row or a mark), whether it has no holes, and the child at `order`: of a
    // small list in an index scan (of the slot index when the parent has no rows in lists), of a
    // large one without holes at slot skipped + order + 1. ?1 parent, ?2 order, ?3 category.
    static constexpr const char kChildAll[] =
        "SELECT p.category, CASE WHEN l.top != 0 THEN l.live END, l.used = l.live + l.skipped,"
        " CASE WHEN coalesce(l.top, 0) = 0 THEN (SELECT id FROM records WHERE parent = ?1"
        "  AND parent != 0 ORDER BY slot LIMIT 1 OFFSET ?2)"
        " WHEN l.used = l.live + l.skipped THEN (SELECT id FROM records WHERE parent = ?1"
        "  AND parent != 0 AND slot = l.skipped + ?2 + 1) END"
        " FROM records p LEFT JOIN lists l ON l.parent = p.id AND l.category = 0 WHERE p.id = ?1";
    static constexpr const char kChildOf[] =
        "SELECT p.category, CASE WHEN l.top != 0 THEN l.live END, l.used = l.live + l.skipped,"
        " CASE WHEN p.has_lists = 0 THEN (SELECT id FROM records WHERE parent = ?1"
        "  AND parent != 0 AND category = ?3 ORDER BY slot LIMIT 1 OFFSET ?2)"
        " WHEN coalesce(l.top, 0) = 0 THEN (SELECT id FROM records WHERE list_parent = ?1"
        "  AND list_parent != 0 AND category = ?3 ORDER BY category_slot LIMIT 1 OFFSET ?2)"
        " WHEN l.used = l.live + l.skipped THEN (SELECT id FROM records WHERE list_parent = ?1"
        "  AND list_parent != 0 AND category = ?3 AND category_slot = l.skipped + ?2 + 1) END"
        " FROM records p LEFT JOIN lists l ON l.parent = p.id AND l.category = ?3 WHERE p.id = ?1";
    // The parent's category and the child count (of a large list kept, of a
    // small one counted). ?1 parent, ?2 category.
    static constexpr const char kCountAll[] =
        "SELECT category, coalesce((SELECT live FROM lists WHERE parent = ?1 AND category = 0"
        " AND top != 0),"
        " (SELECT count(*) FROM records WHERE parent = ?1 AND parent != 0)) FROM records"
        " WHERE id = ?1";
    static constexpr const char kCountOf[] =
        "SELECT category, coalesce((SELECT live FROM lists WHERE parent = ?1 AND category = ?2"
        " AND top != 0), CASE WHEN has_lists = 0 THEN (SELECT count(*) FROM records"
        "  WHERE parent = ?1 AND parent != 0 AND category = ?2) ELSE (SELECT count(*)"
        "  FROM records WHERE list_parent = ?1 AND list_parent != 0 AND category = ?2) END)"
        " FROM records WHERE id = ?1";
    // The changes that are one statement when the parent has no rows in lists
    // (every list of it small): each changes nothing unless it applies whole,
    // and meets no constraint but the CHECK on slots (OR FAIL: no statement
    // journal in a transaction). A link: ?1 parent, ?2 child, ?3 parent
    // category, ?4 child category; the child takes the slot after the last,
    // and fails the CHECK when that is kSmallList. No cycle can arise when the
    // parent has no parent (then the child's children are not looked for) or
    // the child no children.
    static constexpr const char kLinkSmall[] =
        "UPDATE OR FAIL records SET parent = ?1,"
        " slot = (SELECT coalesce(max(slot), 0) + 1 FROM records WHERE parent = ?1"
        "  AND parent != 0)"
        " WHERE id = ?2 AND category = ?4 AND parent = 0 AND id != ?1"
        " AND EXISTS(SELECT 1 FROM records p WHERE p.id = ?1 AND p.category = ?3"
        "  AND p.has_lists = 0 AND (p.parent = 0 OR NOT EXISTS(SELECT 1 FROM records c"
        "  WHERE c.parent = ?2 AND c.parent != 0)))";
    // An unlink: ?1 the record, ?2 its category (a child without list_parent
    // has a parent without rows in lists).
    static constexpr const char kUnlinkSmall[] =
        "UPDATE OR FAIL records SET parent = 0"
        " WHERE id = ?1 AND category = ?2 AND parent != 0 AND list_parent = 0";
    // A remove: ?1 the record (unlinked, or a child without list_parent).
    static constexpr const char kRemoveSmall[] =
        "DELETE FROM records WHERE id = ?1 AND list_parent = 0";
    static constexpr unsigned int kNotApplied = ~0u;

    // Runs one of the statements above with integer arguments ?1 to ?4 (those
    // it has); kNotApplied when it changed nothing (or failed the CHECK).
    unsigned int fast_write(const char* text, long long a1, long long a2, long long a3,
                            long long a4) {
        bool applied = false;
        const unsigned int rc = db_.single(true, [&] {
            query q = sql(text);
            q.bind(1, a1);
            if (text != kRemoveSmall) q.bind(2, a2);
            if (text == kLinkSmall) q.bind(3, a3).bind(4, a4);
            applied = q.run_unless(SQLITE_CONSTRAINT_CHECK) && db_.changes() > 0;
            return 0u;
        });
        return rc != 0 || applied ? rc : kNotApplied;
    }
    // A record with id ?1 unless the file handed that id out already: a record
    // at or above it, or the mark a removed one left in meta.
    static constexpr const char kClaim[] =
        "INSERT INTO records(id, category) SELECT ?1, ?2"
        " WHERE ?1 > (SELECT coalesce(max(id), 0) FROM records)"
        " AND ?1 >= (SELECT value FROM meta WHERE key = 'next_id')";
    // Whether ?1 is an id the file has not handed out, as kClaim checks it.
    static constexpr const char kFresh[] =
        "SELECT ?1 > (SELECT coalesce(max(id), 0) FROM records)"
        " AND ?1 >= (SELECT value FROM meta WHERE key = 'next_id')";

    template <typename Body>
    unsigned int write(Body body) {
        return db_.transact(true, body);
    }
    template <typename Body>
    unsigned int read(Body body) {
        return db_.transact(false, body);
    }
    // A read in one statement.
    template <typename Body>
    unsigned int read_one(Body body) {
        return db_.single(false, body);
    }
    query sql(const char* text) { return db_.sql(text); }

    static record_row row_of(const query& q) {
        return record_row{static_cast<unsigned int>(q.integer(0)),
                          static_cast<unsigned int>(q.integer(1)), q.integer(2), q.integer(3)};
    }
    // REQUIRES: inside a body.
    bool find(unsigned int handler_id, record_row* row) {
        query q = sql(
            "SELECT category, parent, slot, category_slot, has_lists FROM records WHERE id = ?");
        q.bind(1, handler_id);
        if (!q.step()) return false;
        *row = row_of(q);
        row->has_lists = q.integer(4) != 0;
        return true;
    }
    // A parent and a child, and the parent's two lists the child would join.
    bool find_pair(unsigned int parent_id, unsigned int child_id, record_row* parent,
                   record_row* child, list_state* all, list_state* mine) {
        query q =
            sql("SELECT p.category, p.parent, c.category, c.parent,"
                " a.used, a.live, a.top, a.skipped, a.head, a.pending,"
                " m.used, m.live, m.top, m.skipped, m.head, m.pending, p.has_lists"
                " FROM records p JOIN records c ON c.id = ?2"
                " LEFT JOIN lists a ON a.parent = p.id AND a.category = 0"
                " LEFT JOIN lists m ON m.parent = p.id AND m.category = c.category"
                " WHERE p.id = ?1");
        q.bind(1, parent_id).bind(2, child_id);
        if (!q.step()) return false;
        *parent = record_row{static_cast<unsigned int>(q.integer(0)),
                             static_cast<unsigned int>(q.integer(1)), 0, 0};
        *child = record_row{static_cast<unsigned int>(q.integer(2)),
                            static_cast<unsigned int>(q.integer(3)), 0, 0};
        parent->has_lists = q.integer(16) != 0;
        *all = file_lists::list_of(q, 4);
        *mine = file_lists::list_of(q, 10);
        return true;
    }
    // A record and, when it is linked, its parent's two lists that hold it.
    struct linked_row {
        record_row row;
        list_state all, mine;
    };
    bool find_linked(unsigned int handler_id, linked_row* out) {
        query q =
            sql("SELECT r.category, r.parent, r.slot, r.category_slot,"
                " a.used, a.live, a.top, a.skipped, a.head, a.pending,"
                " c.used, c.live, c.top, c.skipped, c.head, c.pending FROM records r"
                " LEFT JOIN lists a ON a.parent = r.parent AND a.category = 0"
                " LEFT JOIN lists c ON c.parent = r.parent AND c.category = r.category"
                " WHERE r.id = ?");
        q.bind(1, handler_id);
        if (!q.step()) return false;
        out->row = row_of(q);
        out->all = file_lists::list_of(q, 4);
        out->mine = file_lists::list_of(q, 10);
        return true;
    }

    // The child at `order` among the children of `category` (0: all) of the
    // parent, whose category is checked unless `parent_category` is null. One
    // statement, unless the list has holes.
    unsigned int child_at(const unsigned int* parent_category, unsigned int parent_handler_id,
                          unsigned int category, unsigned int order,
                          unsigned int* child_handler_id) {
        unsigned int found = 0;
        bool holes = false;
        unsigned int rc = read_one([&] {
            query q = category == 0 ? sql(kChildAll) : sql(kChildOf);
            q.bind(1, parent_handler_id).bind(2, order);
            if (category != 0) q.bind(3, category);
            if (!q.step()) return STORE_NO_RECORD;
            if (parent_category != nullptr && q.integer(0) != *parent_category) {
                return STORE_BAD_CATEGORY;
            }
            if (q.is_null(1)) {  // a small list
                if (q.is_null(3)) return STORE_NO_LINK;
            } else {
                if (order >= q.count(1)) return STORE_NO_LINK;
                holes = q.integer(2) == 0;
                if (!holes && q.is_null(3)) throw db_failure{};
            }
            found = static_cast<unsigned int>(q.integer(3));
            return 0u;
        });
        if (rc == 0 && holes) {
            rc = read([&] {
                record_row parent;
                if (!find(parent_handler_id, &parent)) return STORE_NO_RECORD;
                if (parent_category != nullptr && parent.category != *parent_category) {
                    return STORE_BAD_CATEGORY;
                }
                const list_state list = lists_.load_list(parent_handler_id, category);
                if (list.st.top == 0) {  // small since the first statement read it
                    query q = category == 0      ? sql(kSmallAll)
                              : parent.has_lists ? sql(kSmallOf)
                                                 : sql(kSmallOfAll);
                    q.bind(1, parent_handler_id).bind(2, order);
                    if (category != 0) q.bind(3, category);
                    if (!q.step()) return STORE_NO_LINK;
                    found = static_cast<unsigned int>(q.integer(0));
                    return 0u;
                }
                if (order >= list.st.live) return STORE_NO_LINK;
                query q = category == 0
                              ? sql("SELECT id FROM records WHERE parent = ?1 AND parent != 0"
                                    " AND slot = ?2")
                              : sql("SELECT id FROM records WHERE list_parent = ?1"
                                    " AND list_parent != 0 AND category_slot = ?2"
                                    " AND category = ?3");
                q.bind(1, parent_handler_id)
                    .bind(2, lists_.slot_of(parent_handler_id, category, list, order));
                if (category != 0) q.bind(3, category);
                if (!q.step()) throw db_failure{};
                found = static_cast<unsigned int>(q.integer(0));
                return 0u;
            });
        }
        if (rc == 0) *child_handler_id = found;
        return rc;
    }

    // The number of children of `category` (0: all), as child_at.
    unsigned int count_of(const unsigned int* parent_category, unsigned int parent_handler_id,
                          unsigned int category, unsigned int* count) {
        unsigned int n = 0;
        unsigned int rc = read_one([&] {
            query q = category == 0 ? sql(kCountAll) : sql(kCountOf);
            q.bind(1, parent_handler_id);
            if (category != 0) q.bind(2, category);
            if (!q.step()) return STORE_NO_RECORD;
            if (parent_category != nullptr && q.integer(0) != *parent_category) {
                return STORE_BAD_CATEGORY;
            }
            n = static_cast<unsigned int>(q.count(1));
            return 0u;
        });
        if (rc == 0) *count = n;
        return rc;
    }

    // Takes a removed or unlinked child out of its parent's lists, when the
    // parent keeps rows in lists (its children are numbered), and notes
    // whether a large list was met. REQUIRES: its record no longer lists it.
    void erase(linked_row& found) {
        large_erased_ = found.row.parent != 0 && found.row.category_slot != 0 &&
                        lists_.erase(found.row, found.all, found.mine);
    }
    // Links the child: the parent's `slot` and `category_slot`.
    void link_row(unsigned int parent, unsigned int child, long long slot,
                  long long category_slot) {
        sql("UPDATE OR FAIL records SET parent = ?1, slot = ?2, category_slot = ?3,"
            " list_parent = CASE WHEN ?3 != 0 THEN ?1 ELSE 0 END WHERE id = ?4")
            .bind(1, parent)
            .bind(2, slot)
            .bind(3, category_slot)
            .bind(4, child)
            .run();
    }
    // Returns `use(stored)`, `stored` the member's stored value (null when the
    // record holds none). REQUIRES: inside a body.
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
    // 0, or returns the failure. One statement: a member is stored only for a
    // record that exists, so the record is looked up only when it has none.
    template <typename Use>
    unsigned int read_member(unsigned int handler_id, unsigned int member_id,
                             const member_decl* decl, Use use) {
        query q =
            sql("SELECT kind, value FROM members WHERE record = ?1 AND member = ?2"
                " UNION ALL SELECT NULL, NULL FROM records WHERE id = ?1 LIMIT 1");
        q.bind(1, handler_id).bind(2, member_id);
        if (!q.step()) return STORE_NO_RECORD;
        const bool stored = !q.is_null(0);
        const member_view v = stored ? view(q) : member_view{};
        member_view out{};
        const unsigned int rc = read_rule(stored ? &v : nullptr, decl, &out);
        if (rc == 0) use(out);
        return rc;
    }

    // Inserts an unlinked record of `category` with the first id this process
    // may hand out at or above `floor`, unless the file has handed that id out.
    // Returns the id, or 0 when nothing was inserted (the id taken from the
    // process is spent either way: ids may skip, never repeat). Inside a write
    // transaction in which a record was made, no other process has made one
    // since, so the check is left out. REQUIRES: inside a writing body.
    unsigned int claim(unsigned int category, unsigned int floor) {
        const unsigned int id = take_handler_id(floor);
        if (id == 0) return 0;
        if (!db_.in_write_transaction()) {
            sql(kClaim).bind(1, id).bind(2, category).run();
            if (db_.changes() == 0) return 0;
        } else {
            // No other process writes meanwhile: the check is a read of its own
            // and the insert a plain one (an INSERT whose SELECT reads the table
            // it inserts into copies its rows to a temporary table first).
            if (!hint_exact_) {
                query q = sql(kFresh);
                q.bind(1, id);
                if (!q.step()) throw db_failure{};
                if (q.integer(0) == 0) return 0;
            }
            if (hint_exact_ && id == next_hint_) {
                // One past the last record this transaction made, which is the
                // largest: SQLite's own choice of row id (an append, no seek),
                // unless a remove since took the largest record; then the row
                // takes the id chosen.
                sql("INSERT INTO records(category) VALUES(?1)").bind(1, category).run();
                const long long got = db_.last_insert_rowid();
                if (got != id) {
                    sql("UPDATE OR FAIL records SET id = ?1 WHERE id = ?2")
                        .bind(1, id)
                        .bind(2, got)
                        .run();
                }
            } else {
                sql("INSERT INTO records(id, category) VALUES(?1, ?2)")
                    .bind(1, id)
                    .bind(2, category)
                    .run();
            }
        }
        next_hint_ = id + 1;
        hint_exact_ = db_.in_write_transaction();
        return id;
    }

    // Makes an unlinked record without members; 0 when the ids are used up. The
    // first id the file has not handed out: above every record, and at least
    // the mark the largest removed one left. REQUIRES: inside a write
    // transaction.
    unsigned int new_record(unsigned int category) {
        long long next = 0;
        {
            query q =
                sql("SELECT max((SELECT coalesce(max(id), 0) + 1 FROM records),"
                    " (SELECT value FROM meta WHERE key = 'next_id'))");
            if (!q.step()) throw db_failure{};
            next = q.integer(0);
        }
        if (next < 1 || next > 0xFFFFFFFFLL) return 0;
        return claim(category, static_cast<unsigned int>(next));
    }

    // REQUIRES: inside a writing body; `to` has no members.
    void copy_members(unsigned int from, unsigned int to) {
        sql("INSERT INTO members(record, member, kind, value)"
            " SELECT ?, member, kind, value FROM members WHERE record = ?")
            .bind(1, to)
            .bind(2, from)
            .run();
    }

    // The parent whose large list the last link met (0: none), and whether the
    // last remove or unlink of a linked record took it out of a large list.
    unsigned int large_parent_ = 0;
    bool large_erased_ = false;
    // The id a create tries first: one past the last this backend made.
    unsigned int next_hint_ = 1;
    // Whether no other process can have made a record since (see claim).
    bool hint_exact_ = false;
    sqlite_db db_;
    file_lists lists_{db_};
};

}  // namespace

std::unique_ptr<store_backend> file_backend_on(sqlite3* db, bool read_only) {
    return std::make_unique<file_backend>(db, read_only);
}

}  // namespace detail
}  // namespace tevhost
