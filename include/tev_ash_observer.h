// tev_ash_observer: the base class of every director observer. A director derives
// from it and implements the three notifications; the handler service reaches it
// through a proxy (tev_ash_observer_impl) that sends each notification as one
// synchronous message. An observer is identified by an object id (by default its
// own address) and the 16-byte name of the connection its process receives on.
//
// get_obj_id, equal and get_connection_name may run concurrently on a fully built
// observer; the identity changes only in the constructors and the destructor.
#ifndef TEV_ASH_OBSERVER_H
#define TEV_ASH_OBSERVER_H

#include "observer_template.h"
#include "tev_ash_types.h"

namespace velmora {

class TEV_ASH_API tev_ash_observer : public observer_template {
public:
    // Object id = this object's address, empty connection name.
    tev_ash_observer();
    // Object id = `obj_id`; at most 16 bytes of `connection_name` are kept. A null
    // name is reported (one trace line, one 0xE924 notification) and leaves the
    // name empty.
    tev_ash_observer(long obj_id, const char* connection_name);
    ~tev_ash_observer() override;

    tev_ash_observer(const tev_ash_observer&) = delete;
    tev_ash_observer& operator=(const tev_ash_observer&) = delete;

    // Ignores every incoming message: no reply, no trace. A director that is to
    // receive notifications from another process overrides it.
    void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                  gen_ipc_msghdr sync_handle) override;

    // Creates a handler. Writes the new handler's id to `handler_id` and 0 or a
    // failure code to `result`.
    virtual void notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE service_type,
                               unsigned int& handler_id, unsigned int src_handler_id,
                               long& result) = 0;
    // Removes a handler; 0 or a failure code to `result`.
    virtual void notify_remove(unsigned int handler_id, long& result) = 0;
    // Resets a handler; 0 or a failure code to `result`.
    virtual void notify_reset(TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                              long& result) = 0;

    // True when `obj_id` is this observer's object id.
    bool equal(long obj_id);
    long get_obj_id() const;
    // The 16-byte connection name field: NUL-padded, unterminated when full.
    const char* get_connection_name() const;

protected:
    long obj_id_;
    char connection_name_[TEV_ASH_CONNECTION_NAME_LEN];
};

}  // namespace velmora

#endif  // TEV_ASH_OBSERVER_H
