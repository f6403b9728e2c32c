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
// a create, remove or reset is never answered as done, nor as failed when it may
// have been done:
// - tevhost::HOST_OUTCOME_UNKNOWN when the message reached the director and no
//   answer came (tevhost::send_outcome_unknown: timed out, or the director died
//   while working on it; also a malformed answer or none at all);
// - tevhost::HOST_DIRECTOR_UNREACHABLE when nothing was done (nothing listening,
//   expired before the director dispatched it, busy, object not registered);
// - tevhost::HOST_DIRECTOR_UNRESPONSIVE at once, without sending, while the
//   director is marked unresponsive: a message to it timed out, and it has not
//   answered since. A probe checks each such director every 100 ms and clears the
//   mark when it answers.
// Registrations of a director whose process is gone are withdrawn: when a
// request finds it gone (nothing listening, the peer closed before replying, its
// object no longer registered), before the answer goes out; and for a director
// in another process, within 100 ms of its death, by a watcher that looks every
// 50 ms whether a live process still serves its connection
// (tevhost::connection_served). Later requests for its application types get
// 0xC1030006 (no observer), and a restarted director can register again. A
// registration refused because the type already has a director that no longer
// answers a check replaces that director.
#ifndef TEVASH_TOOLS_HANDLER_SERVICE_H
#define TEVASH_TOOLS_HANDLER_SERVICE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "facade_template.h"
#include "tev_ash_types.h"

namespace velmora {
class tev_ash_connecter;
}

namespace tevash_tools {

class handler_service : public velmora::facade_template {
public:
    handler_service();
    // Stops the watcher and the probe, withdraws from the director manager every
    // registration made through this service and forgets the connecters.
    ~handler_service() override;

    handler_service(const handler_service&) = delete;
    handler_service& operator=(const handler_service&) = delete;

    void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                  gen_ipc_msghdr sync_handle) override;

    // Connecter ids run from 1 to this. A start takes the next id after the last
    // one given out that is free: never given out, or its connecter stopped.
    // Only when all are in use is a start refused.
    static constexpr unsigned int MAX_CONNECTERS = 255;

    // What the service learnt about one director, shared by its registrations.
    struct director_health {
        std::atomic<bool> unresponsive{false};  // a message to it timed out
        bool remote = false;  // served by a live process when it registered: watched
    };
    // A director's observer as it registered: its object id and connection name.
    struct director_entry {
        long obj_id;
        char connection_name[velmora::TEV_ASH_CONNECTION_NAME_LEN + 1];
        std::shared_ptr<director_health> health;
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

    // Withdraws every registration of `gone` (the same registration: the same
    // health, when it has one) from the director manager, once however many
    // threads found it gone, with a trace line giving `why`. Returns how many
    // there were.
    unsigned int withdraw(const director_entry& gone, const char* why);
    // Withdraws the director that a proxy found gone while this thread routed a
    // request, if any.
    void withdraw_gone_director();
    // Withdraws the director registered for `app_type` when it no longer answers
    // a check; true when one was withdrawn.
    bool withdraw_unreachable(velmora::TEV_ASH_APP_TYPE app_type);

    // The registered directors, each once, that `pick` accepts.
    template <typename Pick>
    std::vector<director_entry> directors_where(Pick&& pick);
    // Starts the watcher and the probe threads, once.
    void start_watching();
    // Thread bodies: every 50 ms, withdraws the remote directors no live process
    // serves; every 100 ms, checks the directors marked unresponsive.
    void watch_deaths();
    void probe_unresponsive();
    // Waits `period` or until the service stops; false when it stops.
    bool sleep_unless_stopping(std::chrono::milliseconds period);

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
    // The process that started each connecter (0: this one). Its id is given
    // again once the connecter stopped or that process is gone.
    std::map<unsigned char, int> connecter_pids_;
    unsigned int next_conn_id_ = 1;

    std::mutex watch_mtx_;
    std::condition_variable watch_cv_;
    bool stopping_ = false;
    std::thread watcher_, prober_;
};

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_HANDLER_SERVICE_H
