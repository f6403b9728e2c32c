// tev_ash_observer_impl: the proxy of a director's observer that lives in another
// process. Each notification becomes one synchronous message (functions 2, 3 and
// 4) to the remote observer's object id on its connection, and the reply is
// written back through the notification's out-parameters. The proxy owns its
// message client.
//
// Notifications on one proxy may run concurrently: each builds its request and
// reply on its own stack, and the message client carries concurrent sends.
#ifndef TEV_ASH_OBSERVER_IMPL_H
#define TEV_ASH_OBSERVER_IMPL_H

#include "tev_ash_observer.h"

namespace velmora {

class vlq_mc_client;

class TEV_ASH_API tev_ash_observer_impl : public tev_ash_observer {
public:
    // A proxy without a message client: its notifications send nothing, report the
    // missing client and answer 0xC1030008.
    tev_ash_observer_impl();
    // A proxy of observer `obj_id` on connection `connection_name`, with its own client.
    tev_ash_observer_impl(long obj_id, const char* connection_name);
    ~tev_ash_observer_impl() override;

    // Sends one request to the remote observer and waits for the reply, written
    // into `rpl_buf` bounded by *rpl_buf_len. Each null pointer, and a missing
    // message client, is reported (trace line and 0xE924 notification); then
    // nothing is sent.
    void send_sync_message(long func_id, char* req_buf, unsigned int req_buf_len, char* rpl_buf,
                           unsigned int* rpl_buf_len);

    void notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE service_type,
                       unsigned int& handler_id, unsigned int src_handler_id,
                       long& result) override;
    void notify_remove(unsigned int handler_id, long& result) override;
    void notify_reset(TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                      long& result) override;

private:
    // False (with a trace line under `function` and a 0xE924 notification) when
    // this proxy has no message client.
    bool can_send(const char* function);

    vlq_mc_client* client_;
};

}  // namespace velmora

#endif  // TEV_ASH_OBSERVER_IMPL_H
