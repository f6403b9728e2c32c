// Round trip of an empty request and reply between two processes through the
// host message service, against a raw SOCK_SEQPACKET ping-pong of the same
// frame sizes (a 32-byte request, a 20-byte reply) in the same run. The server
// is this binary started again; pinned:1 puts both processes on CPU 0,
// pinned:0 leaves them to the scheduler. Wall time per round trip, and as the
// counter cpu_ns the CPU time both processes spent per round trip (the sender's
// thread and the whole server process), which a busy host disturbs far less.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "child_process.h"
#include "facade_template.h"
#include "gen_ipc.h"
#include "host/tev_host.h"
#include "vlq_mc_client.h"

namespace {

constexpr char CONNECTION[] = "BENCH_IPC";
constexpr int RAW_FD = 3;  // the raw server's end of the socket pair

class empty_reply : public velmora::facade_template {
public:
    void dispatch(long, char*, unsigned int, gen_ipc_msghdr hdr) override {
        gen_ipc_reply(hdr, nullptr, 0);
    }
};

uint64_t cpu_ns(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

// A server writes the CPU time of its process to stdout when ready (after 'R')
// and when done.
void report_cpu() {
    uint64_t ns = cpu_ns(CLOCK_PROCESS_CPUTIME_ID);
    if (::write(1, &ns, sizeof ns) != sizeof ns) _exit(1);
}

// TEVASH_BENCH_SERVE=ipc: serve CONNECTION until stdin closes; =raw: answer
// every packet on RAW_FD with 20 bytes until it closes.
const bool g_server = [] {
    const char* mode = std::getenv("TEVASH_BENCH_SERVE");
    if (mode == nullptr) return false;
    if (std::strcmp(mode, "raw") == 0) {
        static unsigned char in[64 * 1024], out[20];
        if (::write(1, "R", 1) != 1) _exit(1);
        report_cpu();
        while (::recv(RAW_FD, in, sizeof in, 0) > 0) {
            if (::send(RAW_FD, out, sizeof out, MSG_NOSIGNAL) < 0) break;
        }
        report_cpu();
        _exit(0);
    }
    static empty_reply object;
    if (!tevhost::register_object(CONNECTION, 1, &object) ||
        !tevhost::serve_connection(CONNECTION) || ::write(1, "R", 1) != 1) {
        _exit(1);
    }
    report_cpu();
    for (char c; ::read(0, &c, 1) > 0;) continue;
    tevhost::stop_serving(CONNECTION);
    report_cpu();
    _exit(0);
}();

// A private runtime directory for the run, removed at exit.
struct runtime_directory {
    static constexpr const char* PREFIX = "tevash_bench_";
    std::unique_ptr<tevtest::temp_dir> dir;
    runtime_directory() {
        // A service or director process started by the create benchmark keeps
        // the directory its parent made for it.
        const char* inherited = getenv("TEVASH_RUNTIME_DIR");
        if (inherited != nullptr &&
            std::string(inherited).rfind(std::string("/tmp/") + PREFIX, 0) == 0)
            return;
        dir = std::make_unique<tevtest::temp_dir>(PREFIX);
        tevhost::set_runtime_dir(dir->dir());
    }
} g_runtime;

// Both processes on CPU 0 for its lifetime when `pinned` (children inherit it).
class pin {
public:
    explicit pin(bool pinned) : pinned_(pinned) {
        if (!pinned_) return;
        sched_getaffinity(0, sizeof saved_, &saved_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(0, &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~pin() {
        if (pinned_) sched_setaffinity(0, sizeof saved_, &saved_);
    }

private:
    bool pinned_;
    cpu_set_t saved_;
};

// This binary as a server in `mode`; stopped (stdin closed) and reaped at the end.
class server_process {
public:
    server_process(const char* mode, int raw_fd = -1) {
        tevtest::child_options opt;
        std::string dir;
        tevhost::runtime_dir(&dir);
        opt.env = {std::string("TEVASH_BENCH_SERVE=") + mode, "TEVASH_RUNTIME_DIR=" + dir};
        opt.pipe_stdin = opt.pipe_stdout = true;
        opt.fd3 = raw_fd;
        child_ = tevtest::child_process({"/proc/self/exe"}, opt);
        char c = 0;
        ready_ = child_.started() && child_.read_stdout(&c, 1) && read_cpu(&start_cpu_);
    }
    bool ready() const { return ready_; }
    // Stops the server; returns the CPU time it spent since it was ready.
    uint64_t finish() {
        child_.close_stdin();
        uint64_t end_cpu = start_cpu_;
        read_cpu(&end_cpu);
        child_.wait();
        return end_cpu - start_cpu_;
    }

private:
    bool read_cpu(uint64_t* ns) { return child_.read_stdout(ns, sizeof *ns); }
    tevtest::child_process child_;
    bool ready_ = false;
    uint64_t start_cpu_ = 0;
};

// Both processes' CPU time per round trip as the counter cpu_ns.
void count_cpu(benchmark::State& st, uint64_t sender_ns, uint64_t server_ns) {
    if (st.iterations() == 0) return;
    st.counters["cpu_ns"] =
        static_cast<double>(sender_ns + server_ns) / static_cast<double>(st.iterations());
}

void BM_ipc_round_trip(benchmark::State& st) {
    pin pinned(st.range(0) != 0);
    server_process server("ipc");
    velmora::vlq_mc_client client;
    char reply[1];
    unsigned int len = 0;
    if (!server.ready() ||
        client.vlq_mc_send_sync_message(1, 0, nullptr, 0, reply, &len, CONNECTION) != 0) {
        st.SkipWithError("message service server did not answer");
        return;
    }
    uint64_t start = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
    for (auto _ : st) {
        len = 0;
        if (client.vlq_mc_send_sync_message(1, 0, nullptr, 0, reply, &len, CONNECTION) != 0) {
            st.SkipWithError("send failed");
            break;
        }
    }
    uint64_t sender = cpu_ns(CLOCK_THREAD_CPUTIME_ID) - start;
    count_cpu(st, sender, server.finish());
}

void BM_raw_ipc_round_trip(benchmark::State& st) {
    pin pinned(st.range(0) != 0);
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        st.SkipWithError("no socket pair");
        return;
    }
    server_process server("raw", pair[1]);
    ::close(pair[1]);
    unsigned char request[32] = {}, reply[64];
    uint64_t start = cpu_ns(CLOCK_THREAD_CPUTIME_ID);
    for (auto _ : st) {
        if (::send(pair[0], request, sizeof request, MSG_NOSIGNAL) != sizeof request ||
            ::recv(pair[0], reply, sizeof reply, 0) != 20) {
            st.SkipWithError("raw round trip failed");
            break;
        }
    }
    uint64_t sender = cpu_ns(CLOCK_THREAD_CPUTIME_ID) - start;
    ::close(pair[0]);  // the server ends
    count_cpu(st, sender, server.finish());
}

}  // namespace

BENCHMARK(BM_ipc_round_trip)->ArgName("pinned")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_raw_ipc_round_trip)->ArgName("pinned")->Arg(0)->Arg(1)->UseRealTime();
