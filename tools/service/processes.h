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

#include <string>

namespace tevash_tools {

struct process_options {
    std::string store;  // empty: <runtime dir>/store.db
    bool json = false;  // the ready line as a JSON object
    // A director's records in its own memory instead of the shared store (for
    // benchmarks that measure the processes without the store file).
    bool memory_store = false;
};

// Stops accepting on a signal, finishes the calls in flight, removes its socket.
// Refuses to start when another live service serves the runtime directory.
int run_service(const process_options& opt);

// The director's connection name is `connection`, or "TEV_ASH_DIR<app type>"
// when empty. On a signal it withdraws its registration and stops serving.
//
// For tests: TEVASH_TEST_DIRECTOR_HOLD=create|remove|reset makes the director
// hold every such notification for a minute after writing "holding <function>"
// to standard error, and TEVASH_TEST_DIRECTOR_DUMP=<file> appends one line per
// notification received: the function id and the request bytes in hex.
int run_director(int app_type, const std::string& connection, const process_options& opt);

// The shared store's path: `store`, or <runtime dir>/store.db. False with
// *error set when the runtime directory cannot be used.
bool shared_store_path(const std::string& store, std::string* path, std::string* error);

// "handler service not reachable" with the transport's words, when the calling
// thread's last send did not reach the service; empty when it did.
std::string service_unreachable_text();

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_PROCESSES_H
