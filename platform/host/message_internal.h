// The seam between the in-process message service (message.cpp) and its
// transport between processes (ipc_client.cpp, ipc_server.cpp). Internal to the
// host platform. Every function here is safe to call from any thread.
#ifndef TEV_HOST_MESSAGE_INTERNAL_H
#define TEV_HOST_MESSAGE_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace tevhost {
namespace detail {

// A connection name is a field of at most this many bytes, ended early by a NUL.
constexpr size_t CONNECTION_NAME_MAX = 16;

// The connection name in the field `connection`.
// REQUIRES: connection is not null.
inline std::string connection_name(const char* connection) {
    return std::string(connection, strnlen(connection, CONNECTION_NAME_MAX));
}

// Now on CLOCK_MONOTONIC, in microseconds: the clock of request deadlines.
inline long long monotonic_us() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// message.cpp: delivers a request that arrived from another process to the
// object registered here under (connection, object_id), as a local send would,
// with `deadline_us` (0: none) as the thread's request_deadline_us while the
// dispatch runs. Returns MSG_OK with *reply holding at most `capacity` bytes,
// MSG_NO_OBJECT or MSG_NO_REPLY (then *reply is empty).
int deliver_served(const std::string& connection, long object_id, long func_id,
                   const unsigned char* request, uint32_t request_size, uint32_t capacity,
                   long long deadline_us, std::vector<unsigned char>* reply);
// message.cpp: makes `pid` the calling thread's request_peer_pid for its lifetime.
class request_peer_scope {
public:
    explicit request_peer_scope(int pid);
    ~request_peer_scope();
    request_peer_scope(const request_peer_scope&) = delete;
    request_peer_scope& operator=(const request_peer_scope&) = delete;

private:
    int outer_;
};
// message.cpp: 1 when (connection, object_id) is registered in this process.
int registered_here(const std::string& connection, long object_id);

// ipc_client.cpp: sends to the process serving `connection`. Returns a MSG_*
// code; the reply bytes are copied to `rpl` (and *rpl_len set) only on MSG_OK.
int remote_send(const std::string& connection, long object_id, long func_id, const char* req,
                unsigned int req_len, char* rpl, unsigned int* rpl_len);
// ipc_client.cpp: 1 when the process serving `connection` has object_id registered.
int remote_check(const std::string& connection, long object_id);

}  // namespace detail
}  // namespace tevhost

#endif  // TEV_HOST_MESSAGE_INTERNAL_H
