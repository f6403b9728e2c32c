// The in-memory record store backend: records in a hash map. Guarded by the
// store's lock (store_backend.h): reads from several threads at once, changes
// from one. Reads allocate nothing, and a lookup costs the same however many
// records the store holds.
#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "handler_ids.h"
#include "link_order.h"
#include "store_backend.h"

namespace tevhost {
namespace detail {
namespace {

struct stored_value {
    member_kind kind = member_kind::bytes;
    std::string bytes;  // short values stay inside the string, with no allocation
    member_view view() const {
        return member_view{kind, reinterpret_cast<const unsigned char*>(bytes.data()),
                           static_cast<unsigned int>(bytes.size())};
    }
};

// A record's stored values, ascending member id, in one small array: records
// hold few members, and a store of many records stays compact in memory.
class member_map {
public:
    using entry = std::pair<unsigned int, stored_value>;
    using iterator = std::vector<entry>::iterator;
    using const_iterator = std::vector<entry>::const_iterator;

    iterator find(unsigned int id) {
        auto it = lower(id);
        return it != entries_.end() && it->first == id ? it : entries_.end();
    }
    const_iterator find(unsigned int id) const { return const_cast<member_map*>(this)->find(id); }
    stored_value& operator[](unsigned int id) {
        auto it = lower(id);
        if (it == entries_.end() || it->first != id) it = entries_.insert(it, entry{id, {}});
        return it->second;
    }
    iterator begin() { return entries_.begin(); }
    iterator end() { return entries_.end(); }
    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    std::size_t size() const { return entries_.size(); }
    void clear() { entries_.clear(); }

private:
    iterator lower(unsigned int id) {
        return std::lower_bound(entries_.begin(), entries_.end(), id,
                                [](const entry& e, unsigned int key) { return e.first < key; });
    }
    std::vector<entry> entries_;
};

// The children of one parent, or those of one category, in link order (see
// link_order.h).
class order_list {
public:
    unsigned int size() const { return static_cast<unsigned int>(st_.live); }
    const std::vector<unsigned int>& slots() const { return ids_; }  // 0: a hole

    // Returns the slot of `id`, appended.
    unsigned int append(unsigned int id) {
        ids_.push_back(id);
        const unsigned long long slot = order_append(st_, *this);
        if (holes_.size() < st_.top + 1) holes_.resize(st_.top + 1, 0);
        return static_cast<unsigned int>(slot);
    }

    // Removes the child at `slot`; `renumber(id, slot)` is called for each
    // child that moves when the list is packed.
    template <typename Renumber>
    void erase(unsigned int slot, Renumber renumber) {
        if (st_.live == 1) {
            *this = order_list();
            return;
        }
        ids_[slot - 1] = 0;
        const bool pack_now = order_erase(st_, slot, *this);
        ids_.resize(st_.used);
        if (pack_now) pack(renumber);
    }

    unsigned int at(unsigned int order) const { return ids_[order_slot(st_, order, *this) - 1]; }

    // The node storage for order_state.
    unsigned long long holes(unsigned long long node) const { return holes_[node]; }
    void add_holes(unsigned long long node, unsigned long long n) {
        if (holes_.size() <= node) holes_.resize(node + 1, 0);
        holes_[node] += static_cast<unsigned int>(n);
    }
    unsigned long long next_child(unsigned long long slot) const {
        while (ids_[slot] == 0) ++slot;  // slot + 1 is at index slot
        return slot + 1;
    }

private:
    template <typename Renumber>
    void pack(Renumber renumber) {
        std::vector<unsigned int> ids;
        ids.reserve(st_.live);
        for (unsigned int id : ids_) {
            if (id == 0) continue;
            ids.push_back(id);
            renumber(id, static_cast<unsigned int>(ids.size()));
        }
        ids_.swap(ids);
        st_ = packed_order(ids_.size());
        holes_.assign(st_.top + 1, 0);
    }

    std::vector<unsigned int> ids_;    // the child in each slot (slot i at i - 1)
    std::vector<unsigned int> holes_;  // Fenwick nodes 1..top; [0] unused
    order_state st_;
};

struct record {
    unsigned int category = 0;
    unsigned int parent = 0;  // 0 when unlinked
    unsigned int slot = 0;    // in the parent's children, and in those of its category
    unsigned int category_slot = 0;
    order_list children;
    std::unordered_map<unsigned int, order_list> by_category;
    member_map members;
    unsigned int saved_in = 0;  // the transaction that saved it last (see save)
};

class memory_backend final : public store_backend {
public:
    unsigned int make(unsigned int category, unsigned int* handler_id) override {
        if (category == 0) return STORE_BAD_CATEGORY;
        unsigned int id = take_handler_id(1);
        if (id == 0) return STORE_IO;
        save(id);
        records_[id].category = category;
        records_[id].saved_in = txn_;
        *handler_id = id;
        return 0;
    }

    unsigned int make_and_copy(unsigned int category, unsigned int src_handler_id,
                               unsigned int* handler_id) override {
        if (category == 0) return STORE_BAD_CATEGORY;
        const record* src = find(src_handler_id);
        if (src == nullptr) return STORE_NO_RECORD;
        record made;
        made.category = category;
        made.members = src->members;
        unsigned int id = take_handler_id(1);
        if (id == 0) return STORE_IO;
        save(id);
        made.saved_in = txn_;
        records_.emplace(id, std::move(made));
        *handler_id = id;
        return 0;
    }

    unsigned int copy(unsigned int src_handler_id, unsigned int dst_handler_id) override {
        const record* src = find(src_handler_id);
        record* dst = find(dst_handler_id);
        if (src == nullptr || dst == nullptr) return STORE_NO_RECORD;
        save(dst_handler_id);
        if (src != dst) dst->members = src->members;
        return 0;
    }

    unsigned int init(unsigned int handler_id) override {
        record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        save(handler_id);
        r->members.clear();
        return 0;
    }

    unsigned int remove(unsigned int handler_id) override {
        auto it = records_.find(handler_id);
        if (it == records_.end()) return STORE_NO_RECORD;
        record& r = it->second;
        save(handler_id);
        if (r.parent != 0) {
            save(r.parent);
            unlink_from_parent(handler_id, r.parent);
        }
        for (unsigned int child : r.children.slots()) {
            if (child == 0) continue;
            save(child);
            record& c = records_[child];
            c.parent = c.slot = c.category_slot = 0;
        }
        records_.erase(handler_id);
        return 0;
    }

    unsigned int set_link(unsigned int parent_category, unsigned int parent_handler_id,
                          unsigned int child_category, unsigned int child_handler_id) override {
        record* parent = find(parent_handler_id);
        record* child = find(child_handler_id);
        if (parent == nullptr || child == nullptr) return STORE_NO_RECORD;
        if (parent->category != parent_category || child->category != child_category) {
            return STORE_BAD_CATEGORY;
        }
        if (child->parent != 0) return STORE_HAS_PARENT;
        // The child may not be the parent or one of its ancestors.
        for (unsigned int id = parent_handler_id; id != 0; id = records_[id].parent) {
            if (id == child_handler_id) return STORE_CYCLE;
        }
        save(parent_handler_id);
        save(child_handler_id);
        child->slot = parent->children.append(child_handler_id);
        child->category_slot = parent->by_category[child_category].append(child_handler_id);
        child->parent = parent_handler_id;
        return 0;
    }

    unsigned int delete_link(unsigned int category, unsigned int handler_id) override {
        record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        if (r->category != category) return STORE_BAD_CATEGORY;
        if (r->parent == 0) return STORE_NO_LINK;
        save(handler_id);
        save(r->parent);
        unlink_from_parent(handler_id, r->parent);
        return 0;
    }

    unsigned int child(unsigned int parent_category, unsigned int parent_handler_id,
                       unsigned int child_category, unsigned int order,
                       unsigned int* child_handler_id) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        if (parent->category != parent_category) return STORE_BAD_CATEGORY;
        auto list = parent->by_category.find(child_category);
        if (list == parent->by_category.end() || order >= list->second.size()) {
            return STORE_NO_LINK;
        }
        *child_handler_id = list->second.at(order);
        return 0;
    }

    unsigned int child_count(unsigned int parent_category, unsigned int parent_handler_id,
                             unsigned int child_category, unsigned int* count) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        if (parent->category != parent_category) return STORE_BAD_CATEGORY;
        auto list = parent->by_category.find(child_category);
        *count = list == parent->by_category.end() ? 0 : list->second.size();
        return 0;
    }

    unsigned int child_direct(unsigned int parent_handler_id, unsigned int order,
                              unsigned int* child_handler_id) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        if (order >= parent->children.size()) return STORE_NO_LINK;
        *child_handler_id = parent->children.at(order);
        return 0;
    }

    unsigned int child_count_direct(unsigned int parent_handler_id, unsigned int* count) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        *count = parent->children.size();
        return 0;
    }

    unsigned int parent(unsigned int child_category, unsigned int child_handler_id,
                        unsigned int* parent_handler_id) override {
        const record* r = find(child_handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        if (r->category != child_category) return STORE_BAD_CATEGORY;
        if (r->parent == 0) return STORE_NO_LINK;
        *parent_handler_id = r->parent;
        return 0;
    }

    unsigned int category(unsigned int handler_id, unsigned int* category) override {
        const record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        *category = r->category;
        return 0;
    }

    unsigned int get(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     void* value) override {
        member_view v{};
        const unsigned int rc = read(handler_id, member_id, decl, &v);
        if (rc == 0 && v.size != 0) std::memcpy(value, v.data, v.size);
        return rc;
    }

    unsigned int set(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     const unsigned char* bytes, unsigned int width, member_kind kind,
                     bool exact) override {
        record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        auto stored = r->members.find(member_id);
        const member_view old = stored != r->members.end() ? stored->second.view() : member_view{};
        const unsigned int rc =
            write_rule(stored != r->members.end() ? &old : nullptr, decl, exact, &width, &kind);
        if (rc != 0) return rc;
        save(handler_id);
        stored_value& v = r->members[member_id];
        v.kind = kind;
        v.bytes.assign(reinterpret_cast<const char*>(bytes), width);
        return 0;
    }

    unsigned int member(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                        member_value* out) override {
        member_view v{};
        const unsigned int rc = read(handler_id, member_id, decl, &v);
        if (rc == 0) *out = to_member_value(member_id, v);
        return rc;
    }

    std::vector<member_value> members(unsigned int handler_id) override {
        std::vector<member_value> out;
        const record* r = find(handler_id);
        if (r == nullptr) return out;
        out.reserve(r->members.size());
        for (const auto& entry : r->members) {
            out.push_back(to_member_value(entry.first, entry.second.view()));
        }
        return out;  // ascending member id, as member_map keeps them
    }

    void clear() override {
        for (const auto& entry : records_) save(entry.first);
        records_.clear();
    }

    unsigned int begin() override {
        journaling_ = true;
        ++txn_;
        undo_.clear();
        made_.clear();
        schema_saved_ = false;
        return 0;
    }
    unsigned int commit() override {
        journaling_ = false;
        undo_.clear();
        made_.clear();
        return 0;
    }
    void rollback() override {
        if (schema_saved_) schema_ = std::move(schema_before_);
        schema_saved_ = false;
        for (unsigned int id : made_) records_.erase(id);
        for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) {
            records_[it->id] = std::move(it->before);
        }
        journaling_ = false;
        undo_.clear();
        made_.clear();
    }

    std::vector<record_info> records() override {
        std::vector<record_info> out;
        out.reserve(records_.size());
        for (const auto& entry : records_) {
            out.push_back(record_info{entry.first, entry.second.category, entry.second.parent});
        }
        std::sort(out.begin(), out.end(), [](const record_info& a, const record_info& b) {
            return a.handler_id < b.handler_id;
        });
        return out;
    }

    std::shared_ptr<const kept_schema> schema() override { return schema_; }

    unsigned int keep_schema(const std::vector<member_schema>& members,
                             std::string* error) override {
        std::shared_ptr<const kept_schema> next = make_kept_schema(members);
        for (const auto& entry : records_) {
            for (const auto& m : entry.second.members) {
                auto it = next->decls.find(m.first);
                if (it == next->decls.end()) continue;
                const member_view v = m.second.view();
                for (const member_schema& d : next->members) {
                    if (d.member_id != m.first) continue;
                    *error = schema_conflict(d, entry.first, v.kind, v.size);
                    if (!error->empty()) return STORE_WIDTH;
                }
            }
        }
        if (journaling_ && !schema_saved_) {
            schema_before_ = schema_;
            schema_saved_ = true;
        }
        schema_ = std::move(next);
        return 0;
    }

private:
    record* find(unsigned int handler_id) {
        auto it = records_.find(handler_id);
        return it == records_.end() ? nullptr : &it->second;
    }

    // What a read of the member reports (read_rule), pointing into the record
    // or the declaration.
    unsigned int read(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                      member_view* out) {
        const record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        auto stored = r->members.find(member_id);
        if (stored == r->members.end()) return read_rule(nullptr, decl, out);
        const member_view v = stored->second.view();
        return read_rule(&v, decl, out);
    }

    // Takes the child out of its parent's lists and clears its link.
    // REQUIRES: the child is linked; both are saved.
    void unlink_from_parent(unsigned int child_id, unsigned int parent_id) {
        record& child = records_[child_id];
        record& parent = records_[parent_id];
        parent.children.erase(child.slot, [&](unsigned int id, unsigned int slot) {
            save(id);
            records_[id].slot = slot;
        });
        auto list = parent.by_category.find(child.category);
        list->second.erase(child.category_slot, [&](unsigned int id, unsigned int slot) {
            save(id);
            records_[id].category_slot = slot;
        });
        if (list->second.size() == 0) parent.by_category.erase(list);
        child.parent = child.slot = child.category_slot = 0;
    }

    // Inside a transaction: keeps a record as it was before its first change
    // (or that it did not exist). A record saved in this transaction carries
    // its number, so saving again costs no lookup in the log; rollback
    // restores the log backwards, so the oldest entry of a record wins.
    void save(unsigned int handler_id) {
        if (!journaling_) return;
        auto it = records_.find(handler_id);
        if (it == records_.end()) {
            made_.push_back(handler_id);
        } else if (it->second.saved_in != txn_) {
            undo_.push_back(saved{handler_id, it->second});
            it->second.saved_in = txn_;
        }
    }

    struct saved {
        unsigned int id;
        record before;
    };

    std::unordered_map<unsigned int, record> records_;  // nodes never move
    bool journaling_ = false;                           // a transaction is open
    unsigned int txn_ = 0;                              // its number
    std::deque<saved> undo_;                            // the records it changed, as they were
    std::vector<unsigned int> made_;                    // the records it made
    std::shared_ptr<const kept_schema> schema_ = make_kept_schema({});
    std::shared_ptr<const kept_schema> schema_before_;  // the schema before the transaction
    bool schema_saved_ = false;                         // schema_before_ is set
};

}  // namespace

std::unique_ptr<store_backend> make_memory_backend() {
    return std::make_unique<memory_backend>();
}

}  // namespace detail
}  // namespace tevhost
