// Benchmarks of the library against the raw record store operations it makes.
// Each library figure has a baseline beside it ("raw/..."), and the ratio is
// printed as the counter `x_raw` on the library's row.
#include <benchmark/benchmark.h>
#include <signal.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "host/tev_host_testing.h"
#include "host_system.h"
#include "processes.h"
#include "tev_ash_control.h"
#include "tev_ash_facade.h"
#include "wud_wud_service_info.h"

using namespace velmora;
using store = wud_wud_service_info;

namespace {

// Every figure is taken in a process that has started a thread, as any device
// application has: from then on the C library makes each lock an atomic
// operation, which it skips while a process is single-threaded. Without this
// the figures would depend on whether a threaded benchmark ran before them.
const bool g_threads_started = [] {
    std::thread([] {}).join();
    return true;
}();

constexpr unsigned int CMP = 5;
constexpr unsigned int JOB_MEMBER = 0x00360000;    // category 0x4
constexpr unsigned int CHILD_MEMBER = 0x00460000;  // category 0x8
constexpr unsigned int AUTH_MEMBER = 0x00260000;   // category 0x2

struct tree {
    unsigned int auth = 0, img = 0, job = 0, child = 0;
};

unsigned int make(unsigned int category) {
    unsigned int id = 0;
    const unsigned char flag = 0;
    store::wud_wud_service_info_make_current(TEV_ASH_CMP_ID, category, flag, &id);
    return id;
}

void link(unsigned int pc, unsigned int p, unsigned int cc, unsigned int c) {
    store::wud_wud_service_info_set_link(TEV_ASH_CMP_ID, pc, p, cc, c);
}

tree make_tree() {
    tree t;
    t.auth = make(TEV_ASH_CAT_AUTH);
    t.img = make(TEV_ASH_CAT_APLSVC_IMG);
    t.job = make(TEV_ASH_CAT_APLJOB);
    t.child = make(0x8);
    link(TEV_ASH_CAT_AUTH, t.auth, TEV_ASH_CAT_APLSVC_IMG, t.img);
    link(TEV_ASH_CAT_APLSVC_IMG, t.img, TEV_ASH_CAT_APLJOB, t.job);
    link(TEV_ASH_CAT_APLJOB, t.job, 0x8, t.child);
    store::wud_wud_service_info_set_current(CMP, t.job, JOB_MEMBER, 7L);
    store::wud_wud_service_info_set_current(CMP, t.child, CHILD_MEMBER, 8L);
    store::wud_wud_service_info_set_current(CMP, t.auth, AUTH_MEMBER, 9L);
    return t;
}

tev_ash_facade* facade() {
    static tev_ash_facade* f = [] {
        tevhost::set_check_script([](const std::string&, long) { return 1; });
        return tev_ash_facade::tev_ash_get_instance();
    }();
    return f;
}

const tree& shared_tree() {
    static const tree t = [] {
        facade();
        return make_tree();
    }();
    return t;
}

// ---- Member reads through the facade, and the raw store calls each one makes.

void BM_read_itself(benchmark::State& st) {
    const tree& t = shared_tree();
    long v = 0;
    for (auto _ : st)
        benchmark::DoNotOptimize(facade()->tev_ash_get_member(CMP, t.job, JOB_MEMBER, &v, 0));
}
void BM_raw_read_itself(benchmark::State& st) {  // category, value
    const tree& t = shared_tree();
    unsigned int cat = 0;
    std::int32_t v = 0;
    for (auto _ : st) {
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        benchmark::DoNotOptimize(
            store::wud_wud_service_info_get_current(CMP, t.job, JOB_MEMBER, &v));
    }
}
void BM_read_child(benchmark::State& st) {
    const tree& t = shared_tree();
    long v = 0;
    for (auto _ : st)
        benchmark::DoNotOptimize(facade()->tev_ash_get_member(CMP, t.job, CHILD_MEMBER, &v, 0));
}
void BM_raw_read_child(benchmark::State& st) {  // category, category, child link, value
    const tree& t = shared_tree();
    unsigned int cat = 0, child = 0;
    const unsigned int order = 0, ccat = 0x8;
    std::int32_t v = 0;
    for (auto _ : st) {
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        store::wud_wud_service_info_get_child_link(TEV_ASH_CMP_ID, cat, t.job, ccat, order, &child);
        benchmark::DoNotOptimize(
            store::wud_wud_service_info_get_current(CMP, child, CHILD_MEMBER, &v));
    }
}
void BM_read_auth(benchmark::State& st) {
    const tree& t = shared_tree();
    long v = 0;
    for (auto _ : st)
        benchmark::DoNotOptimize(facade()->tev_ash_get_member(CMP, t.job, AUTH_MEMBER, &v, 0));
}
void BM_raw_read_auth(benchmark::State& st) {  // category, 2 x (category, parent), value
    const tree& t = shared_tree();
    unsigned int cat = 0, p1 = 0, p2 = 0;
    std::int32_t v = 0;
    for (auto _ : st) {
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, cat, t.job, &p1);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, p1, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, cat, p1, &p2);
        benchmark::DoNotOptimize(store::wud_wud_service_info_get_current(CMP, p2, AUTH_MEMBER, &v));
    }
}
void BM_write_auth(benchmark::State& st) {
    const tree& t = shared_tree();
    long v = 0;
    for (auto _ : st)
        benchmark::DoNotOptimize(facade()->tev_ash_set_member(CMP, t.job, AUTH_MEMBER, ++v, 0));
}
void BM_raw_write_auth(benchmark::State& st) {
    const tree& t = shared_tree();
    unsigned int cat = 0, p1 = 0, p2 = 0;
    long v = 0;
    for (auto _ : st) {
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, t.job, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, cat, t.job, &p1);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, p1, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, cat, p1, &p2);
        benchmark::DoNotOptimize(
            store::wud_wud_service_info_set_current(CMP, p2, AUTH_MEMBER, ++v));
    }
}

// ---- Member-category lookup: the shipped lookup against a linear scan.

unsigned int linear_scan(unsigned int member_id) {
    for (unsigned int i = 0; i < tev_ash_control::MEMBER_MAX; ++i)
        if (tev_ash_control::s_member_table[i].member_id == member_id)
            return tev_ash_control::s_member_table[i].category;
    return 0;
}
std::vector<unsigned int> lookup_ids() {
    std::vector<unsigned int> ids;
    for (unsigned int i = 0; i < tev_ash_control::MEMBER_MAX; i += 7)
        ids.push_back(tev_ash_control::s_member_table[i].member_id);
    return ids;
}
tev_ash_control* control() {
    static tev_ash_control* c = [] {
        facade();
        return new tev_ash_control;
    }();
    return c;
}
void BM_member_category(benchmark::State& st) {
    const auto ids = lookup_ids();
    for (unsigned int id : ids) {  // identical results, checked once
        TEV_ASH_CATEGORY c{};
        if (control()->get_member_category(id, &c) != 0 || c != linear_scan(id)) {
            st.SkipWithError("lookup differs from the scan");
            return;
        }
    }
    std::size_t i = 0;
    for (auto _ : st) {
        TEV_ASH_CATEGORY c{};
        benchmark::DoNotOptimize(control()->get_member_category(ids[i++ % ids.size()], &c));
    }
}
void BM_raw_member_category_scan(benchmark::State& st) {
    const auto ids = lookup_ids();
    std::size_t i = 0;
    for (auto _ : st) benchmark::DoNotOptimize(linear_scan(ids[i++ % ids.size()]));
}

// ---- Tree copy with N children, against the raw store operations it makes.

struct copy_pair {
    unsigned int src = 0, dst = 0;
};
copy_pair make_copy_pair(unsigned int children) {
    facade();
    const tree s = make_tree(), d = make_tree();
    for (unsigned int i = 1; i < children; ++i) link(TEV_ASH_CAT_APLJOB, s.job, 0x8, make(0x8));
    for (unsigned int i = 1; i < children; ++i) link(TEV_ASH_CAT_APLJOB, d.job, 0x8, make(0x8));
    return {s.job, d.job};
}
void BM_copy(benchmark::State& st) {
    const auto n = static_cast<unsigned int>(st.range(0));
    const copy_pair p = make_copy_pair(n);
    for (auto _ : st) benchmark::DoNotOptimize(facade()->tev_ash_copy(p.src, p.dst));
}
void BM_raw_copy(benchmark::State& st) {  // the same store operations, made directly
    const auto n = static_cast<unsigned int>(st.range(0));
    const copy_pair p = make_copy_pair(n);
    const unsigned char flag = 0;
    const unsigned int zero = 0, job = TEV_ASH_CAT_APLJOB;
    for (auto _ : st) {
        unsigned int cat = 0, sp = 0, dp = 0, count = 0, child = 0, copy_id = 0;
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, p.dst, &cat);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, p.src, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, job, p.src,
                                                    &sp);  // overlap check
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, job, p.dst, &dp);
        store::wud_wud_service_info_copy_current(TEV_ASH_CMP_ID, p.src, p.dst);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, p.dst, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, cat, p.dst, &dp);
        store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, p.src, &cat);
        store::wud_wud_service_info_get_parent_link(TEV_ASH_CMP_ID, cat, p.src, &sp);
        store::wud_wud_service_info_copy_current(TEV_ASH_CMP_ID, sp, dp);
        store::wud_wud_service_info_get_child_link_num_direct(TEV_ASH_CMP_ID, p.dst, &count);
        for (unsigned int i = 0; i < count; ++i) {
            store::wud_wud_service_info_get_child_link_direct(TEV_ASH_CMP_ID, p.dst, zero, &child);
            store::wud_wud_service_info_delete_current(TEV_ASH_CMP_ID, child);
        }
        store::wud_wud_service_info_get_child_link_num_direct(TEV_ASH_CMP_ID, p.src, &count);
        for (unsigned int i = 0; i < count; ++i) {
            store::wud_wud_service_info_get_child_link_direct(TEV_ASH_CMP_ID, p.src, i, &child);
            store::wud_wud_service_info_get_job_category_by_id(TEV_ASH_CMP_ID, child, &cat);
            store::wud_wud_service_info_make_and_copy_current(TEV_ASH_CMP_ID, cat, flag, child,
                                                              &copy_id);
            store::wud_wud_service_info_set_link(TEV_ASH_CMP_ID, job, p.dst, cat, copy_id);
        }
    }
}

// ---- Threads: member reads from 1 and 2 threads at once.

void BM_read_auth_threads(benchmark::State& st) {
    const tree& t = shared_tree();
    long v = 0;
    for (auto _ : st)
        benchmark::DoNotOptimize(facade()->tev_ash_get_member(CMP, t.job, AUTH_MEMBER, &v, 0));
}

}  // namespace

BENCHMARK(BM_read_itself);
BENCHMARK(BM_raw_read_itself);
BENCHMARK(BM_read_child);
BENCHMARK(BM_raw_read_child);
BENCHMARK(BM_read_auth);
BENCHMARK(BM_raw_read_auth);
BENCHMARK(BM_write_auth);
BENCHMARK(BM_raw_write_auth);
BENCHMARK(BM_member_category);
BENCHMARK(BM_raw_member_category_scan);
BENCHMARK(BM_copy)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(BM_raw_copy)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(BM_read_auth_threads)->Threads(1)->Threads(2)->UseRealTime();

// ---- One create through facade -> handler service -> director -> store, in
// process, against the one store call the director makes for it.

// The records a create benchmark made, removed untimed every 1024, so the store
// keeps its size however many iterations run.
class batch {
public:
    explicit batch(benchmark::State& st) : st_(st) { ids_.reserve(SIZE); }
    ~batch() { drop(); }
    void add(unsigned int id) {
        ids_.push_back(id);
        if (ids_.size() < SIZE) return;
        st_.PauseTiming();
        drop();
        st_.ResumeTiming();
    }

private:
    static constexpr std::size_t SIZE = 1024;
    void drop() {
        for (unsigned int id : ids_) store::wud_wud_service_info_delete_current(TEV_ASH_CMP_ID, id);
        ids_.clear();
    }
    benchmark::State& st_;
    std::vector<unsigned int> ids_;
};

void BM_create(benchmark::State& st) {
    // Up for this run only, so that between runs the handler service of the
    // process benchmarks below is the one other processes serve.
    tevash_tools::host_system sys(static_cast<TEV_ASH_APP_TYPE>(1));
    if (sys.status() != 0) {
        st.SkipWithError("host system did not start");
        return;
    }
    facade();
    batch made(st);
    for (auto _ : st) {
        unsigned int id = 0;
        benchmark::DoNotOptimize(
            facade()->tev_ash_create(TEV_ASH_CAT_APLJOB, static_cast<TEV_ASH_APP_TYPE>(1),
                                     static_cast<TEV_ASH_SERVICE_TYPE>(0), &id, 0));
        made.add(id);
    }
}
void BM_raw_create(benchmark::State& st) {
    const unsigned char flag = 0;
    const unsigned int category = TEV_ASH_CAT_APLJOB;
    batch made(st);
    for (auto _ : st) {
        unsigned int id = 0;
        benchmark::DoNotOptimize(
            store::wud_wud_service_info_make_current(TEV_ASH_CMP_ID, category, flag, &id));
        made.add(id);
    }
}
BENCHMARK(BM_create);
BENCHMARK(BM_raw_create);

// ---- The same create with application, handler service and director each in
// its own process: this one, and two copies of this program started as
// `--as-service` and `--as-director` on a private runtime directory. The
// director keeps its records in its own memory, as BM_create does, so the
// difference is the two round trips between processes.

namespace {

class service_processes {
public:
    service_processes() {
        tevhost::set_runtime_dir(dir_.dir());
        ok_ = start("--as-service") && start("--as-director");
    }
    ~service_processes() {
        for (auto it = children_.rbegin(); it != children_.rend(); ++it) it->kill(SIGTERM);
    }
    bool ok() const { return ok_; }

private:
    // Starts this program in `role` and waits for its ready line.
    bool start(const char* role) {
        tevtest::child_options opt;
        opt.env = {"TEVASH_RUNTIME_DIR=" + dir_.dir()};
        opt.pipe_stdout = true;
        children_.emplace_back(std::vector<std::string>{"/proc/self/exe", role}, opt);
        char line[7] = {};
        return children_.back().read_stdout(line, 6) && std::string(line) == "ready\n";
    }

    tevtest::temp_dir dir_{"tevash_bench_"};
    std::vector<tevtest::child_process> children_;
    bool ok_ = false;
};

service_processes* g_processes = nullptr;

service_processes* processes() {
    if (g_processes == nullptr) g_processes = new service_processes();
    return g_processes;
}

// A create through the processes for application type `app_type`: type 1 has
// the director process; type 2 has none, so the service answers it alone (one
// of the two round trips).
void create_through_processes(benchmark::State& st, int app_type) {
    if (!processes()->ok()) {
        st.SkipWithError("handler service or director process did not start");
        return;
    }
    facade();
    for (auto _ : st) {
        unsigned int id = 0;
        benchmark::DoNotOptimize(
            facade()->tev_ash_create(TEV_ASH_CAT_APLJOB, static_cast<TEV_ASH_APP_TYPE>(app_type),
                                     static_cast<TEV_ASH_SERVICE_TYPE>(0), &id, 0));
    }
    if (tevhost::last_send_status() != tevhost::MSG_OK) st.SkipWithError("service not reached");
}
void BM_create_processes(benchmark::State& st) {
    create_through_processes(st, 1);
}
void BM_create_processes_no_director(benchmark::State& st) {
    create_through_processes(st, 2);
}
BENCHMARK(BM_create_processes)->UseRealTime();
BENCHMARK(BM_create_processes_no_director)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--as-service") {
        return tevash_tools::run_service({});
    }
    if (argc == 2 && std::string(argv[1]) == "--as-director") {
        tevash_tools::process_options opt;
        opt.memory_store = true;
        return tevash_tools::run_director(1, "", opt);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    delete g_processes;
    return 0;
}
