#include "tev_ash_observer_impl.h"

#include "tev_ash_messages.h"
#include "tev_ash_round_trip.h"
#include "tev_ash_trace.h"
#include "vlq_mc_client.h"

namespace velmora {

namespace {

constexpr const char* FILE_NAME = tev_ash_trace::FILE_OBSERVER_IMPL;

// The connection name field as a terminated string: the field may be full.
struct destination_name {
    explicit destination_name(const char* field) {
        tev_ash_wire::put_name(text, field);
        text[TEV_ASH_CONNECTION_NAME_LEN] = '\0';
    }
    char text[TEV_ASH_CONNECTION_NAME_LEN + 1];
};

// One notification to the remote observer: a round trip through the proxy's
// send_sync_message.
template <typename Reply, typename Request>
Reply exchange(tev_ash_observer_impl& proxy, long func_id, const Request& request) {
    return tev_ash_wire::round_trip<Reply>(
        func_id, request,
        [&proxy](long func, char* req, unsigned int req_len, char* rpl, unsigned int* rpl_len) {
            proxy.send_sync_message(func, req, req_len, rpl, rpl_len);
        });
}

}  // namespace

tev_ash_observer_impl::tev_ash_observer_impl() : tev_ash_observer(), client_(nullptr) {}

tev_ash_observer_impl::tev_ash_observer_impl(long obj_id, const char* connection_name)
    : tev_ash_observer(obj_id, connection_name), client_(new vlq_mc_client()) {}

tev_ash_observer_impl::~tev_ash_observer_impl() {
    delete client_;
    client_ = nullptr;
}

void tev_ash_observer_impl::send_sync_message(long func_id, char* req_buf, unsigned int req_buf_len,
                                              char* rpl_buf, unsigned int* rpl_buf_len) {
    bool usable = true;
    if (req_buf == nullptr) {
        TEV_ASH_TRACE(FILE_NAME, "send_sync_message", "[Error] req_buf is NULL");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_NAME, "send_sync_message");
        usable = false;
    }
    if (rpl_buf == nullptr) {
        TEV_ASH_TRACE(FILE_NAME, "send_sync_message", "[Error] rpl_buf is NULL");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_NAME, "send_sync_message");
        usable = false;
    }
    if (rpl_buf_len == nullptr) {
        TEV_ASH_TRACE(FILE_NAME, "send_sync_message", "[Error] rpl_buf_len is NULL");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_NAME, "send_sync_message");
        usable = false;
    }
    if (!usable || !can_send("send_sync_message")) return;
    const destination_name destination(connection_name_);
    client_->vlq_mc_send_sync_message(get_obj_id(), func_id, req_buf, req_buf_len, rpl_buf,
                                      rpl_buf_len, destination.text);
}

bool tev_ash_observer_impl::can_send(const char* function) {
    if (client_ != nullptr) return true;
    TEV_ASH_TRACE(FILE_NAME, function, "[Error] client_ is NULL");
    TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_NAME, function);
    return false;
}

void tev_ash_observer_impl::notify_create(TEV_ASH_CATEGORY category,
                                          TEV_ASH_SERVICE_TYPE service_type,
                                          unsigned int& handler_id, unsigned int src_handler_id,
                                          long& result) {
    if (!can_send("notify_create")) {
        result = static_cast<long>(TEV_ASH_RC_BAD_ARG);
        return;
    }
    tev_ash_create_req request;  // app_type stays 0; handler_id is not sent
    request.category = category;
    request.service_type = service_type;
    request.src_handler_id = src_handler_id;
    const auto reply = exchange<tev_ash_create_rpl>(*this, TEV_ASH_FUNC_CREATE, request);
    handler_id = reply.handler_id;
    result = static_cast<long>(reply.rc);
}

void tev_ash_observer_impl::notify_remove(unsigned int handler_id, long& result) {
    tev_ash_remove_req request;
    request.handler_id = handler_id;
    result =
        static_cast<long>(can_send("notify_remove")
                              ? exchange<tev_ash_result_rpl>(*this, TEV_ASH_FUNC_REMOVE, request).rc
                              : TEV_ASH_RC_BAD_ARG);
}

void tev_ash_observer_impl::notify_reset(TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                                         long& result) {
    tev_ash_reset_req request;
    request.service_type = service_type;
    request.handler_id = handler_id;
    result =
        static_cast<long>(can_send("notify_reset")
                              ? exchange<tev_ash_result_rpl>(*this, TEV_ASH_FUNC_RESET, request).rc
                              : TEV_ASH_RC_BAD_ARG);
}

}  // namespace velmora
