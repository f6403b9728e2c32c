// What the live commands (status, monitor: cmd_live.cpp; watch: cmd_watch.cpp)
// share.
#ifndef TEVASH_CLI_LIVE_H
#define TEVASH_CLI_LIVE_H

#include <string>

#include <nlohmann/json.hpp>

#include "context.h"

namespace tevash_cli {

// One line of JSON output; bytes that are not UTF-8 are replaced.
std::string json_line(const nlohmann::ordered_json& j);
// Routes traces and picks the runtime directory, which it returns; a message
// timeout of a few seconds unless one is set, so that a stopped service is told
// quickly. A directory named on the command line is not made by looking at it.
std::string prepare_live(const context& ctx);
// Local time of `us` (microseconds since the epoch): "2026-11-24 12:00:00" with
// `date`, else "12:00:00.123456".
std::string clock_text(long long us, bool date);
// Microseconds since the epoch.
long long now_us();
// From now on SIGINT and SIGTERM ask the command to stop (stop_asked() is
// true), for commands that run until stopped.
void stop_on_signals();
bool stop_asked();

}  // namespace tevash_cli

#endif  // TEVASH_CLI_LIVE_H
