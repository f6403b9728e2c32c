// The host platform's settings: defaults from the environment, each variable
// read once at its first use, and the values the setters of tev_host.h put over
// them. Safe for concurrent use from any thread without external synchronization.
#include "settings.h"

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

#include "host/tev_host.h"

namespace tevhost {
namespace {

constexpr long MAX_TIMEOUT_MS = 24L * 3600 * 1000;

// One environment variable, read when first asked for ("" when unset).
class variable {
public:
    explicit variable(const char* name) : name_(name) {}
    variable(const variable&) = delete;
    variable& operator=(const variable&) = delete;

    const std::string& value() {
        std::call_once(read_, [this] {
            const char* text = std::getenv(name_);
            if (text != nullptr) value_ = text;
        });
        return value_;
    }

private:
    const char* name_;
    std::once_flag read_;
    std::string value_;  // written once, under read_
};

struct environment {
    variable trace{"TEVASH_HOST_TRACE"};
    variable runtime_dir{"TEVASH_RUNTIME_DIR"};
    variable xdg_runtime_dir{"XDG_RUNTIME_DIR"};
    variable timeout_ms{"TEVASH_HOST_IPC_TIMEOUT_MS"};
    variable store{"TEVASH_HOST_STORE"};
    variable journal_stream{"JOURNAL_STREAM"};
};

environment& env() {
    static environment* e = new environment;  // never destroyed: read until exit
    return *e;
}

int environment_timeout_ms() {
    static const int ms = [] {
        const std::string& text = env().timeout_ms.value();
        if (text.empty()) return settings::DEFAULT_TIMEOUT_MS;
        char* end = nullptr;
        long value = std::strtol(text.c_str(), &end, 10);
        if (*end != '\0' || value <= 0 || value > MAX_TIMEOUT_MS) {
            return settings::DEFAULT_TIMEOUT_MS;
        }
        return static_cast<int>(value);
    }();
    return ms;
}

// What the setters chose.
struct chosen {
    std::mutex mtx;
    bool trace_set = false;   // guarded by mtx
    std::string trace;        // guarded by mtx
    std::string runtime_dir;  // guarded by mtx; empty: not chosen
    std::atomic<unsigned> trace_version{0};
    std::atomic<int> timeout_ms{0};  // 0: not chosen
};

chosen& choice() {
    static chosen* c = new chosen;  // never destroyed: read until exit
    return *c;
}

}  // namespace

namespace settings {

std::string trace_sink() {
    chosen& c = choice();
    std::string sink;
    {
        std::lock_guard<std::mutex> lock(c.mtx);
        sink = c.trace_set ? c.trace : env().trace.value();
    }
    return sink.empty() ? "stderr" : sink;
}

unsigned trace_sink_version() {
    return choice().trace_version.load(std::memory_order_acquire);
}

std::string runtime_dir_choice() {
    chosen& c = choice();
    std::lock_guard<std::mutex> lock(c.mtx);
    return c.runtime_dir.empty() ? env().runtime_dir.value() : c.runtime_dir;
}

std::string xdg_runtime_dir() {
    return env().xdg_runtime_dir.value();
}

int message_timeout_ms() {
    int ms = choice().timeout_ms.load(std::memory_order_relaxed);
    return ms > 0 ? ms : environment_timeout_ms();
}

const char* initial_store_file() {
    const std::string& store = env().store.value();
    return store.empty() ? nullptr : store.c_str();
}

bool stderr_is_journal() {
    const std::string& text = env().journal_stream.value();
    if (text.empty()) return false;
    char* end = nullptr;
    const unsigned long long dev = std::strtoull(text.c_str(), &end, 10);
    if (*end != ':') return false;
    const char* ino_text = end + 1;
    const unsigned long long ino = std::strtoull(ino_text, &end, 10);
    struct stat st;
    return end != ino_text && *end == '\0' && ::fstat(2, &st) == 0 &&
           static_cast<unsigned long long>(st.st_dev) == dev &&
           static_cast<unsigned long long>(st.st_ino) == ino;
}

}  // namespace settings

void set_trace_sink(const std::string& sink) {
    chosen& c = choice();
    std::lock_guard<std::mutex> lock(c.mtx);
    c.trace_set = true;
    c.trace = sink;
    c.trace_version.fetch_add(1, std::memory_order_release);
}

void set_runtime_dir(const std::string& dir) {
    chosen& c = choice();
    std::lock_guard<std::mutex> lock(c.mtx);
    c.runtime_dir = dir;
}

void set_message_timeout_ms(int ms) {
    choice().timeout_ms.store(ms > 0 ? ms : 0, std::memory_order_relaxed);
}

}  // namespace tevhost
