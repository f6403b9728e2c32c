// The lock of a served connection name. The live server of a name holds an OFD
// lock on <name>.lock in the runtime directory and keeps its identity (pid and
// start stamp) in it, so any process can tell whether, and by which instance, a
// name is served without taking the lock (connection_served, served_instance in
// tev_host.h). Safe to call from any thread.
#ifndef TEV_HOST_IPC_NAME_LOCK_H
#define TEV_HOST_IPC_NAME_LOCK_H

#include <string>

namespace tevhost {
namespace ipc {

// Locks `lock_path` for serving `name` (made when missing) and writes this
// process's identity into it. Returns the descriptor that holds the lock until
// it is closed, or -1 with *error set and a trace line when a live process
// serves the name (its socket is `socket_path`) or the file cannot be used.
// Unlink the file before closing it, so that no name is left locked by nobody.
int lock_name(const std::string& name, const std::string& lock_path, const std::string& socket_path,
              std::string* error);

}  // namespace ipc
}  // namespace tevhost

#endif  // TEV_HOST_IPC_NAME_LOCK_H
