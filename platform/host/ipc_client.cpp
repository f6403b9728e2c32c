// The client side of the message service between processes: each thread's
// cache of connections, one per connection name, and a round trip on one as a
// send step then a receive step. Safe to call from any thread; a thread only
// ever uses its own connections.
//
// A cached connection whose server has gone (the send fails) is replaced by a
// fresh one once, so a restarted server is reached transparently. The message
// timeout is applied to a connection before a round trip whenever it changed
// since the connection last used it. The reply is received into a private
// buffer and copied to the caller's only when it is whole and well formed.
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "host/tev_host.h"
#include "ipc_frame.h"
#include "ipc_internal.h"
#include "message_internal.h"
#include "runtime_dir.h"
#include "settings.h"

namespace tevhost {
namespace {

using ipc::trace;

struct client_connection {
    std::string name;
    int fd;
    int timeout_ms;
};

// Counts forks, so that a child does not share its parent's connections.
std::atomic<unsigned> g_forks{0};

// This thread's connections; closed when the thread ends.
struct client_cache {
    std::vector<client_connection> connections;
    unsigned forks = g_forks.load(std::memory_order_relaxed);
    uint32_t next_call = 1;
    std::vector<unsigned char> frame = std::vector<unsigned char>(ipc::MAX_FRAME);
    ~client_cache() {
        for (const client_connection& c : connections) ::close(c.fd);
    }
    client_connection* find(const std::string& name) {
        for (client_connection& c : connections) {
            if (c.name == name) return &c;
        }
        return nullptr;
    }
    // In a child forked since, the connections are the parent's: closed here
    // (the parent's stay open), and the child makes its own.
    void forget_if_forked() {
        unsigned now = g_forks.load(std::memory_order_relaxed);
        if (now == forks) return;
        for (const client_connection& c : connections) ::close(c.fd);
        connections.clear();
        forks = now;
    }
    void drop(client_connection* c) {
        ::close(c->fd);
        *c = connections.back();
        connections.pop_back();
    }
};

thread_local client_cache t_cache;
const int g_fork_counting = pthread_atfork(nullptr, nullptr, [] { ++g_forks; });

// Applies the message timeout to both directions of `c` when it changed.
void apply_timeout(client_connection* c) {
    int ms = settings::message_timeout_ms();
    if (ms == c->timeout_ms) return;
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    ::setsockopt(c->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(c->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    c->timeout_ms = ms;
}

// Connects to the process serving `name`; MSG_OK with *out added to the cache,
// or MSG_NOT_LISTENING (MSG_TIMEOUT when not accepted in time) with a trace
// line saying why. A check (`quiet`) that finds nothing listening leaves no
// trace line: for it that is an answer, not a failure.
int connect_to(const std::string& name, bool quiet, client_connection** out) {
    std::string dir = rundir::path();
    std::string path = rundir::socket_file(dir, name);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (!quiet) trace("send to " + name + ": nothing listening (no " + path + ")");
        return MSG_NOT_LISTENING;
    }
    std::string unsafe = rundir::unsafe(dir);
    if (!unsafe.empty()) {
        trace("send to " + name + ": not connecting, " + unsafe);
        return MSG_NOT_LISTENING;
    }
    sockaddr_un addr;
    if (!rundir::socket_address(path, &addr)) {
        trace("send to " + name + ": socket path too long: " + path);
        return MSG_NOT_LISTENING;
    }
    client_connection c{name, ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), 0};
    if (c.fd < 0) {
        trace("send to " + name + ": no socket: " + std::strerror(errno));
        return MSG_NOT_LISTENING;
    }
    apply_timeout(&c);
    if (::connect(c.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        int error = errno;
        ::close(c.fd);
        if (error == EAGAIN) {  // the server's queue of new connections stayed full
            trace("send to " + name + ": not accepted within " + std::to_string(c.timeout_ms) +
                  " ms");
            return MSG_TIMEOUT;
        }
        if (!quiet) {
            trace("send to " + name + ": nothing listening on " + path + " (" +
                  std::strerror(error) + ")");
        }
        return MSG_NOT_LISTENING;
    }
    t_cache.connections.push_back(c);
    *out = &t_cache.connections.back();
    return MSG_OK;
}

bool server_gone(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == ECONNREFUSED;
}

// Sends the request frame `msg` to `name` on this thread's connection, made or
// remade as needed. MSG_OK with *out the connection it went on; on failure the
// connection is dropped and a trace line says why.
int send_request(const std::string& name, const msghdr& msg, bool quiet, client_connection** out) {
    client_connection* c = t_cache.find(name);
    bool fresh = false;
    for (;;) {
        if (c == nullptr) {
            int status = connect_to(name, quiet, &c);
            if (status != MSG_OK) return status;
            fresh = true;
        }
        apply_timeout(c);
        ssize_t sent;
        do {
            sent = ::sendmsg(c->fd, &msg, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        if (sent >= 0) {
            *out = c;
            return MSG_OK;
        }
        int error = errno;
        int ms = c->timeout_ms;
        t_cache.drop(c);
        c = nullptr;
        if (!fresh && server_gone(error)) continue;  // the server went away since: reconnect
        if (error == EAGAIN || error == EWOULDBLOCK) {
            trace("send to " + name + ": timed out after " + std::to_string(ms) + " ms sending");
            return MSG_TIMEOUT;
        }
        trace("send to " + name + ": peer gone (" + std::strerror(error) + ")");
        return MSG_PEER_GONE;
    }
}

// Receives the reply to request `r` on `c`. MSG_OK with *answer pointing into
// this thread's frame buffer; on failure `c` is dropped and a trace line says why.
int receive_reply(const std::string& name, client_connection* c, const ipc::request& r,
                  ipc::reply* answer) {
    ssize_t n;
    do {
        n = ::recv(c->fd, t_cache.frame.data(), t_cache.frame.size(), MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    int error = errno;
    int ms = c->timeout_ms;
    if (n <= 0) {
        t_cache.drop(c);
        if (n < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
            trace("send to " + name + ": no reply within " + std::to_string(ms) + " ms");
            return MSG_TIMEOUT;
        }
        trace("send to " + name + ": peer gone before replying" +
              (n < 0 ? std::string(" (") + std::strerror(error) + ")" : std::string()));
        return MSG_PEER_GONE;
    }
    const char* bad = ipc::decode_reply(t_cache.frame.data(), static_cast<size_t>(n), r.call,
                                        r.reply_capacity, answer);
    if (bad != nullptr) {
        t_cache.drop(c);
        trace("send to " + name + ": refused a reply frame of " + std::to_string(n) + " bytes (" +
              bad + "); connection closed");
        return MSG_BAD_FRAME;
    }
    return MSG_OK;
}

// One request and its reply. On MSG_OK *answer points into t_cache.frame.
int round_trip(const std::string& name, ipc::request& r, ipc::reply* answer, bool quiet) {
    t_cache.forget_if_forked();
    unsigned char header[ipc::REQUEST_HEADER];
    r.call = t_cache.next_call++;
    ipc::encode_request_header(r, header);
    iovec iov[2] = {{header, sizeof header},
                    {const_cast<unsigned char*>(r.payload), r.payload_size}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = r.payload_size > 0 ? 2 : 1;
    client_connection* c = nullptr;
    int status = send_request(name, msg, quiet, &c);
    if (status != MSG_OK) return status;
    return receive_reply(name, c, r, answer);
}

}  // namespace

namespace detail {

int remote_send(const std::string& connection, long object_id, long func_id, const char* req,
                unsigned int req_len, char* rpl, unsigned int* rpl_len) {
    if (req_len > ipc::MAX_REQUEST_PAYLOAD) {
        trace("send to " + connection + ": request of " + std::to_string(req_len) +
              " bytes is longer than a frame carries (" + std::to_string(ipc::MAX_REQUEST_PAYLOAD) +
              ")");
        return MSG_BAD_ARG;
    }
    ipc::request r;
    r.kind = ipc::KIND_SEND;
    r.object_id = object_id;
    r.func_id = func_id;
    r.reply_capacity = static_cast<uint32_t>(std::min<size_t>(*rpl_len, ipc::MAX_REPLY_BYTES));
    r.payload = reinterpret_cast<const unsigned char*>(req);
    r.payload_size = req_len;
    ipc::reply answer;
    int status = round_trip(connection, r, &answer, false);
    if (status != MSG_OK) return status;
    if (answer.status != MSG_OK) return static_cast<int>(answer.status);
    if (answer.size > 0) std::memcpy(rpl, answer.bytes, answer.size);
    *rpl_len = answer.size;
    return MSG_OK;
}

int remote_check(const std::string& connection, long object_id) {
    ipc::request r;
    r.kind = ipc::KIND_CHECK;
    r.object_id = object_id;
    ipc::reply answer;
    return round_trip(connection, r, &answer, true) == MSG_OK && answer.status == MSG_OK ? 1 : 0;
}

}  // namespace detail
}  // namespace tevhost
