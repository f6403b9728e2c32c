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
}  // namespace

void write(const char* file, int line, const char* function, const char* format, ...) {
    char message[MESSAGE_BUFFER];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    tivGENTrcPrintf(TEV_ASH_CMP_ID, TRACE_LEVEL, 0, "%s[%04d]::%s,%s\n", file, line, function,
                    message);
}

void notify(unsigned int code, const char* file, const char* function, int line) {
    put_lib_svccall_notify(code, 0, 0, file, function, line);
}

}  // namespace tev_ash_trace
}  // namespace velmora
