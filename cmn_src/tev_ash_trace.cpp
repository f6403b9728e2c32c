#include "tev_ash_trace.h"

#include <cstdarg>
#include <cstdio>

#include "tev_ash_types.h"
#include "tiv_trace.h"

namespace velmora {
namespace tev_ash_trace {

namespace {
constexpr unsigned int TRACE_LEVEL = 0x102;
constexpr unsigned int MESSAGE_BUFFER = 256;

__attribute__((format(printf, 4, 0))) void write_line(const char* file, int line,
                                                      const char* function, const char* format,
                                                      va_list args) {
    char message[MESSAGE_BUFFER];
    std::vsnprintf(message, sizeof message, format, args);
    tivGENTrcPrintf(TEV_ASH_CMP_ID, TRACE_LEVEL, 0, "%s[%04d]::%s,%s\n", file, line, function,
                    message);
}

}  // namespace

void write(const char* file, int line, const char* function, const char* format, ...) {
    va_list args;
    va_start(args, format);
    write_line(file, line, function, format, args);
    va_end(args);
}

unsigned int fail(unsigned int code, const char* file, int line, const char* function,
                  const char* format, ...) {
    va_list args;
    va_start(args, format);
    write_line(file, line, function, format, args);
    va_end(args);
    return code;
}

void notify(unsigned int code, const char* file, const char* function, int line) {
    put_lib_svccall_notify(code, 0, 0, file, function, line);
}

}  // namespace tev_ash_trace
}  // namespace velmora
