// A sample director: the observer that carries out create, remove and reset for
// one application type in the record store. It receives the notifications as
// synchronous messages (functions 2, 3 and 4) on its own connection and answers
// each with its reply record:
//   create - a new record of the category, a copy of the source when one is given;
//   reset  - the record's members get their initial values again;
//   remove - the record and every record below it are deleted.
// A failure of the record store is answered with the store's own code. Requests
// shorter than their record are answered with 0xC1030008; unknown function ids
// are not answered.
//
// Each notification received through dispatch is one store transaction: its
// changes are kept together, and only when the caller still waits for the answer
// (tevhost::request_expired() is false) and the director is not stopping;
// otherwise they are rolled back and the answer is tevhost::STORE_ROLLED_BACK.
// So a request the handler service gave up on (and answered as of unknown
// outcome) is not carried out after all.
//
// Creates from other processes that arrive while the store is busy are carried
// out together, in one store transaction (group commit): one thread makes the
// records of every create waiting, commits them once, and each is answered
// after that commit with its own result. A create that fails changes nothing
// and does not hold the others back; when one has expired at commit, the
// transaction is rolled back and the others are made again in a new one, so no
// answer ever names a record that was not kept.
//
// start() makes the director reachable and registers it with the handler
// service; stop() withdraws it. Notifications may run concurrently.
#ifndef TEVASH_TOOLS_SAMPLE_DIRECTOR_H
#define TEVASH_TOOLS_SAMPLE_DIRECTOR_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "tev_ash_observer.h"

namespace tevash_tools {

class sample_director : public velmora::tev_ash_observer {
public:
    static constexpr const char* DEFAULT_CONNECTION = "TEV_ASH_DIR";

    // A director on `connection_name` (at most 16 bytes kept) that makes its
    // record store calls with `cmp_id`.
    explicit sample_director(const char* connection_name = DEFAULT_CONNECTION,
                             unsigned int cmp_id = velmora::TEV_ASH_CMP_ID);
    // Stops the director when it is still started.
    ~sample_director() override;

    // Registers the director with the message service under its object id and
    // connection, then with the handler service for `app_type`. Returns the
    // handler service's result; on failure the director is not reachable.
    // REQUIRES: not started.
    unsigned int start(velmora::TEV_ASH_APP_TYPE app_type);
    // Withdraws the registration and stops receiving messages. Returns the handler
    // service's result (0 when not started).
    unsigned int stop();
    bool started() const { return started_; }
    // Registers the started director again for its application type, with a
    // handler service that does not know it (one started since). Returns the
    // service's result; TEV_ASH_RC_BAD_ARG when not started.
    unsigned int register_again();
    // From now on no notification keeps its changes (each is answered
    // STORE_ROLLED_BACK): the director is about to stop. Any thread may call it.
    void begin_stop() { stopping_.store(true); }

    void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                  gen_ipc_msghdr sync_handle) override;

    void notify_create(velmora::TEV_ASH_CATEGORY category,
                       velmora::TEV_ASH_SERVICE_TYPE service_type, unsigned int& handler_id,
                       unsigned int src_handler_id, long& result) override;
    void notify_remove(unsigned int handler_id, long& result) override;
    void notify_reset(velmora::TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                      long& result) override;

    // Notifications carried out so far (each of the three counts).
    unsigned int notifications() const { return notifications_.load(); }

private:
    unsigned int remove_tree(unsigned int handler_id);
    // Runs `notify(result)` in one store transaction and keeps its changes only
    // when it succeeded, its caller still waits and the director is not stopping.
    template <typename Notify>
    long in_transaction(const char* function, Notify&& notify);

    // A create waiting to be carried out with others (see above).
    struct create_job {
        velmora::TEV_ASH_CATEGORY category{};
        velmora::TEV_ASH_SERVICE_TYPE service_type{};
        unsigned int src_handler_id = 0;
        long long deadline_us = 0;  // 0: none
        unsigned int handler_id = 0;
        long result = 0;
        bool done = false;
        std::condition_variable wake;  // its thread waits on it
    };
    // Carries out `job` with the creates waiting beside it; returns its result.
    long create_together(create_job& job);
    // Makes the records of `jobs` in store transactions until each has its answer.
    void run_creates(const std::vector<create_job*>& jobs);

    unsigned int cmp_id_;
    velmora::TEV_ASH_APP_TYPE app_type_{};
    bool started_ = false;
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned int> notifications_{0};
    // Held by the notification in its store transaction (again by one nested in it).
    std::recursive_mutex turns_;
    // The creates waiting to be carried out together, and whether a thread is
    // carrying out some now.
    std::mutex creates_mutex_;
    std::vector<create_job*> waiting_creates_;
    bool creating_ = false;
};

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_SAMPLE_DIRECTOR_H
