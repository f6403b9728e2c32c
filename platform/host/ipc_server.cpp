// The server side of the message service between processes: serving a
// connection name on a Unix SOCK_SEQPACKET socket of the runtime directory, one
// accepting thread per served name and one thread per client connection.
// serve_connection and stop_serving are safe to call from any thread.
//
// serve_connection binds <runtime dir>/<name>.sock and holds an exclusive lock
// on <name>.lock for as long as it serves, so a socket file whose lock is free
// was left by a dead server and is replaced. At most MAX_SESSIONS connections
// are served per name; one past the bound is closed at once with a trace line,
// and its sender sees MSG_PEER_GONE. A peer of another uid (root excepted) is
// closed at once with a trace line. A malformed frame closes its connection
// with a trace line; the other connections go on being served. A connection
// that ends releases its thread and descriptor as it ends.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "host/tev_host.h"
#include "ipc_frame.h"
#include "ipc_internal.h"
#include "message_internal.h"
#include "runtime_dir.h"

namespace tevhost {
namespace {

using ipc::trace;

constexpr size_t MAX_SESSIONS = 128;  // client connections per served name

struct session {
    int fd;
};

// One served connection name. Its sessions run on detached threads that hold
// it (shared_ptr) until they end.
struct served {
    std::string name;
    std::string socket_path;
    int listen_fd = -1;
    int lock_fd = -1;
    int wake_fd = -1;
    std::thread acceptor;
    std::mutex mtx;
    std::condition_variable session_ended;
    std::list<session> sessions;  // guarded by mtx

    ~served() { close_files(); }
    // REQUIRES: the acceptor is not running.
    void close_files() {
        for (int* fd : {&listen_fd, &wake_fd, &lock_fd}) {
            if (*fd >= 0) ::close(*fd);
            *fd = -1;
        }
    }
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
// connection stops being served; then closes it and leaves the session list.
void serve_session(std::shared_ptr<served> srv, std::list<session>::iterator ses, ucred peer) {
    const int fd = ses->fd;  // the list entry is not touched without srv->mtx
    std::vector<unsigned char> frame(ipc::MAX_FRAME);
    std::vector<unsigned char> reply;
    for (;;) {
        ssize_t n = ::recv(fd, frame.data(), frame.size(), MSG_TRUNC);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        const char* error = ipc::answer(srv->name, frame.data(), static_cast<size_t>(n), &reply);
        if (error != nullptr) {
            trace(srv->name + ": refused a frame of " + std::to_string(n) + " bytes from pid " +
                  std::to_string(peer.pid) + " (" + error + "); connection closed");
            break;
        }
        if (::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) break;
    }
    std::lock_guard<std::mutex> lock(srv->mtx);
    ::close(fd);
    srv->sessions.erase(ses);
    srv->session_ended.notify_all();
}

// Whether the peer on `fd` may be served; if not, a trace line says why.
bool peer_allowed(const served& srv, int fd, ucred* peer) {
    socklen_t len = sizeof *peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, peer, &len) != 0) {
        trace(srv.name + ": cannot read the credentials of a peer; connection closed");
        return false;
    }
    if (peer->uid != ::geteuid() && peer->uid != 0) {
        trace(srv.name + ": refused peer pid " + std::to_string(peer->pid) + " of uid " +
              std::to_string(peer->uid) + " (not this user); connection closed");
        return false;
    }
    return true;
}

// Starts a session for `fd`, or closes it with a trace line.
void start_session(const std::shared_ptr<served>& srv, int fd, ucred peer) {
    std::lock_guard<std::mutex> lock(srv->mtx);
    if (srv->sessions.size() >= MAX_SESSIONS) {
        trace(srv->name + ": " + std::to_string(MAX_SESSIONS) +
              " connections open already; refused pid " + std::to_string(peer.pid));
        ::close(fd);
        return;
    }
    auto ses = srv->sessions.insert(srv->sessions.end(), session{fd});
    try {
        std::thread(serve_session, srv, ses, peer).detach();
    } catch (const std::system_error& e) {
        trace(srv->name + ": no thread for pid " + std::to_string(peer.pid) + " (" + e.what() +
              "); connection closed");
        srv->sessions.erase(ses);
        ::close(fd);
    }
}

void accept_loop(std::shared_ptr<served> srv) {
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
        if (!peer_allowed(*srv, fd, &peer)) {
            ::close(fd);
            continue;
        }
        start_session(srv, fd, peer);
    }
}

bool fail(std::string* error, const std::string& text) {
    trace(text);
    if (error != nullptr) *error = text;
    return false;
}

// Takes the lock of `srv`'s name, replaces a stale socket and listens.
// REQUIRES: the registry lock is held.
bool listen_on(served* srv, const std::string& lock_path, std::string* error) {
    const std::string& name = srv->name;
    sockaddr_un addr;
    if (!rundir::socket_address(srv->socket_path, &addr)) {
        return fail(error, "serve " + name + ": socket path too long: " + srv->socket_path);
    }
    srv->lock_fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (srv->lock_fd < 0) {
        return fail(error,
                    "serve " + name + ": cannot open " + lock_path + ": " + std::strerror(errno));
    }
    if (::flock(srv->lock_fd, LOCK_EX | LOCK_NB) != 0) {
        return fail(error, "serve " + name + ": already served by a live process (" +
                               srv->socket_path + ")");
    }
    // The lock was free, so a socket file here was left by a server that died.
    struct stat st;
    if (::lstat(srv->socket_path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
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
        return fail(error, "serve " + name + ": cannot listen on " + srv->socket_path + ": " +
                               std::strerror(errno));
    }
    return true;
}

}  // namespace

bool serve_connection(const char* connection, std::string* error) {
    if (connection == nullptr) return fail(error, "serve: no connection name");
    std::string name = detail::connection_name(connection);
    std::string dir;
    if (!runtime_dir(&dir, error)) return false;
    auto srv = std::make_shared<served>();
    srv->name = name;
    srv->socket_path = rundir::socket_file(dir, name);

    served_registry& registry = served_connections();
    std::lock_guard<std::mutex> lock(registry.mtx);
    if (registry.by_name.count(name) != 0) {
        return fail(error, "serve " + name + ": already served by this process");
    }
    if (!listen_on(srv.get(), rundir::lock_file(dir, name), error)) return false;
    try {
        srv->acceptor = std::thread(accept_loop, srv);
    } catch (const std::system_error& e) {
        ::unlink(srv->socket_path.c_str());
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
        auto it = registry.by_name.find(detail::connection_name(connection));
        if (it == registry.by_name.end()) return false;
        srv = it->second;
        registry.by_name.erase(it);
    }
    uint64_t one = 1;
    if (::write(srv->wake_fd, &one, sizeof one) < 0) trace(srv->name + ": cannot wake acceptor");
    srv->acceptor.join();
    ::unlink(srv->socket_path.c_str());
    // Idle sessions see end of input at once; one in a delivery finishes it and
    // sends its reply first. Each closes its connection as it ends.
    std::unique_lock<std::mutex> lock(srv->mtx);
    for (session& ses : srv->sessions) ::shutdown(ses.fd, SHUT_RD);
    srv->session_ended.wait(lock, [&] { return srv->sessions.empty(); });
    srv->close_files();  // the lock too: the name may be served again at once
    return true;
}

}  // namespace tevhost
