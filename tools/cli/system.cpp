#include "system.h"

#include "host_system.h"

namespace tevash_cli {

struct system_runtime::impl {
    explicit impl(velmora::TEV_ASH_APP_TYPE app_type) : system(app_type) {}
    tevash_tools::host_system system;
};

system_runtime::system_runtime(velmora::TEV_ASH_APP_TYPE app_type) : impl_(new impl(app_type)) {}
system_runtime::~system_runtime() = default;

unsigned int system_runtime::status() const {
    return impl_->system.status();
}

}  // namespace tevash_cli
