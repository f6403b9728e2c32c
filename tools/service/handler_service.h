// The host handler service: the object that answers object 1 of connection
// "TEV_ASH_SRV". Directors register and withdraw their observers (functions 0
// and 1), which it keeps in the process's director manager as proxies; create,
// remove and reset (2 to 4) are routed through the director manager and answered
// with the director's result; connecters announce themselves and ask for the
// director of an application type (5 to 8), each known by one tev_ash_connecter.
//
// Every request is answered with the reply record of its function. A request
// shorter than its record is answered with 0xC1030008; a request with an unknown
// function id is not answered. dispatch may run in several threads at once.
//
// A director that cannot be reached: the library's observer proxy leaves a
// zero-filled reply (result 0) when its message is not delivered. This service's
// proxies look at the transport's outcome instead (tevhost::last_send_status), so
// such a create, remove or reset is answered with tevhost::HOST_DIRECTOR_UNREACHABLE.
// When the director's process is gone (nothing listening on its connection, the
// peer closed before replying, or its object no longer registered), every
// registration of that director is withdrawn before the answer goes out: later
// requests for its application types get 0xC1030006 (no observer), and a
// restarted director can register again. A registration refused because the type
// already has a director that no longer answers a check replaces that director.
#ifndef TEVASH_TOOLS_HANDLER_SERVICE_H
#define TEVASH_TOOLS_HANDLER_SERVICE_H

#include <map>
#include <memory>
#include <mutex>

#include "facade_template.h"
#include "tev_ash_types.h"

namespace velmora {
class tev_ash_connecter;
}

namespace tevash_tools {

class handler_service : public velmora::facade_template {
public:
    handler_service();
    // Withdraws from the director manager every registration made through this
    // service and forgets the connecters.
    ~handler_service() override;

    handler_service(const handler_service&) = delete;
    handler_service& operator=(const handler_service&) = delete;

    void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                  gen_ipc_msghdr sync_handle) override;

    // Connecter ids are given out from 1 up to this; later starts are refused.
    static constexpr unsigned int MAX_CONNECTERS = 255;

    // A director's observer as it registered: its object id and connection name.
    struct director_entry {
        long obj_id;
        char connection_name[velmora::TEV_ASH_CONNECTION_NAME_LEN + 1];
        bool same_director(const director_entry& other) const;
    };

private:
    void add_observer(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);
    void remove_observer(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);
    void create(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);
    void remove(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);
    void reset(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);
    void notify_start(const gen_ipc_msghdr& hdr);
    void set_connecter_status(long func_id, const char* req, unsigned int len,
                              const gen_ipc_msghdr& hdr);
    void get_director_observer(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);

    // Withdraws every registration of `gone` from the director manager (once,
    // however many threads found it gone). Returns how many there were.
    unsigned int withdraw(const director_entry& gone);
    // Withdraws the director that a proxy found gone while this thread routed a
    // request, if any.
    void withdraw_gone_director();
    // Withdraws the director registered for `app_type` when it no longer answers
    // a check; true when one was withdrawn.
    bool withdraw_unreachable(velmora::TEV_ASH_APP_TYPE app_type);

    // Beside the director manager's own registry, and only for what its fixed
    // interface cannot give: the object id and connection name each application
    // type's director registered with. The connecters need them to make their
    // proxies, and a director found gone is withdrawn by them. The manager keeps
    // the observers themselves and routes the requests.
    std::mutex directors_mtx_;
    std::map<velmora::TEV_ASH_APP_TYPE, director_entry> directors_;

    // Serialises every use of the connecters, which are not thread-safe.
    std::mutex connecters_mtx_;
    std::map<unsigned char, std::unique_ptr<velmora::tev_ash_connecter>> connecters_;
    unsigned int next_conn_id_ = 1;
};

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_HANDLER_SERVICE_H
