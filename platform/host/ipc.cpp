// The message service between processes: the runtime directory, serving a
// connection name on a Unix SOCK_SEQPACKET socket, and the client side of a
// send to another process. Frames are described in ipc_frame.h.
//
// Server: serve_connection binds <runtime dir>/<name>.sock and holds an
// exclusive lock on <name>.lock for as long as it serves, so a socket file
// whose lock is free was left by a dead server and is replaced. One accepting
// thread per served name, one thread per client connection (at most
// MAX_SESSIONS per name; a connection past the bound is closed at once with a
// trace line, and its sender sees MSG_PEER_GONE). A peer of another uid (root
// excepted) is closed at once with a trace line. A malformed frame closes its
// connection with a trace line; the other connections go on being served.
//
// Client: each thread keeps one connection per connection name, so a round trip
// is one send and one receive. A cached connection whose server has gone (the
// send fails) is replaced by a fresh one once, so a restarted server is reached
// transparently. The reply is received into a private buffer and copied to the
// caller's only when it is whole and well formed.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/tev_host.h"
#include "ipc_frame.h"
#include "message_internal.h"
#include "tiv_trace.h"

namespace tevhost {
namespace {

constexpr int DEFAULT_TIMEOUT_MS = 30000;
constexpr size_t MAX_SESSIONS = 128;  // client connections per served name

int timeout_ms() {
    const char* text = std::getenv("TEVASH_HOST_IPC_TIMEOUT_MS");
    if (text == nullptr || *text == '\0') return DEFAULT_TIMEOUT_MS;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (*end != '\0' || value <= 0 || value > 24L * 3600 * 1000) return DEFAULT_TIMEOUT_MS;
    return static_cast<int>(value);
}

// The runtime directory's path, from the environment.
std::string runtime_dir_path() {
    if (const char* dir = std::getenv("TEVASH_RUNTIME_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    if (const char* xdg = std::getenv("XDG_RUNTIME_DIR"); xdg != nullptr && *xdg != '\0') {
        return std::string(xdg) + "/tevash";
    }
    return "/tmp/tevash-" + std::to_string(::geteuid());
}

// Empty when `dir` is a directory of this user closed to others, else why not.
std::string unsafe_dir(const std::string& dir) {
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0) {
        return "runtime directory " + dir + ": " + std::strerror(errno);
    }
    if (!S_ISDIR(st.st_mode)) return "runtime directory " + dir + " is not a directory";
    if (st.st_uid != ::geteuid()) {
        return "runtime directory " + dir + " is owned by uid " + std::to_string(st.st_uid) +
               ", not by this user (uid " + std::to_string(::geteuid()) + ")";
    }
    if ((st.st_mode & 077) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return "runtime directory " + dir + " is open to others (mode " + mode +
               "); it must be 0700";
    }
    return std::string();
}

// A file name for a connection name: letters, digits, '_', '-' and '.' as they
// are, any other byte as %XX.
std::string file_name(const std::string& connection) {
    std::string out;
    for (unsigned char c : connection) {
        if (std::isalnum(c) || c == '_' || c == '-' || (c == '.' && !out.empty())) {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        }
    }
    return out;
}

bool socket_address(const std::string& path, sockaddr_un* addr) {
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof addr->sun_path) return false;
    std::memcpy(addr->sun_path, path.data(), path.size());
    return true;
}

void trace(const std::string& text) {
    tivGENTrcPrintf(0, 0, 0, "host ipc: %s\n", text.c_str());
}

// ---------------------------------------------------------------------------
// Server.

struct session {
    int fd;
    std::thread thread;
    std::atomic<bool> done{false};
};

struct served {
    std::string name;
    std::string socket_path;
    int listen_fd = -1;
    int lock_fd = -1;
    int wake_fd = -1;
    std::thread acceptor;
    std::mutex mtx;
    std::list<session> sessions;  // guarded by mtx
};

struct served_registry {
    std::mutex mtx;
    std::map<std::string, std::shared_ptr<served>> by_name;  // guarded by mtx
};

served_registry& served_connections() {
    // Never destroyed: a process may exit while serving, its threads still running.
    static served_registry* r = new served_registry;
    return *r;
}

// Serves one client connection until it closes, sends a bad frame or the
// connection stops being served.
void serve_session(served* srv, session* ses, ucred peer) {
    std::vector<unsigned char> frame(ipc::MAX_FRAME);
    std::vector<unsigned char> reply;
    for (;;) {
        ssize_t n = ::recv(ses->fd, frame.data(), frame.size(), MSG_TRUNC);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        const char* error = ipc::answer(srv->name, frame.data(), static_cast<size_t>(n), &reply);
        if (error != nullptr) {
            trace(srv->name + ": refused a frame of " + std::to_string(n) + " bytes from pid " +
                  std::to_string(peer.pid) + " (" + error + "); connection closed");
            break;
        }
        if (::send(ses->fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) break;
    }
    ::shutdown(ses->fd, SHUT_RDWR);
    ses->done = true;
}

// REQUIRES: srv->mtx is held.
void reap_sessions(served* srv) {
    for (auto it = srv->sessions.begin(); it != srv->sessions.end();) {
        if (!it->done) {
            ++it;
            continue;
        }
        it->thread.join();
        ::close(it->fd);
        it = srv->sessions.erase(it);
    }
}

void accept_loop(served* srv) {
    for (;;) {
        pollfd fds[2] = {{srv->listen_fd, POLLIN, 0}, {srv->wake_fd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            trace(srv->name + ": poll failed: " + std::strerror(errno));
            return;
        }
        if (fds[1].revents != 0) return;
        int fd = ::accept4(srv->listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of descriptors or memory: the waiting clients stay queued; try
                // again after a pause rather than spinning.
                trace(srv->name + ": cannot accept: " + std::strerror(errno));
                pollfd wake = {srv->wake_fd, POLLIN, 0};
                ::poll(&wake, 1, 100);
            }
            continue;
        }
        ucred peer{};
        socklen_t len = sizeof peer;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0) {
            trace(srv->name + ": cannot read the credentials of a peer; connection closed");
            ::close(fd);
            continue;
        }
        if (peer.uid != ::geteuid() && peer.uid != 0) {
            trace(srv->name + ": refused peer pid " + std::to_string(peer.pid) + " of uid " +
                  std::to_string(peer.uid) + " (not this user); connection closed");
            ::close(fd);
            continue;
        }
        std::lock_guard<std::mutex> lock(srv->mtx);
        reap_sessions(srv);
        if (srv->sessions.size() >= MAX_SESSIONS) {
            trace(srv->name + ": " + std::to_string(MAX_SESSIONS) +
                  " connections open already; refused pid " + std::to_string(peer.pid));
            ::close(fd);
            continue;
        }
        srv->sessions.emplace_back();
        session* ses = &srv->sessions.back();
        ses->fd = fd;
        try {
            ses->thread = std::thread(serve_session, srv, ses, peer);
        } catch (const std::system_error& e) {
            trace(srv->name + ": no thread for pid " + std::to_string(peer.pid) + " (" + e.what() +
                  "); connection closed");
            srv->sessions.pop_back();
            ::close(fd);
        }
    }
}

void close_served(served* srv) {
    if (srv->listen_fd >= 0) ::close(srv->listen_fd);
    if (srv->wake_fd >= 0) ::close(srv->wake_fd);
    if (srv->lock_fd >= 0) ::close(srv->lock_fd);
}

bool fail(std::string* error, const std::string& text) {
    trace(text);
    if (error != nullptr) *error = text;
    return false;
}

// ---------------------------------------------------------------------------
// Client.

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

void set_timeouts(int fd, int ms) {
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// Connects to the process serving `name`; MSG_OK with *out added to the cache,
// or MSG_NOT_LISTENING with a trace line saying why.
// A check (`quiet`) that finds nothing listening leaves no trace line: for it
// that is an answer, not a failure.
int connect_to(const std::string& name, bool quiet, client_connection** out) {
    std::string dir = runtime_dir_path();
    std::string path = dir + "/" + file_name(name) + ".sock";
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (!quiet) trace("send to " + name + ": nothing listening (no " + path + ")");
        return MSG_NOT_LISTENING;
    }
    std::string unsafe = unsafe_dir(dir);
    if (!unsafe.empty()) {
        trace("send to " + name + ": not connecting, " + unsafe);
        return MSG_NOT_LISTENING;
    }
    sockaddr_un addr;
    if (!socket_address(path, &addr)) {
        trace("send to " + name + ": socket path too long: " + path);
        return MSG_NOT_LISTENING;
    }
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        trace("send to " + name + ": no socket: " + std::strerror(errno));
        return MSG_NOT_LISTENING;
    }
    int ms = timeout_ms();
    set_timeouts(fd, ms);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        int error = errno;
        ::close(fd);
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
    t_cache.connections.push_back(client_connection{name, fd, ms});
    *out = &t_cache.connections.back();
    return MSG_OK;
}

bool server_gone(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == ECONNREFUSED;
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

    client_connection* c = t_cache.find(name);
    bool fresh = false;
    for (;;) {
        if (c == nullptr) {
            int status = connect_to(name, quiet, &c);
            if (status != MSG_OK) return status;
            fresh = true;
        }
        int ms = timeout_ms();
        if (ms != c->timeout_ms) {
            set_timeouts(c->fd, ms);
            c->timeout_ms = ms;
        }
        ssize_t sent;
        do {
            sent = ::sendmsg(c->fd, &msg, MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        if (sent >= 0) break;
        int error = errno;
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

bool runtime_dir(std::string* dir, std::string* error) {
    std::string path = runtime_dir_path();
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return fail(error, "cannot create runtime directory " + path + ": " + std::strerror(errno));
    }
    std::string unsafe = unsafe_dir(path);
    if (!unsafe.empty()) return fail(error, unsafe);
    if (dir != nullptr) *dir = path;
    return true;
}

bool serve_connection(const char* connection, std::string* error) {
    if (connection == nullptr) return fail(error, "serve: no connection name");
    std::string name(connection, strnlen(connection, 16));
    std::string dir;
    if (!runtime_dir(&dir, error)) return false;
    auto srv = std::make_shared<served>();
    srv->name = name;
    srv->socket_path = dir + "/" + file_name(name) + ".sock";
    std::string lock_path = dir + "/" + file_name(name) + ".lock";
    sockaddr_un addr;
    if (!socket_address(srv->socket_path, &addr)) {
        return fail(error, "serve " + name + ": socket path too long: " + srv->socket_path);
    }

    served_registry& registry = served_connections();
    std::lock_guard<std::mutex> lock(registry.mtx);
    if (registry.by_name.count(name) != 0) {
        return fail(error, "serve " + name + ": already served by this process");
    }
    srv->lock_fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (srv->lock_fd < 0) {
        return fail(error,
                    "serve " + name + ": cannot open " + lock_path + ": " + std::strerror(errno));
    }
    if (::flock(srv->lock_fd, LOCK_EX | LOCK_NB) != 0) {
        close_served(srv.get());
        return fail(error, "serve " + name + ": already served by a live process (" +
                               srv->socket_path + ")");
    }
    // The lock was free, so a socket file here was left by a server that died.
    struct stat st;
    if (::lstat(srv->socket_path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            close_served(srv.get());
            return fail(error, "serve " + name + ": " + srv->socket_path + " is not a socket");
        }
        ::unlink(srv->socket_path.c_str());
        trace("serve " + name + ": replaced the stale socket " + srv->socket_path);
    }
    srv->listen_fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    srv->wake_fd = ::eventfd(0, EFD_CLOEXEC);
    if (srv->listen_fd < 0 || srv->wake_fd < 0 ||
        ::bind(srv->listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(srv->listen_fd, 64) != 0) {
        std::string why = std::strerror(errno);
        close_served(srv.get());
        return fail(error, "serve " + name + ": cannot listen on " + srv->socket_path + ": " + why);
    }
    try {
        srv->acceptor = std::thread(accept_loop, srv.get());
    } catch (const std::system_error& e) {
        ::unlink(srv->socket_path.c_str());
        close_served(srv.get());
        return fail(error, "serve " + name + ": no thread to accept with (" + e.what() + ")");
    }
    registry.by_name.emplace(name, srv);
    return true;
}

bool stop_serving(const char* connection) {
    if (connection == nullptr) return false;
    std::shared_ptr<served> srv;
    {
        served_registry& registry = served_connections();
        std::lock_guard<std::mutex> lock(registry.mtx);
        auto it = registry.by_name.find(std::string(connection, strnlen(connection, 16)));
        if (it == registry.by_name.end()) return false;
        srv = it->second;
        registry.by_name.erase(it);
    }
    uint64_t one = 1;
    if (::write(srv->wake_fd, &one, sizeof one) < 0) trace(srv->name + ": cannot wake acceptor");
    srv->acceptor.join();
    ::unlink(srv->socket_path.c_str());
    // Idle sessions see end of input at once; one in a delivery finishes it and
    // sends its reply first.
    std::lock_guard<std::mutex> lock(srv->mtx);
    for (session& ses : srv->sessions) ::shutdown(ses.fd, SHUT_RD);
    for (session& ses : srv->sessions) {
        ses.thread.join();
        ::close(ses.fd);
    }
    srv->sessions.clear();
    close_served(srv.get());
    return true;
}

}  // namespace tevhost
