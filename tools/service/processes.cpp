#include "processes.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "handler_service.h"
#include "host/tev_host.h"
#include "tev_ash_types.h"
#include "tiv_trace.h"
#include "vlq_mc_client.h"

namespace tevash_tools {

namespace {

// How often a director looks whether a new handler service serves, and how long
// it waits, once asked to stop, for the notifications in flight.
constexpr std::chrono::milliseconds SERVICE_LOOK(100);
constexpr std::chrono::milliseconds STOP_WAIT(1500);

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

// Blocked before any thread starts, so every later thread inherits the mask and
// only the sigwait below takes the signal.
void block_stop_signals() {
    sigset_t set = stop_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int wait_for_stop_signal() {
    sigset_t set = stop_signals();
    int sig = 0;
    while (sigwait(&set, &sig) != 0) {
    }
    return sig;
}

int fail(const char* who, const std::string& message) {
    tevhost::log_line(tevhost::log_priority::error, std::string("tevash ") + who + ": " + message);
    return 1;
}

void tell(const process_options& opt, const char* state, const std::string& status) {
    if (opt.on_state) opt.on_state(state, status);
}

// "ready", or {"ready":true,"pid":<pid>,<fields>}; bytes of a path that are not
// UTF-8 show as U+FFFD.
void print_ready(bool json, const nlohmann::ordered_json& fields) {
    if (json) {
        nlohmann::ordered_json line = {{"ready", true}, {"pid", static_cast<long>(getpid())}};
        line.update(fields);
        const std::string text =
            line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        std::printf("%s\n", text.c_str());
    } else {
        std::printf("ready\n");
    }
    std::fflush(stdout);
}

// Opens the shared store; the runtime directory is created when missing.
bool open_store(const char* who, const process_options& opt, std::string* path) {
    std::string error;
    if (opt.memory_store) {
        *path = ":memory:";
        tevhost::store_use_memory();
        return true;
    }
    if (!shared_store_path(opt.store, path, &error)) {
        fail(who, error);
        return false;
    }
    if (!tevhost::store_use_file(*path, &error)) {
        fail(who, "cannot open the record store '" + *path + "': " + error);
        return false;
    }
    return true;
}

}  // namespace

bool shared_store_path(const std::string& store, std::string* path, std::string* error) {
    std::string shared;
    std::string why;
    if (!tevhost::shared_store_file(&shared, &why)) {
        if (error != nullptr) *error = why;
        return false;
    }
    *path = store.empty() ? shared : store;
    return true;
}

std::string service_unreachable_text() {
    const int status = tevhost::last_send_status();
    if (status == tevhost::MSG_OK) return "";
    return std::string("handler service not reachable: ") + tevhost::send_status_text(status);
}

int run_service(const process_options& opt) {
    block_stop_signals();
    std::string store;
    if (!open_store("serve", opt, &store)) return 1;
    std::string dir;
    tevhost::runtime_dir(&dir);

    handler_service service;
    if (!tevhost::register_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID,
                                  static_cast<velmora::facade_template*>(&service))) {
        return fail("serve", "the handler service is already registered in this process");
    }
    std::string error;
    if (!(opt.listen_fd >= 0
              ? tevhost::serve_connection_on(velmora::TEV_ASH_SRV_NAME, opt.listen_fd, &error)
              : tevhost::serve_connection(velmora::TEV_ASH_SRV_NAME, &error))) {
        tevhost::unregister_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID);
        return fail("serve", "cannot serve \"TEV_ASH_SRV\" in " + dir + ": " + error);
    }
    // Every process of the runtime directory now shares this service's store.
    if (!opt.memory_store && !tevhost::choose_shared_store(store, &error)) {
        tevhost::stop_serving(velmora::TEV_ASH_SRV_NAME);
        tevhost::unregister_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID);
        return fail("serve", error);
    }
    print_ready(opt.json, {{"runtime_dir", dir}, {"store", store}, {"connection", "TEV_ASH_SRV"}});
    tell(opt, "ready", "serving TEV_ASH_SRV in " + dir + ", store " + store);
    const int sig = wait_for_stop_signal();
    tell(opt, "stopping", std::string("stopping (") + strsignal(sig) + ")");
    std::fprintf(stderr, "tevash serve: %s: stopping\n", strsignal(sig));
    tevhost::stop_serving(velmora::TEV_ASH_SRV_NAME);
    tevhost::unregister_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID);
    return 0;
}

int run_director(int app_type, const std::string& connection, const process_options& opt,
                 const director_factory& make) {
    block_stop_signals();
    std::string store;
    if (!open_store("director", opt, &store)) return 1;
    char name[velmora::TEV_ASH_CONNECTION_NAME_LEN + 1];
    std::snprintf(name, sizeof name, "%s",
                  connection.empty() ? ("TEV_ASH_DIR" + std::to_string(app_type)).c_str()
                                     : connection.c_str());
    if (velmora::vlq_mc_client::vlq_mc_check_facade(velmora::TEV_ASH_SRV_NAME,
                                                    velmora::TEV_ASH_SRV_OBJ_ID) == 0) {
        return fail("director",
                    "handler service not reachable: nothing listening (start "
                    "`tevash serve` on the same runtime directory)");
    }
    std::string error;
    if (!tevhost::serve_connection(name, &error)) {
        return fail("director", std::string("cannot serve \"") + name + "\": " + error);
    }
    std::unique_ptr<sample_director> director = make ? make(name) : nullptr;
    if (director == nullptr) director = std::make_unique<sample_director>(name);
    unsigned long long service = tevhost::served_instance(velmora::TEV_ASH_SRV_NAME);
    const unsigned int rc = director->start(static_cast<velmora::TEV_ASH_APP_TYPE>(app_type));
    const std::string unreachable = service_unreachable_text();
    if (rc != 0 || !unreachable.empty()) {
        tevhost::stop_serving(name);
        if (!unreachable.empty()) return fail("director", unreachable);
        char code[16];
        std::snprintf(code, sizeof code, "%#.8x", rc);
        return fail("director", std::string("registration for application type ") +
                                    std::to_string(app_type) + " refused: result " + code +
                                    (rc == velmora::TEV_ASH_RC_OBSERVER_EXISTS
                                         ? " (another director is registered for it)"
                                         : ""));
    }
    print_ready(opt.json, {{"app_type", app_type}, {"connection", name}, {"store", store}});
    tell(opt, "ready", "directing application type " + std::to_string(app_type) + " as " + name);

    // Follows the handler service: one started since does not know this director.
    std::mutex mtx;
    std::condition_variable cv;
    bool stopping = false;
    std::thread follower([&] {
        std::unique_lock<std::mutex> lock(mtx);
        while (!cv.wait_for(lock, SERVICE_LOOK, [&] { return stopping; })) {
            lock.unlock();
            const unsigned long long now = tevhost::served_instance(velmora::TEV_ASH_SRV_NAME);
            if (now != 0 && now != service) {
                const unsigned int again = director->register_again();
                if (service_unreachable_text().empty()) {  // else: at the next look
                    service = now;
                    const char* what = again == 0 ? "registered again" : "registration refused";
                    std::fprintf(stderr,
                                 "tevash director: a new handler service: %s (result %#.8x)\n",
                                 what, again);
                    tivGENTrcPrintf(0xE200, 0x102, 0,
                                    "director: a new handler service serves \"TEV_ASH_SRV\": %s "
                                    "for application type %d (result %#.8x)\n",
                                    what, app_type, again);
                }
            }
            lock.lock();
        }
    });

    const int sig = wait_for_stop_signal();
    tell(opt, "stopping", std::string("withdrawing (") + strsignal(sig) + ")");
    std::fprintf(stderr, "tevash director: %s: withdrawing\n", strsignal(sig));
    director->begin_stop();  // nothing is kept from here on
    // Withdrawing waits for the notifications in flight, which may be blocked:
    // the process exits after STOP_WAIT all the same, keeping none of their work.
    auto withdrawn = std::async(std::launch::async, [&] {
        {
            std::lock_guard<std::mutex> lock(mtx);
            stopping = true;
        }
        cv.notify_all();
        follower.join();
        const unsigned int stopped = director->stop();
        tevhost::stop_serving(name);
        return stopped;
    });
    if (withdrawn.wait_for(STOP_WAIT) != std::future_status::ready) {
        std::fprintf(stderr,
                     "tevash director: a notification is still running after %lld ms: exiting "
                     "without it (its changes are not kept)\n",
                     static_cast<long long>(STOP_WAIT.count()));
        std::fflush(nullptr);
        _exit(0);
    }
    const unsigned int stopped = withdrawn.get();
    if (stopped != 0) {
        std::fprintf(stderr, "tevash director: withdrawal answered %#.8x\n", stopped);
    }
    return 0;
}

}  // namespace tevash_tools
