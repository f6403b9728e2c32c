// tev_ash_connecter: the serving side's record of one connecter process, known by
// a connecter id and a connection name. It keeps a control status and hands out
// one observer proxy per application type, made on first request and kept until
// the connecter is destroyed.
//
// Not thread-safe: calls on one connecter must be serialised by its user. Calls
// on different connecters are independent.
#ifndef TEV_ASH_CONNECTER_H
#define TEV_ASH_CONNECTER_H

#include <map>

#include "tev_ash_types.h"

namespace velmora {

class vlq_mc_client;
class tev_ash_observer_impl;

class TEV_ASH_API tev_ash_connecter {
public:
    // Connection control status; stored and returned unchecked.
    enum CTRL_STATUS : std::int32_t {
        CTRL_STATUS_NONE = 0,     // new connecter
        CTRL_STATUS_STARTED = 1,  // announced itself (notify start)
        CTRL_STATUS_READY = 2,    // finished its initialisation (notify init end)
        CTRL_STATUS_STOPPED = 3,  // said goodbye (notify stop)
    };

    // At most 16 bytes of `connection_name` are kept; a null name leaves it empty.
    tev_ash_connecter(unsigned char conn_id, const char* connection_name);
    ~tev_ash_connecter();

    tev_ash_connecter(const tev_ash_connecter&) = delete;
    tev_ash_connecter& operator=(const tev_ash_connecter&) = delete;

    void set_status(CTRL_STATUS ctrl_status);
    CTRL_STATUS get_status();

    // Returns the proxy for `app_type`, made from `obj_id` and `connection_name` on
    // the first request for that type (later values are ignored). On return
    // `obj_id` is the proxy's address and the first 15 bytes of `connection_name`
    // hold the proxy's connection name (byte 15 is never written). Returns 0, or
    // 0xC1030008 without any change for a null `connection_name`.
    // REQUIRES: a non-null `connection_name` points to at least 16 bytes.
    unsigned int get_director_observer(TEV_ASH_APP_TYPE app_type, long& obj_id,
                                       char* connection_name);

    unsigned char get_conn_id() const { return conn_id_; }
    // The 16-byte connection name field: NUL-padded, unterminated when full.
    const char* get_connection_name() const { return connection_name_; }

private:
    CTRL_STATUS ctrl_status_;
    unsigned char conn_id_;
    char connection_name_[TEV_ASH_CONNECTION_NAME_LEN];
    vlq_mc_client* client_;
    std::map<TEV_ASH_APP_TYPE, tev_ash_observer_impl*> director_observers_;
};

}  // namespace velmora

#endif  // TEV_ASH_CONNECTER_H
