// Host trace: formatted lines and service-call notifications go to the sink
// named by set_trace_sink (default TEVASH_HOST_TRACE) and, while a capture is
// active, into memory. In a file each line starts with the time and the pid; on
// standard error that is the journal's stream, with its syslog priority.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "host/tev_host.h"
#include "host/tev_host_testing.h"
#include "settings.h"
#include "tiv_trace.h"

namespace {

using tevhost::log_priority;

// "2026-01-31T12:00:00.123456Z [pid] ", the head of a line in a trace file.
std::string time_and_pid() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm utc{};
    gmtime_r(&ts.tv_sec, &utc);
    char head[64];
    size_t n = std::strftime(head, sizeof head, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(head + n, sizeof head - n, ".%06ldZ [%ld] ", ts.tv_nsec / 1000,
                  static_cast<long>(::getpid()));
    return head;
}

// `text` with `head` before each of its lines.
std::string with_heads(const std::string& head, const std::string& text) {
    std::string out;
    out.reserve(text.size() + head.size());
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        out += head;
        out.append(text, at, end - at);
        at = end;
    }
    return out;
}

std::string priority_head(log_priority priority) {
    return "<" + std::to_string(static_cast<int>(priority)) + ">";
}

void write_all(int fd, const std::string& text) {
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written <= 0) return;
        data += written;
        left -= static_cast<size_t>(written);
    }
}

// The sink follows the trace sink setting; a change takes effect at the next line.
class trace_sink {
public:
    trace_sink() = default;
    trace_sink(const trace_sink&) = delete;
    trace_sink& operator=(const trace_sink&) = delete;
    ~trace_sink() { close_file(); }

    // REQUIRES: the trace lock is held.
    void put(const std::string& text, log_priority priority) {
        unsigned version = tevhost::settings::trace_sink_version();
        if (!selected_ || version != version_) {
            select(tevhost::settings::trace_sink());
            version_ = version;
        }
        if (fd_ < 0) return;
        if (owns_fd_) {
            write_all(fd_, with_heads(time_and_pid(), text));
        } else if (fd_ == STDERR_FILENO && tevhost::settings::stderr_is_journal()) {
            write_all(fd_, with_heads(priority_head(priority), text));
        } else {
            write_all(fd_, text);
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
    bool owns_fd_ = false;  // a trace file: lines carry time and pid
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
    s.sink.put(text, log_priority::warning);
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
    s.sink.put(text, log_priority::error);
    if (s.capturing) {
        s.notifications.push_back(
            tevhost::notification{code, detail1, detail2, file_text, function_text, line});
    }
}

namespace tevhost {

void log_line(log_priority priority, const std::string& line) {
    const std::string text = line + "\n";
    write_all(STDERR_FILENO, settings::stderr_is_journal() ? priority_head(priority) + text : text);
}

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
