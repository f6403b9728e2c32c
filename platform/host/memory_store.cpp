// The in-memory record store backend: records in a hash map, guarded by the
// store's lock (store_backend.h). Reads allocate nothing, and a lookup costs
// the same however many records the store holds.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "store_backend.h"

namespace tevhost {
namespace detail {
namespace {

// The next id to hand out in this process, by any backend; 0 once exhausted.
std::atomic<unsigned int> g_next_handler_id{1};

struct stored_value {
    member_kind kind;
    std::vector<unsigned char> bytes;
};

struct record {
    unsigned int category = 0;
    unsigned int parent = 0;                                 // 0 when unlinked
    std::vector<unsigned int> children;                      // link order
    std::unordered_map<unsigned int, stored_value> members;  // stored values
};

class memory_backend final : public store_backend {
public:
    unsigned int make(unsigned int category, unsigned int* handler_id) override {
        if (category == 0) return STORE_BAD_CATEGORY;
        unsigned int id = take_handler_id(1);
        if (id == 0) return STORE_IO;
        save(id);
        records_[id].category = category;
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
        for (unsigned int child : r.children) {
            save(child);
            records_[child].parent = 0;
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
        parent->children.push_back(child_handler_id);
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
        r->parent = 0;
        return 0;
    }

    unsigned int child(unsigned int parent_category, unsigned int parent_handler_id,
                       unsigned int child_category, unsigned int order,
                       unsigned int* child_handler_id) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        if (parent->category != parent_category) return STORE_BAD_CATEGORY;
        unsigned int seen = 0;
        for (unsigned int id : parent->children) {
            if (find(id)->category != child_category) continue;
            if (seen++ == order) {
                *child_handler_id = id;
                return 0;
            }
        }
        return STORE_NO_LINK;
    }

    unsigned int child_count(unsigned int parent_category, unsigned int parent_handler_id,
                             unsigned int child_category, unsigned int* count) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        if (parent->category != parent_category) return STORE_BAD_CATEGORY;
        unsigned int n = 0;
        for (unsigned int id : parent->children) {
            if (find(id)->category == child_category) ++n;
        }
        *count = n;
        return 0;
    }

    unsigned int child_direct(unsigned int parent_handler_id, unsigned int order,
                              unsigned int* child_handler_id) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        if (order >= parent->children.size()) return STORE_NO_LINK;
        *child_handler_id = parent->children[order];
        return 0;
    }

    unsigned int child_count_direct(unsigned int parent_handler_id, unsigned int* count) override {
        const record* parent = find(parent_handler_id);
        if (parent == nullptr) return STORE_NO_RECORD;
        *count = static_cast<unsigned int>(parent->children.size());
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
        const record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        auto stored = r->members.find(member_id);
        const std::vector<unsigned char>* bytes = nullptr;
        if (stored != r->members.end()) {
            bytes = &stored->second.bytes;
        } else if (decl != nullptr) {
            bytes = &decl->initial;
        } else {
            return STORE_NO_MEMBER;
        }
        if (!bytes->empty()) std::memcpy(value, bytes->data(), bytes->size());
        return 0;
    }

    unsigned int set(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                     const unsigned char* bytes, unsigned int width, member_kind kind,
                     bool exact) override {
        record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        auto stored = r->members.find(member_id);
        unsigned int known = 0;  // 0: the member has no size yet
        if (stored != r->members.end()) {
            known = static_cast<unsigned int>(stored->second.bytes.size());
            if (!exact) kind = stored->second.kind;
        } else if (decl != nullptr) {
            known = decl->width;
            if (!exact) kind = decl->kind;
        }
        if (width == 0) {
            if (known == 0) return STORE_NO_MEMBER;
            width = known;
        } else if (known != 0 && known != width) {
            return STORE_WIDTH;
        }
        save(handler_id);
        stored_value& v = r->members[member_id];
        v.kind = kind;
        v.bytes.assign(bytes, bytes + width);
        return 0;
    }

    unsigned int member(unsigned int handler_id, unsigned int member_id, const member_decl* decl,
                        member_value* out) override {
        const record* r = find(handler_id);
        if (r == nullptr) return STORE_NO_RECORD;
        auto stored = r->members.find(member_id);
        if (stored != r->members.end()) {
            *out = member_value{member_id, stored->second.kind,
                                static_cast<unsigned int>(stored->second.bytes.size()),
                                stored->second.bytes};
        } else if (decl != nullptr) {
            *out = member_value{member_id, decl->kind, decl->width, decl->initial};
        } else {
            return STORE_NO_MEMBER;
        }
        return 0;
    }

    std::vector<member_value> members(unsigned int handler_id) override {
        std::vector<member_value> out;
        const record* r = find(handler_id);
        if (r == nullptr) return out;
        out.reserve(r->members.size());
        for (const auto& entry : r->members) {
            out.push_back(member_value{entry.first, entry.second.kind,
                                       static_cast<unsigned int>(entry.second.bytes.size()),
                                       entry.second.bytes});
        }
        std::sort(out.begin(), out.end(), [](const member_value& a, const member_value& b) {
            return a.member_id < b.member_id;
        });
        return out;
    }

    void clear() override {
        for (const auto& entry : records_) save(entry.first);
        records_.clear();
    }

    unsigned int begin() override {
        journaling_ = true;
        undo_.clear();
        return 0;
    }
    unsigned int commit() override {
        journaling_ = false;
        undo_.clear();
        return 0;
    }
    void rollback() override {
        for (auto& entry : undo_) {
            if (entry.second.kept) {
                records_[entry.first] = std::move(entry.second.before);
            } else {
                records_.erase(entry.first);
            }
        }
        journaling_ = false;
        undo_.clear();
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

private:
    record* find(unsigned int handler_id) {
        auto it = records_.find(handler_id);
        return it == records_.end() ? nullptr : &it->second;
    }

    // REQUIRES: `parent_id` names an existing record.
    void unlink_from_parent(unsigned int child_id, unsigned int parent_id) {
        std::vector<unsigned int>& siblings = records_[parent_id].children;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), child_id), siblings.end());
    }

    // Inside a transaction: keeps a record as it was before its first change.
    void save(unsigned int handler_id) {
        if (!journaling_ || undo_.count(handler_id) != 0) return;
        auto it = records_.find(handler_id);
        undo_[handler_id] = it == records_.end() ? saved{false, record{}} : saved{true, it->second};
    }

    struct saved {
        bool kept;  // false: the record did not exist
        record before;
    };

    std::unordered_map<unsigned int, record> records_;  // nodes never move
    bool journaling_ = false;                           // a transaction is open
    std::unordered_map<unsigned int, saved> undo_;      // the records it changed
};

}  // namespace

unsigned int take_handler_id(unsigned int floor) {
    if (floor == 0) floor = 1;
    unsigned int next = g_next_handler_id.load();
    for (;;) {
        if (next == 0) return 0;
        unsigned int id = next < floor ? floor : next;
        // id + 1 wraps to 0 after the last id, which marks the counter as exhausted.
        if (g_next_handler_id.compare_exchange_weak(next, id + 1)) return id;
    }
}

std::unique_ptr<store_backend> make_memory_backend() {
    return std::make_unique<memory_backend>();
}

}  // namespace detail
}  // namespace tevhost
