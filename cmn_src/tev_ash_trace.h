// The library's trace line and service-call notification, built in one place.
// A line is tivGENTrcPrintf(0xC103, 0x102, 0, "%s[%04d]::%s,%s\n", file, line,
// function, message), the message formatted into a 256-byte buffer.
#ifndef TEV_ASH_TRACE_H
#define TEV_ASH_TRACE_H

namespace velmora {
namespace tev_ash_trace {

// Source file names as they appear in trace lines.
constexpr const char* FILE_FACADE = "tev_ash_facade";
constexpr const char* FILE_CONTROL = "tev_ash_control";
constexpr const char* FILE_HANDLER_FACADE = "tev_ash_handler_facade";
constexpr const char* FILE_OBSERVER = "tev_ash_observer";
constexpr const char* FILE_OBSERVER_IMPL = "tev_ash_observer_impl";
constexpr const char* FILE_DIRECTOR_MANAGER = "tev_ash_director_manager";

// Writes one trace line; `format` and its arguments make the message (at most
// 255 characters are kept).
void write(const char* file, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Writes one trace line, as write does, and returns `code`: the failure exit of
// an operation, `return fail(...)`.
unsigned int fail(unsigned int code, const char* file, int line, const char* function,
                  const char* format, ...) __attribute__((format(printf, 5, 6)));

// A 32-bit code as the "%lx" / "%lX" fields of trace messages take it.
inline unsigned long lx(unsigned int code) {
    return static_cast<unsigned long>(code);
}

// Reports a failed service call with both detail words 0.
void notify(unsigned int code, const char* file, const char* function, int line);

}  // namespace tev_ash_trace
}  // namespace velmora

// Trace from the current source line.
#define TEV_ASH_TRACE(file, function, ...) \
    ::velmora::tev_ash_trace::write((file), __LINE__, (function), __VA_ARGS__)
// A failure exit from the current source line: one trace line, then `code`
// (`return TEV_ASH_FAIL(...)`).
#define TEV_ASH_FAIL(code, file, function, ...) \
    ::velmora::tev_ash_trace::fail((code), (file), __LINE__, (function), __VA_ARGS__)
// The control layer's failure exit (a store call or a step that failed): one
// trace line in tev_ash_control, then 0xC1030001.
#define TEV_ASH_CONTROL_FAILED(function, ...)                                           \
    TEV_ASH_FAIL(::velmora::TEV_ASH_RC_FAILURE, ::velmora::tev_ash_trace::FILE_CONTROL, \
                 (function), __VA_ARGS__)
#define TEV_ASH_NOTIFY(code, file, function) \
    ::velmora::tev_ash_trace::notify((code), (file), (function), __LINE__)

#endif  // TEV_ASH_TRACE_H
