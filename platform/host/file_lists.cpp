// The link order of the persistent record store's lists (file_lists.h): the
// lists and holes tables, and the numbers of a parent's children in their
// categories.
#include "file_lists.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "file_store.h"

namespace tevhost {
namespace detail {
namespace {

// The node storage of one list for order_state: the counts in the holes
// table, and, when `pending` is set, the holes not counted there yet.
struct list_nodes {
    sqlite_db& db;
    unsigned int parent, category;
    const std::vector<unsigned long long>* pending = nullptr;

    unsigned long long holes(unsigned long long node) const {
        query q = db.sql("SELECT count FROM holes WHERE parent = ? AND category = ? AND node = ?");
        q.bind(1, parent).bind(2, category).bind(3, static_cast<long long>(node));
        unsigned long long n = q.step() ? q.count(0) : 0;
        if (pending != nullptr) {
            const unsigned long long low = node - (node & (~node + 1));
            for (unsigned long long slot : *pending) n += slot > low && slot <= node;
        }
        return n;
    }
    void add_holes(unsigned long long node, unsigned long long n) {
        db.sql(
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
        query q = category == 0 ? db.sql(
                                      "SELECT min(slot) FROM records WHERE parent = ?1"
                                      " AND parent != 0 AND slot > ?2")
                                : db.sql(
                                      "SELECT min(category_slot) FROM records"
                                      " WHERE list_parent = ?1 AND list_parent != 0"
                                      " AND category = ?3 AND category_slot > ?2");
        q.bind(1, parent).bind(2, static_cast<long long>(slot));
        if (category != 0) q.bind(3, category);
        if (!q.step()) throw db_failure{};
        return q.count(0);
    }
};
// An erase's node storage: of the chain of nodes a hole adds to, it keeps
// the first, the hole's slot, which the list keeps as pending; its nodes
// count it when fold() takes the pending holes, along their chains up to
// the top then (a node made when top doubled meanwhile copied only the
// counted holes, so this adds what adding then would have).
struct erase_nodes : list_nodes {
    unsigned long long hole = 0;
    void add_holes(unsigned long long node, unsigned long long n) {
        if (n != 1) throw db_failure{};
        if (hole == 0) hole = node;
    }
};

}  // namespace

list_state file_lists::load_list(unsigned int parent, unsigned int category) {
    query q =
        sql("SELECT used, live, top, skipped, head, pending FROM lists"
            " WHERE parent = ? AND category = ?");
    q.bind(1, parent).bind(2, category);
    list_state ls;
    if (q.step()) ls = list_of(q, 0);
    return ls;
}
list_state file_lists::list_of(const query& q, int first) {
    list_state ls;
    ls.row = !q.is_null(first);
    ls.st.used = q.count(first);
    ls.st.live = q.count(first + 1);
    ls.st.top = q.count(first + 2);
    ls.st.skipped = q.count(first + 3);
    ls.st.head = q.count(first + 4);
    unsigned int size = 0;
    const unsigned char* bytes = q.blob(first + 5, &size);
    for (unsigned int at = 0; at + 8 <= size; at += 8) {
        unsigned long long slot = 0;
        for (int k = 7; k >= 0; --k) slot = slot << 8 | bytes[at + k];
        ls.pending.push_back(slot);
    }
    return ls;
}
std::string file_lists::bytes_of(const std::vector<unsigned long long>& pending) {
    std::string out;
    for (unsigned long long slot : pending) {
        for (int k = 0; k < 8; ++k) out.push_back(static_cast<char>(slot >> (8 * k) & 0xFF));
    }
    return out;
}
void file_lists::store_list(unsigned int parent, unsigned int category, const list_state& ls) {
    store_lists(parent, category, ls, nullptr);
}
// Stores the two lists in one statement (`all` may be null).
void file_lists::store_lists(unsigned int parent, unsigned int category, const list_state& mine,
                             const list_state* all) {
    query q =
        all != nullptr
            ? sql("INSERT INTO lists(parent, category, used, live, top, skipped, head, pending)"
                  " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8),"
                  " (?1, 0, ?9, ?10, ?11, ?12, ?13, ?14)"
                  " ON CONFLICT(parent, category) DO UPDATE SET used = excluded.used,"
                  " live = excluded.live, top = excluded.top, skipped = excluded.skipped,"
                  " head = excluded.head, pending = excluded.pending")
            : sql("INSERT INTO lists(parent, category, used, live, top, skipped, head, pending)"
                  " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"
                  " ON CONFLICT(parent, category) DO UPDATE SET used = excluded.used,"
                  " live = excluded.live, top = excluded.top, skipped = excluded.skipped,"
                  " head = excluded.head, pending = excluded.pending");
    q.bind(1, parent).bind(2, category);
    int index = 3;
    std::string bytes[2];
    for (const list_state* ls : {&mine, all}) {
        if (ls == nullptr) break;
        const order_state& st = ls->st;
        for (unsigned long long v : {st.used, st.live, st.top, st.skipped, st.head}) {
            q.bind(index++, static_cast<long long>(v));
        }
        std::string& b = bytes[ls == &mine ? 0 : 1];
        b = bytes_of(ls->pending);
        q.bind_blob(index++, reinterpret_cast<const unsigned char*>(b.data()),
                    static_cast<unsigned int>(b.size()));
    }
    q.run();
}

// Counts the list's pending holes in its nodes, in one statement.
void file_lists::fold(unsigned int parent, unsigned int category, list_state& ls) {
    std::map<unsigned long long, unsigned long long> add;
    for (unsigned long long slot : ls.pending) {
        for (unsigned long long i = slot; i <= ls.st.top; i += i & (~i + 1)) ++add[i];
    }
    ls.pending.clear();
    if (add.empty()) return;
    std::string nodes;
    for (const auto& node : add) {
        nodes += (nodes.empty() ? "[[" : ",[") + std::to_string(node.first) + "," +
                 std::to_string(node.second) + "]";
    }
    nodes += "]";
    sql("INSERT INTO holes(parent, category, node, count)"
        " SELECT ?1, ?2, json_extract(value, '$[0]'), json_extract(value, '$[1]')"
        " FROM json_each(?3) WHERE true"
        " ON CONFLICT(parent, category, node) DO UPDATE SET count = count + excluded.count")
        .bind(1, parent)
        .bind(2, category)
        .bind_text(3, nodes.c_str())
        .run();
}

long long file_lists::slot_of(unsigned int parent, unsigned int category, const list_state& ls,
                              unsigned int order) {
    const list_nodes nodes{db_, parent, category, &ls.pending};
    return static_cast<long long>(order_slot(ls.st, order, nodes));
}

unsigned long long file_lists::small_count(unsigned int parent, unsigned int category, bool last) {
    query q = category == 0 ? (last ? sql("SELECT coalesce(max(slot), 0) FROM records"
                                          " WHERE parent = ?1 AND parent != 0")
                                    : sql("SELECT count(*) FROM records"
                                          " WHERE parent = ?1 AND parent != 0"))
                            : (last ? sql("SELECT coalesce(max(category_slot), 0) FROM records"
                                          " WHERE list_parent = ?1 AND list_parent != 0"
                                          " AND category = ?2")
                                    : sql("SELECT count(*) FROM records WHERE list_parent = ?1"
                                          " AND list_parent != 0 AND category = ?2"));
    q.bind(1, parent);
    if (category != 0) q.bind(2, category);
    if (!q.step()) throw db_failure{};
    return q.count(0);
}

// The slot a child appended to the parent's list of `category` (0: all)
// takes: after the last of a small list, unless that takes it past
// kSmallList; then the list is packed when it has holes, and is made large
// unless under half that many children remain. The caller stores a large
// list before it links the child's record.
long long file_lists::append(unsigned int parent, unsigned int category, list_state& ls) {
    order_state& st = ls.st;
    if (st.top == 0) {
        const unsigned long long last = small_count(parent, category, true);
        const unsigned long long live =
            last < kSmallList ? 0 : small_count(parent, category, false);
        if (last >= kSmallList && last != live) pack(parent, category, live);
        const unsigned long long next = last < kSmallList ? last + 1 : live + 1;
        if (next <= kSmallList / 2 || last < kSmallList) {  // small still
            if (ls.row) {  // its mark goes (the link marks it again at the limit)
                drop_row(parent, category);
            }
            return static_cast<long long>(next);
        }
        st = packed_order(live);
    }
    list_nodes nodes{db_, parent, category};
    return static_cast<long long>(order_append(st, nodes));
}

std::pair<long long, long long> file_lists::append_child(unsigned int parent, unsigned int category,
                                                         list_state& all, list_state& mine) {
    const long long slot = append(parent, 0, all);
    const long long category_slot = append(parent, category, mine);
    if (all.st.top != 0 && mine.st.top != 0) {
        store_lists(parent, category, mine, &all);
    } else if (all.st.top != 0 || mine.st.top != 0) {
        store_list(parent, all.st.top != 0 ? 0 : category, all.st.top != 0 ? all : mine);
    }
    // A small list that takes slot kSmallList is marked: the next change to it
    // goes the full way.
    if (all.st.top == 0 && slot == static_cast<long long>(kSmallList)) mark(parent, 0);
    if (mine.st.top == 0 && category_slot == static_cast<long long>(kSmallList)) {
        mark(parent, category);
    }
    settle(parent);
    return {slot, category_slot};
}

void file_lists::number_children(unsigned int parent) {
    std::vector<std::pair<long long, long long>> numbers;  // id, category slot
    {
        query q =
            sql("SELECT id, category FROM records WHERE parent = ?1 AND parent != 0"
                " ORDER BY slot");
        q.bind(1, parent);
        std::map<long long, long long> last;  // per category
        while (q.step()) numbers.emplace_back(q.integer(0), ++last[q.integer(1)]);
    }
    for (const auto& [id, category_slot] : numbers) {
        sql("UPDATE OR FAIL records SET category_slot = ?1, list_parent = ?2 WHERE id = ?3")
            .bind(1, category_slot)
            .bind(2, parent)
            .bind(3, id)
            .run();
    }
    sql("UPDATE OR FAIL records SET has_lists = 1 WHERE id = ?").bind(1, parent).run();
}

void file_lists::drop_row(unsigned int parent, unsigned int category) {
    sql("DELETE FROM lists WHERE parent = ? AND category = ?")
        .bind(1, parent)
        .bind(2, category)
        .run();
    row_dropped_ = true;
}

// After a change to the lists of a parent that had rows in lists: when it
// has none left, its children lose their numbers. Every slot is below
// kSmallList then (a list leaves its row only when packed under half of
// that, or emptied; a mark goes only when the list's last slot is below it).
void file_lists::settle(unsigned int parent) {
    if (!row_dropped_) return;  // a parent with rows keeps them while none goes
    row_dropped_ = false;
    query q = sql("SELECT EXISTS(SELECT 1 FROM lists WHERE parent = ?)");
    q.bind(1, parent);
    if (!q.step()) throw db_failure{};
    if (q.integer(0) != 0) return;
    sql("UPDATE OR FAIL records SET category_slot = 0, list_parent = 0"
        " WHERE list_parent = ?1 AND list_parent != 0")
        .bind(1, parent)
        .run();
    sql("UPDATE OR FAIL records SET has_lists = 0 WHERE id = ?").bind(1, parent).run();
}
// Marks the parent's small list of `category` (0: all), which took slot
// kSmallList: a row with top 0 and all counts 0.
void file_lists::mark(unsigned int parent, unsigned int category) {
    sql("INSERT INTO lists(parent, category, used, live, top, skipped, head)"
        " VALUES(?, ?, 0, 0, 0, 0, 0) ON CONFLICT(parent, category) DO NOTHING")
        .bind(1, parent)
        .bind(2, category)
        .run();
}

bool file_lists::erase(const record_row& row, list_state& all, list_state& mine) {
    const bool large = all.st.top != 0 || mine.st.top != 0;
    const bool all_kept = all.st.top != 0 && erase_from(row.parent, 0, row.slot, all);
    const bool mine_kept =
        mine.st.top != 0 && erase_from(row.parent, row.category, row.category_slot, mine);
    if (all_kept && mine_kept) {
        store_lists(row.parent, row.category, mine, &all);
    } else if (all_kept || mine_kept) {
        store_list(row.parent, all_kept ? 0 : row.category, all_kept ? all : mine);
    }
    settle(row.parent);
    return large;
}

// Takes the child at `slot` out of the large list `ls`; false when the
// list has no row any more (its last child left, or it is small again).
bool file_lists::erase_from(unsigned int parent, unsigned int category, long long slot,
                            list_state& ls) {
    bool kept = ls.st.live > 1;
    if (kept) {
        erase_nodes nodes{{db_, parent, category}, 0};
        order_erase(ls.st, static_cast<unsigned long long>(slot), nodes);
        const unsigned long long holes = ls.st.used - ls.st.live;
        if (holes >= kPackHoles && holes > 4 * ls.st.live) {
            ls.st = pack(parent, category, ls.st.live);
            ls.pending.clear();
            kept = ls.st.live >= kSmallList / 2;
        } else if (nodes.hole != 0) {
            ls.pending.push_back(nodes.hole);
            if (ls.pending.size() >= kPendingHoles) fold(parent, category, ls);
        }
    }
    if (!kept) {
        drop_row(parent, category);
        sql("DELETE FROM holes WHERE parent = ? AND category = ?")
            .bind(1, parent)
            .bind(2, category)
            .run();
    }
    return kept;
}
// Renumbers the children in the list 1..live and drops its holes.
order_state file_lists::pack(unsigned int parent, unsigned int category, unsigned long long live) {
    std::vector<long long> ids;
    {
        query q = category == 0 ? sql("SELECT id FROM records WHERE parent = ?1 AND parent != 0"
                                      " AND slot > 0 ORDER BY slot")
                                : sql("SELECT id FROM records WHERE list_parent = ?1"
                                      " AND list_parent != 0 AND category = ?2"
                                      " ORDER BY category_slot");
        q.bind(1, parent);
        if (category != 0) q.bind(2, category);
        while (q.step()) ids.push_back(q.integer(0));
    }
    if (ids.size() != live) throw db_failure{};
    for (std::size_t i = 0; i < ids.size(); ++i) {
        (category == 0 ? sql("UPDATE OR FAIL records SET slot = ? WHERE id = ?")
                       : sql("UPDATE OR FAIL records SET category_slot = ? WHERE id = ?"))
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

}  // namespace detail
}  // namespace tevhost
