// The state the host record store's calls share (store.cpp: the platform's
// store operations; store_host.cpp: the host's own calls, seams and
// transactions), and the store's lock for one call. Internal to the host
// library.
#ifndef TEVASH_HOST_STORE_STATE_H
#define TEVASH_HOST_STORE_STATE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "host/tev_host_testing.h"
#include "store_backend.h"
#include "store_lock.h"
#include "tiv_trace.h"

namespace tevhost {
namespace detail {

struct armed_failure {
    bool any_op;
    store_op op;
    unsigned int remaining;
    unsigned int code;
};

struct store_state {
    // Guards the backend pointer, the schema and the records: shared for the
    // operations that only read, exclusive for the others, for declaring members
    // and for switching backends.
    sharded_shared_mutex mtx;
    std::unique_ptr<store_backend> backend;  // null once closed at exit
    std::unordered_map<unsigned int, member_decl> schema;
    // The open transaction, touched only by the thread that holds it (with the
    // lock held exclusively): whether every store call in it must fail (the
    // backend could not begin, or an inner scope ended without committing).
    bool txn_broken = false;

    std::mutex seam_mtx;
    std::atomic<bool> seams_on{false};  // logging or a failure is armed
    bool logging = false;
    std::vector<store_call> log;
    std::vector<armed_failure> failures;
};

// Scopes of store_transaction open in this thread; above 0 only in the thread
// that holds the transaction, which then holds the store's lock exclusively.
extern __attribute__((tls_model("initial-exec"))) thread_local unsigned int t_txn_depth;

// The store, made (and its first backend opened) on first use.
store_state& state();

// The store's lock for one call: shared or exclusive, none in the thread that
// holds the transaction (it holds the lock exclusively already).
class call_lock {
public:
    call_lock(store_state& s, bool exclusive)
        : s_(s), mode_(t_txn_depth > 0 ? int{NONE} : (exclusive ? int{EXCLUSIVE} : int{SHARED})) {
        if (mode_ == SHARED) s_.mtx.lock_shared();
        if (mode_ == EXCLUSIVE) s_.mtx.lock();
    }
    ~call_lock() {
        if (mode_ == SHARED) s_.mtx.unlock_shared();
        if (mode_ == EXCLUSIVE) s_.mtx.unlock();
    }
    call_lock(const call_lock&) = delete;
    call_lock& operator=(const call_lock&) = delete;

    // The backend to use, or null with *rc set when there is none to use: the
    // store was closed at exit, or the open transaction is broken.
    store_backend* backend(unsigned int* rc) const {
        if (mode_ == NONE && s_.txn_broken) {
            *rc = STORE_ROLLED_BACK;
            return nullptr;
        }
        if (!s_.backend) *rc = STORE_IO;
        return s_.backend.get();
    }

private:
    enum mode_t { SHARED = 0, EXCLUSIVE = 1, NONE = 2 };
    store_state& s_;
    const int mode_;
};

inline void update_seams_on(store_state& s) {
    s.seams_on.store(s.logging || !s.failures.empty());
}

// This process's declaration of `member_id`; null when it has none.
const member_decl* find_decl(store_state& s, unsigned int member_id);
// The declaration of `member_id`: this process's, else the one the store keeps
// (*kept holds it alive); null when neither declares it.
const member_decl* decl_for(store_state& s, store_backend& b, unsigned int member_id,
                            std::shared_ptr<const kept_schema>* kept);

// A read: with this process's declaration, else again with the store's kept
// one when the member has no value (only then does the declaration matter).
template <typename Read>
unsigned int read_declared(store_state& s, store_backend& b, unsigned int member_id, Read read) {
    const member_decl* own = find_decl(s, member_id);
    unsigned int rc = read(own);
    if (rc != STORE_NO_MEMBER || own != nullptr) return rc;
    std::shared_ptr<const kept_schema> kept;
    const member_decl* d = decl_for(s, b, member_id, &kept);
    return d == nullptr ? rc : read(d);
}

// A write: the declaration's range holds, else STORE_RANGE and a trace line.
template <typename Write>
unsigned int write_declared(store_state& s, store_backend& b, unsigned int member_id,
                            const unsigned char* bytes, unsigned int width, Write write) {
    std::shared_ptr<const kept_schema> kept;
    const member_decl* d = decl_for(s, b, member_id, &kept);
    if (range_rule(d, bytes, width) != 0) {
        tivGENTrcPrintf(0, 0, 0, "host store: member 0x%08X: %lld is outside [%lld, %lld]\n",
                        member_id, integer_of(d->kind, bytes, width), d->min, d->max);
        return STORE_RANGE;
    }
    return write(d);
}

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_STORE_STATE_H
