#include "system.h"

#include "host/tev_host.h"

namespace tevash_cli {

// Until the handler service is built into the tool, start-up is answered here
// and handler records are made directly in the record store.
struct system_runtime::impl {
    explicit impl(velmora::TEV_ASH_APP_TYPE) {
        tevhost::set_check_script([](const std::string&, long) { return 0; });
    }
    ~impl() { tevhost::set_check_script(nullptr); }
};

system_runtime::system_runtime(velmora::TEV_ASH_APP_TYPE app_type) : impl_(new impl(app_type)) {}
system_runtime::~system_runtime() = default;

bool system_runtime::has_director() const {
    return false;
}

}  // namespace tevash_cli
