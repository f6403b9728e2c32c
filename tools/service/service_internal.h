// Small helpers the handler service's two source files share.
#ifndef TEVASH_TOOLS_SERVICE_INTERNAL_H
#define TEVASH_TOOLS_SERVICE_INTERNAL_H

#include <signal.h>

#include <cerrno>
#include <chrono>

namespace tevash_tools {

// Microseconds since the epoch (wall clock), as monitor lines and status carry.
inline long long wall_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Whether the process `pid` (0: this one) has ended.
inline bool process_gone(int pid) {
    return pid != 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

}  // namespace tevash_tools

#endif  // TEVASH_TOOLS_SERVICE_INTERNAL_H
