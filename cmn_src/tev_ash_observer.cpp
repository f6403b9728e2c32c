#include "tev_ash_observer.h"

#include <cstring>

#include "tev_ash_messages.h"
#include "tev_ash_trace.h"

namespace velmora {

tev_ash_observer::tev_ash_observer() : obj_id_(reinterpret_cast<long>(this)), connection_name_{} {}

tev_ash_observer::tev_ash_observer(long obj_id, const char* connection_name)
    : obj_id_(obj_id), connection_name_{} {
    if (connection_name == nullptr) {
        TEV_ASH_TRACE(tev_ash_trace::FILE_OBSERVER, "tev_ash_observer",
                      "[Error:connection_name is NULL]");
        TEV_ASH_NOTIFY(TEV_ASH_NOTIFY_NULL_ARG, tev_ash_trace::FILE_OBSERVER, "tev_ash_observer");
        return;
    }
    tev_ash_wire::put_name(connection_name_, connection_name);
}

tev_ash_observer::~tev_ash_observer() {
    obj_id_ = 0;
    std::memset(connection_name_, 0, sizeof connection_name_);
}

void tev_ash_observer::dispatch(long, char*, unsigned int, gen_ipc_msghdr) {}

bool tev_ash_observer::equal(long obj_id) {
    return obj_id == obj_id_;
}

long tev_ash_observer::get_obj_id() const {
    return obj_id_;
}

const char* tev_ash_observer::get_connection_name() const {
    return connection_name_;
}

}  // namespace velmora
