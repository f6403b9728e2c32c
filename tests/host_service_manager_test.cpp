// `tevash serve` on a listening socket passed in (LISTEN_FDS), real processes: it and a
// director report READY=1 and STOPPING=1 to a NOTIFY_SOCKET this test owns.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "child_process.h"
#include "tev_test_support.h"

namespace {

using tevtest::child_process;

// A Unix socket of `type` bound at `path`, listening unless a datagram one.
int bound_socket(int type, const std::string& path) {
    int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr)) << path;
    EXPECT_TRUE(type == SOCK_DGRAM || ::listen(fd, 16) == 0);
    return fd;
}

class ServiceManager : public ::testing::Test {
protected:
    void TearDown() override { ::close(notify_); }

    child_process start(const std::vector<std::string>& argv, int fd3 = -1) {
        return child_process(argv, {env_, log_, false, false, false, fd3});
    }
    // The next report to the notification socket; "" when none came within 20 s.
    std::string next_report() {
        pollfd p{notify_, POLLIN, 0};
        char text[512];
        const ssize_t n = ::poll(&p, 1, 20000) == 1 ? ::recv(notify_, text, sizeof text, 0) : 0;
        return std::string(text, n > 0 ? static_cast<size_t>(n) : 0);
    }
    // Serve, started on the name's socket (at the director's connection when held for it),
    // answers a create with the director's help, and both report their state.
    void serves_and_reports(child_process serve) {
        child_process director = start({TEVASH_CLI_PATH, "director", "--app-type", "1"});
        for (int ready = 0; ready < 2; ++ready) {
            EXPECT_EQ(0u, next_report().find("READY=1\nMAINPID=")) << log();
        }
        const tevtest::run_result created = tevtest::run_child(
            {TEVASH_CLI_PATH, "create", "APLJOB"}, {"TEVASH_RUNTIME_DIR=" + dir_.dir()});
        EXPECT_EQ("1\n", created.out) << created.err << log();
        EXPECT_EQ(0, director.kill(SIGTERM)) << log();
        EXPECT_EQ(0u, next_report().find("STOPPING=1\nSTATUS=withdrawing")) << log();
        EXPECT_EQ(0, serve.kill(SIGTERM)) << log();
        EXPECT_EQ(0u, next_report().find("STOPPING=1\nSTATUS=stopping")) << log();
        EXPECT_EQ(0, ::access(socket_.c_str(), F_OK)) << "the passed socket's file stays";
    }
    std::string log() const { return tevtest::file_text(log_); }

    tevtest::temp_dir dir_{"tevash_sm_"};
    const std::string socket_ = dir_.path("TEV_ASH_SRV.sock"), log_ = dir_.path("log");
    int notify_ = bound_socket(SOCK_DGRAM, dir_.path("notify"));
    const std::vector<std::string> env_{"TEVASH_RUNTIME_DIR=" + dir_.dir(),
                                        "NOTIFY_SOCKET=" + dir_.path("notify"),
                                        "TEVASH_HOST_TRACE=stderr"};
};

TEST_F(ServiceManager, ServeOnAPassedSocketAnswersAndReports) {
    // LISTEN_PID is the pid that runs serve, as a service manager sets it.
    const std::vector<std::string> passing{
        "/bin/sh",       "-c",   "export LISTEN_PID=$$ LISTEN_FDS=1; exec \"$@\"", "sh",
        TEVASH_CLI_PATH, "serve"};
    const int listening = bound_socket(SOCK_SEQPACKET, socket_);
    serves_and_reports(start(passing, listening));
    ::close(listening);
    // Anything but a listening Unix SOCK_SEQPACKET socket is refused in words.
    EXPECT_EQ(1, start(passing, notify_).wait());
    EXPECT_NE(std::string::npos, log().find("descriptor 3 is not a Unix SOCK_SEQPACKET socket"))
        << log();
}

TEST_F(ServiceManager, ServeThroughSystemdSocketActivate) {
    if (std::system("command -v systemd-socket-activate >/dev/null") != 0)
        GTEST_SKIP() << "systemd-socket-activate is not installed here";
    child_process serve =
        start({"/bin/sh", "-c", "exec systemd-socket-activate \"$@\"", "sh", "--seqpacket", "-l",
               socket_, "--fdname=TEV_ASH_SRV", "-E", "TEVASH_RUNTIME_DIR", "-E", "NOTIFY_SOCKET",
               "-E", "TEVASH_HOST_TRACE", TEVASH_CLI_PATH, "serve"});
    for (int i = 0; i < 1000 && ::access(socket_.c_str(), F_OK) != 0; ++i) ::usleep(10000);
    serves_and_reports(std::move(serve));
}

}  // namespace
