// host_system: the handler service and a sample director, running in this
// process for as long as the object lives.
//
//   tevash_tools::host_system sys(app_type);   // starts both
//   if (sys.status() != 0) { ... }             // the director could not register
//   ... tev_ash_facade / tev_ash_handler_facade calls: create, reset and remove
//       for `app_type` travel to the service and on to the director ...
//   // the destructor withdraws the director and stops the service
//
// Construction registers the handler service as object 1 of "TEV_ASH_SRV" with
// the in-process message service, then starts a sample_director on
// `director_connection` and registers it for `app_type` through the handler
// facade (whose first use in the process then finds the service at once).
// status() is 0 when both are up; otherwise it is the failing step's code:
// tevhost::HOST_ALREADY_REGISTERED when "TEV_ASH_SRV" is already served in
// this process (another host_system is alive), or the handler service's answer to the registration.
// The record store is whatever the process uses; host_system does not touch it.
//
// One host_system at a time per process; construct and destroy it in one
// thread. While it lives, any thread may send to the service.
#ifndef TEVASH_TOOLS_HOST_SYSTEM_H
#define TEVASH_TOOLS_HOST_SYSTEM_H

#include <memory>

#include "tev_ash_types.h"

namespace tevash_tools {

class handler_service;
class sample_director;

class host_system {
public:
    explicit host_system(velmora::TEV_ASH_APP_TYPE app_type,
                         const char* director_connection = "TEV_ASH_DIR",
                         unsigned int director_cmp_id = velmora::TEV_ASH_CMP_ID);
    ~host_system();

    host_system(const host_system&) = delete;
    host_system& operator=(const host_system&) = delete;

    // 0 when the service runs and the director is registered.
    unsigned int status() const { return status_; }
    velmora::TEV_ASH_APP_TYPE app_type() const { return app_type_; }
    // Null when the service could not be started.
    handler_service* service() const { return service_.get(); }
    sample_director& director() const { return *director_; }

private:
    velmora::TEV_ASH_APP_TYPE app_type_;
    unsigned int status_ = 0;
    std::unique_ptr<handler_service> service_;
    std::unique_ptr<sample_director> director_;
};

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_HOST_SYSTEM_H
