#include "tev_ash_connecter.h"

#include "tev_ash_messages.h"
#include "tev_ash_observer_impl.h"
#include "vlq_mc_client.h"

namespace velmora {

namespace {
// A name handed back to the caller keeps its last byte for the caller's terminator.
constexpr unsigned int RETURNED_NAME_MAX = TEV_ASH_CONNECTION_NAME_LEN - 1;
}  // namespace

tev_ash_connecter::tev_ash_connecter(unsigned char conn_id, const char* connection_name)
    : ctrl_status_(CTRL_STATUS_NONE), conn_id_(conn_id), connection_name_{}, client_(nullptr) {
    client_ = new vlq_mc_client();
    tev_ash_wire::put_name(connection_name_, connection_name);
}

tev_ash_connecter::~tev_ash_connecter() {
    delete client_;
    client_ = nullptr;
    for (auto& entry : director_observers_) {
        delete entry.second;
        entry.second = nullptr;
    }
    director_observers_.clear();
}

void tev_ash_connecter::set_status(CTRL_STATUS ctrl_status) {
    ctrl_status_ = ctrl_status;
}

tev_ash_connecter::CTRL_STATUS tev_ash_connecter::get_status() {
    return ctrl_status_;
}

unsigned int tev_ash_connecter::get_director_observer(TEV_ASH_APP_TYPE app_type, long& obj_id,
                                                      char* connection_name) {
    if (connection_name == nullptr) return TEV_ASH_RC_BAD_ARG;
    auto it = director_observers_.find(app_type);
    if (it == director_observers_.end()) {
        auto* proxy = new tev_ash_observer_impl(obj_id, connection_name);
        try {
            it = director_observers_.emplace(app_type, proxy).first;
        } catch (...) {
            delete proxy;
            throw;
        }
    }
    const tev_ash_observer_impl* proxy = it->second;
    obj_id = reinterpret_cast<long>(proxy);
    tev_ash_wire::put_name(connection_name, proxy->get_connection_name(), RETURNED_NAME_MAX);
    return TEV_ASH_RC_OK;
}

}  // namespace velmora
