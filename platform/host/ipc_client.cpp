// The client side of the message service between processes: each thread's
// cache of connections, one per connection name, and a round trip on one as a
// send step then a receive step. Safe to call from any thread; a thread only
// ever uses its own connections.
//
// A round trip has one deadline, carried in the request: now plus the message
// timeout, or earlier in a thread that dispatches a request from another
// process (see send_deadline), so that each hop gives up before its caller.
// Connecting, sending and waiting for the reply all end at that deadline.
// A cached connection whose server has gone (the send fails) is replaced by a
// fresh one once, so a restarted server is reached transparently. A server
// gone before the request was written is MSG_NOT_LISTENING, a refusal it sent
// MSG_BUSY; MSG_PEER_GONE means the request may have been read. The reply is
// received into a private buffer and copied to the caller's only when it is
// whole and well formed.
#include <poll.h>
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
    long long receive_timeout_us = 0;  // the socket's SO_RCVTIMEO; 0: none set
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
    uint32_t call() {
        if (next_call == 0) next_call = 1;  // 0 is the refusal's
        return next_call++;
    }
};

thread_local client_cache t_cache;
const int g_fork_counting = pthread_atfork(nullptr, nullptr, [] { ++g_forks; });

// The deadline of a round trip starting now: now + the message timeout, and in
// a thread dispatching a request that has a deadline, at most that deadline less
// a margin of a quarter of the time left (at most 1 s), so that this hop gives
// up, and its caller still has time to answer, before the caller's caller gives
// up. At or before now when the inbound deadline has passed.
long long send_deadline(long long now) {
    long long deadline = now + settings::message_timeout_ms() * 1000LL;
    const long long inbound = request_deadline_us();
    if (inbound == 0) return deadline;
    const long long left = inbound - now;
    return std::min(deadline, inbound - std::min(1000000LL, std::max(0LL, left / 4)));
}

// Milliseconds until `deadline` for poll: rounded up, at least 0.
int ms_until(long long deadline) {
    long long us = deadline - detail::monotonic_us();
    return us <= 0 ? 0 : static_cast<int>(std::min<long long>((us + 999) / 1000, 86400000));
}

std::string ms_text(long long us) {
    return std::to_string((us + 500) / 1000) + " ms";
}

// Waits until `fd` has `events` or `deadline` passes; false on the deadline.
bool wait_for(int fd, short events, long long deadline) {
    for (;;) {
        pollfd p = {fd, events, 0};
        int n = ::poll(&p, 1, ms_until(deadline));
        if (n > 0) return true;
        if (n == 0) return false;
        if (errno != EINTR) return true;  // let the next call report the error
    }
}

// Connects to the process serving `name`; MSG_OK with *out added to the cache,
// or MSG_NOT_LISTENING (MSG_TIMEOUT when not accepted by the deadline) with a
// trace line saying why. A check (`quiet`) that finds nothing listening leaves
// no trace line: for it that is an answer, not a failure.
int connect_to(const std::string& name, bool quiet, long long deadline, client_connection** out) {
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
    client_connection c{name, ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    if (c.fd < 0) {
        trace("send to " + name + ": no socket: " + std::strerror(errno));
        return MSG_NOT_LISTENING;
    }
    // A connect waits while the server's queue of new connections is full.
    const int ms = std::max(1, ms_until(deadline));
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    ::setsockopt(c.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (::connect(c.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        int error = errno;
        ::close(c.fd);
        if (error == EAGAIN) {  // the server's queue of new connections stayed full
            trace("send to " + name + ": not accepted within " + std::to_string(ms) + " ms");
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

// Whether the server left its refusal on `fd` before closing it.
bool refused(int fd) {
    unsigned char frame[ipc::REPLY_HEADER + 1];
    ssize_t n = ::recv(fd, frame, sizeof frame, MSG_DONTWAIT);
    ipc::reply r;
    return n > 0 && ipc::decode_reply(frame, static_cast<size_t>(n), 0, 0, &r) == nullptr &&
           r.status == MSG_BUSY;
}

// Sends the request frame `msg` to `name` on this thread's connection, made or
// remade as needed. MSG_OK with *out the connection it went on; on failure the
// connection is dropped and a trace line says why.
int send_request(const std::string& name, const msghdr& msg, bool quiet, long long deadline,
                 client_connection** out) {
    client_connection* c = t_cache.find(name);
    bool fresh = false;
    for (;;) {
        if (c == nullptr) {
            int status = connect_to(name, quiet, deadline, &c);
            if (status != MSG_OK) return status;
            fresh = true;
        }
        ssize_t sent;
        do {
            sent = ::sendmsg(c->fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        } while ((sent < 0 && errno == EINTR) ||
                 (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) &&
                  wait_for(c->fd, POLLOUT, deadline)));
        if (sent >= 0) {
            *out = c;
            return MSG_OK;
        }
        int error = errno;
        const bool busy = server_gone(error) && refused(c->fd);
        t_cache.drop(c);
        c = nullptr;
        if (busy) {
            trace("send to " + name + ": refused, the server has too many connections");
            return MSG_BUSY;
        }
        if (!fresh && server_gone(error)) continue;  // the server went away since: reconnect
        if (error == EAGAIN || error == EWOULDBLOCK) {
            trace("send to " + name + ": timed out sending");
            return MSG_TIMEOUT;
        }
        // Nothing was written: as if nothing had been listening.
        trace("send to " + name + ": the server closed the connection (" + std::strerror(error) +
              ")");
        return MSG_NOT_LISTENING;
    }
}

// Lets a blocking receive on `c` wait no longer than `left_us` (and at most
// RECEIVE_SLACK_US more, as a poll rounded to milliseconds would). The socket's
// timeout is changed only when it would wait longer than that: the deadlines of
// one thread's round trips are mostly the same time after their start, so a
// round trip usually makes no system call for it.
constexpr long long RECEIVE_SLACK_US = 1000;
void bound_receive(client_connection* c, long long left_us) {
    if (c->receive_timeout_us != 0 && c->receive_timeout_us <= left_us + RECEIVE_SLACK_US) return;
    timeval tv{static_cast<time_t>(left_us / 1000000), static_cast<suseconds_t>(left_us % 1000000)};
    if (::setsockopt(c->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0) {
        c->receive_timeout_us = left_us;
    }
}

// Receives the reply to request `r` on `c` by `deadline`: a blocking receive
// under the socket's receive timeout (see bound_receive). MSG_OK with *answer
// pointing into this thread's frame buffer; on failure `c` is dropped and a
// trace line says why.
int receive_reply(const std::string& name, client_connection* c, const ipc::request& r,
                  long long deadline, long long started, ipc::reply* answer) {
    ssize_t n = -1;
    int error = EAGAIN;
    for (;;) {  // once more without waiting when the deadline has passed
        const long long left = deadline - detail::monotonic_us();
        if (left > 0) bound_receive(c, left);
        n = ::recv(c->fd, t_cache.frame.data(), t_cache.frame.size(),
                   MSG_TRUNC | (left > 0 ? 0 : MSG_DONTWAIT));
        error = errno;
        if (n >= 0 || left <= 0 || (error != EINTR && error != EAGAIN && error != EWOULDBLOCK)) {
            break;
        }
    }
    if (n < 0 && server_gone(error) && refused(c->fd)) {  // the reset reports first
        t_cache.drop(c);
        trace("send to " + name + ": refused, the server has too many connections");
        return MSG_BUSY;
    }
    if (n <= 0) {
        t_cache.drop(c);
        if (n < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
            trace("send to " + name + ": no reply within " + ms_text(deadline - started));
            return MSG_TIMEOUT;
        }
        trace("send to " + name + ": peer gone before replying" +
              (n < 0 ? std::string(" (") + std::strerror(error) + ")" : std::string()));
        return MSG_PEER_GONE;
    }
    const char* bad = ipc::decode_reply(t_cache.frame.data(), static_cast<size_t>(n), r.call,
                                        r.reply_capacity, answer);
    if (bad == nullptr && answer->status == MSG_BUSY) {
        t_cache.drop(c);
        trace("send to " + name + ": refused, the server has too many connections");
        return MSG_BUSY;
    }
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
    const long long now = detail::monotonic_us();
    r.deadline_us = send_deadline(now);
    if (r.deadline_us <= now) {
        trace("send to " + name + ": not sent, the request being dispatched has expired");
        return MSG_EXPIRED;
    }
    unsigned char header[ipc::REQUEST_HEADER];
    r.call = t_cache.call();
    ipc::encode_request_header(r, header);
    iovec iov[2] = {{header, sizeof header},
                    {const_cast<unsigned char*>(r.payload), r.payload_size}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = r.payload_size > 0 ? 2 : 1;
    client_connection* c = nullptr;
    int status = send_request(name, msg, quiet, r.deadline_us, &c);
    if (status != MSG_OK) return status;
    return receive_reply(name, c, r, r.deadline_us, now, answer);
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
