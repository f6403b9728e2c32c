// `tevash status`, `monitor` and `watch` against real processes on a private
// runtime directory: a service, a director, and this process as an application.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "handler_service.h"
#include "host/tev_host.h"
#include "tev_ash_facade.h"
#include "tev_ash_messages.h"
#include "tev_test_support.h"
#include "vlq_mc_client.h"

namespace {

using namespace velmora;
using namespace std::chrono_literals;
using json = nlohmann::json;

constexpr unsigned int NO_OBSERVER = 0xC1030006;

struct process {
    tevtest::child_process child;
    std::string log;
};

class LiveTools : public ::testing::Test {
protected:
    void SetUp() override { tevhost::set_runtime_dir(dir_.dir()); }

    // `tevash args` with its output in a log file; waits until the log holds `ready`.
    process start(const std::vector<std::string>& args, const std::string& ready) {
        tevtest::child_options opt;
        opt.env = env_;
        opt.log = dir_.path("log" + std::to_string(++logs_));
        std::vector<std::string> argv{TEVASH_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        process p{tevtest::child_process(argv, opt), opt.log};
        EXPECT_TRUE(wait_for([&] { return has(p, ready); })) << tevtest::file_text(p.log);
        return p;
    }
    tevtest::run_result run(std::vector<std::string> args) {
        args.insert(args.begin(), TEVASH_CLI_PATH);
        return tevtest::run_child(args, env_);
    }
    json status() { return json::parse(run({"status", "--json"}).out); }
    static bool has(const process& p, const std::string& text) {
        return tevtest::file_text(p.log).find(text) != std::string::npos;
    }
    // The log's whole JSON lines (other lines skipped).
    static std::vector<json> json_lines(const process& p) {
        std::vector<json> lines;
        const std::string text = tevtest::file_text(p.log);
        std::istringstream in(text.substr(0, text.rfind('\n') + 1));
        for (std::string line; std::getline(in, line);)
            if (!line.empty() && line[0] == '{') lines.push_back(json::parse(line));
        return lines;
    }
    template <typename Done>
    static bool wait_for(Done&& done, std::chrono::seconds limit = 20s) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(10ms);
        return done();
    }
    static tev_ash_facade* facade() { return tev_ash_facade::tev_ash_get_instance(); }
    static unsigned int create(int app_type, unsigned int* id) {
        return facade()->tev_ash_create(TEV_ASH_CAT_APLJOB, static_cast<TEV_ASH_APP_TYPE>(app_type),
                                        TEV_ASH_SERVICE_TYPE_NONE, id, 0);
    }
    // The service and a director of `app_type`; the director's pid.
    int start_system(int app_type = 1) {
        serve_ = start({"serve"}, "ready\n");
        director_ =
            start({"director", "--app-type", std::to_string(app_type), "--json"}, "\"ready\":true");
        return json_lines(director_).at(0)["pid"];
    }

    tevtest::temp_dir dir_;
    process serve_, director_;
    const std::vector<std::string> env_{"TEVASH_RUNTIME_DIR=" + dir_.dir(),
                                        "TEVASH_HOST_TRACE=none"};
    int logs_ = 0;
};

TEST_F(LiveTools, StatusFollowsTheServiceAndADirectorsLife) {
    auto none = run({"status"});
    EXPECT_EQ(3, none.status);
    EXPECT_NE(std::string::npos,
              none.out.find("handler service: not running (nothing listening)\nstore: "))
        << none.out;

    const int pid = start_system(4);
    json s = status();
    ASSERT_EQ(1u, s["service"]["directors"].size()) << s;
    json d = s["service"]["directors"][0];
    d.erase("object_id");
    EXPECT_EQ(
        json({{"app_type", 4}, {"connection", "TEV_ASH_DIR4"}, {"pid", pid}, {"answering", true}}),
        d);
    const json peer = {{"pid", pid}, {"connections", 1}};
    EXPECT_NE(std::string::npos, s["service"]["connections"].dump().find(peer.dump())) << s;

    // Monitor requests of a wrong size are refused; one after a sequence number
    // far ahead gets nothing at once (a service's numbers start again).
    vlq_mc_client client;
    for (unsigned int size : {0u, 3u, 15u, 17u, 4096u, 16u}) {
        std::vector<char> request(size, '\xff'), reply(64);
        if (size == 16) tev_ash_wire::put_u32(request.data() + 8, 0);
        auto len = static_cast<unsigned int>(reply.size());
        client.vlq_mc_send_sync_message(TEV_ASH_SRV_OBJ_ID, tevash_tools::HOST_FUNC_MONITOR,
                                        request.data(), size, reply.data(), &len, TEV_ASH_SRV_NAME);
        ASSERT_EQ(16u, len) << size;
        EXPECT_EQ(size == 16 ? 0u : 0xC1030008u, tev_ash_wire::get_u32(reply.data())) << size;
        EXPECT_EQ(0u, tev_ash_wire::get_u32(reply.data() + 12)) << size;
    }

    director_.child.kill(SIGKILL);
    EXPECT_TRUE(wait_for([&] { return status()["service"]["directors"].empty(); }));
    serve_.child.kill(SIGTERM);
    EXPECT_EQ(3, run({"status"}).status);
}

TEST_F(LiveTools, MonitorLinesAreTheRequestsAsSent) {
    const int dir_pid = start_system(), me = getpid();
    process monitor = start({"monitor", "--json"}, "monitoring");
    process filtered = start(
        {"monitor", "--json", "--function", "notify_remove", "--app-type", "1", "--count", "1"},
        "monitoring");
    const auto type1 = static_cast<TEV_ASH_APP_TYPE>(1);
    unsigned int id = 0, none = 0;
    ASSERT_EQ(0u, create(1, &id));
    ASSERT_EQ(0u, facade()->tev_ash_reset(type1, TEV_ASH_SERVICE_TYPE_NONE, id));
    ASSERT_EQ(0u, facade()->tev_ash_remove(type1, id));
    ASSERT_EQ(NO_OBSERVER, create(7, &none));
    wait_for([&] { return json_lines(monitor).size() >= 7; });

    const json cat = TEV_ASH_CAT_APLJOB, dir = "TEV_ASH_DIR1";
    // clang-format off
    const std::vector<json> expected = {
        {{"function", "create"}, {"pid", me}, {"app_type", 1}, {"category", cat}, {"service_type", 0}, {"source", 0}, {"handler", id}, {"result", 0}, {"words", "ok"}},
        {{"function", "notify_create"}, {"director_pid", dir_pid}, {"app_type", 1}, {"category", cat}, {"service_type", 0}, {"source", 0}, {"handler", id}, {"connection", dir}, {"result", 0}},
        {{"function", "reset"}, {"pid", me}, {"app_type", 1}, {"service_type", 0}, {"handler", id}, {"result", 0}},
        {{"function", "notify_reset"}, {"director_pid", dir_pid}, {"app_type", 1}, {"handler", id}, {"connection", dir}, {"result", 0}},
        {{"function", "remove"}, {"pid", me}, {"app_type", 1}, {"handler", id}, {"result", 0}},
        {{"function", "notify_remove"}, {"director_pid", dir_pid}, {"app_type", 1}, {"handler", id}, {"connection", dir}, {"result", 0}},
        {{"function", "create"}, {"pid", me}, {"app_type", 7}, {"result", NO_OBSERVER}, {"words", "no director for the type"}}};
    // clang-format on
    const std::vector<json> lines = json_lines(monitor);
    ASSERT_EQ(expected.size(), lines.size()) << tevtest::file_text(monitor.log);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        for (const auto& field : expected[i].items())
            EXPECT_EQ(field.value(), lines[i][field.key()]) << i << ' ' << lines[i];
        EXPECT_EQ(expected[i].contains("director_pid"), lines[i]["notification"]) << lines[i];
    }
    EXPECT_FALSE(lines[6].contains("handler")) << lines[6];
    EXPECT_EQ(0, filtered.child.wait(20s));  // --count 1
    EXPECT_EQ(std::vector<json>{lines[5]}, json_lines(filtered));
    EXPECT_EQ(1, run({"monitor", "--function", "nonsense"}).status);
}

// A stopped monitor: the creates all go through; once it runs again, the lines
// it missed are counted, and every line is either shown once or counted.
TEST_F(LiveTools, StoppedMonitorNeverHoldsUpTheService) {
    start_system();
    process monitor = start({"monitor", "--json"}, "monitoring");
    monitor.child.signal(SIGSTOP);
    std::atomic<int> failed{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 8; ++c)
        clients.emplace_back([&] {
            for (unsigned int i = 0, id = 0; i < 200; ++i) failed += create(1, &id) != 0;
        });
    for (auto& t : clients) t.join();
    EXPECT_EQ(0, failed.load());
    monitor.child.signal(SIGCONT);
    // Each create is two lines: the request and its notification.
    unsigned long long dropped = 0;
    std::set<unsigned long long> seqs;  // each line shown once
    ASSERT_TRUE(wait_for([&] {
        seqs.clear();
        dropped = 0;
        for (const auto& l : json_lines(monitor))
            l.contains("dropped") ? void(dropped += l["dropped"].get<unsigned long long>())
                                  : void(seqs.insert(l["seq"].get<unsigned long long>()));
        return seqs.size() + dropped >= 3200;
    }));
    EXPECT_EQ(3200u, seqs.size() + dropped);
    EXPECT_GT(dropped, 0u);
}

TEST_F(LiveTools, WatchSeesAnotherProcesssChanges) {
    auto memory = run({"watch"});
    EXPECT_EQ(1, memory.status);
    EXPECT_NE(std::string::npos, memory.err.find("in-memory store")) << memory.err;

    start_system();
    ASSERT_EQ(0, run({"create", "APLJOB"}).status);
    process watch = start({"watch", "--json"}, "watching");
    auto seen = [&](const std::string& change) {
        return wait_for([&] { return has(watch, change); }, 10s);
    };
    ASSERT_EQ(0, run({"set", "1", "0x00360000", "77", "--type", "i32"}).status);
    EXPECT_TRUE(seen(
        R"("change":"set","handler":1,"member":"0x00360000","kind":"i32","old":null,"new":77})"))
        << tevtest::file_text(watch.log);
    ASSERT_EQ(0, run({"remove", "1"}).status);
    EXPECT_TRUE(seen(R"("change":"removed","handler":1})")) << tevtest::file_text(watch.log);
}

// A watched file replaced by another is followed; a removed one ends the watch.
TEST_F(LiveTools, WatchFollowsAReplacedFileAndEndsWithARemovedOne) {
    const std::string file = dir_.path("w.db"), other = dir_.path("other.db");
    EXPECT_NE(std::string::npos, run({"--store", dir_.dir(), "watch"}).err.find("not a file"));
    // Made in the tool's own process (no runtime directory: no service).
    auto create_in = [](const std::string& store, const char* category) {
        return tevtest::run_child({TEVASH_CLI_PATH, "--store", store, "create", category},
                                  {"TEVASH_RUNTIME_DIR="})
            .status;
    };
    ASSERT_EQ(0, create_in(file, "APLJOB"));
    for (const char* category : {"APLJOB", "JOBSET_03"}) ASSERT_EQ(0, create_in(other, category));
    process watch = start({"--store", file, "watch", "--json"}, "watching");
    ASSERT_EQ(0, std::rename(other.c_str(), file.c_str()));
    EXPECT_TRUE(wait_for([&] { return has(watch, R"("change":"made","handler":2)"); }))
        << tevtest::file_text(watch.log);
    ASSERT_EQ(0, std::remove(file.c_str()));
    EXPECT_EQ(1, watch.child.wait(20s));
    EXPECT_TRUE(has(watch, "is gone")) << tevtest::file_text(watch.log);
}

}  // namespace
