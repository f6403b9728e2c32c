// The host record store: the static wud_wud_service_info operations and the
// store seams (call log, failure injection, member schema, backend choice).
// Each operation logs itself, honours an armed failure, checks its pointers and
// hands the rest to the current backend. Safe from any thread: the backend runs
// under the store's lock (store_lock.h), the seams under their own mutex.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/tev_host_testing.h"
#include "le32.h"
#include "settings.h"
#include "store_backend.h"
#include "store_lock.h"
#include "tiv_trace.h"
#include "wud_wud_service_info.h"

namespace {

using tevhost::store_op;
using tevhost::detail::member_decl;
using tevhost::detail::store_backend;

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
    tevhost::detail::sharded_shared_mutex mtx;
    std::unique_ptr<store_backend> backend;  // null once closed at exit
    std::unordered_map<unsigned int, member_decl> schema;
    // The open transaction, touched only by the thread that holds it (with the
    // lock held exclusively): whether every store call in it must fail (the
    // backend could not begin, or an inner scope ended without committing).
    bool txn_broken = false;

    std::mutex seam_mtx;
    std::atomic<bool> seams_on{false};  // logging or a failure is armed
    bool logging = false;
    std::vector<tevhost::store_call> log;
    std::vector<armed_failure> failures;
};

void open_initial_backend(store_state& s) {
    const char* path = tevhost::settings::initial_store_file();
    if (path != nullptr && *path != '\0') {
        std::string error;
        s.backend = tevhost::detail::make_file_backend(path, &error);
        if (!s.backend) {
            tivGENTrcPrintf(0, 0, 0, "host store: cannot open %s (%s); using memory\n", path,
                            error.c_str());
        }
    }
    if (!s.backend) s.backend = tevhost::detail::make_memory_backend();
}

// Scopes of store_transaction open in this thread; above 0 only in the thread
// that holds the transaction, which then holds the store's lock exclusively.
__attribute__((tls_model("initial-exec"))) thread_local unsigned int t_txn_depth = 0;

void close_at_exit();

store_state& state() {
    static store_state* s = [] {
        auto* made = new store_state;  // never destroyed: the store lives until exit
        open_initial_backend(*made);
        std::atexit(close_at_exit);
        return made;
    }();
    return *s;
}

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
            *rc = tevhost::STORE_ROLLED_BACK;
            return nullptr;
        }
        if (!s_.backend) *rc = tevhost::STORE_IO;
        return s_.backend.get();
    }

private:
    enum mode_t { SHARED = 0, EXCLUSIVE = 1, NONE = 2 };
    store_state& s_;
    const int mode_;
};

// At a normal exit the persistent store is closed, which writes the log back
// into the database file and removes it, so the file alone holds every record.
// A thread still using the store (or holding a transaction) keeps it open.
void close_at_exit() {
    store_state& s = state();
    if (!s.mtx.try_lock()) return;
    s.backend.reset();
    s.mtx.unlock();
}

void update_seams_on(store_state& s) {
    s.seams_on.store(s.logging || !s.failures.empty());
}

// What a call names and where a lookup puts what it found, for the call log.
struct call_args {
    unsigned int handler_id = 0;
    unsigned int member_id = 0;
    const unsigned int* found = nullptr;
};

// Logs the call (*entry: its place in the log, else SIZE_MAX) and returns the
// code of a failure armed for it, else 0.
unsigned int enter(store_state& s, store_op op, unsigned int cmp_id, const call_args& args,
                   size_t* entry) {
    *entry = SIZE_MAX;
    if (!s.seams_on.load()) return 0;
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    if (s.logging) {
        *entry = s.log.size();
        s.log.push_back(tevhost::store_call{op, cmp_id, args.handler_id, args.member_id});
    }
    unsigned int code = 0;
    for (auto it = s.failures.begin(); it != s.failures.end();) {
        if (!it->any_op && it->op != op) {
            ++it;
            continue;
        }
        if (--it->remaining == 0) {
            if (code == 0) code = it->code;
            it = s.failures.erase(it);
        } else {
            ++it;
        }
    }
    update_seams_on(s);
    return code;
}

bool only_reads(store_op op) {
    switch (op) {
        case store_op::get_child_link:
        case store_op::get_child_link_num:
        case store_op::get_child_link_direct:
        case store_op::get_child_link_num_direct:
        case store_op::get_parent_link:
        case store_op::get_job_category_by_id:
        case store_op::get_current: return true;
        default: return false;
    }
}

// Runs `body(backend)` after the seams, under the store's lock: shared for an
// operation that only reads, exclusive for one that changes records.
template <typename Body>
unsigned int run(store_op op, unsigned int cmp_id, Body body, const call_args& args = {}) {
    store_state& s = state();
    size_t entry = SIZE_MAX;
    unsigned int rc = enter(s, op, cmp_id, args, &entry);
    if (rc == 0) {
        call_lock lock(s, !only_reads(op));
        store_backend* b = lock.backend(&rc);
        if (b != nullptr) rc = body(*b);
    }
    if (entry != SIZE_MAX) {  // the call's outcome, unless the log was cleared meanwhile
        std::lock_guard<std::mutex> lock(s.seam_mtx);
        if (entry < s.log.size() && s.log[entry].op == op) {
            s.log[entry].result = rc;
            if (rc == 0 && args.found != nullptr) s.log[entry].found = *args.found;
        }
    }
    return rc;
}

const member_decl* find_decl(store_state& s, unsigned int member_id) {
    auto it = s.schema.find(member_id);
    return it == s.schema.end() ? nullptr : &it->second;
}

// The declaration of `member_id`: this process's, else the one the store keeps
// (*kept holds it alive); null when neither declares it.
const member_decl* decl_for(store_state& s, store_backend& b, unsigned int member_id,
                            std::shared_ptr<const tevhost::detail::kept_schema>* kept) {
    if (const member_decl* d = find_decl(s, member_id)) return d;
    *kept = b.schema();
    auto it = (*kept)->decls.find(member_id);
    return it == (*kept)->decls.end() ? nullptr : &it->second;
}

// A read: with this process's declaration, else again with the store's kept
// one when the member has no value (only then does the declaration matter).
template <typename Read>
unsigned int read_declared(store_state& s, store_backend& b, unsigned int member_id, Read read) {
    const member_decl* own = find_decl(s, member_id);
    unsigned int rc = read(own);
    if (rc != tevhost::STORE_NO_MEMBER || own != nullptr) return rc;
    std::shared_ptr<const tevhost::detail::kept_schema> kept;
    const member_decl* d = decl_for(s, b, member_id, &kept);
    return d == nullptr ? rc : read(d);
}

// A write: the declaration's range holds, else STORE_RANGE and a trace line.
template <typename Write>
unsigned int write_declared(store_state& s, store_backend& b, unsigned int member_id,
                            const unsigned char* bytes, unsigned int width, Write write) {
    std::shared_ptr<const tevhost::detail::kept_schema> kept;
    const member_decl* d = decl_for(s, b, member_id, &kept);
    if (tevhost::detail::range_rule(d, bytes, width) != 0) {
        tivGENTrcPrintf(0, 0, 0, "host store: member 0x%08X: %lld is outside [%lld, %lld]\n",
                        member_id, tevhost::detail::integer_of(d->kind, bytes, width), d->min,
                        d->max);
        return tevhost::STORE_RANGE;
    }
    return write(d);
}

unsigned int set_typed(unsigned int cmp_id, unsigned int handler_id, unsigned int member_id,
                       uint32_t value, tevhost::member_kind kind) {
    unsigned char bytes[4];
    tevhost::put_le32(bytes, value);
    store_state& s = state();
    const unsigned int width = tevhost::member_width(kind);
    return run(
        store_op::set_current, cmp_id,
        [&](store_backend& b) {
            return write_declared(s, b, member_id, bytes, width, [&](const member_decl* d) {
                return b.set(handler_id, member_id, d, bytes, width, kind, false);
            });
        },
        call_args{handler_id, member_id});
}

}  // namespace

namespace velmora {

using tevhost::STORE_BAD_ARG;

unsigned int wud_wud_service_info::wud_wud_service_info_make_current(const unsigned int& cmp_id,
                                                                     const unsigned int& category,
                                                                     const unsigned char&,
                                                                     unsigned int* handler_id) {
    return run(store_op::make_current, cmp_id, [&](store_backend& b) {
        return handler_id == nullptr ? STORE_BAD_ARG : b.make(category, handler_id);
    });
}

unsigned int wud_wud_service_info::wud_wud_service_info_make_and_copy_current(
    const unsigned int& cmp_id, const unsigned int& category, const unsigned char&,
    const unsigned int& src_handler_id, unsigned int* handler_id) {
    return run(store_op::make_and_copy_current, cmp_id, [&](store_backend& b) {
        return handler_id == nullptr ? STORE_BAD_ARG
                                     : b.make_and_copy(category, src_handler_id, handler_id);
    });
}

unsigned int wud_wud_service_info::wud_wud_service_info_copy_current(
    const unsigned int& cmp_id, const unsigned int& src_handler_id,
    const unsigned int& dst_handler_id) {
    return run(store_op::copy_current, cmp_id,
               [&](store_backend& b) { return b.copy(src_handler_id, dst_handler_id); });
}

unsigned int wud_wud_service_info::wud_wud_service_info_init_current(
    const unsigned int& cmp_id, const unsigned int& handler_id) {
    return run(store_op::init_current, cmp_id,
               [&](store_backend& b) { return b.init(handler_id); });
}

unsigned int wud_wud_service_info::wud_wud_service_info_delete_current(
    const unsigned int& cmp_id, const unsigned int& handler_id) {
    return run(store_op::delete_current, cmp_id,
               [&](store_backend& b) { return b.remove(handler_id); });
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_link(
    const unsigned int& cmp_id, const unsigned int& parent_category,
    const unsigned int& parent_handler_id, const unsigned int& child_category,
    const unsigned int& child_handler_id) {
    return run(store_op::set_link, cmp_id, [&](store_backend& b) {
        return b.set_link(parent_category, parent_handler_id, child_category, child_handler_id);
    });
}

unsigned int wud_wud_service_info::wud_wud_service_info_delete_link(
    const unsigned int& cmp_id, const unsigned int& category, const unsigned int& handler_id) {
    return run(store_op::delete_link, cmp_id,
               [&](store_backend& b) { return b.delete_link(category, handler_id); });
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_child_link(
    const unsigned int& cmp_id, const unsigned int& parent_category,
    const unsigned int& parent_handler_id, const unsigned int& child_category,
    const unsigned int& order, unsigned int* child_handler_id) {
    return run(
        store_op::get_child_link, cmp_id,
        [&](store_backend& b) {
            return child_handler_id == nullptr ? STORE_BAD_ARG
                                               : b.child(parent_category, parent_handler_id,
                                                         child_category, order, child_handler_id);
        },
        call_args{parent_handler_id, 0, child_handler_id});
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_child_link_num(
    const unsigned int& cmp_id, const unsigned int& parent_category,
    const unsigned int& parent_handler_id, const unsigned int& child_category,
    unsigned int* count) {
    return run(
        store_op::get_child_link_num, cmp_id,
        [&](store_backend& b) {
            return count == nullptr
                       ? STORE_BAD_ARG
                       : b.child_count(parent_category, parent_handler_id, child_category, count);
        },
        call_args{parent_handler_id, 0, count});
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_child_link_direct(
    const unsigned int& cmp_id, const unsigned int& parent_handler_id, const unsigned int& order,
    unsigned int* child_handler_id) {
    return run(
        store_op::get_child_link_direct, cmp_id,
        [&](store_backend& b) {
            return child_handler_id == nullptr
                       ? STORE_BAD_ARG
                       : b.child_direct(parent_handler_id, order, child_handler_id);
        },
        call_args{parent_handler_id, 0, child_handler_id});
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_child_link_num_direct(
    const unsigned int& cmp_id, const unsigned int& parent_handler_id, unsigned int* count) {
    return run(
        store_op::get_child_link_num_direct, cmp_id,
        [&](store_backend& b) {
            return count == nullptr ? STORE_BAD_ARG
                                    : b.child_count_direct(parent_handler_id, count);
        },
        call_args{parent_handler_id, 0, count});
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_parent_link(
    const unsigned int& cmp_id, const unsigned int& child_category,
    const unsigned int& child_handler_id, unsigned int* parent_handler_id) {
    return run(
        store_op::get_parent_link, cmp_id,
        [&](store_backend& b) {
            return parent_handler_id == nullptr
                       ? STORE_BAD_ARG
                       : b.parent(child_category, child_handler_id, parent_handler_id);
        },
        call_args{child_handler_id, 0, parent_handler_id});
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_job_category_by_id(
    const unsigned int& cmp_id, const unsigned int& handler_id, unsigned int* category) {
    return run(
        store_op::get_job_category_by_id, cmp_id,
        [&](store_backend& b) {
            return category == nullptr ? STORE_BAD_ARG : b.category(handler_id, category);
        },
        call_args{handler_id, 0, category});
}

unsigned int wud_wud_service_info::wud_wud_service_info_get_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    void* value) {
    store_state& s = state();
    return run(
        store_op::get_current, cmp_id,
        [&](store_backend& b) {
            if (value == nullptr) return STORE_BAD_ARG;
            return read_declared(s, b, member_id, [&](const member_decl* d) {
                return b.get(handler_id, member_id, d, value);
            });
        },
        call_args{handler_id, member_id});
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    char value) {
    return set_typed(cmp_id, handler_id, member_id, static_cast<unsigned char>(value),
                     tevhost::member_kind::i8);
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    unsigned char value) {
    return set_typed(cmp_id, handler_id, member_id, value, tevhost::member_kind::u8);
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    short value) {
    return set_typed(cmp_id, handler_id, member_id, static_cast<unsigned short>(value),
                     tevhost::member_kind::i16);
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    unsigned short value) {
    return set_typed(cmp_id, handler_id, member_id, value, tevhost::member_kind::u16);
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    long value) {
    return set_typed(cmp_id, handler_id, member_id,
                     static_cast<uint32_t>(static_cast<unsigned long>(value)),
                     tevhost::member_kind::i32);
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    unsigned long value) {
    return set_typed(cmp_id, handler_id, member_id, static_cast<uint32_t>(value),
                     tevhost::member_kind::u32);
}

unsigned int wud_wud_service_info::wud_wud_service_info_set_current(const unsigned int& cmp_id,
                                                                    const unsigned int& handler_id,
                                                                    const unsigned int& member_id,
                                                                    void* value) {
    store_state& s = state();
    return run(
        store_op::set_current, cmp_id,
        [&](store_backend& b) {
            if (value == nullptr) return STORE_BAD_ARG;
            const auto* bytes = static_cast<const unsigned char*>(value);
            return write_declared(s, b, member_id, bytes, 0, [&](const member_decl* d) {
                return b.set(handler_id, member_id, d, bytes, 0, tevhost::member_kind::bytes,
                             false);
            });
        },
        call_args{handler_id, member_id});
}

}  // namespace velmora

namespace tevhost {

const char* store_op_name(store_op op) {
    switch (op) {
        case store_op::make_current: return "make_current";
        case store_op::make_and_copy_current: return "make_and_copy_current";
        case store_op::copy_current: return "copy_current";
        case store_op::init_current: return "init_current";
        case store_op::delete_current: return "delete_current";
        case store_op::set_link: return "set_link";
        case store_op::delete_link: return "delete_link";
        case store_op::get_child_link: return "get_child_link";
        case store_op::get_child_link_num: return "get_child_link_num";
        case store_op::get_child_link_direct: return "get_child_link_direct";
        case store_op::get_child_link_num_direct: return "get_child_link_num_direct";
        case store_op::get_parent_link: return "get_parent_link";
        case store_op::get_job_category_by_id: return "get_job_category_by_id";
        case store_op::get_current: return "get_current";
        case store_op::set_current: return "set_current";
    }
    return "unknown";
}

void store_log_begin() {
    store_state& s = state();
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    s.logging = true;
    s.log.clear();
    update_seams_on(s);
}

void store_log_end() {
    store_state& s = state();
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    s.logging = false;
    update_seams_on(s);
}

std::vector<store_call> store_log() {
    store_state& s = state();
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    return s.log;
}

void store_fail_op(store_op op, unsigned int nth, unsigned int code) {
    if (nth == 0) return;
    store_state& s = state();
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    s.failures.push_back(armed_failure{false, op, nth, code});
    update_seams_on(s);
}

void store_fail_nth_call(unsigned int nth, unsigned int code) {
    if (nth == 0) return;
    store_state& s = state();
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    s.failures.push_back(armed_failure{true, store_op::make_current, nth, code});
    update_seams_on(s);
}

void store_fail_clear() {
    store_state& s = state();
    std::lock_guard<std::mutex> lock(s.seam_mtx);
    s.failures.clear();
    update_seams_on(s);
}

bool declare_member(unsigned int member_id, member_kind kind, unsigned int byte_size,
                    std::vector<unsigned char> initial) {
    unsigned int width = member_width(kind, byte_size);
    if (width == 0) return false;
    initial.resize(width, 0);
    store_state& s = state();
    call_lock lock(s, true);
    s.schema[member_id] = member_decl{kind, width, std::move(initial)};
    return true;
}

void clear_schema() {
    store_state& s = state();
    call_lock lock(s, true);
    s.schema.clear();
}

namespace {

// Replaces the backend, unless this thread holds a transaction on the current one.
bool switch_backend(std::unique_ptr<detail::store_backend> next, std::string* error) {
    if (t_txn_depth > 0) {
        if (error != nullptr) *error = "a store transaction is open in this thread";
        tivGENTrcPrintf(0, 0, 0, "host store: not switched, a store transaction is open\n");
        return false;
    }
    store_state& s = state();
    call_lock lock(s, true);
    s.backend = std::move(next);
    return true;
}

}  // namespace

void store_use_memory() {
    switch_backend(detail::make_memory_backend(), nullptr);
}

bool store_use_file(const std::string& path, std::string* error, store_access access) {
    if (t_txn_depth > 0) return switch_backend(nullptr, error);
    std::string reason;
    std::unique_ptr<detail::store_backend> opened =
        detail::make_file_backend(path, &reason, access == store_access::read_only);
    if (!opened) {
        if (error != nullptr) *error = reason;
        return false;
    }
    return switch_backend(std::move(opened), error);
}

bool store_read_only() {
    store_state& s = state();
    call_lock lock(s, false);
    unsigned int rc = 0;
    store_backend* b = lock.backend(&rc);
    return b != nullptr && b->read_only();
}

bool store_backup(const std::string& path, std::string* error) {
    store_state& s = state();
    call_lock lock(s, false);
    unsigned int rc = 0;
    std::string reason = "the store is closed";
    store_backend* b = lock.backend(&rc);
    const bool ok = b != nullptr && b->backup(path, &reason);
    if (!ok && error != nullptr) *error = reason;
    return ok;
}

void store_clear() {
    store_state& s = state();
    call_lock lock(s, true);
    unsigned int rc = 0;
    if (store_backend* b = lock.backend(&rc)) b->clear();
}

std::vector<record_info> store_records() {
    store_state& s = state();
    call_lock lock(s, false);
    unsigned int rc = 0;
    store_backend* b = lock.backend(&rc);
    return b == nullptr ? std::vector<record_info>{} : b->records();
}

unsigned int member_info(unsigned int handler_id, unsigned int member_id, member_value* out) {
    if (out == nullptr) return STORE_BAD_ARG;
    store_state& s = state();
    call_lock lock(s, false);
    unsigned int rc = 0;
    store_backend* b = lock.backend(&rc);
    if (b == nullptr) return rc;
    return read_declared(s, *b, member_id, [&](const detail::member_decl* d) {
        return b->member(handler_id, member_id, d, out);
    });
}

std::vector<member_value> record_members(unsigned int handler_id) {
    store_state& s = state();
    call_lock lock(s, false);
    unsigned int rc = 0;
    store_backend* b = lock.backend(&rc);
    return b == nullptr ? std::vector<member_value>{} : b->members(handler_id);
}

unsigned int set_member_value(unsigned int handler_id, const member_value& v) {
    unsigned int width = member_width(v.kind, v.size);
    if (v.size == 0 || width != v.size || v.value.size() != v.size) return STORE_BAD_ARG;
    store_state& s = state();
    call_lock lock(s, true);
    unsigned int rc = 0;
    store_backend* b = lock.backend(&rc);
    if (b == nullptr) return rc;
    return write_declared(
        s, *b, v.member_id, v.value.data(), v.size, [&](const detail::member_decl* d) {
            return b->set(handler_id, v.member_id, d, v.value.data(), v.size, v.kind, true);
        });
}

unsigned int store_load_schema(const std::vector<member_schema>& members, std::string* error) {
    std::string why;
    std::vector<member_schema> sorted = members;
    std::sort(sorted.begin(), sorted.end(), [](const member_schema& a, const member_schema& b) {
        return a.member_id < b.member_id;
    });
    unsigned int rc = 0;
    for (std::size_t i = 0; i < sorted.size() && why.empty(); ++i) {
        why = detail::schema_fault(sorted[i]);
        if (why.empty() && i > 0 && sorted[i - 1].member_id == sorted[i].member_id) {
            why = "member declared twice";
        }
    }
    if (!why.empty()) {
        rc = STORE_BAD_ARG;
    } else {
        store_state& s = state();
        call_lock lock(s, true);
        store_backend* b = lock.backend(&rc);
        if (b != nullptr) rc = b->keep_schema(sorted, &why);
        if (rc != 0 && why.empty()) why = host_code_text(rc);
    }
    if (rc != 0) {
        tivGENTrcPrintf(0, 0, 0, "host store: schema not loaded: %s\n", why.c_str());
        if (error != nullptr) *error = why;
    }
    return rc;
}

std::vector<member_schema> store_schema() {
    store_state& s = state();
    call_lock lock(s, false);
    unsigned int rc = 0;
    store_backend* b = lock.backend(&rc);
    return b == nullptr ? std::vector<member_schema>{} : b->schema()->members;
}

// ---- Transactions. The outermost scope takes the store's lock exclusively
// and begins the backend's transaction; inner scopes only count. The thread's
// store calls skip the lock while its depth is above 0 (call_lock).

store_transaction::store_transaction() {
    store_state& s = state();
    if (t_txn_depth++ > 0) return;
    s.mtx.lock();
    s.txn_broken = !s.backend || s.backend->begin() != 0;
    if (s.txn_broken) {
        tivGENTrcPrintf(0, 0, 0, "host store: cannot begin a transaction; its calls will fail\n");
    }
}

store_transaction::~store_transaction() {
    store_state& s = state();
    if (!done_) s.txn_broken = true;  // ended without commit: nothing is kept
    if (--t_txn_depth > 0) return;
    if (s.backend) s.backend->rollback();  // nothing to undo after a commit
    s.txn_broken = false;
    s.mtx.unlock();
}

unsigned int store_transaction::commit() {
    store_state& s = state();
    if (done_) return STORE_BAD_ARG;
    done_ = true;
    if (t_txn_depth > 1) return s.txn_broken ? STORE_ROLLED_BACK : 0u;
    if (s.txn_broken) {
        if (s.backend) s.backend->rollback();
        return STORE_ROLLED_BACK;
    }
    unsigned int rc = s.backend->commit();
    if (rc != 0) s.txn_broken = true;
    return rc;
}

}  // namespace tevhost
