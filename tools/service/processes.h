// The host's processes of several kinds, each run in the foreground of its own
// process until SIGTERM or SIGINT:
//
//   run_service  - the handler service ("TEV_ASH_SRV", object 1) with the
//                  library's director manager, connecters and observer proxies,
//                  served to the other processes of the runtime directory;
//   run_director - a sample director for one application type, served on its
//                  own connection name and registered with the running service.
//
// Both work over the persistent record store shared by the processes of the
// runtime directory: `store`, or <runtime dir>/store.db when empty. Each prints
// one line when it serves ("ready", or a JSON object with `json`) and writes its
// failures to standard error in words. The result is the process's exit status:
// 0 after a clean stop, 1 when it could not start.
//
// Call them before the process starts any thread: they block SIGTERM and SIGINT
// in every thread and wait for them in the calling one.
#ifndef TEVASH_TOOLS_PROCESSES_H
#define TEVASH_TOOLS_PROCESSES_H

#include <functional>
#include <memory>
#include <string>

#include "sample_director.h"

namespace tevash_tools {

struct process_options {
    std::string store;  // empty: <runtime dir>/store.db
    bool json = false;  // the ready line as a JSON object
    // A director's records in its own memory instead of the shared store (for
    // benchmarks that measure the processes without the store file).
    bool memory_store = false;
    // run_service: serve on this listening socket (one a service manager passed
    // in) instead of binding one of its own; -1: bind one.
    int listen_fd = -1;
    // Told "ready" with a status text once the process serves (after its ready
    // line), and "stopping" when a stop signal came: e.g. for a service manager.
    std::function<void(const char* state, const std::string& status)> on_state;
};

// Stops accepting on a signal, finishes the calls in flight, removes its socket.
// Refuses to start when another live service serves the runtime directory.
int run_service(const process_options& opt);

// Makes the director run_director serves on `connection`: a sample_director or
// one derived from it (which stops itself in its destructor when it overrides
// the notifications).
using director_factory = std::function<std::unique_ptr<sample_director>(const char* connection)>;

// The director's connection name is `connection`, or "TEV_ASH_DIR<app type>"
// when empty; the director is made by `make`, or is a plain sample_director
// when `make` is empty or makes none. It looks every 100 ms which process serves
// "TEV_ASH_SRV" (tevhost::served_instance) and registers again, with a trace
// line, with a handler service started since. On a signal it keeps no
// notification's changes from then on, withdraws its registration and stops
// serving; when a notification in flight holds that up for 1.5 s, it exits at
// once (exit status 0), the notification's transaction not committed.
int run_director(int app_type, const std::string& connection, const process_options& opt,
                 const director_factory& make = {});

// The shared store's path: `store`, or <runtime dir>/store.db. False with
// *error set when the runtime directory cannot be used.
bool shared_store_path(const std::string& store, std::string* path, std::string* error);

// "handler service not reachable" with the transport's words, when the calling
// thread's last send did not reach the service; empty when it did.
std::string service_unreachable_text();

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_PROCESSES_H
