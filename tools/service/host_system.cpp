#include "host_system.h"

#include "handler_service.h"
#include "host/tev_host.h"
#include "sample_director.h"

namespace tevash_tools {

host_system::host_system(velmora::TEV_ASH_APP_TYPE app_type, const char* director_connection,
                         unsigned int director_cmp_id)
    : app_type_(app_type),
      director_(std::make_unique<sample_director>(director_connection, director_cmp_id)) {
    auto service = std::make_unique<handler_service>();
    if (!tevhost::register_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID,
                                  static_cast<velmora::facade_template*>(service.get()))) {
        status_ = tevhost::HOST_ALREADY_REGISTERED;
        return;
    }
    service_ = std::move(service);
    status_ = director_->start(app_type);
}

host_system::~host_system() {
    director_->stop();
    if (service_) {
        tevhost::unregister_object(velmora::TEV_ASH_SRV_NAME, velmora::TEV_ASH_SRV_OBJ_ID);
        service_.reset();
    }
}

}  // namespace tevash_tools
