// status and monitor: the running system of a runtime directory as it is and
// as it changes, asked of the handler service (its host-only requests,
// handler_service.h). watch is cmd_watch.cpp.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <time.h>
#include <filesystem>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "handler_service.h"
#include "live.h"
#include "processes.h"
#include "tev_ash_connecter.h"
#include "tev_ash_messages.h"
#include "util.h"
#include "vlq_mc_client.h"

namespace tevash_cli {

namespace {

using namespace velmora;
using json = nlohmann::ordered_json;

// The exit status when no handler service answers.
constexpr int NO_SERVICE = 3;

// One host-only request to the handler service; "" when answered, else why not
// ("nothing listening", ...). *absent tells a service that does not run from
// one that runs but did not answer (stopped, hung, or killed while asked).
std::string ask_service(long func_id, std::vector<char> request, std::vector<char>* reply,
                        bool* absent) {
    vlq_mc_client client;
    reply->assign(64 * 1024 - 20, '\0');
    auto len = static_cast<unsigned int>(reply->size());
    client.vlq_mc_send_sync_message(TEV_ASH_SRV_OBJ_ID, func_id, request.data(),
                                    static_cast<unsigned int>(request.size()), reply->data(), &len,
                                    TEV_ASH_SRV_NAME);
    const int sent = tevhost::last_send_status();
    *absent = sent == tevhost::MSG_NOT_LISTENING;
    if (sent == tevhost::MSG_NO_REPLY) return "the handler service does not answer this request";
    if (sent != tevhost::MSG_OK) return tevhost::send_status_text(sent);
    reply->resize(len);
    return "";
}

std::string hex_id(long id) {
    return hex32(static_cast<unsigned int>(id));
}

bool process_alive(int pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno != ESRCH);
}

const char* connecter_status(int status) {
    switch (status) {
        case tev_ash_connecter::CTRL_STATUS_NONE: return "new";
        case tev_ash_connecter::CTRL_STATUS_STARTED: return "started";
        case tev_ash_connecter::CTRL_STATUS_READY: return "ready";
        case tev_ash_connecter::CTRL_STATUS_STOPPED: return "stopped";
        default: return "unknown";
    }
}

// ---------------------------------------------------------------------------
// status

struct status_options {
    bool json = false;
};

// The shared store file and its record count (-1 when it cannot be read).
void store_part(const context& ctx, std::string* file, long long* records, std::string* why) {
    *records = -1;
    std::string error;
    std::error_code ec;
    if (!ctx.store.empty()) {
        *file = ctx.store;
    } else if (!ctx.runtime_dir.empty() && !std::filesystem::is_directory(ctx.runtime_dir, ec)) {
        *why = "no runtime directory " + ctx.runtime_dir;
        return;
    } else if (!tevash_tools::shared_store_path("", file, &error)) {
        *why = error;
        return;
    }
    struct stat st {};
    if (::stat(file->c_str(), &st) != 0) {
        *why = "no store file yet";
        return;
    }
    if (!tevhost::store_use_file(*file, &error, tevhost::store_access::read_only)) {
        *why = error;
        return;
    }
    *records = static_cast<long long>(tevhost::store_records().size());
}

int run_status(const context& ctx, const status_options& o) {
    const std::string dir = prepare_live(ctx);
    std::vector<char> reply;
    std::error_code ec;
    bool absent = true;
    std::string unreachable = std::filesystem::is_directory(dir, ec)
                                  ? ask_service(tevash_tools::HOST_FUNC_STATUS, {}, &reply, &absent)
                                  : "no runtime directory " + dir;
    tevash_tools::service_status s;
    if (unreachable.empty() &&
        !tevash_tools::decode_status(reply.data(), static_cast<unsigned int>(reply.size()), &s))
        unreachable = "the handler service answered with a malformed status";
    std::string file, why;
    long long records = -1;
    store_part(ctx, &file, &records, &why);

    if (o.json) {
        json out = {{"runtime_dir", dir}};
        if (unreachable.empty()) {
            json directors = json::array(), connecters = json::array(), peers = json::array();
            for (const auto& d : s.directors)
                directors.push_back({{"app_type", d.app_type},
                                     {"connection", d.connection},
                                     {"object_id", d.obj_id},
                                     {"pid", d.pid},
                                     {"answering", d.answering}});
            for (const auto& c : s.connecters)
                connecters.push_back({{"id", c.id},
                                      {"name", c.name},
                                      {"status", connecter_status(c.status)},
                                      {"pid", c.pid},
                                      {"process_alive", process_alive(c.pid)}});
            for (const auto& p : s.peers)
                peers.push_back({{"pid", p.pid}, {"connections", p.connections}});
            out["service"] = {
                {"pid", s.pid},           {"started_us", s.started_us}, {"store", s.store},
                {"directors", directors}, {"connecters", connecters},   {"connections", peers}};
        } else {
            out["service"] = nullptr;
            out["service_error"] = unreachable;
            out["service_running"] = !absent;
        }
        out["store"] = {{"file", file}};
        if (records >= 0)
            out["store"]["records"] = records;
        else
            out["store"]["error"] = why;
        std::cout << json_line(out) << '\n';
    } else {
        std::cout << "runtime directory: " << dir << '\n';
        if (!unreachable.empty()) {
            std::cout << "handler service: " << (absent ? "not running (" : "not answering (")
                      << unreachable << ")\n";
        } else {
            const long long up = (now_us() - s.started_us) / 1000000;
            std::cout << "handler service: pid " << s.pid << ", started "
                      << clock_text(s.started_us, true) << " (up " << up << " s), store " << s.store
                      << '\n';
            std::cout << "directors: " << s.directors.size() << '\n';
            for (const auto& d : s.directors)
                std::cout << "  app type " << d.app_type << "  " << d.connection << "  object "
                          << hex_id(d.obj_id) << "  pid " << d.pid << "  "
                          << (d.answering ? "answering" : "not answering") << '\n';
            std::cout << "connecters: " << s.connecters.size() << '\n';
            for (const auto& c : s.connecters)
                std::cout << "  " << c.id << "  " << c.name << "  " << connecter_status(c.status)
                          << "  pid " << c.pid << (process_alive(c.pid) ? "" : " (ended)") << '\n';
            std::cout << "open connections to the service: " << s.peers.size() << " process(es)\n";
            for (const auto& p : s.peers)
                std::cout << "  pid " << p.pid << "  " << p.connections << '\n';
        }
        if (records >= 0)
            std::cout << "store: " << file << ", " << records << " record(s)\n";
        else
            std::cout << "store: " << file << " (" << why << ")\n";
    }
    std::cout.flush();
    return unreachable.empty() ? 0 : NO_SERVICE;
}

// ---------------------------------------------------------------------------
// monitor

struct monitor_options {
    bool json = false;
    int app_type = -1;  // -1: any
    std::string function;
    long long count = 0;  // stop after this many lines; 0: never
};

using tevash_tools::monitor_line;

// The fields a function carries in its answer rather than its request.
unsigned int answer_fields(const monitor_line& l) {
    const bool note = (l.fields & monitor_line::NOTIFICATION) != 0;
    if (l.func_id == TEV_ASH_FUNC_CREATE) return monitor_line::HANDLER_ID;
    if (note) return 0;
    if (l.func_id == TEV_ASH_FUNC_CTRL_NOTIFY_START) return monitor_line::CONNECTER;
    if (l.func_id == TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER)
        return monitor_line::OBJECT_ID | monitor_line::NAME;
    return 0;
}

// The line's fields among `which`, as " name=value" text or into `out`.
void fields_of(const monitor_line& l, unsigned int which, std::string* text, json* out) {
    auto put = [&](unsigned int bit, const char* name, const json& value,
                   const std::string& shown) {
        if ((l.fields & which & bit) == 0) return;
        if (text != nullptr) *text += std::string(" ") + name + "=" + shown;
        if (out != nullptr) (*out)[name] = value;
    };
    put(monitor_line::APP_TYPE, "app_type", static_cast<int>(l.app_type),
        std::to_string(static_cast<int>(l.app_type)));
    put(monitor_line::SERVICE_TYPE, "service_type", static_cast<int>(l.service_type),
        std::to_string(static_cast<int>(l.service_type)));
    put(monitor_line::CATEGORY, "category", l.category, category_name(l.category));
    put(monitor_line::SOURCE_ID, "source", l.source_id, std::to_string(l.source_id));
    put(monitor_line::HANDLER_ID, "handler", l.handler_id, std::to_string(l.handler_id));
    put(monitor_line::CONNECTER, "connecter", l.connecter, std::to_string(l.connecter));
    put(monitor_line::OBJECT_ID, "object", l.obj_id, hex_id(l.obj_id));
    put(monitor_line::NAME, "connection", l.name, l.name);
}

std::string monitor_text(const monitor_line& l) {
    const bool note = (l.fields & monitor_line::NOTIFICATION) != 0;
    std::string text = clock_text(l.time_us, false) + (note ? "  to pid " : "  pid ") +
                       std::to_string(l.pid) + "  " + tevash_tools::function_name(l.func_id, note);
    const unsigned int answer = answer_fields(l);
    fields_of(l, ~answer, &text, nullptr);
    if ((l.fields & monitor_line::RESULT) == 0) {
        text += "  -> no answer";
    } else if (l.result == 0) {
        text += "  -> ok";
        fields_of(l, answer, &text, nullptr);
    } else {
        text += "  -> " + hex32(l.result);
        const std::string words = tevash_tools::result_words(l.result);
        if (!words.empty()) text += " (" + words + ")";
    }
    return text + "  " + std::to_string(l.latency_us) + " us";
}

json monitor_json(const monitor_line& l) {
    const bool note = (l.fields & monitor_line::NOTIFICATION) != 0;
    json out = {{"seq", l.seq},
                {"time_us", l.time_us},
                {note ? "director_pid" : "pid", l.pid},
                {"function", tevash_tools::function_name(l.func_id, note)},
                {"notification", note}};
    fields_of(l, ~0u, nullptr, &out);
    if (l.fields & monitor_line::RESULT) {
        out["result"] = l.result;
        out["words"] = l.result == 0 ? "ok" : tevash_tools::result_words(l.result);
    }
    out["latency_us"] = l.latency_us;
    return out;
}

bool known_function(const std::string& name) {
    for (long f = TEV_ASH_FUNC_ADD_OBSERVER; f <= TEV_ASH_FUNC_CTRL_GET_DIRECTOR_OBSERVER; ++f)
        if (name == tevash_tools::function_name(f, false) ||
            name == tevash_tools::function_name(f, true))
            return true;
    return false;
}

// The most lines one answer carries, and the pause after an answer that had
// some: the ring of 1024 lines then holds 50 000 lines a second.
constexpr unsigned int MONITOR_BATCH = 800;
constexpr std::chrono::milliseconds MONITOR_PAUSE(20);

int run_monitor(const context& ctx, const monitor_options& o) {
    if (!o.function.empty() && !known_function(o.function))
        return context::fail("no function '" + o.function +
                             "' (create, remove, reset, add_observer, remove_observer, "
                             "notify_start, notify_init_end, notify_stop, get_director_observer, "
                             "notify_create, notify_remove, notify_reset)");
    const std::string dir = prepare_live(ctx);
    stop_on_signals();
    unsigned long long after = ~0ull;
    bool lost = false;
    long long shown = 0;
    while (!stop_asked()) {
        std::vector<char> request(16), reply;
        tev_ash_wire::put_u32(request.data(), static_cast<std::uint32_t>(after));
        tev_ash_wire::put_u32(request.data() + 4, static_cast<std::uint32_t>(after >> 32));
        tev_ash_wire::put_u32(request.data() + 8, 500);
        tev_ash_wire::put_u32(request.data() + 12, MONITOR_BATCH);
        bool absent = true;
        const std::string unreachable =
            ask_service(tevash_tools::HOST_FUNC_MONITOR, request, &reply, &absent);
        if (!unreachable.empty() || reply.size() < 16 || tev_ash_wire::get_u32(reply.data()) != 0) {
            const std::string why =
                (absent ? "handler service not reachable: " : "handler service not answering: ") +
                (unreachable.empty() ? std::string("malformed answer") : unreachable);
            if (after == ~0ull && !lost) {
                context::fail(why + " in " + dir);
                return NO_SERVICE;
            }
            if (!lost) std::cerr << "tevash monitor: " << why << "; waiting for it\n";
            lost = true;
            after = ~0ull;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            continue;
        }
        const unsigned long long last =
            tev_ash_wire::get_u32(reply.data() + 4) |
            (static_cast<unsigned long long>(tev_ash_wire::get_u32(reply.data() + 8)) << 32);
        unsigned int count = tev_ash_wire::get_u32(reply.data() + 12);
        if (reply.size() < 16 + static_cast<std::size_t>(count) * monitor_line::SIZE) count = 0;
        if (after == ~0ull) {
            std::cerr << "tevash monitor: " << (lost ? "the handler service is back" : "monitoring")
                      << " in " << dir << " (Ctrl-C stops)\n";
            lost = false;
            after = last;
            continue;
        }
        if (last < after) after = last;  // a new service: its numbers start again
        std::vector<monitor_line> batch;
        unsigned long long dropped = 0;
        for (unsigned int i = 0; i < count; ++i) {
            batch.push_back(tevash_tools::decode_monitor_line(
                reply.data() + 16 + static_cast<std::size_t>(i) * monitor_line::SIZE));
            if (batch.back().seq > after + 1) dropped += batch.back().seq - after - 1;
            after = batch.back().seq;
        }
        if (dropped != 0) {
            if (o.json)
                std::cout << json_line({{"dropped", dropped}}) << '\n';
            else
                std::cout << "... " << dropped << " line(s) dropped\n";
        }
        for (const monitor_line& l : batch) {
            const bool note = (l.fields & monitor_line::NOTIFICATION) != 0;
            if (o.app_type >= 0 && ((l.fields & monitor_line::APP_TYPE) == 0 ||
                                    static_cast<int>(l.app_type) != o.app_type))
                continue;
            if (!o.function.empty() && tevash_tools::function_name(l.func_id, note) != o.function)
                continue;
            std::cout << (o.json ? json_line(monitor_json(l)) : monitor_text(l)) << '\n';
            if (o.count > 0 && ++shown >= o.count) {
                std::cout.flush();
                return 0;
            }
        }
        std::cout.flush();
        // While lines keep coming, ask a little later for more of them at once:
        // each answer wakes this process, which the service's host pays for.
        if (count != 0 && count < MONITOR_BATCH) std::this_thread::sleep_for(MONITOR_PAUSE);
    }
    return 0;
}

}  // namespace

namespace {
volatile sig_atomic_t g_stop = 0;
}  // namespace

void stop_on_signals() {
    g_stop = 0;
    signal(SIGINT, [](int) { g_stop = 1; });
    signal(SIGTERM, [](int) { g_stop = 1; });
}

bool stop_asked() {
    return g_stop != 0;
}

std::string json_line(const json& j) {
    return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Routes traces and picks the runtime directory; a message timeout of a few
// seconds unless one is set, so that a stopped service is told quickly.
std::string prepare_live(const context& ctx) {
    if (!ctx.verbose) tevhost::set_trace_sink("none");
    if (!ctx.runtime_dir.empty()) tevhost::set_runtime_dir(ctx.runtime_dir);
    if (std::getenv("TEVASH_HOST_IPC_TIMEOUT_MS") == nullptr) tevhost::set_message_timeout_ms(5000);
    // A directory named on the command line is not made by looking at it.
    std::error_code ec;
    if (!ctx.runtime_dir.empty() && !std::filesystem::is_directory(ctx.runtime_dir, ec))
        return ctx.runtime_dir;
    std::string dir;
    tevhost::runtime_dir(&dir);
    return dir;
}

std::string clock_text(long long us, bool date) {
    const time_t secs = static_cast<time_t>(us / 1000000);
    tm parts{};
    localtime_r(&secs, &parts);
    char text[64];
    strftime(text, sizeof text, date ? "%Y-%m-%d %H:%M:%S" : "%H:%M:%S", &parts);
    if (date) return text;
    char micro[16];
    std::snprintf(micro, sizeof micro, ".%06lld", us % 1000000);
    return std::string(text) + micro;
}

long long now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void add_live_commands(CLI::App& app, context& ctx) {
    auto so = std::make_shared<status_options>();
    auto* status = app.add_subcommand("status", "Show the running handler service and the store");
    status->add_flag("--json", so->json, "One JSON object");
    status->footer(
        "The runtime directory; the handler service's pid, start time and store; its directors, "
        "connecters and the open connections of each process; the store's record count. Exits 0 "
        "when the service answers, 3 when none runs (the store part is still shown).");
    status->callback([&ctx, so] { ctx.exit_code = run_status(ctx, *so); });

    auto mo = std::make_shared<monitor_options>();
    auto* monitor = app.add_subcommand(
        "monitor", "Show each request the handler service answers and each notification it sends");
    monitor->add_flag("--json", mo->json, "One JSON object per line");
    monitor->add_option("--app-type", mo->app_type, "Only lines of this application type");
    monitor->add_option("--function", mo->function,
                        "Only this function (create, notify_create, remove, ...)");
    monitor->add_option("--count", mo->count, "Exit after this many lines");
    monitor->footer(
        "One line per request: time, sender pid, function, its fields, the answer and the "
        "latency in us. Notifications to a director show the director's pid. Lines a slow "
        "monitor missed are counted (\"... N line(s) dropped\"). Exits 3 when no service runs.");
    monitor->callback([&ctx, mo] { ctx.exit_code = run_monitor(ctx, *mo); });
}

}  // namespace tevash_cli
