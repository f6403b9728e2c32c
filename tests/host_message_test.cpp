// The message service in process and between processes: a child server, each
// failure result, stale and live sockets, the runtime directory's checks, raw
// malformed frames, frame and connection bounds, peers of another uid,
// concurrent senders.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "facade_template.h"
#include "gen_ipc.h"
#include "host/tev_host_testing.h"
#include "tev_test_support.h"
#include "vlq_mc_client.h"

extern char** environ;

namespace {

using namespace tevhost;
using tevtest::bytes;
using tevtest::join;
using tevtest::le32;
using namespace std::chrono_literals;

constexpr long LARGEST_REQUEST = 65536 - 32, LARGEST_REPLY = 65536 - 20;  // a frame's payload

// A served object whose dispatch runs `on_message`.
class test_facade : public velmora::facade_template {
public:
    using handler = std::function<void(long, char*, unsigned int, gen_ipc_msghdr)>;
    explicit test_facade(handler on_message) : on_message_(std::move(on_message)) {}
    void dispatch(long func_id, char* buf, unsigned int len, gen_ipc_msghdr hdr) override {
        on_message_(func_id, buf, len, hdr);
    }

private:
    handler on_message_;
};

// Replies with the request's bytes reversed, followed by the function id.
void reverse_echo(long func_id, char* buf, unsigned int len, gen_ipc_msghdr hdr) {
    std::string reply(buf, len);
    reply.assign(reply.rbegin(), reply.rend());
    reply.push_back(static_cast<char>(func_id));
    gen_ipc_reply(hdr, reply.data(), static_cast<unsigned int>(reply.size()));
}

// Run as a child server when HOST_IPC_TEST_SERVE names a connection: object 1
// echoes reversed, object 2 writes 'H' to stdout and holds the request until
// stdin closes, object 3 never answers. Writes 'R' when serving; stops serving
// and exits when stdin closes.
const bool g_child = [] {
    const char* name = std::getenv("HOST_IPC_TEST_SERVE");
    if (name == nullptr) return false;
    static std::mutex mtx;
    static std::condition_variable cv;
    static bool released = false;
    static test_facade echo(reverse_echo);
    static test_facade silent([](long, char*, unsigned int, gen_ipc_msghdr) {});
    static test_facade hold([](long, char*, unsigned int, gen_ipc_msghdr h) {
        if (::write(1, "H", 1) != 1) _exit(3);
        std::unique_lock<std::mutex> lock(mtx);
        cv.wait(lock, [] { return released; });
        gen_ipc_reply(h, "", 0);
    });
    register_object(name, 1, &echo);
    register_object(name, 2, &hold);
    register_object(name, 3, &silent);
    if (!serve_connection(name) || ::write(1, "R", 1) != 1) _exit(2);
    for (char c; ::read(0, &c, 1) > 0;) continue;
    {
        std::lock_guard<std::mutex> lock(mtx);
        released = true;
    }
    cv.notify_all();
    _exit(stop_serving(name) ? 0 : 1);
}();

// Every socket of these tests lives in a private runtime directory.
const tevtest::temp_dir g_dir;
const bool g_dir_set = [] {
    set_runtime_dir(g_dir.dir());
    return true;
}();

// This test binary run as a child server of `name`; killed or stopped at the end.
class child_server {
public:
    explicit child_server(const std::string& name) {
        int in[2], out[2];
        EXPECT_EQ(0, pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC));
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        std::string serve = "HOST_IPC_TEST_SERVE=" + name,
                    dir = "TEVASH_RUNTIME_DIR=" + g_dir.dir();
        std::vector<char*> envp{&serve[0], &dir[0]};
        for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
        envp.push_back(nullptr);
        char arg0[] = "host_ipc_test_server";
        char* argv[] = {arg0, nullptr};
        EXPECT_EQ(0, posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, argv, envp.data()));
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        to_ = in[1];
        from_ = out[0];
        EXPECT_EQ('R', next()) << "child server of " << name << " did not start";
    }
    ~child_server() {
        close(to_);  // the child stops serving and exits 0
        int status = 0;
        if (pid_ > 0 && waitpid(pid_, &status, 0) != pid_) status = -1;
        EXPECT_EQ(0, status);
        close(from_);
    }
    char next() {
        char c = 0;
        return ::read(from_, &c, 1) == 1 ? c : 0;
    }
    void kill9() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int to_ = -1, from_ = -1;
};

// Sends `request` with a 17-byte buffer filled with 'x'; *reply gets the reply
// and the byte after it. A failed send must leave the buffer untouched.
int send(const char* connection, long id, long func, std::string request,
         std::string* reply = nullptr, unsigned int capacity = 16) {
    velmora::vlq_mc_client client;
    char rpl[17];
    std::memset(rpl, 'x', sizeof rpl);
    int rc = client.vlq_mc_send_sync_message(id, func, &request[0],
                                             static_cast<unsigned int>(request.size()), rpl,
                                             &capacity, connection);
    if (reply != nullptr) reply->assign(rpl, rc == MSG_OK ? capacity + 1 : 0);
    EXPECT_TRUE(rc == MSG_OK || std::string(rpl, sizeof rpl) == std::string(sizeof rpl, 'x'))
        << "a failed send wrote into the reply buffer";
    EXPECT_EQ(rc, last_send_status());
    return rc;
}

// The address of socket `name` in the runtime directory.
sockaddr_un socket_at(const std::string& name) {
    sockaddr_un addr{AF_UNIX, {}};
    std::strcpy(addr.sun_path, g_dir.path(name + ".sock").c_str());
    return addr;
}

// 4 threads x 200 sends to `connection`, each checking its own reply.
void send_from_threads(const char* connection) {
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([t, connection] {
            for (int i = 0; i < 200; ++i) {
                std::string request = std::to_string(t * 1000 + i), reply;
                ASSERT_EQ(MSG_OK, send(connection, 1, t, request, &reply));
                EXPECT_EQ(std::string(request.rbegin(), request.rend()) + char(t) + 'x', reply);
            }
        });
    }
    for (std::thread& s : senders) s.join();
}

TEST(Message, DeliversInTheSendersThreadNestedSendsTooAndBoundsTheReply) {
    std::thread::id seen;
    test_facade inner(reverse_echo);
    test_facade outer([&](long, char* b, unsigned int n, gen_ipc_msghdr h) {
        seen = std::this_thread::get_id();
        std::string reply;
        EXPECT_EQ(MSG_OK, send("INNER", 1, 9, std::string(b, n), &reply));
        gen_ipc_reply(h, reply.data(), static_cast<unsigned int>(reply.size() - 1));
    });
    ASSERT_TRUE(register_object("INNER", 1, &inner));
    ASSERT_TRUE(register_object("OUTER", 1, &outer));
    std::string reply;  // the reply and the byte after it
    ASSERT_EQ(MSG_OK, send("OUTER", 1, 0, "abc", &reply));
    EXPECT_EQ(std::this_thread::get_id(), seen);
    EXPECT_EQ("cba\x09x", reply);
    ASSERT_EQ(MSG_OK, send("OUTER", 1, 0, "abc", &reply, 2));
    EXPECT_EQ("cbx", reply);
    test_facade silent([](long, char*, unsigned int, gen_ipc_msghdr) {});
    ASSERT_TRUE(register_object("SILENT", 1, &silent));
    EXPECT_EQ(MSG_NO_REPLY, send("SILENT", 1, 0, ""));
    EXPECT_EQ(MSG_NO_OBJECT, send("SILENT", 2, 0, ""));
    for (const char* name : {"INNER", "OUTER", "SILENT"}) EXPECT_TRUE(unregister_object(name, 1));
}

// In this process, then (once unregistered here) from a child server of the name.
TEST(MessageConcurrency, ConcurrentSendersGetTheirOwnRepliesHereAndFromAChildServer) {
    test_facade echo(reverse_echo);
    ASSERT_TRUE(register_object("MANY", 1, &echo));
    send_from_threads("MANY");
    EXPECT_TRUE(unregister_object("MANY", 1));
    child_server child("MANY");
    send_from_threads("MANY");
}

TEST(MessageConcurrency, UnregisterWaitsForRunningDelivery) {
    std::mutex mtx;
    std::condition_variable cv;
    bool entered = false, release = false, finished = false;
    test_facade slow([&](long, char*, unsigned int, gen_ipc_msghdr h) {
        std::unique_lock<std::mutex> lock(mtx);
        entered = true;
        cv.notify_all();
        cv.wait(lock, [&] { return release; });
        gen_ipc_reply(h, "", 0);
        finished = true;
    });
    ASSERT_TRUE(register_object("SLOW", 1, &slow));
    std::thread sender([] { EXPECT_EQ(MSG_OK, send("SLOW", 1, 0, "")); });
    std::unique_lock<std::mutex> lock(mtx);
    cv.wait(lock, [&] { return entered; });
    std::thread remover([&] {
        EXPECT_TRUE(unregister_object("SLOW", 1));
        std::lock_guard<std::mutex> check(mtx);
        EXPECT_TRUE(finished);  // the delivery had ended when unregister returned
    });
    release = true;
    cv.notify_all();
    lock.unlock();
    remover.join();
    sender.join();
}

TEST(MessageProcesses, RoundTripsAndEachFailureLeavesTheReplyUntouched) {
    std::string reply;
    {
        child_server child("ECHO");
        message_spy spy;
        ASSERT_EQ(MSG_OK, send("ECHO", 1, 7, "abc", &reply));
        EXPECT_EQ("cba\x07x", reply);
        ASSERT_EQ(1u, spy.messages().size());  // the spy sees sends to other processes too
        EXPECT_EQ(MSG_OK, send("ECHO", 1, 7, "abc", &reply, 2));
        EXPECT_EQ("cbx", reply);
        EXPECT_EQ(1, velmora::vlq_mc_client::vlq_mc_check_facade("ECHO", 1));
        EXPECT_EQ(0, velmora::vlq_mc_client::vlq_mc_check_facade("ECHO", 9));
        EXPECT_EQ(MSG_NO_OBJECT, send("ECHO", 9, 0, "", &reply));
        EXPECT_EQ(MSG_NO_REPLY, send("ECHO", 3, 0, "", &reply));
        std::string error;  // a live server's socket is not taken over
        EXPECT_FALSE(serve_connection("ECHO", &error));
        EXPECT_NE(std::string::npos, error.find("live process")) << error;
        EXPECT_EQ(MSG_OK, send("ECHO", 1, 7, std::string(LARGEST_REQUEST, 'a'), &reply));
        EXPECT_EQ(MSG_BAD_ARG, send("ECHO", 1, 7, std::string(LARGEST_REQUEST + 1, 'a')));
        set_message_timeout_ms(200);  // applies to the connection open already
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(MSG_TIMEOUT, send("ECHO", 2, 0, "abc", &reply));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);  // not the default 30 s
        set_message_timeout_ms(0);
        EXPECT_EQ('H', child.next());
        EXPECT_EQ(MSG_OK, send("ECHO", 1, 7, "abc", &reply));  // a new connection after it
        child.kill9();  // while idle, leaving its socket file and this thread's connection
    }
    child_server again("ECHO");  // replaces the stale socket, reached through the stale cache
    ASSERT_EQ(MSG_OK, send("ECHO", 1, 7, "abc", &reply));
    int held = -1;
    std::thread sender([&] { held = send("ECHO", 2, 0, "abc", &reply); });
    EXPECT_EQ('H', again.next());
    again.kill9();  // while it holds the request: noticed at once, not after 30 s
    sender.join();
    EXPECT_EQ(MSG_PEER_GONE, held);
    EXPECT_EQ(MSG_NOT_LISTENING, send("ECHO", 1, 0, "abc", &reply));  // its socket file is left
    EXPECT_EQ(MSG_NOT_LISTENING, send("NOBODY", 1, 0, "abc", &reply));
    EXPECT_STREQ("nothing listening", send_status_text(last_send_status()));
}

// A raw server answers junk, the largest reply, and one a byte longer.
TEST(MessageProcesses, RepliesUpToTheLargestFrameAreTakenOthersAreBadFrames) {
    int srv = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr = socket_at("BADSRV");
    ASSERT_EQ(0, bind(srv, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(srv, 1));
    for (long size : {-1L, LARGEST_REPLY, LARGEST_REPLY + 1}) {  // -1: junk
        const int status = size == LARGEST_REPLY ? MSG_OK : MSG_BAD_FRAME;
        std::thread answer([&] {
            int fd = accept(srv, nullptr, nullptr);
            bytes in(128);
            EXPECT_LT(0, recv(fd, in.data(), in.size(), 0));
            bytes out = size < 0 ? bytes{'j', 'u', 'n', 'k'}
                                 : join({le32(0x52564554), le32(1), bytes(&in[12], &in[16]),
                                         le32(0), le32(size), bytes(size, 'r')});
            ::send(fd, out.data(), out.size(), 0);
            close(fd);
        });
        std::thread sender([&] {  // a thread of its own: a connection of its own
            std::vector<char> rpl(LARGEST_REPLY + 1, 'x');
            unsigned int len = LARGEST_REPLY + 1;
            velmora::vlq_mc_client client;
            EXPECT_EQ(status,
                      client.vlq_mc_send_sync_message(1, 0, nullptr, 0, rpl.data(), &len, "BADSRV"))
                << size;
            EXPECT_EQ(status == MSG_OK ? LARGEST_REPLY : LARGEST_REPLY + 1,
                      std::count(rpl.begin(), rpl.end(), status == MSG_OK ? 'r' : 'x'));
        });
        sender.join();
        answer.join();
    }
    close(srv);
    unlink(addr.sun_path);
}

TEST(MessageProcesses, RuntimeDirectoryOpenToOthersOrOfAnotherUserIsRefused) {
    tevtest::temp_dir base;
    mkdir(base.path("open").c_str(), 0755);
    chmod(base.path("open").c_str(), 0755);
    mkdir(base.path("theirs").c_str(), 0700);
    bool root = geteuid() == 0 && chown(base.path("theirs").c_str(), 65534, 65534) == 0;
    close(open(base.path("file").c_str(), O_CREAT | O_WRONLY, 0600));
    struct {
        std::string dir, error;
    } cases[] = {{base.path("open"), "open to others (mode 0755)"},
                 {base.path("file"), "is not a directory"},
                 {base.path("theirs"), root ? "owned by uid 65534" : ""},
                 {base.path("made"), ""}};
    for (const auto& c : cases) {
        set_runtime_dir(c.dir);
        std::string dir, error;
        EXPECT_EQ(c.error.empty(), runtime_dir(&dir, &error)) << c.dir;
        EXPECT_NE(std::string::npos, error.find(c.error)) << error;
        if (!c.error.empty()) {
            EXPECT_FALSE(serve_connection("DIRTEST"));
        }
    }
    struct stat st;
    EXPECT_EQ(0, stat(base.path("made").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    for (const char* made : {"open", "theirs", "made"}) rmdir(base.path(made).c_str());
    set_runtime_dir(g_dir.dir());
}

// A raw client connection to `name` in the runtime directory (-1 when refused).
int raw_connect(const char* name) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr = socket_at(name);
    return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? fd : -1;
}

// Sends one frame and returns the answer ("" when the connection was closed).
bytes exchange_frame(int fd, const bytes& frame) {
    ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    bytes in(128);
    ssize_t n = recv(fd, in.data(), in.size(), 0);
    in.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return in;
}

bytes request(uint32_t version, uint32_t kind, uint32_t size_field, const bytes& payload) {
    return join({le32(0x51564554), le32(version), le32(kind), le32(7), le32(1), le32(5), le32(16),
                 le32(size_field), payload});
}

// Open descriptors of this process.
long open_fds() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

TEST(MessageProcesses, MalformedFramesAreRefusedOthersStillServed) {
    test_facade echo(reverse_echo);
    ASSERT_TRUE(register_object("RAW", 1, &echo));
    ASSERT_TRUE(serve_connection("RAW"));
    const bytes good = request(1, 1, 3, {'a', 'b', 'c'});
    const bytes answer =
        join({le32(0x52564554), le32(1), le32(7), le32(0), le32(4), {'c', 'b', 'a', 5}});
    int kept = raw_connect("RAW");
    ASSERT_LE(0, kept);
    EXPECT_EQ(answer, exchange_frame(kept, good));
    EXPECT_EQ(join({le32(0x52564554), le32(1), le32(7), le32(0), le32(16), bytes(16, 'a')}),
              exchange_frame(kept, request(1, 1, LARGEST_REQUEST, bytes(LARGEST_REQUEST, 'a'))));
    trace_capture trace;
    struct {
        const char* what;
        bytes frame;
    } cases[] = {
        {"garbage", {'n', 'o', 't', ' ', 'a', ' ', 'f', 'r', 'a', 'm', 'e'}},
        {"short", bytes(good.begin(), good.begin() + 20)},
        {"a byte over", request(1, 1, LARGEST_REQUEST + 1, bytes(LARGEST_REQUEST + 1, 'a'))},
        {"other version", request(2, 1, 3, {'a', 'b', 'c'})},
        {"size disagrees", request(1, 1, 9, {'a', 'b', 'c'})},
        {"unknown kind", request(1, 9, 3, {'a', 'b', 'c'})},
    };
    for (const auto& c : cases) {
        int fd = raw_connect("RAW");
        EXPECT_EQ(bytes(), exchange_frame(fd, c.frame)) << c.what;
        close(fd);
    }
    EXPECT_EQ(std::size(cases), trace.lines().size());
    EXPECT_EQ(answer, exchange_frame(kept, good));  // still serving the others
    close(kept);
    EXPECT_TRUE(stop_serving("RAW"));
    EXPECT_TRUE(unregister_object("RAW", 1));
}

// 128 connections are served, the 129th is closed; each releases its thread and
// descriptor as it ends, not when another connection comes.
TEST(MessageProcesses, ServesAtMost128ConnectionsPerNameAndReleasesEachAsItEnds) {
    ASSERT_TRUE(serve_connection("BOUND"));  // nothing registered: requests get MSG_NO_OBJECT
    const long serving = open_fds();
    const bytes ask = request(1, 1, 0, {});
    std::vector<int> open;
    for (int i = 0; i < 128; ++i) {
        open.push_back(raw_connect("BOUND"));
        ASSERT_EQ(20u, exchange_frame(open.back(), ask).size()) << "connection " << i;
    }
    EXPECT_EQ(MSG_PEER_GONE, send("BOUND", 1, 0, "abc"));
    for (int fd : open) close(fd);
    for (int i = 0; i < 1000 && open_fds() != serving; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(serving, open_fds());
    EXPECT_EQ(MSG_NO_OBJECT, send("BOUND", 1, 0, "abc"));  // served again
    EXPECT_TRUE(stop_serving("BOUND"));
}

TEST(MessageProcesses, APeerOfAnotherUidIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to connect as another uid: as any other user a peer is "
                        "always of this uid (a user namespace maps it back to this uid)";
    }
    ASSERT_TRUE(serve_connection("RAW"));
    trace_capture trace;
    chmod(g_dir.dir().c_str(), 0711);
    chmod(g_dir.path("RAW.sock").c_str(), 0777);
    pid_t pid = fork();
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        int fd = raw_connect("RAW");
        _exit(fd >= 0 && exchange_frame(fd, request(1, 1, 0, {})).empty() ? 0
                                                                          : 1);  // closed at once
    }
    int status = -1;
    waitpid(pid, &status, 0);
    chmod(g_dir.dir().c_str(), 0700);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(std::string::npos, trace.lines().back().text.find("uid 65534"));
    EXPECT_TRUE(stop_serving("RAW"));
}

}  // namespace
