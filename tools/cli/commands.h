// The subcommands of the command-line tool, one group per source file.
#ifndef TEVASH_CLI_COMMANDS_H
#define TEVASH_CLI_COMMANDS_H

#include <CLI/CLI.hpp>

#include "context.h"

namespace tevash_cli {

void add_demo_commands(CLI::App& app, context& ctx);      // demo
void add_handler_commands(CLI::App& app, context& ctx);   // create link unlink copy reset remove
void add_member_commands(CLI::App& app, context& ctx);    // get set members describe
void add_schema_commands(CLI::App& app, context& ctx);    // schema load, schema show
void add_tree_commands(CLI::App& app, context& ctx);      // tree
void add_transfer_commands(CLI::App& app, context& ctx);  // export import backup
void add_process_commands(CLI::App& app, context& ctx);   // serve director
void add_check_commands(CLI::App& app, context& ctx);     // check
void add_live_commands(CLI::App& app, context& ctx);      // status monitor
void add_watch_command(CLI::App& app, context& ctx);      // watch
// help, and the hidden completion: added last, they walk every command above.
void add_help_commands(CLI::App& app, context& ctx);

}  // namespace tevash_cli

#endif  // TEVASH_CLI_COMMANDS_H
