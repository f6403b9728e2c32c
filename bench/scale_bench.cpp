// Scale of the record store: building, drawing and copying a job with 1k, 10k
// and 100k children, on the in-memory and on the persistent store. Each figure
// is one whole operation inside one store transaction, as a command of the
// command-line tool runs; the counter `per_child` is its cost per child, which
// must stay flat as the job grows (child access by order is O(log n)).
//
// The tool's import, export and tree on two shapes of as many handlers: the
// wide job above and a chain as deep as it is wide. `per_child` must stay flat
// as they grow and within 2x between the shapes (nothing costs by depth).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>
#include <thread>

#include <ostream>
#include <streambuf>

#include "child_process.h"
#include "host/tev_host_testing.h"
#include "tev_ash_facade.h"
#include "transfer.h"
#include "tree_model.h"
#include "wud_wud_service_info.h"

using namespace velmora;
using store = wud_wud_service_info;

namespace {

const bool g_threads_started = [] {  // see tevash_bench.cpp
    std::thread([] {}).join();
    return true;
}();

// The heap keeps what it was given between repetitions: a figure is then the
// store's own cost, without the page faults of a process growing for the first
// time (they add up to 2x to the in-memory store at 100k children).
const bool g_heap_kept = [] {
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    return true;
}();

constexpr unsigned int CMP = TEV_ASH_CMP_ID;
constexpr unsigned int CHILD = 0x8, CHILD_MEMBER = 0x00460000;
constexpr unsigned char FLAG = 0;

unsigned int make(unsigned int category) {
    unsigned int id = 0;
    store::wud_wud_service_info_make_current(CMP, category, FLAG, &id);
    return id;
}

// The store a benchmark runs on: range(0) 0 is the in-memory store, 1 a fresh
// database file; left empty and in memory at the end.
class scale_store {
public:
    explicit scale_store(benchmark::State& st) {
        if (st.range(0) == 1 && !tevhost::store_use_file(dir_.path("store.db"))) {
            st.SkipWithError("cannot open the store file");
        }
        tevhost::store_clear();
    }
    ~scale_store() {
        tevhost::store_clear();
        tevhost::store_use_memory();
    }

private:
    tevtest::temp_dir dir_{"tevash_scale_"};
};

// An AUTH -> service image -> job chain (what a copy needs above the job) and
// `n` children under the job, each with one member.
unsigned int make_job(unsigned int n) {
    tevhost::store_transaction txn;
    const unsigned int auth = make(TEV_ASH_CAT_AUTH), img = make(TEV_ASH_CAT_APLSVC_IMG),
                       job = make(TEV_ASH_CAT_APLJOB);
    store::wud_wud_service_info_set_link(CMP, TEV_ASH_CAT_AUTH, auth, TEV_ASH_CAT_APLSVC_IMG, img);
    store::wud_wud_service_info_set_link(CMP, TEV_ASH_CAT_APLSVC_IMG, img, TEV_ASH_CAT_APLJOB, job);
    for (unsigned int i = 0; i < n; ++i) {
        const unsigned int child = make(CHILD);
        store::wud_wud_service_info_set_link(CMP, TEV_ASH_CAT_APLJOB, job, CHILD, child);
        store::wud_wud_service_info_set_current(CMP, child, CHILD_MEMBER, static_cast<long>(i));
    }
    txn.commit();
    return job;
}

void per_child(benchmark::State& st) {
    st.counters["per_child"] = benchmark::Counter(
        static_cast<double>(st.range(1)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_scale_build(benchmark::State& st) {
    scale_store s(st);
    for (auto _ : st) {
        make_job(static_cast<unsigned int>(st.range(1)));
        st.PauseTiming();
        tevhost::store_clear();
        st.ResumeTiming();
    }
    per_child(st);
}

// What drawing the tree reads: the count, then each child by order, its
// category and its member.
void BM_scale_draw(benchmark::State& st) {
    scale_store s(st);
    const unsigned int job = make_job(static_cast<unsigned int>(st.range(1)));
    for (auto _ : st) {
        tevhost::store_transaction txn;
        unsigned int n = 0;
        store::wud_wud_service_info_get_child_link_num_direct(CMP, job, &n);
        for (unsigned int i = 0; i < n; ++i) {
            unsigned int child = 0, category = 0;
            long value = 0;
            store::wud_wud_service_info_get_child_link_direct(CMP, job, i, &child);
            store::wud_wud_service_info_get_job_category_by_id(CMP, child, &category);
            store::wud_wud_service_info_get_current(CMP, child, CHILD_MEMBER, &value);
            benchmark::DoNotOptimize(value);
        }
        txn.commit();
    }
    per_child(st);
}

// The library's copy of a job onto another of the same size: the destination's
// children are deleted and the source's re-created under it.
void BM_scale_copy(benchmark::State& st) {
    scale_store s(st);
    tevhost::set_check_script([](const std::string&, long) { return 1; });
    tev_ash_facade* facade = tev_ash_facade::tev_ash_get_instance();
    const auto n = static_cast<unsigned int>(st.range(1));
    const unsigned int src = make_job(n), dst = make_job(n);
    for (auto _ : st) {
        tevhost::store_transaction txn;
        if (facade->tev_ash_copy(src, dst) != 0) st.SkipWithError("copy failed");
        txn.commit();
    }
    per_child(st);
}

void sizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"file", "children"});
    for (int file : {0, 1}) {
        for (int n : {1000, 10000, 100000}) b->Args({file, n});
    }
    b->Iterations(1)->Repetitions(3)->Unit(benchmark::kMillisecond);
}

// An export of `n` handlers: a job and n - 1 job-set children (wide), or a
// chain of them, each below the one before (deep); each child with one member.
std::string shape_export(unsigned int n, bool deep) {
    std::string text = R"({"tevash_tree":2,"nodes":[{"category":"APLJOB","members":{}})";
    for (unsigned int i = 1; i < n; ++i)
        text += R"(,{"parent":)" + std::to_string(deep ? i - 1 : 0) +
                R"(,"category":"JOBSET_03","members":{"0x00460000":{"kind":"i32","value":)" +
                std::to_string(i) + "}}}";
    return text + "]}";
}

// What import does in the store once the document is read: each handler made,
// then members and links with each parent's children linked before it is.
unsigned int import_shape(const std::string& text) {
    tevhost::set_check_script([](const std::string&, long) { return 1; });  // see BM_scale_copy
    std::vector<tevash_cli::planned> plan;
    std::string why;
    if (!tevash_cli::read_export(text, &plan, &why)) return 0;
    tevhost::store_transaction txn;
    std::vector<unsigned int> ids;
    for (const auto& p : plan) ids.push_back(make(p.category));
    for (size_t k = plan.size(); k-- > 0;) {
        for (const auto& m : plan[k].members) tevhost::set_member_value(ids[k], m);
        if (k > 0)  // every node's parent is below it: link in descending order
            store::wud_wud_service_info_set_link(CMP, plan[plan[k].parent].category,
                                                 ids[plan[k].parent], plan[k].category, ids[k]);
    }
    txn.commit();
    return ids.front();
}

struct null_buffer : std::streambuf {
    int overflow(int c) override { return c; }
};

void shapes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"file", "children", "deep"});
    for (int deep : {0, 1}) {
        for (int file : {0, 1}) {
            for (int n : {1000, 10000, 100000}) b->Args({file, n, deep});
        }
    }
    b->Iterations(1)->Repetitions(3)->Unit(benchmark::kMillisecond);
}

void BM_shape_import(benchmark::State& st) {
    scale_store s(st);
    const std::string text = shape_export(static_cast<unsigned int>(st.range(1)), st.range(2));
    for (auto _ : st) {
        import_shape(text);
        st.PauseTiming();
        tevhost::store_clear();
        st.ResumeTiming();
    }
    per_child(st);
}

// Writes a shape's tree to nowhere, one store transaction per walk: an export
// or a drawing.
template <unsigned int (*Walk)(unsigned int, std::ostream&)>
void BM_shape_walk(benchmark::State& st) {
    scale_store s(st);
    const unsigned int root =
        import_shape(shape_export(static_cast<unsigned int>(st.range(1)), st.range(2)));
    null_buffer sink;
    std::ostream out(&sink);
    for (auto _ : st) {
        tevhost::store_transaction txn;
        Walk(root, out);
        txn.commit();
    }
    per_child(st);
}
void BM_shape_export(benchmark::State& st) {
    BM_shape_walk<tevash_cli::write_export>(st);
}
void BM_shape_tree(benchmark::State& st) {
    BM_shape_walk<tevash_cli::draw_tree>(st);
}

}  // namespace

BENCHMARK(BM_shape_import)->Apply(shapes);
BENCHMARK(BM_shape_export)->Apply(shapes);
BENCHMARK(BM_shape_tree)->Apply(shapes);
BENCHMARK(BM_scale_build)->Apply(sizes);
BENCHMARK(BM_scale_draw)->Apply(sizes);
BENCHMARK(BM_scale_copy)->Apply(sizes);

BENCHMARK_MAIN();
