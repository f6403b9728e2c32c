// tevash: drives the handler library, the handler service and a sample director
// over a record store. Each subcommand's body is its CLI11 callback; the groups
// of subcommands are added from their own files (commands.h).
#include <CLI/CLI.hpp>

#include "commands.h"
#include "context.h"
#include "tev_ash_types.h"

int main(int argc, char** argv) {
    using namespace tevash_cli;
    CLI::App app{"tevash: handler trees, members and copies over a record store", "tevash"};
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
                   "Persistent record store file (default: fresh in-memory store)")
        ->type_name("FILE")
        ->check(CLI::Validator(
            [](std::string& file) {
                return file.empty() ? std::string("an empty file name names no store") : "";
            },
            "", "not empty"));
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
    add_schema_commands(app, ctx);
    add_tree_commands(app, ctx);
    add_transfer_commands(app, ctx);
    add_process_commands(app, ctx);
    add_check_commands(app, ctx);
    add_live_commands(app, ctx);
    add_watch_command(app, ctx);
    add_help_commands(app, ctx);
    // A connection name longer than the platform keeps is refused, not cut.
    for (CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        if (CLI::Option* name = sub->get_option_no_throw("--connection"))
            name->check(CLI::Validator(
                [](std::string& text) {
                    return text.size() > velmora::TEV_ASH_CONNECTION_NAME_LEN
                               ? "'" + text + "' is longer than " +
                                     std::to_string(velmora::TEV_ASH_CONNECTION_NAME_LEN) + " bytes"
                               : std::string();
                },
                "", "connection name"));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version end the parse with 0; every other parse error is a usage error.
        return app.exit(e) == 0 ? 0 : EXIT_USAGE;
    }
    return ctx.exit_code;
}
