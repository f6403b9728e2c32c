// serve, director: the handler service and a sample director, each as its own
// process over the runtime directory's shared record store, also under a
// service manager: readiness and stopping are told to NOTIFY_SOCKET, and serve
// takes its listening socket from socket activation (LISTEN_PID, LISTEN_FDS,
// LISTEN_FDNAMES). This file is the tool's only reader of those variables.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commands.h"
#include "host/tev_host.h"
#include "processes.h"
#include "tev_ash_types.h"

namespace tevash_cli {

namespace {

constexpr int FIRST_PASSED_FD = 3;

struct process_command {
    tevash_tools::process_options opt;
    int app_type = 0;
    std::string connection;
};

void add_store_options(CLI::App* sub, process_command& c) {
    sub->add_option("--store", c.opt.store,
                    "Record store file shared by the processes (default: <runtime dir>/store.db)")
        ->type_name("FILE");
    sub->add_flag("--json", c.opt.json, "Print the ready line as a JSON object");
}

// The value of `name` ("" when unset), then unset: the service manager meant it
// for this process, not for its children. Called before any thread starts.
std::string take_variable(const char* name) {
    const char* value = std::getenv(name);
    std::string text = value != nullptr ? value : "";
    ::unsetenv(name);
    return text;
}

// A number of 1 to `max` from `text`; 0 when it is none.
long positive(const std::string& text, long max) {
    char* end = nullptr;
    errno = 0;
    long n = std::strtol(text.c_str(), &end, 10);
    return text.empty() || *end != '\0' || errno != 0 || n < 1 || n > max ? 0 : n;
}

// The listening socket a service manager passed to this process for
// `connection`: -1 when none was passed, -2 with *error set when what was passed
// cannot be used. The socket named `connection` in LISTEN_FDNAMES, else the only
// one passed. Every passed descriptor is made close-on-exec.
int take_passed_socket(const char* connection, std::string* error) {
    const std::string pid = take_variable("LISTEN_PID");
    const std::string count = take_variable("LISTEN_FDS");
    const std::string names = take_variable("LISTEN_FDNAMES");
    if (pid.empty() || positive(pid, 1L << 30) != static_cast<long>(::getpid())) return -1;
    const long n = positive(count, 1024);
    if (n == 0) {
        *error = "LISTEN_FDS is '" + count + "', not a number of sockets passed in";
        return -2;
    }
    int chosen = n == 1 ? FIRST_PASSED_FD : -1;
    size_t at = 0;
    for (long i = 0; i < n; ++i) {
        ::fcntl(FIRST_PASSED_FD + static_cast<int>(i), F_SETFD, FD_CLOEXEC);
        size_t end = std::min(names.find(':', at), names.size());
        if (at <= names.size() && names.compare(at, end - at, connection) == 0) {
            chosen = FIRST_PASSED_FD + static_cast<int>(i);
        }
        at = end + 1;
    }
    if (chosen < 0) {
        *error = std::to_string(n) + " sockets passed in (LISTEN_FDS) and none named " +
                 connection + " in LISTEN_FDNAMES ('" + names + "')";
        return -2;
    }
    return chosen;
}

// Sends `state` as one datagram to a service manager's notification socket: a
// path, or an abstract name written with a leading '@'. False with *error set.
bool notify_manager(const std::string& socket_name, const std::string& state, std::string* error) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_name.size() < 2 || (socket_name[0] != '/' && socket_name[0] != '@')) {
        *error = "not a socket path or abstract name";
        return false;
    }
    if (socket_name.size() >= sizeof addr.sun_path) {
        *error = "longer than a socket address holds (" + std::to_string(sizeof addr.sun_path - 1) +
                 " bytes)";
        return false;
    }
    std::memcpy(addr.sun_path, socket_name.data(), socket_name.size());
    if (socket_name[0] == '@') addr.sun_path[0] = '\0';
    const socklen_t len = static_cast<socklen_t>(
        offsetof(sockaddr_un, sun_path) + socket_name.size() + (socket_name[0] == '@' ? 0 : 1));
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool sent = fd >= 0 && ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                                    reinterpret_cast<sockaddr*>(&addr),
                                    len) == static_cast<ssize_t>(state.size());
    if (!sent) *error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return sent;
}

// Tells the service manager of NOTIFY_SOCKET (when one is set) the process's
// "ready" and "stopping", with its status text.
void report_to_manager(const char* who, tevash_tools::process_options* opt) {
    const std::string socket_name = take_variable("NOTIFY_SOCKET");
    if (socket_name.empty()) return;
    const std::string head = std::string("tevash ") + who + ": ";
    opt->on_state = [socket_name, head](const char* state, const std::string& status) {
        const bool ready = std::strcmp(state, "ready") == 0;
        const std::string message =
            (ready ? "READY=1\nMAINPID=" + std::to_string(::getpid()) : std::string("STOPPING=1")) +
            "\nSTATUS=" + status;
        std::string error;
        if (!notify_manager(socket_name, message, &error)) {
            // A name no socket address holds is shown cut short.
            const std::string shown =
                socket_name.size() > 120 ? socket_name.substr(0, 117) + "..." : socket_name;
            tevhost::log_line(tevhost::log_priority::warning,
                              head + "cannot tell the service manager (NOTIFY_SOCKET " + shown +
                                  ") it is " + state + ": " + error);
        }
    };
}

}  // namespace

void add_process_commands(CLI::App& app, context& ctx) {
    auto c = std::make_shared<process_command>();
    auto* serve = app.add_subcommand("serve", "Run the handler service for other processes");
    serve->footer(
        "Runs in the foreground until SIGTERM or SIGINT, then finishes the calls in flight, "
        "removes its socket and exits 0. Directors and applications of the same runtime "
        "directory (--runtime-dir or TEVASH_RUNTIME_DIR; default $XDG_RUNTIME_DIR/tevash, "
        "else /tmp/tevash-<uid>) reach it. Prints `ready` once serving; traces go to standard "
        "error. Refuses to start when a service already runs there. Under a service manager it "
        "reports READY=1 and STOPPING=1 to NOTIFY_SOCKET, and serves on the listening socket "
        "passed in by socket activation (LISTEN_FDS), which it leaves in place.");
    add_store_options(serve, *c);
    serve->callback([&ctx, c] {
        if (c->opt.store.empty()) c->opt.store = ctx.store;
        if (!ctx.runtime_dir.empty()) tevhost::set_runtime_dir(ctx.runtime_dir);
        std::string error;
        c->opt.listen_fd = take_passed_socket(velmora::TEV_ASH_SRV_NAME, &error);
        if (c->opt.listen_fd == -2) {
            tevhost::log_line(tevhost::log_priority::error, "tevash serve: " + error);
            ctx.exit_code = 1;
            return;
        }
        if (c->opt.listen_fd >= 0) {
            tevhost::log_line(tevhost::log_priority::info,
                              "tevash serve: listening socket passed in: descriptor " +
                                  std::to_string(c->opt.listen_fd));
        }
        report_to_manager("serve", &c->opt);
        ctx.exit_code = tevash_tools::run_service(c->opt);
    });

    auto* director =
        app.add_subcommand("director", "Run a sample director for one application type");
    director->footer(
        "Registers with the handler service of the runtime directory, then creates, resets and "
        "removes handlers in the shared store for it, in the foreground. Prints `ready` once "
        "registered (and reports READY=1 to NOTIFY_SOCKET under a service manager); withdraws "
        "and exits 0 on SIGTERM or SIGINT.");
    director->add_option("--app-type", c->app_type, "Application type it directs")->required();
    director->add_option("--connection", c->connection,
                         "Its connection name (default TEV_ASH_DIR<app type>)");
    add_store_options(director, *c);
    director->callback([&ctx, c] {
        if (c->opt.store.empty()) c->opt.store = ctx.store;
        if (!ctx.runtime_dir.empty()) tevhost::set_runtime_dir(ctx.runtime_dir);
        report_to_manager("director", &c->opt);
        ctx.exit_code = tevash_tools::run_director(c->app_type, c->connection, c->opt);
    });
}

}  // namespace tevash_cli
