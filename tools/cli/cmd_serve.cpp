// serve, director: the handler service and a sample director, each as its own
// process over the runtime directory's shared record store.
#include <memory>

#include "commands.h"
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
                    "Record store file shared by the processes (default: <runtime dir>/store.db)");
    sub->add_flag("--json", c.opt.json, "Print the ready line as a JSON object");
}

}  // namespace

void add_process_commands(CLI::App& app, context& ctx) {
    auto c = std::make_shared<process_command>();
    auto* serve = app.add_subcommand(
        "serve",
        "Run the handler service in the foreground until SIGTERM or SIGINT. Applications, "
        "directors and `tevash --runtime-dir DIR ...` commands of the same runtime directory "
        "(TEVASH_RUNTIME_DIR, default $XDG_RUNTIME_DIR/tevash or /tmp/tevash-<uid>) reach it. "
        "Prints `ready` when serving; traces go to standard error.");
    add_store_options(serve, *c);
    serve->callback([&ctx, c] {
        if (c->opt.store.empty()) c->opt.store = ctx.store;
        if (!ctx.runtime_dir.empty()) setenv("TEVASH_RUNTIME_DIR", ctx.runtime_dir.c_str(), 1);
        ctx.exit_code = tevash_tools::run_service(c->opt);
    });

    auto* director = app.add_subcommand(
        "director",
        "Run a sample director for one application type in the foreground: it registers with "
        "the running handler service, creates, resets and removes handlers in the shared "
        "store, and withdraws on SIGTERM or SIGINT. Prints `ready` once registered.");
    director->add_option("--app-type", c->app_type, "Application type it directs")->required();
    director->add_option("--connection", c->connection,
                         "Its connection name (default TEV_ASH_DIR<app type>)");
    add_store_options(director, *c);
    director->callback([&ctx, c] {
        if (c->opt.store.empty()) c->opt.store = ctx.store;
        if (!ctx.runtime_dir.empty()) setenv("TEVASH_RUNTIME_DIR", ctx.runtime_dir.c_str(), 1);
        ctx.exit_code = tevash_tools::run_director(c->app_type, c->connection, c->opt);
    });
}

}  // namespace tevash_cli
