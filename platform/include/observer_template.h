// Base class of observer objects that the message service can address.
#ifndef OBSERVER_TEMPLATE_H
#define OBSERVER_TEMPLATE_H

#include "gen_ipc.h"

namespace velmora {

class observer_template {
public:
    observer_template();
    virtual ~observer_template();
    // Receives one synchronous request. The default ignores it and sends no reply.
    virtual void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                          gen_ipc_msghdr sync_handle);
};

}  // namespace velmora

#endif  // OBSERVER_TEMPLATE_H
