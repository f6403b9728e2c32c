// The handler service and a sample director inside the application's own
// process, for an application that runs alone on a host (no `tevash serve`, no
// director process of its own):
//
//   #include "tevhost/embedded_service.h"
//
//   tevhost::embedded_service service(app_type);   // one call starts both
//   if (service.status() != 0) { ... service.status_text() says why ... }
//   ... tev_ash_facade / tev_ash_handler_facade calls: create, reset and
//       remove for `app_type` are carried out by the sample director ...
//   // the destructor withdraws the director and stops the service
//
// Without a handler service a create waits for one at the process's first
// call and then fails; with an embedded_service alive it is answered at once.
// The director works on the process's record store (in memory, or the SQLite
// file of TEVASH_HOST_STORE / tevhost::store_use_file).
//
// One embedded_service at a time per process; construct and destroy it in one
// thread, before the first facade call and after the last. While it lives, any
// thread may use the library. Link tevash::tevash_service (CMake) or
// tevash_service (pkg-config).
#ifndef TEVHOST_EMBEDDED_SERVICE_H
#define TEVHOST_EMBEDDED_SERVICE_H

#include <memory>

#include "tev_ash_types.h"

namespace tevhost {

class embedded_service {
public:
    explicit embedded_service(velmora::TEV_ASH_APP_TYPE app_type);
    ~embedded_service();

    embedded_service(const embedded_service&) = delete;
    embedded_service& operator=(const embedded_service&) = delete;

    // 0 when the service runs and the director is registered for the
    // application type. Otherwise the code of the step that failed (a trace
    // line and status_text() say which: a handler service already runs in this
    // process, or the handler service refused the director's registration), and
    // the library's calls get no handler service from this object.
    unsigned int status() const;
    // The status in words: "running", or what failed.
    const char* status_text() const;

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

}  // namespace tevhost

#endif  // TEVHOST_EMBEDDED_SERVICE_H
