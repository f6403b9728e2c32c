// The link order of the persistent record store's lists (the lists and holes
// tables of file_store.h, as link_order.h keeps a large list), and the numbers
// of a parent's children in their categories, which it keeps while it has rows
// in lists. Category 0 is the list of all children. Every call runs inside a
// body of the store's connection (sqlite_db.h), a writing one to change
// anything; a failed SQLite call throws db_failure.
#ifndef TEVASH_HOST_FILE_LISTS_H
#define TEVASH_HOST_FILE_LISTS_H

#include <string>
#include <utility>
#include <vector>

#include "link_order.h"
#include "sqlite_db.h"

namespace tevhost {
namespace detail {

// A list's state, and the slots of its holes that its nodes do not count yet.
struct list_state {
    order_state st;
    std::vector<unsigned long long> pending;
    bool row = false;  // it has a row in lists (a large list's, or a mark)
};

// The columns of a record's row that the operations read.
struct record_row {
    unsigned int category;
    unsigned int parent;
    long long slot;
    long long category_slot;
    bool has_lists = false;  // it has rows in lists (its children are numbered)
};

class file_lists {
public:
    explicit file_lists(sqlite_db& db) : db_(db) {}

    // The list in columns first.. of q (an empty one when they are null).
    static list_state list_of(const query& q, int first);
    // The parent's list of `category`.
    list_state load_list(unsigned int parent, unsigned int category);
    // The slot of the child at `order` (< ls.st.live) of a large list.
    long long slot_of(unsigned int parent, unsigned int category, const list_state& ls,
                      unsigned int order);
    // The last slot (`last`), else the child count, of the parent's small list
    // of `category` (0: all; another only below a parent with rows in lists):
    // an index seek, or a scan of the index.
    unsigned long long small_count(unsigned int parent, unsigned int category, bool last);

    // Numbers the children of a parent without rows in lists in their
    // categories (in their order among all), as it is to have rows from now.
    void number_children(unsigned int parent);
    // The slots a child linked below a parent with rows in lists takes in the
    // list of all children and in that of its `category` (their states `all`
    // and `mine`), the lists stored; the parent loses its rows (and its
    // children their numbers) when no list needs one any more. The caller
    // links the child's record.
    std::pair<long long, long long> append_child(unsigned int parent, unsigned int category,
                                                 list_state& all, list_state& mine);
    // Takes the child `row` of a parent with rows in lists out of its lists
    // `all` and `mine` (that of its category), as append_child; whether either
    // was large. REQUIRES: its record no longer lists it there.
    bool erase(const record_row& row, list_state& all, list_state& mine);

private:
    static std::string bytes_of(const std::vector<unsigned long long>& pending);
    void store_list(unsigned int parent, unsigned int category, const list_state& ls);
    void store_lists(unsigned int parent, unsigned int category, const list_state& mine,
                     const list_state* all);
    void fold(unsigned int parent, unsigned int category, list_state& ls);
    long long append(unsigned int parent, unsigned int category, list_state& ls);
    // Takes the row of the parent's list of `category` out of lists.
    void drop_row(unsigned int parent, unsigned int category);
    void settle(unsigned int parent);
    void mark(unsigned int parent, unsigned int category);
    bool erase_from(unsigned int parent, unsigned int category, long long slot, list_state& ls);
    order_state pack(unsigned int parent, unsigned int category, unsigned long long live);
    query sql(const char* text) { return db_.sql(text); }

    sqlite_db& db_;
    // A row went from lists since the last settle (only then can the parent
    // have none left).
    bool row_dropped_ = false;
};

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_FILE_LISTS_H
