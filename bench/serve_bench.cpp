// Creates through the handler service and a director, each in its own process
// sharing one SQLite record store file, against a hand-written relay of the
// same two socket hops in the same run: client -> relay server -> end server on
// SOCK_SEQPACKET sockets, thread per connection, whose end server makes one
// INSERT per request into an SQLite file opened with the record store's
// PRAGMAs (WAL, synchronous NORMAL, 32 MiB cache, statement prepared once),
// under one mutex as the store's exclusive lock.
//
// The clients are threads of a client process of their own (1, 8 or 32), so
// the benchmark process keeps no connection of its own. Every server is this
// binary started again with TEVASH_SERVE_BENCH set to its role. A figure is the
// wall time of one batch of creates divided by its count (manual time); the
// counters middle_cpu_ns, end_cpu_ns and client_cpu_ns are the CPU time per
// create of the whole middle process (handler service, relay server), end
// process (director, end server) and client process, read from their process
// CPU clocks.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "processes.h"
#include "tev_ash_facade.h"

namespace {

constexpr char ROLE[] = "TEVASH_SERVE_BENCH";
constexpr char RELAY_SOCKET[] = "relay.sock";
constexpr char END_SOCKET[] = "end.sock";
// The sizes of a create's frames through the service: header and record.
constexpr size_t REQUEST_SIZE = 40 + 16;
constexpr size_t REPLY_SIZE = 20 + 8;

enum : uint32_t { THROUGH_SERVICE = 1, THROUGH_RELAY = 2 };

struct command {
    uint32_t kind;
    uint32_t threads;
    uint64_t count;
};
struct outcome {
    uint64_t ns;
    uint64_t failed;
};

uint64_t now_ns(clockid_t clock = CLOCK_MONOTONIC) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

std::string runtime_path(const char* name) {
    const char* dir = std::getenv("TEVASH_RUNTIME_DIR");
    return std::string(dir == nullptr ? "." : dir) + "/" + name;
}

sockaddr_un address(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    return addr;
}

int connect_to(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr = address(path);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

void ready_line() {
    std::printf("{\"ready\":true,\"pid\":%ld}\n", static_cast<long>(getpid()));
    std::fflush(stdout);
}

// Accepts on `path` for ever, a detached thread running `serve(fd)` per connection.
template <typename Serve>
[[noreturn]] void accept_forever(const std::string& path, Serve serve) {
    int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr = address(path);
    ::unlink(path.c_str());
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener, 64) != 0) {
        _exit(1);
    }
    ready_line();
    for (;;) {
        int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) std::thread(serve, fd).detach();
    }
}

// The end server: one INSERT per request, under one lock, answered with the id.
[[noreturn]] void run_end() {
    static sqlite3* db = nullptr;
    static sqlite3_stmt* insert = nullptr;
    static std::mutex store_lock;
    const std::string file = runtime_path("relay.db");
    if (sqlite3_open_v2(file.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        _exit(1);
    }
    sqlite3_busy_timeout(db, 5000);
    if (sqlite3_exec(db,
                     "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
                     "PRAGMA cache_size = -32768; CREATE TABLE IF NOT EXISTS records("
                     "id INTEGER PRIMARY KEY, category INTEGER NOT NULL, flag INTEGER NOT NULL)",
                     nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v3(db, "INSERT INTO records(category, flag) VALUES (?, 0)", -1,
                           SQLITE_PREPARE_PERSISTENT, &insert, nullptr) != SQLITE_OK) {
        _exit(1);
    }
    accept_forever(runtime_path(END_SOCKET), [](int fd) {
        unsigned char in[REQUEST_SIZE + 1], out[REPLY_SIZE] = {};
        while (::recv(fd, in, sizeof in, 0) > 0) {
            {
                std::lock_guard<std::mutex> lock(store_lock);
                sqlite3_bind_int(insert, 1, 4);
                const bool made = sqlite3_step(insert) == SQLITE_DONE;
                sqlite3_reset(insert);
                const auto id = static_cast<uint32_t>(made ? sqlite3_last_insert_rowid(db) : 0);
                std::memcpy(out + 20, &id, sizeof id);
            }
            if (::send(fd, out, sizeof out, MSG_NOSIGNAL) < 0) break;
        }
        ::close(fd);
    });
}

// The relay server: each client connection has its own thread and its own
// connection to the end server.
[[noreturn]] void run_relay() {
    accept_forever(runtime_path(RELAY_SOCKET), [](int fd) {
        int end = connect_to(runtime_path(END_SOCKET));
        unsigned char frame[REQUEST_SIZE + 1];
        ssize_t n;
        while (end >= 0 && (n = ::recv(fd, frame, sizeof frame, 0)) > 0 &&
               ::send(end, frame, static_cast<size_t>(n), MSG_NOSIGNAL) == n &&
               (n = ::recv(end, frame, sizeof frame, 0)) > 0 &&
               ::send(fd, frame, static_cast<size_t>(n), MSG_NOSIGNAL) == n) {
        }
        if (end >= 0) ::close(end);
        ::close(fd);
    });
}

// One client thread's creates: true for each that succeeded.
class creator {
public:
    virtual ~creator() = default;
    virtual bool create() = 0;
};

class service_creator : public creator {
public:
    bool create() override {
        unsigned int id = 0;
        return velmora::tev_ash_facade::tev_ash_get_instance()->tev_ash_create(
                   velmora::TEV_ASH_CAT_APLJOB, static_cast<velmora::TEV_ASH_APP_TYPE>(1),
                   static_cast<velmora::TEV_ASH_SERVICE_TYPE>(0), &id, 0) == 0 &&
               id != 0;
    }
};

class relay_creator : public creator {
public:
    relay_creator() : fd_(connect_to(runtime_path(RELAY_SOCKET))) {}
    ~relay_creator() override {
        if (fd_ >= 0) ::close(fd_);
    }
    bool create() override {
        unsigned char request[REQUEST_SIZE] = {}, reply[REPLY_SIZE + 1];
        uint32_t id = 0;
        if (fd_ < 0 || ::send(fd_, request, sizeof request, MSG_NOSIGNAL) != sizeof request ||
            ::recv(fd_, reply, sizeof reply, 0) != REPLY_SIZE) {
            return false;
        }
        std::memcpy(&id, reply + 20, sizeof id);
        return id != 0;
    }

private:
    int fd_;
};

// Runs `c.count` creates on `c.threads` threads, each connected and warmed up
// by one create before the clock starts.
outcome run_batch(const command& c) {
    std::mutex mtx;
    std::condition_variable cv;
    unsigned waiting = 0;
    bool go = false;
    std::atomic<uint64_t> failed{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < c.threads; ++t) {
        const uint64_t share = c.count / c.threads + (t < c.count % c.threads ? 1 : 0);
        threads.emplace_back([&, share] {
            std::unique_ptr<creator> made;
            if (c.kind == THROUGH_SERVICE) {
                made = std::make_unique<service_creator>();
            } else {
                made = std::make_unique<relay_creator>();
            }
            uint64_t bad = made->create() ? 0 : 1;
            {
                std::unique_lock<std::mutex> lock(mtx);
                ++waiting;
                cv.notify_all();
                cv.wait(lock, [&] { return go; });
            }
            for (uint64_t i = 0; i < share; ++i) bad += made->create() ? 0 : 1;
            failed += bad;
        });
    }
    {
        std::unique_lock<std::mutex> lock(mtx);
        cv.wait(lock, [&] { return waiting == c.threads; });
        go = true;
    }
    const uint64_t start = now_ns();
    cv.notify_all();
    for (std::thread& t : threads) t.join();
    return {now_ns() - start, failed.load()};
}

// The client process: a batch per command on descriptor 3, its outcome sent back.
[[noreturn]] void run_clients() {
    velmora::tev_ash_facade::tev_ash_get_instance();
    ready_line();
    command c;
    while (::recv(3, &c, sizeof c, 0) == sizeof c) {
        const outcome o = run_batch(c);
        if (::send(3, &o, sizeof o, MSG_NOSIGNAL) != sizeof o) break;
    }
    _exit(0);
}

const bool g_role = [] {
    const char* role = std::getenv(ROLE);
    if (role == nullptr) return false;
    const std::string r = role;
    tevash_tools::process_options opt;
    opt.json = true;
    if (r == "service") _exit(tevash_tools::run_service(opt));
    if (r == "director") _exit(tevash_tools::run_director(1, "", opt));
    if (r == "end") run_end();
    if (r == "relay") run_relay();
    if (r == "clients") run_clients();
    _exit(1);
}();

// One process of the rig, with its pid and CPU clock.
struct member {
    tevtest::child_process proc;
    clockid_t clock{};
    bool ok = false;
    uint64_t cpu() const { return now_ns(clock); }
};

// The processes of both paths and the client process, on a private runtime
// directory; stopped at exit.
class rig {
public:
    rig() {
        int pair[2] = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return;
        commands_ = pair[0];
        ok_ = start(service_, "service") && start(director_, "director") && start(end_, "end") &&
              start(relay_, "relay") && start(clients_, "clients", pair[1]);
        ::close(pair[1]);
    }
    ~rig() {
        if (commands_ >= 0) ::close(commands_);  // the client process ends
    }
    bool ok() const { return ok_; }
    // Runs a batch; cpu_ns[] gets the CPU the middle, end and client processes spent.
    outcome run(uint32_t kind, uint32_t threads, uint64_t count, uint64_t cpu_ns[3]) {
        const member* who[3] = {kind == THROUGH_SERVICE ? &service_ : &relay_,
                                kind == THROUGH_SERVICE ? &director_ : &end_, &clients_};
        for (int i = 0; i < 3; ++i) cpu_ns[i] = who[i]->cpu();
        command c{kind, threads, count};
        outcome o{0, count};
        if (::send(commands_, &c, sizeof c, MSG_NOSIGNAL) != sizeof c ||
            ::recv(commands_, &o, sizeof o, 0) != sizeof o) {
            ok_ = false;
        }
        for (int i = 0; i < 3; ++i) cpu_ns[i] = who[i]->cpu() - cpu_ns[i];
        return o;
    }

private:
    bool start(member& m, const char* role, int fd3 = -1) {
        tevtest::child_options opt;
        opt.env = {std::string(ROLE) + "=" + role, "TEVASH_RUNTIME_DIR=" + dir_.dir()};
        opt.pipe_stdout = true;
        opt.fd3 = fd3;
        m.proc = tevtest::child_process({"/proc/self/exe"}, opt);
        std::string line;
        for (char ch = 0; line.size() < 4096 && m.proc.read_stdout(&ch, 1) && ch != '\n';) {
            line += ch;
        }
        const size_t at = line.find("\"pid\":");
        if (at == std::string::npos) return false;
        const auto pid = static_cast<pid_t>(std::strtol(line.c_str() + at + 6, nullptr, 10));
        m.ok = clock_getcpuclockid(pid, &m.clock) == 0;
        return m.ok;
    }

    tevtest::temp_dir dir_{"tevash_bench_"};
    member service_, director_, end_, relay_, clients_;  // stopped before dir_ goes
    int commands_ = -1;
    bool ok_ = false;
};

rig& the_rig() {
    static rig r;
    return r;
}

void creates(benchmark::State& st, uint32_t kind) {
    rig& r = the_rig();
    if (!r.ok()) {
        st.SkipWithError("a server or the client process did not start");
        return;
    }
    const auto count = static_cast<uint64_t>(st.max_iterations);
    uint64_t cpu[3] = {};
    outcome o{};
    bool first = true;
    for (auto _ : st) {
        if (first) {
            o = r.run(kind, static_cast<uint32_t>(st.range(0)), count, cpu);
            first = false;
        }
        st.SetIterationTime(static_cast<double>(o.ns) / 1e9 / static_cast<double>(count));
    }
    if (o.failed != 0) {
        st.SkipWithError((std::to_string(o.failed) + " creates failed").c_str());
        return;
    }
    const char* names[3] = {"middle_cpu_ns", "end_cpu_ns", "client_cpu_ns"};
    for (int i = 0; i < 3; ++i)
        st.counters[names[i]] = static_cast<double>(cpu[i]) / static_cast<double>(count);
    st.SetItemsProcessed(st.iterations());
}

void BM_serve_create(benchmark::State& st) {
    creates(st, THROUGH_SERVICE);
}
void BM_raw_serve_create(benchmark::State& st) {
    creates(st, THROUGH_RELAY);
}

}  // namespace

BENCHMARK(BM_serve_create)->ArgName("threads")->Arg(1)->Arg(8)->Arg(32)->UseManualTime();
BENCHMARK(BM_raw_serve_create)->ArgName("threads")->Arg(1)->Arg(8)->Arg(32)->UseManualTime();
