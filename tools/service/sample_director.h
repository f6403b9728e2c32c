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
// start() makes the director reachable and registers it with the handler
// service; stop() withdraws it. Notifications may run concurrently.
#ifndef TEVASH_TOOLS_SAMPLE_DIRECTOR_H
#define TEVASH_TOOLS_SAMPLE_DIRECTOR_H

#include <atomic>

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

    unsigned int cmp_id_;
    bool started_ = false;
    std::atomic<unsigned int> notifications_{0};
};

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_SAMPLE_DIRECTOR_H
