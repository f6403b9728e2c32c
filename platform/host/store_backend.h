// The storage behind the host record store. The public store operations check
// their seams (call log, failure injection) and the member schema, then call one
// method of the current backend under the store's lock: shared for the methods
// that only read (child, child_count, child_direct, child_count_direct, parent,
// category, get, member, members, records), exclusive for the others. A backend relies on that
// lock among the threads of this process and adds what else it needs (the file
// backend keeps other processes out with transactions). Every method returns 0
// or one of the tevhost::STORE_* codes and, on failure, changes nothing and
// writes no out-value. Out-pointers are never null here: the public operations
// check them.
#ifndef TEVASH_HOST_STORE_BACKEND_H
#define TEVASH_HOST_STORE_BACKEND_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/tev_host.h"

namespace tevhost {
namespace detail {

// A reader-writer lock whose readers do not share a cache line: each thread
// reads under its own slot's mutex, a writer takes every slot (always in the
// same order). Store reads from several threads then scale instead of
// contending on one counter. There are as many slots as hardware threads (at
// most 16), since every slot costs a writer a lock and an unlock. Usable with
// std::shared_lock and std::unique_lock.
class sharded_shared_mutex {
public:
    sharded_shared_mutex() : used_(slot_count()) {}

    void lock() {
        for (std::size_t i = 0; i < used_; ++i) slots_[i].mtx.lock();
    }
    bool try_lock() {
        for (std::size_t i = 0; i < used_; ++i) {
            if (slots_[i].mtx.try_lock()) continue;
            while (i > 0) slots_[--i].mtx.unlock();
            return false;
        }
        return true;
    }
    void unlock() {
        for (std::size_t i = 0; i < used_; ++i) slots_[i].mtx.unlock();
    }
    void lock_shared() { slots_[own_slot() % used_].mtx.lock(); }
    void unlock_shared() { slots_[own_slot() % used_].mtx.unlock(); }

private:
    static constexpr std::size_t MAX_SLOTS = 16;
    struct alignas(64) slot {
        std::mutex mtx;
    };
    static std::size_t slot_count() {
        const std::size_t n = std::thread::hardware_concurrency();
        return n == 0 ? 1 : (n < MAX_SLOTS ? n : MAX_SLOTS);
    }
    // The thread's number, taken on its first read: the lowest number no live
    // thread holds, handed back when the thread ends. Threads alive at the same
    // time therefore read under different slots, up to the number of slots.
    static std::size_t own_slot() {
        // initial-exec and a constant initializer: the host platform is linked,
        // never loaded later, so the number is read without a TLS lookup call
        // or an initialisation guard.
        __attribute__((tls_model("initial-exec"))) static thread_local std::size_t mine = UNSET;
        if (mine == UNSET) {
            mine = take_number();
            static thread_local const struct releaser {
                ~releaser() { give_back(mine); }
            } release_at_thread_end;
            (void)release_at_thread_end;
        }
        return mine;
    }
    static constexpr std::size_t UNSET = ~std::size_t{0};
    static constexpr std::size_t SHARED_NUMBER = 64;  // when all 64 are taken
    static std::atomic<std::uint64_t>& numbers_in_use() {
        static std::atomic<std::uint64_t> bits{0};
        return bits;
    }
    static std::size_t take_number() {
        std::atomic<std::uint64_t>& bits = numbers_in_use();
        std::uint64_t seen = bits.load();
        for (;;) {
            if (~seen == 0) return SHARED_NUMBER;
            const std::size_t n = static_cast<std::size_t>(__builtin_ctzll(~seen));
            if (bits.compare_exchange_weak(seen, seen | std::uint64_t{1} << n)) return n;
        }
    }
    static void give_back(std::size_t n) {
        if (n < SHARED_NUMBER) numbers_in_use().fetch_and(~(std::uint64_t{1} << n));
    }

    const std::size_t used_;
    slot slots_[MAX_SLOTS];
};

// What the schema says about a member: its width in bytes and its initial value
// (exactly `width` bytes, little-endian).
struct member_decl {
    member_kind kind;
    unsigned int width;
    std::vector<unsigned char> initial;
};

// Children in link order, as both backends keep them. Each child linked under
// a parent takes the parent's next slot (1, 2, ...); an unlinked child leaves a
// hole, except the last slot, which is handed out again. A Fenwick tree over
// the slots counts the holes: node i counts those in (i - lowbit(i), i], for i
// up to `top`, the smallest power of two that holds every slot used. The child
// at an order is then found in O(log n) reads of nodes, and a hole is made in
// O(log n) node updates, with no renumbering. Holes left by unlinking the first
// child are only counted (`skipped`), and `head` moves to the next child (one
// index seek): a list emptied from the front, as a copy does, and a list
// without other holes find a child by order in one read. When top doubles, node
// 2 * top starts as a copy of node top (the slots above are unused). A list with
// more holes than children is packed again by the backend, which renumbers its
// children in one pass (amortised O(1) per hole).
struct order_state {
    unsigned long long used = 0;     // slots handed out
    unsigned long long live = 0;     // children
    unsigned long long top = 0;      // Fenwick size; 0 while empty
    unsigned long long skipped = 0;  // holes before head that no node counts
    unsigned long long head = 0;     // the first child's slot
};

// Where a backend keeps the nodes. P provides:
//   unsigned long long holes(node)      the count in a node (0 when never set)
//   void add_holes(node, n)             adds n to a node
//   unsigned long long next_child(slot) the slot of the first child after `slot`

// The slot of the child at `order` (< live).
template <typename P>
unsigned long long order_slot(const order_state& st, unsigned long long order, const P& p) {
    const unsigned long long target = order + st.skipped;
    if (st.used == st.live + st.skipped) return target + 1;
    unsigned long long pos = 0, rest = target;  // rest: slots still to pass
    for (unsigned long long step = st.top; step != 0; step >>= 1) {
        const unsigned long long passed = step - p.holes(pos + step);
        if (passed <= rest) {
            pos += step;
            rest -= passed;
        }
    }
    return pos + 1;
}

// Returns the slot of a child appended to the list.
template <typename P>
unsigned long long order_append(order_state& st, P& p) {
    ++st.used;
    if (++st.live == 1) st.head = st.used;
    unsigned long long top = st.top == 0 ? 1 : st.top;
    while (top < st.used) top <<= 1;
    if (top != st.top && st.top != 0) {
        const unsigned long long below = p.holes(st.top);
        if (below != 0) p.add_holes(top, below);
    }
    st.top = top;
    return st.used;
}

// Takes the child at `slot` out of the list (the backend no longer lists it
// there). Returns true when the list should be packed. REQUIRES: live > 1 (the
// backend drops a list whose last child leaves).
template <typename P>
bool order_erase(order_state& st, unsigned long long slot, P& p) {
    --st.live;
    if (slot == st.used) {
        --st.used;
    } else if (slot == st.head) {
        ++st.skipped;
        st.head = p.next_child(slot);
    } else {
        for (unsigned long long i = slot; i <= st.top; i += i & (~i + 1)) p.add_holes(i, 1);
    }
    const unsigned long long holes = st.used - st.live;
    return holes > st.live && holes >= 16;
}

// The state of a list of `live` children packed into slots 1..live.
inline order_state packed_order(unsigned long long live) {
    order_state st;
    st.used = st.live = live;
    st.head = 1;
    st.top = 1;
    while (st.top < live) st.top <<= 1;
    return st;
}

class store_backend {
public:
    virtual ~store_backend() = default;

    virtual unsigned int make(unsigned int category, unsigned int* handler_id) = 0;
    virtual unsigned int make_and_copy(unsigned int category, unsigned int src_handler_id,
                                       unsigned int* handler_id) = 0;
    virtual unsigned int copy(unsigned int src_handler_id, unsigned int dst_handler_id) = 0;
    virtual unsigned int init(unsigned int handler_id) = 0;
    virtual unsigned int remove(unsigned int handler_id) = 0;
    virtual unsigned int set_link(unsigned int parent_category, unsigned int parent_handler_id,
                                  unsigned int child_category, unsigned int child_handler_id) = 0;
    virtual unsigned int delete_link(unsigned int category, unsigned int handler_id) = 0;
    virtual unsigned int child(unsigned int parent_category, unsigned int parent_handler_id,
                               unsigned int child_category, unsigned int order,
                               unsigned int* child_handler_id) = 0;
    virtual unsigned int child_count(unsigned int parent_category, unsigned int parent_handler_id,
                                     unsigned int child_category, unsigned int* count) = 0;
    virtual unsigned int child_direct(unsigned int parent_handler_id, unsigned int order,
                                      unsigned int* child_handler_id) = 0;
    virtual unsigned int child_count_direct(unsigned int parent_handler_id,
                                            unsigned int* count) = 0;
    virtual unsigned int parent(unsigned int child_category, unsigned int child_handler_id,
                                unsigned int* parent_handler_id) = 0;
    virtual unsigned int category(unsigned int handler_id, unsigned int* category) = 0;
    // Writes the stored value, or the declared initial value, into `value`.
    // `decl` is null for an undeclared member.
    virtual unsigned int get(unsigned int handler_id, unsigned int member_id,
                             const member_decl* decl, void* value) = 0;
    // Stores `width` bytes; `width` 0 means "the member's own size" (stored, else
    // declared). A value already stored keeps its kind, else it takes the declared
    // kind, else `kind`; with `exact` the value takes `kind` whatever it had.
    virtual unsigned int set(unsigned int handler_id, unsigned int member_id,
                             const member_decl* decl, const unsigned char* bytes,
                             unsigned int width, member_kind kind, bool exact) = 0;
    // The stored value with its kind, else the declared one (`decl` null when
    // undeclared).
    virtual unsigned int member(unsigned int handler_id, unsigned int member_id,
                                const member_decl* decl, member_value* out) = 0;
    // The stored values, ascending member id; empty when there is no such record.
    virtual std::vector<member_value> members(unsigned int handler_id) = 0;

    // A transaction that the following calls join (see store_transaction):
    // begin returns 0 or STORE_IO; commit returns 0, or STORE_IO after rolling
    // back; rollback undoes everything since begin (nothing when none is open).
    virtual unsigned int begin() = 0;
    virtual unsigned int commit() = 0;
    virtual void rollback() = 0;

    virtual void clear() = 0;
    // Whether every change fails with STORE_READ_ONLY.
    virtual bool read_only() const { return false; }
    // Writes a consistent copy of the store to a new file at `path`; false with
    // *error set when it cannot (nothing is left at `path` then).
    virtual bool backup(const std::string& path, std::string* error) {
        (void)path;
        *error = "the in-memory store has no file to back up";
        return false;
    }
    virtual std::vector<record_info> records() = 0;
};

// Takes the next handler id from the process-wide counter that every backend
// uses, so an id is never reused while the process lives, whichever backend made
// it. The id returned is at least `floor` (a persistent store passes the first id
// its file has not handed out yet); 0 when the 32-bit ids are used up.
unsigned int take_handler_id(unsigned int floor);

// A fresh in-memory backend.
std::unique_ptr<store_backend> make_memory_backend();

// Opens the persistent backend on `path` (creating the file when missing); null
// with *error set when it cannot. A file this user may not write (or that sits
// in a directory this user may not write), or `read_only`, is opened read-only:
// it must exist and nothing is written to it.
std::unique_ptr<store_backend> make_file_backend(const std::string& path, std::string* error,
                                                 bool read_only = false);

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_STORE_BACKEND_H
