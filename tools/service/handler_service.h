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
//
// Host-only requests for the tools that look into a running service (`tevash
// status` and `tevash monitor`), with function ids the library never sends
// (their layouts are in platform/host/ipc_frame.h beside the frame format):
// - HOST_FUNC_STATUS: the service's pid, start time and store file, its
//   directors, connecters and the open connections of each peer process;
// - HOST_FUNC_MONITOR: the lines of the monitor ring after a sequence number,
//   waiting up to MONITOR_MAX_WAIT_MS for one. From the first such request until
//   every process that asked has ended, each request the service answers and
//   each notification it sends a director is one line in a ring of
//   MONITOR_RING lines; a monitor that does not ask in time loses the oldest
//   lines, which the gap in sequence numbers counts. While none is attached a
//   request costs one relaxed atomic load more. A monitor request of any size
//   but 16 bytes is answered 0xC1030008 and traced (at most once a second).
#ifndef TEVASH_TOOLS_HANDLER_SERVICE_H
#define TEVASH_TOOLS_HANDLER_SERVICE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "facade_template.h"
#include "tev_ash_types.h"

namespace velmora {
class tev_ash_connecter;
}

namespace tevash_tools {

constexpr long HOST_FUNC_STATUS = 0x7E01;
constexpr long HOST_FUNC_MONITOR = 0x7E02;
constexpr unsigned int MONITOR_RING = 1024;
constexpr unsigned int MONITOR_MAX_WAIT_MS = 1000;

// What HOST_FUNC_STATUS answers.
struct service_status {
    int pid = 0;
    long long started_us = 0;  // wall clock, microseconds since the epoch
    std::string store;         // the record store file it shares; empty when none
    struct director {
        int app_type = 0;
        long obj_id = 0;
        int pid = 0;  // the process that registered it
        bool answering = true;
        std::string connection;
    };
    struct connecter {
        unsigned int id = 0;
        int status = 0;  // tev_ash_connecter::CTRL_STATUS
        int pid = 0;     // the process that started it
        std::string name;
    };
    struct peer {
        int pid = 0;
        int connections = 0;
    };
    std::vector<director> directors;    // ascending application type
    std::vector<connecter> connecters;  // ascending id
    std::vector<peer> peers;            // ascending pid
};
std::string encode_status(const service_status& s);
bool decode_status(const char* text, unsigned int len, service_status* out);

// One line of the monitor ring: a request the service answered, or a
// notification it sent a director, with the answer.
struct monitor_line {
    enum : unsigned int {  // the fields the line carries
        APP_TYPE = 1u << 0,
        SERVICE_TYPE = 1u << 1,
        CATEGORY = 1u << 2,
        HANDLER_ID = 1u << 3,
        SOURCE_ID = 1u << 4,
        OBJECT_ID = 1u << 5,
        CONNECTER = 1u << 6,
        NAME = 1u << 7,
        RESULT = 1u << 8,        // answered; a request too short is answered too
        NOTIFICATION = 1u << 9,  // sent to a director (pid: the director's)
    };
    static constexpr unsigned int SIZE = 80;  // bytes on the wire
    unsigned long long seq = 0;
    long long time_us = 0;  // wall clock when it came in (or was sent)
    unsigned int latency_us = 0;
    int pid = 0;  // the sender's; 0 in the service's own process
    long func_id = 0;
    unsigned int fields = 0;
    unsigned int app_type = 0, service_type = 0, category = 0, handler_id = 0, source_id = 0,
                 connecter = 0, result = 0;
    long obj_id = 0;
    char name[velmora::TEV_ASH_CONNECTION_NAME_LEN + 1] = {};
};
void encode_monitor_line(const monitor_line& l, char* out);  // SIZE bytes
monitor_line decode_monitor_line(const char* in);
// "create", "notify_reset", ...; "function <id>" for others.
std::string function_name(long func_id, bool notification);
// Words for a result code of the library, the service or the store ("" for 0).
std::string result_words(unsigned int code);

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
        int pid = 0;  // the process that registered it
        char connection_name[velmora::TEV_ASH_CONNECTION_NAME_LEN + 1];
        std::shared_ptr<director_health> health;
        bool same_director(const director_entry& other) const;
    };

    // The ring of monitor lines (see above).
    class monitor_ring {
    public:
        bool attached() const { return attached_.load(std::memory_order_relaxed); }
        // Adds `line`, then `then` (the notifications a request sent).
        void add(const monitor_line& line, const std::vector<monitor_line>& then = {});
        // Lines after `after` (all from the oldest kept when `after` is older),
        // at most `max`, waiting up to `wait_ms` for one; attaches `pid`. Returns
        // the last sequence number given out.
        unsigned long long after(unsigned long long after, unsigned int max, unsigned int wait_ms,
                                 int pid, std::vector<monitor_line>* out);
        void stop();

    private:
        std::atomic<bool> attached_{false};
        std::mutex mtx_;
        std::condition_variable added_;
        std::vector<monitor_line> ring_;
        unsigned long long last_seq_ = 0;
        std::vector<int> pids_;  // the monitors' processes
        std::chrono::steady_clock::time_point looked_;
        bool stopping_ = false;
    };

private:
    void route(long func_id, char* rcvbuf, unsigned int len, const gen_ipc_msghdr& hdr);
    void monitored(long func_id, char* rcvbuf, unsigned int len, const gen_ipc_msghdr& hdr);
    void status(const gen_ipc_msghdr& hdr);
    void monitor(const char* req, unsigned int len, const gen_ipc_msghdr& hdr);
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
    // Takes the registrations of `obj_id` that `leaving(entry)` picks out of the
    // service and the director manager, and no other; returns the manager's
    // answer to the first removal, *taken the number taken out.
    template <typename Leaving>
    unsigned int take_out(long obj_id, Leaving&& leaving, unsigned int* taken = nullptr);
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

    monitor_ring monitor_;
    const long long started_us_;

    std::mutex watch_mtx_;
    std::condition_variable watch_cv_;
    bool stopping_ = false;
    std::thread watcher_, prober_;
};

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_HANDLER_SERVICE_H
