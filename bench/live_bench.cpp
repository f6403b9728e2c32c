// What the live tools cost the system they look at.
//
// BM_create_monitored/monitor:N: a create through the handler service and a
// director process (its records in memory), as BM_create_processes, with no
// monitor (0) or one `tevash monitor` attached (1). Each run has a service of
// its own, so a monitor of an earlier run is never attached.
// BM_member_write_watched/watcher:N: a member write into the shared store file,
// one SQLite transaction each, with no watcher (0) or one `tevash watch` (1)
// reading the same file.
#include <benchmark/benchmark.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "host/tev_host.h"
#include "processes.h"
#include "tev_ash_facade.h"
#include "tev_ash_types.h"
#include "wud_wud_service_info.h"

using namespace velmora;
using store = wud_wud_service_info;

namespace {

constexpr unsigned int MEMBER = 0x00360000;

tev_ash_facade* facade() {
    return tev_ash_facade::tev_ash_get_instance();
}

// A private runtime directory with this program as service and director, and
// `tevash` children (monitor, watch) writing to /dev/null.
class live_system {
public:
    explicit live_system(bool director) {
        tevhost::set_runtime_dir(dir_.dir());
        ok_ = start({"/proc/self/exe", "--as-service"}, true) &&
              (!director || start({"/proc/self/exe", "--as-director"}, true));
    }
    ~live_system() {
        for (auto it = children_.rbegin(); it != children_.rend(); ++it) it->kill(SIGTERM);
        tevhost::set_runtime_dir("");
    }
    bool ok() const { return ok_; }
    // `tevash args`; waits `settle` for it to attach.
    bool tool(const std::vector<std::string>& args, std::chrono::milliseconds settle) {
        std::vector<std::string> argv{TEVASH_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        if (!start(argv, false)) return false;
        std::this_thread::sleep_for(settle);
        return children_.back().wait(std::chrono::milliseconds(0)) ==
               tevtest::child_process::RUNNING;
    }
    std::string store() const { return dir_.path("store.db"); }

private:
    bool start(const std::vector<std::string>& argv, bool ready) {
        tevtest::child_options opt;
        opt.env = {"TEVASH_RUNTIME_DIR=" + dir_.dir(), "TEVASH_HOST_TRACE=none"};
        opt.pipe_stdout = opt.pipe_stderr = ready;  // its stopping line unread
        opt.log = ready ? "" : "/dev/null";
        children_.emplace_back(argv, opt);
        if (!ready) return children_.back().started();
        char line[7] = {};
        return children_.back().read_stdout(line, 6) && std::string(line) == "ready\n";
    }

    tevtest::temp_dir dir_{"tevash_bench_"};
    std::vector<tevtest::child_process> children_;
    bool ok_ = false;
};

void BM_create_monitored(benchmark::State& st) {
    live_system sys(true);
    if (!sys.ok() || (st.range(0) != 0 && !sys.tool({"monitor"}, std::chrono::milliseconds(300)))) {
        st.SkipWithError("service, director or monitor did not start");
        return;
    }
    for (auto _ : st) {
        unsigned int id = 0;
        benchmark::DoNotOptimize(facade()->tev_ash_create(TEV_ASH_CAT_APLJOB,
                                                          static_cast<TEV_ASH_APP_TYPE>(1),
                                                          TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
    }
    if (tevhost::last_send_status() != tevhost::MSG_OK) st.SkipWithError("service not reached");
}
BENCHMARK(BM_create_monitored)->ArgName("monitor")->Arg(0)->Arg(1)->UseRealTime();

void BM_member_write_watched(benchmark::State& st) {
    live_system sys(false);
    std::string error;
    unsigned int id = 0;
    if (!sys.ok() || !tevhost::store_use_file(sys.store(), &error) ||
        store::wud_wud_service_info_make_current(TEV_ASH_CMP_ID, TEV_ASH_CAT_APLJOB, 0, &id) != 0 ||
        (st.range(0) != 0 && !sys.tool({"watch"}, std::chrono::milliseconds(300)))) {
        st.SkipWithError("store or watcher did not start");
        return;
    }
    long value = 0;
    for (auto _ : st) {
        if (facade()->tev_ash_set_member(0x1000, id, MEMBER, ++value, 0) != 0) {
            st.SkipWithError("member write failed");
            break;
        }
    }
    tevhost::store_use_memory();
}
BENCHMARK(BM_member_write_watched)->ArgName("watcher")->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--as-service") return tevash_tools::run_service({});
    if (argc == 2 && std::string(argv[1]) == "--as-director") {
        tevash_tools::process_options opt;
        opt.memory_store = true;
        return tevash_tools::run_director(1, "", opt);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
