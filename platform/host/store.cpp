// The host record store: the static wud_wud_service_info operations, and the
// store's state (store_state.h) made on first use. Each operation logs itself,
// honours an armed failure (the seams, store_host.cpp), checks its pointers and
// hands the rest to the current backend. Safe from any thread: the backend runs
// under the store's lock (store_lock.h), the seams under their own mutex.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "le32.h"
#include "settings.h"
#include "store_state.h"
#include "wud_wud_service_info.h"

namespace tevhost {
namespace detail {

// Scopes of store_transaction open in this thread; above 0 only in the thread
// that holds the transaction, which then holds the store's lock exclusively.
__attribute__((tls_model("initial-exec"))) thread_local unsigned int t_txn_depth = 0;

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

// At a normal exit the persistent store is closed, which writes the log back
// into the database file and removes it, so the file alone holds every record.
// A thread still using the store (or holding a transaction) keeps it open.
void close_at_exit() {
    store_state& s = state();
    if (!s.mtx.try_lock()) return;
    s.backend.reset();
    s.mtx.unlock();
}

const member_decl* find_decl(store_state& s, unsigned int member_id) {
    auto it = s.schema.find(member_id);
    return it == s.schema.end() ? nullptr : &it->second;
}

const member_decl* decl_for(store_state& s, store_backend& b, unsigned int member_id,
                            std::shared_ptr<const tevhost::detail::kept_schema>* kept) {
    if (const member_decl* d = find_decl(s, member_id)) return d;
    *kept = b.schema();
    auto it = (*kept)->decls.find(member_id);
    return it == (*kept)->decls.end() ? nullptr : &it->second;
}

}  // namespace detail
}  // namespace tevhost

namespace {

using tevhost::store_op;
using tevhost::detail::call_lock;
using tevhost::detail::member_decl;
using tevhost::detail::state;
using tevhost::detail::store_backend;
using tevhost::detail::store_state;

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
