#include "sample_director.h"

#include "gen_ipc.h"
#include "host/tev_host.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_messages.h"
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
    started_ = true;
    return TEV_ASH_RC_OK;
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
                long result = 0;
                notify_create(static_cast<TEV_ASH_CATEGORY>(req.category),
                              static_cast<TEV_ASH_SERVICE_TYPE>(req.service_type), handler_id,
                              req.src_handler_id, result);
                rpl.handler_id = handler_id;
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
            long result = 0;
            if (func_id == TEV_ASH_FUNC_REMOVE) {
                tev_ash_remove_req req;
                if (decode(rcvbuf, rcvbuf_len, &req)) {
                    notify_remove(req.handler_id, result);
                } else {
                    result = TEV_ASH_RC_BAD_ARG;
                }
            } else {
                tev_ash_reset_req req;
                if (decode(rcvbuf, rcvbuf_len, &req)) {
                    notify_reset(static_cast<TEV_ASH_SERVICE_TYPE>(req.service_type),
                                 req.handler_id, result);
                } else {
                    result = TEV_ASH_RC_BAD_ARG;
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

// Deletes the record and everything below it, deepest first, one record per
// round, without recursion.
unsigned int sample_director::remove_tree(unsigned int handler_id) {
    for (;;) {
        unsigned int leaf = handler_id;
        for (;;) {
            unsigned int count = 0;
            unsigned int rc =
                store::wud_wud_service_info_get_child_link_num_direct(cmp_id_, leaf, &count);
            if (rc != 0) return rc;
            if (count == 0) break;
            unsigned int child = 0;
            rc = store::wud_wud_service_info_get_child_link_direct(cmp_id_, leaf, 0, &child);
            if (rc != 0) return rc;
            leaf = child;
        }
        const unsigned int rc = store::wud_wud_service_info_delete_current(cmp_id_, leaf);
        if (rc != 0 || leaf == handler_id) return rc;
    }
}

}  // namespace tevash_tools
