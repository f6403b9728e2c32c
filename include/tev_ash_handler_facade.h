// tev_ash_handler_facade: the process's one client of the handler service
// ("TEV_ASH_SRV", object 1). It owns the message client, waits for the service on
// first use, offers the connection-control operations to connecters, and sends
// the requests that create, reset and remove handlers and register director
// observers. Every request is one synchronous round trip; results other than the
// library's own 0xC1030008 are the service's, passed through unchanged.
//
// tev_ash_handler_get_instance may be called from any thread; after it returns,
// all operations may run concurrently (they share the message client, which
// carries concurrent sends).
#ifndef TEV_ASH_HANDLER_FACADE_H
#define TEV_ASH_HANDLER_FACADE_H

#include <atomic>

#include "facade_template.h"
#include "tev_ash_types.h"
#include "zof.h"

namespace velmora {

class vlq_mc_client;
class tev_ash_observer;

class TEV_ASH_API tev_ash_handler_facade : public facade_template {
public:
    // The singleton, created on the first call. The first call creates the
    // message client and checks up to 200 times, 300 ms apart, that the handler
    // service answers; the object is published even when it never does.
    static tev_ash_handler_facade* tev_ash_handler_get_instance();

    tev_ash_handler_facade();
    ~tev_ash_handler_facade() override;

    tev_ash_handler_facade(const tev_ash_handler_facade&) = delete;
    tev_ash_handler_facade& operator=(const tev_ash_handler_facade&) = delete;

    // Creates the message client and waits for the handler service. 0 when it
    // answered, 0xC1030007 (with a trace line and a 0xE926 notification) when not.
    unsigned int initialize_facade(tev_ash_handler_facade* obj_facade);

    // Ignores every incoming message.
    void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                  gen_ipc_msghdr sync_handle) override;

    // Connection control, for connecter processes. Each returns the reply's ret.
    // notify_start writes the service's connecter id to `conn_id` and, on success,
    // keeps it and at most 16 bytes of `connection_name` as this process's
    // connection state. REQUIRES: `connection_name` is not null.
    unsigned int tev_ash_handler_ctrl_notify_start(unsigned char& conn_id,
                                                   const char* connection_name);
    unsigned int tev_ash_handler_ctrl_notify_init_end(unsigned char conn_id);
    unsigned int tev_ash_handler_ctrl_notify_stop(unsigned char conn_id);
    // Asks for the director observer of `app_type`: its object id to `obj_id`, 16
    // bytes of its connection name to `connection_name` (unterminated when full).
    // REQUIRES: `connection_name` points to at least 16 bytes.
    unsigned int tev_ash_handler_ctrl_get_director_observer(unsigned char conn_id,
                                                            TEV_ASH_APP_TYPE app_type,
                                                            long& obj_id, char* connection_name);
    unsigned char tev_ash_handler_ctrl_get_connecter_id();
    // The 16-byte connection name field: NUL-padded, unterminated when full.
    char* tev_ash_handler_ctrl_get_connection_name();

    // Handler requests. create stores the reply's handler id through `handler_id`
    // whatever the result; 0xC1030008 for a null `handler_id` (nothing sent).
    unsigned int tev_ash_handler_create(TEV_ASH_CATEGORY category, TEV_ASH_APP_TYPE app_type,
                                        TEV_ASH_SERVICE_TYPE service_type,
                                        unsigned int* handler_id, unsigned int src_handler_id);
    unsigned int tev_ash_handler_remove(TEV_ASH_APP_TYPE app_type, unsigned int handler_id);
    unsigned int tev_ash_handler_reset(TEV_ASH_APP_TYPE app_type,
                                       TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id);
    // Registers a director's observer, identified by its address as a 32-bit value
    // and its connection name. 0xC1030008 for a null observer (nothing sent).
    unsigned int tev_ash_handler_add_observer(TEV_ASH_APP_TYPE app_type,
                                              tev_ash_observer* observer);
    unsigned int tev_ash_handler_remove_observer(tev_ash_observer* observer);

private:
    static std::atomic<tev_ash_handler_facade*> the_instance_;
    static std::atomic<Zof_Mutex_Semaphore*> mtx_;
    static vlq_mc_client* the_client_;
    static char connection_name_[TEV_ASH_CONNECTION_NAME_LEN];
    static unsigned char connecter_id_;
};

}  // namespace velmora

#endif  // TEV_ASH_HANDLER_FACADE_H
