// Host trace: formatted lines and service-call notifications go to the sink
// named by set_trace_sink (default TEVASH_HOST_TRACE) and, while a capture is
// active, into memory.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "host/tev_host_testing.h"
#include "settings.h"
#include "tiv_trace.h"

namespace {

// The sink follows the trace sink setting; a change takes effect at the next line.
class trace_sink {
public:
    trace_sink() = default;
    trace_sink(const trace_sink&) = delete;
    trace_sink& operator=(const trace_sink&) = delete;
    ~trace_sink() { close_file(); }

    // REQUIRES: the trace lock is held.
    void put(const std::string& text) {
        unsigned version = tevhost::settings::trace_sink_version();
        if (!selected_ || version != version_) {
            select(tevhost::settings::trace_sink());
            version_ = version;
        }
        if (fd_ < 0) return;
        const char* data = text.data();
        size_t left = text.size();
        while (left > 0) {
            ssize_t written = ::write(fd_, data, left);
            if (written <= 0) return;
            data += written;
            left -= static_cast<size_t>(written);
        }
    }

private:
    void select(const std::string& wanted) {
        if (selected_ && wanted == name_) return;
        close_file();
        selected_ = true;
        name_ = wanted;
        if (wanted == "stderr") {
            fd_ = STDERR_FILENO;
        } else if (wanted == "none" || wanted == "off") {
            fd_ = -1;
        } else {
            // One write per line with O_APPEND keeps lines of several processes whole.
            fd_ = ::open(wanted.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
            owns_fd_ = fd_ >= 0;
        }
    }

    void close_file() {
        if (owns_fd_) ::close(fd_);
        owns_fd_ = false;
        fd_ = -1;
    }

    bool selected_ = false;
    unsigned version_ = 0;  // of the setting selected_ follows
    std::string name_;
    int fd_ = -1;
    bool owns_fd_ = false;
};

struct trace_state {
    std::mutex mtx;
    trace_sink sink;
    bool capturing = false;
    std::vector<tevhost::trace_line> lines;
    std::vector<tevhost::notification> notifications;
};

trace_state& state() {
    static trace_state* s = new trace_state;  // never destroyed: tracing works until exit
    return *s;
}

std::string format_text(const char* format, va_list args) {
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) return std::string();
    if (static_cast<size_t>(needed) < sizeof small) return std::string(small, needed);
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

}  // namespace

int tivGENTrcPrintf(unsigned int module, unsigned int level, unsigned int flag, const char* format,
                    ...) {
    if (format == nullptr) return -1;
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);

    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    s.sink.put(text);
    if (s.capturing) s.lines.push_back(tevhost::trace_line{module, level, flag, text});
    return static_cast<int>(text.size());
}

void put_lib_svccall_notify(unsigned int code, unsigned int detail1, unsigned int detail2,
                            const char* file, const char* function, int line) {
    const char* file_text = file != nullptr ? file : "";
    const char* function_text = function != nullptr ? function : "";
    char head[96];
    std::snprintf(head, sizeof head, "notify code=0x%X detail=%u,%u at ", code, detail1, detail2);
    std::string text =
        std::string(head) + file_text + ":" + function_text + ":" + std::to_string(line) + "\n";

    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    s.sink.put(text);
    if (s.capturing) {
        s.notifications.push_back(
            tevhost::notification{code, detail1, detail2, file_text, function_text, line});
    }
}

namespace tevhost {

void trace_capture_begin() {
    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    s.capturing = true;
    s.lines.clear();
    s.notifications.clear();
}

void trace_capture_end() {
    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    s.capturing = false;
}

std::vector<trace_line> captured_trace() {
    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    return s.lines;
}

std::vector<notification> captured_notifications() {
    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    return s.notifications;
}

void trace_capture_clear() {
    trace_state& s = state();
    std::lock_guard<std::mutex> lock(s.mtx);
    s.lines.clear();
    s.notifications.clear();
}

}  // namespace tevhost
