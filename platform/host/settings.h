// The host platform's settings (trace sink, runtime directory, message timeout,
// initial record store, the journal's stream): each defaults to an environment
// variable, read once at first use, and the setters in tev_host.h override it.
// Every function here is safe to call from any thread; this unit is the
// platform's only reader of the environment.
#ifndef TEV_HOST_SETTINGS_H
#define TEV_HOST_SETTINGS_H

#include <string>

namespace tevhost {
namespace settings {

constexpr int DEFAULT_TIMEOUT_MS = 30000;

// The trace sink: "stderr", "none", "off" or a file name (set_trace_sink, else
// TEVASH_HOST_TRACE, else "stderr").
std::string trace_sink();
// A number that changes whenever set_trace_sink is called: a sink chosen at
// version v stays right while this still returns v.
unsigned trace_sink_version();

// The runtime directory chosen explicitly (set_runtime_dir, else
// TEVASH_RUNTIME_DIR); empty when neither names one.
std::string runtime_dir_choice();
// XDG_RUNTIME_DIR; empty when unset.
std::string xdg_runtime_dir();

// Milliseconds a message round trip may take (set_message_timeout_ms, else
// TEVASH_HOST_IPC_TIMEOUT_MS when it is a number of 1 to 86400000, else 30000).
int message_timeout_ms();

// The file of the persistent store to open at first use (TEVASH_HOST_STORE);
// nullptr when unset or empty.
const char* initial_store_file();

// Whether standard error is, at this moment, the journal's stream: the device
// and inode JOURNAL_STREAM gives ("<dev>:<ino>", set by a service manager) are
// those of descriptor 2. Children inherit the variable, so it is compared, not
// trusted.
bool stderr_is_journal();

}  // namespace settings
}  // namespace tevhost

#endif  // TEV_HOST_SETTINGS_H
