// The host as several processes on a private runtime directory: `tevash serve`,
// `tevash director` and applications (this test process, `tevash` commands and
// copies of this program started as clients) meet only through the message
// service's sockets and the shared record store file.
#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "host/tev_host_testing.h"
#include "processes.h"
#include "tev_ash_facade.h"
#include "tev_ash_handler_facade.h"
#include "tev_ash_messages.h"
#include "tev_ash_observer_impl.h"
#include "tev_test_support.h"
#include "vlq_mc_client.h"

namespace {

using namespace velmora;
using namespace std::chrono_literals;

constexpr TEV_ASH_CATEGORY APLJOB = TEV_ASH_CAT_APLJOB;
constexpr unsigned int MEMBER = 0x00360000;  // a long member of the job itself
constexpr unsigned int NO_OBSERVER = 0xC1030006;
constexpr int CLIENTS = 8, CLIENT_REQUESTS = 200;
constexpr TEV_ASH_APP_TYPE app(int n) {
    return static_cast<TEV_ASH_APP_TYPE>(n);
}

// "<function id> <request bytes in hex>": one message as a director receives it.
std::string message_line(long func_id, const unsigned char* request, std::size_t size) {
    std::string line = std::to_string(func_id) + ' ';
    for (std::size_t i = 0; i < size; ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", request[i]);
        line += hex;
    }
    return line;
}

// The sample director as this program runs it in a director process: with
// TEVASH_TEST_DIRECTOR_HOLD=<ms> it makes the record of every create, then holds
// it uncommitted that long after writing "holding create";
// TEVASH_TEST_DIRECTOR_DUMP=<file> gets a message_line for every notification.
class test_director : public tevash_tools::sample_director {
public:
    using sample_director::sample_director;
    ~test_director() override { stop(); }
    void dispatch(long func_id, char* request, unsigned int size, gen_ipc_msghdr sync) override {
        if (const char* dump = std::getenv("TEVASH_TEST_DIRECTOR_DUMP"))
            std::ofstream(dump, std::ios::app)
                << message_line(func_id, reinterpret_cast<unsigned char*>(request),
                                request != nullptr ? size : 0)
                << '\n';
        sample_director::dispatch(func_id, request, size, sync);
    }
    void notify_create(TEV_ASH_CATEGORY category, TEV_ASH_SERVICE_TYPE service_type,
                       unsigned int& handler_id, unsigned int src_handler_id,
                       long& result) override {
        sample_director::notify_create(category, service_type, handler_id, src_handler_id, result);
        if (const char* hold = std::getenv("TEVASH_TEST_DIRECTOR_HOLD")) {
            std::fputs("holding create\n", stderr);  // unbuffered
            std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(hold)));
        }
    }
};

// A director process started by MultiProcess::director, for application type
// TEVASH_TEST_DIRECTOR.
TEST(MultiProcessDirector, ServesWhenStartedAsDirector) {
    const char* app_type = std::getenv("TEVASH_TEST_DIRECTOR");
    if (app_type == nullptr) GTEST_SKIP() << "only as a started director";
    tevash_tools::process_options opt;
    opt.json = true;
    EXPECT_EQ(0, tevash_tools::run_director(std::atoi(app_type), "", opt, [](const char* name) {
                  return std::make_unique<test_director>(name);
              }));
}

struct process {
    tevtest::child_process child;
    std::string log;  // its standard output and error
};

// Milliseconds until `done()` holds, polled; -1 when it did not within `limit`.
template <typename Done>
long long ms_until(Done&& done, std::chrono::milliseconds limit = 10s) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const auto spent = std::chrono::steady_clock::now() - start;
        if (done()) return std::chrono::duration_cast<std::chrono::milliseconds>(spent).count();
        if (spent > limit) return -1;
        std::this_thread::sleep_for(5ms);
    }
}

// Every process of one test, on one private runtime directory.
class MultiProcess : public ::testing::Test {
protected:
    void SetUp() override {
        tevhost::set_runtime_dir(dir_.dir());
        tevhost::set_message_timeout_ms(600000);
        serve_ = start({"serve"});
    }
    void TearDown() override {
        for (auto* p : {&serve_, &extra_}) stop(*p, SIGTERM, 0);
    }

    // `tevash args` (or this program with `self`), its output in a log file;
    // waits for its "ready" line unless `ready` is false.
    process start(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                  bool ready = true, bool self = false) {
        tevtest::child_options opt;
        opt.env = env;  // first: these win
        opt.env.insert(opt.env.end(), env_.begin(), env_.end());
        opt.log = dir_.path("log" + std::to_string(++logs_));
        std::vector<std::string> argv{self ? "/proc/self/exe" : TEVASH_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        process p{tevtest::child_process(argv, opt), opt.log};
        if (ready) {
            EXPECT_TRUE(wait_for(p, "ready\n")) << tevtest::file_text(p.log);
        }
        return p;
    }
    // `tevash director`, or with `env` settings of test_director this program
    // running one; ready once its JSON ready line is out.
    process director(int app_type, std::vector<std::string> env = {}) {
        process p;
        if (env.empty()) {
            p = start({"director", "--app-type", std::to_string(app_type), "--json"}, {}, false);
        } else {
            env.push_back("TEVASH_TEST_DIRECTOR=" + std::to_string(app_type));
            p = start({"--gtest_filter=MultiProcessDirector.*"}, env, false, true);
        }
        EXPECT_TRUE(wait_for(p, "{\"ready\":true,\"pid\":")) << tevtest::file_text(p.log);
        return p;
    }

    // Waits until the log holds `text`; false when the process ended first.
    static bool wait_for(process& p, const std::string& text) {
        for (int i = 0; i < 6000; ++i) {
            const bool ended = p.child.wait(0ms) != tevtest::child_process::RUNNING;
            if (tevtest::file_text(p.log).find(text) != std::string::npos) return true;
            if (ended) return false;
            std::this_thread::sleep_for(20ms);
        }
        return false;
    }
    // Signals the process and returns its exit status (-1 when killed by the signal).
    static int stop(process& p, int sig, int expected_status) {
        if (!p.child.started()) return expected_status;
        const int code = p.child.kill(sig);
        p.child = tevtest::child_process();
        EXPECT_EQ(expected_status, code) << tevtest::file_text(p.log);
        return code;
    }

    // `tevash args`, run to its end: exit status and output.
    std::pair<int, std::string> run(std::vector<std::string> args) {
        args.insert(args.begin(), TEVASH_CLI_PATH);
        tevtest::run_result r = tevtest::run_child(args, env_);
        return {r.status, r.out + r.err};
    }

    void use_shared_store() {
        std::string error;
        ASSERT_TRUE(tevhost::store_use_file(dir_.path("store.db"), &error)) << error;
    }
    static tev_ash_facade* facade() { return tev_ash_facade::tev_ash_get_instance(); }
    static unsigned int create(int app_type, unsigned int* id, TEV_ASH_CATEGORY category = APLJOB) {
        return facade()->tev_ash_create(category, app(app_type), TEV_ASH_SERVICE_TYPE_NONE, id, 0);
    }
    std::string integrity() {
        sqlite3* db = nullptr;
        std::string result = "cannot open";
        if (sqlite3_open_v2(dir_.path("store.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
            SQLITE_OK) {
            sqlite3_stmt* st = nullptr;
            sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &st, nullptr);
            if (sqlite3_step(st) == SQLITE_ROW) {
                result = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
            }
            sqlite3_finalize(st);
        }
        sqlite3_close(db);
        return result;
    }

    tevtest::temp_dir dir_;
    // This process's settings for every child; timeouts far beyond the test's
    // own: a death must be noticed, not timed out.
    const std::vector<std::string> env_{"TEVASH_RUNTIME_DIR=" + dir_.dir(),
                                        "TEVASH_HOST_IPC_TIMEOUT_MS=600000"};
    int logs_ = 0;
    process serve_, extra_;
};

// The same notifications sent in this process by the library's proxy: the
// request bytes as the message spy sees them, one "func hex" line each.
std::vector<std::string> in_process_notifications(unsigned int removed, unsigned int reset) {
    tevhost::message_spy spy([](const tevhost::sent_message&, std::vector<unsigned char>& r) {
        r.assign(8, 0);
        return true;
    });
    tev_ash_observer_impl proxy(1, "SPIED");
    unsigned int id = 0;
    long result = 0;
    for (auto category : {TEV_ASH_CAT_APLSVC_IMG, APLJOB, APLJOB}) {
        proxy.notify_create(category, TEV_ASH_SERVICE_TYPE_NONE, id, 0, result);
    }
    proxy.notify_reset(TEV_ASH_SERVICE_TYPE_NONE, reset, result);
    proxy.notify_remove(removed, result);
    std::vector<std::string> lines;
    for (const auto& m : spy.messages())
        lines.push_back(message_line(m.func_id, m.request.data(), m.request.size()));
    return lines;
}

// An application in this process: create, set, get, copy, reset and remove
// through the service and a director process; the director receives exactly
// the bytes the library's proxy hands the message service in one process.
TEST_F(MultiProcess, HandlerLifeThroughServiceAndDirectorProcesses) {
    const std::string dump = dir_.path("dump");
    extra_ = director(1, {"TEVASH_TEST_DIRECTOR_DUMP=" + dump});
    use_shared_store();
    unsigned int img = 0, job = 0, copy = 0;
    ASSERT_EQ(0u, create(1, &img, TEV_ASH_CAT_APLSVC_IMG));
    ASSERT_EQ(0u, create(1, &job));
    ASSERT_EQ(0u, create(1, &copy));
    ASSERT_NE(0u, job);
    for (unsigned int j : {job, copy}) {
        ASSERT_EQ(0u, facade()->tev_ash_set_link(TEV_ASH_CAT_APLSVC_IMG, img, APLJOB, j));
    }
    ASSERT_EQ(0u, facade()->tev_ash_set_member(0x1000, job, MEMBER, 42L, 0));
    long value = 0;
    ASSERT_EQ(0u, facade()->tev_ash_get_member(0x1000, job, MEMBER, &value, 0));
    EXPECT_EQ(42, value);
    ASSERT_EQ(0u, facade()->tev_ash_copy(job, copy));
    ASSERT_EQ(0u, facade()->tev_ash_get_member(0x1000, copy, MEMBER, &value, 0));
    EXPECT_EQ(42, value);
    EXPECT_EQ(0u, facade()->tev_ash_reset(app(1), TEV_ASH_SERVICE_TYPE_NONE, copy));
    value = 0;
    facade()->tev_ash_get_member(0x1000, copy, MEMBER, &value, 0);
    EXPECT_NE(42, value);
    EXPECT_EQ(0u, facade()->tev_ash_remove(app(1), job));
    EXPECT_EQ(tevhost::STORE_NO_RECORD, facade()->tev_ash_remove(app(1), job));
    // The same records as the director process sees them, through the shared file.
    std::vector<unsigned int> ids;
    for (const auto& r : tevhost::store_records()) ids.push_back(r.handler_id);
    EXPECT_EQ((std::vector<unsigned int>{img, copy}), ids);

    std::vector<std::string> received;
    std::istringstream lines(tevtest::file_text(dump));
    for (std::string line; std::getline(lines, line);) received.push_back(line);
    received.pop_back();  // the second remove, refused by the store
    EXPECT_EQ(in_process_notifications(job, copy), received);
}

// A director killed, or asked to stop, while it holds a create it has made but
// not committed: the application hears at once that the outcome is unknown, the
// record is not kept, the registration is withdrawn (a stopping director exits
// within its bound all the same), the service serves on and the store is sound.
TEST_F(MultiProcess, DirectorKilledOrStoppedWhileHoldingARequest) {
    extra_ = director(3);
    use_shared_store();
    for (int sig : {SIGKILL, SIGTERM}) {
        process held = director(2, {"TEVASH_TEST_DIRECTOR_HOLD=60000"});
        const std::size_t records = tevhost::store_records().size();
        unsigned int id = 7;
        auto pending = std::async(std::launch::async, [&] { return create(2, &id); });
        ASSERT_TRUE(wait_for(held, "holding create"));
        const auto signalled = std::chrono::steady_clock::now();
        stop(held, sig, sig == SIGKILL ? -1 : 0);
        const auto exit_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - signalled);
        std::printf("signal %d: the holding director exited in %lld ms\n", sig,
                    static_cast<long long>(exit_ms.count()));
        EXPECT_LT(exit_ms, 20s);
        ASSERT_EQ(std::future_status::ready, pending.wait_for(120s));
        EXPECT_EQ(tevhost::HOST_OUTCOME_UNKNOWN, pending.get());
        EXPECT_EQ(0u, id);
        EXPECT_EQ(tevhost::MSG_OK, tevhost::last_send_status());  // the service itself answered
        EXPECT_EQ(records, tevhost::store_records().size());
        EXPECT_LE(0, ms_until([&] { return create(2, &id) == NO_OBSERVER; }, 2s));
        EXPECT_EQ(0u, create(3, &id));
        EXPECT_EQ("ok", integrity());
    }
    // Killed while idle: withdrawn by the service's watcher, not by a request
    // (asking a connecter's question sends nothing to the director).
    process idle = director(2);
    auto* handler = tev_ash_handler_facade::tev_ash_handler_get_instance();
    unsigned char conn = 0;
    ASSERT_EQ(0u, handler->tev_ash_handler_ctrl_notify_start(conn, "TEST_CON"));
    long obj = 0;
    char name[TEV_ASH_CONNECTION_NAME_LEN + 1] = {};
    ASSERT_EQ(0u, handler->tev_ash_handler_ctrl_get_director_observer(conn, app(2), obj, name));
    stop(idle, SIGKILL, -1);
    const long long withdrawn_ms = ms_until(
        [&] {
            return handler->tev_ash_handler_ctrl_get_director_observer(conn, app(2), obj, name) ==
                   NO_OBSERVER;
        },
        2s);
    std::printf("a killed idle director was withdrawn after %lld ms\n", withdrawn_ms);
    EXPECT_LE(0, withdrawn_ms);
    idle = director(2);
    unsigned int id = 0;
    EXPECT_EQ(0u, create(2, &id));

    // Connecters of processes that ended without stopping give their ids back:
    // more such processes than there are ids all get one.
    for (unsigned int i = 0; i < 300; ++i) {
        tevtest::child_process started([&] {
            unsigned char mine = 0;
            return handler->tev_ash_handler_ctrl_notify_start(mine, "GONE_CON") == 0 ? 0 : 1;
        });
        ASSERT_EQ(0, started.wait()) << "connecter start " << i;
    }
}

// A stopped director (SIGSTOP): the create it holds is answered within the
// service's message timeout, as of unknown outcome (or expired); later creates
// at once as "director not answering". Continued, it has carried out none of
// them, and it answers again. A director slower than the service's timeout
// rolls its work back.
TEST_F(MultiProcess, StoppedDirectorIsAnsweredForAndCarriesOutNothingLate) {
    stop(serve_, SIGTERM, 0);
    serve_ = start({"serve"}, {"TEVASH_HOST_IPC_TIMEOUT_MS=2000"});
    extra_ = director(1, {"TEVASH_HOST_IPC_TIMEOUT_MS=2000"});
    use_shared_store();
    unsigned int id = 0;
    ASSERT_EQ(0u, create(1, &id));
    extra_.child.signal(SIGSTOP);  // returns once the director has stopped
    auto started = std::chrono::steady_clock::now();
    const unsigned int first = create(1, &id);
    EXPECT_TRUE(first == tevhost::HOST_OUTCOME_UNKNOWN ||
                first == tevhost::HOST_DIRECTOR_UNREACHABLE)
        << std::hex << first;
    EXPECT_LT(std::chrono::steady_clock::now() - started, 20s);
    started = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(tevhost::HOST_DIRECTOR_UNRESPONSIVE, create(1, &id));
    const auto fast = std::chrono::steady_clock::now() - started;
    std::printf("3 creates for a stopped director answered in %lld ms\n",
                static_cast<long long>(
                    std::chrono::duration_cast<std::chrono::milliseconds>(fast).count()));
    EXPECT_LT(fast, 1900ms);  // none waited for the service's 2 s timeout
    extra_.child.signal(SIGCONT);
    EXPECT_LE(0, ms_until([&] { return create(1, &id) == 0; }));
    stop(extra_, SIGTERM, 0);
    EXPECT_EQ(2u, tevhost::store_records().size());

    extra_ = director(1, {"TEVASH_TEST_DIRECTOR_HOLD=2500", "TEVASH_HOST_TRACE=stderr"});
    EXPECT_EQ(tevhost::HOST_OUTCOME_UNKNOWN, create(1, &id));
    EXPECT_TRUE(wait_for(extra_, "rolled back")) << tevtest::file_text(extra_.log);
    EXPECT_EQ(2u, tevhost::store_records().size());
}

// Creates that queue at a busy director are committed together. One whose
// application gave up before that commit is rolled back, and only it: the
// others are made again and kept, and each caller is told what became of its own.
TEST_F(MultiProcess, CreatesCommittedTogetherKeepOnlyThoseStillAwaited) {
    extra_ = director(1, {"TEVASH_TEST_DIRECTOR_HOLD=1500", "TEVASH_HOST_TRACE=stderr"});
    use_shared_store();
    unsigned int first = 0, kept = 0, first_rc = 1, kept_rc = 1;
    std::thread held([&] { first_rc = create(1, &first); });
    ASSERT_TRUE(wait_for(extra_, "holding create")) << tevtest::file_text(extra_.log);
    // Queued behind it: a create whose application waits 4 s (it is made, then
    // expires while the next one is held), then one whose application waits.
    process impatient = start({"create", "APLJOB"}, {"TEVASH_HOST_IPC_TIMEOUT_MS=4000"}, false);
    std::this_thread::sleep_for(500ms);
    std::thread patient([&] { kept_rc = create(1, &kept); });
    EXPECT_NE(0, impatient.child.wait());
    EXPECT_NE(std::string::npos, tevtest::file_text(impatient.log).find("outcome is unknown"))
        << tevtest::file_text(impatient.log);
    held.join();
    patient.join();
    EXPECT_EQ(0u, first_rc);
    EXPECT_EQ(0u, kept_rc);
    EXPECT_TRUE(wait_for(extra_, "rolled back")) << tevtest::file_text(extra_.log);
    const std::vector<tevhost::record_info> records = tevhost::store_records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(std::min(first, kept), records[0].handler_id);
    EXPECT_EQ(std::max(first, kept), records[1].handler_id);
}

// A director's object id is the low 32 bits of its address, so two processes'
// directors may share one. A process withdrawing its observer takes out its own
// registration only: the other process's director goes on being served.
TEST_F(MultiProcess, AWithdrawalTakesOutOnlyTheWithdrawingProcesssRegistration) {
    extra_ = director(3);
    std::smatch m;
    const std::string status = run({"status", "--json"}).second;
    ASSERT_TRUE(std::regex_search(status, m, std::regex(R"("object_id":(-?\d+))"))) << status;
    char add[tev_ash_add_observer_req::SIZE], remove[tev_ash_remove_observer_req::SIZE];
    tev_ash_add_observer_req a;
    a.app_type = 9;
    a.observer = static_cast<std::int32_t>(std::stol(m[1]));
    tev_ash_wire::put_name(a.connection_name, "TEV_ASH_DIR9");
    encode(a, add);
    encode(tev_ash_remove_observer_req{a.observer}, remove);
    vlq_mc_client client;
    for (auto [func, request, size] :
         {std::make_tuple(TEV_ASH_FUNC_ADD_OBSERVER, add, sizeof add),
          std::make_tuple(TEV_ASH_FUNC_REMOVE_OBSERVER, remove, sizeof remove)}) {
        char reply[64] = {};
        unsigned int len = sizeof reply;
        ASSERT_EQ(0, client.vlq_mc_send_sync_message(TEV_ASH_SRV_OBJ_ID, func, request, size, reply,
                                                     &len, TEV_ASH_SRV_NAME));
        EXPECT_EQ(0u, tev_ash_wire::get_u32(reply)) << func;
    }
    unsigned int id = 0;
    EXPECT_EQ(NO_OBSERVER, create(9, &id));
    EXPECT_EQ(0u, create(3, &id));
}

// The service killed: nothing listens, applications and commands say so in
// words; a new service replaces the stale socket, a second one is refused.
TEST_F(MultiProcess, ServiceKilledAndReplaced) {
    extra_ = director(1);
    stop(serve_, SIGKILL, -1);
    char request[16] = {}, reply[8] = {1};
    unsigned int len = sizeof reply;
    vlq_mc_client client;
    EXPECT_EQ(tevhost::MSG_NOT_LISTENING,
              client.vlq_mc_send_sync_message(TEV_ASH_SRV_OBJ_ID, TEV_ASH_FUNC_CREATE, request,
                                              sizeof request, reply, &len, TEV_ASH_SRV_NAME));
    EXPECT_EQ(1, reply[0]);  // untouched
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--runtime-dir", dir_.dir(), "create", "APLJOB"}, {"director", "--app-type", "1"}}) {
        auto r = run(args);
        EXPECT_NE(0, r.first);
        EXPECT_NE(std::string::npos, r.second.find("handler service not reachable")) << r.second;
    }

    // A new service: the running director registers with it by itself.
    serve_ = start({"serve"});
    unsigned int id = 0;
    const long long registered_ms = ms_until([&] { return create(1, &id) == 0; });
    std::printf("the director answered the new service after %lld ms\n", registered_ms);
    EXPECT_LE(0, registered_ms);
    EXPECT_TRUE(wait_for(extra_, "registered again"));
    auto second = run({"serve", "--json"});
    EXPECT_EQ(1, second.first);
    EXPECT_NE(std::string::npos, second.second.find("TEV_ASH_SRV")) << second.second;
    auto created = run({"--runtime-dir", dir_.dir(), "create", "APLJOB"});
    EXPECT_EQ(0, created.first) << created.second;
    // A type without a director: the library's answer, in words, not success.
    auto refused = run({"--runtime-dir", dir_.dir(), "--app-type", "9", "create", "APLJOB"});
    EXPECT_NE(0, refused.first);
    EXPECT_NE(std::string::npos, refused.second.find("no director registered")) << refused.second;
}

// A client started by the test below: CLIENT_REQUESTS creates, each answered.
TEST(MultiProcessClient, CreatesWhenStartedAsClient) {
    if (std::getenv("TEVASH_TEST_CLIENT") == nullptr) GTEST_SKIP() << "only as a started client";
    for (int i = 0; i < CLIENT_REQUESTS; ++i) {
        unsigned int id = 0;
        ASSERT_EQ(0u, tev_ash_facade::tev_ash_get_instance()->tev_ash_create(
                          APLJOB, app(1), TEV_ASH_SERVICE_TYPE_NONE, &id, 0));
        ASSERT_NE(0u, id);
    }
}

using MultiProcessConcurrency = MultiProcess;

// Eight application processes against one service and one director: every
// request answered, every record kept.
TEST_F(MultiProcessConcurrency, EightApplicationsShareOneService) {
    extra_ = director(1);
    std::vector<process> clients;
    for (int i = 0; i < CLIENTS; ++i) {
        clients.push_back(
            start({"--gtest_filter=MultiProcessClient.*"}, {"TEVASH_TEST_CLIENT=1"}, false, true));
    }
    for (auto& c : clients) EXPECT_EQ(0, c.child.wait()) << tevtest::file_text(c.log);
    use_shared_store();
    EXPECT_EQ(static_cast<std::size_t>(CLIENTS * CLIENT_REQUESTS), tevhost::store_records().size());
    EXPECT_EQ("ok", integrity());
}

}  // namespace
