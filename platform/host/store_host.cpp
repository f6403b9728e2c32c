// The host's own calls on the record store (host/tev_host.h and
// host/tev_host_testing.h): the seams (call log, failure injection), member
// declarations and values, the member schema the store keeps, the choice of
// backend, and store transactions. Safe from any thread, as store.cpp.
#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store_state.h"

namespace tevhost {

using detail::armed_failure;
using detail::call_lock;
using detail::member_decl;
using detail::state;
using detail::store_backend;
using detail::store_state;
using detail::t_txn_depth;

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
