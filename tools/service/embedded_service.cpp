#include "tevhost/embedded_service.h"

#include "host_system.h"
#include "tiv_trace.h"

namespace tevhost {

struct embedded_service::impl {
    explicit impl(velmora::TEV_ASH_APP_TYPE app_type) : system(app_type) {}
    tevash_tools::host_system system;
};

embedded_service::embedded_service(velmora::TEV_ASH_APP_TYPE app_type)
    : impl_(std::make_unique<impl>(app_type)) {
    if (status() != 0)
        tivGENTrcPrintf(velmora::TEV_ASH_CMP_ID, 0x102, 0,
                        "embedded_service: %s for application type %d (result 0x%08X)\n",
                        status_text(), static_cast<int>(app_type), status());
}

embedded_service::~embedded_service() = default;

unsigned int embedded_service::status() const {
    return impl_->system.status();
}

const char* embedded_service::status_text() const {
    if (!impl_->system.service()) return "a handler service already runs in this process";
    if (status() != 0) return "the director could not register with the handler service";
    return "running";
}

}  // namespace tevhost
