// What the client and the server of the message service between processes
// share beside the frame format (ipc_frame.h) and the runtime directory
// (runtime_dir.h): the trace line of the transport and the failure exit that
// writes it. Safe to call from any thread.
#ifndef TEV_HOST_IPC_INTERNAL_H
#define TEV_HOST_IPC_INTERNAL_H

#include <string>

#include "tiv_trace.h"

namespace tevhost {
namespace ipc {

// Writes the trace line "host ipc: <text>".
inline void trace(const std::string& text) {
    tivGENTrcPrintf(0, 0, 0, "host ipc: %s\n", text.c_str());
}

// Traces `text`, gives it as *error (when not null) and returns false.
inline bool fail(std::string* error, const std::string& text) {
    trace(text);
    if (error != nullptr) *error = text;
    return false;
}

}  // namespace ipc
}  // namespace tevhost

#endif  // TEV_HOST_IPC_INTERNAL_H
