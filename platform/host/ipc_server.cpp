// The server side of the message service between processes: serving a
// connection name on a Unix SOCK_SEQPACKET socket of the runtime directory.
// serve_connection, stop_serving, connection_served and served_instance are
// safe to call from any thread.
//
// Each served name has one loop thread that accepts connections and waits on
// every idle connection at once (one epoll set, each connection armed for one
// event at a time). A connection with a request to read is handed to a worker
// thread, which reads the frame into its own buffer, delivers it (the dispatch
// may block for long), writes the reply and waits up to ACTIVE_LINGER_MS for
// the connection's next request in a blocking receive (the socket's receive
// timeout), so a client that sends one request after another is served like a
// thread per connection would: one receive and one send per request, no
// hand-over between threads. At most MAX_LINGERING workers wait so at once (as
// many as one peer may have connections); then a connection goes back to the
// loop. Workers are started as requests need them, so a request never waits
// for another connection's dispatch; at most MAX_IDLE_WORKERS idle ones are
// kept. An idle connection costs its descriptor and a small session entry, no
// thread and no frame buffer. A connection that ends releases its descriptor
// as it ends.
//
// serve_connection binds <runtime dir>/<name>.sock and holds an exclusive OFD
// lock (fcntl F_OFD_SETLK) on <name>.lock for as long as it serves, so a socket
// file whose lock is free was left by a dead server and is replaced, and others
// test the lock (F_OFD_GETLK) without taking it. The lock file holds the
// server's pid and a start stamp, the identity served_instance reports. A server
// that stops removes both files, the lock file while it still holds the lock; a
// starting server that locked a file removed meanwhile opens the new one again.
// serve_connection_on takes a listening socket bound there by a service manager
// instead: the same lock, and the socket file is left in place when it stops.
//
// Bounds: MAX_PEER_CONNECTIONS per peer process and MAX_CONNECTIONS in total per
// name (tev_host.h). One over either is sent the refusal frame and closed (its
// sender sees MSG_BUSY). A peer of another uid (root excepted) is closed at once.
// A malformed frame closes its connection. These are traced without flooding:
// the first of a kind with its reason, later ones as a count at most once a
// second ("N bad frames from pid P (last: <reason>)"), the rest when the
// connection name stops being served.
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
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
#include "ipc_name_lock.h"
#include "message_internal.h"
#include "runtime_dir.h"

namespace tevhost {
namespace {

using ipc::fail;
using ipc::trace;
using clock = std::chrono::steady_clock;

constexpr int MAX_IDLE_WORKERS = 4;   // per served name
constexpr int ACTIVE_LINGER_MS = 20;  // a worker's wait for its connection's next request
constexpr int MAX_LINGERING = MAX_PEER_CONNECTIONS;  // workers waiting so at once, per name
constexpr auto SUMMARY_PERIOD = std::chrono::seconds(1);
constexpr auto ACCEPT_PAUSE = std::chrono::milliseconds(100);

// Repeated events of one kind from one source: the first is traced with its
// reason, later ones counted and traced as a count at most once a period.
struct event_log {
    bool seen = false;
    unsigned pending = 0;  // counted, not traced yet
    std::string last;      // the reason of the last one counted
    clock::time_point last_line;

    // Traces `first` for the first event, else counts it under `reason`.
    void note(const std::string& first, const std::string& reason, const std::string& head,
              const std::string& what) {
        if (!seen) {
            trace(first);
            seen = true;
            last_line = clock::now();
            return;
        }
        ++pending;
        last = reason;
        flush(head, what, false);
    }
    // Traces "<head><count> <what> (last: <reason>)" when the period has passed
    // since the last line, or at once when `now`.
    void flush(const std::string& head, const std::string& what, bool now) {
        if (pending == 0 || (!now && clock::now() - last_line < SUMMARY_PERIOD)) return;
        trace(head + std::to_string(pending) + " " + what + " (last: " + last + ")");
        pending = 0;
        last_line = clock::now();
    }
    bool quiet() const { return pending == 0 && clock::now() - last_line >= SUMMARY_PERIOD; }
};

enum class session_state { idle, queued, busy };

struct session {
    int fd;
    pid_t pid;
    session_state state;
    std::list<session>::iterator self;
};

struct peer {
    int connections = 0;
    event_log bad_frames;
};

// One served connection name. Its loop and workers hold it (shared_ptr).
struct served {
    std::string name;
    std::string socket_path;
    std::string lock_path;
    int listen_fd = -1;
    int lock_fd = -1;
    bool bound = false;  // the socket file is this server's
    int wake_fd = -1;
    int epoll_fd = -1;
    std::thread loop;

    std::mutex mtx;
    std::condition_variable work;     // a session is ready, or stopping
    std::condition_variable changed;  // a session or a worker ended
    std::list<session> sessions;      // everything below is guarded by mtx
    std::deque<session*> ready;       // sessions with a request, waiting for a worker
    std::map<pid_t, peer> peers;      // peers with connections or recent events
    event_log refusals;
    int workers = 0;
    int idle_workers = 0;
    int lingering = 0;  // workers waiting for their connection's next request
    bool stopping = false;

    ~served() { close_files(); }
    // REQUIRES: the loop and the workers have ended.
    void close_files() {
        for (int* fd : {&listen_fd, &wake_fd, &epoll_fd, &lock_fd}) {
            if (*fd >= 0) ::close(*fd);
            *fd = -1;
        }
    }
    std::string head() const { return name + ": "; }
    static std::string bad_frames_from(pid_t pid) {
        return "bad frames from pid " + std::to_string(pid);
    }
    // Traces the counts waiting longer than the period (all of them when `all`)
    // and forgets the peers gone quiet. REQUIRES: mtx is held.
    void flush_events(bool all) {
        refusals.flush(head(), "connections refused", all);
        for (auto it = peers.begin(); it != peers.end();) {
            it->second.bad_frames.flush(head(), bad_frames_from(it->first), all);
            if (it->second.connections == 0 && it->second.bad_frames.quiet()) {
                it = peers.erase(it);
            } else {
                ++it;
            }
        }
    }
    // REQUIRES: mtx is held.
    bool events_pending() const {
        if (refusals.pending != 0) return true;
        for (const auto& p : peers) {
            if (p.second.bad_frames.pending != 0 || p.second.connections == 0) return true;
        }
        return false;
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

// Closes `s` and forgets it. REQUIRES: srv.mtx is held; no worker serves it.
void end_session(served& srv, session* s) {
    // Explicitly: a forked child may hold a copy of the descriptor, which would
    // keep it in the epoll set after close.
    ::epoll_ctl(srv.epoll_fd, EPOLL_CTL_DEL, s->fd, nullptr);
    ::close(s->fd);
    auto p = srv.peers.find(s->pid);
    if (--p->second.connections == 0 && p->second.bad_frames.quiet()) srv.peers.erase(p);
    srv.sessions.erase(s->self);
    srv.changed.notify_all();
}

enum class outcome { answered, none, closed };

// Reads one request on `s` and answers it: at once (`wait` false) or waiting
// up to ACTIVE_LINGER_MS for it (the socket's receive timeout). `none` when no
// request came; `closed` when the connection is to be closed: it ended, or sent
// a malformed frame (*bad says why).
outcome serve_request(const served& srv, const session& s, bool wait, unsigned char* frame,
                      std::vector<unsigned char>& reply, std::string* bad) {
    ssize_t n;
    do {
        n = ::recv(s.fd, frame, ipc::MAX_FRAME, MSG_TRUNC | (wait ? 0 : MSG_DONTWAIT));
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return outcome::none;
    if (n <= 0) return outcome::closed;
    detail::request_peer_scope peer(s.pid);
    if (const char* error = ipc::answer(srv.name, frame, static_cast<size_t>(n), &reply)) {
        *bad = std::string(error) + ", " + std::to_string(n) + " bytes";
        return outcome::closed;
    }
    // One reply always fits: a client has one request in flight. One that does
    // not read its replies is closed.
    return ::send(s.fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0
               ? outcome::answered
               : outcome::closed;
}

// Arms `s` for its next request. REQUIRES: srv.mtx is held.
void give_back(served& srv, session* s) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = s;
    if (::epoll_ctl(srv.epoll_fd, EPOLL_CTL_MOD, s->fd, &ev) != 0) {
        trace(srv.name + ": cannot wait on a connection of pid " + std::to_string(s->pid) + ": " +
              std::strerror(errno) + "; connection closed");
        end_session(srv, s);
        return;
    }
    s->state = session_state::idle;
}

// Serves the sessions the loop finds ready, then ends (stopping, or enough idle
// workers kept already). Frame buffers are the workers', not the sessions'; a
// frame buffer is left uninitialised, so only the pages that frames reach are
// ever touched. A lingering worker waits in a blocking receive, which
// stop_serving ends by shutting the connection's reading side.
void worker_main(std::shared_ptr<served> srv) {
    std::unique_ptr<unsigned char[]> frame(new unsigned char[ipc::MAX_FRAME]);
    std::vector<unsigned char> reply;
    std::unique_lock<std::mutex> lock(srv->mtx);
    for (;;) {
        if (srv->ready.empty()) {
            if (srv->stopping || srv->idle_workers >= MAX_IDLE_WORKERS) break;
            ++srv->idle_workers;
            srv->work.wait(lock, [&] { return !srv->ready.empty() || srv->stopping; });
            --srv->idle_workers;
            continue;
        }
        session* s = srv->ready.front();
        srv->ready.pop_front();
        s->state = session_state::busy;
        const bool linger = !srv->stopping && srv->lingering < MAX_LINGERING;
        srv->lingering += linger ? 1 : 0;
        lock.unlock();
        std::string bad;
        outcome got = serve_request(*srv, *s, false, frame.get(), reply, &bad);
        while (got == outcome::answered && linger)
            got = serve_request(*srv, *s, true, frame.get(), reply, &bad);
        const bool keep = got != outcome::closed;
        lock.lock();
        srv->lingering -= linger ? 1 : 0;
        if (!bad.empty()) {
            srv->peers[s->pid].bad_frames.note(srv->head() + "refused a frame from pid " +
                                                   std::to_string(s->pid) + " (" + bad +
                                                   "); connection closed",
                                               bad, srv->head(), served::bad_frames_from(s->pid));
        }
        if (keep && !srv->stopping) {
            give_back(*srv, s);
        } else {
            end_session(*srv, s);
        }
    }
    --srv->workers;
    srv->changed.notify_all();
}

// Wakes an idle worker for the last ready session, else starts one.
// REQUIRES: srv->mtx is held.
void find_worker(const std::shared_ptr<served>& srv) {
    if (srv->ready.size() <= static_cast<size_t>(srv->idle_workers)) {
        srv->work.notify_one();
        return;
    }
    try {
        std::thread(worker_main, srv).detach();
        ++srv->workers;
    } catch (const std::system_error& e) {
        // The request waits for a worker to end; the loop tries again in a while.
        trace(srv->name + ": no worker thread (" + e.what() + ")");
    }
}

// Hands `s` to a worker. REQUIRES: srv->mtx is held.
void queue_request(const std::shared_ptr<served>& srv, session* s) {
    s->state = session_state::queued;
    srv->ready.push_back(s);
    find_worker(srv);
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

// Starts a session for `fd`, or refuses it. REQUIRES: srv.mtx is held.
void start_session(served& srv, int fd, pid_t pid) {
    peer& p = srv.peers[pid];
    std::string over;
    if (p.connections >= MAX_PEER_CONNECTIONS) {
        over = std::to_string(MAX_PEER_CONNECTIONS) + " connections from pid " +
               std::to_string(pid) + " open already";
    } else if (srv.sessions.size() >= static_cast<size_t>(MAX_CONNECTIONS)) {
        over = std::to_string(MAX_CONNECTIONS) + " connections open already (pid " +
               std::to_string(pid) + ")";
    }
    if (!over.empty()) {
        std::vector<unsigned char> refusal;
        ipc::encode_refusal(&refusal);
        ::send(fd, refusal.data(), refusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        ::close(fd);
        srv.refusals.note(srv.head() + over + "; refused a connection", over, srv.head(),
                          "connections refused");
        return;
    }
    auto it = srv.sessions.insert(srv.sessions.end(), session{fd, pid, session_state::idle, {}});
    it->self = it;
    ++p.connections;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = &*it;
    if (::epoll_ctl(srv.epoll_fd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        trace(srv.name + ": cannot wait on a connection of pid " + std::to_string(pid) + ": " +
              std::strerror(errno) + "; connection closed");
        end_session(srv, &*it);
    }
}

// Accepts every waiting connection. False when out of descriptors or memory:
// the rest stay queued until the loop tries again after a pause.
bool accept_all(served& srv) {
    for (;;) {
        int fd = ::accept4(srv.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                trace(srv.name + ": cannot accept: " + std::strerror(errno));
                return false;
            }
            return true;  // EAGAIN: none left
        }
        ucred peer{};
        // A lingering worker's wait for the next request (serve_request).
        const timeval linger{0, ACTIVE_LINGER_MS * 1000};
        if (!peer_allowed(srv, fd, &peer) ||
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &linger, sizeof linger) != 0) {
            ::close(fd);
            continue;
        }
        std::lock_guard<std::mutex> lock(srv.mtx);
        start_session(srv, fd, peer.pid);
    }
}

void arm_listener(served& srv) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = &srv.listen_fd;
    ::epoll_ctl(srv.epoll_fd, EPOLL_CTL_MOD, srv.listen_fd, &ev);
}

// The loop of a served name: accepts, and hands each connection with a request
// to a worker, until woken to stop.
void serve_loop(std::shared_ptr<served> srv) {
    epoll_event events[64];
    clock::time_point accept_again{};  // while out of descriptors: when to try again
    for (;;) {
        int timeout = -1;
        {
            std::lock_guard<std::mutex> lock(srv->mtx);
            if (srv->events_pending() || (!srv->ready.empty() && srv->workers == 0)) {
                timeout = 1000;
            }
        }
        if (accept_again != clock::time_point{}) timeout = 100;
        int n = ::epoll_wait(srv->epoll_fd, events, 64, timeout);
        if (n < 0) {
            if (errno == EINTR) continue;
            trace(srv->name + ": wait failed: " + std::strerror(errno));
            return;
        }
        bool accept_now = false;
        std::unique_lock<std::mutex> lock(srv->mtx);
        for (int i = 0; i < n; ++i) {
            void* at = events[i].data.ptr;
            if (at == &srv->wake_fd) return;
            if (at == &srv->listen_fd) {
                accept_now = true;
            } else {
                queue_request(srv, static_cast<session*>(at));
            }
        }
        if (!srv->ready.empty() && srv->workers == 0) find_worker(srv);
        srv->flush_events(false);
        if (accept_again != clock::time_point{} && clock::now() >= accept_again) {
            accept_again = {};
            accept_now = true;
        }
        if (accept_now) {
            lock.unlock();
            const bool drained = accept_all(*srv);
            lock.lock();
            if (drained) {
                arm_listener(*srv);
            } else {
                accept_again = clock::now() + ACCEPT_PAUSE;
            }
        }
    }
}

// Why `fd` cannot be served on (empty when it can): it must be a listening Unix
// SOCK_SEQPACKET socket bound to `socket_path`.
std::string passed_socket_problem(int fd, const std::string& socket_path) {
    int domain = 0, type = 0, listening = 0;
    socklen_t len = sizeof domain;
    if (::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) != 0) {
        return "descriptor " + std::to_string(fd) + " is not a socket (" + std::strerror(errno) +
               ")";
    }
    len = sizeof type;
    ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len);
    len = sizeof listening;
    ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len);
    if (domain != AF_UNIX || type != SOCK_SEQPACKET) {
        return "descriptor " + std::to_string(fd) + " is not a Unix SOCK_SEQPACKET socket";
    }
    if (listening == 0) return "descriptor " + std::to_string(fd) + " is not listening";
    // Clients look for the socket's file in the runtime directory.
    sockaddr_un bound{};
    len = sizeof bound;
    std::string bound_path;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len) == 0 &&
        len > offsetof(sockaddr_un, sun_path)) {
        const size_t room =
            std::min<size_t>(len - offsetof(sockaddr_un, sun_path), sizeof bound.sun_path);
        bound_path.assign(bound.sun_path, ::strnlen(bound.sun_path, room));
    }
    struct stat at_path, of_bound;
    if (bound_path.empty() || ::stat(socket_path.c_str(), &at_path) != 0 ||
        ::stat(bound_path.c_str(), &of_bound) != 0 || at_path.st_dev != of_bound.st_dev ||
        at_path.st_ino != of_bound.st_ino) {
        return "descriptor " + std::to_string(fd) + " does not listen on " + socket_path +
               ", where clients look";
    }
    return "";
}

// Takes the lock of `srv`'s name, replaces a stale socket and listens; on
// `passed_fd` instead when it is not -1 (checked already).
// REQUIRES: the registry lock is held.
bool listen_on(served* srv, int passed_fd, std::string* error) {
    const std::string& name = srv->name;
    sockaddr_un addr;
    if (!rundir::socket_address(srv->socket_path, &addr)) {
        return fail(error, "serve " + name + ": socket path too long: " + srv->socket_path);
    }
    srv->lock_fd = ipc::lock_name(name, srv->lock_path, srv->socket_path, error);
    if (srv->lock_fd < 0) return false;
    // The lock was free, so a socket file here was left by a server that died.
    struct stat st;
    if (passed_fd < 0 && ::lstat(srv->socket_path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            return fail(error, "serve " + name + ": " + srv->socket_path + " is not a socket");
        }
        ::unlink(srv->socket_path.c_str());
        trace("serve " + name + ": replaced the stale socket " + srv->socket_path);
    }
    srv->listen_fd = passed_fd >= 0
                         ? passed_fd
                         : ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    srv->wake_fd = ::eventfd(0, EFD_CLOEXEC);
    srv->epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event listen_ev{}, wake_ev{};
    listen_ev.events = EPOLLIN | EPOLLONESHOT;
    listen_ev.data.ptr = &srv->listen_fd;
    wake_ev.events = EPOLLIN;
    wake_ev.data.ptr = &srv->wake_fd;
    srv->bound = passed_fd < 0 && srv->listen_fd >= 0 &&
                 ::bind(srv->listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    const bool listening =
        passed_fd >= 0 ? ::fcntl(passed_fd, F_SETFL, ::fcntl(passed_fd, F_GETFL) | O_NONBLOCK) == 0
                       : srv->bound && ::listen(srv->listen_fd, 64) == 0;
    if (!listening || srv->wake_fd < 0 || srv->epoll_fd < 0 ||
        ::epoll_ctl(srv->epoll_fd, EPOLL_CTL_ADD, srv->listen_fd, &listen_ev) != 0 ||
        ::epoll_ctl(srv->epoll_fd, EPOLL_CTL_ADD, srv->wake_fd, &wake_ev) != 0) {
        return fail(error, "serve " + name + ": cannot listen on " + srv->socket_path + ": " +
                               std::strerror(errno));
    }
    return true;
}

// Removes the files of `srv`'s name (the lock file while still holding its lock)
// and closes its descriptors. REQUIRES: the loop and the workers have ended.
void remove_files(served* srv) {
    if (srv->bound) ::unlink(srv->socket_path.c_str());
    if (srv->lock_fd >= 0) ::unlink(srv->lock_path.c_str());
    srv->close_files();
}

// Serves `connection` on a socket of its own, or on `passed_fd` when not -1.
bool serve(const char* connection, int passed_fd, std::string* error) {
    if (connection == nullptr) return fail(error, "serve: no connection name");
    std::string name = detail::connection_name(connection);
    std::string dir;
    if (!runtime_dir(&dir, error)) return false;
    auto srv = std::make_shared<served>();
    srv->name = name;
    srv->socket_path = rundir::socket_file(dir, name);
    srv->lock_path = rundir::lock_file(dir, name);

    served_registry& registry = served_connections();
    std::lock_guard<std::mutex> lock(registry.mtx);
    if (registry.by_name.count(name) != 0) {
        return fail(error, "serve " + name + ": already served by this process");
    }
    if (passed_fd >= 0) {
        const std::string problem = passed_socket_problem(passed_fd, srv->socket_path);
        if (!problem.empty()) return fail(error, "serve " + name + ": " + problem);
        ::fcntl(passed_fd, F_SETFD, FD_CLOEXEC);
    }
    if (!listen_on(srv.get(), passed_fd, error)) {
        if (passed_fd >= 0) srv->listen_fd = -1;  // still the caller's
        remove_files(srv.get());
        return false;
    }
    try {
        srv->loop = std::thread(serve_loop, srv);
    } catch (const std::system_error& e) {
        if (passed_fd >= 0) srv->listen_fd = -1;
        remove_files(srv.get());
        return fail(error, "serve " + name + ": no thread to serve with (" + e.what() + ")");
    }
    registry.by_name.emplace(name, srv);
    return true;
}

}  // namespace

bool serve_connection(const char* connection, std::string* error) {
    return serve(connection, -1, error);
}

bool serve_connection_on(const char* connection, int listen_fd, std::string* error) {
    if (listen_fd < 0) return fail(error, "serve: no listening socket given");
    return serve(connection, listen_fd, error);
}

std::vector<peer_connections> served_peers(const char* connection) {
    std::vector<peer_connections> found;
    if (connection == nullptr) return found;
    std::shared_ptr<served> srv;
    {
        served_registry& registry = served_connections();
        std::lock_guard<std::mutex> lock(registry.mtx);
        auto it = registry.by_name.find(detail::connection_name(connection));
        if (it == registry.by_name.end()) return found;
        srv = it->second;
    }
    std::lock_guard<std::mutex> lock(srv->mtx);
    for (const auto& p : srv->peers) {
        if (p.second.connections > 0) found.push_back({p.first, p.second.connections});
    }
    return found;
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
    if (::write(srv->wake_fd, &one, sizeof one) < 0) trace(srv->name + ": cannot wake its loop");
    srv->loop.join();
    if (srv->bound) ::unlink(srv->socket_path.c_str());  // no new connections from here on
    srv->bound = false;
    {
        // Idle connections are closed now; one with a request finishes it and
        // sends its reply first; a worker waiting for a connection's next
        // request stops waiting (no more are read from it).
        std::unique_lock<std::mutex> lock(srv->mtx);
        srv->stopping = true;
        for (auto it = srv->sessions.begin(); it != srv->sessions.end();) {
            session* s = &*it++;
            if (s->state == session_state::idle) {
                end_session(*srv, s);
            } else if (s->state == session_state::busy) {
                ::shutdown(s->fd, SHUT_RD);
            }
        }
        srv->work.notify_all();
        srv->changed.wait(lock, [&] { return srv->sessions.empty() && srv->workers == 0; });
        srv->flush_events(true);
    }
    remove_files(srv.get());  // the name may be served again at once
    return true;
}

}  // namespace tevhost
