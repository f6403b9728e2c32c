#include "processes.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "handler_service.h"
#include "host/tev_host.h"
#include "sample_director.h"
#include "tev_ash_types.h"
#include "vlq_mc_client.h"

namespace tevash_tools {

namespace {

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
    std::fprintf(stderr, "tevash %s: %s\n", who, message.c_str());
    return 1;
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned int>(c));
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

void print_ready(bool json, const std::string& fields) {
    if (json) {
        std::printf("{\"ready\":true,\"pid\":%ld,%s}\n", static_cast<long>(getpid()),
                    fields.c_str());
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

// The sample director with the test hooks of run_director.
class process_director : public sample_director {
public:
    process_director(const char* connection)
        : sample_director(connection), hold_(env("TEVASH_TEST_DIRECTOR_HOLD")) {
        const std::string dump = env("TEVASH_TEST_DIRECTOR_DUMP");
        if (!dump.empty()) dump_ = std::fopen(dump.c_str(), "a");
    }
    ~process_director() override {
        stop();
        if (dump_ != nullptr) std::fclose(dump_);
    }

    void dispatch(long func_id, char* rcvbuf, unsigned int rcvbuf_len,
                  gen_ipc_msghdr sync_handle) override {
        if (dump_ != nullptr) {
            std::lock_guard<std::mutex> lock(dump_mtx_);
            std::fprintf(dump_, "%ld ", func_id);
            for (unsigned int i = 0; rcvbuf != nullptr && i < rcvbuf_len; ++i) {
                std::fprintf(dump_, "%02x", static_cast<unsigned char>(rcvbuf[i]));
            }
            std::fprintf(dump_, "\n");
            std::fflush(dump_);
        }
        sample_director::dispatch(func_id, rcvbuf, rcvbuf_len, sync_handle);
    }

    void notify_create(velmora::TEV_ASH_CATEGORY category,
                       velmora::TEV_ASH_SERVICE_TYPE service_type, unsigned int& handler_id,
                       unsigned int src_handler_id, long& result) override {
        hold("create");
        sample_director::notify_create(category, service_type, handler_id, src_handler_id, result);
    }
    void notify_remove(unsigned int handler_id, long& result) override {
        hold("remove");
        sample_director::notify_remove(handler_id, result);
    }
    void notify_reset(velmora::TEV_ASH_SERVICE_TYPE service_type, unsigned int handler_id,
                      long& result) override {
        hold("reset");
        sample_director::notify_reset(service_type, handler_id, result);
    }

private:
    static std::string env(const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr ? value : "";
    }
    void hold(const char* function) const {
        if (hold_ != function) return;
        std::fprintf(stderr, "holding %s\n", function);
        std::fflush(stderr);
        std::this_thread::sleep_for(std::chrono::minutes(1));
    }

    std::string hold_;
    std::FILE* dump_ = nullptr;
    std::mutex dump_mtx_;
};

}  // namespace

bool shared_store_path(const std::string& store, std::string* path, std::string* error) {
    std::string dir;
    std::string why;
    if (!tevhost::runtime_dir(&dir, &why)) {
        if (error != nullptr) *error = "runtime directory: " + why;
        return false;
    }
    *path = store.empty() ? dir + "/store.db" : store;
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
    if (!tevhost::serve_connection(velmora::TEV_ASH_SRV_NAME, &error)) {
        tevhost::unregister_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID);
        return fail("serve", "cannot serve \"TEV_ASH_SRV\" in " + dir + ": " + error);
    }
    print_ready(opt.json, "\"runtime_dir\":" + json_string(dir) + ",\"store\":" +
                              json_string(store) + ",\"connection\":\"TEV_ASH_SRV\"");
    const int sig = wait_for_stop_signal();
    std::fprintf(stderr, "tevash serve: %s: stopping\n", strsignal(sig));
    tevhost::stop_serving(velmora::TEV_ASH_SRV_NAME);
    tevhost::unregister_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID);
    return 0;
}

int run_director(int app_type, const std::string& connection, const process_options& opt) {
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
    process_director director(name);
    const unsigned int rc = director.start(static_cast<velmora::TEV_ASH_APP_TYPE>(app_type));
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
    print_ready(opt.json, "\"app_type\":" + std::to_string(app_type) + ",\"connection\":" +
                              json_string(name) + ",\"store\":" + json_string(store));
    const int sig = wait_for_stop_signal();
    std::fprintf(stderr, "tevash director: %s: withdrawing\n", strsignal(sig));
    const unsigned int stopped = director.stop();
    tevhost::stop_serving(name);
    if (stopped != 0) {
        std::fprintf(stderr, "tevash director: withdrawal answered %#.8x\n", stopped);
    }
    return 0;
}

}  // namespace tevash_tools
