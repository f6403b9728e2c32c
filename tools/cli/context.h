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
// the result code and the trace lines the command caused.
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

// The component id the tool reads and writes members under.
constexpr unsigned int APP_CMP_ID = 0x1000;

struct context {
    // Global options.
    std::string store;  // empty: a fresh in-memory store
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

    // Routes trace lines (standard error only with --verbose) and opens --store.
    // 0 when done; otherwise the message is printed and the exit code returned.
    int open_store();
    // open_store, then the handler service and director of --app-type in this
    // process; with runtime_dir, the shared store and a check that the service answers.
    int start_system();
    // Whether the calling thread's last request reached the handler service (a
    // request that did not leaves the library a zero reply: result 0).
    static bool reached_service() { return tevhost::last_send_status() == tevhost::MSG_OK; }

    // Prints "tevash: <message>" to standard error; returns the exit code 1.
    static int fail(const std::string& message);
    // fail, then the result code and the trace lines captured so far.
    int fail_code(const std::string& words, unsigned int rc) const;
    // fail_code for create, reset and remove: "handler service not reachable"
    // when the request did not reach the service, else `words`.
    int fail_service(const std::string& words, unsigned int rc) const;
    // 0 when handler `id` exists (its category in *category); otherwise
    // "no handler <id>" is printed and the exit code returned.
    int check_handler(unsigned int id, unsigned int* category = nullptr) const;
};

// What a command does to the store: read commands open it read-only.
enum class store_access { read, write };

// Gives `sub` the body `body`, run once the store is open and the system is up;
// its return value becomes the exit code. An `embedded` body always runs on the
// system in this process, whatever the runtime directory says.
void run_with_system(CLI::App* sub, context& ctx, store_access access, std::function<int()> body,
                     bool embedded = false);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_CONTEXT_H
