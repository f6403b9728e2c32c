// Base class of objects that the message service can address (facades).
#ifndef FACADE_TEMPLATE_H
#define FACADE_TEMPLATE_H

#include "gen_ipc.h"

namespace velmora {

class facade_template {
public:
    facade_template();
    virtual ~facade_template();
    // Receives one synchronous request. The default ignores it and sends no reply.
    virtual void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                          gen_ipc_msghdr sync_handle);
};

}  // namespace velmora

#endif  // FACADE_TEMPLATE_H
