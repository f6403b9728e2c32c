// What every subcommand of the command-line tool shares: the global options,
// the record store and the in-process handler service with its director, and
// the exit code the subcommand's callback leaves behind.
//
// A subcommand file adds its subcommands with one add_*_commands function
// (declared in commands.h) and gives each a body through run_with_system (store
// opened, service and director up) or, when it needs another start-up, through
// CLI::App::callback setting ctx.exit_code itself.
//
// Errors: one line in words first ("tevash: no handler 99"), then, indented,
// the result code and the trace lines the command caused (pointer values in
// them only with --verbose).
//
// Exit codes: 0 done, EXIT_FAILED, EXIT_USAGE (also CLI11's own parse errors),
// EXIT_NOT_RUNNING.
#ifndef TEVASH_CLI_CONTEXT_H
#define TEVASH_CLI_CONTEXT_H

#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "host/tev_host_testing.h"
#include "host_system.h"
#include "tev_ash_facade.h"
#include "tev_ash_types.h"

namespace tevash_cli {

constexpr int EXIT_FAILED = 1;       // the operation failed
constexpr int EXIT_USAGE = 2;        // the command line is wrong: nothing was tried
constexpr int EXIT_NOT_RUNNING = 3;  // no handler service runs in the runtime directory

// The component id the tool reads and writes members under.
constexpr unsigned int APP_CMP_ID = 0x1000;

struct context {
    // Global options.
    std::string store;       // empty: a fresh in-memory store
    bool read_only = false;  // open --store read-only for every command
    bool verbose = false;
    int app_type = 1;
    // Set (--runtime-dir or TEVASH_RUNTIME_DIR): create, reset and remove go to
    // the handler service running there, and records are read from its shared
    // store. Empty: the service and a director run in this process.
    std::string runtime_dir;

    int exit_code = 0;
    std::unique_ptr<tevash_tools::host_system> system;
    // Trace lines of the running command, for its error messages.
    std::unique_ptr<tevhost::trace_capture> capture;

    velmora::TEV_ASH_APP_TYPE app() const {
        return static_cast<velmora::TEV_ASH_APP_TYPE>(app_type);
    }
    static velmora::tev_ash_facade* facade() {
        return velmora::tev_ash_facade::tev_ash_get_instance();
    }

    // Routes trace lines (standard error only with --verbose) and opens --store
    // for `access` (read-only with --read-only). A command that writes is refused
    // with "store '<file>' is read-only" when the file may only be read.
    // 0 when done; otherwise the message is printed and the exit code returned.
    int open_store(tevhost::store_access access);
    // open_store, then the handler service and director of --app-type in this
    // process; with runtime_dir, the shared store and a check that the service answers.
    int start_system(tevhost::store_access access);
    // With --runtime-dir where nothing serves: opens the store the service left
    // there read-only. 0 when opened, -1 when there is none, else an exit code.
    int open_stopped_service_store();
    // Whether the calling thread's last request reached the handler service (a
    // request that did not leaves the library a zero reply: result 0).
    static bool reached_service() { return tevhost::last_send_status() == tevhost::MSG_OK; }

    // Prints "tevash: <message>" to standard error; returns the exit code 1.
    static int fail(const std::string& message);
    // The same for a usage error; returns EXIT_USAGE.
    static int usage(const std::string& message);
    // fail, then the result code and the trace lines captured so far.
    int fail_code(const std::string& words, unsigned int rc) const;
    // fail_code for create, reset and remove: "handler service not reachable"
    // when the request did not reach the service, else `words`.
    int fail_service(const std::string& words, unsigned int rc) const;
    // 0 when handler `id` exists (its category in *category); otherwise
    // "no handler <id>" is printed and the exit code returned.
    int check_handler(unsigned int id, unsigned int* category = nullptr) const;
};

// What a command opens the store for: read commands open it read-only.
constexpr auto READS = tevhost::store_access::read_only;
constexpr auto WRITES = tevhost::store_access::read_write;

// How a command runs. Each runs inside one tevhost::store_transaction, its
// standard output held back until the transaction committed: every store call
// of the command - its own, and those of the handler service and the director
// when they run in this process (and so in this thread) - is kept together or
// not at all. A create --parent whose link fails, or a copy or import stopped
// at any point (kill -9 too), leaves the store as it was.
//
// What a transaction cannot cover is store work done by another process: with
// --runtime-dir, create, reset and remove are carried out by the director of a
// running service. That work is not part of the transaction, and that process
// would wait for it; commands that send to the service then run without one.
enum class run_mode {
    store_only,    // store calls only: always one transaction
    sends,         // also sends to the handler service: one transaction unless it runs elsewhere
    own_embedded,  // always on the system in this process, on its own store: no transaction
};

// Gives `sub` the body `body`, run once the store is open for `access` and the
// system is up; its return value becomes the exit code.
void run_with_system(CLI::App* sub, context& ctx, tevhost::store_access access, run_mode mode,
                     std::function<int()> body);
// The same with the access chosen when the command runs (e.g. by one of its flags).
void run_with_system(CLI::App* sub, context& ctx, std::function<tevhost::store_access()> access,
                     run_mode mode, std::function<int()> body);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_CONTEXT_H
