// The message service in process and between processes: a child server, each
// failure result, stale and live sockets, the runtime directory's checks, raw
// malformed frames, frame and connection bounds, deadlines, peers of another
// uid, concurrent senders.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

namespace {

using namespace tevhost;
using tevtest::bytes;
using tevtest::join;
using tevtest::le32;
using namespace std::chrono_literals;

constexpr long LARGEST_REQUEST = 65536 - 40, LARGEST_REPLY = 65536 - 20;  // a frame's payload

long long monotonic_us() {
    return std::chrono::steady_clock::now().time_since_epoch() / 1us;
}

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
// stdin closes, object 3 never answers, object 4 answers "<echoes so far> <its
// request_deadline_us> " then, when the request names a connection, object 4's
// reply from there. Writes 'R' when serving; stops serving and exits when stdin
// closes.
const bool g_child = [] {
    const char* name = std::getenv("HOST_IPC_TEST_SERVE");
    if (name == nullptr) return false;
    static std::mutex mtx;
    static std::condition_variable cv;
    static bool released = false;
    static std::atomic<int> echoes{0};
    static test_facade echo([](long f, char* b, unsigned int n, gen_ipc_msghdr h) {
        ++echoes;
        reverse_echo(f, b, n, h);
    });
    static test_facade report([](long, char* b, unsigned int n, gen_ipc_msghdr h) {
        char inner[64] = {};
        unsigned int len = sizeof inner - 1;
        velmora::vlq_mc_client client;
        if (n > 0) client.vlq_mc_send_sync_message(4, 0, nullptr, 0, inner, &len, b);
        std::string text =
            std::to_string(echoes) + " " + std::to_string(request_deadline_us()) + " " + inner;
        gen_ipc_reply(h, text.data(), static_cast<unsigned int>(text.size()));
    });
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
    register_object(name, 4, &report);
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
    explicit child_server(const std::string& name) : child_({"/proc/self/exe"}, options(name)) {
        EXPECT_EQ('R', next()) << "child server of " << name << " did not start";
    }
    ~child_server() {
        child_.close_stdin();  // the child stops serving and exits 0
        if (!killed_) {
            EXPECT_EQ(0, child_.wait());
        }
    }
    char next() {
        char c = 0;
        return child_.read_stdout(&c, 1) ? c : 0;
    }
    void kill9() {
        child_.kill(SIGKILL);
        killed_ = true;
    }
    void signal(int sig) { child_.signal(sig); }  // returns once SIGSTOP has stopped it

private:
    static tevtest::child_options options(const std::string& name) {
        tevtest::child_options opt;
        opt.env = {"HOST_IPC_TEST_SERVE=" + name, "TEVASH_RUNTIME_DIR=" + g_dir.dir()};
        opt.pipe_stdin = opt.pipe_stdout = true;
        return opt;
    }
    tevtest::child_process child_;
    bool killed_ = false;
};

// Sends `request` with a buffer of capacity + 1 bytes filled with 'x'; *reply
// gets the reply and the byte after it. A failed send must leave the buffer untouched.
int send(const char* connection, long id, long func, std::string request,
         std::string* reply = nullptr, unsigned int capacity = 16) {
    velmora::vlq_mc_client client;
    std::string rpl(capacity + 1, 'x');
    int rc = client.vlq_mc_send_sync_message(id, func, &request[0],
                                             static_cast<unsigned int>(request.size()), &rpl[0],
                                             &capacity, connection);
    if (reply != nullptr) reply->assign(rpl, 0, rc == MSG_OK ? capacity + 1 : 0);
    EXPECT_TRUE(rc == MSG_OK || rpl == std::string(rpl.size(), 'x'))
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
    std::atomic<int> step{0};  // 1: delivering, 2: released, 3: finished
    test_facade slow([&](long, char*, unsigned int, gen_ipc_msghdr h) {
        for (step = 1; step != 2;) std::this_thread::yield();
        gen_ipc_reply(h, "", 0);
        step = 3;
    });
    ASSERT_TRUE(register_object("SLOW", 1, &slow));
    std::thread sender([] { EXPECT_EQ(MSG_OK, send("SLOW", 1, 0, "")); });
    while (step != 1) std::this_thread::yield();
    std::thread releaser([&] { std::this_thread::sleep_for(50ms), step = 2; });  // while it waits
    EXPECT_TRUE(unregister_object("SLOW", 1));
    EXPECT_EQ(3, step);  // the delivery had ended when unregister returned
    releaser.join();
    sender.join();
}

TEST(MessageProcesses, RoundTripsAndEachFailureLeavesTheReplyUntouched) {
    std::string reply;
    unsigned long long first = 0;
    {
        child_server child("ECHO");
        EXPECT_TRUE(connection_served("ECHO"));
        EXPECT_NE(0u, first = served_instance("ECHO"));
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
    EXPECT_TRUE(!connection_served("ECHO") && !served_instance("ECHO"));  // its lock left unlocked
    child_server again("ECHO");  // replaces the stale socket, reached through the stale cache
    EXPECT_TRUE(connection_served("ECHO"));
    const unsigned long long second = served_instance("ECHO");
    EXPECT_TRUE(second != 0 && second != first) << second;
    ASSERT_EQ(MSG_OK, send("ECHO", 1, 7, "abc", &reply));
    int held = -1;
    std::thread sender([&] { held = send("ECHO", 2, 0, "abc", &reply); });
    EXPECT_EQ('H', again.next());
    again.kill9();  // while it holds the request: noticed at once, not after 30 s
    sender.join();
    EXPECT_EQ(MSG_PEER_GONE, held);
    EXPECT_TRUE(send_outcome_unknown(held));
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
                                 : join({le32(0x52564554), le32(2), bytes(&in[12], &in[16]),
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
    ssize_t n;
    do {  // a reset reports first, then what was sent before it
        n = recv(fd, in.data(), in.size(), 0);
    } while (n < 0 && errno == ECONNRESET);
    in.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return in;
}

bytes request(uint32_t version, uint32_t kind, uint32_t size_field, const bytes& payload,
              long long deadline = 0) {
    return join({le32(0x51564554), le32(version), le32(kind), le32(7), le32(1), le32(5), le32(16),
                 le32(size_field), le32(uint32_t(deadline)), le32(uint32_t(deadline >> 32)),
                 payload});
}

bytes reply_frame(uint32_t status, const bytes& payload) {
    return join({le32(0x52564554), le32(2), le32(status == MSG_BUSY ? 0 : 7), le32(status),
                 le32(uint32_t(payload.size())), payload});
}

// Open descriptors ("fd") or threads ("task") of this process; its resident memory.
long open_fds(const char* what = "fd") {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/" + std::string(what)),
                         fs::directory_iterator());
}
long rss_kib() {
    long pages = 0, resident = 0;
    std::sscanf(tevtest::file_text("/proc/self/statm").c_str(), "%ld %ld", &pages, &resident);
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

// Bad frames, each on a connection of its own, are traced as the first with its
// reason then counts at most once a second, and none is lost. The name's files
// are gone when it stops being served.
TEST(MessageProcesses, MalformedFramesAreRefusedAndSummarisedOthersStillServed) {
    test_facade echo(reverse_echo);
    ASSERT_TRUE(register_object("RAW", 1, &echo));
    ASSERT_TRUE(serve_connection("RAW"));
    EXPECT_TRUE(connection_served("RAW"));  // this process's own lock too
    const bytes good = request(2, 1, 3, {'a', 'b', 'c'});
    const bytes answer = reply_frame(MSG_OK, {'c', 'b', 'a', 5});
    int kept = raw_connect("RAW");
    ASSERT_LE(0, kept);
    EXPECT_EQ(answer, exchange_frame(kept, good));
    EXPECT_EQ(reply_frame(MSG_OK, bytes(16, 'a')),
              exchange_frame(kept, request(2, 1, LARGEST_REQUEST, bytes(LARGEST_REQUEST, 'a'))));
    trace_capture trace;
    const bytes cases[] = {
        {'n', 'o', 't', ' ', 'a', ' ', 'f', 'r', 'a', 'm', 'e'},
        bytes(good.begin(), good.begin() + 36),                               // short
        request(2, 1, LARGEST_REQUEST + 1, bytes(LARGEST_REQUEST + 1, 'a')),  // a byte over
        request(1, 1, 3, {'a', 'b', 'c'}),                                    // other version
        request(2, 1, 9, {'a', 'b', 'c'}),                                    // size disagrees
        request(2, 9, 3, {'a', 'b', 'c'}),                                    // unknown kind
        request(2, 1, 0, {}, -1),  // deadline out of range
    };
    for (int i = 0; i < 20 * int(std::size(cases)); ++i) {
        int fd = raw_connect("RAW");
        EXPECT_EQ(bytes(), exchange_frame(fd, cases[i % std::size(cases)])) << i;
        close(fd);
    }
    EXPECT_EQ(answer, exchange_frame(kept, good));  // still serving the others
    close(kept);
    EXPECT_TRUE(stop_serving("RAW"));  // traces the count not traced yet
    EXPECT_FALSE(connection_served("RAW"));
    for (const char* file : {"RAW.sock", "RAW.lock"})
        EXPECT_NE(0, access(g_dir.path(file).c_str(), F_OK));
    const auto lines = trace.lines();
    ASSERT_TRUE(lines.size() >= 2 && lines.size() <= 7) << lines.size();  // one more a second
    EXPECT_NE(std::string::npos, lines[0].text.find("refused a frame from pid")) << lines[0].text;
    size_t counted = 1, n = 0, pid = 0;
    for (size_t i = 1; i < lines.size(); ++i) {
        const char* format = "host ipc: RAW: %zu bad frames from pid %zu (last: ";
        EXPECT_EQ(2, std::sscanf(lines[i].text.c_str(), format, &n, &pid)) << lines[i].text;
        EXPECT_EQ(size_t(getpid()), pid);
        counted += n;
    }
    EXPECT_EQ(20 * std::size(cases), counted);
    EXPECT_TRUE(unregister_object("RAW", 1));
}

// A process of its own that opens `n` connections to BOUND and asks once on
// each; holds them open until `hold` reads end of input. 'S' when all were
// served, 'B' when the first was refused as busy.
char peer_process(int n, int hold[2], std::vector<tevtest::child_process>* peers) {
    const bytes ask = request(2, 1, 0, {}), busy = reply_frame(MSG_BUSY, {});
    int report[2];
    char result = 'S';
    if (pipe(report) != 0) return 0;
    peers->emplace_back([&] {
        close(hold[1]);
        for (int i = 0; i < n && result == 'S'; ++i) {
            bytes in = exchange_frame(raw_connect("BOUND"), ask);
            if (in == busy || in.size() != 20) result = in == busy && i == 0 ? 'B' : 'X';
        }
        return write(report[1], &result, 1) == 1 && read(hold[0], &result, 1) == 0 ? 0 : 1;
    });
    close(report[1]);
    if (read(report[0], &result, 1) != 1) result = 0;
    close(report[0]);
    return result;
}

// 64 connections from one process are served, the 65th refused while other
// processes are served; 1024 in all, then any other process is refused. Idle
// connections cost neither a thread nor a frame buffer each, and each releases
// its descriptor as it ends.
TEST(MessageProcesses, ConnectionsAreBoundedPerPeerAndInTotalAndIdleOnesAreCheap) {
    rlimit fds{};
    getrlimit(RLIMIT_NOFILE, &fds);
    fds.rlim_cur = std::min<rlim_t>(fds.rlim_max, 4096);
    if (setrlimit(RLIMIT_NOFILE, &fds) != 0 || fds.rlim_cur < 2 * MAX_CONNECTIONS + 100) {
        GTEST_SKIP() << "needs " << 2 * MAX_CONNECTIONS + 100 << " descriptors";
    }
    ASSERT_TRUE(serve_connection("BOUND"));  // nothing registered: requests get MSG_NO_OBJECT
    const long serving = open_fds(), rss = rss_kib(), serving_threads = open_fds("task");
    std::vector<int> open;
    for (int i = 0; i < MAX_PEER_CONNECTIONS; ++i) {
        open.push_back(raw_connect("BOUND"));
        ASSERT_EQ(20u, exchange_frame(open.back(), request(2, 1, 0, {})).size()) << i;
    }
    EXPECT_EQ(MSG_BUSY, send("BOUND", 1, 0, "abc"));
    int hold[2];
    ASSERT_EQ(0, pipe(hold));
    std::vector<tevtest::child_process> peers;
    for (int i = 1; i < MAX_CONNECTIONS / MAX_PEER_CONNECTIONS; ++i)
        ASSERT_EQ('S', peer_process(MAX_PEER_CONNECTIONS, hold, &peers)) << "process " << i;
    EXPECT_LT((rss_kib() - rss) * 1024 / MAX_CONNECTIONS, 32 * 1024) << "bytes per connection";
    // A few workers kept idle once the last requests' connections are idle, no thread each.
    for (int i = 0; i < 200 && open_fds("task") - serving_threads > 8; ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_LE(open_fds("task") - serving_threads, 8);
    EXPECT_EQ('B', peer_process(1, hold, &peers)) << "one connection over the total";
    for (int fd : hold) close(fd);
    for (tevtest::child_process& peer : peers) peer.wait();
    for (int fd : open) close(fd);
    // No descriptor is left behind (the count may also drop below the mark when a
    // descriptor open at the mark, not the service's, has been closed since).
    for (int i = 0; i < 1000 && open_fds() > serving; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_LE(open_fds(), serving);
    EXPECT_EQ(MSG_NO_OBJECT, send("BOUND", 1, 0, "abc"));  // served again
    EXPECT_TRUE(stop_serving("BOUND"));
}

// Each hop's deadline is earlier than its caller's; a request read after its
// deadline (its server was stopped meanwhile) is answered without dispatch.
TEST(MessageProcesses, DeadlinesShrinkAtEachHopAndAnExpiredRequestIsNotDispatched) {
    child_server outer("HOPA"), inner("HOPB");
    set_message_timeout_ms(2000);
    const long long before = monotonic_us();
    std::string reply;
    ASSERT_EQ(MSG_OK, send("HOPA", 4, 0, std::string("HOPB", 5), &reply, 64));
    set_message_timeout_ms(0);
    long long outer_deadline = 0, inner_deadline = 0;
    ASSERT_EQ(2, std::sscanf(reply.c_str(), "%*d %lld %*d %lld", &outer_deadline, &inner_deadline))
        << reply;
    EXPECT_TRUE(before + 2000000 <= outer_deadline && outer_deadline <= monotonic_us() + 2000000);
    EXPECT_TRUE(inner_deadline < outer_deadline && outer_deadline - inner_deadline <= 500000);
    int fd = raw_connect("HOPB");
    inner.signal(SIGSTOP);  // the request waits, unread, past its deadline
    std::thread resume([&] {
        std::this_thread::sleep_for(100ms);
        inner.signal(SIGCONT);
    });
    EXPECT_EQ(reply_frame(MSG_EXPIRED, {}),
              exchange_frame(fd, request(2, 1, 0, {}, monotonic_us() + 20000)));
    resume.join();
    close(fd);
    EXPECT_EQ(MSG_OK, send("HOPB", 4, 0, "", &reply, 64));
    EXPECT_EQ(0, std::atoi(reply.c_str())) << "echoes dispatched";
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
    const int status =
        tevtest::child_process([] {
            if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
            int fd = raw_connect("RAW");  // closed at once:
            return fd >= 0 && exchange_frame(fd, request(2, 1, 0, {})).empty() ? 0 : 1;
        }).wait();
    chmod(g_dir.dir().c_str(), 0700);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, trace.lines().back().text.find("uid 65534"));
    EXPECT_TRUE(stop_serving("RAW"));
}

}  // namespace
