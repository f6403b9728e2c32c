// The in-process system the command-line tool runs on: record store backend,
// handler service and the sample director for one application type.
#ifndef TEVASH_CLI_SYSTEM_H
#define TEVASH_CLI_SYSTEM_H

#include <memory>
#include <string>

#include "tev_ash_types.h"

namespace tevash_cli {

class system_runtime {
public:
    explicit system_runtime(velmora::TEV_ASH_APP_TYPE app_type);
    ~system_runtime();
    system_runtime(const system_runtime&) = delete;
    system_runtime& operator=(const system_runtime&) = delete;

    // True when create, reset and remove travel through the handler service and
    // a director; false when they go straight to the record store.
    bool has_director() const;

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

}  // namespace tevash_cli

#endif  // TEVASH_CLI_SYSTEM_H
