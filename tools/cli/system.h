// The in-process system the command-line tool runs on: the handler service and
// the sample director for one application type, over whatever record store the
// process uses. Create, reset and remove travel facade -> handler service ->
// director -> record store, as on a device.
#ifndef TEVASH_CLI_SYSTEM_H
#define TEVASH_CLI_SYSTEM_H

#include <memory>

#include "tev_ash_types.h"

namespace tevash_cli {

class system_runtime {
public:
    // Starts the system; check status() before use.
    explicit system_runtime(velmora::TEV_ASH_APP_TYPE app_type);
    ~system_runtime();
    system_runtime(const system_runtime&) = delete;
    system_runtime& operator=(const system_runtime&) = delete;

    // 0 when the system is up; otherwise the code of the step that failed.
    unsigned int status() const;

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

}  // namespace tevash_cli

#endif  // TEVASH_CLI_SYSTEM_H
