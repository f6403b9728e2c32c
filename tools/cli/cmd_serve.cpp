// serve, director: the handler service and a sample director, each as its own
// process over the runtime directory's shared record store.
#include <memory>

#include "commands.h"
#include "host/tev_host.h"
#include "processes.h"

namespace tevash_cli {

namespace {

struct process_command {
    tevash_tools::process_options opt;
    int app_type = 0;
    std::string connection;
};

void add_store_options(CLI::App* sub, process_command& c) {
    sub->add_option("--store", c.opt.store,
                    "Record store file shared by the processes (default: <runtime dir>/store.db)")
        ->type_name("FILE");
    sub->add_flag("--json", c.opt.json, "Print the ready line as a JSON object");
}

}  // namespace

void add_process_commands(CLI::App& app, context& ctx) {
    auto c = std::make_shared<process_command>();
    auto* serve = app.add_subcommand("serve", "Run the handler service for other processes");
    serve->footer(
        "Runs in the foreground until SIGTERM or SIGINT, then finishes the calls in flight, "
        "removes its socket and exits 0. Directors and applications of the same runtime "
        "directory (--runtime-dir or TEVASH_RUNTIME_DIR; default $XDG_RUNTIME_DIR/tevash, "
        "else /tmp/tevash-<uid>) reach it. Prints `ready` once serving; traces go to standard "
        "error. Refuses to start when a service already runs there.");
    add_store_options(serve, *c);
    serve->callback([&ctx, c] {
        if (c->opt.store.empty()) c->opt.store = ctx.store;
        if (!ctx.runtime_dir.empty()) tevhost::set_runtime_dir(ctx.runtime_dir);
        ctx.exit_code = tevash_tools::run_service(c->opt);
    });

    auto* director =
        app.add_subcommand("director", "Run a sample director for one application type");
    director->footer(
        "Registers with the handler service of the runtime directory, then creates, resets and "
        "removes handlers in the shared store for it, in the foreground. Prints `ready` once "
        "registered; withdraws and exits 0 on SIGTERM or SIGINT.");
    director->add_option("--app-type", c->app_type, "Application type it directs")->required();
    director->add_option("--connection", c->connection,
                         "Its connection name (default TEV_ASH_DIR<app type>)");
    add_store_options(director, *c);
    director->callback([&ctx, c] {
        if (c->opt.store.empty()) c->opt.store = ctx.store;
        if (!ctx.runtime_dir.empty()) tevhost::set_runtime_dir(ctx.runtime_dir);
        ctx.exit_code = tevash_tools::run_director(c->app_type, c->connection, c->opt);
    });
}

}  // namespace tevash_cli
