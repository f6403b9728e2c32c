// The process's client of the handler service: singleton creation, the start-up
// wait, the connection-control operations and the handler requests. Every
// request is one round trip (tev_ash_round_trip.h) through the shared message
// client, and its outputs are read from the reply whatever the result says.
#include "tev_ash_handler_facade.h"

#include "tev_ash_messages.h"
#include "tev_ash_observer.h"
#include "tev_ash_round_trip.h"
#include "tev_ash_singleton.h"
#include "tev_ash_trace.h"
#include "vlq_mc_client.h"

namespace velmora {

namespace {

using tev_ash_trace::FILE_HANDLER_FACADE;

constexpr int SERVICE_CHECKS = 200;
constexpr int SERVICE_CHECK_SLEEP = 300;

// One round trip to object 1 of the handler service through the shared client.
template <typename Reply, typename Request>
Reply ask_service(vlq_mc_client* client, long func_id, const Request& request) {
    return tev_ash_wire::round_trip<Reply>(
        func_id, request,
        [client](long func, char* req, unsigned int req_len, char* rpl, unsigned int* rpl_len) {
            client->vlq_mc_send_sync_message(TEV_ASH_SRV_OBJ_ID, func, req, req_len, rpl, rpl_len,
                                             TEV_ASH_SRV_NAME);
        });
}

std::int32_t observer_object_id(const tev_ash_observer* observer) {
    return tev_ash_wire::object_id_to_wire(reinterpret_cast<long>(observer));
}

}  // namespace

std::atomic<tev_ash_handler_facade*> tev_ash_handler_facade::the_instance_{nullptr};
std::atomic<Zof_Mutex_Semaphore*> tev_ash_handler_facade::mtx_{nullptr};
vlq_mc_client* tev_ash_handler_facade::the_client_ = nullptr;
char tev_ash_handler_facade::connection_name_[TEV_ASH_CONNECTION_NAME_LEN] = {};
unsigned char tev_ash_handler_facade::connecter_id_ = 0;

tev_ash_handler_facade* tev_ash_handler_facade::tev_ash_handler_get_instance() {
    return tev_ash_singleton::get_or_create(the_instance_, mtx_, [] {
        auto* facade = new tev_ash_handler_facade();
        // The object is published whether or not the service answered: requests
        // go through the client that initialize_facade made in either case.
        facade->initialize_facade(facade);
        return facade;
    });
}

tev_ash_handler_facade::tev_ash_handler_facade() = default;

tev_ash_handler_facade::~tev_ash_handler_facade() = default;

unsigned int tev_ash_handler_facade::initialize_facade(tev_ash_handler_facade* /*obj_facade*/) {
    the_client_ = new vlq_mc_client();
    for (int check = 0; check < SERVICE_CHECKS; ++check) {
        if (vlq_mc_client::vlq_mc_check_facade(TEV_ASH_SRV_NAME, TEV_ASH_SRV_OBJ_ID) != 0) {
            return TEV_ASH_RC_OK;
        }
        tivZofSleep(SERVICE_CHECK_SLEEP);
    }
    TEV_ASH_TRACE(FILE_HANDLER_FACADE, "initialize_facade", "[Error]rc=%#.8lx",
                  static_cast<unsigned long>(TEV_ASH_RC_NO_SERVICE));
    TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_STARTUP, FILE_HANDLER_FACADE, "initialize_facade");
    return TEV_ASH_RC_NO_SERVICE;
}

void tev_ash_handler_facade::dispatch(long /*func_id*/, char* /*rcvbuf*/,
                                      unsigned int /*rcvbuf_len*/, gen_ipc_msghdr /*sync_handle*/) {
}

unsigned int tev_ash_handler_facade::tev_ash_handler_ctrl_notify_start(
    unsigned char& conn_id, const char* connection_name) {
    // Neither argument is sent: the request is all zeros.
    const auto reply = ask_service<tev_ash_ctrl_rpl>(the_client_, TEV_ASH_FUNC_CTRL_NOTIFY_START,
                                                     tev_ash_ctrl_req{});
    conn_id = reply.connecter_id;
    // The connection state is kept only once the service has accepted the start.
    if (reply.ret == TEV_ASH_RC_OK) {
        connecter_id_ = reply.connecter_id;
        tev_ash_wire::put_name(connection_name_, connection_name);
    }
    return reply.ret;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_ctrl_notify_init_end(unsigned char conn_id) {
    tev_ash_ctrl_req request;
    request.conn_id = conn_id;
    return ask_service<tev_ash_ctrl_rpl>(the_client_, TEV_ASH_FUNC_CTRL_NOTIFY_INIT_END, request)
        .ret;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_ctrl_notify_stop(unsigned char conn_id) {
    tev_ash_ctrl_req request;
    request.conn_id = conn_id;
    return ask_service<tev_ash_ctrl_rpl>(the_client_, TEV_ASH_FUNC_CTRL_NOTIFY_STOP, request).ret;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_ctrl_get_director_observer(
    unsigned char conn_id, TEV_ASH_APP_TYPE app_type, long& obj_id, char* connection_name) {
    tev_ash_ctrl_req request;
    request.conn_id = conn_id;
    request.app_type = static_cast<std::int32_t>(app_type);
    const auto reply = ask_service<tev_ash_ctrl_rpl>(
        the_client_, TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER, request);
    obj_id = tev_ash_wire::object_id_from_wire(reply.obj_id);
    tev_ash_wire::put_name(connection_name, reply.connection_name);
    return reply.ret;
}

unsigned char tev_ash_handler_facade::tev_ash_handler_ctrl_get_connecter_id() {
    return connecter_id_;
}

char* tev_ash_handler_facade::tev_ash_handler_ctrl_get_connection_name() {
    return connection_name_;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_create(TEV_ASH_CATEGORY category,
                                                            TEV_ASH_APP_TYPE app_type,
                                                            TEV_ASH_SERVICE_TYPE service_type,
                                                            unsigned int* handler_id,
                                                            unsigned int src_handler_id) {
    if (handler_id == nullptr) {
        TEV_ASH_TRACE(FILE_HANDLER_FACADE, "tev_ash_handler_create", "[Error]handler_id is NULL");
        return TEV_ASH_RC_BAD_ARG;
    }
    tev_ash_create_req request;
    request.category = static_cast<std::uint32_t>(category);
    request.app_type = static_cast<std::int32_t>(app_type);
    request.service_type = static_cast<std::int32_t>(service_type);
    request.src_handler_id = src_handler_id;
    const auto reply = ask_service<tev_ash_create_rpl>(the_client_, TEV_ASH_FUNC_CREATE, request);
    *handler_id = reply.handler_id;
    return reply.rc;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_remove(TEV_ASH_APP_TYPE app_type,
                                                            unsigned int handler_id) {
    tev_ash_remove_req request;
    request.app_type = static_cast<std::int32_t>(app_type);
    request.handler_id = handler_id;
    return ask_service<tev_ash_result_rpl>(the_client_, TEV_ASH_FUNC_REMOVE, request).rc;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_reset(TEV_ASH_APP_TYPE app_type,
                                                           TEV_ASH_SERVICE_TYPE service_type,
                                                           unsigned int handler_id) {
    tev_ash_reset_req request;
    request.app_type = static_cast<std::int32_t>(app_type);
    request.service_type = static_cast<std::int32_t>(service_type);
    request.handler_id = handler_id;
    return ask_service<tev_ash_result_rpl>(the_client_, TEV_ASH_FUNC_RESET, request).rc;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_add_observer(TEV_ASH_APP_TYPE app_type,
                                                                  tev_ash_observer* observer) {
    if (observer == nullptr) {
        TEV_ASH_TRACE(FILE_HANDLER_FACADE, "tev_ash_handler_add_observer",
                      "Error:observer in NULL]");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, FILE_HANDLER_FACADE,
                       "tev_ash_handler_add_observer");
        return TEV_ASH_RC_BAD_ARG;
    }
    tev_ash_add_observer_req request;
    request.app_type = static_cast<std::int32_t>(app_type);
    request.observer = observer_object_id(observer);
    tev_ash_wire::put_name(request.connection_name, observer->get_connection_name());
    return ask_service<tev_ash_ctrl_rpl>(the_client_, TEV_ASH_FUNC_ADD_OBSERVER, request).ret;
}

unsigned int tev_ash_handler_facade::tev_ash_handler_remove_observer(tev_ash_observer* observer) {
    tev_ash_remove_observer_req request;
    request.observer = observer_object_id(observer);
    return ask_service<tev_ash_ctrl_rpl>(the_client_, TEV_ASH_FUNC_REMOVE_OBSERVER, request).ret;
}

}  // namespace velmora
