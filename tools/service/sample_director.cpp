#include "sample_director.h"

#include <vector>

#include "gen_ipc.h"
#include "host/tev_host.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_messages.h"
#include "tiv_trace.h"
#include "wud_wud_service_info.h"

namespace tevash_tools {

using namespace velmora;

namespace {

using store = wud_wud_service_info;

// The flag of a new record; the record store gives it no meaning here.
constexpr unsigned char RECORD_FLAG = 0;

char* own_name(char (&dst)[TEV_ASH_CONNECTION_NAME_LEN + 1], const char* field) {
    tev_ash_wire::put_name(dst, field);
    dst[TEV_ASH_CONNECTION_NAME_LEN] = '\0';
    return dst;
}

}  // namespace

sample_director::sample_director(const char* connection_name, unsigned int cmp_id)
    : tev_ash_observer(reinterpret_cast<long>(this), connection_name), cmp_id_(cmp_id) {}

sample_director::~sample_director() {
    stop();
}

unsigned int sample_director::start(TEV_ASH_APP_TYPE app_type) {
    if (started_) return TEV_ASH_RC_BAD_ARG;
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1];
    own_name(name, connection_name_);
    if (!tevhost::register_object(name, get_obj_id(), static_cast<observer_template*>(this))) {
        return tevhost::HOST_ALREADY_REGISTERED;
    }
    const unsigned int rc =
        tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_add_observer(
            app_type, this);
    if (rc != TEV_ASH_RC_OK) {
        tevhost::unregister_object(name, get_obj_id());
        return rc;
    }
    app_type_ = app_type;
    started_ = true;
    return TEV_ASH_RC_OK;
}

unsigned int sample_director::register_again() {
    if (!started_) return TEV_ASH_RC_BAD_ARG;
    return tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_add_observer(
        app_type_, this);
}

unsigned int sample_director::stop() {
    if (!started_) return TEV_ASH_RC_OK;
    const unsigned int rc =
        tev_ash_handler_facade::tev_ash_handler_get_instance()->tev_ash_handler_remove_observer(
            this);
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1];
    tevhost::unregister_object(own_name(name, connection_name_), get_obj_id());
    started_ = false;
    return rc;
}

template <typename Notify>
long sample_director::in_transaction(const char* function, Notify&& notify) {
    // Notifications take their turns here, on one mutex, rather than all at once
    // on the store's lock, whose every slot a transaction takes: with many
    // notifications in flight that halves the sleeps and wake-ups per turn.
    std::lock_guard<std::recursive_mutex> turn(turns_);
    tevhost::store_transaction txn;
    long result = 0;
    const bool stopping = stopping_.load();
    if (!stopping && !tevhost::request_expired()) notify(result);
    if (result != 0) return result;  // the transaction rolls back
    if (stopping || stopping_.load() || tevhost::request_expired()) {
        tivGENTrcPrintf(0xE200, 0x102, 0, "sample_director::%s,rolled back: %s\n", function,
                        stopping || stopping_.load()
                            ? "the director is stopping"
                            : "the handler service gave up on the request");
        return static_cast<long>(tevhost::STORE_ROLLED_BACK);
    }
    return static_cast<long>(txn.commit());
}

void sample_director::dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                               gen_ipc_msghdr sync_handle) {
    switch (func_id) {
        case TEV_ASH_FUNC_CREATE: {
            tev_ash_create_req req;
            tev_ash_create_rpl rpl;
            if (!decode(rcvbuf, rcvbuf_len, &req)) {
                rpl.rc = TEV_ASH_RC_BAD_ARG;
            } else {
                unsigned int handler_id = 0;
                const long result = in_transaction("notify_create", [&](long& r) {
                    notify_create(static_cast<TEV_ASH_CATEGORY>(req.category),
                                  static_cast<TEV_ASH_SERVICE_TYPE>(req.service_type), handler_id,
                                  req.src_handler_id, r);
                });
                rpl.handler_id = result == 0 ? handler_id : 0;
                rpl.rc = static_cast<std::uint32_t>(result);
            }
            char buf[tev_ash_create_rpl::SIZE];
            encode(rpl, buf);
            gen_ipc_reply(sync_handle, buf, sizeof buf);
            break;
        }
        case TEV_ASH_FUNC_REMOVE:
        case TEV_ASH_FUNC_RESET: {
            tev_ash_result_rpl rpl;
            long result = TEV_ASH_RC_BAD_ARG;
            if (func_id == TEV_ASH_FUNC_REMOVE) {
                tev_ash_remove_req req;
                if (decode(rcvbuf, rcvbuf_len, &req)) {
                    result = in_transaction("notify_remove",
                                            [&](long& r) { notify_remove(req.handler_id, r); });
                }
            } else {
                tev_ash_reset_req req;
                if (decode(rcvbuf, rcvbuf_len, &req)) {
                    result = in_transaction("notify_reset", [&](long& r) {
                        notify_reset(static_cast<TEV_ASH_SERVICE_TYPE>(req.service_type),
                                     req.handler_id, r);
                    });
                }
            }
            rpl.rc = static_cast<std::uint32_t>(result);
            char buf[tev_ash_result_rpl::SIZE];
            encode(rpl, buf);
            gen_ipc_reply(sync_handle, buf, sizeof buf);
            break;
        }
        default: break;  // not a notification: no reply
    }
}

void sample_director::notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE,
                                    unsigned int& handler_id, unsigned int src_handler_id,
                                    long& result) {
    ++notifications_;
    const unsigned int cat = category;
    unsigned int new_id = 0;
    const unsigned int rc =
        src_handler_id == 0
            ? store::wud_wud_service_info_make_current(cmp_id_, cat, RECORD_FLAG, &new_id)
            : store::wud_wud_service_info_make_and_copy_current(cmp_id_, cat, RECORD_FLAG,
                                                                src_handler_id, &new_id);
    handler_id = rc == 0 ? new_id : 0;
    result = static_cast<long>(rc);
}

void sample_director::notify_remove(unsigned int handler_id, long& result) {
    ++notifications_;
    result = static_cast<long>(remove_tree(handler_id));
}

void sample_director::notify_reset(TEV_ASH_SERVICE_TYPE, unsigned int handler_id, long& result) {
    ++notifications_;
    result = static_cast<long>(store::wud_wud_service_info_init_current(cmp_id_, handler_id));
}

// Deletes the record and everything below it, top down: each record's children
// are noted, then the record is deleted (which unlinks them). One worklist, no
// recursion, each record read and deleted once. A failure stops it half-way;
// the notification's transaction then keeps none of it.
unsigned int sample_director::remove_tree(unsigned int handler_id) {
    std::vector<unsigned int> pending{handler_id};
    while (!pending.empty()) {
        const unsigned int id = pending.back();
        pending.pop_back();
        unsigned int count = 0;
        unsigned int rc =
            store::wud_wud_service_info_get_child_link_num_direct(cmp_id_, id, &count);
        for (unsigned int order = 0; rc == 0 && order < count; ++order) {
            unsigned int child = 0;
            rc = store::wud_wud_service_info_get_child_link_direct(cmp_id_, id, order, &child);
            pending.push_back(child);
        }
        if (rc == 0) rc = store::wud_wud_service_info_delete_current(cmp_id_, id);
        if (rc != 0) return rc;
    }
    return 0;
}

}  // namespace tevash_tools
