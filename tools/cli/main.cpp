// tevash: drives the handler library, the handler service and a sample director
// over a record store. Each subcommand's body is its CLI11 callback; the groups
// of subcommands are added from their own files (commands.h).
#include <CLI/CLI.hpp>

#include "commands.h"
#include "context.h"

int main(int argc, char** argv) {
    using namespace tevash_cli;
    CLI::App app{"tevash: handler trees, members and copies over a record store"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "tevash " TEVASH_VERSION);
    app.failure_message([](const CLI::App* failed, const CLI::Error& e) {
        // A word where a subcommand belongs names no subcommand of ours.
        const auto rest = failed->remaining();
        if (failed->get_parent() == nullptr && failed->get_subcommands().empty() && !rest.empty())
            return "tevash: unknown subcommand '" + rest.front() + "' (see --help)\n";
        return std::string("tevash: ") + e.what() + " (see --help)\n";
    });
    context ctx;
    app.add_option("--store", ctx.store,
                   "Persistent record store file (default: fresh in-memory store)");
    app.add_flag("--read-only", ctx.read_only,
                 "Open the store read-only (commands that write are refused)");
    app.add_flag("-v,--verbose", ctx.verbose, "Also write trace lines to standard error");
    app.add_option("--app-type", ctx.app_type, "Application type of the director")
        ->capture_default_str();
    app.add_option("--runtime-dir", ctx.runtime_dir,
                   "Send create, reset and remove to the handler service running in DIR "
                   "(`tevash serve`) and use its shared store")
        ->type_name("DIR")
        ->envname("TEVASH_RUNTIME_DIR");

    add_demo_commands(app, ctx);
    add_handler_commands(app, ctx);
    add_member_commands(app, ctx);
    add_tree_commands(app, ctx);
    add_transfer_commands(app, ctx);
    add_process_commands(app, ctx);
    add_check_commands(app, ctx);

    CLI11_PARSE(app, argc, argv);
    return ctx.exit_code;
}
